#include "common/FlatMap.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using AR::Common::FlatMap;
using Key3 = AR::Math::Vector<int, 3>;

// Same shape as the per-block hit record of the block selection: count and nearest depth.
struct HitRecord {
    uint32_t numHits;
    float bestSampleDistance;
};
static_assert(sizeof(AR::Common::detail::FlatSlot<std::pair<Key3, HitRecord>>) == 24,
              "home, key and a two-word value pack into 24 bytes");

TEST(FlatMap, IndexInsertsValueInitialisedAndAtFindsExisting) {
    FlatMap<Key3, HitRecord> hits;
    hits[Key3(1, 2, 3)].numHits += 2;
    hits[Key3(1, 2, 3)].numHits += 3;
    hits[Key3(-4, 0, 9)].bestSampleDistance = 2.5f;
    EXPECT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits.at(Key3(1, 2, 3)).numHits, 5u);
    EXPECT_EQ(hits.at(Key3(1, 2, 3)).bestSampleDistance, 0.0f);
    EXPECT_EQ(hits.at(Key3(-4, 0, 9)).numHits, 0u);

    // Insertion by key and value, by pair and by move keeps an existing entry.
    EXPECT_FALSE(hits.insert(Key3(1, 2, 3), HitRecord{99, 1.0f}).second);
    EXPECT_EQ(hits.at(Key3(1, 2, 3)).numHits, 5u);
    const auto inserted = hits.insert(std::make_pair(Key3(0, 0, 0), HitRecord{7, 1.0f}));
    EXPECT_TRUE(inserted.second);
    EXPECT_EQ(inserted.first->first, Key3(0, 0, 0));
    EXPECT_EQ(inserted.first->second.numHits, 7u);
    const FlatMap<Key3, HitRecord>& view = hits;
    EXPECT_EQ(view.find(Key3(0, 0, 0))->second.numHits, 7u);
    EXPECT_EQ(view.find(Key3(5, 5, 5)), view.end());
}

TEST(FlatMap, ValuesTravelWithTheirKeysThroughShiftsRehashesAndErases) {
    // Owning values catch a lost or doubly destroyed element under the address sanitizer.
    FlatMap<unsigned int, std::string> names;
    std::map<unsigned int, std::string> reference;
    std::mt19937 random(99);
    std::uniform_int_distribution<unsigned int> keys(0, 300);
    constexpr int kOperations = 20000;
    for (int op = 0; op < kOperations; ++op) {
        const unsigned int k = keys(random);
        if (op % 3 == 0) {
            ASSERT_EQ(names.erase(k), reference.erase(k) == 1);
        } else {
            const std::string value = "value of " + std::to_string(k) + std::string(20, 'x');
            names.insert(k, value);
            reference.emplace(k, value);
        }
        ASSERT_EQ(names.size(), reference.size());
    }
    for (const auto& entry : names) {
        ASSERT_EQ(reference.at(entry.first), entry.second);
    }
    // Copies are deep and independent.
    FlatMap<unsigned int, std::string> copy(names);
    copy.clear();
    EXPECT_EQ(names.size(), reference.size());
    names = copy;
    EXPECT_TRUE(names.empty());
}

TEST(FlatMapDeathTest, AtAbortsOnAMissingKey) {
    FlatMap<unsigned int, int> map;
    map[1] = 1;
    EXPECT_DEATH(map.at(2u), "slot != this->end");
    const FlatMap<unsigned int, int>& view = map;
    EXPECT_DEATH(view.at(3u), "slot != this->end");
}

}  // namespace

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
            for (const auto& entry : table) {
                expected.push_back(entry.first.id);
            }
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
        for (const auto& entry : table) {
            expected.push_back(entry.first.id);
        }
        ASSERT_EQ(AR::Common::detail::slotOrder(hashes, "FlatMap"), expected) << "trial " << trial;
    }
}
