// Conversion between float and fixed point by direct manipulation of the IEEE single format. The
// fraction is cut off (no rounding) and a value out of range wraps (no saturation). The first
// argument of each function is the number of fractional bits of the fixed-point value.
#ifndef VELMORA_MATH_CONVERSION_H
#define VELMORA_MATH_CONVERSION_H

#include <cstdint>

namespace AR {
namespace Math {

class Conversion {
public:
    static int float2fixed32Fast(int fractionBits, float value);
    static short float2fixed16Fast(int fractionBits, float value);
    static long long float2fixed64Fast(int fractionBits, float value);
    static float fixed2float32Fast(int fractionBits, int value);
    static float fixed2float64Fast(int fractionBits, long long value);
};

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_CONVERSION_H
