// One submitImages call of a 640x480 frame of a furnished room (fx = fy = 525), per run mode and
// resolution, after a few warm-up frames so that most blocks exist. Counters: blocks touched by
// the frame and nanoseconds per updated voxel (blocks x 512 fused lattice points).
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

#include "support/AnalyticScene.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace {

using namespace Velmora;

Test::AnalyticScene furnishedRoom() {
    Test::AnalyticScene scene = Test::AnalyticScene::room(4.0, 3.0, 2.6);
    scene.add(Test::makeBox({1.2, 1.0, 0.0}, {2.4, 1.8, 0.75}, 4, {150, 100, 60}));  // table
    scene.add(Test::makeBox({0.3, 0.3, 0.0}, {0.8, 0.8, 0.5}, 5, {90, 90, 200}));    // box
    scene.add(Test::makeSphere({3.0, 2.2, 0.3}, 0.3, 6, {200, 60, 60}));             // ball
    return scene;
}

Test::PinholeCamera camera640(double angle) {
    Test::PinholeCamera camera;
    camera.width = 640;
    camera.height = 480;
    camera.fx = camera.fy = 525.0;
    camera.cx = 319.5;
    camera.cy = 239.5;
    camera.T_world_camera =
        Test::lookAt({2.0 - 0.8 * std::cos(angle), 1.5 - 0.6 * std::sin(angle), 1.4},
                     {2.0 + std::cos(angle), 1.5 + std::sin(angle), 0.6}, {0, 0, 1});
    return camera;
}

void initScene(Impl& scene, int32_t mode, float cell) {
    Config config{};
    config.cellSize = cell;
    config.truncation = 5.0f * cell;
    config.mode = mode;
    scene.init(config);
}

// Four views of the furnished room along a short turn of the camera.
void renderViews(std::vector<Test::RenderedFrame>& frames,
                 std::vector<Test::PinholeCamera>& cameras) {
    const Test::AnalyticScene room = furnishedRoom();
    for (int f = 0; f < 4; ++f) {
        cameras.push_back(camera640(0.15 * f));
        frames.push_back(render(room, cameras.back()));
    }
}

// range(0): mode; range(1): cell size in millimetres (truncation is five cells).
void BM_SubmitImages(benchmark::State& state) {
    const int32_t mode = static_cast<int32_t>(state.range(0));
    const float cell = static_cast<float>(state.range(1)) * 0.001f;
    Impl scene;
    initScene(scene, mode, cell);
    std::vector<Test::RenderedFrame> frames;
    std::vector<Test::PinholeCamera> cameras;
    renderViews(frames, cameras);
    auto submit = [&](size_t f) {
        std::vector<Image> images = {frames[f].depthImage()};
        if (mode == 0)
            images.push_back(frames[f].labelImage());
        return scene.submitImages(int64_t(f), cameras[f].intrinsics(), cameras[f].pose(),
                                  span<const Image>{images.data(), uint32_t(images.size())});
    };
    for (size_t f = 0; f < frames.size(); ++f)
        submit(f);  // warm-up: the blocks exist
    Impl::State& s = internalState(scene);
    size_t touched = 0;
    size_t f = 0;
    for (auto _ : state) {
        state.PauseTiming();
        s.mSurfaces.updatedBlocks.clear();
        state.ResumeTiming();
        benchmark::DoNotOptimize(submit(f));
        state.PauseTiming();
        touched = s.mSurfaces.updatedBlocks.size();
        state.ResumeTiming();
        f = (f + 1) % frames.size();
    }
    state.counters["blocks"] = static_cast<double>(touched);
    state.counters["ns_per_voxel"] = benchmark::Counter(
        static_cast<double>(touched) * 512.0 * static_cast<double>(state.iterations()) * 1e-9,
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
// A split-mode frame of all three streams, as a device delivers them: depth, then the label
// image and the colour image of the same view (each renders the volume). range(0): cell size in
// millimetres (truncation is five cells).
void BM_SubmitSplitDepthLabelColour(benchmark::State& state) {
    const float cell = static_cast<float>(state.range(0)) * 0.001f;
    Impl scene;
    initScene(scene, 1, cell);
    std::vector<Test::RenderedFrame> frames;
    std::vector<Test::PinholeCamera> cameras;
    renderViews(frames, cameras);
    auto submit = [&](size_t f, const Image& image) {
        return scene.submitImages(int64_t(f), cameras[f].intrinsics(), cameras[f].pose(),
                                  span<const Image>{&image, 1});
    };
    for (size_t f = 0; f < frames.size(); ++f)
        submit(f, frames[f].depthImage());  // warm-up: the blocks exist
    size_t f = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(submit(f, frames[f].depthImage()));
        benchmark::DoNotOptimize(submit(f, frames[f].labelImage()));
        benchmark::DoNotOptimize(submit(f, frames[f].colorImage()));
        f = (f + 1) % frames.size();
    }
}
BENCHMARK(BM_SubmitSplitDepthLabelColour)
    ->ArgName("cell_mm")
    ->Arg(20)
    ->Arg(10)
    ->Unit(benchmark::kMillisecond);

BENCHMARK(BM_SubmitImages)
    ->ArgNames({"mode", "cell_mm"})
    ->Args({1, 20})
    ->Args({0, 20})
    ->Args({1, 10})
    ->Args({0, 10})
    ->Unit(benchmark::kMillisecond);

}  // namespace
