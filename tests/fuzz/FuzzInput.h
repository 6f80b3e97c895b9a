// A fuzz input as a stream of bytes read from the front and decoded into a host's choices.
// Reading past the end yields zeros, so every input, however short, describes a complete run.
#ifndef VELMORA_TESTS_FUZZ_FUZZINPUT_H
#define VELMORA_TESTS_FUZZ_FUZZINPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace Velmora {
namespace Fuzz {

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    bool empty() const { return mPos >= mSize; }
    size_t remaining() const { return mSize - mPos; }
    uint8_t byte() { return mPos < mSize ? mData[mPos++] : 0; }
    bool flag() { return (byte() & 1) != 0; }

    // The next sizeof(T) bytes as they stand: any bit pattern, NaN and infinities included.
    template <typename T>
    T raw() {
        T value{};
        const size_t count = sizeof(T) < remaining() ? sizeof(T) : remaining();
        if (count > 0)
            std::memcpy(&value, mData + mPos, count);
        mPos += count;
        return value;
    }

    // A value in [lo, hi]; the range holds at most 65536 values.
    int range(int lo, int hi) { return lo + static_cast<int>(raw<uint16_t>() % (hi - lo + 1)); }
    // A value in [lo, hi] in 65536 steps.
    float between(float lo, float hi) {
        return lo + (hi - lo) * (static_cast<float>(raw<uint16_t>()) / 65535.0f);
    }

    // Values a hostile host might pass for a float: ordinary ones, extremes and non-finite ones.
    float anyFloat(float typicalLo, float typicalHi) {
        using L = std::numeric_limits<float>;
        static constexpr float kSpecial[] = {
            0.0f,   -0.0f,    1e-3f,           1e10f,          -1e10f,        3e38f,
            -3e38f, L::max(), L::denorm_min(), L::quiet_NaN(), L::infinity(), -L::infinity()};
        switch (byte() % 4) {
            case 0:
                return kSpecial[byte() % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
            case 1:
                return raw<float>();
            default:
                return between(typicalLo, typicalHi);
        }
    }

    // The next `count` bytes, or fewer at the end; `count` is reduced to what was available.
    const uint8_t* bytes(size_t& count) {
        count = count < remaining() ? count : remaining();
        const uint8_t* start = mData + mPos;
        mPos += count;
        return start;
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
};

}  // namespace Fuzz
}  // namespace Velmora

#endif  // VELMORA_TESTS_FUZZ_FUZZINPUT_H
