// Placement on hand-made fields whose gradient is known exactly: the frame from the reference
// direction and its fallbacks, the four-branch quaternion, a surface facing away, and the
// abort of a frame that is not a rotation.
#include <gtest/gtest.h>

#include <cmath>

#include "solid/query/Placement.h"
#include "support/FusedGrid.h"

namespace Solid {
namespace {

constexpr float kSpacing = 0.02f;
constexpr float kTruncation = 5 * kSpacing;

// Fills block (0, 0, 0) with observed samples of value f(x, y, z) (lattice indices).
template <typename Grid, typename F>
void fillField(Grid& grid, F f) {
    Velmora::Test::configureGrid(grid, kSpacing);
    grid.ensure(KeyType(0, 0, 0));
    auto block = grid.get(KeyType(0, 0, 0));
    for (int z = 0; z < 9; ++z) {
        for (int y = 0; y < 9; ++y) {
            for (int x = 0; x < 9; ++x) {
                const float v = std::max(-1.0f, std::min(1.0f, f(x, y, z)));
                depthPart(block->at(x, y, z)) =
                    Vec2S(static_cast<short>(std::lround(v * kMaxDepthValue)), short{1});
            }
        }
    }
}

// A floor at lattice y = 4 (0.08 m), free space above it.
template <typename Grid>
void fillFloor(Grid& grid) {
    fillField(grid, [](int, int y, int) { return 0.2f * (y - 4); });
}

// Axis `a` of the local frame in world coordinates.
Vec3 localAxis(const Vec4& q, int a) {
    const float x = q(0), y = q(1), z = q(2), w = q(3);
    const float R[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
                           {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
                           {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}};
    return Vec3(R[0][a], R[1][a], R[2][a]);
}

void expectNear(const Vec3& actual, const Vec3& expected, float tolerance) {
    for (int a = 0; a < 3; ++a) {
        EXPECT_NEAR(actual(a), expected(a), tolerance) << "axis " << a;
    }
}

template <typename Grid>
class PlacementGrids : public ::testing::Test {};
using DepthGrids = ::testing::Types<DepthGrid, LabelDepthGrid>;
TYPED_TEST_SUITE(PlacementGrids, DepthGrids);

TYPED_TEST(PlacementGrids, FrameFromReferenceDirectionOnAFloor) {
    TypeParam grid;
    fillFloor(grid);
    const Vec3 start(0.08f, 0.15f, 0.08f);
    const Vec3 down(0.0f, -1.0f, 0.0f);

    // The normal is exactly +y: a reference along y (parallel), zero, or along x all give the
    // frame of the world, the quaternion identity.
    for (const Vec3& reference : {Vec3(0.0f, 1.0f, 0.0f), Vec3(0.0f, 0.0f, 0.0f),
                                  Vec3(1.0f, 0.0f, 0.0f), Vec3(0.0f, -3.0f, 0.0f)}) {
        const PlacementInfo info =
            getPlacementInfo(grid, start, down, 1.0f, kTruncation, reference);
        ASSERT_EQ(info.result, 1);
        expectNear(info.poseLocalToWorld.position, Vec3(0.08f, 0.08f, 0.08f), 1e-5f);
        const Vec4& q = info.poseLocalToWorld.orientation;
        EXPECT_EQ(q(0), 0.0f);
        EXPECT_EQ(q(1), 0.0f);
        EXPECT_EQ(q(2), 0.0f);
        EXPECT_NEAR(q(3), 1.0f, 1e-7f);
    }

    // A reference along z turns the frame a quarter around y: local z = reference x normal.
    // Each of the four quaternion branches is met by some reference direction.
    for (const Vec3& reference :
         {Vec3(0.0f, 0.0f, 1.0f), Vec3(0.0f, 0.0f, -1.0f), Vec3(-1.0f, 0.0f, 0.0f),
          Vec3(0.6f, 0.3f, 0.8f), Vec3(-0.6f, 0.0f, -0.8f), Vec3(-0.8f, 0.2f, 0.6f)}) {
        const PlacementInfo info =
            getPlacementInfo(grid, start, down, 1.0f, kTruncation, reference);
        ASSERT_EQ(info.result, 1);
        const Vec4& q = info.poseLocalToWorld.orientation;
        EXPECT_TRUE(isUnitQuaternion(q));
        expectNear(localAxis(q, 1), Vec3(0.0f, 1.0f, 0.0f), 1e-5f);
        const Vec3 expectedZ =
            AR::Math::normalize(AR::Math::cross(reference, Vec3(0.0f, 1.0f, 0.0f)));
        expectNear(localAxis(q, 2), expectedZ, 1e-5f);
        expectNear(localAxis(q, 0), AR::Math::cross(Vec3(0.0f, 1.0f, 0.0f), expectedZ), 1e-5f);
    }

    // Nothing on the segment, or the march ends before the floor: the new record.
    for (const PlacementInfo& info :
         {getPlacementInfo(grid, Vec3(5.0f, 5.0f, 5.0f), down, 1.0f, kTruncation, Vec3()),
          getPlacementInfo(grid, start, down, 0.03f, kTruncation, Vec3(1.0f, 0.0f, 0.0f)),
          getPlacementInfo(grid, start, Vec3(0.0f, 1.0f, 0.0f), 1.0f, kTruncation,
                           Vec3(1.0f, 0.0f, 0.0f))}) {
        EXPECT_EQ(info.result, 0);
        EXPECT_EQ(info.poseLocalToWorld.position, Vec3(0.0f, 0.0f, 0.0f));
        EXPECT_EQ(info.poseLocalToWorld.orientation, Vec4(0.0f, 0.0f, 0.0f, 1.0f));
    }
    // A line starting below the floor meets a negative value first: no search past it.
    EXPECT_EQ(getPlacementInfo(grid, Vec3(0.08f, 0.05f, 0.08f), down, 1.0f, kTruncation,
                               Vec3(1.0f, 0.0f, 0.0f))
                  .result,
              0);
}

TYPED_TEST(PlacementGrids, SurfaceFacingAwayAndUnobservedCorner) {
    // Along x the field falls to -0.5 at lattice 4 and rises again to -0.1 at 5. The coarse step
    // (five cells) jumps from +0.9 at x = 0 straight to -0.1 at x = 5, and the crossing lands at
    // 4.5 cells, where the field rises along the line: the surface there faces away.
    TypeParam grid;
    fillField(grid, [](int x, int, int) {
        const float values[9] = {0.9f, 0.85f, -0.8f, -0.9f, -0.5f, -0.1f, 0.3f, 0.6f, 0.9f};
        return values[x];
    });
    const Vec3 start(0.0f, 0.08f, 0.08f);
    const Vec3 along(1.0f, 0.0f, 0.0f);
    PlacementInfo info = getPlacementInfo(grid, start, along, 1.0f, kTruncation, Vec3(0, 1, 0));
    EXPECT_EQ(info.result, 0);
    expectNear(info.poseLocalToWorld.position, Vec3(0.09f, 0.08f, 0.08f), 1e-5f);
    EXPECT_EQ(info.poseLocalToWorld.orientation, Vec4(0.0f, 0.0f, 0.0f, 1.0f));

    // A hit next to an unobserved sample has no normal: result 0, position kept. The march reads
    // only the lattice plane x = z = 4; the normal's cell reaches to 5 on both.
    TypeParam floor;
    fillFloor(floor);
    depthPart(floor.get(KeyType(0, 0, 0))->at(5, 4, 5)) = Vec2S(kMaxDepthValue, short{0});
    info = getPlacementInfo(floor, Vec3(0.08f, 0.15f, 0.08f), Vec3(0.0f, -1.0f, 0.0f), 1.0f,
                            kTruncation, Vec3(1.0f, 0.0f, 0.0f));
    EXPECT_EQ(info.result, 0);
    EXPECT_GT(info.poseLocalToWorld.position(1), 0.06f);
}

TEST(PlacementDeathTest, ParallelReferenceOnATiltedNormalIsNotARotation) {
    // A slope whose normal has an x component: with no usable reference the unnormalised
    // fallback frame is not a rotation.
    DepthGrid grid;
    fillField(grid, [](int x, int y, int) { return 0.2f * (y - 4) + 0.1f * (x - 4); });
    const Vec3 start(0.08f, 0.15f, 0.08f);
    const Vec3 down(0.0f, -1.0f, 0.0f);
    EXPECT_EQ(getPlacementInfo(grid, start, down, 1.0f, kTruncation, Vec3(0.0f, 0.0f, 1.0f)).result,
              1);
    EXPECT_DEATH(getPlacementInfo(grid, start, down, 1.0f, kTruncation, Vec3(0.0f, 0.0f, 0.0f)),
                 "isRotationMatrix");
    // A line direction that is not of unit length is a programming error.
    EXPECT_DEATH(getPlacementInfo(grid, start, Vec3(0.0f, -2.0f, 0.0f), 1.0f, kTruncation,
                                  Vec3(0.0f, 0.0f, 1.0f)),
                 "squaredNorm");
}

}  // namespace
}  // namespace Solid
