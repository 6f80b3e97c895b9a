// A piecewise cubic Hermite approximation of a smooth scalar function on [low, high), with bins
// of equal width, so that one evaluation is a table lookup and four multiplications. The cameras
// use it for their distortion and undistortion factors, which are expensive to compute directly.
//
// Fitting: the cubic of each bin matches the function's value and derivative at both bin ends,
// so the approximation is continuous with a continuous first derivative. The bin count doubles
// until the sampled error is below the target. When the last bin alone misses the target (a
// function that gets steep near the end of its range), it is dropped and the valid range ends
// one bin earlier; `high()` reports where.
//
// Not synchronised: fit once, then read from any number of threads. Instantiated for float and
// double only.
#ifndef VELMORA_CV_HERMITE_SPLINE_INTERPOLATION_H
#define VELMORA_CV_HERMITE_SPLINE_INTERPOLATION_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

#include "common/Assert.h"
#include "math/Vector.h"

namespace AR {
namespace CV {

template <typename T>
class HermiteSplineInterpolation {
public:
    // Value `y` and derivative `dy` of the approximated function at `x`; false where the function
    // cannot be evaluated.
    using Function = std::function<bool(T x, T& y, T& dy)>;

    // One bin: y = c[0] + d * (c[1] + d * (c[2] + d * c[3])) with d = x - x0.
    struct Coeffs {
        T c[4];
        T x0;
    };

    // Fits `fn` on [rangeForApprox(0), rangeForApprox(1)) with 1, 2, 4, ... bins up to `maxBins`,
    // until the largest sampled error (relative to |fn| when `relative`) is below `eps`. Once the
    // count reaches `initBins` the last bin is left out of that test and judged alone afterwards.
    // Returns the largest sampled error over the kept bins; infinity when `fn` failed somewhere in
    // the range (the spline is then left empty).
    T setupHermiteCoeffs(const Function& fn, const AR::Math::Vector<T, 2>& rangeForApprox,
                         bool relative, int maxBins, T eps, int initBins);

    // Largest sampled error of bins [firstBin, endBin) against `fn`, absolute or relative to |fn|;
    // infinity when `fn` fails at a sample.
    T testAccuracy(const Function& fn, bool relative, size_t firstBin, size_t endBin) const;

    // The approximation at `x`; false outside [low(), high()). Aborts when not fitted.
    bool evaluate(T x, T& y) const {
        AR_ASSERT(isInit());
        if (x < mLow || !(x < mHigh)) {
            return false;
        }
        size_t i = static_cast<size_t>((x - mLow) * mInverseBinWidth);
        // Rounding can put x == high - ulp one bin too far.
        i = std::min(i, mSegments.size() - 1);
        AR_ASSERT(i < mSegments.size());
        y = evaluateSegment(mSegments[i], x);
        return true;
    }

    bool isInit() const { return !mSegments.empty() && mInverseBinWidth > 0; }

    const std::vector<Coeffs>& segments() const { return mSegments; }
    // The valid range is [low(), high()).
    T low() const { return mLow; }
    T high() const { return mHigh; }
    T inverseBinWidth() const { return mInverseBinWidth; }

private:
    static T evaluateSegment(const Coeffs& segment, T x) {
        const T d = x - segment.x0;
        return segment.c[0] + d * (segment.c[1] + d * (segment.c[2] + d * segment.c[3]));
    }
    // Builds `bins` equal bins over [mLow, mHigh); false when `fn` fails at a bin end.
    bool build(const Function& fn, int bins);

    std::vector<Coeffs> mSegments;
    T mLow = 0;
    T mHigh = 0;
    T mInverseBinWidth = 0;  // bins per unit of x
};

}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_HERMITE_SPLINE_INTERPOLATION_H
