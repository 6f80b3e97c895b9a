#include "common/Vector.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "common/ArrayView.h"
#include "common/Map.h"
#include "common/OS.h"
#include "common/SmallVector.h"

namespace {

using AR::Common::ArrayView;
using AR::Common::Map;
using AR::Common::SmallVector;
using AR::Common::Vector;
using AR::Common::VectorGrowConstant;

TEST(CommonVector, DoublingGrowthAndExactRefills) {
    Vector<int> v;
    EXPECT_EQ(v.getCapacity(), 0u);
    EXPECT_EQ(v.data(), nullptr);
    for (int i = 0; i < 16; ++i) {
        v.push_back(i);
    }
    EXPECT_EQ(v.getCapacity(), 16u);
    v.push_back(16);
    EXPECT_EQ(v.getCapacity(), 32u);
    for (int i = 0; i < 17; ++i) {
        EXPECT_EQ(v[i], i);
    }

    // resize takes max(2 * capacity, n) and zero-fills.
    v.resize(40);
    EXPECT_EQ(v.getCapacity(), 64u);
    v.resize(200);
    EXPECT_EQ(v.getCapacity(), 200u);
    EXPECT_EQ(v[199], 0);
    v.resize(3);
    EXPECT_EQ(v.getCapacity(), 200u);

    // assign_fast: a smaller count keeps the capacity, a larger one raises it exactly.
    v.assign_fast(5, 7);
    EXPECT_EQ(v.size(), 5u);
    EXPECT_EQ(v.getCapacity(), 200u);
    EXPECT_EQ(v.back(), 7);
    v.assign_fast(0, 7);
    EXPECT_TRUE(v.empty());
    Vector<int> fresh;
    fresh.assign_fast(37, -1);
    EXPECT_EQ(fresh.getCapacity(), 37u);
    const int source[] = {4, 5, 6};
    fresh.assign(source, source + 3);
    EXPECT_EQ(fresh.size(), 3u);
    EXPECT_EQ(fresh.getCapacity(), 37u);
    EXPECT_EQ(fresh.front(), 4);
}

TEST(CommonVector, InsertEraseAndSelfReferencingAppend) {
    const int64_t buffersBefore = AR::Common::OS::getNumUnalignedBuffers();
    {
        Vector<std::string, VectorGrowConstant<16>> v;
        for (int i = 0; i < 16; ++i) {
            v.push_back(std::string(30, static_cast<char>('a' + i)));
        }
        // Appending an element of the full vector itself: the copy is made before the old block
        // goes.
        v.push_back(v[3]);
        EXPECT_EQ(v.getCapacity(), 32u);
        EXPECT_EQ(v.back(), std::string(30, 'd'));
        EXPECT_EQ(v[3], std::string(30, 'd'));

        v.insert(v.begin() + 1, v[0]);
        EXPECT_EQ(v[0], v[1]);
        EXPECT_EQ(v[2], std::string(30, 'b'));
        auto next = v.erase(v.begin());
        EXPECT_EQ(*next, std::string(30, 'a'));
        EXPECT_EQ(v.size(), 17u);
        v.insert(v.end(), "tail");
        EXPECT_EQ(v.back(), "tail");

        Vector<std::string, VectorGrowConstant<16>> copy(v);
        v.pop_back();
        EXPECT_EQ(copy.back(), "tail");
        EXPECT_EQ(copy.size(), v.size() + 1);
    }
    // Every block went back through the counted allocator.
    EXPECT_EQ(AR::Common::OS::getNumUnalignedBuffers(), buffersBefore);
}

TEST(CommonVectorDeathTest, IndexAndEndsAreChecked) {
    Vector<int> empty;
    EXPECT_DEATH(empty[0], "block != 0 && index < numItems");
    EXPECT_DEATH(empty.front(), "block != 0 && numItems > 0");
    EXPECT_DEATH(empty.back(), "block != 0 && numItems > 0");
    Vector<int> v;
    v.push_back(1);
    EXPECT_DEATH(v.at(1), "index < numItems");
    EXPECT_DEATH(v.assign_fast(3, v[0]), "&value < begin");
}

TEST(SmallVector, FixedLayoutAndBounds) {
    using Labels = SmallVector<unsigned char, 32>;
    static_assert(sizeof(Labels) == 36, "count followed by 32 counters");
    static_assert(std::is_trivially_copyable_v<Labels>, "copied with the samples as raw bytes");
    Labels labels{};
    EXPECT_EQ(labels.size(), 0u);
    labels.resize(32);
    EXPECT_EQ(labels.size(), 32u);
    labels.at(31) = 200;
    labels.resize(2);
    labels.resize(32);
    EXPECT_EQ(labels[31], 0);  // regrown elements are zeroed
    const unsigned char values[] = {1, 2, 3};
    labels.assign(values, values + 3);
    EXPECT_EQ(labels.size(), 3u);
    EXPECT_EQ(labels.back(), 3);
    EXPECT_DEATH(labels.resize(33), "new_size <= MAX_SIZE");
    EXPECT_DEATH(labels.at(3), "index < current_size");
}

TEST(CommonMap, SortedInsertionAndCheckedLookup) {
    Map<int, float> map;
    map[5] = 0.5f;
    map[1] = 0.1f;
    map[3];
    map[9] = 0.9f;
    std::vector<int> keys;
    for (const auto& entry : map) {
        keys.push_back(entry.first);
    }
    EXPECT_EQ(keys, (std::vector<int>{1, 3, 5, 9}));
    EXPECT_EQ(map.at(3), 0.0f);
    EXPECT_EQ(map[1], 0.1f);
    EXPECT_TRUE(map.erase(5));
    EXPECT_FALSE(map.contains(5));
    EXPECT_EQ(map.size(), 3u);
    const Map<int, float>& view = map;
    EXPECT_EQ(view[9], 0.9f);
    EXPECT_DEATH(view[4], "it != mItems.end");
}

TEST(ArrayView, ViewsWithoutOwning) {
    Vector<int> v;
    v.assign_fast(4, 2);
    ArrayView<int> all(v);
    all[1] = 8;
    EXPECT_EQ(v[1], 8);
    ArrayView<int> tail(v.begin() + 2, v.end());
    EXPECT_EQ(tail.size(), 2u);
    EXPECT_EQ(tail.front(), 2);
    EXPECT_DEATH(tail.at(2), "index < numItems");
    EXPECT_DEATH(ArrayView<int>(v.end(), v.begin()), "begin <= end");
}

}  // namespace
