// Rendering the volume back: the march of one ray against fused analytic walls, the depth frame
// rendered from the pose a view was fused from, the block walk that picks the first block, the
// renderer's copy of the block table, and the verbose trace of a march.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "common/Logger.h"
#include "math/MatrixFunctions.h"
#include "solid/query/Raycast.h"
#include "support/FusedGrid.h"

namespace Solid {
namespace {

using Velmora::Test::AnalyticScene;
using Velmora::Test::PinholeCamera;

constexpr float kCellSize = 0.02f;
constexpr float kTruncation = 0.1f;
// The frame path's march settings.
constexpr float kNearPlane = 0.05f;
constexpr float kFarPlane = 5.0f;
constexpr float kStepFactor = 1.0f;
// A fused plane seen from one view, read by trilinear interpolation and a linear crossing, stays
// within a quarter of a cell of the true surface.
constexpr float kSurfaceTolerance = 0.25f * kCellSize;

// Pixels at the image's edge that the comparison of a rendered frame leaves out.
constexpr int kImageBorder = 3;
// Pixels this close to the edge of a surface in the image are left out of that comparison.
constexpr int kEdgeMargin = 2;

constexpr float kDegrees = 3.14159265f / 180.0f;

// A thick wall occupying 2 <= x <= 3, seen from x = 0.8.
AnalyticScene wallScene() {
    AnalyticScene scene;
    scene.add(Velmora::Test::makeBox({2.0, -3.0, -3.0}, {3.0, 5.0, 5.0}, 2, {200, 200, 200}));
    return scene;
}

PinholeCamera wallCamera() {
    PinholeCamera camera;
    camera.T_world_camera = Velmora::Test::lookAt({0.8, 1.0, 1.0}, {2.0, 1.0, 1.0}, {0, 0, 1});
    return camera;
}

template <typename Grid>
class RaycastGrids : public ::testing::Test {};
using DepthGrids = ::testing::Types<DepthGrid, LabelDepthGrid>;
TYPED_TEST_SUITE(RaycastGrids, DepthGrids);

TYPED_TEST(RaycastGrids, MarchFindsTheWallHeadOnAndAtAnAngleButNotFromBehind) {
    TypeParam grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    Velmora::Test::fuseView(grid, wallScene(), wallCamera(), kTruncation);
    const Vec3 eye(0.8f, 1.0f, 1.0f);

    // Head-on: the ray parameter of a unit direction is the distance, 1.2 m.
    Vec4 hit =
        raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, kFarPlane, kStepFactor);
    EXPECT_NEAR(hit(3), 1.2f, kSurfaceTolerance);
    EXPECT_NEAR(hit(0), 2.0f, kSurfaceTolerance);
    EXPECT_FLOAT_EQ(hit(1), 1.0f);
    EXPECT_FLOAT_EQ(hit(2), 1.0f);

    // 20 degrees off the normal, sideways and downwards: the distance grows with 1 / cos, and
    // the hit stays on the plane x = 2 in the direction of the ray.
    for (const Vec3& direction : {Vec3(std::cos(20 * kDegrees), std::sin(20 * kDegrees), 0.0f),
                                  Vec3(std::cos(20 * kDegrees), 0.0f, -std::sin(20 * kDegrees))}) {
        hit = raycastSparseVolume(grid, eye, direction, kNearPlane, kFarPlane, kStepFactor);
        EXPECT_NEAR(hit(3), 1.2f / std::cos(20 * kDegrees), kSurfaceTolerance / 0.9f);
        EXPECT_NEAR(hit(0), 2.0f, kSurfaceTolerance);
        for (int a = 0; a < 3; ++a) {
            EXPECT_NEAR(hit(a), eye(a) + hit(3) * direction(a), 1e-5f);
        }
    }

    // An unnormalised direction: t is in its units, the point is the same.
    hit =
        raycastSparseVolume(grid, eye, Vec3(2.0f, 0.0f, 0.0f), kNearPlane, kFarPlane, kStepFactor);
    EXPECT_NEAR(hit(3), 0.6f, kSurfaceTolerance);
    EXPECT_NEAR(hit(0), 2.0f, kSurfaceTolerance);

