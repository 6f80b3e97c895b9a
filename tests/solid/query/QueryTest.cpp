// The queries on fused or hand-made grids: the march and the rendering against a plain version,
// bit for bit; collision and clearance of points, boxes and spheres; placement frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <vector>

#include "math/MatrixFunctions.h"
#include "math/Pose.h"
#include "solid/query/BlockWalk.h"
#include "solid/query/CollisionDetection.h"
#include "solid/query/Placement.h"
#include "solid/query/Raycast.h"
#include "solid/volume/VolumeSampling.h"
#include "support/BlockWalkCheck.h"
#include "support/CapturedLog.h"
#include "support/FieldGrid.h"
#include "support/FusedGrid.h"
#include "support/MarchStepsCheck.h"

namespace Solid {
namespace {

using Test::LocateCase;
using Test::MarchCases;
using Test::StepOverOutcomes;
using Velmora::Test::AnalyticScene;
using Velmora::Test::PinholeCamera;
using DepthGrids = ::testing::Types<DepthGrid, LabelDepthGrid>;

constexpr float kSpacing = 0.02f;
constexpr float kTruncation = 0.1f;
// The frame path's march settings.
constexpr float kNearPlane = 0.05f;
constexpr float kFarPlane = 5.0f;
constexpr float kStepFactor = 1.0f;
// A fused plane seen from one view, read by trilinear interpolation and a linear crossing, stays
// within a quarter of a cell of the true surface.
constexpr float kSurfaceTolerance = 0.25f * kSpacing;

constexpr float kDegrees = 3.14159265f / 180.0f;

// A thick wall occupying 2 <= x <= 3, seen from x = 0.8.
AnalyticScene wallScene() {
    AnalyticScene scene;
    scene.add(Velmora::Test::makeBox({2.0, -3.0, -3.0}, {3.0, 5.0, 5.0}, 2, {200, 200, 200}));
    return scene;
}

// A camera of f = 50 pixels at `eye` looking at `target`.
PinholeCamera view(const Velmora::Test::Vec3d& eye, const Velmora::Test::Vec3d& target,
                   int width = 64, int height = 48) {
    return Velmora::Test::viewFrom(eye, target, width, height, 50.0);
}

PinholeCamera wallCamera() {
    return view({0.8, 1.0, 1.0}, {2.0, 1.0, 1.0});
}

template <typename Grid>
class RaycastGrids : public ::testing::Test {};
TYPED_TEST_SUITE(RaycastGrids, DepthGrids);

TYPED_TEST(RaycastGrids, MarchFindsTheWallHeadOnAndAtAnAngleButNotFromBehind) {
    TypeParam grid;
    Velmora::Test::configureGrid(grid, kSpacing);
    Velmora::Test::fuseView(grid, wallScene(), wallCamera(), kTruncation);
    const Vec3 eye(0.8f, 1.0f, 1.0f);

    // Head-on: the ray parameter of a unit direction is the distance, 1.2 m.
    Vec4 hit =
        raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, kFarPlane, kStepFactor);
    EXPECT_NEAR(hit(3), 1.2f, kSurfaceTolerance);
    EXPECT_NEAR(hit(0), 2.0f, kSurfaceTolerance);
    EXPECT_FLOAT_EQ(hit(2), 1.0f);

    // 20 degrees off the normal: the distance grows with 1 / cos, and the hit stays on the plane
    // x = 2 in the direction of the ray.
    const Vec3 direction(std::cos(20 * kDegrees), std::sin(20 * kDegrees), 0.0f);
    hit = raycastSparseVolume(grid, eye, direction, kNearPlane, kFarPlane, kStepFactor);
    EXPECT_NEAR(hit(3), 1.2f / std::cos(20 * kDegrees), kSurfaceTolerance / 0.9f);
    EXPECT_NEAR(hit(0), 2.0f, kSurfaceTolerance);
    EXPECT_NEAR(hit(1), eye(1) + hit(3) * direction(1), 1e-5f);

    // Starting 4 cm inside the wall, within the observed band: the first value is negative, and
    // there is no search past the back face, whichever way the ray goes.
    const Vec3 inside(2.04f, 1.0f, 1.0f);
    KeyType key;
    ASSERT_LT(grid.value(inside, key), 0.0f);
    ASSERT_GT(grid.value(inside, key), kUnobservedValue);
    for (const float x : {-1.0f, 1.0f})
        EXPECT_EQ(raycastSparseVolume(grid, inside, Vec3(x, 0.0f, 0.0f), 0.0f, kFarPlane, 1.0f),
                  Vec4(0.0f, 0.0f, 0.0f, 0.0f));

