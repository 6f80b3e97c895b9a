// A fixed number of bits, all clear at the start. Not thread-safe.
#ifndef VELMORA_COMMON_BITFIELD_H
#define VELMORA_COMMON_BITFIELD_H

#include <cstdint>
#include <vector>

#include "common/Assert.h"

namespace AR {
namespace Common {

class BitField {
public:
    explicit BitField(uint32_t numBits = 0) : numBits(numBits), mWords((numBits + 63) / 64, 0) {}

    void set(uint32_t idx) {
        AR_ASSERT(idx < numBits);
        mWords[idx / 64] |= uint64_t(1) << (idx % 64);
    }
    bool test(uint32_t idx) const {
        AR_ASSERT(idx < numBits);
        return (mWords[idx / 64] >> (idx % 64)) & 1u;
    }
    uint32_t size() const { return numBits; }

private:
    uint32_t numBits;  // named as the invariant reports it
    std::vector<uint64_t> mWords;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_BITFIELD_H
