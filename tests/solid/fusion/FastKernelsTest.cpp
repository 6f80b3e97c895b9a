// The alternative depth kernels against the reference kernel on blocks fused from a rendered
// room, and the arithmetic their update rules fix exactly. The kernels interpolate inverse depth
// between lattice nodes and read the nearest pixel of a slightly different position, so near
// depth edges they may pick a neighbouring pixel: nearly every voxel agrees with the reference
// closely, a few at edges do not.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <random>

#include "solid/fusion/Clipping.h"
#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/IntegrationFast.h"
#include "support/RenderedBlocks.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Test::OwnedFrame;
using Test::RenderedDepth;
using Test::TestBlock;
using Test::translation;
using Velmora::Test::AnalyticScene;

constexpr float kSpacing = 0.02f;
constexpr float kRamp = 0.1f;
constexpr float kMaxWeight = 30.0f;

using Kernel =
    std::function<void(IntegrationHelper::FastVolume&, const DepthFrame&, const Matrix4&)>;

struct Agreement {
    int checked = 0;
    int updated = 0;
    int agreeing = 0;  // both skip, or both update to values within the tolerance
};

// Fuses the view into a fresh block per key with `kernel` and with the reference. The kernel's
// weight is `weightStep` where it updated; untouched samples and the border planes (the border
// copy's) keep the creation values. `scale` converts the reference's values to the kernel's.
Agreement compareWithReference(const RenderedDepth& view, const std::vector<KeyType>& keys,
                               const Kernel& kernel, double scale, double tolerance,
                               short weightStep) {
    Agreement result;
    const float dimension = 8 * kSpacing;
    for (const KeyType& key : keys) {
        TestBlock<Vec2S> fast(kSpacing);
        TestBlock<Vec2S> reference(kSpacing);
        const Matrix4 T =
            blockToCamera(view.frame.pose, Vec3(dimension, dimension, dimension), key);
        kernel(fast.volume, view.frame, T);
        integrate(reference.volume, view.frame, T, kRamp, kMaxWeight, 1);
        for (int z = 0; z < 9; ++z)
            for (int y = 0; y < 9; ++y)
                for (int x = 0; x < 9; ++x) {
                    const Vec2S f = fast.volume.at(x, y, z);
                    const Vec2S r = reference.volume.at(x, y, z);
                    if (f(1) == 0 || x == 8 || y == 8 || z == 8) {
                        EXPECT_EQ(f, creationSample<Vec2S>()) << x << y << z;
                    } else {
                        EXPECT_EQ(f(1), weightStep);
                    }
                    if (x == 8 || y == 8 || z == 8) {
                        continue;
                    }
                    ++result.checked;
                    result.updated += f(1) != 0;
                    result.agreeing += (f(1) != 0) == (r(1) != 0) &&
                                       (r(1) == 0 || std::fabs(f(0) - r(0) * scale) <= tolerance);
                }
    }
    return result;
}

struct RoomView {
    AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.5);
    // Looking into a corner of the room from 1.2 to 3 m: walls at grazing and steep angles, the
    // floor, and depth edges where they meet.
    RenderedDepth view{room, Solid::Test::roomCamera(160, 120, {2.4, 1.6, 1.3}, {4.0, 3.0, 0.6})};
    std::vector<KeyType> keys = Test::surfaceBlockKeys(view, 8 * kSpacing, 6);
};

class KernelAgreement : public ::testing::Test {
protected:
    static void SetUpTestSuite() { sView = new RoomView(); }
    static void TearDownTestSuite() {
        delete sView;
        sView = nullptr;
    }
    static RoomView* sView;
};
RoomView* KernelAgreement::sView = nullptr;

