// Plane queries from reader threads while the producer fuses depth and labels: every three-call
// read ends in a defined outcome, beside instance and mesh queries, and nothing races (this
// suite runs under ThreadSanitizer).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/PlaneScenes.h"
#include "velmora/Velmora.h"

namespace Velmora {
namespace {

constexpr int kViews = 8;
constexpr int kReaders = 2;
// Each reader asks at least this often, also when fusion ends first.
constexpr int kMinRounds = 10;

// One three-call read; false when an answer is outside the protocol. The scene may change
// between the calls, so a late -11 is a legal answer that a host repeats.
bool readPlanesOnce(IVelmora& scene) {
    span<Planef> planes{nullptr, 0};
    span<SubsumedLink> links{nullptr, 0};
    XrResultVLM result = scene.getPlanes(planes, links);
    if (result == kSuccess) {
        return true;
    }
    if (result != kErrorBufferTooSmall) {
        return false;
    }
    std::vector<Planef> records(planes.size, Planef{});
    std::vector<SubsumedLink> table(links.size);
    planes.data = records.data();
    links.data = table.data();
    result = scene.getPlanes(planes, links);
    if (result != kErrorBufferTooSmall && result != kSuccess) {
        return false;
    }
    std::vector<std::vector<XrVector3fVLM>> contours(records.size());
    for (size_t i = 0; i < records.size() && i < planes.size; ++i) {
        contours[i].resize(records[i].vertexCount);
        records[i].vertices = contours[i].data();
    }
    planes.size = static_cast<uint32_t>(records.size());
    links.size = static_cast<uint32_t>(table.size());
    result = scene.getPlanes(planes, links);
    return result == kSuccess || result == kErrorBufferTooSmall;
}

TEST(PlanesConcurrency, PlaneInstanceAndMeshQueriesWhileFusing) {
    std::unique_ptr<IVelmora> scene(newVelmora());
    Config config{};
    config.cellSize = 0.05f;
    config.truncation = 0.25f;
    config.mode = 1;
    config.detectPlanes = true;
    config.planeMaxStdError = 0.01f;
    config.planeMaxAngle = 0.1f;
    config.planeSolverIterations = 3;
    config.planeContourAlpha = 0.15f;
    config.labelPlanes = true;
    ASSERT_EQ(scene->init(config), kSuccess);
    const Velmora::Test::AnalyticScene room = Velmora::Test::furnishedRoom();
    const std::vector<Velmora::Test::PinholeCamera> tour = Velmora::Test::roomTour(96, 72, kViews);
    std::vector<Velmora::Test::RenderedFrame> frames;
    for (const Velmora::Test::PinholeCamera& camera : tour) {
        frames.push_back(Velmora::Test::render(room, camera));
    }

    std::atomic<bool> fusing{true};
    std::atomic<int> badAnswers{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            for (int round = 0; fusing.load() || round < kMinRounds; ++round) {
                if (!readPlanesOnce(*scene)) {
                    ++badAnswers;
                }
                span<ObjectInstance> instances{nullptr, 0};
                span<SubsumedLink> links{nullptr, 0};
                const XrResultVLM instanceResult = scene->getObjectInstances(instances, links);
                if (instanceResult != kSuccess && instanceResult != kErrorBufferTooSmall) {
                    ++badAnswers;
                }
                PolygonMesh mesh{};
                const XrResultVLM meshResult = scene->extractSurface(mesh, false, UuidBytes{}, {});
                if (meshResult != kSuccess && meshResult != kErrorBufferTooSmall) {
                    ++badAnswers;
                }
            }
        });
    }
    for (int v = 0; v < kViews; ++v) {
        const Image depth = frames[v].depthImage();
        const Image labels = frames[v].labelImage();
        EXPECT_EQ(scene->submitImages(v, tour[v].intrinsics(), tour[v].pose(), {&depth, 1}),
                  kSuccess);
        if (v % 2 == 0) {
            EXPECT_EQ(scene->submitImages(v, tour[v].intrinsics(), tour[v].pose(), {&labels, 1}),
                      kSuccess);
        }
    }
    fusing = false;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(badAnswers.load(), 0);
    EXPECT_TRUE(readPlanesOnce(*scene));
}

}  // namespace
}  // namespace Velmora
