// The depth and label kernels on single blocks; every fast depth kernel against the reference on
// a rendered room (near depth edges a few voxels may differ) and their update arithmetic; the
// grid driver's kernel table, fallbacks, fast-table set-up and multi-threaded pass.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "solid/fusion/Clipping.h"
#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/Integration.h"
#include "solid/fusion/IntegrationFast.h"
#include "solid/fusion/LabelIntegration.h"
#include "support/RenderedBlocks.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Test::OwnedFrame;
using Test::RenderedDepth;
using Test::TestBlock;
using Test::translation;
using Velmora::Test::AnalyticScene;

constexpr int kWidth = 64;
constexpr int kHeight = 64;
constexpr float kFocal = 100.0f;
constexpr float kCentre = 31.5f;
constexpr float kSpacing = 0.02f;
constexpr float kRamp = 0.1f;
constexpr float kMaxWeight = 30.0f;

// A 64x64 camera, f = 100, looking down +z; a wall at `depth`.
OwnedFrame makeFrame(float depth, unsigned char label = 0) {
    OwnedFrame f(kWidth, kHeight, depth, label);
    f.setIntrinsics(kFocal, kFocal, kCentre, kCentre);
    return f;
}

// `v` after one call of the update rule `rule`.
template <typename Rule, typename... Args>
Vec2S updated(Rule rule, Vec2S v, Args... args) {
    rule(v, args...);
    return v;
}

// Fixed-point increment of a point on the optical axis, with the sensor's constants.
int axisIncrement(float depth, float pointZ) {
    const float sdf = 1.0028380155563354f * (depth - pointZ);
    return static_cast<int>(std::min(sdf * (1.0f / kRamp), 1.0f) * 32766.0f);
}

TEST(ReferenceIntegration, RunningAverageWeightCapBandAndBorderPlanes) {
    TestBlock<Vec2S> block;
    const Matrix4 T = translation(0.0f, 0.0f, 1.0f);  // lattice (0,0,0) on the optical axis
    Vec2S& s = block.volume.at(0, 0, 0);
    // The stored 32766 has no influence at weight 0; twice the ramp in front, the value is
    // clamped to +1.0 of the band.
    const int inc1 = axisIncrement(1.05f, 1.0f);
    integrate(block.volume, makeFrame(1.05f).frame, T, kRamp, kMaxWeight, 1);
    EXPECT_EQ(s, Vec2S(short(inc1), short(1)));
    integrate(block.volume, makeFrame(1.2f).frame, T, kRamp, kMaxWeight, 1);
    EXPECT_EQ(s, Vec2S(short((inc1 + 32766) / 2), short(2)));

    // At the cap, the integer part of maxWeight, the weight stays; above it (left from a larger
    // cap) it falls back. The average truncates towards zero.
    OwnedFrame frame = makeFrame(1.03f);
    const int inc = axisIncrement(1.03f, 1.0f);
    s = Vec2S(short(1000), short(30));
    integrate(block.volume, frame.frame, T, kRamp, 30.9f, 1);
    EXPECT_EQ(s, Vec2S(short((1000 * 30 + inc) / 31), short(30)));
    s = Vec2S(short(-500), short(40));
    integrate(block.volume, frame.frame, T, kRamp, 30.9f, 1);
    EXPECT_EQ(s, Vec2S(short((-500 * 40 + inc) / 41), short(30)));

    // A block centred on the optical axis 1 m away, behind a wall at 1.06 m: every lattice point
    // but those of the last plane (1.16 m) lies within the band, and labels and depth are fused
    // there but on the border planes left out. A surface more than a ramp in front of the block
    // hides it, and a depth of 0 is no measurement, although a block 1 cm from the camera lies
    // within the band of a surface at 0.
    const struct {
        float depth;
        int border;
        float z;
    } walls[] = {{1.06f, 1, 1.0f}, {1.06f, 0, 1.0f}, {0.85f, 0, 1.0f}, {0.0f, 0, 0.01f}};
    for (const auto& wall : walls) {
        TestBlock<LabelDepthVolumeSample> labelled;
        integrate(labelled.volume, makeFrame(wall.depth, 3).frame,
                  translation(-0.08f, -0.08f, wall.z), kRamp, kMaxWeight, wall.border, 0.0f);
        for (int i = 0; i < 729; ++i) {
            const bool upper = i % 9 == 8 || i / 9 % 9 == 8;
            const int fused = wall.depth == 1.06f && i / 81 != 8 && (wall.border == 0 || !upper);
            ASSERT_EQ(labelled.samples[i].depth(1), fused) << wall.depth << " " << i;
            ASSERT_EQ(labelled.samples[i].labels[3], fused) << wall.depth << " " << i;
        }
    }
}

