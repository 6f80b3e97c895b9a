// Cost of a block creation (table insertion plus the fill of 729 samples from pooled storage) and
// of a value lookup (read lock, table find, block mutex, trilinear read).
#include <benchmark/benchmark.h>

#include "solid/volume/VolumeGrid.h"

namespace {

using Solid::KeyType;

template <typename Grid>
void BM_EnsureNewBlocks(benchmark::State& state) {
    const int perRound = 4096;
    for (auto _ : state) {
        state.PauseTiming();
        auto grid = std::make_unique<Grid>();
        grid->set(Solid::Size(9, 9, 9), Solid::Vec3(0.02f, 0.02f, 0.02f));
        state.ResumeTiming();
        for (int i = 0; i < perRound; ++i) {
            benchmark::DoNotOptimize(grid->ensure(KeyType(i % 64, (i / 64) % 64, i / 4096)));
        }
        state.PauseTiming();
        grid.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * perRound);
}
BENCHMARK_TEMPLATE(BM_EnsureNewBlocks, Solid::DepthGrid)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_EnsureNewBlocks, Solid::LabelDepthGrid)->Unit(benchmark::kMicrosecond);

void BM_EnsureExistingBlock(benchmark::State& state) {
    Solid::DepthGrid grid;
    grid.set(Solid::Size(9, 9, 9), Solid::Vec3(0.02f, 0.02f, 0.02f));
    for (int i = 0; i < 1000; ++i)
        grid.ensure(KeyType(i % 10, (i / 10) % 10, i / 100));
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(grid.ensure(KeyType(i % 10, (i / 10) % 10, (i / 100) % 10)));
        ++i;
    }
}
BENCHMARK(BM_EnsureExistingBlock);

// Lookups spread over a 1000-block grid, half of them in observed blocks.
void BM_ValueLookup(benchmark::State& state) {
    Solid::DepthGrid grid;
    grid.set(Solid::Size(9, 9, 9), Solid::Vec3(0.02f, 0.02f, 0.02f));
    for (int i = 0; i < 1000; ++i) {
        const KeyType key(i % 10, (i / 10) % 10, i / 100);
        grid.ensure(key);
        if (i % 2 == 0) {
            auto block = grid.get(key);
            for (uint32_t s = 0; s < block->dataSize(); ++s) {
                block->data()[s] = Solid::Vec2S(short(1000), short(1));
            }
        }
    }
    unsigned state32 = 1;
    for (auto _ : state) {
        state32 = state32 * 1664525u + 1013904223u;
        const Solid::Vec3 p(float(state32 % 1600) * 0.001f, float((state32 >> 11) % 1600) * 0.001f,
                            float((state32 >> 5) % 1600) * 0.001f);
        KeyType key;
        benchmark::DoNotOptimize(grid.value(p, key));
    }
}
BENCHMARK(BM_ValueLookup);

}  // namespace
