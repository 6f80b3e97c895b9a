// The identities the scene hands to a host: a UUID made of two 64-bit numbers, the scene's
// prefix first, then the kind of object in the high 32 bits and its internal id in the low 32
// bits of the second. A host treats them as opaque.
#ifndef VELMORA_VELMORA_OBJECTIDS_H
#define VELMORA_VELMORA_OBJECTIDS_H

#include <algorithm>
#include <cstdint>

#include "common/UUID.h"
#include "velmora/Velmora.h"

namespace Velmora {

// Kinds of object, in the high half of the second number.
constexpr uint32_t kUuidKindPlane = 1;
constexpr uint32_t kUuidKindInstance = 2;
constexpr int kUuidKindShift = 32;

inline UuidBytes makeObjectUuid(uint64_t prefix, uint32_t kind, uint32_t id) {
    const AR::Common::UUID uuid(std::make_pair<unsigned long long, unsigned long long>(
        prefix, (static_cast<unsigned long long>(kind) << kUuidKindShift) | id));
    UuidBytes bytes;
    std::copy(uuid.bytes(), uuid.bytes() + AR::Common::UUID::kNumBytes, bytes.begin());
    return bytes;
}

// The internal id of an object UUID: the low 16 bits of its second number. Kind and prefix are
// not looked at, so any UUID names some id; the all-zero UUID names 0.
inline uint16_t objectIdOf(const UuidBytes& bytes) {
    AR::Common::UUID uuid;
    std::copy(bytes.begin(), bytes.end(), uuid.bytes());
    return static_cast<uint16_t>(uuid.asUint64().second & 0xFFFFu);
}

}  // namespace Velmora

#endif  // VELMORA_VELMORA_OBJECTIDS_H
