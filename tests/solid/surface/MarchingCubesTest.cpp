#include "solid/surface/MarchingCubes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <map>
#include <vector>

#include "solid/surface/CubeTables.h"
#include "solid/surface/MarchingCubes2.h"
#include "support/FieldGrid.h"

namespace Solid {
namespace {

namespace CT = CubeTables;

constexpr float kSpacing = 0.02f;
constexpr float kTruncation = 0.1f;
// Quantisation of a stored value, metres: half a step of 1 / 32766 of the band.
constexpr float kQuantisation = 0.5f * kTruncation / kMaxDepthValue;

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

// Every triangle faces the free side: its normal (from edge midpoints, in table order) points
// from the corners below the level to those above.
TEST(CubeTables, TrianglesFaceTheFreeSide) {
    auto midpoint = [](int e, int axis) {
        return 0.5f * (CT::kCornerOffset[CT::kEdgeCorners[e][0]][axis] +
                       CT::kCornerOffset[CT::kEdgeCorners[e][1]][axis]);
    };
    for (int cube = 1; cube < CT::kAllAbove; ++cube) {
        const int8_t* row = CT::kTriangleTable[cube];
        for (int i = 0; row[i] != CT::kEndOfRow; i += 3) {
            Vec3 p[3];
            Vec3 towardsFree(0, 0, 0);
            for (int k = 0; k < 3; ++k) {
                p[k] =
                    Vec3(midpoint(row[i + k], 0), midpoint(row[i + k], 1), midpoint(row[i + k], 2));
                for (int end = 0; end < 2; ++end) {
                    const int corner = CT::kEdgeCorners[row[i + k]][end];
                    const float sign = ((cube >> corner) & 1) ? 1.0f : -1.0f;
                    for (int a = 0; a < 3; ++a) {
                        towardsFree[a] += sign * CT::kCornerOffset[corner][a];
                    }
                }
            }
            const Vec3 u = p[1] - p[0];
            const Vec3 v = p[2] - p[0];
            const Vec3 n(u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2],
                         u[0] * v[1] - u[1] * v[0]);
            EXPECT_GT(n[0] * towardsFree[0] + n[1] * towardsFree[1] + n[2] * towardsFree[2], 0.0f)
                << "row " << cube << " triangle " << i / 3;
        }
    }
}

// Analytic fields, metres.
float sphereSdf(const Vec3& p, const Vec3& centre, float radius) {
    const Vec3 d = p - centre;
    return std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]) - radius;
}
float boxSdf(const Vec3& p, const Vec3& lo, const Vec3& hi) {
    float outside = 0.0f;
    float inside = -1e9f;
    for (int a = 0; a < 3; ++a) {
        const float d = std::max(lo[a] - p[a], p[a] - hi[a]);
        outside += std::max(d, 0.0f) * std::max(d, 0.0f);
        inside = std::max(inside, std::min(d, 0.0f));
    }
    return std::sqrt(outside) + inside;
}

template <typename VolumeT>
class MarchingCubesTest : public ::testing::Test {
protected:
    using Grid = VolumeGrid<VolumeT, LockedBlockPtr, GridLock>;
    using MC = MarchingCubes<float, VolumeT>;

    MarchingCubesTest() { Solid::Test::configureFieldGrid(grid, kSpacing); }

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
        for (const auto& entry : meshes) {
            vertices += entry.second.findPositions()->size();
        }
        EXPECT_EQ(stats.numVertices, vertices);
        return meshes;
    }

    Grid grid;
};

using VolumeTypes = ::testing::Types<DepthVolume, LabelDepthVolume>;
TYPED_TEST_SUITE(MarchingCubesTest, VolumeTypes);

// Undirected edges of a triangle list, with how often each is used in each direction.
struct EdgeUse {
    int forward = 0;
    int backward = 0;
};
std::map<std::pair<unsigned, unsigned>, EdgeUse> edgeUses(const PolygonMesh::Indices& indices) {
    std::map<std::pair<unsigned, unsigned>, EdgeUse> uses;
    for (uint32_t t = 0; t + 2 < indices.size(); t += 3) {
        for (int k = 0; k < 3; ++k) {
            const unsigned a = indices[t + k];
            const unsigned b = indices[t + (k + 1) % 3];
            EdgeUse& use = uses[{std::min(a, b), std::max(a, b)}];
            ++(a < b ? use.forward : use.backward);
        }
    }
    return uses;
}

// A closed, consistently wound surface: every edge used once in each direction.
void expectClosed(const PolygonMesh& mesh) {
    const auto uses = edgeUses(*mesh.findIndices());
    ASSERT_FALSE(uses.empty());
    for (const auto& [edge, use] : uses) {
        ASSERT_EQ(use.forward, 1) << edge.first << "-" << edge.second;
        ASSERT_EQ(use.backward, 1) << edge.first << "-" << edge.second;
    }
}