TEST_F(KernelAgreement, EveryKernelAgreesWithTheReferenceOnNearlyEveryVoxel) {
    ASSERT_GT(sView->keys.size(), 40u);
    ASSERT_TRUE(setupIntegrateFast(static_cast<int>(kMaxWeight)));
    const double toMetres = 32768.0 * kRamp / 32766.0;  // the weighted kernel stores metres
    const struct {
        const char* name;
        Kernel kernel;
        double scale;
        double tolerance;  // value units
        double agreeing;   // least fraction of voxels that agree
        short weightStep;
    } cases[] = {
        {"integrateTavric",
         [](IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T) {
             EXPECT_EQ(integrateTavric(v, f, T, kRamp, kMaxWeight, 1), 0);
         },
         1.0, 600.0, 0.98, 1},
        {"integrateFast",
         [](IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T) {
             integrateFast(v, f, T, kRamp, kMaxWeight, 1);
         },
         1.0, 600.0, 0.965, 1},
        {"integrateFast8",
         [](IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T) {
             integrateFast8(v, f, T, kRamp, kMaxWeight, 1);
         },
         1.0, 600.0, 0.98, 1},
        {"integrateFastFixed",
         [](IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T) {
             integrateFastFixed(v, f, T, kRamp, kMaxWeight, 1);
         },
         1.0, 600.0, 0.955, 1},
        {"integrateFast8Weighted",
         [](IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T) {
             integrateFast8Weighted(v, f, T, kRamp, 1.0f, kMaxWeight, 1);
         },
         toMetres, 600.0, 0.99, 16},
        {"integrateFastSPX",
         [](IntegrationHelper::FastVolume& v, const DepthFrame& f, const Matrix4& T) {
             EXPECT_EQ(integrateFastSPX(v, f, T, kRamp, kMaxWeight, 1), 0);
         },
         1.0, 2.0, 0.999, 1},
    };
    for (const auto& c : cases) {
        const Agreement a = compareWithReference(sView->view, sView->keys, c.kernel, c.scale,
                                                 c.tolerance, c.weightStep);
        // A third of the voxels or more lie within the band of the walls.
        EXPECT_GT(a.updated, a.checked / 3) << c.name;
        EXPECT_GE(a.agreeing, c.agreeing * a.checked) << c.name;
    }
}

TEST(FastKernels, FastDivisionBound) {
    // a * floor(65536 / (w + 1)) >> 16 against a / (w + 1) truncated: the reciprocal is low by
    // less than 1, which moves the quotient towards zero by less than |a| / 65536; the shift
    // floors where the division truncates, at most 1 more.
    std::mt19937 rng(7);
    for (int w = 0; w < LUT_SIZE; ++w) {
        std::uniform_int_distribution<int> acc(-32766 * (w + 1), 32766 * (w + 1));
        for (int i = 0; i < 2000; ++i) {
            const int a = acc(rng);
            const int exact = a / (w + 1);
            const int fast = fastDiv(a, w);
            // Both errors pull a positive quotient down; on a negative one they pull apart.
            EXPECT_LE(std::abs(fast - exact), std::abs(a) / 65536 + 1) << a << " / " << w + 1;
            if (a >= 0) {
                EXPECT_LE(fast, exact);
            }
        }
    }
    EXPECT_EQ(fastDiv(-3, 0), -3);
    EXPECT_EQ(fastDiv(1, 1), 0);
    EXPECT_EQ(fastDiv(-1, 1), -1);  // the shift floors
}

TEST(FastKernels, TablesAndWeightRules) {
    // The reciprocals of the first table are pinned by the division bound above.
    EXPECT_EQ(table2[1], 1 << 30);
    EXPECT_EQ(table2[511], (1 << 30) / 511);

    ASSERT_TRUE(setupIntegrateFast(30));
    ASSERT_TRUE(setupIntegrateFast(30));
    // First observation: the stored 32766 has no influence.
    Vec2S v(short(32766), short(0));
    updateFast(v, 0.5f, 30);
    EXPECT_EQ(v(0), 16383);
    EXPECT_EQ(v(1), 1);
    // The next weight saturates at the cap, also from above it (63 is the last table entry).
    v = Vec2S(short(100), short(29));
    updateFast(v, 0.0f, 30);
    EXPECT_EQ(v(1), 30);
    EXPECT_EQ(v(0), fastDiv(100 * 29, 29));
    v = Vec2S(short(100), short(63));
    updateFast(v, 0.0f, 30);
    EXPECT_EQ(v(1), 30);
    // A stored value beyond the band (only a foreign volume has one) gives a quotient of
    // -32767: updateFast clamps it, updateFast8 aborts (see the death test).
    v = Vec2S(short(-32768), short(1));
    updateFast(v, -1.0f, 30);
    EXPECT_EQ(v(0), -32766);
    EXPECT_EQ(v(1), 2);

    // Fixed point: -1.0 of the ramp is exactly -32766, a fraction truncates towards zero.
    v = Vec2S(short(0), short(0));
    updateFastFixed(v, Fx32::fromRaw(-0x10000), 30);
    EXPECT_EQ(v(0), -32766);
    v = Vec2S(short(0), short(0));
    updateFastFixed(v, Fx32::fromRaw(-0x8001), 30);  // -0.5000153 * 32766 = -16383.5
    EXPECT_EQ(v(0), -16383);
    v = Vec2S(short(0), short(0));
    updateFastFixed(v, Fx32::fromRaw(0x8001), 30);
    EXPECT_EQ(v(0), 16383);

    // Weighted: sixteenths of weight, values in 1/32768 metre, the weight capped at maxWeight.
    v = Vec2S(short(0), short(0));
    updateFastWeighted(v, 0.05f, 16, 480);
    EXPECT_EQ(v(0), static_cast<int>(0.05f * 32768.0f));
    EXPECT_EQ(v(1), 16);
    updateFastWeighted(v, -0.05f, 16, 480);
    const int64_t expected =
        ((int64_t(static_cast<int>(-0.05f * 32768.0f)) * 16 + int64_t(1638) * 16) * table2[32]) >>
        30;
    EXPECT_EQ(v(0), expected);
    EXPECT_EQ(v(1), 32);
    v = Vec2S(short(1000), short(476));
    updateFastWeighted(v, 0.0f, 16, 480);
    EXPECT_EQ(v(1), 480);
}

