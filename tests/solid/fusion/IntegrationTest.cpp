// The reference depth kernels on a single block: the fixed-point running average, its weight
// rule, what is skipped, the label vote in the combined kernel, and agreement with the true
// signed distance of a plane and with the double-precision kernel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "solid/fusion/Integration.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Test::OwnedFrame;
using Test::TestBlock;
using Test::translation;

constexpr int kWidth = 64;
constexpr int kHeight = 64;
constexpr float kFocal = 100.0f;
constexpr float kCentre = 31.5f;
constexpr float kRamp = 0.1f;
constexpr float kMaxWeight = 30.0f;

OwnedFrame makeFrame(float depth, unsigned char label = 0) {
    OwnedFrame f(kWidth, kHeight, depth, label);
    f.setIntrinsics(kFocal, kFocal, kCentre, kCentre);
    return f;
}

// Fixed-point increment of a point on the optical axis, with the sensor's constants.
int axisIncrement(float depth, float pointZ) {
    const float sdf = 1.0028380155563354f * (depth - pointZ);
    return static_cast<int>(std::min(sdf * (1.0f / kRamp), 1.0f) * 32766.0f);
}

TEST(ReferenceIntegration, FirstObservationThenRunningAverage) {
    TestBlock<Vec2S> block;
    const Matrix4 T = translation(0.0f, 0.0f, 1.0f);  // lattice (0,0,0) on the optical axis
    OwnedFrame far = makeFrame(1.05f);
    integrate(block.volume, far.frame, T, kRamp, kMaxWeight, 1);
    const Vec2S first = block.volume.at(0, 0, 0);
    const int inc1 = axisIncrement(1.05f, 1.0f);
    EXPECT_EQ(first(0), inc1);  // the stored 32766 has no influence at weight 0
    EXPECT_EQ(first(1), 1);

    OwnedFrame nearer = makeFrame(0.95f);
    integrate(block.volume, nearer.frame, T, kRamp, kMaxWeight, 1);
    const int inc2 = axisIncrement(0.95f, 1.0f);
    ASSERT_LT(inc2, 0);
    EXPECT_EQ(block.volume.at(0, 0, 0)(0), (inc1 + inc2) / 2);  // truncation towards zero
    EXPECT_EQ(block.volume.at(0, 0, 0)(1), 2);

    // Twice the ramp in front: the value is clamped to +1.0 of the band.
    TestBlock<Vec2S> carved;
    OwnedFrame wall = makeFrame(1.2f);
    integrate(carved.volume, wall.frame, T, kRamp, kMaxWeight, 1);
    EXPECT_EQ(carved.volume.at(0, 0, 0)(0), 32766);
}

TEST(ReferenceIntegration, WeightIsCappedAtMaxWeight) {
    TestBlock<Vec2S> block;
    const Matrix4 T = translation(0.0f, 0.0f, 1.0f);
    OwnedFrame frame = makeFrame(1.03f);
    const int inc = axisIncrement(1.03f, 1.0f);
    Vec2S& atCap = block.volume.at(0, 0, 0);
    atCap(0) = 1000;
    atCap(1) = 30;
    Vec2S& aboveCap = block.volume.at(0, 0, 0);
    integrate(block.volume, frame.frame, T, kRamp, kMaxWeight, 1);
    EXPECT_EQ(atCap(0), (1000 * 30 + inc) / 31);
    EXPECT_EQ(atCap(1), 30);

    aboveCap(0) = -500;
    aboveCap(1) = 40;  // left over from a larger cap: falls back at the next update
    integrate(block.volume, frame.frame, T, kRamp, kMaxWeight, 1);
    EXPECT_EQ(aboveCap(0), (-500 * 40 + inc) / 41);
    EXPECT_EQ(aboveCap(1), 30);

    // The cap is the integer part of maxWeight.
    TestBlock<Vec2S> other;
    for (int i = 0; i < 5; ++i) {
        integrate(other.volume, frame.frame, T, kRamp, 3.9f, 1);
    }
    EXPECT_EQ(other.volume.at(0, 0, 0)(1), 3);
}