TEST(LabelIntegrationDeathTest, BandsOfTheDepthMapAndOfTheDepthGridAndWhatAborts) {
    // A wall whose labels are also a frame of their own, with the same camera.
    OwnedFrame scene = makeFrame(1.0f, 6);
    LabelFrame labelFrame;
    labelFrame.projection = scene.frame.projection;
    labelFrame.labels = scene.frame.labels;
    labelFrame.pose = translation(0.0f, 0.0f, 1.0f);  // lattice (0,0,z) on the axis
    // The votes for label 6 of lattice points (0, 0, 0), (0, 0, 1), (0, 0, 2) and (8, 0, 0).
    const auto votes = [&](float band, IntegrateVolumeStats* stats = nullptr) {
        TestBlock<LabelVolumeSample> block;
        integrateLabelsWithDepthMap(block.volume, labelFrame, scene.frame, 0.1f, 1, band,
                                    Vec3(0, 0, 0), stats);
        const auto& v = block.volume;
        return std::vector<int>{v.at(0, 0, 0).labels[6], v.at(0, 0, 1).labels[6],
                                v.at(0, 0, 2).labels[6], v.at(8, 0, 0).labels[6]};
    };
    IntegrateVolumeStats volumeStats;
    // 2 cm band: z = 0 sits on the surface; z = 1 is 2 cm (times c0 > 1) away and does not vote.
    EXPECT_EQ(votes(0.02f, &volumeStats), (std::vector<int>{1, 0, 0, 0}));
    EXPECT_GT(volumeStats.votes, 0u);
    // Band 0: sqrt(3) times the spacing, 3.46 cm: z = 1 votes now, z = 2 (4 cm) not. The border
    // planes are never visited.
    EXPECT_EQ(votes(0.0f), (std::vector<int>{1, 1, 0, 0}));
    // A hole in the depth image means no vote, however near the sample is: 1 cm from the camera
    // it lies within the band of a surface at 0.
    std::fill(scene.depth.begin(), scene.depth.end(), 0.0f);
    labelFrame.pose = translation(0.0f, 0.0f, 0.01f);
    EXPECT_EQ(votes(0.02f), (std::vector<int>{0, 0, 0, 0}));

    // Without a depth map the blocks read the depth grid.
    DepthGrid depthGrid;
    LabelGrid labelGrid;
    depthGrid.set(Size(9, 9, 9), Vec3(0.02f, 0.02f, 0.02f));
    labelGrid.set(Size(9, 9, 9), Vec3(0.02f, 0.02f, 0.02f));
    // Block (0, 0, 6) spans z = 0.96 .. 1.12 m. Lattice plane 2 (z = 1.0 m) holds the surface;
    // plane 1 lies just outside the 0.2 band (6554 / 32766 > 0.2), plane 3 just inside it.
    const KeyType key(0, 0, 6);
    depthGrid.ensure(key);
    labelGrid.ensure(key);
    for (int i = 0; i < 729; ++i) {
        const int y = i / 9 % 9, z = i / 81;
        const short values[] = {20000, 6554, 0, -6553};
        depthGrid.get(key)->at(i % 9, y, z) = Vec2S(z < 4 ? values[z] : -20000, y == 3 ? 0 : 1);
    }
    labelFrame.pose = Matrix4::identity();  // world = camera, looking along +z
    IndexSet blocks;
    blocks.insert(key);
    IntegrationStats stats;
    const DepthFrame noDepth;
    // Band 0.02 m of a 0.1 m truncation: |value| < 0.2 votes.
    integrate(labelGrid, depthGrid, labelFrame, blocks, ConstantErrorModel(0.1f), stats, 0.02f,
              noDepth);
    EXPECT_EQ(stats.integratedBlocks, 1u);
    EXPECT_EQ(stats.totalBlocks, 1u);
    auto labels = labelGrid.get(key);
    int voted = 0;
    // Row y = 3 is unobserved (weight 0) and reads -2.0: no votes there.
    for (int i = 0; i < 512; ++i) {
        const int y = i / 8 % 8, z = i / 64, count = labels->at(i % 8, y, z).labels[6];
        if ((z != 2 && z != 3) || y == 3) {
            ASSERT_EQ(count, 0) << i;
        }
        voted += count;
    }
    EXPECT_GT(voted, 30);

    // Empty labels, or a block that does not exist, abort.
    TestBlock<LabelVolumeSample> block;
    EXPECT_DEATH(integrateLabelsWithDepthMap(block.volume, LabelFrame(), scene.frame, 0.1f, 1,
                                             0.02f, Vec3(0, 0, 0), nullptr),
                 "labels.numPixels");
    blocks.insert(KeyType(1, 2, 3));
    EXPECT_DEATH(integrate(labelGrid, depthGrid, labelFrame, blocks, ConstantErrorModel(0.1f),
                           stats, 0.02f, noDepth),
                 "block");
}

