// Meshing the whole fused room: the built-in scene of the tool, 60 frames of 640x480 along its
// camera loop, fused depth only in split mode (as Open3D fuses it in bench/compare_open3d.py),
// at 0.02 m / 0.10 m and at 0.01 m / 0.05 m. Every block of the depth grid is meshed with
// MarchingCubes into a fresh grid of block meshes; the second benchmark also merges them into
// the one mesh that a host receives. Counters: blocks, triangles, ns per block and per triangle.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <utility>

#include "solid/surface/MarchingCubes.h"
#include "velmora/BuiltinScene.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace {

using namespace Velmora;

constexpr size_t kFrames = 60;

// The fused room for a cell size in millimetres; made once per size and kept for all runs.
Impl& fusedRoom(int cellMm) {
    static std::map<int, std::unique_ptr<Impl>> rooms;
    std::unique_ptr<Impl>& room = rooms[cellMm];
    if (room) {
        return *room;
    }
    room = std::make_unique<Impl>();
    Config config{};
    config.cellSize = static_cast<float>(cellMm) * 0.001f;
    config.truncation = 5.0f * config.cellSize;
    config.mode = 1;
    room->init(config);
    VelmoraTool::BuiltinSceneSource source(kFrames, VelmoraTool::kDefaultWidth,
                                           VelmoraTool::kDefaultHeight, 0.0, 1);
    const VelmoraTool::Intrinsics k = source.intrinsics();
    const IntrinsicLinearCameraCalibrationVLM intrinsics{k.cx, k.cy, k.fx, k.fy};
    for (size_t i = 0; i < kFrames; ++i) {
        VelmoraTool::Frame frame;
        std::string problem;
        source.load(i, frame, problem);
        const Image depth{kImageDepthU16, frame.depthMm.data(), frame.width,
                          frame.height,   frame.width * 2,      0};
        room->submitImages(frame.timestamp, intrinsics,
                           VelmoraTool::toXrPose(frame.worldFromCamera), {&depth, 1});
    }
    return *room;
}

void meshRoom(benchmark::State& state, bool merge) {
    Impl& room = fusedRoom(static_cast<int>(state.range(0)));
    const Solid::DepthGrid& grid = *internalState(room).mVolumeGrid;
    Solid::IndexSet blocks;
    grid.for_each(
        [&](const Solid::KeyType& key, const Solid::DepthVolume&) { blocks.insert(key); });
    using MC = Solid::MarchingCubes<float, Solid::DepthVolume>;
    uint32_t triangles = 0;
    for (auto _ : state) {
        Solid::MeshGridType meshes;
        Solid::ExtractSurfaceStats stats;
        MC mc;
        mc.computeMarchingCubes(grid, blocks, 0, meshes, stats, MC::plainCubeIndex);
        if (merge) {
            benchmark::DoNotOptimize(Solid::mergeMesh(meshes, stats));
        }
        triangles = stats.numIndices / 3;
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["blocks"] = static_cast<double>(blocks.size());
    state.counters["triangles"] = triangles;
    state.counters["ns_per_block"] =
        benchmark::Counter(static_cast<double>(blocks.size()) * iterations * 1e-9,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["ns_per_triangle"] =
        benchmark::Counter(static_cast<double>(triangles) * iterations * 1e-9,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// range(0): cell size in millimetres.
void BM_MarchingCubesWholeRoom(benchmark::State& state) {
    meshRoom(state, false);
}
void BM_MarchingCubesWholeRoomMerged(benchmark::State& state) {
    meshRoom(state, true);
}

BENCHMARK(BM_MarchingCubesWholeRoom)->Arg(20)->Arg(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MarchingCubesWholeRoomMerged)->Arg(20)->Arg(10)->Unit(benchmark::kMillisecond);

}  // namespace
