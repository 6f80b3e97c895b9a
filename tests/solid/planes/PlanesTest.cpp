// Plane detection: the robust fit of one block and its normal equations, the forest on a fused
// room (one root per floor, wall and table top; removals keep it consistent), merges kept apart
// by the fit error and by the angle, and the geometry and outlines of new roots.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "solid/planes/PlaneDetector.h"
#include "support/FusedGrid.h"
#include "support/PlaneScenes.h"

namespace {

using Solid::PlaneDetector;
using Solid::PlaneID;
using Solid::Vec3;
using Velmora::Test::AnalyticScene;

constexpr float kCellSize = 0.05f;
constexpr float kTruncation = 0.25f;
// Weighted fit error (see solveL1): a box top 0.3 m above the floor scores about 0.02 against a
// joint plane, a floor block well below 0.001.
constexpr float kMaxStdError = 0.005f;
constexpr float kMaxAngle = 0.1f;  // radians
constexpr uint32_t kIterations = 5;

// A plane n.p + offset = 0; a node stands for it when its normal is within 0.05 rad and its
// constant within 2 cm.
struct TruePlane {
    Vec3 normal;
    float offset;
};
bool matches(const PlaneDetector::Node& node, const TruePlane& truth) {
    return std::acos(std::min(1.0f, AR::Math::dot(node.plane.getNormal(), truth.normal))) < 0.05f &&
           std::abs(node.plane.getDepth() - truth.offset) < 0.02f;
}

// The roots of `detector` that stand for `truth`.
std::vector<PlaneID> rootsOf(const PlaneDetector& detector, const TruePlane& truth) {
    std::vector<PlaneID> found;
    for (const PlaneID id : detector.getRootIDs())
        if (matches(detector.getNode(id), truth))
            found.push_back(id);
    return found;
}

// Blocks x0..x1, y0..y1 of the layer z = 0 filled with the exact distances of `scene`.
template <typename Grid>
Solid::IndexSet exactLayer(Grid& grid, const AnalyticScene& scene, int x0, int x1, int y0, int y1) {
    Velmora::Test::configureGrid(grid, kCellSize);
    std::vector<Solid::KeyType> keys;
    Solid::IndexSet blocks;
    for (int x = x0; x <= x1; ++x)
        for (int y = y0; y <= y1; ++y) {
            keys.emplace_back(x, y, 0);
            blocks.insert(keys.back());
        }
    Velmora::Test::writeExactBlocks(grid, scene, kTruncation, keys);
    return blocks;
}

AnalyticScene floorAt(double height) {
    AnalyticScene scene;
    scene.add(Velmora::Test::makeHalfSpace({0, 0, 1}, height, 1, {0, 0, 0}));
    return scene;
}

template <typename Grid>
class BlockPlaneFit : public ::testing::Test {};
using DistanceGrids = ::testing::Types<Solid::DepthGrid, Solid::LabelDepthGrid>;
TYPED_TEST_SUITE(BlockPlaneFit, DistanceGrids);

TYPED_TEST(BlockPlaneFit, ReweightingBeatsLeastSquaresAndBlocksWithoutAPlaneLoseTheirLeaf) {
    // A floor at z = 0.1 and a box whose corner stands in the same block; every fit is accepted.
    AnalyticScene scene = floorAt(0.1);
    scene.add(Velmora::Test::makeBox({0.3, 0.3, 0.0}, {1.0, 1.0, 0.5}, 1, {0, 0, 0}));
    TypeParam grid;
    const Solid::IndexSet blocks = exactLayer(grid, scene, 0, 0, 0, 0);
    const Solid::KeyType key(0, 0, 0);
    // Without and with reweighting: the angle of the fitted normal to the vertical, and the error
    // of its constant.
    PlaneDetector detectors[2];
    float angle[2], depthError[2];
    for (int robust = 0; robust < 2; ++robust) {
        detectors[robust].configure(kTruncation, 1.0f, kMaxAngle, robust ? 10 : 0, 0.0f);
        detectors[robust].fitPlanes(grid, blocks);
        ASSERT_NE(detectors[robust].getNodeID(key), PlaneDetector::INVALID);
        const auto& fit = detectors[robust].getNode(detectors[robust].getNodeID(key)).plane;
        angle[robust] = std::acos(std::min(1.0f, fit.getNormal()(2)));
        depthError[robust] = std::abs(fit.getDepth() + 0.1f);
    }
    EXPECT_LT(angle[1], 0.02f);
    EXPECT_LT(depthError[1], 0.005f);
    EXPECT_LT(angle[1], 0.5f * angle[0]);
    EXPECT_LT(depthError[1], depthError[0]);

    // Refitted after the surface has left the block (no samples in the band), the leaf goes; a
    // block that does not exist is dropped as well, and neither is an error.
    exactLayer(grid, floorAt(5.0), 0, 0, 0, 0);
    Solid::IndexSet refit = blocks;
    refit.insert(Solid::KeyType(7, 7, 7));
    detectors[1].fitPlanes(grid, refit);
    EXPECT_EQ(detectors[1].getNodeID(key), PlaneDetector::INVALID);
    EXPECT_EQ(detectors[1].numLeafNodes(), 0u);
    EXPECT_TRUE(detectors[1].blockSamples().at(key).empty());
}

TEST(Plane3DEquationsDeathTest, SumsSolveErrorsAndBrokenInputs) {
    // Samples of the field s = z - 0.5 on a small lattice; a second system on the same plane.
    const auto system = [](float zOffset, int rows) {
        AR::Math::Matrix<float> X(rows, 4);
        AR::Math::Vector<float> s(rows);
        for (int i = 0; i < rows; ++i) {
            X(i, 0) = 0.1f * static_cast<float>(i % 3);
            X(i, 1) = 0.1f * static_cast<float>(i / 3 % 3);
            X(i, 2) = zOffset + 0.05f * static_cast<float>(i / 9);
            X(i, 3) = 1.0f;
            s[i] = X(i, 2) - 0.5f;
        }
        return Solid::Plane3DEquations<float>(X, s);
    };
    const auto a = system(0.4f, 27);
    const auto b = system(0.6f, 18);
    EXPECT_EQ(a.getNumNegSamples() + a.getNumPosSamples(), 18u) << "nine lie exactly at 0";
    const auto sum = a + b;
    EXPECT_EQ(sum.size(), 45u);
    EXPECT_EQ(sum.getNumBlocks(), 2u);
    AR::CV::Geometry::Plane3D<float> plane;
    ASSERT_TRUE(sum.solve(plane));
    EXPECT_NEAR(plane.getNormal()(2), 1.0f, 1e-4f);
    EXPECT_NEAR(plane.getDepth(), -0.5f, 1e-4f);
    // A plane 0.1 m off gives that residual everywhere: sqrt(n / (n - 1)) * 0.1.
    const AR::CV::Geometry::Plane3D<float> shifted(
        AR::Math::Vector<float, 4>(0.f, 0.f, 1.f, -0.4f));
    EXPECT_NEAR(sum.stdError(shifted), 0.1f * std::sqrt(45.0f / 44.0f), 1e-3f);
    EXPECT_EQ((sum - b).getNumBlocks(), 1u);

    AR::Math::Matrix<float> X(3, 4);
    AR::Math::Vector<float> s(3);
    X(1, 1) = std::nanf("");
    EXPECT_DEATH(Solid::Plane3DEquations<float>(X, s), "isCorrupted");
    // A field that is zero everywhere has no direction: no plane, but no abort either, since
    // legal frames can leave every sample of a block on the surface.
    X(1, 1) = 0.0f;
    EXPECT_FALSE(Solid::Plane3DEquations<float>(X, s).solve(plane));
    EXPECT_DEATH(AR::CV::Geometry::Plane3D<float>(AR::Math::Vector<float, 4>::zeros()), "isValid");
}

// Every leaf ends at a valid root or is alone; a root holds the sums of its blocks.
void expectConsistent(const PlaneDetector& detector) {
    size_t leaves = 0;
    for (PlaneID id = 1; id < detector.numCreatedNodes(); ++id) {
        const PlaneDetector::Node& node = detector.getNode(id);
        if (node.isLeaf()) {
            ++leaves;
            const PlaneDetector::Node& root = detector.getNode(detector.getRootID(id));
            EXPECT_TRUE(root.isRoot() || root.id == id) << "leaf " << id;
            EXPECT_EQ(detector.getRootID(*node.blocks.begin()), root.id);
        }
        if (node.isRoot()) {
            EXPECT_EQ(node.equations.getNumBlocks(), node.blocks.size()) << "root " << id;
        }
    }
    EXPECT_EQ(leaves, detector.numLeafNodes());
}

// Floor, the four walls and the table top of the furnished room.
const TruePlane kRoomPlanes[] = {
    {Vec3(0.f, 0.f, 1.f), 0.f},
    {Vec3(1.f, 0.f, 0.f), 0.f},
    {Vec3(-1.f, 0.f, 0.f), 4.f},
    {Vec3(0.f, 1.f, 0.f), 0.f},
    {Vec3(0.f, -1.f, 0.f), 3.f},
    {Vec3(0.f, 0.f, 1.f), -static_cast<float>(Velmora::Test::kTableTop)},
};

TEST(PlaneForest, EachPlaneOfTheRoomIsOneRootAndRemovalsKeepTheForestConsistent) {
    Solid::DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    for (const auto& camera : Velmora::Test::roomTour(160, 120, 24))
        Velmora::Test::fuseView(grid, Velmora::Test::furnishedRoom(), camera, kTruncation);
    PlaneDetector detector;
    detector.configure(kTruncation, kMaxStdError, kMaxAngle, kIterations, 0.0f);
    Solid::IndexSet allBlocks;
    grid.for_each(
        [&](const Solid::KeyType& key, const Solid::DepthVolume&) { allBlocks.insert(key); });
    detector.fitPlanes(grid, allBlocks);
    const Solid::PlaneIDSet roots = detector.mergePlanes(allBlocks);
    for (const TruePlane& truth : kRoomPlanes)
        EXPECT_EQ(rootsOf(detector, truth).size(), 1u) << truth.offset;
    // Every root of this first update is new.
    EXPECT_EQ(roots.size(), detector.getRootIDs().size());
    expectConsistent(detector);

    // Removing the table's blocks shrinks its root, solved again, and finally kills it.
    const PlaneID tableRoot = rootsOf(detector, kRoomPlanes[5]).at(0);
    std::vector<Solid::KeyType> blocks(detector.getNode(tableRoot).blocks.begin(),
                                       detector.getNode(tableRoot).blocks.end());
    ASSERT_GE(blocks.size(), 3u);
    const PlaneID firstLeaf = detector.getNodeID(blocks[0]);
    detector.removeLeafNode(blocks[0]);
    EXPECT_TRUE(detector.getNode(tableRoot).isRoot());
    EXPECT_EQ(detector.getNode(tableRoot).blocks.size(), blocks.size() - 1);
    EXPECT_TRUE(matches(detector.getNode(tableRoot), kRoomPlanes[5]));
    EXPECT_FALSE(detector.getNode(firstLeaf).isValid());
    EXPECT_EQ(detector.getRootID(blocks[0]), PlaneDetector::INVALID);
    for (const Solid::KeyType& key : blocks)
        detector.removeLeafNode(key);
    EXPECT_EQ(detector.getNode(tableRoot).id, PlaneDetector::INVALID);
    EXPECT_EQ(detector.getRootID(firstLeaf), tableRoot) << "the dead leaf's link stays";
    EXPECT_EQ(detector.getRootIDs().count(tableRoot), 0u);
    expectConsistent(detector);
}

TEST(PlaneMerging, ALowBoxTopStaysApartFromTheFloor) {
    // A floor at z = 0.1 with a flat box on it whose top is 0.2 m higher: the joint plane of the
    // whole floor and the box top fits the sum well (the floor outweighs the box), so only the
    // separate test of each part keeps them apart.
    AnalyticScene scene = floorAt(0.1);
    scene.add(Velmora::Test::makeBox({1.2, 0.4, 0.0}, {2.0, 1.2, 0.3}, 2, {0, 0, 0}));
    Solid::DepthGrid grid;
    const Solid::IndexSet blocks = exactLayer(grid, scene, -2, 6, -2, 5);
    PlaneDetector detector;
    detector.configure(kTruncation, kMaxStdError, kMaxAngle, kIterations, 0.0f);
    detector.fitPlanes(grid, blocks);
    detector.mergePlanes(blocks);
    const std::vector<PlaneID> floorRoots = rootsOf(detector, {Vec3(0.f, 0.f, 1.f), -0.1f});
    ASSERT_EQ(floorRoots.size(), 1u);
    size_t boxTopLeaves = 0;
    for (PlaneID id = 1; id < detector.numCreatedNodes(); ++id) {
        const PlaneDetector::Node& node = detector.getNode(id);
        if (node.isLeaf() && matches(node, {Vec3(0.f, 0.f, 1.f), -0.3f})) {
            ++boxTopLeaves;
            EXPECT_NE(detector.getRootID(id), floorRoots[0]);
        }
    }
    EXPECT_GE(boxTopLeaves, 2u);
}

TEST(PlaneMerging, AShallowCreaseIsNotMergedAcross) {
    // Two slopes meeting in a valley along x = 1.6 (a block face), their normals 1.5 times the
    // merge angle apart. The error bound is generous, so only the angle between the two parents
    // keeps them apart: the merged normal lies within the angle of each.
    const float a = 0.75f * kMaxAngle;
    const Vec3 valley(1.6f, 0.f, 0.2f);
    AnalyticScene scene;
    for (const Vec3& n :
         {Vec3(std::sin(a), 0.f, std::cos(a)), Vec3(-std::sin(a), 0.f, std::cos(a))})
        scene.add(Velmora::Test::makeHalfSpace({n(0), n(1), n(2)}, AR::Math::dot(n, valley), 1,
                                               {0, 0, 0}));
    Solid::DepthGrid grid;
    const Solid::IndexSet blocks = exactLayer(grid, scene, 0, 7, 0, 3);
    PlaneDetector detector;
    detector.configure(kTruncation, 0.1f, kMaxAngle, kIterations, 0.0f);
    detector.fitPlanes(grid, blocks);
    detector.mergePlanes(blocks);
    int sides[2] = {0, 0};
    for (const PlaneID id : detector.getRootIDs()) {
        int leftBlocks = 0;
        for (const Solid::KeyType& key : detector.getNode(id).blocks)
            leftBlocks += key(0) < 4;
        const size_t size = detector.getNode(id).blocks.size();
        EXPECT_TRUE(leftBlocks == 0 || leftBlocks == static_cast<int>(size)) << "root " << id;
        ++sides[leftBlocks > 0];
    }
    EXPECT_GT(sides[0], 0);
    EXPECT_GT(sides[1], 0);
}

// Twice the signed area of a closed polygon in x and y.
double shoelace(const std::vector<Vec3>& ring) {
    double area = 0.0;
    for (size_t i = 0; i + 1 < ring.size(); ++i)
        area += static_cast<double>(ring[i](0)) * ring[i + 1](1) -
                static_cast<double>(ring[i + 1](0)) * ring[i](1);
    return area;
}

// An L-shaped floor at z = 0.1: 2.4 m square less the corner column from (1.2, 1.2) on.
TEST(LShapedFloor, AlphaShapeIsConcaveWhereTheHullIsNot) {
    AnalyticScene scene = floorAt(0.1);
    scene.add(Velmora::Test::makeBox({1.2, 1.2, 0.0}, {5.0, 5.0, 3.0}, 2, {0, 0, 0}));
    Solid::DepthGrid grid;
    const Solid::IndexSet blocks = exactLayer(grid, scene, 0, 5, 0, 5);
    // The floor root of a detector with contour parameter `alpha`, brought up to date as the
    // scene's query does.
    const auto detect = [&](PlaneDetector& detector, float alpha) -> const PlaneDetector::Node& {
        detector.configure(kTruncation, 0.01f, kMaxAngle, kIterations, alpha);
        detector.fitPlanes(grid, blocks);
        const Solid::PlaneIDSet roots = detector.mergePlanes(blocks);
        detector.updateGeometry(grid, roots);
        detector.updateContours(grid, roots);
        EXPECT_EQ(roots.size(), 1u);
        return detector.getNode(roots.empty() ? PlaneDetector::INVALID : *roots.begin());
    };
    PlaneDetector hullDetector, alphaDetector;
    const PlaneDetector::Node& hull = detect(hullDetector, 0.0f);
    const PlaneDetector::Node& alpha = detect(alphaDetector, 0.15f);
    for (const auto* node : {&hull, &alpha}) {
        ASSERT_GE(node->contour.size(), 4u);
        EXPECT_EQ(node->contour.front(), node->contour.back()) << "closed";
        for (const Vec3& p : node->contour)
            EXPECT_NEAR(p(2), 0.1f, 0.002f) << "on the plane";
        // Geometry: lattice points of the floor within the slab, projected onto it.
        EXPECT_GT(node->geometry.size(), 1000u);
    }
    // The L covers 2.4^2 - 1.2^2 = 4.32 m^2, plus the samples in the band (0.1 m) inside the
    // column's two walls that still lie on the floor's plane: about 4.6. The hull adds the
    // triangle across the corner.
    const double alphaArea = std::abs(shoelace(alpha.contour)) / 2.0;
    EXPECT_NEAR(alphaArea, 4.7, 0.3);
    EXPECT_GT(std::abs(shoelace(hull.contour)) / 2.0, alphaArea + 0.2);
}

TEST(PlaneDetectorDeathTest, OutOfRangeIdentitiesAbort) {
    PlaneDetector detector;
    EXPECT_DEATH(detector.getNode(1), "id < mPlanes.size");
    EXPECT_DEATH(detector.getRootID(PlaneID(5)), "numCreatedNodes");
}

}  // namespace
