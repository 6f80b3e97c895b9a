// The scene's spatial queries on views fused through submitImages: collision and clearance of
// point, box and sphere against a wall (split mode), the mappings of fruitless searches, the
// sphere's own rule, and placement on a floor and a wall in both run modes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

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
// Normals from a fused, quantised field are within a few degrees of the true ones.
constexpr float kAxisTolerance = 0.05f;

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

Solid::Vec3 toVec(const XrVector3fVLM& v) {
    return Solid::Vec3(v.x, v.y, v.z);
}

void expectOrigin(const XrVector3fVLM& p) {
    EXPECT_EQ(p.x, 0.0f);
    EXPECT_EQ(p.y, 0.0f);
    EXPECT_EQ(p.z, 0.0f);
}

TEST(Queries, PointCollisionAndClearanceToAWall) {
    auto scene = fusedScene(kSplit);
    // Behind the wall's surface, within the band: the nearest lattice point is occupied, and the
    // distance is the gap to it, at most half a cell diagonal.
    IntersectionResult r = scene->intersectPoint({2.03f, 1.0f, 1.0f}, 0.5f);
    EXPECT_EQ(r.collision, 1);
    EXPECT_LE(r.distance, 0.5f * std::sqrt(3.0f) * kCellSize + 1e-6f);
    EXPECT_NEAR(r.point.x, 2.03f, 0.5f * kCellSize + 1e-6f);
    EXPECT_NEAR(r.point.y, 1.0f, 1e-5f);

    // Observed free space 10 cm in front of it: the nearest sample at or behind the surface is
    // on the wall, straight ahead.
    r = scene->intersectPoint({1.9f, 1.0f, 1.0f}, 0.5f);
    EXPECT_EQ(r.collision, 0);
    EXPECT_NEAR(r.distance, 0.1f, kCellTolerance);
    EXPECT_NEAR(r.point.x, 2.0f, kCellTolerance);
    EXPECT_NEAR(r.point.y, 1.0f, 1e-5f);
    EXPECT_NEAR(r.point.z, 1.0f, 1e-5f);
    // Nothing within 5 cm, or no search at all: -1.0 at the origin.
    for (const float maxDistance : {0.05f, 0.0f, -1.0f}) {
        r = scene->intersectPoint({1.9f, 1.0f, 1.0f}, maxDistance);
        EXPECT_EQ(r.collision, 0);
        EXPECT_EQ(r.distance, -1.0f);
        expectOrigin(r.point);
    }
    // Never observed: unknown, and nothing near.
    r = scene->intersectPoint({-5.0f, 1.0f, 1.0f}, 0.5f);
    EXPECT_EQ(r.collision, 2);
    EXPECT_EQ(r.distance, -1.0f);
    expectOrigin(r.point);
    // Host nonsense is unknown space or a plain answer, never a crash or a hang.
    const float nan = std::nanf("");
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(scene->intersectPoint({nan, 1.0f, 1.0f}, 0.5f).collision, 2);
    EXPECT_EQ(scene->intersectPoint({1.0f, inf, 1.0f}, nan).collision, 2);
    r = scene->intersectPoint({1.9f, 1.0f, 1.0f}, inf);
    EXPECT_NEAR(r.distance, 0.1f, kCellTolerance);
}

