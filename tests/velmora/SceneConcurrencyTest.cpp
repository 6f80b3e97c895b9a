// Every query from reader threads while a producer fuses, in both run modes: only answers the
// protocols allow (a late -11 is legal), no races (CI runs this under ThreadSanitizer).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#include "HostScenes.h"
#include "velmora/MeshDelivery.h"

namespace Velmora {
namespace {

using namespace Test;

constexpr int kViews = 8;
constexpr int kMinRounds = 6;  // each reader asks at least this often, also after fusion ends

// Counts the answers the protocols do not allow.
struct Answers {
    std::atomic<int> bad{0};
    void expect(bool good) { bad += good ? 0 : 1; }
    void expect(XrResultVLM r, bool tooSmallAllowed = true) {
        expect(r == kSuccess || (tooSmallAllowed && r == kErrorBufferTooSmall));
    }
};

// The host's reads in both forms: the planes in three calls, the whole scene's mesh in two, the
// instances, and the first instance's mesh in the buffer form (it may have merged into another
// since it was listed); collision and placement in front of a wall.
void readEverything(IVelmora& scene, Answers& answers, float offset) {
    answers.expect(readPlanes(scene).result);
    answers.expect(readMesh(scene, UuidBytes{}).result);

    std::vector<ObjectInstance> found(16);
    std::vector<SubsumedLink> instanceLinks(256);
    span<ObjectInstance> instanceSpan{found.data(), uint32_t(found.size())};
    span<SubsumedLink> linkSpan{instanceLinks.data(), uint32_t(instanceLinks.size())};
    const XrResultVLM listed = scene.getObjectInstances(instanceSpan, linkSpan);
    answers.expect(listed);
    answers.expect(listed != kSuccess || instanceSpan.size == 0 || linkSpan.size > 0);
    const UuidBytes uuid =
        listed == kSuccess && instanceSpan.size > 0 ? found[0].uuid : UuidBytes{};
    std::vector<uint8_t> memory(1 << 20);
    const PolygonMeshBufferDescriptor descriptors[2] = {{kBufferPosition, 0, 0, 12, 12},
                                                        {kBufferIndex, 1, 0, 4, 4}};
    PolygonMeshBuffer buffers[2] = {{memory.data(), 1 << 19, 0, 0},
                                    {memory.data() + (1 << 19), 1 << 19, 0, 0}};
    const XrResultVLM r = scene.extractSurface({descriptors, 2}, {buffers, 2}, true, uuid, {});
    answers.expect(r == kErrorUnknownInstance || r == kSuccess || r == kErrorBufferTooSmall);

    for (const IntersectionResult& hit :
         {scene.intersectPoint({3.95f + offset, 1.5f, 1.0f}, 0.3f),
          scene.intersectAxisAlignedBox({3.9f, 1.5f, 1.0f}, {0.1f, 0.2f, 0.2f}, 0.3f),
          scene.intersectSphere({3.9f + offset, 1.5f, 1.0f}, 0.05f, 0.3f)}) {
        answers.expect(hit.collision >= 0 && hit.collision <= 2 && std::isfinite(hit.distance));
    }
    PlacementInfo info{};
    answers.expect(scene.getPlacementInfo({2, 1.5f, 1}, {1, 0, 0}, {0, 0, 1}, info, 3.0f), false);
    answers.expect(info.result == 0 || std::fabs(info.poseLocalToWorld.position.x - 4.0f) < 0.05f);
}

class SceneConcurrency : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(BothModes, SceneConcurrency, ::testing::Values(0, 1));

TEST_P(SceneConcurrency, EveryQueryWhileAProducerFuses) {
    const int32_t mode = GetParam();
    Impl scene;
    Config config = planeConfig(mode, 0.05f);
    config.planeSolverIterations = 3;
    config.planeContourAlpha = 0.15f;
    ASSERT_EQ(scene.init(config), kSuccess);
    const AnalyticScene room = furnishedRoom();
    const std::vector<PinholeCamera> tour = roomTour(96, 72, kViews);
    std::atomic<bool> fusing{true};
    Answers answers;
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&, r] {
            for (int round = 0; fusing.load() || round < kMinRounds; ++round)
                readEverything(scene, answers, 0.01f * static_cast<float>((round + r) % 10));
        });
    }
    // Split mode gets a label image with every other depth image.
    for (int v = 0; v < kViews; ++v)
        fuseView(scene, mode, room, tour[v], v % 2 == 0);
    fusing = false;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(answers.bad.load(), 0);
    EXPECT_GT(readMesh(scene, kWholeScene).indices.size(), 0u);
    const InstanceReport report = readInstances(scene);
    ASSERT_EQ(report.result, kSuccess);
    EXPECT_TRUE(std::any_of(report.instances.begin(), report.instances.end(),
                            [](const ObjectInstance& i) { return i.label == kTableLabel; }));
    PlacementInfo info{};
    ASSERT_EQ(scene.getPlacementInfo({2, 1.5f, 1}, {1, 0, 0}, {0, 0, 1}, info, 3.0f), kSuccess);
    ASSERT_EQ(info.result, 1);
    EXPECT_NEAR(info.poseLocalToWorld.position.x, 4.0f, 0.05f);
}

}  // namespace
}  // namespace Velmora