using DepthKernel = int (*)(IntegrationHelper::FastVolume&, const DepthFrame&, const Matrix4&,
                            float, float, int);

// The kernels of other shapes in the kernel table's form.
template <void (*kernel)(IntegrationHelper::FastVolume&, const DepthFrame&, const Matrix4&, float,
                         float, int)>
int asKernel(IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T, float ramp,
             float maxWeight, int border) {
    kernel(v, f, T, ramp, maxWeight, border);
    return 0;
}
int fast8Weighted(IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T,
                  float ramp, float maxWeight, int border) {
    return integrateFast8Weighted(v, f, T, ramp, 1.0f, maxWeight, border);
}

// Each kernel fuses the view into a fresh block per key, and so does the reference. The kernel's
// weight is `weightStep` where it updated; untouched samples and the border planes (the border
// copy's) keep the creation values. `scale` converts the reference's values to the kernel's.
TEST(KernelAgreement, EveryKernelAgreesWithTheReferenceOnNearlyEveryVoxel) {
    // Looking into a corner of the room from 1.2 to 3 m: walls at grazing and steep angles, the
    // floor, and depth edges where they meet.
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.5);
    const RenderedDepth view(room,
                             Solid::Test::roomCamera(160, 120, {2.4, 1.6, 1.3}, {4.0, 3.0, 0.6}));
    const std::vector<KeyType> keys = Solid::Test::surfaceBlockKeys(view, 8 * kSpacing, 6);
    ASSERT_GT(keys.size(), 40u);
    ASSERT_TRUE(setupIntegrateFast(static_cast<int>(kMaxWeight)));
    const double toMetres = 32768.0 * kRamp / 32766.0;  // the weighted kernel stores metres
    const struct {
        const char* name;
        DepthKernel kernel;
        double scale;
        double tolerance;  // value units
        double agreeing;   // least fraction of voxels that agree
        short weightStep;
    } cases[] = {
        {"integrateTavric", integrateTavric, 1.0, 600.0, 0.98, 1},
        {"integrateFast", integrateFast, 1.0, 600.0, 0.965, 1},
        {"integrateFast8", integrateFast8, 1.0, 600.0, 0.98, 1},
        {"integrateFastFixed", integrateFastFixed, 1.0, 600.0, 0.955, 1},
        {"integrateFast8Weighted", fast8Weighted, toMetres, 600.0, 0.99, 16},
        {"integrateFastSPX", integrateFastSPX, 1.0, 2.0, 0.999, 1},
    };
    const float dimension = 8 * kSpacing;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int checked = 0, updated = 0;
        int agreeing = 0;  // both skip, or both update to values within the tolerance
        for (const KeyType& key : keys) {
            TestBlock<Vec2S> fast(kSpacing);
            TestBlock<Vec2S> reference(kSpacing);
            const Matrix4 T =
                blockToCamera(view.frame.pose, Vec3(dimension, dimension, dimension), key);
            EXPECT_EQ(c.kernel(fast.volume, view.frame, T, kRamp, kMaxWeight, 1), 0);
            integrate(reference.volume, view.frame, T, kRamp, kMaxWeight, 1);
            for (int i = 0; i < 729; ++i) {
                const Vec2S f = fast.samples[i], r = reference.samples[i];
                const bool border = i % 9 == 8 || i / 9 % 9 == 8 || i / 81 == 8;
                if (f(1) == 0 || border) {
                    EXPECT_EQ(f, creationSample<Vec2S>()) << i;
                } else {
                    EXPECT_EQ(f(1), c.weightStep);
                }
                checked += !border;
                updated += f(1) != 0;
                agreeing += !border && (f(1) != 0) == (r(1) != 0) &&
                            (r(1) == 0 || std::fabs(f(0) - r(0) * c.scale) <= c.tolerance);
            }
        }
        // A third of the voxels or more lie within the band of the walls.
        EXPECT_GT(updated, checked / 3);
        EXPECT_GE(agreeing, c.agreeing * checked);
    }
}