TEST(Queries, BoxAndSphereAgainstAWall) {
    auto scene = fusedScene(kSplit);
    // A thin free box 6 cm in front of the wall: the narrow search within the truncation finds
    // the wall.
    IntersectionResult r =
        scene->intersectAxisAlignedBox({1.93f, 1.0f, 1.0f}, {0.02f, 0.1f, 0.1f}, 0.5f);
    EXPECT_EQ(r.collision, 0);
    EXPECT_NEAR(r.distance, 0.06f, kCellTolerance);
    EXPECT_NEAR(r.point.x, 2.0f, kCellTolerance);
    // The same with a search distance below the truncation goes straight to the full search.
    const IntersectionResult direct =
        scene->intersectAxisAlignedBox({1.93f, 1.0f, 1.0f}, {0.02f, 0.1f, 0.1f}, 0.09f);
    EXPECT_EQ(direct.distance, r.distance);
    // A box into the wall collides at distance 0, also one that starts far out in space that
    // was never observed.
    for (const IntersectionResult& hit :
         {scene->intersectAxisAlignedBox({2.0f, 1.0f, 1.0f}, {0.1f, 0.1f, 0.1f}, 0.5f),
          scene->intersectAxisAlignedBox({1.0f, 1.0f, 1.0f}, {2.1f, 0.04f, 0.04f}, 0.5f)}) {
        EXPECT_EQ(hit.collision, 1);
        EXPECT_EQ(hit.distance, 0.0f);
        EXPECT_GE(hit.point.x, 2.0f - kCellTolerance);
    }
    // Unknown space with nothing near: the box says -1.0, the sphere maxDistance - radius.
    r = scene->intersectAxisAlignedBox({-5.0f, 1.0f, 1.0f}, {0.2f, 0.2f, 0.2f}, 0.3f);
    EXPECT_EQ(r.collision, 2);
    EXPECT_EQ(r.distance, -1.0f);
    expectOrigin(r.point);
    r = scene->intersectSphere({-5.0f, 1.0f, 1.0f}, 0.1f, 0.3f);
    EXPECT_EQ(r.collision, 2);
    EXPECT_FLOAT_EQ(r.distance, 0.3f - 0.1f);
    expectOrigin(r.point);
    r = scene->intersectSphere({-5.0f, 1.0f, 1.0f}, 0.1f, 0.0f);
    EXPECT_EQ(r.distance, -1.0f);

    // A small free sphere: the clearance of its centre less the radius.
    r = scene->intersectSphere({1.93f, 1.0f, 1.0f}, 0.02f, 0.5f);
    EXPECT_EQ(r.collision, 0);
    EXPECT_NEAR(r.distance, 0.05f, kCellTolerance);
    EXPECT_NEAR(r.point.x, 2.0f, kCellTolerance);
    EXPECT_NEAR(r.point.y, 1.0f, 1e-5f);
    r = scene->intersectSphere({2.0f, 1.0f, 1.0f}, 0.05f, 0.5f);
    EXPECT_EQ(r.collision, 1);
    EXPECT_EQ(r.distance, 0.0f);
    EXPECT_LE(AR::Math::norm(toVec(r.point) - Solid::Vec3(2.0f, 1.0f, 1.0f)), 0.05f + 1e-5f);

    // Enormous, empty, inverted and non-finite shapes end with a plain answer.
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(scene->intersectAxisAlignedBox({0.0f, 0.0f, 0.0f}, {inf, inf, inf}, 0.5f).collision,
              1);
    EXPECT_EQ(
        scene->intersectAxisAlignedBox({1.9f, 1.0f, 1.0f}, {0.0f, 0.0f, 0.0f}, 0.5f).collision, 0);
    EXPECT_EQ(
        scene->intersectAxisAlignedBox({1.9f, 1.0f, 1.0f}, {-1.0f, -1.0f, -1.0f}, 0.5f).collision,
        0);
    EXPECT_EQ(scene->intersectSphere({1.9f, 1.0f, 1.0f}, -1.0f, 0.5f).collision, 0);
    EXPECT_EQ(scene->intersectSphere({std::nanf(""), 1.0f, 1.0f}, 1.0f, 1e30f).collision, 2);
    EXPECT_EQ(scene->intersectSphere({1.0f, 1.0f, 1.0f}, 1e30f, 1e30f).collision, 1);
}

TEST(Queries, CombinedModeHasNoDepthGridForCollisions) {
    auto scene = fusedScene(kCombined);
    for (const IntersectionResult& r :
         {scene->intersectPoint({2.03f, 1.0f, 1.0f}, 0.5f),
          scene->intersectAxisAlignedBox({2.0f, 1.0f, 1.0f}, {0.1f, 0.1f, 0.1f}, 0.5f),
          scene->intersectSphere({2.0f, 1.0f, 1.0f}, 0.05f, 0.5f)}) {
        EXPECT_EQ(r.collision, 2);
        EXPECT_EQ(r.distance, -1.0f);
        expectOrigin(r.point);
    }
}