TEST(FastKernels, FixedPointHelpers) {
    EXPECT_EQ(invertHQ(Fx32_27::fromRaw(1 << 27)).raw, 1 << 27);
    EXPECT_EQ(invertHQ(Fx32_27::fromRaw(1 << 28)).raw, 1 << 26);
    EXPECT_EQ(invertHQ(Fx32_27::fromRaw(-(1 << 26))).raw, -(1 << 28));
    // Every millimetre value is the exact floor of d * 2^27 / 1000, read at its pixel.
    std::vector<unsigned short> mm = {0, 0, 0};
    DepthFrame frame;
    frame.depthU16.set(mm.data(), AR::CV::Size2i(3, 1), AR::CV::Size2i(3, 1), false);
    for (unsigned d = 0; d < 8000; ++d) {
        mm[2] = static_cast<unsigned short>(d);
        ASSERT_EQ(getDepthFixed(frame, AR::Math::Vec2I(2, 0)).raw,
                  static_cast<int32_t>((int64_t(d) << 27) / 1000));
    }
    EXPECT_EQ(getDepthFixed(frame, AR::Math::Vec2I(2, 0)).raw, 1073607606);
}

// A 64x64 camera, f = 100, looking down +z; a wall at `depth`.
OwnedFrame wallFrame(float depth) {
    OwnedFrame f(64, 64, depth);
    f.setIntrinsics(100.0f, 100.0f, 31.5f, 31.5f);
    return f;
}

