// Plane detection on the tool's built-in scene (60 frames of the loop around the table, 0.02 m
// cells, split mode): fitPlanes + mergePlanes over all blocks, the same after one more frame for
// only the blocks it changed, the full three-call getPlanes after that frame, and the alpha shape
// of 10 000 points.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "cv/PolygonUtil.h"
#include "velmora/BuiltinScene.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/Pose.h"

namespace {

using namespace Velmora;

constexpr size_t kFrames = 60;
constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 240;
constexpr float kCellSize = 0.02f;

Config planeConfig() {
    Config config{};
    config.cellSize = kCellSize;
    config.truncation = 5.0f * kCellSize;
    config.mode = 1;
    config.detectPlanes = true;
    config.planeMaxStdError = 0.01f;
    config.planeMaxAngle = 0.1f;
    config.planeSolverIterations = 5;
    config.planeContourAlpha = 0.0f;
    config.labelPlanes = true;
    return config;
}

void submit(Impl& scene, const VelmoraTool::Frame& frame, const VelmoraTool::Intrinsics& k) {
    const Image depth{0, frame.depthMm.data(), frame.width, frame.height, frame.width * 2, 0};
    const Image labels{2, frame.labels8.data(), frame.width, frame.height, frame.width, 0};
    const IntrinsicLinearCameraCalibrationVLM intrinsics{k.cx, k.cy, k.fx, k.fy};
    const XrPosefVLM pose = VelmoraTool::toXrPose(frame.worldFromCamera);
    scene.submitImages(frame.timestamp, intrinsics, pose, {&depth, 1});
    scene.submitImages(frame.timestamp, intrinsics, pose, {&labels, 1});
}

// The scene after the whole sequence with its pending plane blocks, and the one more frame.
struct FusedScene {
    FusedScene() {
        scene.init(planeConfig());
        VelmoraTool::BuiltinSceneSource source(kFrames + 1, kWidth, kHeight, 0.0, 1);
        std::string problem;
        for (size_t f = 0; f <= kFrames; ++f) {
            VelmoraTool::Frame frame;
            source.load(f, frame, problem);
            if (f < kFrames) {
                submit(scene, frame, source.intrinsics());
            } else {
                extra = frame;
            }
        }
        intrinsics = source.intrinsics();
    }
    Impl scene;
    VelmoraTool::Frame extra;
    VelmoraTool::Intrinsics intrinsics;
};

FusedScene& fusedScene() {
    static FusedScene* fused = new FusedScene();
    return *fused;
}

Solid::IndexSet allBlocks(const Solid::DepthGrid& grid) {
    Solid::IndexSet blocks;
    grid.for_each(
        [&](const Solid::KeyType& key, const Solid::DepthVolume&) { blocks.insert(key); });
    return blocks;
}

Solid::PlaneDetector freshDetector() {
    const Config config = planeConfig();
    Solid::PlaneDetector detector;
    detector.configure(config.truncation, config.planeMaxStdError, config.planeMaxAngle,
                       config.planeSolverIterations, config.planeContourAlpha);
    return detector;
}

void BM_FitAndMergeAllBlocks(benchmark::State& state) {
    Impl::State& s = internalState(fusedScene().scene);
    const Solid::IndexSet blocks = allBlocks(*s.mVolumeGrid);
    size_t roots = 0;
    for (auto _ : state) {
        Solid::PlaneDetector detector = freshDetector();
        detector.fitPlanes(*s.mVolumeGrid, blocks);
        roots = detector.mergePlanes(blocks).size();
    }
    state.counters["blocks"] = static_cast<double>(blocks.size());
    state.counters["roots"] = static_cast<double>(roots);
}
BENCHMARK(BM_FitAndMergeAllBlocks)->Unit(benchmark::kMillisecond);

// After one more frame: only the blocks it changed, on a detector that holds the whole sequence.
void BM_FitAndMergeAfterOneFrame(benchmark::State& state) {
    FusedScene& fused = fusedScene();
    Impl::State& s = internalState(fused.scene);
    Solid::PlaneDetector settled = freshDetector();
    const Solid::IndexSet blocks = allBlocks(*s.mVolumeGrid);
    settled.fitPlanes(*s.mVolumeGrid, blocks);
    settled.mergePlanes(blocks);
    s.mPlaneUpdatedBlocks.clear();
    submit(fused.scene, fused.extra, fused.intrinsics);
    const Solid::IndexSet changed = s.mPlaneUpdatedBlocks;
    for (auto _ : state) {
        state.PauseTiming();
        Solid::PlaneDetector detector = settled;
        state.ResumeTiming();
        detector.fitPlanes(*s.mVolumeGrid, changed);
        benchmark::DoNotOptimize(detector.mergePlanes(changed));
    }
    state.counters["blocks"] = static_cast<double>(changed.size());
}
BENCHMARK(BM_FitAndMergeAfterOneFrame)->Unit(benchmark::kMillisecond);

// The three calls of a host; the first iteration after the sequence pays for the whole scene,
// later ones only for the one frame submitted before each.
void readPlanes(IVelmora& scene) {
    span<Planef> planes{nullptr, 0};
    span<SubsumedLink> links{nullptr, 0};
    scene.getPlanes(planes, links);
    std::vector<Planef> records(planes.size, Planef{});
    std::vector<SubsumedLink> table(links.size);
    planes.data = records.data();
    links.data = table.data();
    scene.getPlanes(planes, links);
    std::vector<std::vector<XrVector3fVLM>> contours(records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        contours[i].resize(records[i].vertexCount);
        records[i].vertices = contours[i].data();
    }
    scene.getPlanes(planes, links);
}

void BM_GetPlanesWholeSequence(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        FusedScene* fused = new FusedScene();
        state.ResumeTiming();
        readPlanes(fused->scene);
        state.PauseTiming();
        delete fused;
        state.ResumeTiming();
    }
}
BENCHMARK(BM_GetPlanesWholeSequence)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_GetPlanesAfterOneFrame(benchmark::State& state) {
    FusedScene& fused = fusedScene();
    readPlanes(fused.scene);
    for (auto _ : state) {
        state.PauseTiming();
        submit(fused.scene, fused.extra, fused.intrinsics);
        state.ResumeTiming();
        readPlanes(fused.scene);
    }
}
BENCHMARK(BM_GetPlanesAfterOneFrame)->Unit(benchmark::kMillisecond);

void BM_AlphaShapes10k(benchmark::State& state) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> coordinate(0.0f, 2.0f);
    std::vector<AR::CV::PolygonUtil::Vec2> points;
    for (int i = 0; i < 10000; ++i) {
        points.emplace_back(coordinate(rng), coordinate(rng));
    }
    size_t shapes = 0;
    for (auto _ : state) {
        shapes = AR::CV::PolygonUtil::computeAlphaShapes(points, 0.05f, 1.1920929e-07f).size();
    }
    state.counters["shapes"] = static_cast<double>(shapes);
}
BENCHMARK(BM_AlphaShapes10k)->Unit(benchmark::kMillisecond);

}  // namespace