// Axis `a` of the placed object's frame in world coordinates.
Solid::Vec3 localAxis(const XrQuaternionfVLM& q, int a) {
    const float x = q.x, y = q.y, z = q.z, w = q.w;
    const float R[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
                           {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
                           {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}};
    return Solid::Vec3(R[0][a], R[1][a], R[2][a]);
}

void expectAxis(const Solid::Vec3& actual, const Solid::Vec3& expected) {
    for (int a = 0; a < 3; ++a) {
        EXPECT_NEAR(actual(a), expected(a), kAxisTolerance) << "component " << a;
    }
}

class Placement : public ::testing::TestWithParam<int32_t> {};

TEST_P(Placement, OnAFloorAndOnAWall) {
    const int32_t mode = GetParam();
    auto scene = fusedScene(mode);
    // Split mode fuses no labels yet, so its label grid has nothing to say.
    const uint16_t floorLabel = mode == kCombined ? kFloorLabel : 0;
    const uint16_t wallLabel = mode == kCombined ? kWallLabel : 0;

    // Down onto the floor along a slanted, unnormalised line.
    PlacementInfo info{};
    const XrVector3fVLM start{1.0f, 1.0f, 1.0f};
    const XrVector3fVLM down{0.2f, -1.0f, 0.1f};
    ASSERT_EQ(scene->getPlacementInfo(start, down, {1.0f, 0.0f, 0.0f}, info, 3.0f), kSuccess);
    ASSERT_EQ(info.result, 1);
    const Solid::Vec3 position = toVec(info.poseLocalToWorld.position);
    EXPECT_NEAR(position(1), 0.0f, kCellTolerance);
    // On the line: 1 m down means 0.2 m along x and 0.1 m along z.
    EXPECT_NEAR(position(0), 1.0f + 0.2f * (1.0f - position(1)), 1e-4f);
    EXPECT_NEAR(position(2), 1.0f + 0.1f * (1.0f - position(1)), 1e-4f);
    expectAxis(localAxis(info.poseLocalToWorld.orientation, 1), Solid::Vec3(0.0f, 1.0f, 0.0f));
    // Local z is reference x normal: x cross y = z.
    expectAxis(localAxis(info.poseLocalToWorld.orientation, 2), Solid::Vec3(0.0f, 0.0f, 1.0f));
    EXPECT_EQ(info.label, floorLabel);
    // Another reference turns the object about the normal: z cross y = -x.
    ASSERT_EQ(scene->getPlacementInfo(start, down, {0.0f, 0.0f, 1.0f}, info, 3.0f), kSuccess);
    ASSERT_EQ(info.result, 1);
    expectAxis(localAxis(info.poseLocalToWorld.orientation, 2), Solid::Vec3(-1.0f, 0.0f, 0.0f));
    expectAxis(localAxis(info.poseLocalToWorld.orientation, 1), Solid::Vec3(0.0f, 1.0f, 0.0f));

    // Straight down with the reference along the floor's normal: the frame of the world.
    ASSERT_EQ(scene->getPlacementInfo(start, {0.0f, -1.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, info, 3.0f),
              kSuccess);
    ASSERT_EQ(info.result, 1);
    EXPECT_NEAR(info.poseLocalToWorld.orientation.x, 0.0f, 1e-6f);
    EXPECT_NEAR(info.poseLocalToWorld.orientation.y, 0.0f, 1e-6f);
    EXPECT_NEAR(info.poseLocalToWorld.orientation.z, 0.0f, 1e-6f);
    EXPECT_NEAR(info.poseLocalToWorld.orientation.w, 1.0f, 1e-6f);

    // Straight at the wall; an absurd search distance changes nothing.
    for (const float maxDistance : {3.0f, 1e30f}) {
        ASSERT_EQ(scene->getPlacementInfo(start, {1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, info,
                                          maxDistance),
                  kSuccess);
        ASSERT_EQ(info.result, 1);
        EXPECT_NEAR(info.poseLocalToWorld.position.x, 2.0f, kCellTolerance);
        EXPECT_FLOAT_EQ(info.poseLocalToWorld.position.y, 1.0f);
        expectAxis(localAxis(info.poseLocalToWorld.orientation, 1), Solid::Vec3(-1.0f, 0.0f, 0.0f));
        expectAxis(localAxis(info.poseLocalToWorld.orientation, 2), Solid::Vec3(0.0f, 0.0f, 1.0f));
        EXPECT_EQ(info.label, wallLabel);
    }

    // Nothing up there, the wall out of reach, and a line from behind the wall: result 0, still
    // a success.
    for (const auto& line : {std::make_pair(XrVector3fVLM{1.0f, 1.0f, 1.0f}, 3.0f),
                             std::make_pair(XrVector3fVLM{1.0f, 1.0f, 1.0f}, 0.5f),
                             std::make_pair(XrVector3fVLM{2.05f, 1.0f, 1.0f}, 3.0f)}) {
        const XrVector3fVLM direction =
            line.first.x == 2.05f ? XrVector3fVLM{1.0f, 0.0f, 0.0f}
                                  : (line.second == 3.0f ? XrVector3fVLM{0.0f, 1.0f, 0.0f}
                                                         : XrVector3fVLM{1.0f, 0.0f, 0.0f});
        info.result = 1;
        ASSERT_EQ(
            scene->getPlacementInfo(line.first, direction, {0.0f, 1.0f, 0.0f}, info, line.second),
            kSuccess);
        EXPECT_EQ(info.result, 0);
    }

    // Input the host can get wrong.
    const float nan = std::nanf("");
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(scene->getPlacementInfo(start, {0.0f, 0.0f, 0.0f}, {1, 0, 0}, info, 3.0f),
              kErrorDirectionZero);
    EXPECT_EQ(scene->getPlacementInfo(start, {nan, 1.0f, 0.0f}, {1, 0, 0}, info, 3.0f),
              kErrorDirectionZero);
    EXPECT_EQ(scene->getPlacementInfo(start, {inf, 1.0f, 0.0f}, {1, 0, 0}, info, 3.0f),
              kErrorDirectionZero);
    EXPECT_EQ(scene->getPlacementInfo(start, down, {nan, 0.0f, 0.0f}, info, 3.0f),
              kErrorInvalidArgument);
    // A long but finite direction normalises.
    ASSERT_EQ(scene->getPlacementInfo(start, {1e30f, 0.0f, 0.0f}, {0, 1, 0}, info, 3.0f), kSuccess);
    EXPECT_EQ(info.result, 1);
    for (const XrVector3fVLM& badStart :
         {XrVector3fVLM{nan, 1.0f, 1.0f}, XrVector3fVLM{1.0f, inf, 1.0f},
          XrVector3fVLM{1e30f, 1.0f, 1.0f}}) {
        ASSERT_EQ(scene->getPlacementInfo(badStart, down, {1, 0, 0}, info, 3.0f), kSuccess);
        EXPECT_EQ(info.result, 0);
    }
    ASSERT_EQ(scene->getPlacementInfo(start, down, {1, 0, 0}, info, nan), kSuccess);
    EXPECT_EQ(info.result, 0);
}

INSTANTIATE_TEST_SUITE_P(RunModes, Placement, ::testing::Values(kCombined, kSplit));

TEST(Queries, PlacementInAModeWithoutGrids) {
    std::unique_ptr<IVelmora> scene =
        Velmora::Test::makeInitialisedScene(2, kCellSize, kTruncation);
    PlacementInfo info{};
    info.result = 1;
    info.label = 5;
    ASSERT_EQ(scene->getPlacementInfo({1, 1, 1}, {1, 0, 0}, {0, 1, 0}, info, 3.0f), kSuccess);
    EXPECT_EQ(info.result, 0);
    EXPECT_EQ(info.label, 0);
    EXPECT_EQ(info.poseLocalToWorld.orientation.w, 1.0f);
    expectOrigin(info.poseLocalToWorld.position);
    EXPECT_EQ(scene->intersectPoint({1, 1, 1}, 1.0f).collision, 2);
}

}  // namespace
}  // namespace Velmora
