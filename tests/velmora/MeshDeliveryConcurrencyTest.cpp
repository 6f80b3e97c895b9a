// A producer fusing frames while readers ask for the whole scene and for instances, in both forms
// of extractSurface, and for the instances themselves; run under ThreadSanitizer by CI.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/AnalyticScene.h"
#include "velmora/Impl.h"
#include "velmora/MeshDelivery.h"

namespace Velmora {
namespace {

constexpr int kFrames = 8;

std::unique_ptr<Impl> makeScene(int32_t mode) {
    std::unique_ptr<Impl> scene(static_cast<Impl*>(newVelmora()));
    Config config{};
    config.cellSize = 0.05f;
    config.truncation = 0.25f;
    config.mode = mode;
    config.labelPlanes = true;
    EXPECT_EQ(scene->init(config), kSuccess);
    return scene;
}

class MeshDeliveryConcurrencyTest : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(BothModes, MeshDeliveryConcurrencyTest, ::testing::Values(0, 1));

TEST_P(MeshDeliveryConcurrencyTest, ReadersMeshWhileAProducerFuses) {
    const int32_t mode = GetParam();
    std::unique_ptr<Impl> scene = makeScene(mode);
    Velmora::Test::AnalyticScene world;
    world.add(Velmora::Test::makeHalfSpace({0, 0, 1}, 0.0, 1, {120, 120, 120}));
    world.add(Velmora::Test::makeBox({0.3, 0.3, 0.0}, {0.7, 0.7, 0.4}, 4, {200, 50, 50}));
    std::vector<Velmora::Test::PinholeCamera> cameras;
    std::vector<Velmora::Test::RenderedFrame> frames;
    for (int f = 0; f < kFrames; ++f) {
        Velmora::Test::PinholeCamera camera;
        camera.width = 64;
        camera.height = 48;
        camera.fx = camera.fy = 45.0;
        camera.T_world_camera =
            Velmora::Test::lookAt({-0.6 + 0.3 * f, -0.6, 1.4}, {0.5, 0.5, 0.1}, {0, 0, 1});
        cameras.push_back(camera);
        frames.push_back(Velmora::Test::render(world, camera));
    }
    std::atomic<bool> done{false};
    std::atomic<int> unexpected{0};
    auto expectOneOf = [&](XrResultVLM result, std::initializer_list<XrResultVLM> allowed) {
        for (XrResultVLM a : allowed) {
            if (result == a) {
                return;
            }
        }
        ++unexpected;
    };
    std::thread producer([&] {
        for (int f = 0; f < kFrames; ++f) {
            const Image images[2] = {frames[f].depthImage(), frames[f].labelImage()};
            const auto& camera = cameras[f];
            if (mode == 0) {
                expectOneOf(scene->submitImages(f, camera.intrinsics(), camera.pose(), {images, 2}),
                            {kSuccess});
            } else {
                expectOneOf(scene->submitImages(f, camera.intrinsics(), camera.pose(), {images, 1}),
                            {kSuccess});
                expectOneOf(
                    scene->submitImages(f, camera.intrinsics(), camera.pose(), {images + 1, 1}),
                    {kSuccess});
            }
        }
        done = true;
    });
    // Whole scene, mesh form, with the two calls.
    std::thread arrays([&] {
        while (!done) {
            PolygonMesh mesh{};
            expectOneOf(scene->extractSurface(mesh, true, UuidBytes{}, TextureQuality{}),
                        {kSuccess, kErrorBufferTooSmall});
            std::vector<XrVector3fVLM> positions(mesh.positionCount);
            std::vector<uint32_t> indices(mesh.indexCount);
            std::vector<uint16_t> ids(mesh.instanceIdCount);
            mesh.positions = positions.data();
            mesh.indices = indices.data();
            mesh.instanceIds = ids.data();
            // The scene may have grown between the calls: -11 again is a legal answer.
            expectOneOf(scene->extractSurface(mesh, true, UuidBytes{}, TextureQuality{}),
                        {kSuccess, kErrorBufferTooSmall});
        }
    });
    // Instances, and the mesh of the first one in the buffer form.
    std::thread instances([&] {
        while (!done) {
            std::vector<ObjectInstance> found(16);
            std::vector<SubsumedLink> links(256);
            span<ObjectInstance> instanceSpan{found.data(), uint32_t(found.size())};
            span<SubsumedLink> linkSpan{links.data(), uint32_t(links.size())};
            expectOneOf(scene->getObjectInstances(instanceSpan, linkSpan),
                        {kSuccess, kErrorBufferTooSmall});
            const UuidBytes uuid = instanceSpan.size > 0 && instanceSpan.size <= found.size()
                                       ? found[0].uuid
                                       : UuidBytes{};
            std::vector<uint8_t> memory(1 << 20);
            const PolygonMeshBufferDescriptor descriptors[2] = {{kBufferPosition, 0, 0, 12, 12},
                                                                {kBufferIndex, 1, 0, 4, 4}};
            PolygonMeshBuffer buffers[2] = {{memory.data(), 1 << 19, 0, 0},
                                            {memory.data() + (1 << 19), 1 << 19, 0, 0}};
            // An instance may have merged into another since it was listed: -2000012.
            expectOneOf(
                scene->extractSurface({descriptors, 2}, {buffers, 2}, true, uuid, TextureQuality{}),
                {kSuccess, kErrorBufferTooSmall, kErrorUnknownInstance});
        }
    });
    producer.join();
    arrays.join();
    instances.join();
    EXPECT_EQ(unexpected, 0);
    PolygonMesh mesh{};
    EXPECT_EQ(scene->extractSurface(mesh, false, UuidBytes{}, TextureQuality{}),
              kErrorBufferTooSmall);
    EXPECT_GT(mesh.indexCount, 0u);
}

}  // namespace
}  // namespace Velmora
