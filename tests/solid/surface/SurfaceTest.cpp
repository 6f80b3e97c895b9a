// Surfaces out of grids written from analytic fields: cube tables, marching cubes per block and
// welded, incremental re-meshing, the cut by instance in both run modes, and vertex colours.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "common/FlatMap.h"
#include "solid/surface/CubeTables.h"
#include "solid/surface/IncrementalExtraction.h"
#include "solid/surface/IncrementalExtractionImpl.h"
#include "solid/surface/MarchingCubes.h"
#include "solid/surface/MarchingCubes2.h"
#include "solid/surface/PolygonMesh.h"
#include "solid/surface/TextureExtractor.h"
#include "support/FieldGrid.h"
#include "support/FusedGrid.h"

namespace Solid {
namespace {

namespace CT = CubeTables;

constexpr float kSpacing = 0.02f;
constexpr float kDimension = 8 * kSpacing;  // edge of a block
constexpr float kTruncation = 0.1f;
// Quantisation of a stored value, metres: half a step of 1 / 32766 of the band.
constexpr float kQuantisation = 0.5f * kTruncation / kMaxDepthValue;

TEST(SurfaceDeathTest, WrongTypesAndTableFaultsAbort) {
    AttributeBlock block;
    EXPECT_DEATH(block.create(static_cast<AttributeBlock::TYPE>(8)),
                 "Attribute Block instantiated with a wrong type");
    block.create(AttributeBlock::TYPE_VEC3F);
    EXPECT_DEATH(block.stream<Vec4>(), "typeOf");
    MarchingCubes<float, DepthVolume> mc;
    MarchingCubes<float, DepthVolume>::TypeVec values{};
    EXPECT_DEATH(mc.calculatePoint(values, 12), "edge <");
    MarchingCubes<float, DepthVolume>::Cell cell{};
    AR::Common::Vector<Vec3> points;
    AR::Common::Vector<unsigned int> indices;
    EXPECT_DEATH(mc.calculateCellTriangles(0, Vec3(0, 0, 0), values, cell, points, indices),
                 "cubeIndex");
}

// A block's colours reach the merge even where the blocks before it had none, its indices move
// past the vertices before it, an emptied colour stream (a re-meshed block's, before colouring)
// adds nothing, and texture coordinates are never carried.
TEST(PolygonMesh, AppendCarriesColoursIntoAMeshWithoutThem) {
    PolygonMesh source, target, emptied;
    source.positions().push_back(Vec3(1, 2, 3));
    source.indices().push_back(0);
    source.colors().push_back(Vec4(1, 0, 0, 1));
    source.texCoords().push_back(Vec2(0.5f, 0.5f));
    emptied.positions().push_back(Vec3(4, 5, 6));
    emptied.indices().push_back(0);
    emptied.colors();
    appendMesh(emptied, target);
    EXPECT_EQ(target.findColors(), nullptr);
    target.texCoords().push_back(Vec2(0.25f, 0.75f));
    appendMesh(source, target);
    ASSERT_NE(target.findColors(), nullptr);
    ASSERT_EQ(target.findColors()->size(), 1u);
    EXPECT_EQ((*target.findColors())[0], Vec4(1, 0, 0, 1));
    ASSERT_EQ(target.findIndices()->size(), 2u);
    EXPECT_EQ((*target.findIndices())[1], 1u);
    ASSERT_EQ(target.findTexCoords()->size(), 1u);
    EXPECT_EQ((*target.findTexCoords())[0], Vec2(0.25f, 0.75f));
}

TEST(CubeTables, RowsNameExactlyTheEdgesThatChangeSign) {
    for (int cube = 0; cube < CT::kNumCubeIndices; ++cube) {
        std::array<int, CT::kNumEdges> named{};
        int length = 0;
        while (length < CT::kRowLength && CT::kTriangleTable[cube][length] != CT::kEndOfRow) {
            ++named[CT::kTriangleTable[cube][length]];
            ++length;
        }
        ASSERT_EQ(length % 3, 0) << "row " << cube;
        for (int e = 0; e < CT::kNumEdges; ++e) {
            const bool a = (cube >> CT::kEdgeCorners[e][0]) & 1;
            const bool b = (cube >> CT::kEdgeCorners[e][1]) & 1;
            EXPECT_EQ(named[e] > 0, a != b) << "row " << cube << " edge " << e;
        }
    }
}

// The exact fields of analytic solids, metres.
std::function<float(const Vec3&)> field(std::shared_ptr<const Velmora::Test::Primitive> solid) {
    return [solid](const Vec3& p) { return float(solid->signedDistance({p[0], p[1], p[2]})); };
}
std::function<float(const Vec3&)> sphere(const Velmora::Test::Vec3d& centre, double radius) {
    return field(Velmora::Test::makeSphere(centre, radius, 0, {}));
}

template <typename VolumeT>
class MarchingCubesTest : public ::testing::Test {
protected:
    using Grid = VolumeGrid<VolumeT, LockedBlockPtr, GridLock>;
    using MC = MarchingCubes<float, VolumeT>;

