// Geometry, labels and outlines of new roots, on exact distances: an L-shaped floor whose alpha
// shape is concave where the convex hull is not, labels voted from a separate label grid (and
// none from blocks that have no label block yet), and the plane's 2-D frame.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "solid/planes/PlaneDetector.h"
#include "support/FusedGrid.h"
#include "support/PlaneScenes.h"

namespace {

using Solid::PlaneDetector;
using Solid::PlaneID;

constexpr float kCellSize = 0.05f;
constexpr float kTruncation = 0.25f;
constexpr float kMaxStdError = 0.01f;  // also the half thickness of a plane, metres
constexpr float kMaxAngle = 0.1f;
constexpr uint32_t kIterations = 5;
constexpr float kFloorHeight = 0.1f;
constexpr uint8_t kFloorLabel = 1;
// The corner column that makes the floor an L: x and y from kCorner to the end of the region.
constexpr double kCorner = 1.2;
constexpr int kBlocksPerSide = 6;  // 2.4 m of floor along x and y

// Twice the signed area of a closed polygon in x and y.
double shoelace(const std::vector<Solid::Vec3>& ring) {
    double area = 0.0;
    for (size_t i = 0; i + 1 < ring.size(); ++i) {
        area += static_cast<double>(ring[i](0)) * ring[i + 1](1) -
                static_cast<double>(ring[i + 1](0)) * ring[i](1);
    }
    return area;
}

// Point-in-polygon by crossings, in x and y.
bool inside(const std::vector<Solid::Vec3>& ring, float x, float y) {
    bool in = false;
    for (size_t i = 0, j = ring.size() - 1; i < ring.size(); j = i++) {
        if ((ring[i](1) > y) != (ring[j](1) > y) &&
            x < (ring[j](0) - ring[i](0)) * (y - ring[i](1)) / (ring[j](1) - ring[i](1)) +
                    ring[i](0)) {
            in = !in;
        }
    }
    return in;
}

class LShapedFloor : public ::testing::Test {
protected:
    LShapedFloor() {
        scene.add(Velmora::Test::makeHalfSpace({0, 0, 1}, kFloorHeight, kFloorLabel, {0, 0, 0}));
        scene.add(Velmora::Test::makeBox({kCorner, kCorner, 0.0}, {5.0, 5.0, 3.0}, 2, {0, 0, 0}));
        Velmora::Test::configureGrid(grid, kCellSize);
        Velmora::Test::configureGrid(labels, kCellSize);
        for (int x = 0; x < kBlocksPerSide; ++x) {
            for (int y = 0; y < kBlocksPerSide; ++y) {
                keys.emplace_back(x, y, 0);
                blocks.insert(keys.back());
            }
        }
        Velmora::Test::writeExactBlocks(grid, scene, kTruncation, keys);
    }

    // A detector with contour parameter `alpha`, brought up to date as the scene's query does;
    // returns the floor root.
    PlaneID detect(PlaneDetector& detector, float alpha, bool withLabels) {
        detector.configure(kTruncation, kMaxStdError, kMaxAngle, kIterations, alpha);
        detector.fitPlanes(grid, blocks);
        const Solid::PlaneIDSet roots = detector.mergePlanes(blocks);
        detector.updateGeometry(grid, roots);
        if (withLabels) {
            detector.updateLabels(grid, labels, roots);
        }
        detector.updateContours(grid, roots);
        EXPECT_EQ(roots.size(), 1u);
        return roots.empty() ? PlaneDetector::INVALID : *roots.begin();
    }

