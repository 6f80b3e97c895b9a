// The flat hash tables of the block grid: the hashes, the map's values, the aborts, and the replay
// of the slot order from the hashes alone. (Insertion, erasure and growth: every grid of every
// test; a fault there breaks the outlines, the scenes and the tool.)
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "common/FlatMap.h"
#include "common/FlatSet.h"

namespace {

using AR::Common::FlatMap;
using AR::Common::FlatSet;
using Key3 = AR::Math::Vector<int, 3>;

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

TEST(FlatSetDeathTest, AtAbortsOnAMissingKey) {
    FlatSet<Key3> set;
    set.insert(Key3(1, 1, 1));
    EXPECT_DEATH(set.at(Key3(2, 2, 2)), "slot != this->end");
}

// Same shape as the per-block hit record of the block selection: count and nearest depth.
struct HitRecord {
    uint32_t numHits;
    float bestSampleDistance;
};

TEST(FlatMapDeathTest, IndexInsertsValueInitialisedAndAtFindsExisting) {
    FlatMap<Key3, HitRecord> hits;
    hits[Key3(1, 2, 3)].numHits += 2;
    hits[Key3(1, 2, 3)].numHits += 3;
    hits[Key3(-4, 0, 9)].bestSampleDistance = 2.5f;
    EXPECT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits.at(Key3(1, 2, 3)).bestSampleDistance, 0.0f);
    EXPECT_EQ(hits.at(Key3(-4, 0, 9)).numHits, 0u);
    // Insertion keeps an existing entry.
    EXPECT_FALSE(hits.insert(Key3(1, 2, 3), HitRecord{99, 1.0f}).second);
    EXPECT_EQ(hits.at(Key3(1, 2, 3)).numHits, 5u);
    EXPECT_DEATH(hits.at(Key3(5, 5, 5)), "slot != this->end");
}

// A key that carries its own hash, so that distinct keys can share one.
struct HashedKey {
    uint32_t hash;
    uint32_t id;
    bool operator==(const HashedKey& other) const { return id == other.id; }
};
struct OwnHash {
    uint32_t operator()(const HashedKey& key) const { return key.hash; }
};

// The replayed slot order is the table's own, for spread hashes, for hashes that pile into a
// few buckets (runs into the overflow slots, growth by clustering and by load), and for keys
// that share a few hashes outright (low bits 0: one of 64 hashes).
TEST(FlatMapSlotOrder, ReplayMatchesTheTable) {
    std::mt19937 rng(11);
    for (const uint32_t distinctLowBits : {0xFFFFFFFFu, 0xFFu, 0x7u, 0x0u}) {
        for (const uint32_t count : {1u, 9u, 300u, 5000u}) {
            std::vector<uint32_t> hashes;
            FlatMap<HashedKey, int, OwnHash> table;
            for (uint32_t i = 0; i < count; ++i) {
                const uint32_t hash = distinctLowBits == 0
                                          ? (static_cast<uint32_t>(rng()) % 64u) << 8
                                          : static_cast<uint32_t>(rng()) & ~0xFFu;
                hashes.push_back(hash | (static_cast<uint32_t>(rng()) & distinctLowBits & 0xFFu));
                table.insert(std::make_pair(HashedKey{hashes.back(), i}, 0));
            }
            std::vector<uint32_t> expected;
            for (const auto& entry : table)
                expected.push_back(entry.first.id);
            EXPECT_EQ(AR::Common::detail::slotOrder(hashes, "FlatMap"), expected)
                << count << " keys, low bits " << distinctLowBits;
        }
    }
    // Small tables filled into their overflow slots, where the load test decides.
    for (uint32_t trial = 0; trial < 300; ++trial) {
        std::vector<uint32_t> hashes;
        FlatMap<HashedKey, int, OwnHash> table;
        for (uint32_t i = 0; i < 8 + trial % 16; ++i) {
            hashes.push_back(static_cast<uint32_t>(rng()) % 64u);
            table.insert(std::make_pair(HashedKey{hashes.back(), i}, 0));
        }
        std::vector<uint32_t> expected;
        for (const auto& entry : table)
            expected.push_back(entry.first.id);
        ASSERT_EQ(AR::Common::detail::slotOrder(hashes, "FlatMap"), expected) << "trial " << trial;
    }
}

}  // namespace
