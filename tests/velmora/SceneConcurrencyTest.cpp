// Every query of the scene from reader threads while a producer fuses depth and label frames of a
// furnished room, in both run modes: each answer is one the protocols allow (the scene may grow
// between the calls of a read, so a late -11 is legal), and nothing races (CI runs this suite
// under ThreadSanitizer). Once fusion is done, the answers show the room.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <initializer_list>
#include <memory>
#include <thread>
#include <vector>

#include "support/PlaneScenes.h"
#include "support/SceneSetup.h"
#include "velmora/MeshDelivery.h"

namespace Velmora {
namespace {

constexpr int kViews = 8;
constexpr int kReaders = 2;
constexpr int kMinRounds = 6;  // each reader asks at least this often, also after fusion ends

class Answers {
public:
    void expect(XrResultVLM result, std::initializer_list<XrResultVLM> allowed) {
        for (XrResultVLM a : allowed) {
            if (result == a) {
                return;
            }
        }
        ++mBad;
    }
    void expect(bool good) { mBad += good ? 0 : 1; }
    int bad() const { return mBad.load(); }

private:
    std::atomic<int> mBad{0};
};

// The three calls of a host for the planes.
void readPlanes(IVelmora& scene, Answers& answers) {
    span<Planef> planes{nullptr, 0};
    span<SubsumedLink> links{nullptr, 0};
    XrResultVLM result = scene.getPlanes(planes, links);
    answers.expect(result, {kSuccess, kErrorBufferTooSmall});
    if (result != kErrorBufferTooSmall) {
        return;
    }
    std::vector<Planef> records(planes.size, Planef{});
    std::vector<SubsumedLink> table(links.size);
    planes.data = records.data();
    links.data = table.data();
    answers.expect(scene.getPlanes(planes, links), {kSuccess, kErrorBufferTooSmall});
    std::vector<std::vector<XrVector3fVLM>> contours(records.size());
    for (size_t i = 0; i < records.size() && i < planes.size; ++i) {
        contours[i].resize(records[i].vertexCount);
        records[i].vertices = contours[i].data();
    }
    planes.size = static_cast<uint32_t>(records.size());
    links.size = static_cast<uint32_t>(table.size());
    answers.expect(scene.getPlanes(planes, links), {kSuccess, kErrorBufferTooSmall});
}

// The whole scene in the mesh form with its two calls, then the first instance in the buffer
// form (it may have merged into another since it was listed).
void readMeshes(IVelmora& scene, Answers& answers) {
    PolygonMesh mesh{};
    answers.expect(scene.extractSurface(mesh, true, UuidBytes{}, TextureQuality{}),
                   {kSuccess, kErrorBufferTooSmall});
    std::vector<XrVector3fVLM> positions(mesh.positionCount);
    std::vector<uint32_t> indices(mesh.indexCount);
    std::vector<uint16_t> ids(mesh.instanceIdCount);
    mesh.positions = positions.data();
    mesh.indices = indices.data();
    mesh.instanceIds = ids.data();
    answers.expect(scene.extractSurface(mesh, true, UuidBytes{}, TextureQuality{}),
                   {kSuccess, kErrorBufferTooSmall});

    std::vector<ObjectInstance> found(16);
    std::vector<SubsumedLink> links(256);
    span<ObjectInstance> instanceSpan{found.data(), uint32_t(found.size())};
    span<SubsumedLink> linkSpan{links.data(), uint32_t(links.size())};
    const XrResultVLM listed = scene.getObjectInstances(instanceSpan, linkSpan);
    answers.expect(listed, {kSuccess, kErrorBufferTooSmall});
    answers.expect(listed != kSuccess || instanceSpan.size == 0 || linkSpan.size > 0);
    const UuidBytes uuid =
        listed == kSuccess && instanceSpan.size > 0 ? found[0].uuid : UuidBytes{};
    std::vector<uint8_t> memory(1 << 20);
    const PolygonMeshBufferDescriptor descriptors[2] = {{kBufferPosition, 0, 0, 12, 12},
                                                        {kBufferIndex, 1, 0, 4, 4}};
    PolygonMeshBuffer buffers[2] = {{memory.data(), 1 << 19, 0, 0},
                                    {memory.data() + (1 << 19), 1 << 19, 0, 0}};
    answers.expect(
        scene.extractSurface({descriptors, 2}, {buffers, 2}, true, uuid, TextureQuality{}),
        {kSuccess, kErrorBufferTooSmall, kErrorUnknownInstance});
}

void askSpatialQueries(IVelmora& scene, Answers& answers, float offset) {
    for (const IntersectionResult& result :
         {scene.intersectPoint({3.95f + offset, 1.5f, 1.0f}, 0.3f),
          scene.intersectAxisAlignedBox({3.9f, 1.5f, 1.0f}, {0.1f, 0.2f, 0.2f}, 0.3f),
          scene.intersectSphere({3.9f + offset, 1.5f, 1.0f}, 0.05f, 0.3f)}) {
        answers.expect(result.collision >= 0 && result.collision <= 2 &&
                       std::isfinite(result.distance));
    }
    PlacementInfo info{};
    answers.expect(scene.getPlacementInfo({2.0f, 1.5f, 1.0f}, {1.0f, 0.0f, 0.0f},
                                          {0.0f, 0.0f, 1.0f}, info, 3.0f),
                   {kSuccess});
    answers.expect(info.result == 0 || std::fabs(info.poseLocalToWorld.position.x - 4.0f) < 0.05f);
}

class SceneConcurrency : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(BothModes, SceneConcurrency, ::testing::Values(0, 1));

TEST_P(SceneConcurrency, EveryQueryWhileAProducerFuses) {
    const int32_t mode = GetParam();
    std::unique_ptr<IVelmora> scene(newVelmora());
    Config config{};
    config.cellSize = 0.05f;
    config.truncation = 0.25f;
    config.mode = mode;
    config.detectPlanes = true;
    config.planeMaxStdError = 0.01f;
    config.planeMaxAngle = 0.1f;
    config.planeSolverIterations = 3;
    config.planeContourAlpha = 0.15f;
    config.labelPlanes = true;
    ASSERT_EQ(scene->init(config), kSuccess);
    const Velmora::Test::AnalyticScene room = Velmora::Test::furnishedRoom();
    const std::vector<Velmora::Test::PinholeCamera> tour = Velmora::Test::roomTour(96, 72, kViews);

    std::atomic<bool> fusing{true};
    Answers answers;
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&, r] {
            for (int round = 0; fusing.load() || round < kMinRounds; ++round) {
                readPlanes(*scene, answers);
                readMeshes(*scene, answers);
                askSpatialQueries(*scene, answers, 0.01f * static_cast<float>((round + r) % 10));
            }
        });
    }
    // Split mode gets a label image with every other depth image.
    for (int v = 0; v < kViews; ++v) {
        Velmora::Test::fuseView(*scene, mode, room, tour[v], v % 2 == 0);
    }
    fusing = false;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(answers.bad(), 0);

    PolygonMesh mesh{};
    EXPECT_EQ(scene->extractSurface(mesh, false, UuidBytes{}, TextureQuality{}),
              kErrorBufferTooSmall);
    EXPECT_GT(mesh.indexCount, 0u);
    const Velmora::Test::InstanceReport report = Velmora::Test::readInstances(*scene);
    ASSERT_EQ(report.result, kSuccess);
    bool table = false;
    for (const ObjectInstance& instance : report.instances) {
        table = table || instance.label == Velmora::Test::kTableLabel;
    }
    EXPECT_TRUE(table);
    PlacementInfo info{};
    ASSERT_EQ(scene->getPlacementInfo({2.0f, 1.5f, 1.0f}, {1.0f, 0.0f, 0.0f}, {0.0f, 0.0f, 1.0f},
                                      info, 3.0f),
              kSuccess);
    ASSERT_EQ(info.result, 1);
    EXPECT_NEAR(info.poseLocalToWorld.position.x, 4.0f, 0.05f);
}

}  // namespace
}  // namespace Velmora
