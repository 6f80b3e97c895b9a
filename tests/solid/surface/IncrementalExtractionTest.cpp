#include "solid/surface/IncrementalExtraction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "common/FlatMap.h"
#include "solid/surface/IncrementalExtractionImpl.h"
#include "support/FieldGrid.h"

namespace Solid {
namespace {

constexpr float kSpacing = 0.02f;
constexpr float kDimension = 8 * kSpacing;  // edge of a block
constexpr float kTruncation = 0.1f;

// An instance extractor reduced to what surface extraction reads.
struct FakeInstance {
    AR::Common::FlatMap<Index3, Box> boundingBoxes;
};
struct FakeInstances {
    AR::Common::FlatMap<uint16_t, FakeInstance> table;
    std::map<uint16_t, uint16_t> localToGlobal;  // live pieces only

    const AR::Common::FlatMap<uint16_t, FakeInstance>& getInstances() const { return table; }
    uint16_t findGlobalInstanceId(uint16_t local) const {
        const auto it = localToGlobal.find(local);
        return it == localToGlobal.end() ? 0 : it->second;
    }
};

float ball(const Vec3& p, float radius) {
    const float dx = p[0] - 0.16f;
    const float dy = p[1] - 0.15f;
    const float dz = p[2] - 0.17f;
    return std::sqrt(dx * dx + dy * dy + dz * dz) - radius;
}

// The triangles of a merged mesh as sorted corner triples in micrometres: a description that
// does not depend on the order of blocks or vertices.
std::vector<std::array<long, 9>> triangleSet(const MeshGridType& meshes) {
    ExtractSurfaceStats stats;
    const PolygonMesh mesh = mergeMesh(meshes, stats);
    std::vector<std::array<long, 9>> out;
    const auto& indices = *mesh.findIndices();
    for (uint32_t t = 0; t < indices.size(); t += 3) {
        std::array<long, 9> corners;
        for (int k = 0; k < 9; ++k) {
            corners[k] = std::lround((*mesh.findPositions())[indices[t + k / 3]][k % 3] * 1e6f);
        }
        out.push_back(corners);
    }
    std::sort(out.begin(), out.end());
    return out;
}

class IncrementalExtractionTest : public ::testing::Test {
protected:
    IncrementalExtractionTest() {
        Solid::Test::configureFieldGrid(depth, kSpacing);
        Solid::Test::configureFieldGrid(labels, kSpacing);
        Solid::Test::configureFieldGrid(combined, kSpacing);
    }
    IndexSet allBlocks() const {
        IndexSet blocks;
        depth.for_each([&](const KeyType& key, const DepthVolume&) { blocks.insert(key); });
        return blocks;
    }
    MeshGridType extractAll(IndexSet blocks) {
        MeshGridType meshes;
        ExtractSurfaceStats stats;
        extractSurfaceIncremental(depth, blocks, meshes, stats, MC::plainCubeIndex, true, false, 0);
        return meshes;
    }

