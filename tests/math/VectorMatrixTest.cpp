#include <gtest/gtest.h>

#include <type_traits>

#include "math/Matrix.h"
#include "math/SE3.h"
#include "math/SolidTypes.h"
#include "math/Vector.h"

namespace {

using AR::Math::Matrix;
using AR::Math::Vector;

static_assert(sizeof(Solid::Vec3) == 3 * sizeof(float), "no padding in a fixed vector");
static_assert(sizeof(Solid::Matrix4) == 16 * sizeof(float), "no padding in a fixed matrix");
static_assert(std::is_trivially_copyable_v<Solid::Matrix4>, "matrices are plain values");

TEST(MathVector, ArithmeticAndNorms) {
    const Solid::Vec3 a(1.0f, 2.0f, 2.0f);
    const Solid::Vec3 b(-2.0f, 0.5f, 4.0f);
    EXPECT_EQ(a + b, Solid::Vec3(-1.0f, 2.5f, 6.0f));
    EXPECT_EQ(a - b, Solid::Vec3(3.0f, 1.5f, -2.0f));
    EXPECT_EQ(-a * 2.0f, Solid::Vec3(-2.0f, -4.0f, -4.0f));
    EXPECT_EQ(dot(a, b), 7.0f);
    EXPECT_EQ(cross(a, b), Solid::Vec3(7.0f, -8.0f, 4.5f));
    EXPECT_EQ(norm(a), 3.0f);
    EXPECT_EQ(normalize(a), Solid::Vec3(1.0f / 3.0f, 2.0f / 3.0f, 2.0f / 3.0f));
    EXPECT_EQ(volume(Solid::Size(8, 9, 10)), 720);
    EXPECT_EQ(AR::Math::fabs(b), Solid::Vec3(2.0f, 0.5f, 4.0f));
    EXPECT_EQ(AR::Math::to_string(Solid::Index3(-1, 0, 7)), "(-1, 0, 7)");
    EXPECT_EQ(Solid::Vec3{}, Solid::Vec3(0, 0, 0));

    Solid::Index3 key(1, 2, 3);
    key += Solid::Index3(1, 1, 1);
    key *= 2;
    EXPECT_EQ(key, Solid::Index3(4, 6, 8));
    EXPECT_NE(key, Solid::Index3(4, 6, 9));
    EXPECT_EQ(AR::Math::Vec2S(3, -7)(1), -7);

    // Run-time sized vectors mix with fixed ones of the same length.
    Vector<float> dynamic(3, 1.0f);
    const Solid::Vec3 sum = dynamic + a;
    EXPECT_EQ(sum, Solid::Vec3(2.0f, 3.0f, 3.0f));
    EXPECT_EQ(dot(dynamic, a), 5.0f);
}

TEST(MathMatrix, ProductsViewsAndTranspose) {
    const Matrix<float, 2, 3> m(1, 2, 3, 4, 5, 6);
    const Matrix<float, 3, 2> t = m.transpose();
    EXPECT_EQ(t(2, 1), 6.0f);
    const Matrix<float, 2, 2> mmt = m * t;
    EXPECT_EQ(mmt, (Matrix<float, 2, 2>(14, 32, 32, 77)));
    EXPECT_EQ(m * Solid::Vec3(1, 0, -1), (Vector<float, 2>(-2, -2)));

    // Columns are strided views; writing through them changes the matrix.
    Solid::Matrix4 pose = Solid::Matrix4::identity();
    auto translation = pose.col(3);
    translation = Solid::Vec4(1, 2, 3, 1);
    EXPECT_EQ(pose(0, 3), 1.0f);
    EXPECT_EQ(pose(2, 3), 3.0f);
    EXPECT_EQ(pose(3, 3), 1.0f);
    const Solid::Vec4 column = static_cast<const Solid::Matrix4&>(pose).col(3);
    EXPECT_EQ(column, Solid::Vec4(1, 2, 3, 1));
    EXPECT_EQ(dot(pose.row(1), pose.col(3)), 2.0f + 2.0f);
    auto block = pose.block<3, 3>(0, 1);
    block(0, 0) = 9.0f;
    EXPECT_EQ(pose(0, 1), 9.0f);
    EXPECT_EQ(block(2, 2), 3.0f);

    // The run-time sized matrix of the plane solver.
    Matrix<float> a(3, 2);
    a(0, 0) = 1;
    a(1, 1) = 2;
    a(2, 0) = 3;
    const Matrix<float> ata = a.transpose() * a;
    EXPECT_EQ(ata.rows(), 2);
    EXPECT_EQ(ata(0, 0), 10.0f);
    EXPECT_EQ(ata(1, 1), 4.0f);
    EXPECT_EQ(ata(0, 1), 0.0f);
}

TEST(MathSE3, ComposeApplyAndInvert) {
    // 90 degrees about z, then a shift.
    const Matrix<float, 3, 3> rz(0, -1, 0, 1, 0, 0, 0, 0, 1);
    const AR::Math::SE3<float> tWorldCamera(rz, Solid::Vec3(1, 2, 3));
    const Solid::Vec3 p(1, 0, 0);
    EXPECT_EQ(tWorldCamera * p, Solid::Vec3(1, 3, 3));
    EXPECT_EQ(tWorldCamera.inverse() * (tWorldCamera * p), p);
    const AR::Math::SE3<float> twice = tWorldCamera * tWorldCamera;
    EXPECT_EQ(twice * p, tWorldCamera * (tWorldCamera * p));
    const Solid::Matrix4 h = tWorldCamera.matrix();
    EXPECT_EQ(h * Solid::Vec4(1, 0, 0, 1), Solid::Vec4(1, 3, 3, 1));
    EXPECT_EQ(tWorldCamera.so3().inverse().matrix(), rz.transpose());
}

TEST(MathDeathTest, RangeAndSizeChecksAbort) {
    Solid::Vec3 v(1, 2, 3);
    EXPECT_DEATH(v(3), "static_cast<unsigned>\\(i\\) < static_cast<unsigned>\\(N\\)");
    EXPECT_DEATH(v(-1), "static_cast<unsigned>\\(i\\)");
    Solid::Matrix4 m = Solid::Matrix4::identity();
    EXPECT_DEATH(m(4, 0), "static_cast<unsigned>\\(r\\)");
    EXPECT_DEATH(m(0, -1), "static_cast<unsigned>\\(c\\)");
    EXPECT_DEATH(m.col(0)(4), "mSize");
    Vector<float> dynamic(2);
    EXPECT_DEATH(dynamic(2), "mSize");
    EXPECT_DEATH(dynamic + Vector<float>(3), "a.size\\(\\) == b.size\\(\\)");
    EXPECT_DEATH(Matrix<float>(2, 3) * Matrix<float>(2, 3), "a.cols\\(\\) == b.rows\\(\\)");
    EXPECT_DEATH(normalize(Solid::Vec3(0, 0, 0)), "length > 0");
}

}  // namespace
