// The math layer: poses from quaternions, the truncating fixed-point conversions, and the range
// checks of fixed-size and run-time matrices that abort. (Inverses: every fused scene.)
#include <gtest/gtest.h>

#include <cmath>
#include <type_traits>

#include "math/Conversion.h"
#include "math/Pose.h"
#include "math/SolidTypes.h"

namespace {

using AR::Math::Conversion;
using AR::Math::Matrix;
using AR::Math::Vector;

TEST(MathConversion, TruncatingFixedPoint) {
    EXPECT_EQ(Conversion::float2fixed32Fast(0, 0.75f), 0);  // fraction cut off
    EXPECT_EQ(Conversion::float2fixed32Fast(8, 1.5f), 384);
    EXPECT_EQ(Conversion::float2fixed32Fast(8, -1.5f), -384);
    EXPECT_EQ(Conversion::float2fixed32Fast(2, -2.9f), -11);  // towards zero, not down
    EXPECT_EQ(Conversion::float2fixed32Fast(16, 1000.0f), 1000 << 16);
    EXPECT_EQ(Conversion::float2fixed16Fast(8, 1.0f), 256);
    EXPECT_EQ(Conversion::float2fixed16Fast(14, -1.0f), -16384);
    EXPECT_EQ(Conversion::float2fixed64Fast(32, 1.0f), 1LL << 32);
    EXPECT_EQ(Conversion::float2fixed64Fast(40, -3.0f), -(3LL << 40));

    EXPECT_EQ(Conversion::fixed2float32Fast(8, -384), -1.5f);
    EXPECT_EQ(Conversion::fixed2float32Fast(0, 1), 1.0f);
    // Bits below the 24 that a float keeps are cut off, not rounded: 2^24 + 3 -> 2^24 + 2.
    EXPECT_EQ(Conversion::fixed2float32Fast(0, (1 << 24) + 3), 16777218.0f);
    EXPECT_EQ(Conversion::fixed2float64Fast(32, 3LL << 31), 1.5f);
    EXPECT_EQ(Conversion::fixed2float64Fast(0, -(1LL << 40)), -1099511627776.0f);
    for (int value : {1, 7, -100, 12345, -65536})
        EXPECT_EQ(Conversion::float2fixed32Fast(10, Conversion::fixed2float32Fast(10, value)),
                  value);
}

static_assert(sizeof(Solid::Vec3) == 3 * sizeof(float), "no padding in a fixed vector");
static_assert(sizeof(Solid::Matrix4) == 16 * sizeof(float), "no padding in a fixed matrix");
static_assert(std::is_trivially_copyable_v<Solid::Matrix4>, "matrices are plain values");

TEST(MathDeathTest, RangeAndSizeChecksAbort) {
    Solid::Vec3 v(1, 2, 3);
    EXPECT_DEATH(v(3), "static_cast<unsigned>\\(i\\) < static_cast<unsigned>\\(N\\)");
    Solid::Matrix4 m = Solid::Matrix4::identity();
    EXPECT_DEATH(m(4, 0), "static_cast<unsigned>\\(r\\)");
    EXPECT_DEATH(m.col(0)(4), "mSize");
    Vector<float> dynamic(2);
    EXPECT_DEATH(dynamic(2), "mSize");
    EXPECT_DEATH(dynamic + Vector<float>(3), "a.size\\(\\) == b.size\\(\\)");
    EXPECT_DEATH(Matrix<float>(2, 3) * Matrix<float>(2, 3), "a.cols\\(\\) == b.rows\\(\\)");
    EXPECT_DEATH(normalize(Solid::Vec3(0, 0, 0)), "length > 0");
}

// Same member names as the public pose record.
struct TestPose {
    struct {
        float x, y, z, w;
    } orientation;
    struct {
        float x, y, z;
    } position;
};

void expectNear(const Matrix<float, 3, 3>& actual, const Matrix<float, 3, 3>& expected) {
    for (int i = 0; i < 9; ++i)
        EXPECT_NEAR(actual(i), expected(i), 1e-6f) << "element " << i;
}

TEST(MathPoseDeathTest, QuaternionToRotationByHandAndZeroQuaternionAborts) {
    // 120 degrees about (1, 1, 1): q = (1/2, 1/2, 1/2, 1/2) maps x -> y -> z -> x.
    const TestPose cyclic{{0.5f, 0.5f, 0.5f, 0.5f}, {1.0f, -2.0f, 3.5f}};
    const AR::Math::SE3<float> t = AR::Math::toMath<float>(cyclic);
    expectNear(t.rotation(), Matrix<float, 3, 3>(0, 0, 1, 1, 0, 0, 0, 1, 0));
    EXPECT_EQ(t.translation(), (Vector<float, 3>(1.0f, -2.0f, 3.5f)));

    // 90 degrees about z, given at twice unit length: normalised first.
    const float h = std::sqrt(0.5f);
    const TestPose quarter{{0, 0, 2 * h, 2 * h}, {0, 0, 0}};
    const AR::Math::SE3<float> q = AR::Math::toMath<float>(quarter);
    expectNear(q.rotation(), Matrix<float, 3, 3>(0, -1, 0, 1, 0, 0, 0, 0, 1));

    // A general rotation: 0.3 rad about x, R = [1 0 0; 0 c -s; 0 s c].
    const float c = std::cos(0.3f), s = std::sin(0.3f);
    const TestPose tilt{{std::sin(0.15f), 0, 0, std::cos(0.15f)}, {0, 0, 0}};
    expectNear(AR::Math::toMath<float>(tilt).rotation(),
               Matrix<float, 3, 3>(1, 0, 0, 0, c, -s, 0, s, c));
    const TestPose zero{{0, 0, 0, 0}, {1, 2, 3}};
    EXPECT_DEATH(AR::Math::toMath<float>(zero), "length > 0");
}

}  // namespace
