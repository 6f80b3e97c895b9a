// Meshing the whole fused room: the built-in scene of the tool, 60 frames of 640x480 along its
// camera loop, fused depth only in split mode (as Open3D fuses it in bench/compare_open3d.py),
// at 0.02 m / 0.10 m and at 0.01 m / 0.05 m. Every block of the depth grid is meshed with
// MarchingCubes into a fresh grid of block meshes; the second benchmark also merges them into
// the one mesh that a host receives. Counters: blocks, triangles, ns per block and per triangle.
//
// Then extractSurface as a host calls it (mesh form, whole scene, the two calls of the two-call
// protocol) on the room at 0.02 m fused with labels in each run mode: the first request after
// the 60 frames (cache emptied, every block changed), and a request after one more frame.
// BM_ExtractSurfaceDepthOnly makes the same two requests on the room fused from the depth frames
// alone, the frames Open3D meshes in bench/compare_open3d.py.
// BM_ExtractSurfaceColoured does the same on the room in split mode with a colour image every
// tenth frame (as the tool sends them), asking for vertex colours; its "uncoloured" row asks the
// same room for none, so that the two rows show the cost of the colour step alone.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "solid/surface/MarchingCubes.h"
#include "velmora/BuiltinScene.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace {

using namespace Velmora;

constexpr size_t kFrames = 60;

// Submits frame `index` of the built-in scene: depth only, or depth and labels in the scene's
// run mode.
void submitFrame(Impl& room, VelmoraTool::BuiltinSceneSource& source, size_t index, int32_t mode,
                 bool labels, bool colour = false) {
    const VelmoraTool::Intrinsics k = source.intrinsics();
    const IntrinsicLinearCameraCalibrationVLM intrinsics{k.cx, k.cy, k.fx, k.fy};
    VelmoraTool::Frame frame;
    std::string problem;
    source.load(index % kFrames, frame, problem);
    const XrPosefVLM pose = VelmoraTool::toXrPose(frame.worldFromCamera);
    const Image images[2] = {
        {kImageDepthU16, frame.depthMm.data(), frame.width, frame.height, frame.width * 2, 0},
        {kImageLabelU8, frame.labels8.data(), frame.width, frame.height, frame.width, 0}};
    if (!labels) {
        room.submitImages(frame.timestamp, intrinsics, pose, {images, 1});
    } else if (mode == 0) {
        room.submitImages(frame.timestamp, intrinsics, pose, {images, 2});
    } else {
        room.submitImages(frame.timestamp, intrinsics, pose, {images, 1});
        room.submitImages(frame.timestamp, intrinsics, pose, {images + 1, 1});
    }
    if (colour) {
        const Image rgb{kImageColorRGB8, frame.rgb.data(), frame.width,
                        frame.height,    frame.width * 3,  0};
        room.submitImages(frame.timestamp, intrinsics, pose, {&rgb, 1});
    }
}

VelmoraTool::BuiltinSceneSource& sceneSource() {
    static VelmoraTool::BuiltinSceneSource source(kFrames, VelmoraTool::kDefaultWidth,
                                                  VelmoraTool::kDefaultHeight, 0.0, 1);
    return source;
}

// Every this many frames the coloured room gets a colour image.
constexpr size_t kColourEvery = 10;

