// Hash functors of the hash containers. The constants fix the slot order of every set of blocks,
// and with it the order in which the system walks them: they must not change. All arithmetic is
// modulo 2^32 (done in unsigned to keep negative coordinates well defined).
#ifndef VELMORA_COMMON_HASH_H
#define VELMORA_COMMON_HASH_H

#include <cstdint>

#include "math/Vector.h"

namespace AR {
namespace Common {

// Per-axis multipliers of the block-key hash, and the fourth for (x, y, z, axis) edge keys.
constexpr uint32_t kHashPrimeX = 7823u;
constexpr uint32_t kHashPrimeY = 5119u;
constexpr uint32_t kHashPrimeZ = 2549u;
constexpr uint32_t kHashPrimeW = 6827u;
// One FNV-1a step on a whole integer key.
constexpr uint32_t kFnvOffsetBasis = 2166136261u;
constexpr uint32_t kFnvPrime = 16777619u;

constexpr uint32_t fnvStep(uint32_t key) {
    return (key ^ kFnvOffsetBasis) * kFnvPrime;
}

template <typename T>
struct hash;

template <>
struct hash<unsigned int> {
    uint32_t operator()(unsigned int key) const { return fnvStep(key); }
};

template <>
struct hash<unsigned short> {
    uint32_t operator()(unsigned short key) const { return fnvStep(key); }
};

// Plane identities are indices of size_t width; their hash folds them to 32 bits first.
template <>
struct hash<unsigned long> {
    uint32_t operator()(unsigned long key) const { return fnvStep(static_cast<uint32_t>(key)); }
};

template <>
struct hash<int> {
    uint32_t operator()(int key) const { return fnvStep(static_cast<uint32_t>(key)); }
};

template <>
struct hash<Math::Vector<int, 3>> {
    uint32_t operator()(const Math::Vector<int, 3>& key) const {
        return static_cast<uint32_t>(key[0]) * kHashPrimeX +
               static_cast<uint32_t>(key[1]) * kHashPrimeY +
               static_cast<uint32_t>(key[2]) * kHashPrimeZ;
    }
};

template <>
struct hash<Math::Vector<int, 4>> {
    uint32_t operator()(const Math::Vector<int, 4>& key) const {
        return static_cast<uint32_t>(key[0]) * kHashPrimeX +
               static_cast<uint32_t>(key[1]) * kHashPrimeY +
               static_cast<uint32_t>(key[2]) * kHashPrimeZ +
               static_cast<uint32_t>(key[3]) * kHashPrimeW;
    }
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_HASH_H