    // A far plane short of the wall finds nothing.
    hit = raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, 1.0f, kStepFactor);
    EXPECT_EQ(hit, Vec4(0.0f, 0.0f, 0.0f, 0.0f));

    // A coarse march (five cells a step) still lands on the surface: it refines in the band.
    hit = raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, kFarPlane, 5.0f);
    EXPECT_NEAR(hit(3), 1.2f, kSurfaceTolerance);

    // Host-sized nonsense ends without a hit and without hanging.
    const float nan = std::nanf("");
    EXPECT_EQ(raycastSparseVolume(grid, Vec3(nan, 0.0f, 0.0f), Vec3(1.0f, 0.0f, 0.0f), kNearPlane,
                                  kFarPlane, kStepFactor),
              Vec4(0.0f, 0.0f, 0.0f, 0.0f));
}

TEST(RaycastBlockWalk, TruncatedKeysTieRuleAndSingleBlock) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kSpacing);
    const float d = grid.dimension()(0);  // 0.16 m
    KeyType found;

    // Both ends truncate to block 0 although they lie in block -1 by the floor: the walk looks at
    // block 0 alone (start and end in one block), and never at -1.
    ASSERT_TRUE(grid.ensure(KeyType(-1, 0, 0)));
    EXPECT_FALSE(findFirstBlock(grid, Vec3(-0.3f * d, 0.5f * d, 0.5f * d),
                                Vec3(-0.2f * d, 0.6f * d, 0.5f * d), found));

    // From block (0, 0, 0) to (1, 1, 0) the first move is a tie, which goes to x: the walk is
    // (0,0,0), (1,0,0), (1,1,0), so a block at (0,1,0) is never seen.
    DepthGrid diagonal;
    Velmora::Test::configureGrid(diagonal, kSpacing);
    const Vec3 from(0.5f * d, 0.5f * d, 0.5f * d);
    const Vec3 to(1.5f * d, 1.5f * d, 0.5f * d);
    ASSERT_TRUE(diagonal.ensure(KeyType(0, 1, 0)));
    EXPECT_FALSE(findFirstBlock(diagonal, from, to, found));
    ASSERT_TRUE(diagonal.ensure(KeyType(1, 1, 0)));
    ASSERT_TRUE(findFirstBlock(diagonal, from, to, found));
    EXPECT_EQ(found, KeyType(1, 1, 0));
    ASSERT_TRUE(diagonal.ensure(KeyType(1, 0, 0)));
    ASSERT_TRUE(findFirstBlock(diagonal, from, to, found));
    EXPECT_EQ(found, KeyType(1, 0, 0));

    // A long walk along z meets the first existing block in the order of the walk.
    DepthGrid column;
    Velmora::Test::configureGrid(column, kSpacing);
    ASSERT_TRUE(column.ensure(KeyType(0, 0, 7)));
    ASSERT_TRUE(column.ensure(KeyType(0, 0, 4)));
    ASSERT_TRUE(findFirstBlock(column, from, Vec3(0.5f * d, 0.5f * d, 20.5f * d), found));
    EXPECT_EQ(found, KeyType(0, 0, 4));
    // Segments that end short of the blocks, or do not have finite ends, find nothing.
    EXPECT_FALSE(findFirstBlock(column, from, Vec3(0.5f * d, 0.5f * d, 3.5f * d), found));
    EXPECT_FALSE(findFirstBlock(column, from, Vec3(0.0f, 0.0f, std::nanf("")), found));
}

// The packet walks (four lanes, and eight where the processor has AVX2) find the block, or its
// absence, or the end of the walk at its limit, exactly as the single walker does.
TEST(RaycastBlockWalk, PacketsWalkAsTheSingleWalker) {
    for (const WalkSegments walk : {walkSegmentsBy4(), walkSegmentsBy8()}) {
        if (walk == nullptr) {
            continue;  // no AVX2 here
        }
        const Solid::Test::WalkOutcomes outcomes = Solid::Test::checkPacketWalks(walk, 7, 3000);
        EXPECT_EQ(outcomes.mismatches, 0) << outcomes.firstMismatch;
        EXPECT_GT(outcomes.found, 5000);
        EXPECT_GT(outcomes.exhausted, 2000);
        EXPECT_GT(outcomes.none, 8000);
    }
}