    MarchingCubesTest() { Velmora::Test::configureGrid(grid, kSpacing); }

    template <typename Sdf>
    IndexSet fill(const Index3& lo, const Index3& hi, Sdf&& sdf, short weight = 1) {
        Solid::Test::writeField(grid, lo, hi, kTruncation, weight, sdf);
        IndexSet blocks;
        grid.for_each([&](const KeyType& key, const VolumeT&) { blocks.insert(key); });
        return blocks;
    }

    MeshGridType extract(const IndexSet& blocks, int threshold = 0,
                         typename MC::TestVertexFunc func = MC::plainCubeIndex) {
        MeshGridType meshes;
        MC mc;
        ExtractSurfaceStats stats;
        mc.computeMarchingCubes(grid, blocks, threshold, meshes, stats, func);
        uint32_t vertices = 0;
        for (const auto& entry : meshes)
            vertices += entry.second.findPositions()->size();
        EXPECT_EQ(stats.numVertices, vertices);
        return meshes;
    }

    Grid grid;
};

using VolumeTypes = ::testing::Types<DepthVolume, LabelDepthVolume>;
TYPED_TEST_SUITE(MarchingCubesTest, VolumeTypes);

// A closed, consistently wound surface: every edge used once in each direction. Returns the
// number of edges.
size_t expectClosed(const PolygonMesh& mesh) {
    std::map<std::pair<unsigned, unsigned>, int> directed;
    const auto& indices = *mesh.findIndices();
    for (uint32_t i = 0; i < indices.size(); ++i)
        ++directed[{indices[i], indices[i - i % 3 + (i + 1) % 3]}];
    EXPECT_FALSE(directed.empty());
    for (const auto& [edge, uses] : directed)
        EXPECT_TRUE(uses == 1 && directed.count({edge.second, edge.first}) == 1)
            << edge.first << "-" << edge.second;
    return directed.size() / 2;
}

PolygonMesh mergeAll(const MeshGridType& meshes) {
    ExtractSurfaceStats stats;
    return mergeMesh(meshes, stats);
}

TYPED_TEST(MarchingCubesTest, VerticesLieOnAnalyticSurfaces) {
    struct Case {
        const char* name;
        std::function<float(const Vec3&)> sdf;
        float bound;  // metres, beyond the quantisation of the stored values
    };
    // Linear interpolation is exact on a plane; on a sphere of radius R (this one crosses the
    // block borders at 0.16) the field bends by at most h^2 / (2 R) over an edge of length h; at
    // the box's edges and corner the field has a kink, and a vertex next to it may be off by up
    // to a quarter cell.
    const std::vector<Case> cases = {
        {"plane", [](const Vec3& p) { return 0.3f * p[0] + 0.5f * p[1] + 0.81f * p[2] - 0.2f; },
         1e-5f},
        {"sphere", sphere({0.15, 0.17, 0.16}, 0.1), kSpacing * kSpacing / (2 * 0.1f)},
        {"box corner", field(Velmora::Test::makeBox({-1, -1, -1}, {0.11, 0.13, 0.17}, 0, {})),
         0.25f * kSpacing},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);  // each field overwrites every sample of the blocks
        const IndexSet blocks = this->fill(Index3(0, 0, 0), Index3(1, 1, 1), c.sdf);
        const PolygonMesh mesh = mergeAll(this->extract(blocks));
        ASSERT_GT(mesh.findIndices()->size(), 30u);
        for (const Vec3& v : *mesh.findPositions())
            ASSERT_LE(std::fabs(c.sdf(v)), c.bound + 4 * kQuantisation)
                << v[0] << " " << v[1] << " " << v[2];
    }
}

// Corner positions of each triangle in micrometres, the winding kept by rotating the smallest
// corner first.
using Triangle = std::array<std::array<long, 3>, 3>;
std::vector<Triangle> triangles(const PolygonMesh& mesh) {
    std::vector<Triangle> out;
    const auto& indices = *mesh.findIndices();
    for (uint32_t t = 0; t < indices.size(); t += 3) {
        Triangle& corners = out.emplace_back();
        for (int k = 0; k < 9; ++k)
            corners[k / 3][k % 3] =
                std::lround((*mesh.findPositions())[indices[t + k / 3]][k % 3] * 1e6f);
        std::rotate(corners.begin(), std::min_element(corners.begin(), corners.end()),
                    corners.end());
    }
    return out;
}

// The two meshes have the same triangles, with the same winding, up to the float rounding of
// the two ways of computing a vertex (a micrometre).
void expectSameTriangles(const PolygonMesh& a, const PolygonMesh& b) {
    const auto left = triangles(a);
    auto right = triangles(b);
    ASSERT_EQ(left.size(), right.size());
    for (const auto& t : left) {
        const auto match = std::find_if(right.begin(), right.end(), [&](const Triangle& u) {
            for (int k = 0; k < 9; ++k)
                if (std::labs(t[k / 3][k % 3] - u[k / 3][k % 3]) > 1)
                    return false;
            return true;
        });
        ASSERT_NE(match, right.end());
        right.erase(match);
    }
}

// Each block meshes its part of a ball around the common corner of eight blocks making every
// vertex once; MarchingCubes2 welds the blocks' parts into one closed surface of genus 0 (every
// vertex shared: V - E + F = 2) with the same triangles.
TYPED_TEST(MarchingCubesTest, BlocksShareTheirVerticesAndMarchingCubes2WeldsThem) {
    const IndexSet blocks =
        this->fill(Index3(-1, -1, -1), Index3(0, 0, 0), sphere({0.003, -0.004, 0.002}, 0.1));
    const MeshGridType meshes = this->extract(blocks);
    for (const auto& [key, mesh] : meshes) {
        const auto& points = *mesh.findPositions();
        std::set<std::array<float, 3>> distinct;
        for (const Vec3& p : points)
            distinct.insert({p[0], p[1], p[2]});
        EXPECT_EQ(distinct.size(), points.size()) << key[0] << " " << key[1] << " " << key[2];
        const std::set<unsigned> used(mesh.findIndices()->begin(), mesh.findIndices()->end());
        EXPECT_EQ(used.size(), points.size());
    }
    MarchingCubes2<TypeParam> mc2;
    PolygonMesh welded;
    ExtractSurfaceStats stats;
    mc2.computeMarchingCubesIncremental(this->grid, blocks, 0.0f, 0, welded.positions(),
                                        welded.indices(), stats);
    const size_t faces = welded.findIndices()->size() / 3;
    EXPECT_EQ(welded.findPositions()->size() + faces, expectClosed(welded) + 2);
    EXPECT_EQ(stats.numVertices, welded.findPositions()->size());
    expectSameTriangles(mergeAll(meshes), welded);
}

TYPED_TEST(MarchingCubesTest, WeightsAndVetoesRemoveCells) {
    const auto plane = [](const Vec3& p) { return p[2] - 0.07f; };
    struct Case {
        short weight;
        int threshold;
        bool triangles;
    };
    // The weight test is strict: a cell needs every corner above the threshold.
    const Case cases[] = {{0, 0, false}, {1, 0, true}, {3, 3, false}, {4, 3, true}};
    for (const Case& c : cases) {
        const IndexSet blocks = this->fill(Index3(0, 0, 0), Index3(0, 0, 0), plane, c.weight);
        const MeshGridType meshes = this->extract(blocks, c.threshold);
        ASSERT_EQ(meshes.size(), 1u);
        EXPECT_EQ(!meshes.begin()->second.findIndices()->empty(), c.triangles) << c.threshold;
    }
    // A veto of the cells with x below 4 removes exactly their triangles.
    const IndexSet blocks = this->fill(Index3(0, 0, 0), Index3(0, 0, 0), plane, 1);
    const MeshGridType meshes =
        this->extract(blocks, 0, [](const TypeParam& v, int x, int y, int z, auto& values) {
            const int cube = TestFixture::MC::plainCubeIndex(v, x, y, z, values);
            return x < 4 ? CT::kAllAbove : cube;
        });
    const PolygonMesh& mesh = meshes.begin()->second;
    EXPECT_EQ(mesh.findIndices()->size(), 4u * 8u * 2u * 3u);
    for (const Vec3& v : *mesh.findPositions())
        EXPECT_GE(v[0], 4 * kSpacing - 1e-6f);
}

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

std::function<float(const Vec3&)> ball(double radius) {
    return sphere({0.16, 0.15, 0.17}, radius);
}

// The triangles of a mesh grid, sorted: a description that does not depend on the order of
// blocks or vertices.
std::vector<Triangle> triangleSet(const MeshGridType& meshes) {
    std::vector<Triangle> out = triangles(mergeAll(meshes));
    std::sort(out.begin(), out.end());
    return out;
}

// The id of the sample nearest to each vertex that a triangle uses, one index at a time;
// 0xFFFF for a vertex no triangle uses.
template <typename Labels>
std::vector<uint16_t> plainIds(const PolygonMesh& mesh, const Labels& labels,
                               const FakeInstances& instances) {
    const auto& positions = *mesh.findPositions();
    std::vector<uint16_t> ids(positions.size(), 0xFFFF);
    for (unsigned int v : *mesh.findIndices()) {
        const Vec3& p = positions[v];
        KeyType key;
        int sample[3];
        for (int a = 0; a < 3; ++a) {
            key[a] = static_cast<int>(std::floor(p[a] * labels.inverseDimension()[a]));
            const float local = p[a] - labels.dimension()[a] * static_cast<float>(key[a]);
            sample[a] = std::clamp(
                static_cast<int>(std::floor(0.5f + local * labels.config().inverseSpacing[a])), 0,
                labels.config().bounds[a]);
        }
        const auto block = labels.get(key);
        ids[v] =
            block ? globalIdOf(instances, block->at(sample[0], sample[1], sample[2]).instance) : 0;
    }
    return ids;
}

// Grids of a ball, in both run modes. The ball is cut by the plane x = 0.16 into instance 10
// (local id 1, below) and instance 20 (local id 2, above); local id 3 has been retired.
class IncrementalExtractionTest : public ::testing::Test {
protected:
    IncrementalExtractionTest() {
        Velmora::Test::configureGrid(depth, kSpacing);
        Velmora::Test::configureGrid(labels, kSpacing);
        Velmora::Test::configureGrid(combined, kSpacing);
        const auto sdf = ball(0.1);
        const auto local = [](const Vec3& p) -> uint16_t {
            return p[0] < 0.16f ? 1 : p[1] < 0.1f ? 3 : 2;
        };
        Solid::Test::writeField(depth, Index3(0, 0, 0), Index3(1, 1, 1), kTruncation, 1, sdf);
        Solid::Test::writeInstances(labels, Index3(0, 0, 0), Index3(1, 1, 1), local);
        Solid::Test::writeField(combined, Index3(0, 0, 0), Index3(1, 1, 1), kTruncation, 1, sdf);
        Solid::Test::writeInstances(combined, Index3(0, 0, 0), Index3(1, 1, 1), local);
        instances.localToGlobal = {{1, 10}, {2, 20}};
        FakeInstance& lower = instances.table[10];
        for (int z = 0; z < 2; ++z)
            for (int y = 0; y < 2; ++y)
                lower.boundingBoxes.insert(Index3(0, y, z),
                                           Box{Vec3(0.01f, 0.01f + y * kDimension, 0.01f),
                                               Vec3(0.15f, 0.15f + y * kDimension, 0.3f)});
        depth.for_each([this](const KeyType& key, const DepthVolume&) { blocks.insert(key); });
    }