    using MC = MarchingCubes<float, DepthVolume>;
    DepthGrid depth;
    LabelGrid labels;
    LabelDepthGrid combined;
};

TEST_F(IncrementalExtractionTest, BoxesSelectTheExistingBlocksTheyTouch) {
    Solid::Test::writeField(depth, Index3(-1, 0, 0), Index3(1, 1, 0), kTruncation, 1,
                            [](const Vec3& p) { return p[2] - 0.05f; });
    struct Case {
        Box box;
        std::vector<KeyType> blocks;
    };
    const std::vector<Case> cases = {
        {{Vec3(0.01f, 0.01f, 0.01f), Vec3(0.02f, 0.02f, 0.02f)}, {KeyType(0, 0, 0)}},
        // Across the origin: x from block -1 to 0, y from -1 (missing) to 0.
        {{Vec3(-0.05f, -0.05f, 0.0f), Vec3(0.05f, 0.05f, 0.05f)},
         {KeyType(-1, 0, 0), KeyType(0, 0, 0)}},
        // The upper bound counts: a box ending on a block face reaches the next block.
        {{Vec3(0.1f, 0.1f, 0.1f), Vec3(kDimension, kDimension, 0.1f)},
         {KeyType(0, 0, 0), KeyType(1, 0, 0), KeyType(0, 1, 0), KeyType(1, 1, 0)}},
        {{Vec3(0.2f, 0.1f, 0.1f), Vec3(0.1f, 0.1f, 0.1f)}, {}},  // empty range
        {{Vec3(5, 5, 5), Vec3(6, 6, 6)}, {}},                    // no block there
    };
    for (const Case& c : cases) {
        const IndexSet got = blocksOverlappingBox(depth, c.box);
        EXPECT_EQ(got.size(), c.blocks.size());
        for (const KeyType& key : c.blocks) {
            EXPECT_TRUE(got.contains(key)) << key[0] << " " << key[1] << " " << key[2];
        }
    }
    AR::Common::FlatMap<Index3, Box> boxes;
    boxes.insert(Index3(0, 0, 0), cases[0].box);
    boxes.insert(Index3(1, 0, 0), cases[2].box);
    EXPECT_EQ(blocksOverlappingBoxes(depth, boxes).size(), 4u);
}

TEST_F(IncrementalExtractionTest, OnlyChangedBlocksAreRemeshedAndTheResultIsWhole) {
    Solid::Test::writeField(depth, Index3(0, 0, 0), Index3(1, 1, 1), kTruncation, 1,
                            [](const Vec3& p) { return ball(p, 0.1f); });
    MeshGridType meshes = extractAll(allBlocks());
    ASSERT_EQ(meshes.size(), 8u);
    std::map<std::array<int, 3>, uint32_t> before;
    for (const auto& [key, mesh] : meshes) {
        before[{key[0], key[1], key[2]}] =
            mesh.getAttribute(PolygonMesh::POSITION, AttributeBlock::TYPE_VEC3F)
                ->modificationCount();
    }
    // The ball grows inside block (1, 1, 1) only. Its lower planes, shared with the seven lower
    // neighbours, change as well; the border copy carries them over and adds those neighbours.
    Solid::Test::writeField(depth, Index3(1, 1, 1), Index3(1, 1, 1), kTruncation, 1,
                            [](const Vec3& p) { return ball(p, 0.12f); });
    IndexSet changed;
    changed.insert(KeyType(1, 1, 1));
    ExtractSurfaceStats stats;
    extractSurfaceIncremental(depth, changed, meshes, stats, MC::plainCubeIndex, true, false, 0);
    EXPECT_EQ(changed.size(), 8u);
    // A change inside the lowest block, away from the planes it shares with its upper
    // neighbours, reaches no neighbour.
    Solid::Test::writeLattice(
        depth, Index3(0, 0, 0), Index3(0, 0, 0), [](auto& sample, const Vec3& p) {
            if (std::max({p[0], p[1], p[2]}) < kDimension - kSpacing / 2) {
                sample[0] = static_cast<short>(std::lround(
                    std::clamp(ball(p, 0.11f) / kTruncation, -1.0f, 1.0f) * kMaxDepthValue));
            }
        });
    IndexSet lowest;
    lowest.insert(KeyType(0, 0, 0));
    const uint32_t remeshedBefore =
        meshes[KeyType(1, 0, 0)]
            .getAttribute(PolygonMesh::POSITION, AttributeBlock::TYPE_VEC3F)
            ->modificationCount();
    extractSurfaceIncremental(depth, lowest, meshes, stats, MC::plainCubeIndex, true, false, 0);
    EXPECT_EQ(lowest.size(), 1u);
    EXPECT_EQ(meshes[KeyType(1, 0, 0)]
                  .getAttribute(PolygonMesh::POSITION, AttributeBlock::TYPE_VEC3F)
                  ->modificationCount(),
              remeshedBefore);
    // The patched grid equals a fresh extraction of the final field.
    EXPECT_EQ(triangleSet(meshes), triangleSet(extractAll(allBlocks())));
}

TEST_F(IncrementalExtractionTest, WeldedPathReturnsOneMeshAndLeavesTheGridAlone) {
    Solid::Test::writeField(depth, Index3(0, 0, 0), Index3(1, 1, 1), kTruncation, 1,
                            [](const Vec3& p) { return ball(p, 0.1f); });
    IndexSet blocks = allBlocks();
    MeshGridType meshes;
    ExtractSurfaceStats stats;
    const PolygonMesh welded =
        extractSurfaceIncremental(depth, blocks, meshes, stats, MC::plainCubeIndex, true, true, 0);
    EXPECT_TRUE(meshes.empty());
    EXPECT_GT(welded.findIndices()->size(), 0u);
    EXPECT_EQ(stats.numVertices, welded.findPositions()->size());
}

TEST_F(IncrementalExtractionTest, AnnotationTakesTheNearestLabelSample) {
    // Instance 7 on x below 0.09 m, 8 above, in label blocks (0, 0, 0) and (1, 0, 0) only.
    Solid::Test::writeInstances(labels, Index3(0, 0, 0), Index3(1, 0, 0),
                                [](const Vec3& p) -> uint16_t { return p[0] < 0.09f ? 7 : 8; });
    PolygonMesh mesh;
    const std::vector<Vec3> vertices = {
        Vec3(0.05f, 0.05f, 0.05f),           // nearest sample x = 0.06: 7
        Vec3(0.109f, 0.05f, 0.05f),          // rounds to x = 0.10: 8
        Vec3(kDimension, 0.05f, 0.05f),      // on the far face: block (1, 0, 0), 8
        Vec3(0.05f, kDimension + 0.01f, 0),  // block (0, 1, 0) does not exist: the default
        Vec3(0.01f, 0.01f, 0.01f),           // used by no triangle: keeps 0
    };
    for (const Vec3& v : vertices) {
        mesh.positions().push_back(v);
    }
    for (unsigned int i : {0u, 1u, 2u, 2u, 3u, 0u}) {
        mesh.indices().push_back(i);
    }
    const std::function<SurfaceInstanceId(const LabelVolumeSample&)> predicate =
        [](const LabelVolumeSample& sample) { return SurfaceInstanceId(sample.instance * 10); };
    EXPECT_FALSE(annotateMesh(mesh, labels, predicate, nullptr, 0));
    ASSERT_TRUE(annotateMesh(mesh, labels, predicate, &mesh.instanceIds(), 99));
    const std::vector<uint16_t> ids(mesh.findInstanceIds()->begin(), mesh.findInstanceIds()->end());
    EXPECT_EQ(ids, (std::vector<uint16_t>{70, 80, 80, 99, 0}));
}

TEST(SurfaceFilter, KeepsWholeTrianglesOfOneInstance) {
    PolygonMesh mesh;
    for (int i = 0; i < 6; ++i) {
        mesh.positions().push_back(Vec3(i, 0, 0));
    }
    for (uint16_t id : {5, 5, 5, 6, 5, 5}) {
        mesh.instanceIds().push_back(id);
    }
    // Triangles: all 5; one vertex of 6; all 5 again, sharing vertices with the first.
    for (unsigned int i : {0u, 1u, 2u, 2u, 3u, 4u, 4u, 5u, 0u}) {
        mesh.indices().push_back(i);
    }
    const PolygonMesh kept = filterMesh(mesh, 5);
    const std::vector<unsigned int> indices(kept.findIndices()->begin(), kept.findIndices()->end());
    EXPECT_EQ(indices, (std::vector<unsigned int>{0, 1, 2, 3, 4, 0}));
    std::vector<float> xs;
    for (const Vec3& v : *kept.findPositions()) {
        xs.push_back(v[0]);
    }
    EXPECT_EQ(xs, (std::vector<float>{0, 1, 2, 4, 5}));
    EXPECT_EQ(kept.findInstanceIds()->size(), 5u);
    EXPECT_TRUE(filterMesh(mesh, 6).findIndices()->empty());
    // No id stream: nothing belongs to an instance; no triangles: empty streams.
    PolygonMesh bare;
    bare.positions().push_back(Vec3(0, 0, 0));
    bare.indices();
    EXPECT_TRUE(filterMesh(bare, 5).findPositions()->empty());
    EXPECT_TRUE(filterMesh(PolygonMesh(), 5).findIndices()->empty());
}

// A ball cut by the plane x = 0.16 into instance 10 (local id 1, below) and instance 20 (local
// id 2, above); local id 3 has been retired. In both run modes the surface of instance 10 stays
// on its side, and the whole scene carries the ids.
class InstanceSurfaceTest : public IncrementalExtractionTest {
protected:
    InstanceSurfaceTest() {
        const auto sdf = [](const Vec3& p) { return ball(p, 0.1f); };
        const auto local = [](const Vec3& p) -> uint16_t {
            return p[0] < 0.16f ? 1 : p[1] < 0.1f ? 3 : 2;
        };
        Solid::Test::writeField(depth, Index3(0, 0, 0), Index3(1, 1, 1), kTruncation, 1, sdf);
        Solid::Test::writeInstances(labels, Index3(0, 0, 0), Index3(1, 1, 1), local);
        Solid::Test::writeField(combined, Index3(0, 0, 0), Index3(1, 1, 1), kTruncation, 1, sdf);
        Solid::Test::writeInstances(combined, Index3(0, 0, 0), Index3(1, 1, 1), local);
        instances.localToGlobal = {{1, 10}, {2, 20}};
        FakeInstance& lower = instances.table[10];
        for (int z = 0; z < 2; ++z) {
            for (int y = 0; y < 2; ++y) {
                lower.boundingBoxes.insert(Index3(0, y, z),
                                           Box{Vec3(0.01f, 0.01f + y * kDimension, 0.01f),
                                               Vec3(0.15f, 0.15f + y * kDimension, 0.3f)});
            }
        }
        blocks = allBlocks();
    }

