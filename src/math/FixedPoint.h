// Signed 32-bit fixed-point numbers with N fraction bits, for kernels that avoid floating point.
// Arithmetic is done on the raw integer by the caller, with explicit shifts: the order of the
// shifts is part of the result, so no operator hides it.
#ifndef VELMORA_MATH_FIXEDPOINT_H
#define VELMORA_MATH_FIXEDPOINT_H

#include <cstdint>

#include "math/Conversion.h"
#include "math/Vector.h"

namespace AR {
namespace Math {

template <int N>
struct Fx32_T {
    static_assert(N > 0 && N < 31, "a 32-bit fixed-point number keeps at least its sign bit");
    static constexpr int kFractionBits = N;
    static constexpr int32_t kOne = int32_t(1) << N;

    int32_t raw = 0;

    static constexpr Fx32_T fromRaw(int32_t value) { return Fx32_T{value}; }
    // Cuts the fraction off beyond N bits; out-of-range values wrap.
    static Fx32_T fromFloat(float value) { return Fx32_T{Conversion::float2fixed32Fast(N, value)}; }
    float toFloat() const { return Conversion::fixed2float32Fast(N, raw); }
};

// Pixel coordinates.
using Vec2I = Vector<int, 2>;

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_FIXEDPOINT_H
