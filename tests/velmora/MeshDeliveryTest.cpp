// extractSurface on an analytic room fused in both run modes: the surface against the true
// distance, instance ids and instance meshes, the two public forms against each other, the result
// codes, the buffer checks, and a second request that re-meshes only what changed.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>
#include <vector>

#include "solid/surface/IncrementalExtraction.h"
#include "support/SceneSetup.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/MeshDelivery.h"
#include "velmora/ObjectIds.h"

namespace Velmora {
namespace {

using Test::AnalyticScene;
using Test::fuseView;
using Test::makeInitialisedScene;
using Test::PinholeCamera;
using Test::Vec3d;

constexpr float kCell = 0.04f;
constexpr float kTruncation = 0.2f;
constexpr uint8_t kBoxLabel = 4;
const Vec3d kBoxMin = {0.3, 0.3, 0.0};
const Vec3d kBoxMax = {0.7, 0.7, 0.4};
const UuidBytes kWholeScene{};
// Four views from above the corners of the floor around the box.
const Vec3d kEyes[4] = {{-0.6, -0.6, 1.4}, {1.8, -0.6, 1.4}, {1.8, 1.8, 1.4}, {-0.6, 1.8, 1.4}};

PinholeCamera viewFrom(const Vec3d& eye) {
    return Velmora::Test::viewFrom(eye, {0.5, 0.5, 0.1});
}

std::unique_ptr<Impl> makeScene(int32_t mode, bool labelPlanes = true) {
    return makeInitialisedScene(mode, kCell, kTruncation, labelPlanes);
}

// A host's mesh: counts, then arrays.
struct HostMesh {
    XrResultVLM result = 0;
    std::vector<XrVector3fVLM> positions;
    std::vector<uint32_t> indices;
    std::vector<uint16_t> ids;
};

HostMesh readMesh(IVelmora& scene, const UuidBytes& uuid) {
    HostMesh out;
    PolygonMesh mesh{};
    out.result = scene.extractSurface(mesh, true, uuid, TextureQuality{});
    if (out.result != kErrorBufferTooSmall) {
        return out;
    }
    out.positions.resize(mesh.positionCount);
    out.indices.resize(mesh.indexCount);
    out.ids.resize(mesh.instanceIdCount);
    mesh.positions = out.positions.data();
    mesh.indices = out.indices.data();
    mesh.instanceIds = out.ids.data();
    out.result = scene.extractSurface(mesh, true, uuid, TextureQuality{});
    return out;
}

UuidBytes boxInstance(IVelmora& scene) {
    const Velmora::Test::InstanceReport report = Velmora::Test::readInstances(scene);
    EXPECT_EQ(report.result, kSuccess);
    for (const ObjectInstance& instance : report.instances) {
        if (instance.label == kBoxLabel) {
            return instance.uuid;
        }
    }
    ADD_FAILURE() << "no instance of the box";
    return UuidBytes{};
}

void fuseAround(IVelmora& scene, int32_t mode, const AnalyticScene& world) {
    for (const Vec3d& eye : kEyes) {
        fuseView(scene, mode, world, viewFrom(eye));
    }
}

class MeshDeliveryTest : public ::testing::TestWithParam<int32_t> {
protected:
    void SetUp() override {
        scene = makeScene(GetParam());
        fuseAround(*scene, GetParam(), world);
    }

