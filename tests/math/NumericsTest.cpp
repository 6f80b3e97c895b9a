#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "math/Conversion.h"
#include "math/LU.h"
#include "math/MathDebugging.h"
#include "math/MatrixFunctions.h"
#include "math/SE3.h"

namespace {

using AR::Math::Conversion;
using AR::Math::Matrix;
using AR::Math::Vector;
using Mat3 = Matrix<float, 3, 3>;
using Mat4 = Matrix<float, 4, 4>;
using Vec4 = Vector<float, 4>;

// Largest deviation of an entry of R^T R from the identity.
float orthogonalityError(const Mat3& r) {
    const Mat3 gram = r.transpose() * r;
    float worst = 0.0f;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            worst = std::max(worst, std::fabs(gram(i, j) - (i == j ? 1.0f : 0.0f)));
        }
    }
    return worst;
}

float maxAbsDifference(const Mat4& a, const Mat4& b) {
    float worst = 0.0f;
    for (int i = 0; i < 16; ++i) {
        worst = std::max(worst, std::fabs(a(i) - b(i)));
    }
    return worst;
}

Mat3 rotationAboutAxis(float angle, Vector<float, 3> axis) {
    axis = normalize(axis);
    const float c = std::cos(angle);
    const float s = std::sin(angle);
    const float x = axis[0], y = axis[1], z = axis[2];
    return Mat3(c + x * x * (1 - c), x * y * (1 - c) - z * s, x * z * (1 - c) + y * s,
                y * x * (1 - c) + z * s, c + y * y * (1 - c), y * z * (1 - c) - x * s,
                z * x * (1 - c) - y * s, z * y * (1 - c) + x * s, c + z * z * (1 - c));
}

TEST(MathInverse, RigidAndGeneralMatrices) {
    // A rigid transform inverts to (R^T, -R^T t).
    const AR::Math::SE3<float> t(rotationAboutAxis(0.7f, Vector<float, 3>(1, -2, 0.5f)),
                                 Vector<float, 3>(0.3f, -1.2f, 2.0f));
    EXPECT_LT(maxAbsDifference(AR::Math::inverse(t.matrix()), t.inverse().matrix()), 1e-5f);

    const Mat4 a(4, 1, 0, 2, 1, 5, 1, 0, 0, 2, 6, 1, 1, 0, 1, 3);
    EXPECT_LT(maxAbsDifference(a * AR::Math::inverse(a), Mat4::identity()), 1e-5f);
    // Diagonal: exact reciprocals.
    const Mat4 d(2, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0.5f, 0, 0, 0, 0, -8);
    EXPECT_EQ(AR::Math::inverse(d),
              Mat4(0.5f, 0, 0, 0, 0, 0.25f, 0, 0, 0, 0, 2, 0, 0, 0, 0, -0.125f));
    // A singular matrix is not caught: the result is simply not finite.
    const Mat4 singular(1, 2, 3, 4, 2, 4, 6, 8, 0, 1, 0, 1, 1, 0, 0, 1);
    EXPECT_TRUE(AR::Math::isCorrupted(AR::Math::inverse(singular)));
}

TEST(MathLU, CroutFactorsAndSolves) {
    const Mat4 a(4, 1, 0, 2, 1, 5, 1, 0, 0, 2, 6, 1, 1, 0, 1, 3);
    AR::Math::LU<float, 4> lu;
    lu.compute(a);
    // U carries the unit diagonal, L the pivots; column 0 of L is column 0 of A.
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(lu.upper()(i, i), 1.0f);
        EXPECT_EQ(lu.lower()(i, 0), a(i, 0));
        for (int j = i + 1; j < 4; ++j) {
            EXPECT_EQ(lu.lower()(i, j), 0.0f);
            EXPECT_EQ(lu.upper()(j, i), 0.0f);
        }
    }
    EXPECT_LT(maxAbsDifference(lu.lower() * lu.upper(), a), 1e-5f);

    // Known solution: b = A x for integer x.
    const Vec4 expected(1, -2, 3, 0.5f);
    const Vec4 b = a * expected;
    Vec4 x;
    lu.solve(b, x);
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(x[i], expected[i], 1e-5f);
    }
    // The same decomposition serves further right-hand sides.
    lu.solve(Vec4(4, 1, 0, 1), x);
    EXPECT_NEAR(x[0], 1.0f, 1e-6f);
    EXPECT_NEAR(x[1], 0.0f, 1e-6f);
}

