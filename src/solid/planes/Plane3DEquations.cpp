#include "solid/planes/Plane3DEquations.h"

#include <algorithm>
#include <cmath>

#include "common/Logger.h"
#include "math/LU.h"
#include "math/MathDebugging.h"

namespace Solid {

namespace {

// Added to every absolute residual before it is inverted into a weight, metres: caps the weight
// of samples that lie exactly on the plane.
constexpr float kResidualFloor = 0.0001f;
// Below this the variance estimate is reported: single-precision cancellation, not a real
// negative sum of squares.
constexpr float kLargeNegativeVariance = -0.001f;

}  // namespace

template <typename T>
Plane3DEquations<T>::Plane3DEquations()
    : mNumSamples(0),
      mNumBlocks(0),
      mNumNegSamples(0),
      mNumPosSamples(0),
      mXtX(AR::Math::Matrix<T, 4, 4>::zeros()),
      mXts(AR::Math::Vector<T, 4>::zeros()),
      mSts(T(0)) {}

template <typename T>
Plane3DEquations<T>::Plane3DEquations(const MatrixX& X, const VectorX& s) : Plane3DEquations() {
    AR_ASSERT(!AR::Math::isCorrupted(X));
    AR_ASSERT(!AR::Math::isCorrupted(s));
    AR_ASSERT(X.cols() == 4 && X.rows() == s.size());
    mNumSamples = static_cast<size_t>(X.rows());
    mNumBlocks = 1;
    for (int i = 0; i < X.rows(); ++i) {
        const T si = s[i];
        for (int r = 0; r < 4; ++r) {
            const T xr = X.coeff(i, r);
            for (int c = 0; c < 4; ++c) {
                mXtX.coeff(r, c) += xr * X.coeff(i, c);
            }
            mXts[r] += xr * si;
        }
        mSts += si * si;
        mNumNegSamples += si < T(0) ? 1 : 0;
        mNumPosSamples += si > T(0) ? 1 : 0;
    }
    AR_ASSERT(mNumPosSamples + mNumNegSamples <= mNumSamples);
}

template <typename T>
bool Plane3DEquations<T>::solve(Plane& plane) const {
    AR_ASSERT(mNumSamples >= 3);
    // Samples that all lie on the surface (every distance 0, as legal frames can leave them) give
    // a zero right-hand side: no plane follows from them, which is an answer, not an error.
    if (!(AR::Math::norm(mXts) > T(0))) {
        return false;
    }
    AR::Math::LU<T, 4> lu;
    lu.compute(mXtX);
    AR::Math::Vector<T, 4> p;
    lu.solve(mXts, p);
    for (int i = 0; i < 4; ++i) {
        if (std::isnan(p[i])) {
            return false;
        }
    }
    const T length = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    // A length too small to invert would make the plane constructor abort on a legal input; it is
    // as unsolvable as a zero length.
    if (std::isinf(length) || length == T(0) || !std::isfinite(T(1) / length)) {
        return false;
    }
    plane = Plane(p);
    return true;
}

template <typename T>
T Plane3DEquations<T>::stdError(const Plane& plane) const {
    AR_ASSERT(mNumSamples > 1);
    const AR::Math::Vector<T, 4>& p = plane.getData();
    T quadratic = T(0);
    T linear = T(0);
    for (int r = 0; r < 4; ++r) {
        T row = T(0);
        for (int c = 0; c < 4; ++c) {
            row += mXtX.coeff(r, c) * p[c];
        }
        quadratic += p[r] * row;
        linear += p[r] * mXts[r];
    }
    const T sumOfSquares = mSts + quadratic - T(2) * linear;
    const T variance = sumOfSquares / static_cast<T>(mNumSamples - 1);
    if (variance <= T(kLargeNegativeVariance)) {
        AR_LOG_WARNING(
            "[Plane3DEquations::stdError] large negative value for dot product approximation: %f",
            static_cast<double>(variance));
    }
    return std::sqrt(std::max(variance, T(0)));
}

template <typename T>
Plane3DEquations<T>& Plane3DEquations<T>::operator+=(const Plane3DEquations& other) {
    mNumSamples += other.mNumSamples;
    mNumBlocks += other.mNumBlocks;
    mNumNegSamples += other.mNumNegSamples;
    mNumPosSamples += other.mNumPosSamples;
    for (int i = 0; i < 16; ++i) {
        mXtX(i) += other.mXtX(i);
    }
    mXts += other.mXts;
    mSts += other.mSts;
    return *this;
}

template <typename T>
Plane3DEquations<T>& Plane3DEquations<T>::operator-=(const Plane3DEquations& other) {
    mNumSamples -= other.mNumSamples;
    mNumBlocks -= other.mNumBlocks;
    mNumNegSamples -= other.mNumNegSamples;
    mNumPosSamples -= other.mNumPosSamples;
    for (int i = 0; i < 16; ++i) {
        mXtX(i) -= other.mXtX(i);
    }
    mXts -= other.mXts;
    mSts -= other.mSts;
    return *this;
}

template class Plane3DEquations<float>;

bool solveL1(const AR::Math::Matrix<float>& X, const AR::Math::Vector<float>& s,
             AR::Math::Matrix<float>& weightedX, AR::Math::Vector<float>& weightedS,
             size_t iterations) {
    AR_ASSERT(X.rows() >= 3);
    AR_ASSERT(X.cols() == 4);
    const int n = X.rows();
    AR::Math::Vector<float> weights(n, 1.0f);
    weightedX = AR::Math::Matrix<float>(n, 4);
    weightedS = AR::Math::Vector<float>(n);
    for (size_t round = 0; round <= iterations; ++round) {
        for (int i = 0; i < n; ++i) {
            for (int c = 0; c < 4; ++c) {
                weightedX.coeff(i, c) = weights[i] * X.coeff(i, c);
            }
            weightedS[i] = weights[i] * s[i];
        }
        AR::CV::Geometry::Plane3D<float> plane;
        if (!Plane3DEquations<float>(weightedX, weightedS).solve(plane)) {
            return false;
        }
        const AR::Math::Vector<float, 4>& p = plane.getData();
        float sumOfSquares = 0.0f;
        for (int i = 0; i < n; ++i) {
            const float residual = X.coeff(i, 0) * p[0] + X.coeff(i, 1) * p[1] +
                                   X.coeff(i, 2) * p[2] + X.coeff(i, 3) * p[3] - s[i];
            weights[i] = 1.0f / (std::abs(residual) + kResidualFloor);
            sumOfSquares += weights[i] * weights[i];
        }
        const float norm = std::sqrt(sumOfSquares);
        AR_ASSERT(norm > 0.0f);
        for (int i = 0; i < n; ++i) {
            weights[i] /= norm;
        }
    }
    return true;
}

}  // namespace Solid