// The vector lanes of this processor and the portable ones step a march over samples that need
// no read exactly as the plain loop, whichever way it ends: out of the box, at the cap, at the
// far plane (finite or not), at the sample limit, or where d stops moving. And `locate` in both
// gives the key of floorToKey and the cell of cellForVal, also on block faces, lattice planes
// (among them the last, reached by rounding) and one float beside them.
TEST(RaycastMarchSteps, LanesStepAndLocateAsThePlainCode) {
    MarchCases cases(1);
    for (const StepOverOutcomes& out :
         {cases.stepOver<NativeLanes>(20000), cases.stepOver<PortableLanes>(20000)}) {
        EXPECT_EQ(out.mismatches, 0u) << out.firstMismatch;
        for (const unsigned ways : out.ways)
            EXPECT_GT(ways, 50u);
    }
    unsigned onPlane = 0, onLast = 0;
    for (int i = 0; i < 20000; ++i) {
        const LocateCase c = cases.position();
        for (const SampleCell& l :
             {MarchCases::locate<NativeLanes>(c), MarchCases::locate<PortableLanes>(c)}) {
            for (int a = 0; a < 3; ++a) {
                const int key = floorToKey(c.p[a] * (1.0f / c.dimension));
                ASSERT_EQ(l.key[a], key) << c.p[a];
                if (key == INT_MIN)
                    continue;
                const AxisCell cell =
                    cellForVal(c.p[a] - c.dimension * static_cast<float>(key), 1.0f / c.spacing, 8);
                ASSERT_EQ(l.i0[a], cell.i0) << c.p[a];
                ASSERT_EQ(l.i1[a], cell.i1) << c.p[a];
                ASSERT_EQ(0, std::memcmp(&l.f[a], &cell.f, sizeof(float))) << c.p[a];
                onPlane += cell.f == 0.0f;
                onLast += cell.i0 == 8;
            }
        }
    }
    EXPECT_GT(onPlane, 2000u);
    EXPECT_GT(onLast, 5u);
}

// The renderer's copy of the block table answers every key as the table does: dense over a
// compact box (negative keys included), hashed once one far block makes the box sparse, and
// empty; keys just outside the box and at the ends of the key range find nothing.
TEST(RaycastTableSnapshot, AnswersEveryKeyAsTheTable) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kSpacing);
    const auto expectSameAnswers = [&grid](std::vector<KeyType> keys) {
        const DepthGrid::TableSnapshot snapshot(grid);
        for (int i = 0; i < 512; ++i)
            keys.emplace_back(i % 8 - 4, i / 8 % 8 - 4, i / 64 - 4);
        for (const KeyType& key : keys)
            ASSERT_EQ(snapshot.find(key), grid.findEntry(key))
                << key(0) << " " << key(1) << " " << key(2);
    };
    const std::vector<KeyType> far = {KeyType(INT_MIN, INT_MIN, INT_MIN), KeyType(INT_MAX, 0, 0),
                                      KeyType(0, INT_MIN, INT_MAX), KeyType(900, -2, 1),
                                      KeyType(900, -2, 2)};
    expectSameAnswers(far);
    for (int i = 0; i < 40; ++i)
        ASSERT_TRUE(grid.ensure(KeyType(i % 3 - 2, (i / 3) % 3 - 1, i / 9 - 2)));
    expectSameAnswers(far);
    ASSERT_TRUE(grid.ensure(KeyType(900, -2, 1)));
    expectSameAnswers(far);
}

// The march as it reads in words: a grid lookup under its locks for every sample.
template <typename Grid>
float plainMarch(const Grid& grid, const Vec3& origin, const Vec3& direction, float nearPlane,
                 float farPlane, float stepFactor) {
    float d = nearPlane;
    Vec3 position = origin + direction * d;
    const float smallStep = grid.config().spacing(0);
    float step = smallStep * stepFactor;
    Vec3 increment = direction * step;
    float previous = kUnobservedValue;
    bool coarse = true;
    for (; d <= farPlane; d += step, position += increment) {
        KeyType key;
        const float value = grid.value(position, key);
        if (value == kUnobservedValue) {
            continue;
        }
        if (value < 0.0f) {
            return previous > 0.0f ? (previous * d - (d - step) * value) / (previous - value)
                                   : 0.0f;
        }
        if (value == 0.0f) {
            return d;
        }
        if (value < kFineMarchThreshold && coarse) {
            step = smallStep;
            increment = direction * step;
            coarse = false;
        }
        previous = value;
    }
    return 0.0f;
}

