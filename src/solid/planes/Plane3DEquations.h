// The normal equations of a plane fit to a signed distance field, kept as sums so that the fits
// of several blocks merge by adding records instead of revisiting samples.
//
// Row i of X is (x, y, z, 1) of a sample in world metres and s_i its signed distance in metres,
// both weighted by the robust solver. The distance field near a plane is the linear function
// X p = s, so solving the normal equations (X'X) p = X's gives the field's gradient (the plane's
// normal, towards positive distance) and offset. Records are plain data: sums and differences
// are taken field by field, the counters included, which is how merging and removal work.
#ifndef VELMORA_SOLID_PLANES_PLANE3DEQUATIONS_H
#define VELMORA_SOLID_PLANES_PLANE3DEQUATIONS_H

#include <cstddef>

#include "cv/Plane3D.h"
#include "math/Matrix.h"
#include "math/SolidTypes.h"

namespace Solid {

template <typename T>
class Plane3DEquations {
public:
    using Plane = AR::CV::Geometry::Plane3D<T>;
    using MatrixX = AR::Math::Matrix<T>;  // run-time sized, rows of (x, y, z, 1)
    using VectorX = AR::Math::Vector<T>;  // run-time sized

    // All zero, no block: the neutral element of the sums.
    Plane3DEquations();
    // The system of one block. Aborts on a not-a-number in X or s.
    Plane3DEquations(const MatrixX& X, const VectorX& s);

    size_t size() const { return mNumSamples; }
    size_t getNumBlocks() const { return mNumBlocks; }
    size_t getNumNegSamples() const { return mNumNegSamples; }
    size_t getNumPosSamples() const { return mNumPosSamples; }
    const AR::Math::Matrix<T, 4, 4>& XtX() const { return mXtX; }
    const AR::Math::Vector<T, 4>& Xts() const { return mXts; }
    T sts() const { return mSts; }

    // Least-squares plane. False, leaving `plane` alone, when the system is singular or the
    // gradient has a length that is zero, infinite or cannot be inverted. Needs three samples
    // and a non-zero X's (a field that is zero everywhere has no direction).
    bool solve(Plane& plane) const;
    // Root mean square residual of `plane` over the samples, with n - 1 in the denominator,
    // expanded from the stored sums; in the units of the (weighted) distances.
    T stdError(const Plane& plane) const;

    Plane3DEquations& operator+=(const Plane3DEquations& other);
    Plane3DEquations& operator-=(const Plane3DEquations& other);

private:
    size_t mNumSamples;
    size_t mNumBlocks;
    size_t mNumNegSamples;  // samples with s below 0
    size_t mNumPosSamples;  // samples with s above 0
    AR::Math::Matrix<T, 4, 4> mXtX;
    AR::Math::Vector<T, 4> mXts;
    T mSts;
};

template <typename T>
Plane3DEquations<T> operator+(Plane3DEquations<T> a, const Plane3DEquations<T>& b) {
    return a += b;
}
template <typename T>
Plane3DEquations<T> operator-(Plane3DEquations<T> a, const Plane3DEquations<T>& b) {
    return a -= b;
}

// Iteratively reweighted least squares that approximately minimises the sum of absolute
// residuals: `iterations` + 1 rounds, each solving the weighted system and setting every weight
// to 1 / (|residual| + 1e-4), normalised to unit Euclidean length. No convergence test: the
// round count is fixed. `weightedX` and `weightedS` receive the system of the last solved round
// (the plain least-squares system when `iterations` is 0). False when a round cannot be solved.
// Needs at least three rows of four columns.
bool solveL1(const AR::Math::Matrix<float>& X, const AR::Math::Vector<float>& s,
             AR::Math::Matrix<float>& weightedX, AR::Math::Vector<float>& weightedS,
             size_t iterations);

extern template class Plane3DEquations<float>;

}  // namespace Solid

#endif  // VELMORA_SOLID_PLANES_PLANE3DEQUATIONS_H
