// Depth fusion of one 8x8x8 block per call, portable kernel against the AVX2 variant, with and
// without bounds tests. A 320x240 image sees a slanted wall 1.5 m away; the block (2 cm cells,
// turned 20 degrees about the camera's y axis) straddles the wall, so most voxels are updated.
// The counter time_per_voxel is the CPU time per call over the 512 fused voxels.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "vision/DepthFusion.h"

namespace {

constexpr unsigned kWidth = 320;
constexpr unsigned kHeight = 240;
constexpr float kFocal = 280.0f;         // pixels
constexpr float kWallDepth = 1.5f;       // metres, on the optical axis
constexpr float kWallSlope = 0.1f;       // metres of depth per unit of normalised x
constexpr float kCell = 0.02f;           // metres
constexpr float kYaw = 0.349f;           // radians, about 20 degrees
constexpr int kMaxWeight = 30;           // the limit the scene passes
constexpr double kVoxelsPerBlock = 512;  // fused voxels of one block

struct Scene {
    std::vector<float> depth = std::vector<float>(kWidth * kHeight);
    std::vector<short> volume = std::vector<short>(kTvrBlockBytes / 2, 0);
    TvrIntrinsics intrinsics = tvrMakeIntrinsics(kFocal, kFocal, kWidth / 2.0f, kHeight / 2.0f);
    TvrBlockRecord block{};

    explicit Scene(uint32_t clip) {
        for (unsigned v = 0; v < kHeight; ++v) {
            for (unsigned u = 0; u < kWidth; ++u) {
                const float xn = (static_cast<float>(u) - kWidth / 2.0f) / kFocal;
                depth[v * kWidth + u] = kWallDepth + kWallSlope * xn;
            }
        }
        block.clip = clip;
        block.ramp = 3 * kCell;
        const float c = std::cos(kYaw), s = std::sin(kYaw);
        const float xStep[3] = {c * kCell, 0.0f, -s * kCell};
        const float zStep[3] = {s * kCell, 0.0f, c * kCell};
        const float centre[3] = {0.05f, -0.03f, kWallDepth};
        const float half = kTvrCubeCells / 2.0f;
        for (unsigned r = 0; r < 3; ++r) {
            block.xStep[r] = xStep[r];
            block.yStep[r] = r == 1 ? kCell : 0.0f;
            block.zStep[r] = zStep[r];
            block.origin[r] = centre[r] - half * (block.xStep[r] + block.yStep[r] + block.zStep[r]);
        }
    }
};

template <typename Function>
void fuseBlocks(benchmark::State& state, Function function) {
    Scene scene(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        function(&scene.block, scene.volume.data(), 1, kTvrBlockBytes, scene.depth.data(), kWidth,
                 kHeight, kWidth * 4, scene.intrinsics.values, kMaxWeight);
        benchmark::DoNotOptimize(scene.volume.data());
        benchmark::ClobberMemory();
    }
    // The inverted rate of fused voxels: seconds per voxel, printed with its SI prefix (ns).
    state.counters["time_per_voxel"] =
        benchmark::Counter(kVoxelsPerBlock, benchmark::Counter::kIsIterationInvariantRate |
                                                benchmark::Counter::kInvert);
}

void BM_FusionPortable(benchmark::State& state) {
    fuseBlocks(state, tvrDepthFusion8x8x8xNs16Portable);
}
BENCHMARK(BM_FusionPortable)->ArgName("clip")->Arg(0)->Arg(1);

#if defined(__x86_64__)
void BM_FusionAvx2(benchmark::State& state) {
    if (!tvrModeSupported(kTvrModeAvx2)) {
        state.SkipWithError("the processor has no AVX2");
        return;
    }
    fuseBlocks(state, tvrDepthFusion8x8x8xNs16Avx2);
}
BENCHMARK(BM_FusionAvx2)->ArgName("clip")->Arg(0)->Arg(1);
#endif

}  // namespace