// The rendering as it reads in words, pixel by pixel; `walk` false marches every ray from the
// near plane.
template <typename Grid>
void plainRender(const Grid& grid, DepthFrame& frame, bool walk, float stepFactor) {
    const Matrix4 Minv = AR::Math::inverse(frame.projection * frame.pose);
    const Vec3 eye(Minv(0, 3), Minv(1, 3), Minv(2, 3));
    const float size = grid.config().dimension(0);
    for (int y = 0; y < frame.depth.height(); ++y) {
        for (int x = 0; x < frame.depth.width(); ++x) {
            const float u = static_cast<float>(x), v = static_cast<float>(y);
            const Vec3 direction(Minv(0, 0) * u + Minv(0, 1) * v + Minv(0, 2),
                                 Minv(1, 0) * u + Minv(1, 1) * v + Minv(1, 2),
                                 Minv(2, 0) * u + Minv(2, 1) * v + Minv(2, 2));
            KeyType block;
            float start = kNearPlane;
            if (walk) {
                if (!findFirstBlock(grid, eye, eye + direction * kFarPlane, block)) {
                    frame.depth(x, y) = 0.0f;
                    continue;
                }
                const Vec3 corner(block(0) * size, block(1) * size, block(2) * size);
                start = std::max(kNearPlane,
                                 AR::Math::dot(corner - eye, direction) - 1.7320508f * size);
            }
            frame.depth(x, y) = plainMarch(grid, eye, direction, start, kFarPlane, stepFactor);
        }
    }
}

// Renders the view of `camera` both ways and compares every pixel bit for bit; returns the
// pixels with a surface.
template <typename Grid>
int renderBothWays(const Grid& grid, const PinholeCamera& camera, bool walk,
                   IntegrationStats& stats, float stepFactor = kStepFactor) {
    DepthFrame fast;
    DepthFrame plain;
    Velmora::Test::setUpFrame(fast, camera);
    Velmora::Test::setUpFrame(plain, camera);
    raycast(grid, kNearPlane, kFarPlane, stepFactor, fast, stats);
    plainRender(grid, plain, walk, stepFactor);
    int hits = 0;
    for (int i = 0; i < camera.width * camera.height; ++i) {
        const int x = i % camera.width, y = i / camera.width;
        EXPECT_EQ(0, std::memcmp(&fast.depth(x, y), &plain.depth(x, y), sizeof(float)))
            << fast.depth(x, y) << " against " << plain.depth(x, y) << " at " << x << ", " << y;
        hits += fast.depth(x, y) > 0.0f;
    }
    return hits;
}

// A furnished room fused from a few views at both cell sizes, rendered from inside (also from a
// camera in an existing block, at the wall, where blocks of negative keys exist), and from
// outside at negative coordinates: every pixel as the plain rendering gives it, bit for bit.
TYPED_TEST(RaycastGrids, RenderingGivesThePlainDepthsOnEveryPixel) {
    AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    room.add(Velmora::Test::makeBox({1.2, 1.0, 0.0}, {2.4, 1.8, 0.75}, 4, {1, 2, 3}));
    room.add(Velmora::Test::makeSphere({3.0, 2.2, 0.3}, 0.3, 6, {4, 5, 6}));
    using Eye = std::array<Velmora::Test::Vec3d, 2>;
    const std::vector<Eye> views = {
        Eye{{{1.0, 0.8, 1.4}, {3.0, 2.0, 0.6}}}, Eye{{{3.2, 2.5, 1.6}, {0.5, 0.5, 0.4}}},
        Eye{{{0.05, 0.07, 0.1}, {2.0, 1.5, 1.0}}}, Eye{{{-1.0, -0.7, 1.2}, {2.0, 1.5, 0.8}}}};
    for (const float cell : {0.02f, 0.01f}) {
        TypeParam grid;
        Velmora::Test::configureGrid(grid, cell);
        for (size_t v = 0; v + 1 < views.size(); ++v)
            Velmora::Test::fuseView(grid, room, view(views[v][0], views[v][1]), 5.0f * cell);
        if (cell == 0.01f) {
            // A block far away makes the renderer's table copy hashed rather than dense.
            ASSERT_TRUE(grid.ensure(KeyType(-5000, 40, 3000)));
        }
        for (const Eye& eye : views) {
            const PinholeCamera camera = view(eye[0], eye[1], 81, 61);
            IntegrationStats stats;
            EXPECT_GT(renderBothWays(grid, camera, true, stats), 0);
            // A coarse first step defers no reads until the march has switched to the fine one.
            EXPECT_GT(renderBothWays(grid, camera, true, stats, 2.5f), 0);
        }
    }
}