TEST(MathRotation, EnforceRotationOnlyImproves) {
    const Mat3 exact = rotationAboutAxis(1.1f, Vector<float, 3>(0.2f, 1.0f, -0.4f));
    Mat3 r = exact;
    AR::Math::enforceRotation(r);
    for (int i = 0; i < 9; ++i) {
        EXPECT_NEAR(r(i), exact(i), 1e-6f);
    }
    EXPECT_TRUE(AR::Math::isRotationMatrix(r));

    // A slightly sheared rotation is pulled much closer.
    Mat3 sheared = exact;
    sheared(0, 1) += 0.01f;
    sheared(2, 2) *= 1.02f;
    EXPECT_FALSE(AR::Math::isRotationMatrix(sheared));
    const float before = orthogonalityError(sheared);
    AR::Math::enforceRotation(sheared);
    EXPECT_LT(orthogonalityError(sheared), before * 0.1f);

    // Far from a rotation: one step improves but does not get there.
    Mat3 scaled = exact * 1.5f;
    const float far = orthogonalityError(scaled);
    AR::Math::enforceRotation(scaled);
    EXPECT_LT(orthogonalityError(scaled), far);
    EXPECT_FALSE(AR::Math::isRotationMatrix(scaled));

    // The tolerance of the test is 1e-4 on every entry of R^T R.
    EXPECT_TRUE(AR::Math::isRotationMatrix(Mat3(1.00004f, 0, 0, 0, 1, 0, 0, 0, 1)));
    EXPECT_FALSE(AR::Math::isRotationMatrix(Mat3(1.0001f, 0, 0, 0, 1, 0, 0, 0, 1)));
}

TEST(MathDebugging, GoodNumbersAndCorruption) {
    EXPECT_TRUE(AR::Math::isGoodNum(0.0f, false));
    EXPECT_TRUE(AR::Math::isGoodNum(-0.0f, false));
    EXPECT_TRUE(AR::Math::isGoodNum(1.0e-30f, false));
    EXPECT_FALSE(AR::Math::isGoodNum(1.0e-31f, false));
    EXPECT_FALSE(AR::Math::isGoodNum(std::numeric_limits<float>::denorm_min(), false));
    EXPECT_TRUE(AR::Math::isGoodNum(-1.0e15f, false));
    EXPECT_FALSE(AR::Math::isGoodNum(1.1e15f, false));
    EXPECT_FALSE(AR::Math::isGoodNum(std::numeric_limits<float>::infinity(), false));
    EXPECT_FALSE(AR::Math::isGoodNum(std::numeric_limits<float>::quiet_NaN(), false));
    EXPECT_FALSE(AR::Math::isCorrupted(1.0e30f));
    EXPECT_TRUE(AR::Math::isCorrupted(-std::numeric_limits<float>::infinity()));
    Mat3 m = Mat3::identity();
    EXPECT_FALSE(AR::Math::isCorrupted(m));
    m(2, 1) = std::numeric_limits<float>::quiet_NaN();
    EXPECT_TRUE(AR::Math::isCorrupted(m));
    EXPECT_TRUE(AR::Math::isCorrupted(m.row(2)));
}

TEST(MathConversion, TruncatingFixedPoint) {
    EXPECT_EQ(Conversion::float2fixed32Fast(0, 0.75f), 0);  // fraction cut off
    EXPECT_EQ(Conversion::float2fixed32Fast(0, 0.0f), 0);
    EXPECT_EQ(Conversion::float2fixed32Fast(8, 1.5f), 384);
    EXPECT_EQ(Conversion::float2fixed32Fast(8, -1.5f), -384);
    EXPECT_EQ(Conversion::float2fixed32Fast(2, -2.9f), -11);  // towards zero, not down
    EXPECT_EQ(Conversion::float2fixed32Fast(16, 1000.0f), 1000 << 16);
    EXPECT_EQ(Conversion::float2fixed16Fast(8, 1.0f), 256);
    EXPECT_EQ(Conversion::float2fixed16Fast(14, -1.0f), -16384);
    EXPECT_EQ(Conversion::float2fixed64Fast(32, 1.0f), 1LL << 32);
    EXPECT_EQ(Conversion::float2fixed64Fast(40, -3.0f), -(3LL << 40));

    EXPECT_EQ(Conversion::fixed2float32Fast(8, 0), 0.0f);
    EXPECT_EQ(Conversion::fixed2float32Fast(8, 384), 1.5f);
    EXPECT_EQ(Conversion::fixed2float32Fast(8, -384), -1.5f);
    EXPECT_EQ(Conversion::fixed2float32Fast(0, 1), 1.0f);
    // Bits below the 24 that a float keeps are cut off, not rounded: 2^24 + 3 -> 2^24 + 2.
    EXPECT_EQ(Conversion::fixed2float32Fast(0, (1 << 24) + 3), 16777218.0f);
    EXPECT_EQ(Conversion::fixed2float64Fast(32, 3LL << 31), 1.5f);
    EXPECT_EQ(Conversion::fixed2float64Fast(0, -(1LL << 40)), -1099511627776.0f);
    for (int value : {1, 7, -100, 12345, -65536}) {
        EXPECT_EQ(Conversion::float2fixed32Fast(10, Conversion::fixed2float32Fast(10, value)),
                  value);
    }
}

}  // namespace