TEST(FastKernelsDeathTest, DivisionTablesWeightRulesFixedPointHelpersAndTheirAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // a * floor(65536 / (w + 1)) >> 16 against a / (w + 1) truncated: the reciprocal is low by
    // less than 1, which moves the quotient towards zero by less than |a| / 65536; the shift
    // floors where the division truncates, at most 1 more.
    for (int w = 0; w < LUT_SIZE; ++w)
        for (int a = -32766 * (w + 1); a <= 32766 * (w + 1); a += 331 * (w + 1) + 7) {
            ASSERT_LE(std::abs(fastDiv(a, w) - a / (w + 1)), std::abs(a) / 65536 + 1) << a;
            ASSERT_TRUE(a < 0 || fastDiv(a, w) <= a / (w + 1)) << a;
        }
    EXPECT_EQ(fastDiv(-1, 1), -1);  // the shift floors
    EXPECT_EQ(table2[1], 1 << 30);
    EXPECT_EQ(table2[511], (1 << 30) / 511);

    ASSERT_TRUE(setupIntegrateFast(30));
    // First observation: the stored 32766 has no influence.
    EXPECT_EQ(updated(updateFast, Vec2S(short(32766), short(0)), 0.5f, 30), Vec2S(short(16383), 1));
    // A stored value beyond the band (only a foreign volume has one) gives a quotient of
    // -32767: updateFast clamps it, updateFast8 aborts.
    EXPECT_EQ(updated(updateFast, Vec2S(short(-32768), short(1)), -1.0f, 30), Vec2S(-32766, 2));
    EXPECT_DEATH(updated(updateFast8, Vec2S(-32768, 1), -1.0f, 30), "kMaxValue");
    EXPECT_DEATH(updated(updateFast, Vec2S(0, 64), 0.5f, 30), "LUT_SIZE");
    EXPECT_DEATH(updated(updateFast, Vec2S(32766, 0), 0.5f, 20), "gInitializedLUTMaxWeight");
    // Fixed point: -1.0 of the ramp is exactly -32766, a fraction truncates towards zero
    // (-0.5000153 * 32766 = -16383.5).
    EXPECT_EQ(updated(updateFastFixed, Vec2S(0, 0), Fx32::fromRaw(-0x10000), 30)(0), -32766);
    EXPECT_EQ(updated(updateFastFixed, Vec2S(0, 0), Fx32::fromRaw(-0x8001), 30)(0), -16383);
    // Weighted: sixteenths of weight, values in 1/32768 metre, the weight capped at maxWeight.
    EXPECT_EQ(updated(updateFastWeighted, Vec2S(0, 0), 0.05f, 16, 480),
              Vec2S(short(0.05f * 32768.0f), 16));
    EXPECT_EQ(updated(updateFastWeighted, Vec2S(1000, 476), 0.0f, 16, 480)(1), 480);
    EXPECT_DEATH(updated(updateFastWeighted, Vec2S(0, 500), 0.0f, 16, 480), "LUT2_SIZE");

    EXPECT_EQ(invertHQ(Fx32_27::fromRaw(-(1 << 26))).raw, -(1 << 28));
    // Every millimetre value is the exact floor of d * 2^27 / 1000, read at its pixel; 8 m and
    // beyond abort.
    std::vector<unsigned short> mm = {0, 0, 0};
    DepthFrame frame;
    frame.depthU16.set(mm.data(), AR::CV::Size2i(3, 1), AR::CV::Size2i(3, 1), false);
    for (unsigned d = 0; d < 8000; ++d) {
        mm[2] = static_cast<unsigned short>(d);
        ASSERT_EQ(getDepthFixed(frame, AR::Math::Vec2I(2, 0)).raw,
                  static_cast<int32_t>((int64_t(d) << 27) / 1000));
    }
    mm[2] = 8000;
    EXPECT_DEATH(getDepthFixed(frame, AR::Math::Vec2I(2, 0)), "d64");
}