// With the verbose log on, the march logs every sample and defers no read (the quiet march is
// compiled apart from it): the same depths, and the crossings logged.
TEST(RaycastVerbose, LoggedRenderingGivesThePlainDepths) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, 0.02f);
    Velmora::Test::fuseView(grid, room, view({1.0, 0.8, 1.4}, {3.0, 2.0, 0.6}), 0.1f);
    AR::Common::Logger& logger = AR::Common::Logger::getInstance();
    const AR::Common::Logger::LEVEL level = logger.getLevel();
    const bool systemLog = logger.getFlag(AR::Common::Logger::FLAG_SYSTEM_LOG);
    logger.setFlag(AR::Common::Logger::FLAG_SYSTEM_LOG, false);
    logger.setLevel(AR::Common::Logger::LEVEL_VERBOSE);
    Velmora::Test::CapturedLog log;
    IntegrationStats stats;
    const int hits =
        renderBothWays(grid, view({1.0, 0.8, 1.4}, {3.0, 2.0, 0.6}, 9, 7), true, stats);
    logger.setLevel(level);
    logger.setFlag(AR::Common::Logger::FLAG_SYSTEM_LOG, systemLog);
    EXPECT_GT(hits, 0);
    EXPECT_TRUE(log.has("surface found (via interpolation)"));
}

// A wall just past a block face (x = 12 blocks of 0.16 m) seen through fused free space: rays
// step over blocks in front of it without reads and meet its back values as the first read of
// the next block, so the crossing takes a value stepped over. Every pixel as the plain rendering.
TYPED_TEST(RaycastGrids, CrossingJustPastABlockFaceGivesThePlainDepths) {
    for (const double offset : {0.003, 0.009, 0.015}) {
        AnalyticScene scene;
        scene.add(Velmora::Test::makeBox({1.92 + offset, -3.0, -3.0}, {3.0, 5.0, 5.0}, 2,
                                         {200, 200, 200}));
        TypeParam grid;
        Velmora::Test::configureGrid(grid, kSpacing);
        for (const double y : {1.0, 0.6})
            Velmora::Test::fuseView(grid, scene, view({0.8, y, 1.0}, {2.0, 1.0, 1.0}), kTruncation);
        PinholeCamera camera = wallCamera();
        camera.width = 81;
        camera.height = 61;
        IntegrationStats stats;
        EXPECT_GT(renderBothWays(grid, camera, true, stats), 1000) << offset;
    }
}

// With a focal length of a thousandth of a pixel every ray runs almost parallel to the image
// plane and would cross tens of thousands of blocks before the far plane; the walk gives way to
// a march from the near plane, whose samples the far plane bounds.
TEST(RaycastBound, TinyFocalLengthMarchesFromTheNearPlane) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kSpacing);
    Velmora::Test::fuseView(grid, wallScene(), wallCamera(), kTruncation);
    PinholeCamera camera = wallCamera();
    camera.fx = camera.fy = 0.001;
    IntegrationStats stats;
    renderBothWays(grid, camera, false, stats);
    EXPECT_EQ(stats.raycastRays, static_cast<size_t>(camera.width * camera.height));
}

// A cube fused from a camera on either side of it along each axis, and rendered from each of
// them: every ray starts outside the box of all blocks, below or above it on one axis, and comes
// back into it; rays beside the cube leave that box again, where nothing more can be read. Every
// pixel as the plain rendering gives it.
TEST(RaycastBound, RaysFromBeyondTheBlocksOnEverySide) {
    AnalyticScene scene;
    scene.add(Velmora::Test::makeBox({0.8, 0.7, 0.6}, {1.3, 1.2, 1.1}, 2, {200, 200, 200}));
    const Velmora::Test::Vec3d centre{1.05, 0.95, 0.85};
    std::vector<PinholeCamera> cameras;
    for (int a = 0; a < 3; ++a) {
        for (const double side : {-1.2, 1.2}) {
            Velmora::Test::Vec3d eye = centre;
            eye[a] += side;
            eye[(a + 1) % 3] += 0.3;  // never straight along the up axis
            cameras.push_back(view(eye, centre, 81, 61));
        }
    }
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kSpacing);
    for (const PinholeCamera& camera : cameras)
        Velmora::Test::fuseView(grid, scene, camera, kTruncation);
    for (const PinholeCamera& camera : cameras) {
        IntegrationStats stats;
        EXPECT_GT(renderBothWays(grid, camera, true, stats), 300);
    }
}

constexpr float kDimension = 8 * kSpacing;  // block edge, metres
constexpr short kFree = kMaxDepthValue;     // +1.0, in front of the band
constexpr short kSolid = -kMaxDepthValue;

// Every sample of block `key` set to `sample`, creating the block.
void fillBlock(DepthGrid& grid, const KeyType& key, const Vec2S& sample) {
    grid.ensure(key);
    auto block = grid.get(key);
    std::fill(block->data(), block->data() + block->dataSize(), sample);
}