PolygonMesh mergeAll(const MeshGridType& meshes) {
    ExtractSurfaceStats stats;
    return mergeMesh(meshes, stats);
}

TYPED_TEST(MarchingCubesTest, VerticesLieOnAnalyticSurfaces) {
    const Vec3 blockCorner(0.16f, 0.16f, 0.16f);
    struct Case {
        const char* name;
        std::function<float(const Vec3&)> sdf;
        float bound;  // metres, beyond the quantisation of the stored values
    };
    // Linear interpolation is exact on a plane; on a sphere of radius R the field bends by at
    // most h^2 / (2 R) over an edge of length h; at the box's edges and corner the field has a
    // kink, and a vertex next to it may be off by up to a quarter cell.
    const std::vector<Case> cases = {
        {"plane", [](const Vec3& p) { return 0.3f * p[0] + 0.5f * p[1] + 0.81f * p[2] - 0.2f; },
         1e-5f},
        {"sphere", [](const Vec3& p) { return sphereSdf(p, Vec3(0.15f, 0.17f, 0.16f), 0.1f); },
         kSpacing * kSpacing / (2 * 0.1f)},
        {"box corner",
         [](const Vec3& p) { return boxSdf(p, Vec3(-1, -1, -1), Vec3(0.11f, 0.13f, 0.17f)); },
         0.25f * kSpacing},
        {"across a block border", [&](const Vec3& p) { return sphereSdf(p, blockCorner, 0.12f); },
         kSpacing * kSpacing / (2 * 0.12f)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        this->grid.reset();
        Solid::Test::configureFieldGrid(this->grid, kSpacing);
        const IndexSet blocks = this->fill(Index3(0, 0, 0), Index3(1, 1, 1), c.sdf);
        const PolygonMesh mesh = mergeAll(this->extract(blocks));
        ASSERT_GT(mesh.findIndices()->size(), 30u);
        for (const Vec3& v : *mesh.findPositions()) {
            ASSERT_LE(std::fabs(c.sdf(v)), c.bound + 4 * kQuantisation)
                << v[0] << " " << v[1] << " " << v[2];
        }
    }
}

TYPED_TEST(MarchingCubesTest, ABlockSharesItsVerticesAndClosesAClosedField) {
    // A ball well inside block (0, 0, 0).
    const IndexSet blocks = this->fill(Index3(0, 0, 0), Index3(0, 0, 0), [](const Vec3& p) {
        return sphereSdf(p, Vec3(0.081f, 0.079f, 0.08f), 0.05f);
    });
    const MeshGridType meshes = this->extract(blocks);
    ASSERT_EQ(meshes.size(), 1u);
    const PolygonMesh& mesh = meshes.begin()->second;
    expectClosed(mesh);
    // No vertex is made twice: all positions differ.
    std::vector<std::array<float, 3>> positions;
    for (const Vec3& v : *mesh.findPositions()) {
        positions.push_back({v[0], v[1], v[2]});
    }
    std::sort(positions.begin(), positions.end());
    EXPECT_EQ(std::adjacent_find(positions.begin(), positions.end()), positions.end());
    // A closed surface of genus 0: V - E + F = 2.
    const size_t faces = mesh.findIndices()->size() / 3;
    EXPECT_EQ(mesh.findPositions()->size() + faces, edgeUses(*mesh.findIndices()).size() + 2);
}

// Corner positions of each triangle in micrometres, the winding kept by rotating the smallest
// corner first.
std::vector<std::array<long, 9>> triangles(const PolygonMesh& mesh) {
    std::vector<std::array<long, 9>> out;
    const auto& indices = *mesh.findIndices();
    const auto& points = *mesh.findPositions();
    for (uint32_t t = 0; t < indices.size(); t += 3) {
        std::array<std::array<long, 3>, 3> corners;
        for (int k = 0; k < 3; ++k) {
            for (int a = 0; a < 3; ++a) {
                corners[k][a] = std::lround(points[indices[t + k]][a] * 1e6f);
            }
        }
        std::rotate(corners.begin(), std::min_element(corners.begin(), corners.end()),
                    corners.end());
        std::array<long, 9> flat;
        for (int k = 0; k < 9; ++k) {
            flat[k] = corners[k / 3][k % 3];
        }
        out.push_back(flat);
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
        const auto match = std::find_if(right.begin(), right.end(), [&](const auto& u) {
            for (int k = 0; k < 9; ++k) {
                if (std::labs(t[k] - u[k]) > 1) {
                    return false;
                }
            }
            return true;
        });
        ASSERT_NE(match, right.end());
        right.erase(match);
    }
}

TYPED_TEST(MarchingCubesTest, MarchingCubes2WeldsWhatBlocksDuplicate) {
    // A ball around the common corner of eight blocks.
    const IndexSet blocks = this->fill(Index3(-1, -1, -1), Index3(0, 0, 0), [](const Vec3& p) {
        return sphereSdf(p, Vec3(0.003f, -0.004f, 0.002f), 0.1f);
    });
    const PolygonMesh perBlock = mergeAll(this->extract(blocks));

    MarchingCubes2<TypeParam> mc2;
    PolygonMesh welded;
    ExtractSurfaceStats stats;
    mc2.computeMarchingCubesIncremental(this->grid, blocks, 0.0f, 0, welded.positions(),
                                        welded.indices(), stats);
    expectClosed(welded);
    EXPECT_EQ(stats.numVertices, welded.findPositions()->size());
    EXPECT_GT(perBlock.findPositions()->size(), welded.findPositions()->size());
    expectSameTriangles(perBlock, welded);
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
        SCOPED_TRACE(testing::Message() << "weight " << c.weight << " threshold " << c.threshold);
        const IndexSet blocks = this->fill(Index3(0, 0, 0), Index3(0, 0, 0), plane, c.weight);
        const MeshGridType meshes = this->extract(blocks, c.threshold);
        ASSERT_EQ(meshes.size(), 1u);
        const PolygonMesh& mesh = meshes.begin()->second;
        ASSERT_NE(mesh.findPositions(), nullptr);
        ASSERT_NE(mesh.findIndices(), nullptr);
        EXPECT_EQ(!mesh.findIndices()->empty(), c.triangles);
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
    for (const Vec3& v : *mesh.findPositions()) {
        EXPECT_GE(v[0], 4 * kSpacing - 1e-6f);
    }
}

TYPED_TEST(MarchingCubesTest, ZeroIsNotAboveTheLevel) {
    // Samples exactly at zero on plane z = 2 and below: the surface is the top face of that
    // layer, between z = 2 (value 0, "below") and z = 3 (positive); vertices sit at z = 2.
    const IndexSet blocks = this->fill(Index3(0, 0, 0), Index3(0, 0, 0), [](const Vec3& p) {
        return p[2] < 2.5f * kSpacing ? 0.0f : kTruncation;
    });
    const PolygonMesh mesh = mergeAll(this->extract(blocks));
    ASSERT_FALSE(mesh.findPositions()->empty());
    for (const Vec3& v : *mesh.findPositions()) {
        EXPECT_NEAR(v[2], 2 * kSpacing, 1e-6f);
    }
}

TYPED_TEST(MarchingCubesTest, BlockOriginsAreSigned) {
    const IndexSet blocks =
        this->fill(Index3(-1, 0, 0), Index3(-1, 0, 0), [](const Vec3& p) { return p[1] - 0.05f; });
    const PolygonMesh mesh = mergeAll(this->extract(blocks));
    ASSERT_FALSE(mesh.findPositions()->empty());
    float lowest = 1.0f;
    for (const Vec3& v : *mesh.findPositions()) {
        lowest = std::min(lowest, v[0]);
        EXPECT_LE(v[0], 0.0f);
    }
    EXPECT_FLOAT_EQ(lowest, -8 * kSpacing);
}

TYPED_TEST(MarchingCubesTest, MissingBlocksAndAllFreeCellsGiveEmptyMeshes) {
    // All corners above the level: cube index 255 everywhere, no triangle, but MarchingCubes2
    // records the cells.
    IndexSet blocks =
        this->fill(Index3(0, 0, 0), Index3(0, 0, 0), [](const Vec3&) { return kTruncation; });
    blocks.insert(KeyType(5, 5, 5));  // no such block
    const MeshGridType meshes = this->extract(blocks);
    EXPECT_EQ(meshes.size(), 2u);
    for (const auto& entry : meshes) {
        EXPECT_TRUE(entry.second.findPositions()->empty());
        EXPECT_TRUE(entry.second.findIndices()->empty());
    }
    MarchingCubes2<TypeParam> mc2;
    PolygonMesh welded;
    ExtractSurfaceStats stats;
    mc2.computeMarchingCubesIncremental(this->grid, blocks, 0.0f, 0, welded.positions(),
                                        welded.indices(), stats);
    EXPECT_EQ(stats.numCells, 512u);
    EXPECT_TRUE(welded.findIndices()->empty());
}

TEST(MarchingCubesDeathTest, TableFaultsAbort) {
    MarchingCubes<float, DepthVolume> mc;
    MarchingCubes<float, DepthVolume>::TypeVec values{};
    EXPECT_DEATH(mc.calculatePoint(values, 12), "edge <");
    MarchingCubes<float, DepthVolume>::Cell cell{};
    AR::Common::Vector<Vec3> points;
    AR::Common::Vector<unsigned int> indices;
    EXPECT_DEATH(mc.calculateCellTriangles(0, Vec3(0, 0, 0), values, cell, points, indices),
                 "cubeIndex");
}

}  // namespace
}  // namespace Solid