    // Starting 4 cm inside the wall, within the observed band: the first value is negative, and
    // there is no search past the back face, whichever way the ray goes.
    const Vec3 inside(2.04f, 1.0f, 1.0f);
    KeyType key;
    ASSERT_LT(grid.value(inside, key), 0.0f);
    ASSERT_GT(grid.value(inside, key), kUnobservedValue);
    for (const Vec3& direction : {Vec3(-1.0f, 0.0f, 0.0f), Vec3(1.0f, 0.0f, 0.0f)}) {
        hit = raycastSparseVolume(grid, inside, direction, 0.0f, kFarPlane, kStepFactor);
        EXPECT_EQ(hit, Vec4(0.0f, 0.0f, 0.0f, 0.0f));
    }

    // A far plane short of the wall, and a near plane beyond the far plane, find nothing.
    hit = raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, 1.0f, kStepFactor);
    EXPECT_EQ(hit, Vec4(0.0f, 0.0f, 0.0f, 0.0f));
    hit = raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), 2.0f, 1.0f, kStepFactor);
    EXPECT_EQ(hit, Vec4(0.0f, 0.0f, 0.0f, 0.0f));

    // A coarse march (five cells a step) still lands on the surface: it refines in the band.
    hit = raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, kFarPlane, 5.0f);
    EXPECT_NEAR(hit(3), 1.2f, kSurfaceTolerance);

    // Host-sized nonsense ends without a hit and without hanging.
    const float nan = std::nanf("");
    EXPECT_EQ(raycastSparseVolume(grid, Vec3(nan, 0.0f, 0.0f), Vec3(1.0f, 0.0f, 0.0f), kNearPlane,
                                  kFarPlane, kStepFactor),
              Vec4(0.0f, 0.0f, 0.0f, 0.0f));
    EXPECT_EQ(raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), 1e12f, 1e30f, kStepFactor),
              Vec4(0.0f, 0.0f, 0.0f, 0.0f));
}

TYPED_TEST(RaycastGrids, RenderedFrameReproducesTheFusedDepth) {
    // A wall that fills only part of the view, seen obliquely; the rest of the view sees nothing
    // at all. The eye lies within the wall's extent along y, so its side face stays hidden.
    AnalyticScene scene;
    scene.add(Velmora::Test::makeBox({2.0, 1.1, -3.0}, {3.0, 5.0, 5.0}, 2, {200, 200, 200}));
    PinholeCamera camera;
    camera.T_world_camera = Velmora::Test::lookAt({0.8, 1.2, 1.0}, {2.0, 1.0, 0.8}, {0, 0, 1});
    TypeParam grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    Velmora::Test::fuseView(grid, scene, camera, kTruncation);
    const Velmora::Test::RenderedFrame input = Velmora::Test::render(scene, camera);

    DepthFrame frame;
    Velmora::Test::setUpFrame(frame, camera);
    IntegrationStats stats;
    stats.raycastRays = 12345;
    raycast(grid, kNearPlane, kFarPlane, kStepFactor, frame, stats);

    const int w = camera.width;
    const int h = camera.height;
    auto observed = [&](int x, int y) { return input.depthMetres[y * w + x] > 0.0f; };
    int compared = 0;
    int empty = 0;
    int hits = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            ASSERT_GE(frame.depth(x, y), 0.0f) << "pixel left unwritten at " << x << ", " << y;
            hits += frame.depth(x, y) > 0.0f;
            // Near the wall's edge the band is cut off, and cells straddle observed and unobserved
            // samples; those pixels are left out.
            bool mixed = false;
            for (int dy = -kEdgeMargin; dy <= kEdgeMargin; ++dy) {
                for (int dx = -kEdgeMargin; dx <= kEdgeMargin; ++dx) {
                    const int nx = x + dx;
                    const int ny = y + dy;
                    if (nx >= 0 && ny >= 0 && nx < w && ny < h &&
                        observed(nx, ny) != observed(x, y)) {
                        mixed = true;
                    }
                }
            }
            // Rays of the outermost three pixel rows and columns run through samples that project
            // just outside the image, which the view never updated.
            const bool border = x < kImageBorder || y < kImageBorder || x >= w - kImageBorder ||
                                y >= h - kImageBorder;
            if (mixed || border) {
                continue;
            }
            if (observed(x, y)) {
                EXPECT_NEAR(frame.depth(x, y), input.depthMetres[y * w + x], kSurfaceTolerance)
                    << "at " << x << ", " << y;
                ++compared;
            } else {
                EXPECT_EQ(frame.depth(x, y), 0.0f) << "at " << x << ", " << y;
                ++empty;
            }
        }
    }
    EXPECT_GT(compared, w * h / 4);
    EXPECT_GT(empty, w * h / 8);
    // Every hit came from a ray that reached a block; some rays reach blocks and miss.
    EXPECT_GE(stats.raycastRays, static_cast<size_t>(hits));
    EXPECT_LT(stats.raycastRays, static_cast<size_t>(w * h));
    EXPECT_GE(stats.raycastTime, 0.0f);

    // An empty grid: every pixel 0, no ray reaches a block.
    TypeParam emptyGrid;
    Velmora::Test::configureGrid(emptyGrid, kCellSize);
    raycast(emptyGrid, kNearPlane, kFarPlane, kStepFactor, frame, stats);
    EXPECT_EQ(stats.raycastRays, 0u);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            ASSERT_EQ(frame.depth(x, y), 0.0f);
        }
    }

    // A frame without pixels renders nothing and still writes the statistics.
    DepthFrame none;
    none.projection = frame.projection;
    none.pose = frame.pose;
    stats.raycastRays = 7;
    raycast(grid, kNearPlane, kFarPlane, kStepFactor, none, stats);
    EXPECT_EQ(stats.raycastRays, 0u);
}