TEST(ReferenceIntegration, SkipsHolesBehindBandAndBorderPlanes) {
    const Matrix4 T = translation(-0.08f, -0.08f, 1.0f);  // block centred on the optical axis
    OwnedFrame frame = makeFrame(1.06f, 3);               // every lattice point within the band

    TestBlock<LabelDepthVolumeSample> block;
    integrate(block.volume, frame.frame, T, kRamp, kMaxWeight, 1, 0.0f);
    for (int z = 0; z < 9; ++z)
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 9; ++x) {
                const LabelDepthVolumeSample& s = block.volume.at(x, y, z);
                const bool border = x == 8 || y == 8 || z == 8;
                EXPECT_EQ(s.depth(1), border ? 0 : 1) << x << " " << y << " " << z;
                EXPECT_EQ(s.labels[3], border ? 0 : 1);
            }

    // A depth of 0 is no measurement: neither depth nor labels change.
    TestBlock<LabelDepthVolumeSample> holes;
    OwnedFrame empty = makeFrame(0.0f, 3);
    integrate(holes.volume, empty.frame, T, kRamp, kMaxWeight, 1, 0.0f);
    for (const LabelDepthVolumeSample& s : holes.samples) {
        ASSERT_EQ(s.depth(1), 0);
        ASSERT_EQ(s.labels[3], 0);
    }

    // A surface more than a ramp in front of the block: nothing behind it is touched.
    TestBlock<Vec2S> hidden;
    OwnedFrame wall = makeFrame(0.85f);
    integrate(hidden.volume, wall.frame, T, kRamp, kMaxWeight, 1);
    for (const Vec2S& s : hidden.samples) {
        ASSERT_EQ(s(1), 0);
    }

    // border 0 writes the last planes too.
    TestBlock<Vec2S> full;
    integrate(full.volume, frame.frame, T, kRamp, kMaxWeight, 0);
    EXPECT_EQ(full.volume.at(8, 0, 0)(1), 1);
    EXPECT_EQ(full.volume.at(0, 8, 0)(1), 1);
}

TEST(ReferenceIntegration, CameraPlaneAndImageEdges) {
    OwnedFrame frame = makeFrame(1.0f);
    // Exactly the near limit is processed, one float step nearer is not.
    TestBlock<Vec2S> atLimit;
    integrate(atLimit.volume, frame.frame, translation(0, 0, 0.0001f), kRamp, kMaxWeight, 1);
    EXPECT_EQ(atLimit.volume.at(0, 0, 0)(1), 1);
    EXPECT_EQ(atLimit.volume.at(0, 0, 0)(0), 32766);
    TestBlock<Vec2S> tooNear;
    integrate(tooNear.volume, frame.frame, translation(0, 0, std::nextafter(0.0001f, 0.0f)), kRamp,
              kMaxWeight, 1);
    EXPECT_EQ(tooNear.volume.at(0, 0, 0)(1), 0);

    // Pixel coordinates in (-1, 0) truncate onto column 0; -1 itself is outside.
    OwnedFrame column0 = makeFrame(0.0f);
    for (int v = 0; v < kHeight; ++v)
        column0.depth[v * kWidth] = 1.0f;
    // u = fx * x / z + cx + 0.5 = -0.5 needs x = -32.5 / fx at z = 1.
    TestBlock<Vec2S> edge;
    integrate(edge.volume, column0.frame, translation(-32.5f / kFocal, 0, 1.0f), kRamp, kMaxWeight,
              1);
    EXPECT_EQ(edge.volume.at(0, 0, 0)(1), 1);
    TestBlock<Vec2S> outside;
    integrate(outside.volume, column0.frame, translation(-33.0f / kFocal, 0, 1.0f), kRamp,
              kMaxWeight, 1);
    EXPECT_EQ(outside.volume.at(0, 0, 0)(1), 0);
}

TEST(ReferenceIntegration, LabelBandIsIndependentOfTheDepthUpdate) {
    const Matrix4 T = translation(0, 0, 1.0f);
    // Surface 0.15 m in front of the point: behind the depth band, inside a 0.2 m label band.
    OwnedFrame frame = makeFrame(0.85f, 9);
    TestBlock<LabelDepthVolumeSample> wide;
    integrate(wide.volume, frame.frame, T, kRamp, kMaxWeight, 1, 0.2f);
    EXPECT_EQ(wide.volume.at(0, 0, 0).depth(1), 0);
    EXPECT_EQ(wide.volume.at(0, 0, 0).labels[9], 1);
    TestBlock<LabelDepthVolumeSample> narrow;
    integrate(narrow.volume, frame.frame, T, kRamp, kMaxWeight, 1, 0.0f);
    EXPECT_EQ(narrow.volume.at(0, 0, 0).labels[9], 0);

    // Far in front of the surface: the depth is carved, no label is counted.
    OwnedFrame far = makeFrame(1.5f, 9);
    TestBlock<LabelDepthVolumeSample> carved;
    integrate(carved.volume, far.frame, T, kRamp, kMaxWeight, 1, 0.0f);
    EXPECT_EQ(carved.volume.at(0, 0, 0).depth(1), 1);
    EXPECT_EQ(carved.volume.at(0, 0, 0).labels[9], 0);
}

TEST(ReferenceIntegrationDeathTest, PreconditionsAbort) {
    TestBlock<LabelDepthVolumeSample> block;
    const Matrix4 T = translation(0, 0, 1.0f);
    LabelDepthFrame noDepth;
    EXPECT_DEATH(
        integrate(block.volume, static_cast<const DepthFrame&>(noDepth), T, kRamp, kMaxWeight, 1),
        "numPixels");
    OwnedFrame frame = makeFrame(1.0f, 40);  // a class the histogram cannot hold
    EXPECT_DEATH(integrate(block.volume, frame.frame, T, kRamp, kMaxWeight, 1, 0.0f),
                 "labels.size");
    frame.frame.labels = AR::CV::Image<unsigned char>();
    EXPECT_DEATH(integrate(block.volume, frame.frame, T, kRamp, kMaxWeight, 1, 0.0f), "numPixels");
}