// One ray along the x axis on the sample row y = z = 0, so that each read blends two samples of
// that row: a block of free space with one unobserved sample off the row, a missing block, then
// a block whose row holds +0.05 for three samples and -1.0 beyond, and whose other samples are
// unobserved. The first cells of that block cannot be known to read positive, but do; the
// crossing must interpolate from them, not from the free block behind the gap.
TEST(RaycastBound, CrossingAfterAGapTakesTheReadsJustBeforeIt) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kSpacing);
    fillBlock(grid, KeyType(0, 0, 0), Vec2S(kFree, short{1}));
    grid.get(KeyType(0, 0, 0))->at(8, 8, 8) = Vec2S(kFree, short{0});
    fillBlock(grid, KeyType(2, 0, 0), Vec2S(0, short{0}));
    for (int x = 0; x < 9; ++x)
        grid.get(KeyType(2, 0, 0))->at(x, 0, 0) =
            Vec2S(x < 3 ? short{kFree / 20} : kSolid, short{1});
    PinholeCamera camera;
    camera.width = camera.height = 1;
    camera.fx = camera.fy = 1.0;
    camera.cx = camera.cy = 0.0;
    camera.T_world_camera = Velmora::Test::lookAt({-0.5, 0.0, 0.0}, {1.0, 0.0, 0.0}, {0, 0, 1});
    IntegrationStats stats;
    EXPECT_EQ(renderBothWays(grid, camera, true, stats), 1);
}

class Collision : public ::testing::Test {
protected:
    void SetUp() override { Velmora::Test::configureGrid(grid, kSpacing); }
    // Sample at lattice index `i` of block `key`; weight 0 is unobserved.
    void set(const KeyType& key, const Index3& i, short value, short weight = 1) {
        grid.ensure(key);
        grid.get(key)->at(i(0), i(1), i(2)) = Vec2S(value, weight);
    }
    // A block whose every sample has been seen and lies in free space.
    void addFree(const KeyType& key) { fillBlock(grid, key, Vec2S(kFree, short{1})); }
    static Vec3 at(const KeyType& key, const Index3& i) {
        return Vec3(kDimension * key(0) + kSpacing * i(0), kDimension * key(1) + kSpacing * i(1),
                    kDimension * key(2) + kSpacing * i(2));
    }
    // The result and, unless none is given, the reported point.
    template <typename Shape>
    void expect(const Shape& shape, CollisionResult result, std::optional<Vec3> where = {}) {
        Vec3 point = untouched;
        EXPECT_EQ(checkCollision(grid, shape, point, 0.0f), result);
        for (int a = 0; a < 3 && where; ++a)
            EXPECT_NEAR(point(a), (*where)(a), 1e-5f) << "axis " << a;
    }
    DepthGrid grid;
    const Vec3 untouched = Vec3(-7.0f, -7.0f, -7.0f);
};

TEST_F(Collision, PointInMissingBlockUnobservedSampleSurfaceAndFreeSpace) {
    // A block below zero on x: keys come from the floor, not from truncation.
    const KeyType key(-1, 0, 2);
    addFree(key);
    set(key, Index3(3, 5, 0), 0);  // exactly on the surface
    set(key, Index3(4, 5, 0), kFree, 0);
    const Vec3 origin = at(key, Index3(0, 0, 0));
    // 3.4 and 0.4 cells round to lattice point (3, 5, 0); 3.6 rounds up, to the unobserved one.
    expect(origin + Vec3(3.4f, 5.0f, 0.4f) * kSpacing, COLLISION, at(key, Index3(3, 5, 0)));
    Vec3 point;
    EXPECT_EQ(checkCollision(grid, origin + Vec3(3.4f, 5.0f, 0.4f) * kSpacing, point, -0.1f),
              NO_COLLISION);
    expect(origin + Vec3(3.6f, 5.0f, 0.0f) * kSpacing, UNKNOWN, untouched);
    expect(origin + Vec3(1.0f, 1.0f, 1.0f) * kSpacing, NO_COLLISION, untouched);
    expect(origin - Vec3(0.01f, 0.0f, 0.0f), UNKNOWN, untouched);  // a block never created
    expect(Vec3(std::nanf(""), 0.0f, 0.0f), UNKNOWN, untouched);
    expect(Vec3(1e30f, -1e30f, 0.0f), UNKNOWN, untouched);
}