TEST(TavricKernel, FixedUpdateArithmeticOnTheOpticalAxis) {
    // Voxel (0, 0, 0) sits on the optical axis at z = 1: xn = yn = 0, iz = 1 exactly, so the
    // increment is computable here in the kernel's own float order.
    const Matrix4 T = translation(0.0f, 0.0f, 1.0f);
    const float d = 1.03f;
    const float sdf = (1.0f / kRamp) * 1.0028380155563354f * (d - 1.0f);
    const int inc = static_cast<int>(std::min(sdf, 1.0f) * 32766.0f);
    OwnedFrame wall = wallFrame(d);

    TestBlock<Vec2S> block(kSpacing);
    Vec2S& s = block.volume.at(0, 0, 0);
    s = Vec2S(short(1000), short(30));
    integrateTavric(block.volume, wall.frame, T, kRamp, 30.0f, 1);
    EXPECT_EQ(s(0), static_cast<short>(((1000 * 30 + inc) * 2114) >> 16));  // table[30] = 2114
    EXPECT_EQ(s(1), 30);

    // First observation, weight 0: the value becomes the increment. The other branches of the
    // update (weights above the cap, negative sums flooring) are the portable kernel's own tests.
    s = Vec2S(short(32766), short(0));
    integrateTavric(block.volume, wall.frame, T, kRamp, 30.0f, 1);
    EXPECT_EQ(s(0), inc);
    EXPECT_EQ(s(1), 1);
    // maxWeight 127 is accepted.
    EXPECT_EQ(integrateTavric(block.volume, wall.frame, T, kRamp, 127.0f, 1), 0);
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

TEST(Clipping, CornersAtColumnZeroNeedClipping) {
    OwnedFrame wall = wallFrame(1.1f);
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

    // Clipped blocks are fused where they project inside, and left alone outside.
    TestBlock<Vec2S> block(kSpacing);
    const Matrix4 T = translation(-0.40f, -0.05f, 1.0f);  // columns x < 4 project left of u = 0
    EXPECT_EQ(integrateTavric(block.volume, wall.frame, T, kRamp, kMaxWeight, 1), 0);
    for (int x = 0; x < 8; ++x) {
        // Plane z = 3 lies at 1.06 m; coordinates in (-1, 0) truncate to pixel 0.
        const float u = 32.0f + 100.0f * (-0.40f + x * kSpacing) / 1.06f;
        EXPECT_EQ(block.volume.at(x, 3, 3)(1), u > -1.0f ? 1 : 0) << x;
    }
}

TEST(Clipping, BlockAcrossTheCameraPlaneIsLeftAlone) {
    OwnedFrame wall = wallFrame(1.1f);
    // Spacing 0.25 m: the nodes of slab 1 lie exactly on z = 0, the block reaches 1 m behind the
    // camera and 1 m in front of it.
    TestBlock<Vec2S> block(0.25f);
    block.volume.at(0, 0, 4) = Vec2S(short(7), short(3));
    const std::vector<Vec2S> before = block.samples;
    const Matrix4 T = translation(0.0f, 0.0f, -1.0f);
    EXPECT_EQ(integrateTavric(block.volume, wall.frame, T, kRamp, kMaxWeight, 1), 0);
    EXPECT_EQ(0, std::memcmp(before.data(), block.samples.data(), before.size() * sizeof(Vec2S)));
    ASSERT_TRUE(setupIntegrateFast(30));
    for (const auto& kernel : {integrateFast, integrateFast8}) {
        EXPECT_EQ(kernel(block.volume, wall.frame, T, kRamp, kMaxWeight, 1), 0);
        EXPECT_EQ(0,
                  std::memcmp(before.data(), block.samples.data(), before.size() * sizeof(Vec2S)));
    }
    bool front = false;
    EXPECT_FALSE(clippingRequired(wall.frame, Vec3(0.0f, 0.0f, -1.0f), 0.25f, front));
    EXPECT_TRUE(front);
}

TEST(FastKernelsDeathTest, PreconditionsAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OwnedFrame wall = wallFrame(1.1f);
    TestBlock<Vec2S> block(kSpacing);
    const Matrix4 T = translation(0.0f, 0.0f, 1.0f);
    EXPECT_DEATH(integrateTavric(block.volume, wall.frame, T, kRamp, 128.0f, 1), "maxWeight");
    EXPECT_DEATH(integrateTavric(block.volume, wall.frame, T, kRamp, kMaxWeight, 0),
                 "Only runs with 8x8x8");
    EXPECT_DEATH(integrateTavric(block.volume, wall.frame, T, kRamp, kMaxWeight, 2),
                 "Only runs with 8x8x8");
    EXPECT_DEATH(integrateFast8(block.volume, wall.frame, T, kRamp, kMaxWeight, 0),
                 "Only runs with 8x8x8");
    EXPECT_DEATH(integrateFast8Weighted(block.volume, wall.frame, T, kRamp, 1.1f, kMaxWeight, 1),
                 "weight > 0");
    EXPECT_DEATH(integrateFast8Weighted(block.volume, wall.frame, T, kRamp, 0.05f, kMaxWeight, 1),
                 "weight > 0");

    ASSERT_TRUE(setupIntegrateFast(30));
    Vec2S heavy(short(0), short(64));
    EXPECT_DEATH(updateFast(heavy, 0.5f, 30), "LUT_SIZE");
    Vec2S sample(short(32766), short(0));
    EXPECT_DEATH(updateFast(sample, 0.5f, 20), "gInitializedLUTMaxWeight");
    Vec2S overflow(short(-32768), short(1));
    EXPECT_DEATH(updateFast8(overflow, -1.0f, 30), "kMaxValue");
    Vec2S overWeight(short(0), short(500));
    EXPECT_DEATH(updateFastWeighted(overWeight, 0.0f, 16, 480), "LUT2_SIZE");

    std::vector<unsigned short> mm = {8000};
    DepthFrame frame;
    frame.depthU16.set(mm.data(), AR::CV::Size2i(1, 1), AR::CV::Size2i(1, 1), false);
    EXPECT_DEATH(getDepthFixed(frame, AR::Math::Vec2I(0, 0)), "d64");

    // An invalid weight cap leaves the table invalid: every fast update aborts until set again.
    EXPECT_FALSE(setupIntegrateFast(0));
    EXPECT_DEATH(updateFast(sample, 0.5f, 30), "gInitializedLUTMaxWeight");
    EXPECT_FALSE(setupIntegrateFast(64));
    EXPECT_DEATH(updateFast(sample, 0.5f, 30), "gInitializedLUTMaxWeight");
    ASSERT_TRUE(setupIntegrateFast(30));
}

}  // namespace
}  // namespace Solid