TEST(RaycastBlockWalk, TruncatedKeysTieRuleAndSingleBlock) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    const float d = grid.dimension()(0);  // 0.16 m
    KeyType found;

    // Both ends truncate to block 0 although they lie in block -1 by the floor: the walk looks at
    // block 0 alone (start and end in one block), and never at -1.
    const Vec3 a(-0.3f * d, 0.5f * d, 0.5f * d);
    const Vec3 b(-0.2f * d, 0.6f * d, 0.5f * d);
    ASSERT_TRUE(grid.ensure(KeyType(-1, 0, 0)));
    EXPECT_FALSE(findFirstBlock(grid, a, b, found));
    ASSERT_TRUE(grid.ensure(KeyType(0, 0, 0)));
    ASSERT_TRUE(findFirstBlock(grid, a, b, found));
    EXPECT_EQ(found, KeyType(0, 0, 0));

    // From block (0, 0, 0) to (1, 1, 0) the first move is a tie, which goes to x: the walk is
    // (0,0,0), (1,0,0), (1,1,0), so a block at (0,1,0) is never seen.
    DepthGrid diagonal;
    Velmora::Test::configureGrid(diagonal, kCellSize);
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
    // Walking back, the tie again goes to x first: (1,1,0), (0,1,0).
    ASSERT_TRUE(findFirstBlock(diagonal, Vec3(1.5f * d, 1.5f * d, 0.5f * d),
                               Vec3(0.5f * d, 0.5f * d, 0.5f * d), found));
    EXPECT_EQ(found, KeyType(1, 1, 0));

    // A long walk along z meets the first existing block in the order of the walk.
    DepthGrid column;
    Velmora::Test::configureGrid(column, kCellSize);
    ASSERT_TRUE(column.ensure(KeyType(0, 0, 7)));
    ASSERT_TRUE(column.ensure(KeyType(0, 0, 4)));
    ASSERT_TRUE(findFirstBlock(column, from, Vec3(0.5f * d, 0.5f * d, 20.5f * d), found));
    EXPECT_EQ(found, KeyType(0, 0, 4));
    // Segments that end short of the blocks, or do not have finite ends, find nothing.
    EXPECT_FALSE(findFirstBlock(column, from, Vec3(0.5f * d, 0.5f * d, 3.5f * d), found));
    EXPECT_FALSE(findFirstBlock(column, from, Vec3(0.0f, 0.0f, std::nanf("")), found));
    EXPECT_FALSE(findFirstBlock(column, from,
                                Vec3(0.0f, 0.0f, std::numeric_limits<float>::infinity()), found));
    // An enormous but finite segment is walked within its bound and still finds the block.
    ASSERT_TRUE(findFirstBlock(column, from, Vec3(0.5f * d, 0.5f * d, 1e30f), found));
    EXPECT_EQ(found, KeyType(0, 0, 4));
}