// Both forms of checkClippingRequired on a block of 8 cells of `step` at `origin`, axis-aligned;
// they must agree on the answer and on `front`.
bool clippingRequired(const DepthFrame& frame, const Vec3& origin, float step, bool& front) {
    const Vec3 xs(step, 0.0f, 0.0f), ys(0.0f, step, 0.0f), zs(0.0f, 0.0f, step);
    InverseZGrid grid;
    setupInverseZGrid(origin, xs, ys, zs, grid);
    bool nodeFront = !front;
    const bool withNodes =
        checkClippingRequired(frame, Size(8, 8, 8), origin, xs, ys, zs, grid, nodeFront);
    const bool plain = checkClippingRequired(frame, Size(8, 8, 8), origin, xs, ys, zs, front);
    EXPECT_EQ(withNodes, plain);
    EXPECT_EQ(nodeFront, front);
    return plain;
}

TEST(Clipping, CornersAtColumnZeroNeedClippingAndBlocksAcrossTheCameraPlaneAreLeftAlone) {
    OwnedFrame wall = makeFrame(1.1f);
    bool front = true;
    // Origin at x = -0.315 m, z = 1: u = 32 - 31.5 = 0.5, pixel 0 - inside, but on the margin.
    EXPECT_TRUE(clippingRequired(wall.frame, Vec3(-0.315f, -0.05f, 1.0f), kSpacing, front));
    EXPECT_FALSE(front);
    // Two pixels further in, every corner is clear of the margin.
    EXPECT_FALSE(clippingRequired(wall.frame, Vec3(-0.30f, -0.05f, 1.0f), kSpacing, front));
    // The far corner (index 7, not 8) decides at the right edge: corner 7 at u = 63.4 lies on
    // the margin, at u = 62.5 it is clear although lattice index 8 would project to u = 64.5.
    EXPECT_TRUE(
        clippingRequired(wall.frame, Vec3(0.314f - 7 * kSpacing, -0.05f, 1.0f), kSpacing, front));
    EXPECT_FALSE(
        clippingRequired(wall.frame, Vec3(0.305f - 7 * kSpacing, -0.05f, 1.0f), kSpacing, front));

    // A block across the camera plane is left alone: at spacing 0.25 m the nodes of slab 1 lie
    // exactly on z = 0, the block reaches 1 m behind the camera and 1 m in front of it.
    TestBlock<Vec2S> block(0.25f);
    block.volume.at(0, 0, 4) = Vec2S(short(7), short(3));
    const std::vector<Vec2S> before = block.samples;
    const Matrix4 T = translation(0.0f, 0.0f, -1.0f);
    ASSERT_TRUE(setupIntegrateFast(30));
    for (const DepthKernel kernel : {integrateTavric, integrateFast, integrateFast8}) {
        EXPECT_EQ(kernel(block.volume, wall.frame, T, kRamp, kMaxWeight, 1), 0);
        EXPECT_EQ(0,
                  std::memcmp(before.data(), block.samples.data(), before.size() * sizeof(Vec2S)));
    }
}

