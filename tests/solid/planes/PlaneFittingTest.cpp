// Plane fitting: the normal equations and their sums, the robust solver against plain least
// squares on outliers, and the leaves that fitPlanes makes from blocks of both depth-bearing
// sample types.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "solid/planes/PlaneDetector.h"
#include "support/FusedGrid.h"
#include "support/PlaneScenes.h"

namespace {

using Solid::PlaneDetector;
using Velmora::Test::AnalyticScene;
using Velmora::Test::Vec3d;

constexpr float kCellSize = 0.05f;
constexpr float kTruncation = 0.25f;
// Generous: every block fit is accepted, so that the tests see the fits themselves.
constexpr float kAnyStdError = 1.0f;
constexpr float kMaxAngle = 0.1f;
constexpr uint32_t kRobustIterations = 10;

// Angle in radians between a fitted normal and the truth.
float angleTo(const Solid::Vec3& normal, const Vec3d& truth) {
    const double dot = normal(0) * truth[0] + normal(1) * truth[1] + normal(2) * truth[2];
    return static_cast<float>(std::acos(std::min(1.0, dot)));
}

Vec3d normalised(Vec3d v) {
    const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    return {v[0] / length, v[1] / length, v[2] / length};
}

// A plane with normal `n` through `point`, solid behind it.
AnalyticScene planeScene(const Vec3d& n, const Vec3d& point) {
    AnalyticScene scene;
    scene.add(Velmora::Test::makeHalfSpace(n, n[0] * point[0] + n[1] * point[1] + n[2] * point[2],
                                           1, {0, 0, 0}));
    return scene;
}

template <typename Grid>
class BlockPlaneFit : public ::testing::Test {
protected:
    BlockPlaneFit() { Velmora::Test::configureGrid(grid, kCellSize); }

    // Fits block (0, 0, 0) with `iterations` rounds after the first; the leaf's plane, or none.
    const PlaneDetector::Node* fit(const AnalyticScene& scene, uint32_t iterations) {
        Velmora::Test::writeExactBlocks(grid, scene, kTruncation, {key});
        detector = std::make_unique<PlaneDetector>();
        detector->configure(kTruncation, kAnyStdError, kMaxAngle, iterations, 0.0f);
        Solid::IndexSet blocks;
        blocks.insert(key);
        detector->fitPlanes(grid, blocks);
        const Solid::PlaneID id = detector->getNodeID(key);
        return id == PlaneDetector::INVALID ? nullptr : &detector->getNode(id);
    }

