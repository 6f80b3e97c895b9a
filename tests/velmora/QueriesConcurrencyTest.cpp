// Queries from reader threads while the producer fuses frames: every answer is one of the
// defined outcomes, and nothing races (this suite runs under ThreadSanitizer).
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "support/AnalyticScene.h"
#include "velmora/Velmora.h"

namespace Velmora {
namespace {

constexpr int kFrames = 8;
constexpr int kReaders = 2;
// Each reader asks at least this often, also when fusion ends first.
constexpr int kMinRounds = 20;

TEST(QueriesConcurrency, CollisionAndPlacementWhileFusing) {
    std::unique_ptr<IVelmora> scene(newVelmora());
    Config config{};
    config.cellSize = 0.02f;
    config.truncation = 0.1f;
    config.mode = 1;
    ASSERT_EQ(scene->init(config), kSuccess);
    const Velmora::Test::AnalyticScene room = Velmora::Test::AnalyticScene::room(4.0, 3.0, 2.5);

    std::atomic<bool> fusing{true};
    std::atomic<int> badAnswers{0};
    std::atomic<int> wallHits{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&, r] {
            for (int round = 0; fusing.load() || round < kMinRounds; ++round) {
                const float offset = 0.01f * static_cast<float>((round + r) % 10);
                const IntersectionResult results[3] = {
                    scene->intersectPoint({3.95f + offset, 1.5f, 1.0f}, 0.3f),
                    scene->intersectAxisAlignedBox({3.9f, 1.5f, 1.0f}, {0.1f, 0.2f, 0.2f}, 0.3f),
                    scene->intersectSphere({3.9f + offset, 1.5f, 1.0f}, 0.05f, 0.3f)};
                for (const IntersectionResult& result : results) {
                    if (result.collision < 0 || result.collision > 2 ||
                        !std::isfinite(result.distance)) {
                        ++badAnswers;
                    }
                }
                PlacementInfo info{};
                if (scene->getPlacementInfo({2.0f, 1.5f, 1.0f}, {1.0f, 0.0f, 0.0f},
                                            {0.0f, 0.0f, 1.0f}, info, 3.0f) != kSuccess) {
                    ++badAnswers;
                }
                if (info.result == 1) {
                    ++wallHits;
                    if (std::fabs(info.poseLocalToWorld.position.x - 4.0f) > 0.05f) {
                        ++badAnswers;
                    }
                }
            }
        });
    }
    for (int i = 0; i < kFrames; ++i) {
        Velmora::Test::PinholeCamera camera;
        const double y = 1.3 + 0.05 * i;
        camera.T_world_camera = Velmora::Test::lookAt({2.0, y, 1.0}, {4.0, y, 1.0}, {0, 0, 1});
        const Velmora::Test::RenderedFrame frame = Velmora::Test::render(room, camera);
        const Image depth = frame.depthImage();
        EXPECT_EQ(scene->submitImages(i, camera.intrinsics(), camera.pose(), {&depth, 1}),
                  kSuccess);
    }
    fusing = false;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(badAnswers.load(), 0);
    // The wall is there once fusion is done, whatever the readers saw before.
    PlacementInfo info{};
    ASSERT_EQ(scene->getPlacementInfo({2.0f, 1.5f, 1.0f}, {1.0f, 0.0f, 0.0f}, {0.0f, 0.0f, 1.0f},
                                      info, 3.0f),
              kSuccess);
    EXPECT_EQ(info.result, 1);
    EXPECT_GT(wallHits.load(), 0);
}

}  // namespace
}  // namespace Velmora
