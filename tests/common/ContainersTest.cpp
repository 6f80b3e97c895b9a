#include "common/Vector.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "common/ArrayView.h"
#include "common/Map.h"
#include "common/OS.h"
#include "common/SmallVector.h"
#include "common/UUID.h"

namespace {

using AR::Common::UUID;
using AR::Common::Vector;

TEST(CommonVector, GrowthRefillsAndSelfReferencingAppend) {
    Vector<int> v;
    for (int i = 0; i < 17; ++i)
        v.push_back(i);
    EXPECT_EQ(v.getCapacity(), 32u);
    EXPECT_EQ(v[16], 16);
    // resize takes max(2 * capacity, n) and zero-fills; assign_fast keeps a larger capacity.
    v.resize(40);
    EXPECT_EQ(v.getCapacity(), 64u);
    v.resize(200);
    EXPECT_EQ(v[199], 0);
    v.assign_fast(5, 7);
    EXPECT_EQ(v.getCapacity(), 200u);
    EXPECT_EQ(v.back(), 7);

    const int64_t buffersBefore = AR::Common::OS::getNumUnalignedBuffers();
    {
        Vector<std::string, AR::Common::VectorGrowConstant<16>> s;
        for (int i = 0; i < 16; ++i)
            s.push_back(std::string(30, static_cast<char>('a' + i)));
        // Appending an element of the full vector itself: the copy is made before the old block
        // goes.
        s.push_back(s[3]);
        EXPECT_EQ(s.back(), std::string(30, 'd'));
        s.insert(s.begin() + 1, s[0]);
        EXPECT_EQ(s[2], std::string(30, 'b'));
        EXPECT_EQ(*s.erase(s.begin()), std::string(30, 'a'));
        Vector<std::string, AR::Common::VectorGrowConstant<16>> copy(s);
        EXPECT_EQ(copy[2], s[2]);
    }
    EXPECT_EQ(AR::Common::OS::getNumUnalignedBuffers(), buffersBefore);
}

TEST(CommonVectorDeathTest, ContainersCheckTheirBounds) {
    Vector<int> v;
    EXPECT_DEATH(v[0], "block != 0 && index < numItems");
    EXPECT_DEATH(v.back(), "block != 0 && numItems > 0");
    v.push_back(1);
    EXPECT_DEATH(v.at(1), "index < numItems");
    EXPECT_DEATH(v.assign_fast(3, v[0]), "&value < begin");

    using Labels = AR::Common::SmallVector<unsigned char, 32>;
    static_assert(sizeof(Labels) == 36 && std::is_trivially_copyable_v<Labels>,
                  "copied with the samples as raw bytes");
    Labels labels{};
    labels.resize(32);
    labels.at(31) = 200;
    labels.resize(2);
    labels.resize(32);
    EXPECT_EQ(labels[31], 0);  // regrown elements are zeroed
    EXPECT_DEATH(labels.resize(33), "new_size <= MAX_SIZE");

    AR::Common::Map<int, float> map;
    map[5] = 0.5f;
    map[1] = 0.1f;
    map[9] = 0.9f;
    EXPECT_EQ(map.begin()->first, 1);
    EXPECT_TRUE(map.erase(5));
    const AR::Common::Map<int, float>& view = map;
    EXPECT_EQ(view[9], 0.9f);
    EXPECT_DEATH(view[4], "it != mItems.end");

    AR::Common::ArrayView<int> tail(v.begin(), v.end());
    EXPECT_DEATH(tail.at(1), "index < numItems");
    EXPECT_DEATH(AR::Common::ArrayView<int>(v.end(), v.begin()), "begin <= end");
}

TEST(UUID, HalvesAreLeastSignificantByteFirstAndRoundTrip) {
    const std::pair<unsigned long long, unsigned long long> halves{0x0807060504030201ull,
                                                                   0x100F0E0D0C0B0A09ull};
    const UUID id(halves);
    for (size_t i = 0; i < UUID::kNumBytes; ++i)
        EXPECT_EQ(id.bytes()[i], i + 1) << i;
    EXPECT_EQ(id.str(), "01020304-0506-0708-090a-0b0c0d0e0f10");
    EXPECT_EQ(id.asUint64(), halves);
    EXPECT_EQ(UUID(id.str()), id);
    // Ordered by bytes, first byte first.
    EXPECT_FALSE(id < UUID());
    EXPECT_TRUE(UUID(std::make_pair(0x0100ull, 0x0ull)) < UUID(std::make_pair(0x02ull, 0x0ull)));
}

TEST(UUID, GeneratorMakesVersionFourIdsReproducibleBySeed) {
    AR::Common::UUIDGenerator first, second;
    first.setSeed(17);
    second.setSeed(17);
    std::set<std::string> seen;
    for (int i = 0; i < 500; ++i) {
        const UUID id = first();
        EXPECT_TRUE(id == second() && id.bytes()[6] >> 4 == 4 && id.bytes()[8] >> 6 == 2) << i;
        seen.insert(id.str());
    }
    EXPECT_EQ(seen.size(), 500u);
}

TEST(UUIDDeathTest, TextIsParsedUnlessItIsSixteenRawCharactersAndMalformedTextAborts) {
    EXPECT_EQ(UUID("3F2504E0-4F89-11D3-9A0C-0305E82C3301").str(),
              "3f2504e0-4f89-11d3-9a0c-0305e82c3301");
    const UUID rawId(std::string("0123456789abcdef"));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(rawId.bytes()), 16), "0123456789abcdef");
    EXPECT_DEATH(UUID("not-a-uuid"), "AR_ASSERT fields == ");
}

}  // namespace
