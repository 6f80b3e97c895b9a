// Rigid transforms. SO3<T> is a rotation matrix; SE3<T> a rotation followed by a translation,
// p' = R * p + t. Which frames a transform connects is said by its name at the point of use
// (T_world_camera maps camera coordinates to world coordinates).
#ifndef VELMORA_MATH_SE3_H
#define VELMORA_MATH_SE3_H

#include "math/Matrix.h"
#include "math/Vector.h"

namespace AR {
namespace Math {

template <typename T>
class SO3 {
public:
    SO3() : mMatrix(Matrix<T, 3, 3>::identity()) {}
    explicit SO3(const Matrix<T, 3, 3>& matrix) : mMatrix(matrix) {}

    const Matrix<T, 3, 3>& matrix() const { return mMatrix; }
    // The inverse of a rotation is its transpose.
    SO3 inverse() const { return SO3(mMatrix.transpose()); }
    SO3 operator*(const SO3& other) const { return SO3(mMatrix * other.mMatrix); }
    Vector<T, 3> operator*(const Vector<T, 3>& p) const { return mMatrix * p; }

private:
    Matrix<T, 3, 3> mMatrix;
};

template <typename T>
class SE3 {
public:
    // The identity transform.
    SE3() : mRotation(Matrix<T, 3, 3>::identity()), mTranslation(Vector<T, 3>::zeros()) {}
    SE3(const Matrix<T, 3, 3>& rotation, const Vector<T, 3>& translation)
        : mRotation(rotation), mTranslation(translation) {}

    const Matrix<T, 3, 3>& rotation() const { return mRotation; }
    Matrix<T, 3, 3>& rotation() { return mRotation; }
    const Vector<T, 3>& translation() const { return mTranslation; }
    Vector<T, 3>& translation() { return mTranslation; }
    SO3<T> so3() const { return SO3<T>(mRotation); }

    // (R, t)^-1 = (R^T, -R^T t); exact only for an orthonormal R.
    SE3 inverse() const {
        const Matrix<T, 3, 3> rt = mRotation.transpose();
        return SE3(rt, -(rt * mTranslation));
    }
    // (this * other)(p) = this(other(p)).
    SE3 operator*(const SE3& other) const {
        return SE3(mRotation * other.mRotation, mRotation * other.mTranslation + mTranslation);
    }
    Vector<T, 3> operator*(const Vector<T, 3>& p) const { return mRotation * p + mTranslation; }

    // Homogeneous 4x4 form: rotation top left, translation in the last column, last row 0 0 0 1.
    Matrix<T, 4, 4> matrix() const {
        Matrix<T, 4, 4> out = Matrix<T, 4, 4>::identity();
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) {
                out.coeff(r, c) = mRotation.coeff(r, c);
            }
            out.coeff(r, 3) = mTranslation[r];
        }
        return out;
    }

private:
    Matrix<T, 3, 3> mRotation;
    Vector<T, 3> mTranslation;
};

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_SE3_H
