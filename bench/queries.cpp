// Spatial queries on a fused room corner: a depth image of 640x480 pixels (fx = fy = 525) from a
// camera at the origin that sees a floor 1 m below, a back wall 3 m ahead and a side wall 1.5 m
// to the left, fused once into a split-mode scene (2 cm cells, 10 cm truncation).
//   BM_RaycastFrame: the depth frame rendered back from the same pose (near 0.05 m, far 5 m,
//                    step factor 1, as the frame path renders).
//   BM_IntersectPoint / Box / Sphere: a query 15 cm in front of the back wall (box of 10 cm,
//                    sphere of 5 cm radius), with a search distance of 0.5 m.
//   BM_PlacementInfo: a placement along the optical axis onto the back wall.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/SensorErrorModel.h"
#include "solid/query/Raycast.h"
#include "velmora/Velmora.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr float kFocal = 525.0f;  // pixels
constexpr float kCx = 319.5f;
constexpr float kCy = 239.5f;
constexpr float kFloorBelow = 1.0f;     // metres, camera y points down
constexpr float kBackWall = 3.0f;       // metres ahead
constexpr float kSideWall = -1.5f;      // metres, x of the left wall
constexpr float kCellSize = 0.02f;      // metres
constexpr float kTruncation = 0.1f;     // metres
constexpr float kMaxWeight = 30.0f;     // the frame path's weight cap
constexpr float kQueryDistance = 0.5f;  // metres
constexpr float kMillimetres = 1000.0f;

// Axial depth of pixel (u, v): the nearest of the three planes.
float cornerDepth(int u, int v) {
    const float xn = (static_cast<float>(u) - kCx) / kFocal;
    const float yn = (static_cast<float>(v) - kCy) / kFocal;
    float depth = kBackWall;
    if (yn > 0.0f) {
        depth = std::min(depth, kFloorBelow / yn);
    }
    if (xn < 0.0f) {
        depth = std::min(depth, kSideWall / xn);
    }
    return depth;
}

Solid::Matrix4 intrinsics() {
    Solid::Matrix4 projection = Solid::Matrix4::zeros();
    projection(0, 0) = kFocal;
    projection(1, 1) = kFocal;
    projection(0, 2) = kCx;
    projection(1, 2) = kCy;
    projection(2, 2) = 1.0f;
    projection(3, 3) = 1.0f;
    return projection;
}

// The depth grid with the corner fused once, world = camera.
const Solid::DepthGrid& fusedGrid() {
    static const std::unique_ptr<Solid::DepthGrid> grid = [] {
        auto g = std::make_unique<Solid::DepthGrid>();
        g->set(Solid::Size(9, 9, 9), Solid::Vec3(kCellSize, kCellSize, kCellSize));
        Solid::DepthFrame frame;
        frame.depth.allocPixels(AR::CV::Size2i(kWidth, kHeight));
        for (int v = 0; v < kHeight; ++v) {
            for (int u = 0; u < kWidth; ++u) {
                frame.depth(u, v) = cornerDepth(u, v);
            }
        }
        frame.projection = intrinsics();
        const Solid::ConstantErrorModel errorModel(kTruncation);
        Solid::IntegrationStats stats;
        Solid::integrate(*g, frame, errorModel, kMaxWeight, stats, Solid::kAccelerationTavric, 1,
                         0.0f, 0.0f, nullptr, 1, 1, 1,
                         static_cast<Solid::SaturationManager<float, Solid::DepthGrid>*>(nullptr));
        return g;
    }();
    return *grid;
}

// A split-mode scene with the corner submitted once.
Velmora::IVelmora& fusedScene() {
    static const std::unique_ptr<Velmora::IVelmora> scene = [] {
        std::unique_ptr<Velmora::IVelmora> s(newVelmora());
        Velmora::Config config{};
        config.cellSize = kCellSize;
        config.truncation = kTruncation;
        config.mode = 1;
        s->init(config);
        std::vector<uint16_t> depth(static_cast<size_t>(kWidth) * kHeight);
        for (int v = 0; v < kHeight; ++v) {
            for (int u = 0; u < kWidth; ++u) {
                depth[static_cast<size_t>(v) * kWidth + u] =
                    static_cast<uint16_t>(std::lround(cornerDepth(u, v) * kMillimetres));
            }
        }
        const Velmora::Image image{
            Velmora::kImageDepthU16, depth.data(), kWidth, kHeight, kWidth * sizeof(uint16_t), 0};
        const Velmora::XrPosefVLM pose{{0.0f, 0.0f, 0.0f, 1.0f}, {0.0f, 0.0f, 0.0f}};
        s->submitImages(0, {kCx, kCy, kFocal, kFocal}, pose, {&image, 1});
        return s;
    }();
    return *scene;
}

void BM_RaycastFrame(benchmark::State& state) {
    const Solid::DepthGrid& grid = fusedGrid();
    Solid::DepthFrame frame;
    frame.depth.allocPixels(AR::CV::Size2i(kWidth, kHeight));
    frame.projection = intrinsics();
    Solid::IntegrationStats stats;
    for (auto _ : state) {
        Solid::raycast(grid, 0.05f, 5.0f, 1.0f, frame, stats);
        benchmark::DoNotOptimize(frame.depth.pixels());
    }
    state.counters["rays_in_blocks"] = static_cast<double>(stats.raycastRays);
}
BENCHMARK(BM_RaycastFrame)->Unit(benchmark::kMillisecond);

const Velmora::XrVector3fVLM kNearWall{0.0f, 0.0f, kBackWall - 0.15f};

void BM_IntersectPoint(benchmark::State& state) {
    Velmora::IVelmora& scene = fusedScene();
    for (auto _ : state) {
        benchmark::DoNotOptimize(scene.intersectPoint(kNearWall, kQueryDistance));
    }
}
BENCHMARK(BM_IntersectPoint)->Unit(benchmark::kMicrosecond);

void BM_IntersectBox(benchmark::State& state) {
    Velmora::IVelmora& scene = fusedScene();
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            scene.intersectAxisAlignedBox(kNearWall, {0.1f, 0.1f, 0.1f}, kQueryDistance));
    }
}
BENCHMARK(BM_IntersectBox)->Unit(benchmark::kMicrosecond);

void BM_IntersectSphere(benchmark::State& state) {
    Velmora::IVelmora& scene = fusedScene();
    for (auto _ : state) {
        benchmark::DoNotOptimize(scene.intersectSphere(kNearWall, 0.05f, kQueryDistance));
    }
}
BENCHMARK(BM_IntersectSphere)->Unit(benchmark::kMicrosecond);

void BM_PlacementInfo(benchmark::State& state) {
    Velmora::IVelmora& scene = fusedScene();
    Velmora::PlacementInfo info{};
    for (auto _ : state) {
        scene.getPlacementInfo({0.0f, 0.0f, 0.0f}, {0.0f, 0.0f, 1.0f}, {0.0f, -1.0f, 0.0f}, info,
                               kBackWall + 1.0f);
        benchmark::DoNotOptimize(info);
    }
    state.counters["placed"] = info.result;  // 1: the wall was found
}
BENCHMARK(BM_PlacementInfo)->Unit(benchmark::kMicrosecond);

}  // namespace