// A tilted plane seen from a rotated camera: fused values near the surface match the signed
// distance along the ray. The kernel's sdf is the axial difference times (c0 + c1 r^2), a
// stand-in for the ray distance; near the axis (r^2 < 0.02) its error is below 1.3 % and the
// fixed point adds 1/32766, so |value * ramp - true| < 0.013 * ramp + 1e-5 for in-band points.
TEST(ReferenceIntegration, PlaneMatchesTrueSignedDistance) {
    TestBlock<Vec2S> block;
    const Matrix4 T = translation(-0.08f, -0.08f, 0.92f);
    OwnedFrame frame = makeFrame(0.0f);
    // Plane z = 1.0 + 0.1 * x in camera space.
    for (int v = 0; v < kHeight; ++v)
        for (int u = 0; u < kWidth; ++u) {
            const float rx = (u - kCentre) / kFocal;
            frame.depth[v * kWidth + u] = 1.0f / (1.0f - 0.1f * rx);
        }
    integrate(block.volume, frame.frame, T, kRamp, kMaxWeight, 1);
    int checked = 0;
    for (int z = 0; z < 8; ++z)
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x) {
                const float px = -0.08f + 0.02f * x, py = -0.08f + 0.02f * y,
                            pz = 0.92f + 0.02f * z;
                const float rayLength = std::sqrt(px * px + py * py + pz * pz);
                const float surfaceT = 1.0f / (pz - 0.1f * px);  // ray scale hitting the plane
                const float trueSdf = (surfaceT - 1.0f) * rayLength;
                const Vec2S s = block.volume.at(x, y, z);
                if (std::fabs(trueSdf) > 0.9f * kRamp)
                    continue;
                ASSERT_EQ(s(1), 1);
                EXPECT_NEAR(s(0) * 3.051944077014923e-05f * kRamp, trueSdf, 0.013f * kRamp + 1e-5f)
                    << x << " " << y << " " << z;
                ++checked;
            }
    EXPECT_GT(checked, 300);
}

// The double-precision kernel differs only by rounding: the increment by at most one unit, and
// a pixel choice only where a projection lands on a pixel edge, which random poses make rare.
TEST(ReferenceIntegration, DoublePrecisionKernelAgrees) {
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> offset(-0.15f, 0.05f);
    std::uniform_real_distribution<float> depth(0.9f, 1.3f);
    int compared = 0, equal = 0, maxDiff = 0, weightMismatch = 0;
    for (int trial = 0; trial < 20; ++trial) {
        OwnedFrame frame = makeFrame(0.0f);
        for (float& d : frame.depth)
            d = depth(rng);
        const Matrix4 T = translation(offset(rng), offset(rng), 0.9f + offset(rng));
        TestBlock<Vec2S> single;
        TestBlock<Vec2S> dbl;
        for (int pass = 0; pass < 3; ++pass) {
            integrate(single.volume, frame.frame, T, kRamp, kMaxWeight, 1);
            integrateRef(dbl.volume, frame.frame, T, kRamp, kMaxWeight, 1);
        }
        for (size_t i = 0; i < single.samples.size(); ++i) {
            const Vec2S a = single.samples[i];
            const Vec2S b = dbl.samples[i];
            if (a(1) != b(1)) {
                ++weightMismatch;
                continue;
            }
            if (a(1) == 0)
                continue;
            ++compared;
            const int diff = std::abs(a(0) - b(0));
            equal += diff == 0;
            maxDiff = std::max(maxDiff, diff);
        }
    }
    EXPECT_GT(compared, 10000);
    EXPECT_GT(equal, compared * 9 / 10);
    EXPECT_LE(maxDiff, 2);
    EXPECT_LT(weightMismatch, compared / 1000 + 1);
}

TEST(ReferenceIntegration, SampleTypesShareTheDepthUpdate) {
    const Matrix4 T = translation(-0.05f, -0.07f, 0.95f);
    OwnedFrame frame = makeFrame(1.02f);
    TestBlock<Vec2S> plain;
    TestBlock<LabelDepthVolumeSample> labelled;
    for (int pass = 0; pass < 4; ++pass) {
        integrate(plain.volume, frame.frame, T, kRamp, kMaxWeight, 1);
        integrate(labelled.volume, static_cast<const DepthFrame&>(frame.frame), T, kRamp,
                  kMaxWeight, 1);
    }
    for (size_t i = 0; i < plain.samples.size(); ++i) {
        ASSERT_EQ(plain.samples[i](0), labelled.samples[i].depth(0));
        ASSERT_EQ(plain.samples[i](1), labelled.samples[i].depth(1));
        ASSERT_EQ(labelled.samples[i].labels[0], 0);  // the depth-only overload votes nothing
    }
}

}  // namespace
}  // namespace Solid