TEST(KernelsDeathTest, PreconditionsAbortAndTheGridSetsUpTheFastTablesItNeeds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OwnedFrame wall = makeFrame(1.1f, 40);  // a label class the histogram cannot hold
    TestBlock<Vec2S> block(kSpacing);
    TestBlock<LabelDepthVolumeSample> labelled;
    const Matrix4 T = translation(0.0f, 0.0f, 1.0f);
    const LabelDepthFrame empty;
    EXPECT_DEATH(
        integrate(labelled.volume, static_cast<const DepthFrame&>(empty), T, kRamp, kMaxWeight, 1),
        "numPixels");
    EXPECT_DEATH(integrate(labelled.volume, wall.frame, T, kRamp, kMaxWeight, 1, 0.0f),
                 "labels.size");
    EXPECT_DEATH(integrateTavric(block.volume, wall.frame, T, kRamp, 128.0f, 1), "maxWeight");
    EXPECT_DEATH(integrateTavric(block.volume, wall.frame, T, kRamp, kMaxWeight, 2),
                 "Only runs with 8x8x8");
    EXPECT_DEATH(integrateFast8Weighted(block.volume, wall.frame, T, kRamp, 0.05f, kMaxWeight, 1),
                 "weight > 0");
    wall.frame.labels = AR::CV::Image<unsigned char>();
    EXPECT_DEATH(integrate(labelled.volume, wall.frame, T, kRamp, kMaxWeight, 1, 0.0f),
                 "numPixels");

    const DepthFrame none;  // an empty selection reads no pixel
    DepthGrid grid;
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    const ConstantErrorModel model(kRamp);
    IntegrationStats stats;
    // An empty selection still sets up the tables of the cap 30 for the values that use them,
    // and only for those.
    for (int value : {kAccelerationFast, kAccelerationFastFixed, kAccelerationFast8}) {
        ASSERT_TRUE(setupIntegrateFast(5));
        integrateBlocks(grid, none, IndexSet(), model, kMaxWeight, stats,
                        static_cast<Acceleration>(value));
        EXPECT_EQ(stats.integratedBlocks, 0u);
        EXPECT_EQ(updated(updateFast, Vec2S(0, 30), 0.5f, 30)(1), 30);
    }
    ASSERT_TRUE(setupIntegrateFast(5));
    integrateBlocks(grid, none, IndexSet(), model, kMaxWeight, stats, kAccelerationTavric);
    EXPECT_DEATH(updated(updateFast, Vec2S(0, 3), 0.5f, 30), "gInitializedLUTMaxWeight");
    EXPECT_DEATH(integrateBlocks(grid, none, IndexSet(), model, 64.0f, stats, kAccelerationFast),
                 "setUp");
}

struct Room {
    AnalyticScene scene = AnalyticScene::room(4.0, 3.0, 2.5);
    RenderedDepth view{scene, Test::roomCamera(96, 72, {2.4, 1.6, 1.3}, {4.0, 3.0, 0.6})};
    LabelDepthFrame labelled;
    Room() {
        static_cast<DepthFrame&>(labelled) = view.frame;
        const AR::CV::Size2i size(view.rendered.width, view.rendered.height);
        labelled.labels.set(view.rendered.labels.data(), size, size, false);
    }
};

// Fuses the room's frame into `grid` with the frame path's arguments and `acceleration`.
template <typename Grid, typename Frame>
IndexSet fuse(Grid& grid, const Frame& frame, Acceleration acceleration) {
    const ConstantErrorModel model(kRamp);
    IntegrationStats stats;
    return integrate(grid, frame, model, kMaxWeight, stats, acceleration, 1, 0.0f, 0.0f, nullptr, 1,
                     1, 1, static_cast<SaturationManager<float, Grid>*>(nullptr));
}

// Fuses `frame` with every value into fresh grids of `side`: each block of the grid must hold
// what `expected(value, block, T)` fuses into a fresh block, with the frame's block-to-camera `T`.
template <typename Grid, typename Frame, typename Expected>
void expectEveryValue(const Frame& frame, int side, const Expected& expected) {
    using Sample = typename Grid::SampleType;
    for (int value = kAccelerationReference; value <= kAccelerationMultiThreaded; ++value) {
        SCOPED_TRACE(testing::Message() << "side " << side << ", value " << value);
        Grid grid;
        grid.set(Size(side, side, side), Vec3(kSpacing, kSpacing, kSpacing));
        const IndexSet keys = fuse(grid, frame, static_cast<Acceleration>(value));
        ASSERT_GT(keys.size(), 20u);
        const VolumeConfig& config = grid.config();
        for (const KeyType& key : keys) {
            std::vector<Sample> samples(config.numSamples, creationSample<Sample>());
            Volume<Sample, ReferencedVolumeData> fresh(samples.data(), &config);
            expected(value, fresh, blockToCamera(frame.pose, grid.dimension(), key));
            auto block = grid.get(key);
            ASSERT_TRUE(block);
            ASSERT_EQ(
                0, std::memcmp(block->data(), samples.data(), config.numSamples * sizeof(Sample)))
                << "block " << key(0) << " " << key(1) << " " << key(2);
        }
    }
}

