// Block-key set against the standard unordered set with the same hash: insertion of a surface
// band of keys (as a depth frame produces them) and lookup of present and absent keys.
#include <benchmark/benchmark.h>

#include <unordered_set>
#include <vector>

#include "common/FlatSet.h"

namespace {

using Key3 = AR::Math::Vector<int, 3>;

struct StdBlockHash {
    size_t operator()(const Key3& key) const { return AR::Common::hash<Key3>()(key); }
};

// Keys of a wavy surface two blocks thick over a square of `side` by `side` blocks: the
// clustered, mostly planar pattern of the blocks that a frame touches.
std::vector<Key3> surfaceKeys(int side) {
    std::vector<Key3> keys;
    for (int x = -side / 2; x < side / 2; ++x) {
        for (int z = -side / 2; z < side / 2; ++z) {
            const int y = (x * x + z) % 3 - 1;
            keys.emplace_back(x, y, z);
            keys.emplace_back(x, y + 1, z);
        }
    }
    return keys;
}

// The same keys shifted far away, so that none of them is present.
std::vector<Key3> absentKeys(const std::vector<Key3>& keys) {
    constexpr int kFarAway = 100000;
    std::vector<Key3> shifted;
    for (const Key3& key : keys) {
        shifted.emplace_back(key[0] + kFarAway, key[1], key[2]);
    }
    return shifted;
}

void BM_FlatSetInsert(benchmark::State& state) {
    const std::vector<Key3> keys = surfaceKeys(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        AR::Common::FlatSet<Key3> set;
        for (const Key3& key : keys) {
            set.insert(key);
        }
        benchmark::DoNotOptimize(set.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(keys.size()));
}

void BM_UnorderedSetInsert(benchmark::State& state) {
    const std::vector<Key3> keys = surfaceKeys(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::unordered_set<Key3, StdBlockHash> set;
        for (const Key3& key : keys) {
            set.insert(key);
        }
        benchmark::DoNotOptimize(set.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(keys.size()));
}

void BM_FlatSetLookup(benchmark::State& state) {
    const std::vector<Key3> keys = surfaceKeys(static_cast<int>(state.range(0)));
    const std::vector<Key3> missing = absentKeys(keys);
    AR::Common::FlatSet<Key3> set;
    for (const Key3& key : keys) {
        set.insert(key);
    }
    for (auto _ : state) {
        size_t found = 0;
        for (size_t i = 0; i < keys.size(); ++i) {
            found += set.contains(keys[i]);
            found += set.contains(missing[i]);
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(2 * keys.size()));
}

void BM_UnorderedSetLookup(benchmark::State& state) {
    const std::vector<Key3> keys = surfaceKeys(static_cast<int>(state.range(0)));
    const std::vector<Key3> missing = absentKeys(keys);
    std::unordered_set<Key3, StdBlockHash> set(keys.begin(), keys.end());
    for (auto _ : state) {
        size_t found = 0;
        for (size_t i = 0; i < keys.size(); ++i) {
            found += set.count(keys[i]);
            found += set.count(missing[i]);
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(2 * keys.size()));
}

// Squares of 16, 64 and 256 blocks a side: a small frame, a room, a building floor.
BENCHMARK(BM_FlatSetInsert)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK(BM_UnorderedSetInsert)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK(BM_FlatSetLookup)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK(BM_UnorderedSetLookup)->Arg(16)->Arg(64)->Arg(256);

}  // namespace
