// The depth kernels per block and the frame submission per frame, on a 640x480 view into the
// corner of a 4 x 3 x 2.5 m room (walls 1.5 to 3 m away, the floor, their edges).
//
// Per block: each iteration fuses the frame into every block that the view's surface passes
// through (9-cube blocks of 2 cm cells); time_per_voxel is the CPU time over the 512 fused voxels
// of each block. The vector kernel runs once with the portable implementation selected and once
// with the AVX2 one.
//
// Per frame: one submitImages of the same frame, again and again, to a scene in split mode
// (depth image only: the vector kernel) and in combined mode (depth and label image: the
// reference kernel with labels). The blocks exist after the first call, so this is the steady
// state of a camera that looks at known space.
#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <vector>

#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/IntegrationFast.h"
#include "support/RenderedBlocks.h"
#include "velmora/Velmora.h"
#include "vision/DepthFusion.h"

namespace {

using Solid::Matrix4;
using Solid::IntegrationHelper::FastVolume;

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr float kCell = 0.02f;       // metres
constexpr float kRamp = 0.1f;        // metres, five cells
constexpr float kMaxWeight = 30.0f;  // the cap the frame path passes
constexpr double kVoxelsPerBlock = 512;
constexpr int kKeyPixelStep = 8;  // pixels between the surface points that pick the blocks

const Velmora::Test::Vec3d kEye = {2.4, 1.6, 1.3};
const Velmora::Test::Vec3d kTarget = {4.0, 3.0, 0.6};

struct BlockScene {
    Velmora::Test::AnalyticScene room = Velmora::Test::AnalyticScene::room(4.0, 3.0, 2.5);
    Solid::Test::RenderedDepth view{room, Solid::Test::roomCamera(kWidth, kHeight, kEye, kTarget)};
    Solid::VolumeConfig config;
    std::vector<Matrix4> transforms;
    std::vector<std::vector<Solid::Vec2S>> samples;
    std::vector<FastVolume> volumes;