// 9-cube depth blocks run the kernel of each value; on 8-cube blocks the 9-cube kernels (3 to 6)
// give way to the reference, while 1 and 2 run anywhere. Label-depth blocks run the reference
// with labels for 0 and its depth part for the others, but for 5, which fuses nothing, yet
// creates and returns its blocks.
TEST(GridAcceleration, EveryGridRunsTheKernelOfEachValue) {
    const Room room;
    const DepthFrame& frame = room.view.frame;
    const DepthKernel kernels[] = {asKernel<integrate<Vec2S, ReferencedVolumeData>>,
                                   integrateFast,
                                   integrateFastFixed,
                                   integrateFast8,
                                   integrateTavric,
                                   fast8Weighted,
                                   asKernel<integrateRef>};
    for (const int side : {9, 8}) {
        expectEveryValue<DepthGrid>(frame, side, [&](int value, auto& block, const Matrix4& T) {
            const bool anyShape = value <= kAccelerationFastFixed;
            kernels[side == 9 || anyShape ? value : kAccelerationReference](block, frame, T, kRamp,
                                                                            kMaxWeight, 1);
        });
    }
    const LabelDepthFrame& labelled = room.labelled;
    expectEveryValue<LabelDepthGrid>(labelled, 9, [&](int value, auto& block, const Matrix4& T) {
        if (value == kAccelerationReference) {
            integrate(block, labelled, T, kRamp, kMaxWeight, 1, 0.0f);
        } else if (value != kAccelerationFast8Weighted) {
            integrate(block, static_cast<const DepthFrame&>(labelled), T, kRamp, kMaxWeight, 1);
        }
    });
}

// The reader copies one block of the view under its lock while the pool fuses three frames: each
// copy must be one of the states the block goes through when the frames are fused on one thread
// (inner samples; the border plane is the neighbours' copy), in order. A sample written outside
// the block's lock, or a block published before its creation values, shows up as a copy of no
// state.
TEST(GridAccelerationConcurrency, ReaderSeesOnlyWholeFrameStatesOfABlock) {
    const Room room;
    const DepthFrame& frame = room.view.frame;
    const Size size(9, 9, 9);
    auto inner = [](const DepthVolume& block) {
        std::vector<Vec2S> samples;
        for (int i = 0; i < 512; ++i)
            samples.push_back(block.at(i % 8, i / 8 % 8, i / 64));
        return samples;
    };
    DepthGrid serial;
    serial.set(size, Vec3(kSpacing, kSpacing, kSpacing));
    const KeyType key = *fuse(serial, frame, kAccelerationMultiThreaded).begin();
    std::vector<std::vector<Vec2S>> states = {std::vector<Vec2S>(512, creationSample<Vec2S>()),
                                              inner(*serial.get(key))};
    for (int f = 0; f < 2; ++f) {
        fuse(serial, frame, kAccelerationMultiThreaded);
        states.push_back(inner(*serial.get(key)));
    }

    DepthGrid pooled;
    pooled.set(size, Vec3(kSpacing, kSpacing, kSpacing));
    std::atomic<bool> stop{false}, started{false};
    int copies = 0, torn = 0;
    std::thread reader([&] {
        size_t reached = 0;
        do {
            if (auto block = pooled.get(key)) {
                const std::vector<Vec2S> seen = inner(*block);
                size_t k = reached;
                while (k < states.size() && seen != states[k])
                    ++k;
                torn += k == states.size();
                reached = k == states.size() ? reached : k;
                ++copies;
            }
            started = true;
        } while (!stop.load());
    });
    while (!started.load())
        std::this_thread::yield();
    for (int frameIndex = 0; frameIndex < 3; ++frameIndex)
        fuse(pooled, frame, kAccelerationMultiThreaded);
    stop = true;
    reader.join();
    EXPECT_EQ(torn, 0) << copies;
    EXPECT_EQ(inner(*pooled.get(key)), states.back());
}

}  // namespace
}  // namespace Solid
