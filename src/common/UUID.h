// 128-bit identifiers: 16 bytes, no other state. Text form is the usual lower-case 8-4-4-4-12
// hex; as numbers, bytes 0..7 are the first and bytes 8..15 the second 64-bit half, each least
// significant byte first.
#ifndef VELMORA_COMMON_UUID_H
#define VELMORA_COMMON_UUID_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <utility>

namespace AR {
namespace Common {

class UUID {
public:
    static constexpr size_t kNumBytes = 16;

    // All zero.
    UUID();
    // Exactly 16 characters: the raw bytes. Anything else: the 8-4-4-4-12 hex form; a text that
    // does not parse is a programming error and ends the process.
    explicit UUID(const std::string& text);
    explicit UUID(const std::pair<unsigned long long, unsigned long long>& halves);

    std::string str() const;
    std::pair<unsigned long long, unsigned long long> asUint64() const;

    const uint8_t* bytes() const { return mBytes; }
    uint8_t* bytes() { return mBytes; }

    bool operator==(const UUID& other) const;
    bool operator!=(const UUID& other) const { return !(*this == other); }
    bool operator<(const UUID& other) const;

private:
    uint8_t mBytes[kNumBytes];
};

// FNV-style 32-bit hash over the four 32-bit words of the bytes.
struct UUIDHash {
    size_t operator()(const UUID& id) const;
};

// Random version-4 identifiers. Not safe between threads.
class UUIDGenerator {
public:
    // Seeded from the system's random source.
    UUIDGenerator();
    // Reproducible sequence (tests, replays).
    void setSeed(unsigned int seed);
    UUID operator()();

private:
    std::mt19937 mEngine;
    std::uniform_int_distribution<uint32_t> mDistribution;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_UUID_H
