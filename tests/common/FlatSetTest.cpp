#include "common/FlatSet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <unordered_set>
#include <vector>

namespace {

using AR::Common::FlatSet;
using AR::Common::detail::kEmptyHome;
using Key3 = AR::Math::Vector<int, 3>;

// Test keys that name their own bucket: key = bucket * kBucketShift + tag.
constexpr uint32_t kBucketShift = 256;
struct BucketHash {
    uint32_t operator()(uint32_t key) const { return key / kBucketShift; }
};
using TestSet = FlatSet<uint32_t, BucketHash>;

uint32_t key(uint32_t bucket, uint32_t tag) {
    return bucket * kBucketShift + tag;
}

template <typename Set>
std::vector<typename Set::value_type> walk(const Set& set) {
    return std::vector<typename Set::value_type>(set.begin(), set.end());
}

// Checks the table invariant: homes never decrease along the slots, every element stands at or
// after its home with no empty slot in between, and the home is the masked hash.
template <typename Set, typename Hash>
void expectTableInvariant(const Set& set, Hash hash) {
    uint32_t previousHome = 0;
    uint32_t occupied = 0;
    for (uint32_t slot = 0; slot < set.slotCount(); ++slot) {
        const uint32_t home = set.slotHome(slot);
        if (home == kEmptyHome) {
            continue;
        }
        ++occupied;
        ASSERT_GE(home, previousHome) << "slot " << slot;
        ASSERT_LE(home, slot);
        for (uint32_t between = home; between < slot; ++between) {
            ASSERT_NE(set.slotHome(between), kEmptyHome) << "gap before slot " << slot;
        }
        previousHome = home;
    }
    EXPECT_EQ(occupied, set.size());
    for (auto it = set.begin(); it != set.end(); ++it) {
        EXPECT_EQ(set.slotHome(set.slotIndex(it)), hash(*it) & (set.bucketCount() - 1));
    }
}

TEST(FlatSet, HashOfBlockKeysAndIntegers) {
    const AR::Common::hash<Key3> hash3;
    EXPECT_EQ(hash3(Key3(-1, 0, 0)), 0xFFFFE171u);
    EXPECT_EQ(hash3(Key3(1, 2, 3)), 25708u);
    const AR::Common::hash<AR::Math::Vector<int, 4>> hash4;
    EXPECT_EQ(hash4(AR::Math::Vector<int, 4>(1, 1, 1, 1)), 22318u);
    // One FNV-1a step on key 0 is the FNV-1a hash of a single zero byte.
    EXPECT_EQ(AR::Common::hash<unsigned int>()(0u), 0x050C5D1Fu);
    EXPECT_EQ(AR::Common::hash<unsigned short>()(7), AR::Common::hash<unsigned int>()(7u));
}

TEST(FlatSet, InsertionShiftsInFrontOfLaterBuckets) {
    TestSet set;
    EXPECT_TRUE(set.insert(key(2, 0)).second);
    EXPECT_TRUE(set.insert(key(2, 1)).second);
    // Bucket 3 is taken by a displaced element of bucket 2: the new one probes on to slot 4.
    const auto c = set.insert(key(3, 0));
    EXPECT_EQ(set.slotIndex(c.first), 4u);
    // A third element of bucket 2 goes in front of bucket 3, which moves up by one.
    const auto d = set.insert(key(2, 2));
    EXPECT_EQ(set.slotIndex(d.first), 4u);
    EXPECT_EQ(set.slotIndex(set.find(key(3, 0))), 5u);
    EXPECT_EQ(walk(set), (std::vector<uint32_t>{key(2, 0), key(2, 1), key(2, 2), key(3, 0)}));
    // A repeated key changes nothing.
    const auto again = set.insert(key(2, 1));
    EXPECT_FALSE(again.second);
    EXPECT_EQ(*again.first, key(2, 1));
    EXPECT_EQ(set.size(), 4u);
    expectTableInvariant(set, BucketHash());
}

TEST(FlatSet, LoadIsTestedOnlyOnTheShiftingPath) {
    TestSet set;
    for (uint32_t bucket = 0; bucket < 8; ++bucket) {
        set.insert(key(bucket, 0));
    }
    // The ninth lands in the free overflow slot 8: load 9/8 and still no growth.
    EXPECT_EQ(set.slotIndex(set.insert(key(7, 1)).first), 8u);
    EXPECT_EQ(set.size(), 9u);
    EXPECT_EQ(set.bucketCount(), 8u);
    // The tenth must shift in front of bucket 1: the load test fails and the table doubles.
    set.insert(key(0, 1));
    EXPECT_EQ(set.bucketCount(), 16u);
    EXPECT_EQ(set.size(), 10u);
    for (uint32_t bucket = 0; bucket < 8; ++bucket) {
        EXPECT_TRUE(set.contains(key(bucket, 0)));
    }
    EXPECT_TRUE(set.contains(key(7, 1)));
    EXPECT_TRUE(set.contains(key(0, 1)));
    expectTableInvariant(set, BucketHash());
}

TEST(FlatSet, FullOverflowRunForcesRehashAtLowLoad) {
    TestSet set(64);
    ASSERT_EQ(set.bucketCount(), 64u);
    for (uint32_t tag = 0; tag < 9; ++tag) {
        set.insert(key(63, tag));
    }
    EXPECT_EQ(set.bucketCount(), 64u);
    EXPECT_EQ(set.slotHome(set.slotCount() - 1), 63u);
    // The probe for one more element of the last bucket runs off the end: growth at load 9/64,
    // reported as a sign of clustering since the grown table is nearly empty.
    testing::internal::CaptureStderr();
    set.insert(key(63, 9));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr("FlatSet::rehash load factor 0.070312 pretty small after "
                                   "rehash (buckets 128, els 9, max offset 8)-> check your hash "
                                   "function"));
    EXPECT_EQ(set.bucketCount(), 128u);
    EXPECT_EQ(set.size(), 10u);
    // Rehashing walks the old slots in order, so the elements keep their relative order.
    std::vector<uint32_t> expected;
    for (uint32_t tag = 0; tag < 10; ++tag) {
        expected.push_back(key(63, tag));
    }
    EXPECT_EQ(walk(set), expected);

