// getObjectInstances after one new frame against after a change of the whole scene: the tool's
// built-in room with labels, 60 frames of 320x240 along its camera loop, fused in combined mode at
// 0.02 m (0.10 m truncation). The query's cost should follow the blocks changed since the last
// query, not the size of the scene.
//   BM_InstancesAfterOneFrame: one frame of the loop submitted again (untimed), then the
//                              counting call that brings the instances up to date.
//   BM_InstancesAfterWholeScene: every block of the grid marked as changed (as loading a volume
//                                does), then the same call.
// Counters: blocks updated by the query, instances reported, ns per updated block.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "velmora/BuiltinScene.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace {

using namespace Velmora;

constexpr size_t kFrames = 60;
constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 240;
// Each run re-creates the instances of the blocks it updates; a bounded number of rounds keeps
// the identities far from their 16-bit limit.
constexpr int kRounds = 30;

struct Room {
    Impl scene;
    std::vector<VelmoraTool::Frame> frames;
    IntrinsicLinearCameraCalibrationVLM intrinsics{};

    XrResultVLM submit(size_t i) {
        const VelmoraTool::Frame& frame = frames[i];
        const Image images[2] = {
            {kImageDepthU16, frame.depthMm.data(), frame.width, frame.height, frame.width * 2, 0},
            {kImageLabelU8, frame.labels8.data(), frame.width, frame.height, frame.width, 0}};
        return scene.submitImages(frame.timestamp, intrinsics,
                                  VelmoraTool::toXrPose(frame.worldFromCamera), {images, 2});
    }
    XrResultVLM query() {
        span<ObjectInstance> instances{};
        span<SubsumedLink> links{};
        const XrResultVLM result = scene.getObjectInstances(instances, links);
        lastCount = instances.size;
        return result;
    }
    uint32_t lastCount = 0;
};

// Fused once and shared by both benchmarks.
Room& fusedRoom() {
    static std::unique_ptr<Room> room;
    if (room) {
        return *room;
    }
    room = std::make_unique<Room>();
    Config config{};
    config.cellSize = 0.02f;
    config.truncation = 0.1f;
    config.mode = 0;
    room->scene.init(config);
    VelmoraTool::BuiltinSceneSource source(kFrames, kWidth, kHeight, 0.0, 1);
    const VelmoraTool::Intrinsics k = source.intrinsics();
    room->intrinsics = {k.cx, k.cy, k.fx, k.fy};
    room->frames.resize(kFrames);
    for (size_t i = 0; i < kFrames; ++i) {
        std::string problem;
        source.load(i, room->frames[i], problem);
        room->submit(i);
    }
    room->query();
    return *room;
}

void report(benchmark::State& state, size_t blocks, const Room& room) {
    state.counters["blocks"] = static_cast<double>(blocks);
    state.counters["instances"] = room.lastCount;
    state.counters["ns_per_block"] = benchmark::Counter(
        static_cast<double>(blocks) * static_cast<double>(state.iterations()) * 1e-9,
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_InstancesAfterOneFrame(benchmark::State& state) {
    Room& room = fusedRoom();
    Impl::State& s = internalState(room.scene);
    size_t frame = 0;
    size_t blocks = 0;
    for (auto _ : state) {
        state.PauseTiming();
        room.submit(frame);
        frame = (frame + 1) % kFrames;
        blocks = s.mInstanceUpdatedBlocks.size();
        state.ResumeTiming();
        benchmark::DoNotOptimize(room.query());
    }
    report(state, blocks, room);
}

void BM_InstancesAfterWholeScene(benchmark::State& state) {
    Room& room = fusedRoom();
    Impl::State& s = internalState(room.scene);
    Solid::IndexSet all;
    s.mLabelDepthVolumeGrid->for_each(
        [&](const Solid::KeyType& key, const Solid::LabelDepthVolume&) { all.insert(key); });
    for (auto _ : state) {
        state.PauseTiming();
        s.mInstanceUpdatedBlocks = all;
        state.ResumeTiming();
        benchmark::DoNotOptimize(room.query());
    }
    report(state, all.size(), room);
}

BENCHMARK(BM_InstancesAfterOneFrame)
    ->Iterations(kRounds)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InstancesAfterWholeScene)
    ->Iterations(kRounds)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

}  // namespace
