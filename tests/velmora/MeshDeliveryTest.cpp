// extractSurface on a box on a floor in both run modes: the surface, instance meshes, both forms,
// colours, re-meshing, the result codes and the buffer checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

#include "HostScenes.h"
#include "velmora/MeshDelivery.h"
#include "velmora/ObjectIds.h"

namespace Velmora {
namespace {

using namespace Test;

const AnalyticScene kWorld = boxesOnAFloor({kBoxes[0]});

// The first box's instance: label 4, bounds around the middle of its top.
UuidBytes boxInstance(IVelmora& scene) {
    for (const ObjectInstance& i : readInstances(scene).instances) {
        if (i.label == 4 && i.boundsMin.x < 0.5f && i.boundsMax.x > 0.5f && i.boundsMin.y < 0.5f &&
            i.boundsMax.y > 0.5f) {
            return i.uuid;
        }
    }
    ADD_FAILURE() << "no instance of the box";
    return UuidBytes{};
}

bool onBoxTop(const XrVector3fVLM& p) {  // away from its edges
    return std::fabs(p.z - 0.4f) < 0.02f && p.x > 0.4f && p.x < 0.6f && p.y > 0.4f && p.y < 0.6f;
}

// The blocks of the cached whole-scene mesh, each with the address of one of its streams.
std::map<std::array<int, 3>, const void*> meshStreams(Impl& scene, bool colours) {
    std::map<std::array<int, 3>, const void*> streams;
    for (const auto& [key, mesh] : internalState(scene).mSurfaces.getMeshGrid(0))
        streams[{key[0], key[1], key[2]}] =
            colours ? static_cast<const void*>(mesh.findColors()) : mesh.findPositions();
    return streams;
}

// Whether a block may be re-meshed after `changed` blocks changed: they and their lower
// neighbours, which take their borders.
bool mayChange(const std::array<int, 3>& key, const Solid::IndexSet& changed) {
    return std::any_of(changed.begin(), changed.end(), [&key](const Solid::KeyType& c) {
        return key[0] <= c[0] && key[1] <= c[1] && key[2] <= c[2] && c[0] - key[0] <= 1 &&
               c[1] - key[1] <= 1 && c[2] - key[2] <= 1;
    });
}

class MeshDeliveryTest : public ::testing::TestWithParam<int32_t> {
protected:
    std::unique_ptr<Impl> scene = fusedBoxes(GetParam(), {kBoxes[0]});
};
INSTANTIATE_TEST_SUITE_P(BothModes, MeshDeliveryTest, ::testing::Values(kModeCombined, kModeSplit));

// Positions and ids interleaved in buffer 0 (stride 16), indices alone in buffer 1: the mesh of
// the array form, and read back by the library's own reader. The top of the box carries its id.
TEST_P(MeshDeliveryTest, BothFormsDeliverTheSameMeshWithTheBoxId) {
    const uint16_t box = objectIdOf(boxInstance(*scene));  // instances first: they give the ids
    const HostMesh arrays = readMesh(*scene, kWholeScene);
    ASSERT_EQ(arrays.result, kSuccess);
    ASSERT_EQ(arrays.ids.size(), arrays.positions.size());
    const PolygonMeshBufferDescriptor descriptors[3] = {{kBufferPosition, 0, 0, 12, 16},
                                                        {kBufferInstanceId, 0, 12, 2, 16},
                                                        {kBufferIndex, 1, 0, 4, 4}};
    PolygonMeshBuffer buffers[2] = {};
    const auto extract = [&] {
        return scene->extractSurface({descriptors, 3}, {buffers, 2}, true, kWholeScene, {});
    };
    EXPECT_EQ(extract(), kErrorBufferTooSmall);
    ASSERT_EQ(buffers[0].vertexCount, arrays.positions.size());
    ASSERT_EQ(buffers[1].indexCount, arrays.indices.size());
    std::vector<uint8_t> interleaved(16 * buffers[0].vertexCount);
    std::vector<uint32_t> indices(buffers[1].indexCount);
    buffers[0] = {interleaved.data(), uint32_t(interleaved.size()), 0, 0};
    buffers[1] = {indices.data(), uint32_t(4 * indices.size()), 0, 0};
    ASSERT_EQ(extract(), kSuccess);
    EXPECT_EQ(indices, arrays.indices);
    size_t boxTop = 0;
    for (size_t v = 0; v < arrays.positions.size(); ++v) {
        XrVector3fVLM p;
        uint16_t id;
        std::memcpy(&p, interleaved.data() + 16 * v, 12);
        std::memcpy(&id, interleaved.data() + 16 * v + 12, 2);
        const XrVector3fVLM& q = arrays.positions[v];
        ASSERT_TRUE(p.x == q.x && p.y == q.y && p.z == q.z && id == arrays.ids[v]) << v;
        if (onBoxTop(q)) {
            EXPECT_EQ(id, box);
            ++boxTop;
        }
    }
    EXPECT_GT(boxTop, 10u);
    const Solid::PolygonMesh back = toSolidPolygonMesh({descriptors, 3}, {buffers, 2});
    ASSERT_EQ(back.findPositions()->size(), arrays.positions.size());
    EXPECT_EQ((*back.findPositions())[1][1], arrays.positions[1].y);
    EXPECT_EQ((*back.findInstanceIds())[1], arrays.ids[1]);
    EXPECT_EQ(back.findIndices()->size(), arrays.indices.size());
}

// Colour frames of two of the four views (in combined mode with their depth and labels) colour
// the box's top and the open floor as they are; texture coordinates are asked for and come
// empty. A narrow view of one corner of the floor then changes a few blocks: only they and their
// lower neighbours are re-meshed, the others keep their colour streams, and an instance asked
// first does not consume the change for the whole scene; the box's own mesh lies within its
// bounds widened by the projective error of the fused distance next to it (two and a half cells)
// and carries its id. Unseen vertices are dropped on request.
TEST_P(MeshDeliveryTest, ColoursAndRemeshingFollowTheChangedBlocks) {
    const auto addColour = [this](Impl& target) {
        for (const PinholeCamera& camera : {aroundTheBoxes()[0], aroundTheBoxes()[2]}) {
            const RenderedFrame frame = render(kWorld, camera);
            std::vector<Image> images = {frame.colorImage(), frame.depthImage(),
                                         frame.labelImage()};
            ASSERT_EQ(target.submitImages(0, camera.intrinsics(), camera.pose(),
                                          {images.data(), GetParam() == kModeCombined ? 3u : 1u}),
                      kSuccess);
        }
    };
    size_t vertices = 0;
    const auto read = [&](Impl& target, uint8_t removeUnseen) {
        TextureQuality quality{};
        quality.vertexColors = quality.textureCoordinates = true;
        quality.removeUnseenVertices = removeUnseen;
        const HostMesh mesh = readMesh(target, kWholeScene, false, quality);
        EXPECT_EQ(mesh.result, kSuccess);
        EXPECT_EQ(mesh.written.texCoordCount, 0u);
        EXPECT_EQ(mesh.colours.size(), mesh.positions.size());
        vertices = mesh.positions.size();
        size_t boxTop = 0, floor = 0, floorWrong = 0, unseen = 0;
        for (size_t v = 0; v < std::min(vertices, mesh.colours.size()); ++v) {
            const XrVector3fVLM& p = mesh.positions[v];
            const XrColor4fVLM& c = mesh.colours[v];
            if (c.a <= 0.0f) {
                ++unseen;
            } else if (onBoxTop(p)) {
                EXPECT_NEAR(c.r, 200 / 255.0, 0.01);
                EXPECT_NEAR(c.g, 50 / 255.0, 0.01);
                ++boxTop;
            } else if (std::fabs(p.z) < 0.02f && (p.x < 0.1f || p.y < 0.1f) && p.x > -0.3f &&
                       p.y > -0.3f) {
                floorWrong +=
                    !(std::fabs(c.r - 120 / 255.0) < 0.01 && std::fabs(c.b - 120 / 255.0) < 0.01);
                ++floor;
            }
        }
        EXPECT_GT(boxTop, 10u);
        EXPECT_GT(floor, 10u);
        // Split mode tests depth against what the volume shows, which at the box's outline may
        // let a floor vertex behind it through: one in a hundred at the most.
        EXPECT_LE(floorWrong, floor / 100) << "of " << floor;
        return unseen;
    };
    addColour(*scene);
    // A request without colours first: the coloured one after it must not be handed its merge.
    ASSERT_EQ(readMesh(*scene, kWholeScene).result, kSuccess);
    const size_t unseen = read(*scene, 0), firstVertices = vertices;
    ASSERT_GT(unseen, 0u);
    const auto before = meshStreams(*scene, false), coloursBefore = meshStreams(*scene, true);
    fuseView(*scene, GetParam(), kWorld, viewFrom({1.6, 1.6, 0.5}, {1.9, 1.9, 0.0}, 24, 24));
    Impl::State& state = internalState(*scene);
    const Solid::IndexSet changed = state.mSurfaces.updatedBlocks;
    ASSERT_GT(changed.size(), 0u);
    ASSERT_LT(changed.size(), before.size() / 2);
    const UuidBytes box = boxInstance(*scene);
    const HostMesh own = readMesh(*scene, box);
    ASSERT_EQ(own.result, kSuccess);
    ASSERT_GT(own.indices.size(), 30u);
    const float margin = 2.6f * kCell;
    for (size_t v = 0; v < own.positions.size(); ++v) {
        const XrVector3fVLM& p = own.positions[v];
        EXPECT_TRUE(p.x > 0.3f - margin && p.x < 0.7f + margin && p.y > 0.3f - margin &&
                    p.y < 0.7f + margin && p.z > 0.5f * kCell)
            << p.x << " " << p.y << " " << p.z;
        EXPECT_EQ(own.ids[v], objectIdOf(box));
    }
    read(*scene, 0);
    const auto colours = meshStreams(*scene, true);
    size_t remeshed = 0, untouched = 0;
    for (const auto& [key, stream] : meshStreams(*scene, false)) {
        const auto old = before.find(key);
        if (old == before.end() || old->second != stream) {
            ++remeshed;
            EXPECT_TRUE(mayChange(key, changed)) << key[0] << " " << key[1] << " " << key[2];
        } else if (!mayChange(key, changed)) {  // a re-meshed block may reuse its old address
            EXPECT_EQ(colours.at(key), coloursBefore.at(key));
            ++untouched;
        }
    }
    EXPECT_GT(remeshed, 0u);
    EXPECT_GT(untouched, 0u);
    const std::unique_ptr<Impl> pruned = fusedBoxes(GetParam(), {kBoxes[0]});
    addColour(*pruned);
    EXPECT_EQ(read(*pruned, 1), 0u);
    EXPECT_EQ(vertices, firstVertices - unseen);
}

// A request that meshes and annotates only the changed blocks hands over what re-annotating every
// block (and moving nothing into place) gives, bit for bit and in the same order: after depth
// alone, and after instances were extracted between two requests, which changes the ids of blocks
// no frame touched (in split mode labels also come alone, with no depth).
TEST_P(MeshDeliveryTest, ChangedBlocksAloneGiveTheWholeRemeshing) {
    const std::unique_ptr<Impl> full = fusedBoxes(GetParam(), {kBoxes[0]});
    const auto expectSame = [&](const char* step) {
        ++internalState(*full).mSurfaces.labelEpoch;  // the ids of every block count as stale
        const HostMesh a = readMesh(*scene, kWholeScene), b = readMesh(*full, kWholeScene);
        ASSERT_EQ(a.result, kSuccess);
        ASSERT_EQ(b.result, kSuccess);
        EXPECT_GT(a.indices.size(), 0u) << step;
        EXPECT_EQ(a.indices, b.indices) << step;
        EXPECT_EQ(a.ids, b.ids) << step;
        ASSERT_EQ(a.positions.size(), b.positions.size()) << step;
        EXPECT_EQ(0, std::memcmp(a.positions.data(), b.positions.data(),
                                 a.positions.size() * sizeof(XrVector3fVLM)))
            << step;
    };
    expectSame("first");
    // Floor no view has seen yet: new blocks, whose entries must land where re-meshing puts them.
    const size_t blocks = blockCount(*scene);
    const PinholeCamera camera = viewFrom({6.0, -5.0, 1.0}, {6.8, -5.8, 0.0}, 24, 24);
    for (Impl* target : {scene.get(), full.get()})
        fuseView(*target, GetParam(), kWorld, camera);
    ASSERT_GT(blockCount(*scene), blocks) << blocks;
    expectSame("after a frame");
    // The same view again re-meshes the same blocks into the memory of the meshes the last
    // request replaced.
    EXPECT_FALSE(internalState(*scene).mSurfaces.spareMeshes.empty());
    for (Impl* target : {scene.get(), full.get()})
        fuseView(*target, GetParam(), kWorld, camera);
    expectSame("the same view again");
    // Another view changes other blocks too: they take the spares of blocks it left alone.
    for (Impl* target : {scene.get(), full.get()})
        fuseView(*target, GetParam(), kWorld, aroundTheBoxes()[0]);
    expectSame("another view");
    for (Impl* target : {scene.get(), full.get()}) {
        readInstances(*target);
        fuseView(*target, GetParam(), kWorld, aroundTheBoxes()[1]);
    }
    expectSame("after the instances");
}

// The result codes of both forms: instance meshes without label planes, an unknown
// instance, the empty scene (an empty mesh, indices included, counts not asked for as the host
// set them), and a full scene with no capacity (no colours before computing; the geometry's
// counts are what every read of the other tests sizes its arrays by).
TEST(MeshDeliveryResults, CodesAndCounts) {
    PolygonMesh mesh{};
    UuidBytes someInstance{};
    someInstance[8] = 3;
    EXPECT_EQ(makeScene(kModeSplit, false)->extractSurface(mesh, false, someInstance, {}),
              kErrorInstanceMeshDisabled);
    std::unique_ptr<Impl> scene = makeScene(kModeCombined);
    EXPECT_EQ(scene->extractSurface(mesh, false, someInstance, {}), kErrorUnknownInstance);
    mesh.colorCount = 77;
    EXPECT_EQ(scene->extractSurface(mesh, true, kWholeScene, {}), kSuccess);
    EXPECT_EQ(mesh.positionCount + mesh.indexCount, 0u);
    EXPECT_EQ(mesh.colorCount, 77u);
    uint32_t indices[1];
    PolygonMeshBuffer buffer{indices, sizeof(indices), 9, 9};
    const PolygonMeshBufferDescriptor onlyIndices{kBufferIndex, 0, 0, 4, 4};
    EXPECT_EQ(scene->extractSurface({&onlyIndices, 1}, {&buffer, 1}, false, kWholeScene, {}),
              kSuccess);
    EXPECT_EQ(buffer.indexCount, 0u);
    fuseView(*scene, kModeCombined, kWorld, aroundTheBoxes()[0]);
    mesh = PolygonMesh{};
    mesh.texCoordCount = 5;
    TextureQuality colours{};
    colours.vertexColors = true;
    EXPECT_EQ(scene->extractSurface(mesh, true, kWholeScene, colours), kErrorBufferTooSmall);
    EXPECT_EQ(mesh.colorCount, 0u);
    EXPECT_EQ(mesh.texCoordCount, 5u);
}

// 10 vertices with ids and colours, 30 indices, no texture coordinates, in buffers of 120 and 400
// bytes.
TEST(MeshDeliveryBuffers, DescriptorChecks) {
    const struct {
        const char* name;
        std::vector<PolygonMeshBufferDescriptor> descriptors;
        XrResultVLM result;
    } cases[] = {
        {"positions alone", {{kBufferPosition, 0, 0, 12, 12}}, kSuccess},
        {"buffer index out of range", {{kBufferPosition, 2, 0, 12, 12}}, kErrorBufferDescriptors},
        {"wrong element size", {{kBufferInstanceId, 0, 0, 4, 4}}, kErrorBufferDescriptors},
        {"first elements overlap",
         {{kBufferPosition, 0, 0, 12, 28}, {kBufferColor, 0, 8, 16, 28}},
         kErrorBufferDescriptors},
        {"interleaved with stride",
         {{kBufferPosition, 1, 0, 12, 28}, {kBufferColor, 1, 12, 16, 28}},
         kSuccess},
        {"unknown attribute passes", {{7, 0, 0, 3, 3}, {kBufferIndex, 1, 0, 4, 4}}, kSuccess},
        {"indices do not fit",
         {{kBufferPosition, 0, 0, 12, 12}, {kBufferIndex, 0, 120, 4, 4}},
         kErrorBufferTooSmall},
        // The last id starts at byte 4 + 9 * 44 = 400 of 400: only its own two bytes overflow.
        {"a stride that reaches past the end",
         {{kBufferInstanceId, 1, 4, 2, 44}},
         kErrorBufferTooSmall},
    };
    std::vector<uint8_t> small(120), large(400);
    for (const auto& c : cases) {
        PolygonMeshBuffer buffers[2] = {{small.data(), 120, 0, 0}, {large.data(), 400, 0, 0}};
        EXPECT_EQ(checkPolygonMeshBuffer({c.descriptors.data(), uint32_t(c.descriptors.size())},
                                         {buffers, 2}, 10, 30, 10, 10, 0),
                  c.result)
            << c.name;
    }
    // A null buffer is the query call: the counts are written, and the later descriptor of a
    // buffer overwrites what an earlier one wrote.
    PolygonMeshBuffer query{nullptr, 0, 0, 0};
    const PolygonMeshBufferDescriptor mixed[2] = {{kBufferPosition, 0, 0, 12, 12},
                                                  {kBufferIndex, 0, 120, 4, 4}};
    EXPECT_EQ(checkPolygonMeshBuffer({mixed, 2}, {&query, 1}, 10, 30, 10, 0, 0),
              kErrorBufferTooSmall);
    EXPECT_EQ(query.vertexCount, 0u);
    EXPECT_EQ(query.indexCount, 30u);
}

}  // namespace
}  // namespace Velmora
