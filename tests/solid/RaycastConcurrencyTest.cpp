// A depth frame rendered from a grid while another thread fuses views into it (this suite runs
// under ThreadSanitizer): every pixel is written, with 0 or a depth on the wall.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "solid/Raycast.h"
#include "support/FusedGrid.h"

namespace Solid {
namespace {

constexpr float kCellSize = 0.02f;
constexpr float kTruncation = 0.1f;
constexpr int kFrames = 6;
constexpr int kMinRenders = 3;

TEST(RaycastConcurrency, RenderWhileFusing) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    Velmora::Test::AnalyticScene scene;
    scene.add(Velmora::Test::makeBox({2.0, -3.0, -3.0}, {3.0, 5.0, 5.0}, 2, {200, 200, 200}));
    Velmora::Test::PinholeCamera camera;
    camera.T_world_camera = Velmora::Test::lookAt({0.8, 1.0, 1.0}, {2.0, 1.0, 1.0}, {0, 0, 1});

    std::atomic<bool> fusing{true};
    std::atomic<int> badPixels{0};
    std::thread renderer([&] {
        DepthFrame frame;
        Velmora::Test::setUpFrame(frame, camera);
        IntegrationStats stats;
        for (int round = 0; fusing.load() || round < kMinRenders; ++round) {
            raycast(grid, 0.05f, 5.0f, 1.0f, frame, stats);
            for (int y = 0; y < camera.height; ++y) {
                for (int x = 0; x < camera.width; ++x) {
                    // The wall is 1.2 m away on the axis and at most about 1.45 m at the corners.
                    const float d = frame.depth(x, y);
                    if (d != 0.0f && !(d > 1.1f && d < 1.6f)) {
                        ++badPixels;
                    }
                }
            }
        }
    });
    for (int i = 0; i < kFrames; ++i) {
        Velmora::Test::fuseView(grid, scene, camera, kTruncation);
    }
    fusing = false;
    renderer.join();
    EXPECT_EQ(badPixels.load(), 0);
}

}  // namespace
}  // namespace Solid