// The fused room for a cell size in millimetres, a run mode, with or without labels and colour
// images; made once and kept for all runs.
Impl& fusedRoom(int cellMm, int32_t mode = 1, bool labels = false, bool colour = false) {
    static std::map<std::tuple<int, int32_t, bool, bool>, std::unique_ptr<Impl>> rooms;
    std::unique_ptr<Impl>& room = rooms[{cellMm, mode, labels, colour}];
    if (room) {
        return *room;
    }
    room = std::make_unique<Impl>();
    Config config{};
    config.cellSize = static_cast<float>(cellMm) * 0.001f;
    config.truncation = 5.0f * config.cellSize;
    config.mode = mode;
    config.labelPlanes = true;
    room->init(config);
    for (size_t i = 0; i < kFrames; ++i) {
        submitFrame(*room, sceneSource(), i, mode, labels, colour && i % kColourEvery == 0);
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

// The host's two calls of the mesh form for the whole scene, with instance ids, and colours when
// `colors` is given.
uint32_t deliverScene(Impl& room, std::vector<XrVector3fVLM>& positions,
                      std::vector<uint32_t>& indices, std::vector<uint16_t>& ids,
                      std::vector<XrColor4fVLM>* colors = nullptr) {
    PolygonMesh mesh{};
    mesh.positions = positions.data();
    mesh.positionCount = static_cast<uint32_t>(positions.size());
    mesh.indices = indices.data();
    mesh.indexCount = static_cast<uint32_t>(indices.size());
    mesh.instanceIds = ids.data();
    mesh.instanceIdCount = static_cast<uint32_t>(ids.size());
    TextureQuality quality{};
    if (colors != nullptr) {
        quality.vertexColors = true;
        mesh.colors = colors->data();
        mesh.colorCount = static_cast<uint32_t>(colors->size());
    }
    if (room.extractSurface(mesh, true, UuidBytes{}, quality) == kErrorBufferTooSmall) {
        positions.resize(mesh.positionCount);
        indices.resize(mesh.indexCount);
        ids.resize(mesh.instanceIdCount);
        if (colors != nullptr) {
            colors->resize(mesh.colorCount);
        }
        return deliverScene(room, positions, indices, ids, colors);
    }
    return mesh.indexCount / 3;
}

// Requests on `room`: the first after emptying the cache (every block changed), or the one after
// one more frame of depth and labels. (That frame carries no colour image: every colour image is
// kept, and colouring costs in proportion to their number, so repetitions would drift.)
void requestSurfaces(benchmark::State& state, Impl& room, int32_t mode, bool afterOneFrame,
                     bool askColours, bool labels = true) {
    Impl::State& s = internalState(room);
    Solid::IndexSet all;
    auto collect = [&all](const Solid::KeyType& key, const auto&) { all.insert(key); };
    if (mode == 0) {
        s.mLabelDepthVolumeGrid->for_each(collect);
    } else {
        s.mVolumeGrid->for_each(collect);
    }
    // Host arrays large enough for every request, so that each is one call.
    std::vector<XrVector3fVLM> positions;
    std::vector<uint32_t> indices;
    std::vector<uint16_t> ids;
    std::vector<XrColor4fVLM> colors;
    std::vector<XrColor4fVLM>* wanted = askColours ? &colors : nullptr;
    deliverScene(room, positions, indices, ids, wanted);
    size_t frame = 0;
    uint32_t triangles = 0;
    size_t changed = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (afterOneFrame) {
            submitFrame(room, sceneSource(), frame++, mode, labels);
        } else {
            std::lock_guard<std::mutex> updatedLock(s.mSurfaces.updatedBlocksMutex);
            std::lock_guard<std::mutex> meshLock(s.mSurfaces.meshMutex);
            s.mSurfaces.surfaceMeshes.clear();
            s.mSurfaces.mergedMeshes.clear();
            s.mSurfaces.updatedBlocks = all;
        }
        {
            std::lock_guard<std::mutex> updatedLock(s.mSurfaces.updatedBlocksMutex);
            changed = s.mSurfaces.updatedBlocks.size();
        }
        state.ResumeTiming();
        triangles = deliverScene(room, positions, indices, ids, wanted);
    }
    state.counters["blocks"] = static_cast<double>(all.size());
    state.counters["changed_blocks"] = static_cast<double>(changed);
    state.counters["triangles"] = triangles;
}

// The least work a request after one more frame can do: marching cubes on the blocks that frame
// changed, nothing else (no neighbours, ids, merge or copy). Each iteration fuses the next frame
// of the depth-only room and lets a real request take the changed set (both untimed), so that
// the room stays as BM_ExtractSurfaceDepthOnly finds it; only the meshing is timed. Its ratio to
// BM_ExtractSurfaceDepthOnly/0 is a floor for the ratio of the two requests.
void BM_MarchingCubesChangedBlocks(benchmark::State& state) {
    Impl& room = fusedRoom(20, 1, false);
    Impl::State& s = internalState(room);
    const Solid::DepthGrid& grid = *s.mVolumeGrid;
    std::vector<XrVector3fVLM> positions;
    std::vector<uint32_t> indices;
    std::vector<uint16_t> ids;
    deliverScene(room, positions, indices, ids);
    using MC = Solid::MarchingCubes<float, Solid::DepthVolume>;
    // Kept across iterations, so that meshing reuses the memory of earlier block meshes as a
    // request does, and no mesh is freed in the timed part.
    Solid::MeshGridType meshes;
    MC mc;
    size_t frame = 0;
    double changedSum = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        submitFrame(room, sceneSource(), frame++, 1, false);
        Solid::IndexSet changed;
        {
            std::lock_guard<std::mutex> updatedLock(s.mSurfaces.updatedBlocksMutex);
            changed = s.mSurfaces.updatedBlocks;
        }
        changedSum += static_cast<double>(changed.size());
        deliverScene(room, positions, indices, ids);
        state.ResumeTiming();
        Solid::ExtractSurfaceStats stats;
        mc.computeMarchingCubes(grid, changed, 0, meshes, stats, MC::plainCubeIndex);
        benchmark::DoNotOptimize(stats.numIndices);
    }
    state.counters["changed_blocks"] = changedSum / static_cast<double>(state.iterations());
}

// range(0): run mode; range(1): 1 for the request after one more frame, 0 for the first.
void BM_ExtractSurface(benchmark::State& state) {
    const int32_t mode = static_cast<int32_t>(state.range(0));
    requestSurfaces(state, fusedRoom(20, mode, true), mode, state.range(1) != 0, false);
}

// The same on the room fused from depth frames only, as Open3D fuses them in
// bench/compare_open3d.py (split mode; every vertex gets id 0). range(0): as range(1) above.
void BM_ExtractSurfaceDepthOnly(benchmark::State& state) {
    requestSurfaces(state, fusedRoom(20, 1, false), 1, state.range(0) != 0, false, false);
}

// range(0): 1 to ask for colours; range(1) as above. Split mode, colour every tenth frame.
void BM_ExtractSurfaceColoured(benchmark::State& state) {
    requestSurfaces(state, fusedRoom(20, 1, true, true), 1, state.range(1) != 0,
                    state.range(0) != 0);
}

BENCHMARK(BM_ExtractSurface)
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractSurfaceDepthOnly)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractSurfaceColoured)
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MarchingCubesChangedBlocks)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MarchingCubesWholeRoom)->Arg(20)->Arg(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MarchingCubesWholeRoomMerged)->Arg(20)->Arg(10)->Unit(benchmark::kMillisecond);

}  // namespace