TEST_F(Collision, BoxScanOrderPrioritiesAndTheSphereFilter) {
    const KeyType first(0, 0, 0), second(2, 0, 0);  // (1, 0, 0) stays missing
    addFree(first);
    addFree(second);
    // Everything seen and free, but the box also covers the missing block: UNKNOWN, at that
    // block's first lattice point inside the box. An occupied sample in a later block still wins.
    const Box box{Vec3(0.05f, 0.01f, 0.01f), Vec3(0.40f, 0.15f, 0.15f)};
    expect(box, UNKNOWN, Vec3(kDimension, 0.02f, 0.02f));
    set(second, Index3(3, 4, 4), -100);
    expect(box, COLLISION, at(second, Index3(3, 4, 4)));
    // Within one block: of two unobserved samples the first in z, y, x order names the UNKNOWN,
    // and an occupied sample after both still turns it into COLLISION.
    const Box inFirst{Vec3(0.01f, 0.01f, 0.01f), Vec3(0.15f, 0.15f, 0.15f)};
    set(first, Index3(1, 3, 2), kFree, 0);
    set(first, Index3(5, 2, 1), kFree, 0);
    expect(inFirst, UNKNOWN, at(first, Index3(5, 2, 1)));
    set(first, Index3(2, 2, 6), kSolid);
    expect(inFirst, COLLISION, at(first, Index3(2, 2, 6)));
    expect(Box{Vec3(0.07f, 0.07f, 0.07f), Vec3(0.09f, 0.09f, 0.09f)}, NO_COLLISION, untouched);
    // Inverted on z across blocks: nothing is scanned; within one block the empty lattice range
    // is UNKNOWN. A NaN corner: unknown space.
    expect(Box{Vec3(0.01f, 0.01f, 0.30f), Vec3(0.15f, 0.15f, 0.01f)}, NO_COLLISION, untouched);
    expect(Box{Vec3(0.01f, 0.01f, 0.15f), Vec3(0.15f, 0.15f, 0.01f)}, UNKNOWN);
    expect(Box{Vec3(0.01f, std::nanf(""), 0.01f), Vec3(0.15f, 0.15f, 0.15f)}, UNKNOWN);

    // The sphere ignores the unobserved samples (1, 1, 1) of its bounding box outside it, but
    // counts the solid centre; a missing block its box reaches only at a corner is UNKNOWN.
    grid.reset();
    addFree(first);
    set(first, Index3(1, 1, 1), kFree, 0);
    const Sphere sphere{Vec3(0.08f, 0.08f, 0.08f), 0.06f};
    expect(sphere, NO_COLLISION, untouched);
    set(first, Index3(4, 4, 4), kSolid);
    expect(sphere, COLLISION, Vec3(0.08f, 0.08f, 0.08f));
    const Sphere nearCorner{Vec3(0.11f, 0.11f, 0.11f), 0.02f};
    set(first, Index3(4, 4, 4), kFree);
    expect(Sphere{Vec3(0.11f, 0.11f, 0.11f), 0.06f}, UNKNOWN, Vec3(0.16f, 0.06f, 0.06f));
    expect(nearCorner, NO_COLLISION, untouched);
}

TEST_F(Collision, ClearanceWithinAndAcrossBlocks) {
    // Block (0,0,0) is solid from lattice x = 6 on; block (1,0,0) is free. An unobserved sample
    // (value +1) is never an obstacle.
    const KeyType wall(0, 0, 0);
    addFree(wall);
    addFree(KeyType(1, 0, 0));
    for (int i = 0; i < 243; ++i)
        set(wall, Index3(6 + i % 3, i / 3 % 9, i / 27), kSolid);
    set(wall, Index3(1, 4, 4), kFree, 0);
    const auto expectClearance = [&](const auto& shape, float distance, float found, float x) {
        const std::pair<float, Vec3> clearance = clearanceDistance(grid, shape, distance, 0.0f);
        EXPECT_NEAR(clearance.first, found, 1e-3f);
        if (x > 0.0f) {
            EXPECT_NEAR(clearance.second(0), x, 1e-5f);
            EXPECT_NEAR(clearance.second(1), 0.08f, 1e-5f);
        } else if (x == 0.0f) {
            EXPECT_EQ(clearance.second, Vec3(0.0f, 0.0f, 0.0f));
        }
    };
    // 9 cm in front of the solid face x = 0.12; nothing within 5 cm: the distance and the origin.
    expectClearance(Vec3(0.03f, 0.08f, 0.08f), 0.2f, 0.09f, 0.12f);
    expectClearance(Vec3(0.03f, 0.08f, 0.08f), 0.05f, 0.05f, 0.0f);
    // From the neighbouring block, 1 cm behind its lower face lies the solid x = 0.16 plane. A
    // search shorter than a block edge stays in the point's block.
    expectClearance(Vec3(0.17f, 0.08f, 0.08f), 0.2f, 0.01f, 0.16f);
    expectClearance(Vec3(0.17f, 0.08f, 0.08f), 0.1f, 0.1f, -1.0f);
    // A box 7 cm in front of the face; the first nearest sample in z, y, x order is reported.
    const Box box{Vec3(0.02f, 0.07f, 0.07f), Vec3(0.05f, 0.09f, 0.09f)};
    expectClearance(box, 0.2f, 0.07f, 0.12f);
    // A box reaching into the solid part: minus the deepest penetration, 3 cm at x = 0.14.
    const Box into{Vec3(0.11f, 0.01f, 0.01f), Vec3(0.17f, 0.15f, 0.15f)};
    const std::pair<float, Vec3> inside = clearanceDistance(*grid.get(wall), into, 0.2f, 0.0f);
    EXPECT_NEAR(inside.first, -0.03f, 1e-5f);
    EXPECT_NEAR(inside.second(0), 0.14f, 1e-5f);
    // Absurd search distances and positions end, and find the same nearest sample.
    expectClearance(Vec3(0.03f, 0.08f, 0.08f), std::numeric_limits<float>::infinity(), 0.09f,
                    0.12f);
    expectClearance(Vec3(-100.0f, 0.08f, 0.08f), 1e30f, 100.12f, -1.0f);
    expectClearance(Vec3(std::nanf(""), 0.0f, 0.0f), 1.0f, 1.0f, -1.0f);
}