    BlockScene() {
        Solid::makeVolumeConfig(config, Solid::Size(9, 9, 9), Solid::Vec3(kCell, kCell, kCell));
        const std::vector<Solid::KeyType> keys =
            Solid::Test::surfaceBlockKeys(view, 8 * kCell, kKeyPixelStep);
        for (const Solid::KeyType& key : keys) {
            transforms.push_back(Solid::blockToCamera(view.frame.pose, config.dimension, key));
            samples.emplace_back(config.numSamples, Solid::creationSample<Solid::Vec2S>());
        }
        for (auto& s : samples) {
            volumes.emplace_back(s.data(), &config);
        }
    }
};

BlockScene& blockScene() {
    static BlockScene scene;
    return scene;
}

using BlockKernel = std::function<void(FastVolume&, const Solid::DepthFrame&, const Matrix4&)>;

void fuseEveryBlock(benchmark::State& state, const BlockKernel& kernel) {
    BlockScene& scene = blockScene();
    for (auto _ : state) {
        for (size_t b = 0; b < scene.volumes.size(); ++b) {
            kernel(scene.volumes[b], scene.view.frame, scene.transforms[b]);
        }
        benchmark::ClobberMemory();
    }
    state.counters["blocks"] = static_cast<double>(scene.volumes.size());
    state.counters["time_per_voxel"] = benchmark::Counter(
        kVoxelsPerBlock * static_cast<double>(scene.volumes.size()),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Reference(benchmark::State& state) {
    fuseEveryBlock(state, [](FastVolume& v, const Solid::DepthFrame& f, const Matrix4& T) {
        Solid::integrate(v, f, T, kRamp, kMaxWeight, 1);
    });
}
BENCHMARK(BM_Reference);

void BM_ReferenceDouble(benchmark::State& state) {
    fuseEveryBlock(state, [](FastVolume& v, const Solid::DepthFrame& f, const Matrix4& T) {
        Solid::integrateRef(v, f, T, kRamp, kMaxWeight, 1);
    });
}
BENCHMARK(BM_ReferenceDouble);

void BM_Fast(benchmark::State& state) {
    Solid::setupIntegrateFast(static_cast<int>(kMaxWeight));
    fuseEveryBlock(state, [](FastVolume& v, const Solid::DepthFrame& f, const Matrix4& T) {
        Solid::integrateFast(v, f, T, kRamp, kMaxWeight, 1);
    });
}
BENCHMARK(BM_Fast);

void BM_FastFixed(benchmark::State& state) {
    Solid::setupIntegrateFast(static_cast<int>(kMaxWeight));
    fuseEveryBlock(state, [](FastVolume& v, const Solid::DepthFrame& f, const Matrix4& T) {
        Solid::integrateFastFixed(v, f, T, kRamp, kMaxWeight, 1);
    });
}
BENCHMARK(BM_FastFixed);

void BM_Fast8(benchmark::State& state) {
    Solid::setupIntegrateFast(static_cast<int>(kMaxWeight));
    fuseEveryBlock(state, [](FastVolume& v, const Solid::DepthFrame& f, const Matrix4& T) {
        Solid::integrateFast8(v, f, T, kRamp, kMaxWeight, 1);
    });
}
BENCHMARK(BM_Fast8);

void BM_Fast8Weighted(benchmark::State& state) {
    fuseEveryBlock(state, [](FastVolume& v, const Solid::DepthFrame& f, const Matrix4& T) {
        Solid::integrateFast8Weighted(v, f, T, kRamp, 1.0f, kMaxWeight, 1);
    });
}
BENCHMARK(BM_Fast8Weighted);

// The vector kernel through integrateTavric, with the implementation of `mode` selected.
void tavric(benchmark::State& state, TvrMode mode) {
    if (!tvrSetMode(mode)) {
        state.SkipWithError("this processor cannot run the implementation");
        return;
    }
    fuseEveryBlock(state, [](FastVolume& v, const Solid::DepthFrame& f, const Matrix4& T) {
        Solid::integrateTavric(v, f, T, kRamp, kMaxWeight, 1);
    });
}
void BM_TavricPortable(benchmark::State& state) {
    tavric(state, kTvrModePortable);
}
BENCHMARK(BM_TavricPortable);
void BM_TavricAvx2(benchmark::State& state) {
    tavric(state, kTvrModeAvx2);
}
BENCHMARK(BM_TavricAvx2);

// The scene of the per-frame measurements: one rendered frame as host images.
struct FrameScene {
    Velmora::Test::AnalyticScene room = Velmora::Test::AnalyticScene::room(4.0, 3.0, 2.5);
    Velmora::Test::PinholeCamera camera = Solid::Test::roomCamera(kWidth, kHeight, kEye, kTarget);
    Velmora::Test::RenderedFrame rendered = Velmora::Test::render(room, camera);
};

void submitFrames(benchmark::State& state, int32_t mode, bool withLabels) {
    static FrameScene scene;
    std::unique_ptr<Velmora::IVelmora> velmora(newVelmora());
    Velmora::Config config{};
    config.cellSize = kCell;
    config.truncation = kRamp;
    config.mode = mode;
    if (velmora->init(config) != Velmora::kSuccess) {
        state.SkipWithError("init failed");
        return;
    }
    std::vector<Velmora::Image> images = {scene.rendered.depthImage()};
    if (withLabels) {
        images.push_back(scene.rendered.labelImage());
    }
    const Velmora::span<const Velmora::Image> span{images.data(),
                                                   static_cast<uint32_t>(images.size())};
    Velmora::XrTimeVLM time = 0;
    for (auto _ : state) {
        if (velmora->submitImages(++time, scene.camera.intrinsics(), scene.camera.pose(), span) !=
            Velmora::kSuccess) {
            state.SkipWithError("submitImages failed");
            return;
        }
    }
}

void BM_SubmitSplit(benchmark::State& state) {
    tvrSetMode(tvrModeSupported(kTvrModeAvx2) ? kTvrModeAvx2 : kTvrModePortable);
    submitFrames(state, 1, false);
}
BENCHMARK(BM_SubmitSplit)->Unit(benchmark::kMillisecond);

void BM_SubmitCombined(benchmark::State& state) {
    submitFrames(state, 0, true);
}
BENCHMARK(BM_SubmitCombined)->Unit(benchmark::kMillisecond);

}  // namespace