// The march steps over a missing block by the float interval of each key component, which must
// be exact: its ends have the key, the floats just outside have the neighbouring keys (cell sizes
// whose block edge is not a float of k * edge, negative keys and zero included); far keys have
// none.
TEST(RaycastKeyInterval, EndsAreTheLastFloatsOfTheKey) {
    const float inf = std::numeric_limits<float>::infinity();
    for (const float cell : {0.02f, 0.01f, 0.013f}) {
        DepthGrid grid;
        Velmora::Test::configureGrid(grid, cell);
        const float dimension = grid.dimension()(0);
        const float inverse = grid.inverseDimension()(0);
        for (int k = -700; k <= 700; ++k) {
            float low = 0.0f;
            float high = 0.0f;
            ASSERT_TRUE(keyComponentInterval(k, dimension, inverse, low, high)) << k;
            EXPECT_EQ(floorToKey(low * inverse), k) << cell << " " << k;
            EXPECT_EQ(floorToKey(high * inverse), k) << cell << " " << k;
            EXPECT_EQ(floorToKey(std::nextafter(low, -inf) * inverse), k - 1) << cell << " " << k;
            EXPECT_EQ(floorToKey(std::nextafter(high, inf) * inverse), k + 1) << cell << " " << k;
        }
        float low = 0.0f;
        float high = 0.0f;
        EXPECT_FALSE(keyComponentInterval(1 << 22, dimension, inverse, low, high));
        EXPECT_FALSE(keyComponentInterval(INT_MIN, dimension, inverse, low, high));
    }
}

// The renderer's copy of the block table answers every key as the table does: dense over a
// compact box (negative keys included), hashed once one far block makes the box sparse, and
// empty; keys just outside the box and at the ends of the key range find nothing.
TEST(RaycastTableSnapshot, AnswersEveryKeyAsTheTable) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    const auto expectSameAnswers = [&grid](const std::vector<KeyType>& extra) {
        const DepthGrid::TableSnapshot snapshot(grid);
        std::vector<KeyType> keys = extra;
        for (int z = -4; z <= 3; ++z) {
            for (int y = -4; y <= 3; ++y) {
                for (int x = -4; x <= 3; ++x) {
                    keys.emplace_back(x, y, z);
                }
            }
        }
        for (const KeyType& key : keys) {
            EXPECT_EQ(snapshot.find(key), grid.findEntry(key))
                << key(0) << " " << key(1) << " " << key(2);
        }
    };
    const std::vector<KeyType> far = {KeyType(INT_MIN, INT_MIN, INT_MIN), KeyType(INT_MAX, 0, 0),
                                      KeyType(0, INT_MIN, INT_MAX), KeyType(900, -2, 1),
                                      KeyType(900, -2, 2)};
    expectSameAnswers(far);
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(grid.ensure(KeyType(i % 3 - 2, (i / 3) % 3 - 1, i / 9 - 2)));
    }
    expectSameAnswers(far);
    ASSERT_TRUE(grid.ensure(KeyType(900, -2, 1)));
    expectSameAnswers(far);
}

// The march as it reads in words: a grid lookup under its locks for every sample.
template <typename Grid>
float plainMarch(const Grid& grid, const Vec3& origin, const Vec3& direction, float nearPlane,
                 float farPlane) {
    float d = nearPlane;
    Vec3 position = origin + direction * d;
    const float smallStep = grid.config().spacing(0);
    float step = smallStep * kStepFactor;
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
void plainRender(const Grid& grid, DepthFrame& frame, bool walk) {
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
            frame.depth(x, y) = plainMarch(grid, eye, direction, start, kFarPlane);
        }
    }
}