// Block (0, 0, 0) holding the observed field sdf(p) / kTruncation.
template <typename Grid, typename Sdf>
void fillField(Grid& grid, Sdf sdf) {
    Velmora::Test::configureGrid(grid, kSpacing);
    Test::writeField(grid, Index3(0, 0, 0), Index3(0, 0, 0), kTruncation, 1, sdf);
}

void expectNear(const Vec3& actual, const Vec3& expected) {
    for (int a = 0; a < 3; ++a)
        EXPECT_NEAR(actual(a), expected(a), 1e-5f) << "axis " << a;
}

template <typename Grid>
class PlacementGrids : public ::testing::Test {};
TYPED_TEST_SUITE(PlacementGrids, DepthGrids);

TYPED_TEST(PlacementGrids, FrameFromReferenceDirectionOnAFloor) {
    // A floor at lattice y = 4 (0.08 m), free space above it.
    TypeParam grid;
    fillField(grid, [](const Vec3& p) { return p(1) - 0.08f; });
    const Vec3 start(0.08f, 0.15f, 0.08f);
    const Vec3 down(0.0f, -1.0f, 0.0f);

    // The normal is exactly +y: a reference along y (parallel), zero, or along x all give the
    // frame of the world, the quaternion identity.
    for (const Vec3& reference :
         {Vec3(0.0f, 1.0f, 0.0f), Vec3(0.0f, 0.0f, 0.0f), Vec3(1.0f, 0.0f, 0.0f)}) {
        const PlacementInfo info =
            getPlacementInfo(grid, start, down, 1.0f, kTruncation, reference);
        ASSERT_EQ(info.result, 1);
        expectNear(info.poseLocalToWorld.position, Vec3(0.08f, 0.08f, 0.08f));
        EXPECT_EQ(info.poseLocalToWorld.orientation, Vec4(0.0f, 0.0f, 0.0f, 1.0f));
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
        const Vec3 up(0.0f, 1.0f, 0.0f), z = AR::Math::normalize(AR::Math::cross(reference, up));
        const auto R = AR::Math::quaternionToRotation(q(0), q(1), q(2), q(3));
        expectNear(R.col(1), up);
        expectNear(R.col(2), z);
        expectNear(R.col(0), AR::Math::cross(up, z));
    }

    // Nothing on the segment, the march ends before the floor, or a line starting below the
    // floor meets a negative value first: the new record.
    for (const PlacementInfo& info :
         {getPlacementInfo(grid, Vec3(5.0f, 5.0f, 5.0f), down, 1.0f, kTruncation, Vec3()),
          getPlacementInfo(grid, start, down, 0.03f, kTruncation, Vec3(1.0f, 0.0f, 0.0f)),
          getPlacementInfo(grid, Vec3(0.08f, 0.05f, 0.08f), down, 1.0f, kTruncation,
                           Vec3(1.0f, 0.0f, 0.0f))}) {
        EXPECT_EQ(info.result, 0);
        EXPECT_EQ(info.poseLocalToWorld.position, Vec3(0.0f, 0.0f, 0.0f));
        EXPECT_EQ(info.poseLocalToWorld.orientation, Vec4(0.0f, 0.0f, 0.0f, 1.0f));
    }
}

TEST(PlacementDeathTest, ParallelReferenceOnATiltedNormalIsNotARotation) {
    // A slope whose normal has an x component: with no usable reference the unnormalised
    // fallback frame is not a rotation.
    DepthGrid grid;
    fillField(grid, [](const Vec3& p) { return p(1) - 0.08f + 0.5f * (p(0) - 0.08f); });
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
