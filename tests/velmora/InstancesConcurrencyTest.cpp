// getObjectInstances from reader threads while the producer fuses depth and label frames, beside
// the spatial queries: each answer follows the two-call protocol, nothing aborts, and nothing
// races (this suite runs under ThreadSanitizer).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/AnalyticScene.h"
#include "velmora/Velmora.h"

namespace Velmora {
namespace {

constexpr int kFrames = 6;
constexpr int kReaders = 2;
constexpr int kMinRounds = 10;  // each reader asks at least this often

TEST(InstancesConcurrency, InstancesAndSpatialQueriesWhileFusingLabels) {
    Velmora::Test::AnalyticScene world = Velmora::Test::AnalyticScene::room(3.0, 3.0, 2.5);
    world.add(Velmora::Test::makeBox({1.0, 1.0, 0.0}, {1.6, 1.5, 0.6}, 4, {200, 60, 60}));
    for (int32_t mode : {0, 1}) {
        std::unique_ptr<IVelmora> scene(newVelmora());
        Config config{};
        config.cellSize = 0.05f;
        config.truncation = 0.25f;
        config.mode = mode;
        ASSERT_EQ(scene->init(config), kSuccess);

        std::atomic<bool> fusing{true};
        std::atomic<int> badAnswers{0};
        std::vector<std::thread> readers;
        for (int r = 0; r < kReaders; ++r) {
            readers.emplace_back([&] {
                for (int round = 0; fusing.load() || round < kMinRounds; ++round) {
                    span<ObjectInstance> instances{};
                    span<SubsumedLink> links{};
                    const XrResultVLM counted = scene->getObjectInstances(instances, links);
                    if (counted == kErrorBufferTooSmall) {
                        std::vector<ObjectInstance> i(instances.size);
                        std::vector<SubsumedLink> l(links.size);
                        instances.data = i.data();
                        links.data = l.data();
                        const XrResultVLM filled = scene->getObjectInstances(instances, links);
                        // The scene may have grown between the two calls.
                        if (filled != kSuccess && filled != kErrorBufferTooSmall)
                            ++badAnswers;
                        if (filled == kSuccess && (links.size == 0 || instances.size > i.size()))
                            ++badAnswers;
                    } else if (counted != kSuccess) {
                        ++badAnswers;
                    }
                    const IntersectionResult hit = scene->intersectPoint({1.3f, 1.25f, 0.3f}, 0.2f);
                    if (hit.collision < 0 || hit.collision > 2)
                        ++badAnswers;
                    PlacementInfo info{};
                    if (scene->getPlacementInfo({0.5f, 0.5f, 1.5f}, {0.0f, 0.0f, -1.0f},
                                                {1.0f, 0.0f, 0.0f}, info, 3.0f) != kSuccess)
                        ++badAnswers;
                }
            });
        }
        for (int f = 0; f < kFrames; ++f) {
            Velmora::Test::PinholeCamera camera;
            const double x = 0.4 + 0.15 * f;
            camera.T_world_camera =
                Velmora::Test::lookAt({x, 0.3, 1.6}, {1.3, 1.25, 0.3}, {0, 0, 1});
            const Velmora::Test::RenderedFrame frame = Velmora::Test::render(world, camera);
            const Image images[2] = {frame.depthImage(), frame.labelImage()};
            if (mode == 0) {
                EXPECT_EQ(scene->submitImages(f, camera.intrinsics(), camera.pose(), {images, 2}),
                          kSuccess);
            } else {
                EXPECT_EQ(scene->submitImages(f, camera.intrinsics(), camera.pose(), {images, 1}),
                          kSuccess);
                EXPECT_EQ(
                    scene->submitImages(f, camera.intrinsics(), camera.pose(), {images + 1, 1}),
                    kSuccess);
            }
        }
        fusing = false;
        for (std::thread& reader : readers)
            reader.join();
        EXPECT_EQ(badAnswers.load(), 0) << "mode " << mode;
        // Once fusion is done the box is among the instances.
        std::vector<ObjectInstance> all(64);
        std::vector<SubsumedLink> links(1024);
        span<ObjectInstance> allSpan{all.data(), uint32_t(all.size())};
        span<SubsumedLink> linkSpan{links.data(), uint32_t(links.size())};
        ASSERT_EQ(scene->getObjectInstances(allSpan, linkSpan), kSuccess) << mode;
        bool box = false;
        for (uint32_t i = 0; i < allSpan.size; ++i)
            box = box || all[i].label == 4;
        EXPECT_TRUE(box) << "mode " << mode;
    }
}

}  // namespace
}  // namespace Velmora