// Renders the view of `camera` both ways and compares every pixel bit for bit; returns the
// pixels with a surface.
template <typename Grid>
int renderBothWays(const Grid& grid, const PinholeCamera& camera, bool walk,
                   IntegrationStats& stats) {
    DepthFrame fast;
    DepthFrame plain;
    Velmora::Test::setUpFrame(fast, camera);
    Velmora::Test::setUpFrame(plain, camera);
    raycast(grid, kNearPlane, kFarPlane, kStepFactor, fast, stats);
    plainRender(grid, plain, walk);
    int hits = 0;
    for (int y = 0; y < camera.height; ++y) {
        for (int x = 0; x < camera.width; ++x) {
            EXPECT_EQ(0, std::memcmp(&fast.depth(x, y), &plain.depth(x, y), sizeof(float)))
                << fast.depth(x, y) << " against " << plain.depth(x, y) << " at " << x << ", " << y;
            hits += fast.depth(x, y) > 0.0f;
        }
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
        for (size_t v = 0; v + 1 < views.size(); ++v) {
            PinholeCamera camera;
            camera.T_world_camera = Velmora::Test::lookAt(views[v][0], views[v][1], {0, 0, 1});
            Velmora::Test::fuseView(grid, room, camera, 5.0f * cell);
        }
        if (cell == 0.01f) {
            // A block far away makes the renderer's table copy hashed rather than dense.
            ASSERT_TRUE(grid.ensure(KeyType(-5000, 40, 3000)));
        }
        for (const Eye& view : views) {
            PinholeCamera camera;
            camera.width = 81;
            camera.height = 61;
            camera.T_world_camera = Velmora::Test::lookAt(view[0], view[1], {0, 0, 1});
            IntegrationStats stats;
            EXPECT_GT(renderBothWays(grid, camera, true, stats), 0);
        }
    }
}

// A wall just past a block face (x = 12 blocks of 0.16 m): many rays step over the fully
// observed block in front of it and meet the wall's back values as the first read of the next
// block, so the crossing uses the value stepped over last. Every pixel as the plain rendering.
TYPED_TEST(RaycastGrids, CrossingJustPastABlockFaceGivesThePlainDepths) {
    for (const double offset : {0.003, 0.009, 0.015}) {
        AnalyticScene scene;
        scene.add(Velmora::Test::makeBox({1.92 + offset, -3.0, -3.0}, {3.0, 5.0, 5.0}, 2,
                                         {200, 200, 200}));
        TypeParam grid;
        Velmora::Test::configureGrid(grid, kCellSize);
        for (const double y : {1.0, 0.6}) {
            PinholeCamera camera;
            camera.T_world_camera =
                Velmora::Test::lookAt({0.8, y, 1.0}, {2.0, 1.0, 1.0}, {0, 0, 1});
            Velmora::Test::fuseView(grid, scene, camera, kTruncation);
        }
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
    Velmora::Test::configureGrid(grid, kCellSize);
    Velmora::Test::fuseView(grid, wallScene(), wallCamera(), kTruncation);
    PinholeCamera camera = wallCamera();
    camera.fx = camera.fy = 0.001;
    IntegrationStats stats;
    renderBothWays(grid, camera, false, stats);
    EXPECT_EQ(stats.raycastRays, static_cast<size_t>(camera.width * camera.height));
}

// Collects the finished lines of the logger.
class LineCapture : public AR::Common::LogTarget {
public:
    void write(int, const char* text, size_t length) override { lines.emplace_back(text, length); }
    size_t count(const std::string& part) const {
        size_t n = 0;
        for (const std::string& line : lines) {
            n += line.find(part) != std::string::npos;
        }
        return n;
    }
    std::vector<std::string> lines;
};

TEST(RaycastLog, VerboseTraceOfAMarchSwitchesStepOnce) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    Velmora::Test::fuseView(grid, wallScene(), wallCamera(), kTruncation);
    const Vec3 eye(0.8f, 1.0f, 1.0f);
    AR::Common::Logger& logger = AR::Common::Logger::getInstance();
    LineCapture capture;
    logger.addTarget(&capture);

    // At the default level nothing of the march is logged.
    raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, kFarPlane, 3.0f);
    EXPECT_TRUE(capture.lines.empty());

    logger.setLevel(AR::Common::Logger::LEVEL_VERBOSE);
    const Vec4 hit =
        raycastSparseVolume(grid, eye, Vec3(1.0f, 0.0f, 0.0f), kNearPlane, kFarPlane, 3.0f);
    logger.setLevel(AR::Common::Logger::kDefaultLevel);
    logger.removeTarget(&capture);

    ASSERT_GT(hit(3), 0.0f);
    EXPECT_EQ(capture.count("nearPlane 0.050000 farPlane 5.000000"), 1u);
    EXPECT_EQ(capture.count("Switching from large step size 0.060000 to small step size 0.020000"),
              1u);
    EXPECT_EQ(capture.count("negative value found"), 1u);
    EXPECT_EQ(capture.count("surface found (via interpolation) at"), 1u);
    // One line per sample read, the last one being the first negative value.
    EXPECT_GE(capture.count("searching intersection: value"), 20u);
}

}  // namespace
}  // namespace Solid