    // A shift that finds no free slot before the end grows the table too.
    TestSet shifting(64);
    shifting.insert(key(60, 0));
    shifting.insert(key(61, 0));
    shifting.insert(key(62, 0));
    for (uint32_t tag = 0; tag < 9; ++tag) {
        shifting.insert(key(63, tag));
    }
    EXPECT_EQ(shifting.bucketCount(), 64u);
    shifting.insert(key(60, 1));
    EXPECT_EQ(shifting.bucketCount(), 128u);
    EXPECT_EQ(shifting.size(), 13u);
    expectTableInvariant(shifting, BucketHash());
}

TEST(FlatSet, EraseReturnsTheNextElementAndEmptiesTheLastSlot) {
    // Erasing at the head of a cluster pulls back exactly the displaced run.
    TestSet set;
    for (const uint32_t k : {key(2, 0), key(2, 1), key(4, 0), key(3, 0)}) {
        set.insert(k);
    }
    EXPECT_TRUE(set.erase(key(2, 0)));
    EXPECT_FALSE(set.erase(key(2, 0)));
    EXPECT_EQ(set.slotIndex(set.find(key(4, 0))), 4u);
    EXPECT_EQ(set.slotHome(5), kEmptyHome);
    expectTableInvariant(set, BucketHash());

    // Erasing through an iterator returns the next element in slot order.
    TestSet chain;
    for (uint32_t tag = 0; tag < 4; ++tag) {
        chain.insert(key(1, tag));
    }
    auto next = chain.erase(chain.find(key(1, 1)));
    ASSERT_NE(next, chain.end());
    EXPECT_EQ(*next, key(1, 2));
    EXPECT_EQ(walk(chain), (std::vector<uint32_t>{key(1, 0), key(1, 2), key(1, 3)}));

    // Erasing in the last overflow slot leaves nothing to pull back and returns the end.
    TestSet full;
    for (uint32_t tag = 0; tag < 9; ++tag) {
        full.insert(key(7, tag));
    }
    ASSERT_EQ(full.slotIndex(full.find(key(7, 8))), full.slotCount() - 1);
    EXPECT_EQ(full.erase(full.find(key(7, 8))), full.end());
    EXPECT_EQ(full.slotHome(full.slotCount() - 1), kEmptyHome);
    for (uint32_t tag = 0; tag < 8; ++tag) {
        EXPECT_EQ(full.slotIndex(full.find(key(7, tag))), 7u + tag);
    }
}