    Grid grid;
    std::unique_ptr<PlaneDetector> detector;
    const Solid::KeyType key{0, 0, 0};
};

using DistanceGrids = ::testing::Types<Solid::DepthGrid, Solid::LabelDepthGrid>;
TYPED_TEST_SUITE(BlockPlaneFit, DistanceGrids);

TYPED_TEST(BlockPlaneFit, TiltedPlaneIsRecovered) {
    const Vec3d n = normalised({0.3, -0.2, 1.0});
    const Vec3d through{0.2, 0.2, 0.2};
    const PlaneDetector::Node* leaf = this->fit(planeScene(n, through), kRobustIterations);
    ASSERT_NE(leaf, nullptr);
    EXPECT_TRUE(leaf->isLeaf());
    EXPECT_LT(angleTo(leaf->plane.getNormal(), n), 0.01f);
    // Offset: the plane passes within a millimetre of the point it was made through.
    const Solid::Vec3 p(0.2f, 0.2f, 0.2f);
    EXPECT_NEAR(AR::Math::dot(leaf->plane.getNormal(), p) + leaf->plane.getDepth(), 0.0f, 1e-3f);
    EXPECT_EQ(leaf->equations.getNumBlocks(), 1u);
    EXPECT_EQ(leaf->blocks.size(), 1u);
}

TYPED_TEST(BlockPlaneFit, ReweightingBeatsLeastSquaresOnABoxCorner) {
    // A floor at z = 0.1 and a box whose corner stands in the same block.
    const Vec3d up{0.0, 0.0, 1.0};
    AnalyticScene scene = planeScene(up, {0.0, 0.0, 0.1});
    scene.add(Velmora::Test::makeBox({0.3, 0.3, 0.0}, {1.0, 1.0, 0.5}, 1, {0, 0, 0}));
    const PlaneDetector::Node* plain = this->fit(scene, 0);
    ASSERT_NE(plain, nullptr);
    const float plainAngle = angleTo(plain->plane.getNormal(), up);
    const float plainOffset = std::abs(plain->plane.getDepth() + 0.1f);
    const PlaneDetector::Node* robust = this->fit(scene, kRobustIterations);
    ASSERT_NE(robust, nullptr);
    const float robustAngle = angleTo(robust->plane.getNormal(), up);
    EXPECT_LT(robustAngle, 0.02f);
    EXPECT_NEAR(robust->plane.getDepth(), -0.1f, 0.005f);
    EXPECT_LT(robustAngle, 0.5f * plainAngle);
    EXPECT_LT(std::abs(robust->plane.getDepth() + 0.1f), plainOffset);
}

TYPED_TEST(BlockPlaneFit, BlocksWithoutAPlaneLoseTheirLeaf) {
    const Vec3d up{0.0, 0.0, 1.0};
    ASSERT_NE(this->fit(planeScene(up, {0.0, 0.0, 0.2}), 2), nullptr);
    // The same detector refits the block after the surface has left it: no samples in the band.
    Velmora::Test::writeExactBlocks(this->grid, planeScene(up, {0.0, 0.0, 5.0}), kTruncation,
                                    {this->key});
    Solid::IndexSet blocks;
    blocks.insert(this->key);
    this->detector->fitPlanes(this->grid, blocks);
    EXPECT_EQ(this->detector->getNodeID(this->key), PlaneDetector::INVALID);
    EXPECT_EQ(this->detector->numLeafNodes(), 0u);
    EXPECT_TRUE(this->detector->blockSamples().at(this->key).empty());
    // A band narrower than two samples (a loaded volume may bring a coarser spacing) fits
    // nothing, and it is no error either.
    Velmora::Test::writeExactBlocks(this->grid, planeScene(up, {0.0, 0.0, 0.2}), kTruncation,
                                    {this->key});
    PlaneDetector narrow;
    narrow.configure(2.0f * kCellSize, kAnyStdError, kMaxAngle, 2, 0.0f);
    narrow.fitPlanes(this->grid, blocks);
    EXPECT_EQ(narrow.numLeafNodes(), 0u);
    // A block that does not exist is dropped as well, and it is no error.
    blocks.insert(Solid::KeyType(7, 7, 7));
    this->detector->fitPlanes(this->grid, blocks);
    EXPECT_EQ(this->detector->getRootID(Solid::KeyType(7, 7, 7)), PlaneDetector::INVALID);
}

TEST(Plane3DEquations, SumsSolveAndErrors) {
    // Samples of the field s = z - 0.5 on a small lattice; a second system on the same plane.
    const auto system = [](float zOffset, int rows) {
        AR::Math::Matrix<float> X(rows, 4);
        AR::Math::Vector<float> s(rows);
        for (int i = 0; i < rows; ++i) {
            const float x = 0.1f * static_cast<float>(i % 3);
            const float y = 0.1f * static_cast<float>(i / 3 % 3);
            const float z = zOffset + 0.05f * static_cast<float>(i / 9);
            X(i, 0) = x;
            X(i, 1) = y;
            X(i, 2) = z;
            X(i, 3) = 1.0f;
            s[i] = z - 0.5f;
        }
        return Solid::Plane3DEquations<float>(X, s);
    };
    const auto a = system(0.4f, 27);
    const auto b = system(0.6f, 18);
    EXPECT_EQ(a.size(), 27u);
    EXPECT_EQ(a.getNumNegSamples() + a.getNumPosSamples(), 18u) << "nine lie exactly at 0";
    const auto sum = a + b;
    EXPECT_EQ(sum.size(), 45u);
    EXPECT_EQ(sum.getNumBlocks(), 2u);
    AR::CV::Geometry::Plane3D<float> plane;
    ASSERT_TRUE(sum.solve(plane));
    EXPECT_NEAR(plane.getNormal()(2), 1.0f, 1e-4f);
    EXPECT_NEAR(plane.getDepth(), -0.5f, 1e-4f);
    EXPECT_NEAR(sum.stdError(plane), 0.0f, 1e-3f);
    // A plane 0.1 m off gives that residual everywhere: sqrt(n / (n - 1)) * 0.1.
    const AR::CV::Geometry::Plane3D<float> shifted(
        AR::Math::Vector<float, 4>(0.f, 0.f, 1.f, -0.4f));
    EXPECT_NEAR(sum.stdError(shifted), 0.1f * std::sqrt(45.0f / 44.0f), 1e-3f);
    const auto back = sum - b;
    EXPECT_EQ(back.size(), a.size());
    EXPECT_EQ(back.getNumBlocks(), 1u);
    // Samples on one line in a 3-D field: rank deficient, no plane.
    AR::Math::Matrix<float> line(4, 4);
    AR::Math::Vector<float> values(4);
    for (int i = 0; i < 4; ++i) {
        line(i, 0) = 0.1f * static_cast<float>(i);
        line(i, 3) = 1.0f;
        values[i] = 0.1f * static_cast<float>(i) - 0.15f;
    }
    AR::CV::Geometry::Plane3D<float> untouched;
    EXPECT_FALSE(Solid::Plane3DEquations<float>(line, values).solve(untouched));
    EXPECT_FALSE(untouched.isValid());
}

TEST(Plane3DEquationsDeathTest, BrokenInputsAbort) {
    AR::Math::Matrix<float> X(3, 4);
    AR::Math::Vector<float> s(3);
    X(1, 1) = std::nanf("");
    EXPECT_DEATH(Solid::Plane3DEquations<float>(X, s), "isCorrupted");
    // A field that is zero everywhere has no direction: no plane, but no abort either, since
    // legal frames can leave every sample of a block on the surface.
    X(1, 1) = 0.0f;
    AR::CV::Geometry::Plane3D<float> plane;
    EXPECT_FALSE(Solid::Plane3DEquations<float>(X, s).solve(plane));
    EXPECT_DEATH(AR::CV::Geometry::Plane3D<float>(AR::Math::Vector<float, 4>::zeros()), "isValid");
}

}  // namespace
