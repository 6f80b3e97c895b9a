// Collision, clearance and placement against a fused floor and wall.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <tuple>

#include "math/Pose.h"
#include "math/SolidTypes.h"
#include "support/SceneSetup.h"
#include "velmora/Velmora.h"

namespace Velmora {
namespace {

using Test::AnalyticScene;
using Test::PinholeCamera;

constexpr float kCellSize = 0.02f;
constexpr float kTruncation = 0.1f;
constexpr int32_t kCombined = 0;
constexpr int32_t kSplit = 1;
constexpr uint8_t kFloorLabel = 7;
constexpr uint8_t kWallLabel = 9;
// A fused surface lies within one cell of the true one; lattice answers snap to cells.
constexpr float kCellTolerance = kCellSize;

// Solid floor below y = 0 and a solid wall beyond x = 2.
AnalyticScene floorAndWall() {
    AnalyticScene scene;
    scene.add(Test::makeHalfSpace({0, 1, 0}, 0.0, kFloorLabel, {200, 180, 150}));
    scene.add(Test::makeHalfSpace({-1, 0, 0}, -2.0, kWallLabel, {180, 200, 220}));
    return scene;
}

std::unique_ptr<IVelmora> fusedScene(int32_t mode) {
    std::unique_ptr<IVelmora> scene = Test::makeInitialisedScene(mode, kCellSize, kTruncation);
    for (const Test::Pose& view : {
             Test::lookAt({1.0, 1.0, 1.0}, {2.0, 1.0, 1.0}, {0, 1, 0}),  // the wall head-on
             Test::lookAt({1.0, 1.0, 1.0}, {1.0, 0.0, 1.0}, {1, 0, 0}),  // straight down
             Test::lookAt({1.2, 0.8, 1.0}, {2.0, 0.0, 1.0}, {0, 1, 0}),  // the corner
         }) {
        PinholeCamera camera;
        camera.T_world_camera = view;
        Test::fuseView(*scene, mode, floorAndWall(), camera, false);
    }
    return scene;
}

// A query's answer: its outcome, the distance within `tolerance`, and the point's x within a cell
// of `x` (and y near the shape's) or, for NAN, the origin.
struct Answer {
    IntersectionResult r;
    int collision;
    float distance, tolerance, x;
};

// Collision and clearance of point, box and sphere against the wall in split mode; combined mode
// keeps no depth grid for collisions, so there every answer is unknown space.
TEST(Queries, CollisionAndClearanceToAWall) {
    auto split = fusedScene(kSplit), combined = fusedScene(kCombined);
    IVelmora& s = *split;
    const float none = NAN, cell = kCellSize, inf = std::numeric_limits<float>::infinity();
    const IntersectionResult box =
        s.intersectAxisAlignedBox({1.93f, 1, 1}, {0.02f, 0.1f, 0.1f}, 0.5f);
    const Answer answers[] = {
        // Behind the wall's surface, within the band: the nearest lattice point is occupied, at
        // most half a cell diagonal away.
        {s.intersectPoint({2.03f, 1, 1}, 0.5f), 1, 0.0f, 0.5f * std::sqrt(3.0f) * cell, 2.03f},
        // Observed free space 10 cm in front: the nearest sample at or behind the surface is on
        // the wall, straight ahead; an infinite search is no different.
        {s.intersectPoint({1.9f, 1, 1}, 0.5f), 0, 0.1f, cell, 2.0f},
        {s.intersectPoint({1.9f, 1, 1}, inf), 0, 0.1f, cell, 2.0f},
        // Nothing within 5 cm, or no search at all; never observed, or not a place at all.
        {s.intersectPoint({1.9f, 1, 1}, 0.05f), 0, -1.0f, 0.0f, none},
        {s.intersectPoint({1.9f, 1, 1}, -1.0f), 0, -1.0f, 0.0f, none},
        {s.intersectPoint({-5, 1, 1}, 0.5f), 2, -1.0f, 0.0f, none},
        {s.intersectPoint({1, inf, 1}, NAN), 2, -1.0f, 0.0f, none},
        // A thin free box 6 cm in front: the narrow search within the truncation finds the wall,
        // and so does the full search a search distance below the truncation goes to.
        {box, 0, 0.06f, cell, 2.0f},
        {s.intersectAxisAlignedBox({1.93f, 1, 1}, {0.02f, 0.1f, 0.1f}, 0.09f), 0, box.distance, 0,
         2},
        // Into the wall at distance 0, from far out in space never observed.
        {s.intersectAxisAlignedBox({1, 1, 1}, {2.1f, 0.04f, 0.04f}, 0.5f), 1, 0.0f, 0.0f, 2.0f},
        // Unknown space with nothing near: the box says -1.0, the sphere maxDistance - radius.
        {s.intersectAxisAlignedBox({-5, 1, 1}, {0.2f, 0.2f, 0.2f}, 0.3f), 2, -1.0f, 0.0f, none},
        {s.intersectSphere({-5, 1, 1}, 0.1f, 0.3f), 2, 0.2f, 1e-7f, none},
        {s.intersectSphere({-5, 1, 1}, 0.1f, 0.0f), 2, -1.0f, 0.0f, none},
        // A small free sphere: the clearance of its centre less the radius; one into the wall
        // collides at a point within its radius.
        {s.intersectSphere({1.93f, 1, 1}, 0.02f, 0.5f), 0, 0.05f, cell, 2.0f},
        {s.intersectSphere({2, 1, 1}, 0.05f, 0.5f), 1, 0.0f, 0.0f, 2.0f},
        {combined->intersectPoint({2.03f, 1, 1}, 0.5f), 2, -1.0f, 0.0f, none},
        {combined->intersectAxisAlignedBox({2, 1, 1}, {0.1f, 0.1f, 0.1f}, 0.5f), 2, -1, 0, none},
        {combined->intersectSphere({2, 1, 1}, 0.05f, 0.5f), 2, -1.0f, 0.0f, none},
    };
    for (size_t i = 0; i < std::size(answers); ++i) {
        const Answer& a = answers[i];
        EXPECT_EQ(a.r.collision, a.collision) << "answer " << i;
        EXPECT_NEAR(a.r.distance, a.distance, a.tolerance) << "answer " << i;
        if (std::isnan(a.x)) {
            EXPECT_TRUE(a.r.point.x == 0 && a.r.point.y == 0 && a.r.point.z == 0) << i;
        } else {
            const float off = a.collision == 1 ? 0.05f : 0.0f;  // within the shape colliding
            EXPECT_NEAR(a.r.point.x, a.x, cell + off) << "answer " << i;
            EXPECT_NEAR(a.r.point.y, 1.0f, 0.05f) << "answer " << i;
        }
    }
    // Enormous, inverted and non-finite shapes end with a plain answer.
    EXPECT_EQ(s.intersectAxisAlignedBox({0, 0, 0}, {inf, inf, inf}, 0.5f).collision, 1);
    EXPECT_EQ(s.intersectAxisAlignedBox({1.9f, 1, 1}, {-1, -1, -1}, 0.5f).collision, 0);
    EXPECT_EQ(s.intersectSphere({NAN, 1, 1}, 1.0f, 1e30f).collision, 2);
    EXPECT_EQ(s.intersectSphere({1, 1, 1}, 1e30f, 1e30f).collision, 1);
}

class Placement : public ::testing::TestWithParam<int32_t> {};

// Down onto the floor along a slanted, unnormalised line, and straight at the wall (an absurd
// search distance changes nothing): on the line, on the surface, the object's y along the
// normal and its z the reference crossed with it, and the surface's label (split mode fuses no
// labels here). Straight down with the reference along the normal: the world's frame.
TEST_P(Placement, OnAFloorAndOnAWall) {
    auto scene = fusedScene(GetParam());
    const uint16_t floorLabel = GetParam() == kCombined ? kFloorLabel : 0;
    const uint16_t wallLabel = GetParam() == kCombined ? kWallLabel : 0;
    const XrVector3fVLM start{1.0f, 1.0f, 1.0f}, down{0.2f, -1.0f, 0.1f};
    const struct {
        XrVector3fVLM direction, reference;
        float maxDistance;
        Solid::Vec3 normal, z;
        uint16_t label;
    } placements[] = {
        {down, {1, 0, 0}, 3.0f, {0, 1, 0}, {0, 0, 1}, floorLabel},
        {down, {0, 0, 1}, 3.0f, {0, 1, 0}, {-1, 0, 0}, floorLabel},
        {{0, -1, 0}, {0, 1, 0}, 3.0f, {0, 1, 0}, {0, 0, 1}, floorLabel},
        {{1, 0, 0}, {0, 1, 0}, 3.0f, {-1, 0, 0}, {0, 0, 1}, wallLabel},
        {{1, 0, 0}, {0, 1, 0}, 1e30f, {-1, 0, 0}, {0, 0, 1}, wallLabel},
    };
    PlacementInfo info{};
    for (const auto& c : placements) {
        ASSERT_EQ(scene->getPlacementInfo(start, c.direction, c.reference, info, c.maxDistance),
                  kSuccess);
        ASSERT_EQ(info.result, 1);
        const XrVector3fVLM& p = info.poseLocalToWorld.position;
        const XrQuaternionfVLM& q = info.poseLocalToWorld.orientation;
        const auto R = AR::Math::quaternionToRotation(q.x, q.y, q.z, q.w);
        const Solid::Vec3 y = R.col(1), z = R.col(2);
        // Normals from a fused, quantised field are within a few degrees of the true ones.
        EXPECT_LT(AR::Math::norm(y - c.normal) + AR::Math::norm(z - c.z), 0.1f);
        EXPECT_EQ(info.label, c.label);
        if (c.normal(1) > 0) {  // on the floor, on the line
            EXPECT_NEAR(p.y, 0.0f, kCellTolerance);
            EXPECT_NEAR(p.x, 1.0f + c.direction.x / -c.direction.y * (1.0f - p.y), 1e-4f);
            EXPECT_NEAR(p.z, 1.0f + c.direction.z / -c.direction.y * (1.0f - p.y), 1e-4f);
        } else {
            EXPECT_NEAR(p.x, 2.0f, kCellTolerance);
            EXPECT_FLOAT_EQ(p.y, 1.0f);
        }
    }
    ASSERT_EQ(scene->getPlacementInfo(start, {0, -1, 0}, {0, 1, 0}, info, 3.0f), kSuccess);
    EXPECT_NEAR(info.poseLocalToWorld.orientation.w, 1.0f, 1e-6f);

    // Nothing up there, the wall out of reach, and a line from behind the wall: result 0, still
    // a success. Input the host can get wrong: codes for the directions, no result for the rest;
    // a long but finite direction normalises.
    const float nan = std::nanf(""), inf = std::numeric_limits<float>::infinity();
    const std::tuple<XrVector3fVLM, XrVector3fVLM, XrVector3fVLM, float, XrResultVLM, int>
        hostile[] = {{start, {0, 1, 0}, {0, 1, 0}, 3.0f, kSuccess, 0},
                     {start, {1, 0, 0}, {0, 1, 0}, 0.5f, kSuccess, 0},
                     {{2.05f, 1, 1}, {1, 0, 0}, {0, 1, 0}, 3.0f, kSuccess, 0},
                     {start, {0, 0, 0}, {1, 0, 0}, 3.0f, kErrorDirectionZero, 0},
                     {start, {nan, 1, 0}, {1, 0, 0}, 3.0f, kErrorDirectionZero, 0},
                     {start, {inf, 1, 0}, {1, 0, 0}, 3.0f, kErrorDirectionZero, 0},
                     {start, down, {nan, 0, 0}, 3.0f, kErrorInvalidArgument, 0},
                     {start, {1e30f, 0, 0}, {0, 1, 0}, 3.0f, kSuccess, 1},
                     {{1, inf, 1}, down, {1, 0, 0}, 3.0f, kSuccess, 0},
                     {start, down, {1, 0, 0}, nan, kSuccess, 0}};
    for (const auto& [from, direction, reference, distance, code, result] : hostile) {
        info.result = 7;
        EXPECT_EQ(scene->getPlacementInfo(from, direction, reference, info, distance), code);
        EXPECT_EQ(info.result, code == kSuccess ? result : 7);
    }
}

INSTANTIATE_TEST_SUITE_P(RunModes, Placement, ::testing::Values(kCombined, kSplit));

}  // namespace
}  // namespace Velmora