    AnalyticScene world = Velmora::Test::boxesOnAFloor({{kBoxMin, kBoxMax, kBoxLabel}});
    std::unique_ptr<Impl> scene;
};
INSTANTIATE_TEST_SUITE_P(BothModes, MeshDeliveryTest, ::testing::Values(kModeCombined, kModeSplit));

TEST_P(MeshDeliveryTest, TheSceneAndTheBoxLieOnTheirTrueSurfaces) {
    const UuidBytes box = boxInstance(*scene);
    const uint16_t boxId = objectIdOf(box);
    const HostMesh all = readMesh(*scene, kWholeScene);
    ASSERT_EQ(all.result, kSuccess);
    ASSERT_GT(all.indices.size(), 300u);
    ASSERT_EQ(all.ids.size(), all.positions.size());
    // The fused distance is projective: next to the box, where a view sees past its edge, it
    // is off the Euclidean truth by up to two cells; elsewhere by less than a cell.
    size_t beyondOneCell = 0;
    int boxTop = 0;
    for (size_t v = 0; v < all.positions.size(); ++v) {
        const XrVector3fVLM& p = all.positions[v];
        const double error = std::fabs(world.signedDistance({p.x, p.y, p.z}));
        ASSERT_LE(error, 2.5 * kCell) << p.x << " " << p.y << " " << p.z;
        beyondOneCell += error > kCell ? 1 : 0;
        // Inside the top face, away from its edges, every vertex belongs to the box.
        if (std::fabs(p.z - 0.4f) < 0.02f && p.x > 0.4f && p.x < 0.6f && p.y > 0.4f && p.y < 0.6f) {
            EXPECT_EQ(all.ids[v], boxId);
            ++boxTop;
        }
    }
    EXPECT_GT(boxTop, 10);
    EXPECT_LT(beyondOneCell, all.positions.size() / 1000);

    const HostMesh own = readMesh(*scene, box);
    ASSERT_EQ(own.result, kSuccess);
    ASSERT_GT(own.indices.size(), 30u);
    // The bounds, widened by the largest error of the fused surface (see above).
    const float margin = 2.5f * kCell;
    for (size_t v = 0; v < own.positions.size(); ++v) {
        const XrVector3fVLM& p = own.positions[v];
        EXPECT_GT(p.x, kBoxMin[0] - margin);
        EXPECT_LT(p.x, kBoxMax[0] + margin);
        EXPECT_GT(p.y, kBoxMin[1] - margin);
        EXPECT_LT(p.y, kBoxMax[1] + margin);
        EXPECT_GT(p.z, 0.5f * kCell) << "a floor vertex";
        EXPECT_EQ(own.ids[v], boxId);
    }
}

TEST_P(MeshDeliveryTest, BothFormsDeliverTheSameMesh) {
    const HostMesh arrays = readMesh(*scene, kWholeScene);
    ASSERT_EQ(arrays.result, kSuccess);
    // Positions and ids interleaved in buffer 0 (stride 16), indices alone in buffer 1.
    const PolygonMeshBufferDescriptor descriptors[3] = {{kBufferPosition, 0, 0, 12, 16},
                                                        {kBufferInstanceId, 0, 12, 2, 16},
                                                        {kBufferIndex, 1, 0, 4, 4}};
    PolygonMeshBuffer buffers[2] = {};
    EXPECT_EQ(
        scene->extractSurface({descriptors, 3}, {buffers, 2}, true, kWholeScene, TextureQuality{}),
        kErrorBufferTooSmall);
    ASSERT_EQ(buffers[0].vertexCount, arrays.positions.size());
    ASSERT_EQ(buffers[1].indexCount, arrays.indices.size());
    std::vector<uint8_t> interleaved(16 * buffers[0].vertexCount);
    std::vector<uint32_t> indices(buffers[1].indexCount);
    buffers[0].data = interleaved.data();
    buffers[0].size = static_cast<uint32_t>(interleaved.size());
    buffers[1].data = indices.data();
    buffers[1].size = static_cast<uint32_t>(4 * indices.size());
    ASSERT_EQ(
        scene->extractSurface({descriptors, 3}, {buffers, 2}, true, kWholeScene, TextureQuality{}),
        kSuccess);
    EXPECT_EQ(indices, arrays.indices);
    for (size_t v = 0; v < arrays.positions.size(); ++v) {
        float p[3];
        uint16_t id;
        std::memcpy(p, interleaved.data() + 16 * v, 12);
        std::memcpy(&id, interleaved.data() + 16 * v + 12, 2);
        ASSERT_EQ(p[0], arrays.positions[v].x);
        ASSERT_EQ(p[2], arrays.positions[v].z);
        ASSERT_EQ(id, arrays.ids[v]);
    }
    // Read back, the buffers give the same mesh.
    const Solid::PolygonMesh back = toSolidPolygonMesh({descriptors, 3}, {buffers, 2});
    ASSERT_EQ(back.findPositions()->size(), arrays.positions.size());
    EXPECT_EQ((*back.findPositions())[1][1], arrays.positions[1].y);
    EXPECT_EQ((*back.findInstanceIds())[1], arrays.ids[1]);
    EXPECT_EQ(back.findIndices()->size(), arrays.indices.size());
}

TEST_P(MeshDeliveryTest, OnlyChangedBlocksAreRemeshedAndNoneIsLost) {
    ASSERT_EQ(readMesh(*scene, kWholeScene).result, kSuccess);
    Impl::State& state = internalState(*scene);
    std::map<std::array<int, 3>, const void*> streams;
    for (const auto& [key, mesh] : state.mSurfaces.getMeshGrid(0)) {
        streams[{key[0], key[1], key[2]}] = mesh.findPositions();
    }
    // A narrow view of one corner of the floor touches a few blocks only.
    fuseView(*scene, GetParam(), world,
             Velmora::Test::viewFrom({1.6, 1.6, 0.5}, {1.9, 1.9, 0.0}, 24, 24));
    Solid::IndexSet changed;
    {
        std::lock_guard<std::mutex> lock(state.mSurfaces.updatedBlocksMutex);
        changed = state.mSurfaces.updatedBlocks;
    }
    ASSERT_GT(changed.size(), 0u);
    ASSERT_LT(changed.size(), streams.size() / 2);
    // An instance asked first consumes the change; the whole scene must still see it.
    const UuidBytes box = boxInstance(*scene);
    ASSERT_EQ(readMesh(*scene, box).result, kSuccess);
    ASSERT_EQ(readMesh(*scene, kWholeScene).result, kSuccess);
    size_t remeshed = 0;
    for (const auto& [key, mesh] : state.mSurfaces.getMeshGrid(0)) {
        const auto before = streams.find({key[0], key[1], key[2]});
        if (before == streams.end() || before->second != mesh.findPositions()) {
            ++remeshed;
            // Re-meshed: a changed block or a lower neighbour that took its border.
            bool near = false;
            for (const Solid::KeyType& c : changed) {
                near = near || (key[0] <= c[0] && key[1] <= c[1] && key[2] <= c[2] &&
                                c[0] - key[0] <= 1 && c[1] - key[1] <= 1 && c[2] - key[2] <= 1);
            }
            EXPECT_TRUE(near) << key[0] << " " << key[1] << " " << key[2];
        }
    }
    EXPECT_GT(remeshed, 0u);
    // The patched cache describes the same triangles as meshing every block afresh.
    Solid::MeshGridType fresh;
    Solid::IndexSet all;
    Solid::ExtractSurfaceStats stats;
    auto collect = [&all](const Solid::KeyType& key, const auto&) { all.insert(key); };
    if (GetParam() == kModeCombined) {
        state.mLabelDepthVolumeGrid->for_each(collect);
        Solid::extractSurfaceIncremental(
            *state.mLabelDepthVolumeGrid, all, fresh, stats,
            Solid::MarchingCubes<float, Solid::LabelDepthVolume>::plainCubeIndex, true, false, 0);
    } else {
        state.mVolumeGrid->for_each(collect);
        Solid::extractSurfaceIncremental(
            *state.mVolumeGrid, all, fresh, stats,
            Solid::MarchingCubes<float, Solid::DepthVolume>::plainCubeIndex, true, false, 0);
    }
    const Solid::PolygonMesh expected = Solid::mergeMesh(fresh, stats);
    const Solid::PolygonMesh cached = state.mSurfaces.getMergedMesh(0);
    EXPECT_EQ(cached.findIndices()->size(), expected.findIndices()->size());
    EXPECT_EQ(cached.findPositions()->size(), expected.findPositions()->size());
}

// Colour frames from two of the depth views: in combined mode with their depth and labels, in
// split mode alone.
void addColourFrames(IVelmora& scene, int32_t mode, const AnalyticScene& world) {
    for (const Vec3d& eye : {kEyes[0], kEyes[2]}) {
        const PinholeCamera camera = viewFrom(eye);
        const Test::RenderedFrame frame = Test::render(world, camera);
        std::vector<Image> images = {frame.colorImage()};
        if (mode == kModeCombined) {
            images.push_back(frame.depthImage());
            images.push_back(frame.labelImage());
        }
        ASSERT_EQ(scene.submitImages(0, camera.intrinsics(), camera.pose(),
                                     {images.data(), static_cast<uint32_t>(images.size())}),
                  kSuccess);
    }
}

// The whole scene's positions and colours; texture coordinates are asked for and come empty.
void readColouredMesh(IVelmora& scene, uint8_t removeUnseen, std::vector<XrVector3fVLM>& positions,
                      std::vector<XrColor4fVLM>& colors) {
    TextureQuality quality{};
    quality.vertexColors = true;
    quality.textureCoordinates = true;
    quality.removeUnseenVertices = removeUnseen;
    PolygonMesh mesh{};
    ASSERT_EQ(scene.extractSurface(mesh, false, kWholeScene, quality), kErrorBufferTooSmall);
    EXPECT_EQ(mesh.texCoordCount, 0u);
    positions.resize(mesh.positionCount);
    colors.resize(mesh.colorCount);
    std::vector<uint32_t> indices(mesh.indexCount);
    mesh.positions = positions.data();
    mesh.colors = colors.data();
    mesh.indices = indices.data();
    ASSERT_EQ(scene.extractSurface(mesh, false, kWholeScene, quality), kSuccess);
}

// The box's top shows the box's colour and the open floor the floor's; a second request keeps
// the colours of blocks that were not re-meshed; vertices no colour frame saw (the fixture's
// other two views see floor the colour views do not) are dropped on request, and only they.
TEST_P(MeshDeliveryTest, VertexColoursComeFromTheColourFrames) {
    addColourFrames(*scene, GetParam(), world);
    // Returns the number of vertices no colour frame saw.
    const auto checkColours = [](const std::vector<XrVector3fVLM>& positions,
                                 const std::vector<XrColor4fVLM>& colors) {
        EXPECT_EQ(colors.size(), positions.size());
        int boxTop = 0;
        int floor = 0;
        int floorWrong = 0;
        size_t unseen = 0;
        for (size_t v = 0; v < std::min(positions.size(), colors.size()); ++v) {
            const XrVector3fVLM& p = positions[v];
            const XrColor4fVLM& c = colors[v];
            if (c.a <= 0.0f) {
                ++unseen;
                continue;
            }
            // Away from the box's edges, where a corner's pixel may fall on the other object.
            if (std::fabs(p.z - 0.4f) < 0.02f && p.x > 0.4f && p.x < 0.6f && p.y > 0.4f &&
                p.y < 0.6f) {
                EXPECT_NEAR(c.r, 200 / 255.0, 0.01);
                EXPECT_NEAR(c.g, 50 / 255.0, 0.01);
                ++boxTop;
            }
            if (std::fabs(p.z) < 0.02f && (p.x < 0.1f || p.y < 0.1f) && p.x > -0.3f &&
                p.y > -0.3f) {
                const bool floorColour =
                    std::fabs(c.r - 120 / 255.0) < 0.01 && std::fabs(c.b - 120 / 255.0) < 0.01;
                floorWrong += floorColour ? 0 : 1;
                ++floor;
            }
        }
        EXPECT_GT(boxTop, 10);
        EXPECT_GT(floor, 10);
        // Split mode tests depth against what the volume shows, which at the box's outline may
        // let a floor vertex behind it through: one in a hundred at the most.
        EXPECT_LE(floorWrong, floor / 100) << "of " << floor;
        return unseen;
    };
    std::vector<XrVector3fVLM> positions;
    std::vector<XrColor4fVLM> colors;
    readColouredMesh(*scene, 0, positions, colors);
    const size_t unseen = checkColours(positions, colors);
    ASSERT_GT(unseen, 0u);
    // A new depth frame re-meshes part of the room: those blocks are coloured again, the others
    // keep their colour streams untouched, and colours stay aligned with their vertices.
    SurfaceExtraction& surfaces = internalState(*scene).mSurfaces;
    const auto colourStreams = [&surfaces] {
        std::map<std::tuple<int, int, int>, const void*> streams;
        for (const auto& entry : surfaces.getMeshGrid(0)) {
            streams[{entry.first(0), entry.first(1), entry.first(2)}] = entry.second.findColors();
        }
        return streams;
    };
    const auto before = colourStreams();
    fuseView(*scene, GetParam(), world, viewFrom({0.5, -1.0, 1.2}));
    Solid::IndexSet changed;
    {
        std::lock_guard<std::mutex> lock(surfaces.updatedBlocksMutex);
        changed = surfaces.updatedBlocks;
    }
    std::vector<XrVector3fVLM> again;
    std::vector<XrColor4fVLM> againColors;
    readColouredMesh(*scene, 0, again, againColors);
    checkColours(again, againColors);
    size_t untouched = 0;
    for (const auto& entry : colourStreams()) {
        const auto& [x, y, z] = entry.first;
        const auto old = before.find(entry.first);
        // The border copy re-meshes the neighbours of a changed block too.
        bool nearChange = false;
        for (int n = 0; n < 27; ++n) {
            nearChange = nearChange || changed.count(Solid::KeyType(
                                           x + n % 3 - 1, y + n / 3 % 3 - 1, z + n / 9 - 1)) != 0;
        }
        if (!nearChange && old != before.end()) {
            EXPECT_EQ(entry.second, old->second) << "block " << x << " " << y << " " << z;
            ++untouched;
        }
    }
    EXPECT_GT(untouched, 0u);
    EXPECT_LT(untouched, before.size());

    std::unique_ptr<Impl> pruned = makeScene(GetParam());
    fuseAround(*pruned, GetParam(), world);
    addColourFrames(*pruned, GetParam(), world);
    std::vector<XrVector3fVLM> kept;
    std::vector<XrColor4fVLM> keptColors;
    readColouredMesh(*pruned, 1, kept, keptColors);
    EXPECT_EQ(kept.size(), positions.size() - unseen);
    for (const XrColor4fVLM& c : keptColors) {
        ASSERT_GT(c.a, 0.0f);
    }
}

TEST(MeshDeliveryResults, CodesAndCounts) {
    PolygonMesh mesh{};
    std::unique_ptr<Impl> fresh(static_cast<Impl*>(newVelmora()));
    EXPECT_EQ(fresh->extractSurface(mesh, false, kWholeScene, TextureQuality{}),
              kErrorNotInitialized);
    UuidBytes someInstance{};
    someInstance[8] = 3;
    std::unique_ptr<Impl> unlabelled = makeScene(kModeSplit, false);
    EXPECT_EQ(unlabelled->extractSurface(mesh, false, someInstance, TextureQuality{}),
              kErrorInstanceMeshDisabled);
    std::unique_ptr<Impl> scene = makeScene(kModeCombined);
    EXPECT_EQ(scene->extractSurface(mesh, false, someInstance, TextureQuality{}),
              kErrorUnknownInstance);
    // The empty scene: an empty mesh, in both forms, indices included.
    mesh.colorCount = 77;
    EXPECT_EQ(scene->extractSurface(mesh, true, kWholeScene, TextureQuality{}), kSuccess);
    EXPECT_EQ(mesh.positionCount, 0u);
    EXPECT_EQ(mesh.indexCount, 0u);
    EXPECT_EQ(mesh.colorCount, 77u);  // not asked for: as the host set it
    uint32_t indices[1];
    PolygonMeshBuffer buffer{indices, sizeof(indices), 9, 9};
    const PolygonMeshBufferDescriptor onlyIndices{kBufferIndex, 0, 0, 4, 4};
    EXPECT_EQ(scene->extractSurface({&onlyIndices, 1}, {&buffer, 1}, false, kWholeScene,
                                    TextureQuality{}),
              kSuccess);
    EXPECT_EQ(buffer.indexCount, 0u);
    // A full scene with capacities of 0: -11 and the requested counts.
    fuseView(*scene, kModeCombined, Velmora::Test::boxesOnAFloor({{kBoxMin, kBoxMax, kBoxLabel}}),
             viewFrom(kEyes[0]));
    mesh = PolygonMesh{};
    mesh.texCoordCount = 5;
    TextureQuality colours{};
    colours.vertexColors = true;
    EXPECT_EQ(scene->extractSurface(mesh, true, kWholeScene, colours), kErrorBufferTooSmall);
    EXPECT_GT(mesh.positionCount, 0u);
    EXPECT_GT(mesh.indexCount, 0u);
    EXPECT_EQ(mesh.instanceIdCount, mesh.positionCount);
    EXPECT_EQ(mesh.colorCount, 0u);  // asked for, not computed yet
    EXPECT_EQ(mesh.texCoordCount, 5u);
}

TEST(MeshDeliveryBuffers, DescriptorChecks) {
    struct Case {
        const char* name;
        std::vector<PolygonMeshBufferDescriptor> descriptors;
        XrResultVLM result;
    };
    // 10 vertices with ids and colours, 30 indices, no texture coordinates.
    const std::vector<Case> cases = {
        {"positions alone", {{kBufferPosition, 0, 0, 12, 12}}, kSuccess},
        {"buffer index out of range", {{kBufferPosition, 2, 0, 12, 12}}, kErrorBufferDescriptors},
        {"wrong element size", {{kBufferInstanceId, 0, 0, 4, 4}}, kErrorBufferDescriptors},
        {"same offset",
         {{kBufferPosition, 0, 0, 12, 14}, {kBufferInstanceId, 0, 0, 2, 14}},
         kErrorBufferDescriptors},
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
    std::vector<uint8_t> small(120);
    std::vector<uint8_t> large(400);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PolygonMeshBuffer buffers[2] = {{small.data(), 120, 0, 0}, {large.data(), 400, 0, 0}};
        EXPECT_EQ(checkPolygonMeshBuffer({c.descriptors.data(), uint32_t(c.descriptors.size())},
                                         {buffers, 2}, 10, 30, 10, 10, 0),
                  c.result);
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