    Velmora::Test::AnalyticScene scene;
    Solid::DepthGrid grid;
    Solid::LabelGrid labels;
    std::vector<Solid::KeyType> keys;
    Solid::IndexSet blocks;
};

TEST_F(LShapedFloor, AlphaShapeIsConcaveWhereTheHullIsNot) {
    PlaneDetector hullDetector;
    PlaneDetector alphaDetector;
    const PlaneDetector::Node& hull = hullDetector.getNode(detect(hullDetector, 0.0f, false));
    const PlaneDetector::Node& alpha = alphaDetector.getNode(detect(alphaDetector, 0.15f, false));
    for (const auto* node : {&hull, &alpha}) {
        ASSERT_GE(node->contour.size(), 4u);
        EXPECT_EQ(node->contour.front(), node->contour.back()) << "closed";
        for (const Solid::Vec3& p : node->contour) {
            EXPECT_NEAR(p(2), kFloorHeight, 0.002f) << "on the plane";
        }
        // Geometry: lattice points of the floor within the slab, projected onto it.
        EXPECT_GT(node->geometry.size(), 1000u);
    }
    // The corner column is inside the hull and outside the alpha shape.
    const float cornerX = static_cast<float>(kCorner) + 0.4f;
    EXPECT_TRUE(inside(hull.contour, cornerX, cornerX));
    EXPECT_FALSE(inside(alpha.contour, cornerX, cornerX));
    EXPECT_TRUE(inside(alpha.contour, 0.3f, 0.3f));
    // The L covers 2.4^2 - 1.2^2 = 4.32 m^2 of the floor region, plus the samples in the band
    // (0.1 m) inside the column's two walls that still lie on the floor's plane: about 4.6.
    // The hull adds the triangle across the corner.
    const double alphaArea = std::abs(shoelace(alpha.contour)) / 2.0;
    const double hullArea = std::abs(shoelace(hull.contour)) / 2.0;
    EXPECT_NEAR(alphaArea, 4.7, 0.3);
    EXPECT_GT(hullArea, alphaArea + 0.2);
}

TEST_F(LShapedFloor, LabelsComeFromTheLabelGridWhereItHasBlocks) {
    PlaneDetector noLabelBlocks;
    const PlaneID bare = detect(noLabelBlocks, 0.0f, true);
    EXPECT_EQ(noLabelBlocks.getNode(bare).label, 0) << "no label block yet: no label, no abort";

    Velmora::Test::writeExactBlocks(labels, scene, kTruncation, keys, 2);
    PlaneDetector labelled;
    EXPECT_EQ(labelled.getNode(detect(labelled, 0.0f, true)).label, kFloorLabel);
}

TEST(PlaneContours, FewPointsAndTheTwoDimensionalFrame) {
    // The plane z = 2 (normal up): the first axis is world x (x and y probes tie, the second
    // wins: y), the second normal x y = -x.
    const AR::CV::Geometry::Plane3D<float> plane(AR::Math::Vector<float, 4>(0.f, 0.f, 1.f, -2.f));
    const std::vector<Solid::Vec3> points = {Solid::Vec3(1.f, 2.f, 2.f),
                                             Solid::Vec3(-3.f, 0.5f, 2.f)};
    const std::vector<Solid::Vec2> flat = Solid::projectTo2D(
        AR::Common::ArrayView<const Solid::Vec3>(points.data(), points.data() + points.size()),
        plane);
    ASSERT_EQ(flat.size(), 2u);
    EXPECT_FLOAT_EQ(flat[0](0), 2.0f);
    EXPECT_FLOAT_EQ(flat[0](1), -1.0f);
    EXPECT_FLOAT_EQ(flat[1](0), 0.5f);
    EXPECT_FLOAT_EQ(flat[1](1), 3.0f);
    // A tilted plane takes the longer projection: world x for a wall facing y.
    const AR::CV::Geometry::Plane3D<float> wall(AR::Math::Vector<float, 4>(0.f, 1.f, 0.f, -1.f));
    const std::vector<Solid::Vec2> onWall = Solid::projectTo2D(
        AR::Common::ArrayView<const Solid::Vec3>(points.data(), points.data() + 1), wall);
    EXPECT_FLOAT_EQ(onWall[0](0), 1.0f);
}

TEST(PlaneContours, IsoSurfaceCrossings) {
    Solid::DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    Velmora::Test::AnalyticScene floor;
    floor.add(Velmora::Test::makeHalfSpace({0, 0, 1}, 0.125, 1, {0, 0, 0}));
    const Solid::KeyType key(0, 0, 0);
    Velmora::Test::writeExactBlocks(grid, floor, kTruncation, {key});
    const auto block = grid.get(key);
    // The surface lies between the lattice planes z = 0.10 and z = 0.15 (indices 2 and 3): both
    // planes of the block's own 8 x 8 cells, and nothing else.
    const Solid::IndexSet crossings = Solid::extractIsoSurfaceIndexes<0>(*block, 0.0f);
    EXPECT_EQ(crossings.size(), 2u * 8u * 8u);
    for (const Solid::Index3& index : crossings) {
        EXPECT_TRUE(index(2) == 2 || index(2) == 3);
        EXPECT_LT(index(0), 8);
    }
}

}  // namespace