    // Checks the whole-scene grid and the grid of instance 10 of one run mode.
    void expectInstanceSurfaces(const MeshGridType& scene, const MeshGridType& instance) {
        ExtractSurfaceStats stats;
        const PolygonMesh all = mergeMesh(scene, stats);
        ASSERT_EQ(all.findInstanceIds()->size(), all.findPositions()->size());
        std::map<uint16_t, int> seen;
        for (uint16_t id : *all.findInstanceIds()) {
            ++seen[id];
        }
        EXPECT_GT(seen[10], 0);
        EXPECT_GT(seen[20], 0);
        EXPECT_GT(seen[0], 0);  // the retired piece
        const PolygonMesh own = mergeMesh(instance, stats);
        ASSERT_GT(own.findIndices()->size(), 0u);
        for (const Vec3& v : *own.findPositions()) {
            EXPECT_LE(v[0], 0.16f + 1e-6f);
        }
        for (uint16_t id : *own.findInstanceIds()) {
            EXPECT_EQ(id, 10);
        }
        // Only the blocks that the instance's boxes touch were meshed.
        EXPECT_EQ(instance.size(), 4u);
    }

    FakeInstances instances;
    IndexSet blocks;
};

TEST_F(InstanceSurfaceTest, CombinedModeCutsCells) {
    MeshGridType scene;
    MeshGridType instance;
    extractSurfaceForInstanceID(combined, instances, blocks, 0, true, scene);
    extractSurfaceForInstanceID(combined, instances, blocks, 10, true, instance);
    expectInstanceSurfaces(scene, instance);
    // Without annotation the meshes carry no ids; nothing changed, nothing is re-meshed.
    MeshGridType plain;
    extractSurfaceForInstanceID(combined, instances, blocks, 0, false, plain);
    EXPECT_EQ(plain.begin()->second.findInstanceIds(), nullptr);
    const auto kept = triangleSet(plain);
    extractSurfaceForInstanceID(combined, instances, IndexSet(), 0, false, plain);
    EXPECT_EQ(triangleSet(plain), kept);
}

TEST_F(InstanceSurfaceTest, SplitModeCutsTriangles) {
    MeshGridType scene;
    MeshGridType instance;
    extractSurfaceForInstanceID(depth, labels, instances, blocks, 0, scene);
    extractSurfaceForInstanceID(depth, labels, instances, blocks, 10, instance);
    expectInstanceSurfaces(scene, instance);
}

TEST_F(InstanceSurfaceTest, AnUnknownInstanceAborts) {
    MeshGridType meshes;
    EXPECT_DEATH(extractSurfaceForInstanceID(depth, labels, instances, blocks, 30, meshes),
                 "el != table.end()");
}

}  // namespace
}  // namespace Solid
