#include "math/Conversion.h"

#include <cstring>

namespace AR {
namespace Math {

namespace {

// IEEE single: 23 mantissa bits, 8 exponent bits with bias 127, one sign bit.
constexpr int kMantissaBits = 23;
constexpr uint32_t kMantissaMask = (1u << kMantissaBits) - 1u;
constexpr uint32_t kImpliedBit = 1u << kMantissaBits;
constexpr uint32_t kExponentMask = 0xFFu;
constexpr int kExponentBias = 127;
constexpr int kSignShift = 31;
// A mantissa with its implied bit read as an integer is the value times 2^(150 - exponent).
constexpr int kIntegerExponent = kExponentBias + kMantissaBits;

uint32_t floatBits(float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}

float bitsToFloat(uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

// The fixed-point value truncated to the width of `Unsigned`, with the sign applied in two's
// complement. The shift is done in 64 bits, so that shifts beyond the width give 0.
template <typename Unsigned>
Unsigned floatToFixed(int fractionBits, float value) {
    constexpr int kShiftLimit = 64;
    const uint32_t bits = floatBits(value);
    const int exponent = static_cast<int>((bits >> kMantissaBits) & kExponentMask);
    const uint64_t mantissa = (bits & kMantissaMask) | kImpliedBit;
    const int shift = kIntegerExponent - fractionBits - exponent;
    uint64_t magnitude;
    if (shift > 0) {
        magnitude = shift >= kShiftLimit ? 0u : mantissa >> shift;
    } else {
        magnitude = -shift >= kShiftLimit ? 0u : mantissa << -shift;
    }
    const uint64_t result = (bits >> kSignShift) != 0u ? 0u - magnitude : magnitude;
    return static_cast<Unsigned>(result);
}

// Builds the float of magnitude `magnitude * 2^-fractionBits` from the leading bit, truncating
// the bits below the 23 that the mantissa keeps.
template <typename Unsigned>
float fixedToFloat(int fractionBits, Unsigned magnitude, bool negative) {
    if (magnitude == 0) {
        return 0.0f;
    }
    int leading = 0;
    for (Unsigned rest = magnitude; rest > 1; rest >>= 1) {
        ++leading;
    }
    const Unsigned aligned = leading > kMantissaBits ? magnitude >> (leading - kMantissaBits)
                                                     : magnitude << (kMantissaBits - leading);
    const uint32_t exponent = static_cast<uint32_t>(leading - fractionBits + kExponentBias);
    const uint32_t bits = (negative ? 1u << kSignShift : 0u) |
                          ((exponent & kExponentMask) << kMantissaBits) |
                          (static_cast<uint32_t>(aligned) & kMantissaMask);
    return bitsToFloat(bits);
}

}  // namespace

int Conversion::float2fixed32Fast(int fractionBits, float value) {
    return static_cast<int>(floatToFixed<uint32_t>(fractionBits, value));
}

short Conversion::float2fixed16Fast(int fractionBits, float value) {
    return static_cast<short>(floatToFixed<uint16_t>(fractionBits, value));
}

long long Conversion::float2fixed64Fast(int fractionBits, float value) {
    return static_cast<long long>(floatToFixed<uint64_t>(fractionBits, value));
}

float Conversion::fixed2float32Fast(int fractionBits, int value) {
    const uint32_t magnitude =
        value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
    return fixedToFloat<uint32_t>(fractionBits, magnitude, value < 0);
}

float Conversion::fixed2float64Fast(int fractionBits, long long value) {
    const uint64_t magnitude =
        value < 0 ? 0u - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    return fixedToFloat<uint64_t>(fractionBits, magnitude, value < 0);
}

}  // namespace Math
}  // namespace AR