    // Meshes `changed` of the depth grid, which grows by the lower neighbours it changes.
    void remesh(IndexSet& changed, MeshGridType& meshes) {
        ExtractSurfaceStats stats;
        extractSurfaceIncremental(depth, changed, meshes, stats,
                                  MarchingCubes<float, DepthVolume>::plainCubeIndex, true, false,
                                  0);
    }

    // Every mesh carries the ids of the samples nearest to its vertices.
    template <typename Labels>
    void expectPlainIds(const MeshGridType& meshes, const Labels& grid) {
        for (const auto& [key, mesh] : meshes) {
            const auto* ids = mesh.findInstanceIds();
            ASSERT_NE(ids, nullptr);
            EXPECT_EQ(std::vector<uint16_t>(ids->begin(), ids->end()),
                      plainIds(mesh, grid, instances));
        }
    }

    // One run mode's whole scene carries both instances' ids, and 0 for the retired piece; the
    // surface of instance 10 stays on its side and was meshed only in the blocks its boxes touch.
    template <typename Labels>
    void expectInstanceSurfaces(const MeshGridType& scene, const MeshGridType& instance,
                                const Labels& grid) {
        expectPlainIds(scene, grid);
        ExtractSurfaceStats stats;
        const PolygonMesh all = mergeMesh(scene, stats);
        ASSERT_EQ(all.findInstanceIds()->size(), all.findPositions()->size());
        const std::set<uint16_t> seen(all.findInstanceIds()->begin(), all.findInstanceIds()->end());
        EXPECT_EQ(seen, (std::set<uint16_t>{0, 10, 20}));
        const PolygonMesh own = mergeMesh(instance, stats);
        ASSERT_GT(own.findIndices()->size(), 0u);
        for (const Vec3& v : *own.findPositions())
            EXPECT_LE(v[0], 0.16f + 1e-6f);
        for (uint16_t id : *own.findInstanceIds())
            EXPECT_EQ(id, 10);
        EXPECT_EQ(instance.size(), 4u);
    }

