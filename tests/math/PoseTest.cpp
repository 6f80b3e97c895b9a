#include "math/Pose.h"

#include <gtest/gtest.h>

#include <cmath>

#include "math/MatrixFunctions.h"

namespace {

using AR::Math::Matrix;
using AR::Math::Vector;

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
    for (int i = 0; i < 9; ++i) {
        EXPECT_NEAR(actual(i), expected(i), 1e-6f) << "element " << i;
    }
}

TEST(MathPose, QuaternionToRotationByHand) {
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
    // Local to world: the camera x axis points along world y.
    const Vector<float, 3> x = q * Vector<float, 3>(1, 0, 0);
    EXPECT_NEAR(x[1], 1.0f, 1e-6f);
    EXPECT_TRUE(AR::Math::isRotationMatrix(q.rotation()));

    // A general rotation: 0.3 rad about x, R = [1 0 0; 0 c -s; 0 s c].
    const float half = 0.15f;
    const TestPose tilt{{std::sin(half), 0, 0, std::cos(half)}, {0, 0, 0}};
    const float c = std::cos(0.3f);
    const float s = std::sin(0.3f);
    expectNear(AR::Math::toMath<float>(tilt).rotation(),
               Matrix<float, 3, 3>(1, 0, 0, 0, c, -s, 0, s, c));
}

TEST(MathPoseDeathTest, ZeroQuaternionAborts) {
    const TestPose zero{{0, 0, 0, 0}, {1, 2, 3}};
    EXPECT_DEATH(AR::Math::toMath<float>(zero), "length > 0");
}

}  // namespace
