#include "cv/HermiteSplineInterpolation.h"

#include <cmath>
#include <limits>

#include "common/Logger.h"

namespace AR {
namespace CV {

namespace {

// Points per bin at which a fit is compared with its function, at the centres of equal
// sub-intervals (the bin ends match by construction).
constexpr int kAccuracySamplesPerBin = 8;

}  // namespace

template <typename T>
bool HermiteSplineInterpolation<T>::build(const Function& fn, int bins) {
    mSegments.assign(static_cast<size_t>(bins), Coeffs{});
    const T width = (mHigh - mLow) / static_cast<T>(bins);
    mInverseBinWidth = static_cast<T>(bins) / (mHigh - mLow);

    T x0 = mLow;
    T v0;
    T d0;
    if (!fn(x0, v0, d0)) {
        return false;
    }
    for (int b = 0; b < bins; ++b) {
        const T x1 = (b + 1 == bins) ? mHigh : mLow + width * static_cast<T>(b + 1);
        T v1;
        T d1;
        if (!fn(x1, v1, d1)) {
            return false;
        }
        AR_LOG_VERBOSE("Hermite approximation v0:%e v0.d:%e v1:%e v1.d:%e", static_cast<double>(v0),
                       static_cast<double>(d0), static_cast<double>(v1), static_cast<double>(d1));
        // The cubic through (x0, v0) and (x1, v1) with slopes d0 and d1.
        const T h = x1 - x0;
        const T secant = (v1 - v0) / h;
        Coeffs& segment = mSegments[static_cast<size_t>(b)];
        segment.x0 = x0;
        segment.c[0] = v0;
        segment.c[1] = d0;
        segment.c[2] = (3 * secant - 2 * d0 - d1) / h;
        segment.c[3] = (d0 + d1 - 2 * secant) / (h * h);
        x0 = x1;
        v0 = v1;
        d0 = d1;
    }
    return true;
}

template <typename T>
T HermiteSplineInterpolation<T>::testAccuracy(const Function& fn, bool relative, size_t firstBin,
                                              size_t endBin) const {
    AR_ASSERT(endBin <= mSegments.size());
    T maxError = 0;
    // All bins have the same width; the last one ends at mHigh up to rounding.
    const T h = 1 / mInverseBinWidth;
    for (size_t b = firstBin; b < endBin; ++b) {
        const Coeffs& segment = mSegments[b];
        for (int j = 0; j < kAccuracySamplesPerBin; ++j) {
            const T x = segment.x0 + h * (static_cast<T>(j) + static_cast<T>(0.5)) /
                                         static_cast<T>(kAccuracySamplesPerBin);
            T value;
            T derivative;
            if (!fn(x, value, derivative)) {
                return std::numeric_limits<T>::infinity();
            }
            T error = std::fabs(evaluateSegment(segment, x) - value);
            if (relative && value != 0) {
                error /= std::fabs(value);
            }
            maxError = std::max(maxError, error);
        }
    }
    return maxError;
}

template <typename T>
T HermiteSplineInterpolation<T>::setupHermiteCoeffs(const Function& fn,
                                                    const AR::Math::Vector<T, 2>& rangeForApprox,
                                                    bool relative, int maxBins, T eps,
                                                    int initBins) {
    const int MAX_BINS = maxBins;
    const int INIT_BINS = initBins;
    AR_ASSERT(rangeForApprox(1) > rangeForApprox(0));
    AR_ASSERT(MAX_BINS >= INIT_BINS);
    AR_ASSERT(INIT_BINS >= 1);
    AR_ASSERT(eps > 0);

    mLow = rangeForApprox(0);
    mHigh = rangeForApprox(1);
    const T failed = std::numeric_limits<T>::infinity();

    int bins = 1;
    T error = failed;
    bool passed = false;
    for (;;) {
        if (!build(fn, bins)) {
            mSegments.clear();
            mInverseBinWidth = 0;
            AR_LOG_ERROR("Hermite approximation failed: function not defined on the range");
            return failed;
        }
        const bool lastJudgedAlone = bins >= INIT_BINS && bins > 1;
        error =
            testAccuracy(fn, relative, 0, static_cast<size_t>(lastJudgedAlone ? bins - 1 : bins));
        if (error < eps) {
            passed = true;
            break;
        }
        if (bins * 2 > MAX_BINS) {
            break;
        }
        bins *= 2;
    }

    if (bins >= INIT_BINS && bins > 1) {
        const size_t last = static_cast<size_t>(bins - 1);
        const T lastError = testAccuracy(fn, relative, last, last + 1);
        if (passed && !(lastError < eps)) {
            // Shorten the valid range rather than accept a bad end.
            mSegments.pop_back();
            mHigh = mLow + static_cast<T>(bins - 1) / mInverseBinWidth;
        } else {
            error = std::max(error, lastError);
        }
    }

    AR_LOG_DEBUG("Fitted Hermite spline with %zu bins, maximum approximation error %f",
                 mSegments.size(), static_cast<double>(error));
    return error;
}

template class HermiteSplineInterpolation<float>;
template class HermiteSplineInterpolation<double>;

}  // namespace CV
}  // namespace AR