    DepthGrid depth;
    LabelGrid labels;
    LabelDepthGrid combined;
    FakeInstances instances;
    IndexSet blocks;
};

TEST_F(IncrementalExtractionTest, OnlyChangedBlocksAreRemeshedAndTheResultIsWhole) {
    MeshGridType meshes, fresh;
    IndexSet all = blocks, changed;
    remesh(all, meshes);
    ASSERT_EQ(meshes.size(), 8u);
    // The ball grows inside block (1, 1, 1) only. Its lower planes, shared with the seven lower
    // neighbours, change as well; the border copy carries them over and adds those neighbours.
    Solid::Test::writeField(depth, Index3(1, 1, 1), Index3(1, 1, 1), kTruncation, 1, ball(0.12));
    changed.insert(KeyType(1, 1, 1));
    remesh(changed, meshes);
    EXPECT_EQ(changed.size(), 8u);
    // The patched grid equals a fresh extraction of the final field.
    remesh(all = blocks, fresh);
    EXPECT_EQ(triangleSet(meshes), triangleSet(fresh));
}

TEST_F(IncrementalExtractionTest, CombinedModeCutsCellsAndSplitModeCutsTriangles) {
    MeshGridType scene, instance, splitScene, splitInstance;
    extractSurfaceForInstanceID(combined, instances, blocks, 0, true, scene);
    extractSurfaceForInstanceID(combined, instances, blocks, 10, true, instance);
    expectInstanceSurfaces(scene, instance, combined);
    extractSurfaceForInstanceID(depth, labels, instances, blocks, 0, splitScene);
    extractSurfaceForInstanceID(depth, labels, instances, blocks, 10, splitInstance);
    expectInstanceSurfaces(splitScene, splitInstance, labels);
    // Labels change to a checkerboard of samples, no block is re-meshed: the ids follow all the
    // same, and a vertex that took a sample other than its nearest would show.
    Solid::Test::writeInstances(labels, Index3(0, 0, 0), Index3(1, 1, 1), [](const Vec3& p) {
        const long parity = std::lround(p[0] / kSpacing) + std::lround(p[1] / kSpacing) +
                            std::lround(p[2] / kSpacing);
        return static_cast<uint16_t>(1 + (parity & 1));
    });
    extractSurfaceForInstanceID(depth, labels, instances, IndexSet(), 0, splitScene);
    expectPlainIds(splitScene, labels);
}

// Triangles in reverse order use their vertices out of order; a vertex no triangle uses keeps
// its value, and annotation without a stream does nothing. Broken indices and an instance the
// extractor does not know abort.
TEST_F(IncrementalExtractionTest, AnnotationOutOfOrderAndItsAborts) {
    MeshGridType scene;
    extractSurfaceForInstanceID(depth, labels, instances, blocks, 0, scene);
    PolygonMesh reversed = scene.at(KeyType(0, 0, 0));
    auto& indices = reversed.indices();
    std::reverse(indices.begin(), indices.end());
    reversed.positions().push_back(Vec3(0, 0, 0));
    PolygonMesh::InstanceIds ids(reversed.positions().size());
    std::fill(ids.begin(), ids.end(), 0xFFFF);
    const std::function<SurfaceInstanceId(const LabelVolumeSample&)> predicate =
        [this](const LabelVolumeSample& sample) { return globalIdOf(instances, sample.instance); };
    ASSERT_TRUE(annotateMesh(reversed, labels, predicate, &ids, 0));
    EXPECT_EQ(std::vector<uint16_t>(ids.begin(), ids.end()), plainIds(reversed, labels, instances));
    EXPECT_FALSE(annotateMesh(reversed, labels, predicate, nullptr, 0));
    // An index beyond the vertices aborts, whether the first uses are in order or not.
    for (const unsigned int last : {2u, 3u}) {
        PolygonMesh broken;
        broken.positions().resize(2);
        for (const unsigned int index : {0u, 1u, last})
            broken.indices().push_back(index);
        EXPECT_DEATH(annotateMesh(broken, labels, predicate, &ids, 0), "vertexIndex <");
    }
    MeshGridType meshes;
    EXPECT_DEATH(extractSurfaceForInstanceID(depth, labels, instances, blocks, 30, meshes),
                 "el != table.end()");
}

constexpr int kWidth = 64;
constexpr int kHeight = 48;
using Camera = TextureExtractor::Camera;

// A frame of one colour with one measured depth everywhere, its camera `cameraZ` metres along
// world z looking along +z.
// Columns left of `firstColumn` measured nothing.
RGBDFrame keyframe(uint8_t r, uint8_t g, uint8_t b, uint16_t depthMm, float cameraZ = 0.0f,
                   int firstColumn = 0) {
    const AR::CV::Size2i size(kWidth, kHeight);
    RGBDFrame frame(size);
    frame.rgb.allocPixels(size, AR::Common::ALIGNMENT_16);
    frame.depthU16.allocPixels(size, AR::Common::ALIGNMENT_16);
    for (int v = 0; v < kHeight; ++v)
        for (int u = 0; u < kWidth; ++u) {
            frame.rgb(u, v) = AR::CV::Pixel24{r, g, b};
            frame.depthU16(u, v) = u < firstColumn ? 0 : depthMm;
        }
    frame.pose(2, 3) = -cameraZ;  // world to camera
    return frame;
}

// A strip of four triangles on z = 2 facing the camera, and one triangle far off to the side
// that no frame sees, coloured from `frames`; `images` asks for texture images, which are not
// built.
PolygonMesh colour(const std::vector<RGBDFrame>& frames, bool images = false) {
    Camera camera;
    EXPECT_TRUE(camera.init(Camera::Vec2(kWidth, kHeight), Camera::Vec2(50, 50),
                            Camera::Vec2(31.5f, 23.5f), Camera::RDVec::zeros(),
                            Camera::Vec2::zeros(), CamModel::DistortionModel::LINEAR));
    const TextureExtractor::Config config;  // held by reference
    TextureExtractor extractor(config, camera, camera);
    PolygonMesh mesh;
    for (float y : {-0.1f, 0.1f})
        for (float x : {-0.2f, 0.0f, 0.2f})
            mesh.positions().push_back(Vec3(x, y, 2.0f));
    for (const Vec3& p : {Vec3(10, 0, 2), Vec3(10, 1, 2), Vec3(11, 0, 2)})
        mesh.positions().push_back(p);
    for (unsigned i : {0u, 3u, 1u, 1u, 3u, 4u, 1u, 4u, 2u, 2u, 4u, 5u, 6u, 7u, 8u})
        mesh.indices().push_back(i);
    AR::Common::Map<int, PolygonMesh*> textures;
    extractor.computeTextures(frames, mesh, textures, images);
    EXPECT_TRUE(textures.empty());
    return mesh;
}

TEST(TextureExtractor, EachTriangleTakesItsBestFrameThatSawIt) {
    struct Case {
        const char* name;
        std::vector<RGBDFrame> frames;
        Vec4 expected;  // colour of the seen vertices
    };
    const Vec4 red(1, 0, 0, 1), blue(0, 0, 1, 1), none(0, 0, 0, 0);
    const std::vector<Case> cases = {
        // The green frame measured an occluder at 1 m: it did not see the strip.
        {"occluded frame", {keyframe(255, 0, 0, 2000), keyframe(0, 255, 0, 1000)}, red},
        // The blue frame is nearer (1 m away) and ranks first. Two frames that both cover every
        // triangle: the thinning drops one whose triangles all have another candidate, and the
        // red frame, ranked first nowhere, is passed over by it, so the blue one goes.
        {"two full frames", {keyframe(255, 0, 0, 2000), keyframe(0, 0, 255, 1000, 1.0f)}, red},
        // The red frame sees only the right half: the blue one covers what only it sees, stays,
        // and colours every triangle as the best-ranked frame.
        {"nearer frame",
         {keyframe(255, 0, 0, 2000, 0.0f, 30), keyframe(0, 0, 255, 1000, 1.0f)},
         blue},
        {"within 2 percent", {keyframe(255, 0, 0, 2039)}, red},
        {"beyond 2 percent", {keyframe(255, 0, 0, 2042)}, none},
    };
    for (const Case& c : cases) {
        const PolygonMesh mesh = colour(c.frames);
        ASSERT_EQ(mesh.findColors()->size(), 9u);
        for (int v = 0; v < 6; ++v)
            EXPECT_EQ((*mesh.findColors())[v], c.expected) << c.name << " " << v;
        EXPECT_EQ((*mesh.findColors())[7][3], 0.0f);  // the far triangle: no colour
    }
}

TEST(TextureExtractorDeathTest, TextureImagesAreNotBuilt) {
    EXPECT_DEATH(colour({keyframe(255, 0, 0, 2000)}, true), "genTextureImage");
}

}  // namespace
}  // namespace Solid
