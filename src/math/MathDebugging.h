// Plausibility checks on numbers, used in the invariants of the solvers.
#ifndef VELMORA_MATH_MATH_DEBUGGING_H
#define VELMORA_MATH_MATH_DEBUGGING_H

#include <cmath>
#include <type_traits>

#include "math/Matrix.h"
#include "math/Vector.h"

namespace AR {
namespace Math {

// Magnitudes above this are taken for garbage (the float nearest 1.0e15).
constexpr float kGoodNumMax = 1.0e15f;
// Non-zero magnitudes below this are taken for denormals or uninitialised memory.
constexpr float kGoodNumMin = 1.0e-30f;

// True for not-a-number or infinity.
template <typename T, typename = std::enable_if_t<std::is_floating_point_v<T>>>
bool isCorrupted(T value) {
    return !std::isfinite(value);
}

// True when any element of a vector is not-a-number or infinite.
template <typename V, EnableVector<V> = 0>
bool isCorrupted(const V& v) {
    for (int i = 0; i < v.size(); ++i) {
        if (isCorrupted(v[i])) {
            return true;
        }
    }
    return false;
}

// True when any element of a matrix is not-a-number or infinite.
template <typename M, std::enable_if_t<IsMatrix<M>::value, int> = 0>
bool isCorrupted(const M& m) {
    for (int r = 0; r < m.rows(); ++r) {
        for (int c = 0; c < m.cols(); ++c) {
            if (isCorrupted(m.coeff(r, c))) {
                return true;
            }
        }
    }
    return false;
}

// False for not-a-number, for magnitudes above kGoodNumMax (infinity included) and for non-zero
// magnitudes below kGoodNumMin. When `log` is set, a bad value is reported on stderr.
bool isGoodNum(float value, bool log = true);

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_MATH_DEBUGGING_H