TEST(FlatSet, ClearKeepsSlotsAndRehashNeverShrinks) {
    constexpr uint32_t kCount = 40;
    constexpr uint32_t kBuckets = 16;
    TestSet set;
    for (uint32_t i = 0; i < kCount; ++i) {
        set.insert(key(i % kBuckets, i));
    }
    const uint32_t slots = set.slotCount();
    set.clear();
    EXPECT_EQ(set.size(), 0u);
    EXPECT_EQ(set.begin(), set.end());
    EXPECT_EQ(set.slotCount(), slots);
    // Refilled at the old size, the table does not grow, and it lays the keys out like a table
    // made at that size from the start.
    TestSet fresh(set.bucketCount());
    for (uint32_t i = 0; i < kCount; ++i) {
        set.insert(key(i % kBuckets, i));
        fresh.insert(key(i % kBuckets, i));
    }
    EXPECT_EQ(set.slotCount(), slots);
    const std::vector<uint32_t> order = walk(set);
    EXPECT_EQ(order, walk(fresh));

    set.rehash(set.bucketCount());
    set.rehash(1);
    EXPECT_EQ(set.slotCount(), slots);
    EXPECT_EQ(walk(set), order);
    set.rehash(set.bucketCount() + 1);
    EXPECT_EQ(set.slotCount(), 2 * (slots - 8) + 8);
    expectTableInvariant(set, BucketHash());
}

TEST(FlatSet, MatchesUnorderedSetUnderRandomInsertAndErase) {
    struct StdHash {
        size_t operator()(const Key3& k) const { return AR::Common::hash<Key3>()(k); }
    };
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> coordinate(-6, 6);
    std::uniform_int_distribution<int> action(0, 2);
    FlatSet<Key3> set;
    std::unordered_set<Key3, StdHash> reference;
    constexpr int kOperations = 30000;
    constexpr int kFullCheckEvery = 997;
    for (int op = 0; op < kOperations; ++op) {
        const Key3 k(coordinate(random), coordinate(random), coordinate(random));
        if (action(random) == 0) {
            ASSERT_EQ(set.erase(k), reference.erase(k) == 1);
        } else {
            ASSERT_EQ(set.insert(k).second, reference.insert(k).second);
        }
        ASSERT_EQ(set.size(), reference.size());
        ASSERT_EQ(set.contains(k), reference.count(k) == 1);
        if (op % kFullCheckEvery == 0) {
            for (const Key3& element : set) {
                ASSERT_EQ(reference.count(element), 1u);
            }
            expectTableInvariant(set, AR::Common::hash<Key3>());
        }
    }
    for (const Key3& element : reference) {
        EXPECT_TRUE(set.contains(element));
    }
    expectTableInvariant(set, AR::Common::hash<Key3>());
}

TEST(FlatSetDeathTest, AtAbortsOnAMissingKey) {
    FlatSet<Key3> set;
    set.insert(Key3(1, 1, 1));
    EXPECT_DEATH(set.at(Key3(2, 2, 2)), "slot != this->end");
}

}  // namespace
