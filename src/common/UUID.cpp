#include "common/UUID.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "common/Assert.h"

namespace AR {
namespace Common {

namespace {

constexpr size_t kHalfBytes = 8;
constexpr unsigned kBitsPerByte = 8;
constexpr uint32_t kByteMask = 0xFF;
// A text of this length is taken as the raw 16 bytes.
constexpr size_t kRawTextLength = UUID::kNumBytes;
// Room for "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" and its terminating zero.
constexpr size_t kTextBufferSize = 37;

constexpr uint32_t kFnvOffsetBasis = 0x811C9DC5u;
constexpr uint32_t kFnvPrime = 16777619u;
constexpr size_t kNumWords = UUID::kNumBytes / sizeof(uint32_t);

// Version 4: byte 6 keeps its low nibble and gets 4 in its high nibble.
constexpr size_t kVersionByte = 6;
constexpr uint32_t kLowNibble = 15;
constexpr uint32_t kVersion4Bits = 64;
// Variant 10: byte 8 keeps its low six bits and gets the top bits 10.
constexpr size_t kVariantByte = 8;
constexpr uint32_t kLowSixBits = 63;
constexpr uint32_t kVariantBits = 128;

// MT19937's default seed, used first so that the engine is valid before the system seeding.
constexpr unsigned int kDefaultSeed = 5489u;
// Words of system randomness: MT19937's whole state.
constexpr size_t kSeedWords = 624;

void putWord(uint8_t* bytes, uint32_t word) {
    for (size_t i = 0; i < sizeof(uint32_t); ++i) {
        bytes[i] = static_cast<uint8_t>(word >> (kBitsPerByte * i) & kByteMask);
    }
}

}  // namespace

UUID::UUID() {
    std::memset(mBytes, 0, sizeof(mBytes));
}

UUID::UUID(const std::string& text) : UUID() {
    if (text.size() == kRawTextLength) {
        std::memcpy(mBytes, text.data(), kNumBytes);
        return;
    }
    uint8_t parsed[kNumBytes] = {};
    const int fields = std::sscanf(
        text.c_str(),
        "%2hhx%2hhx%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx",
        &parsed[0], &parsed[1], &parsed[2], &parsed[3], &parsed[4], &parsed[5], &parsed[6],
        &parsed[7], &parsed[8], &parsed[9], &parsed[10], &parsed[11], &parsed[12], &parsed[13],
        &parsed[14], &parsed[15]);
    AR_ASSERT(fields == static_cast<int>(kNumBytes));
    std::memcpy(mBytes, parsed, kNumBytes);
}

UUID::UUID(const std::pair<unsigned long long, unsigned long long>& halves) {
    for (size_t i = 0; i < kHalfBytes; ++i) {
        mBytes[i] = static_cast<uint8_t>(halves.first >> (kBitsPerByte * i) & kByteMask);
        mBytes[kHalfBytes + i] =
            static_cast<uint8_t>(halves.second >> (kBitsPerByte * i) & kByteMask);
    }
}

std::pair<unsigned long long, unsigned long long> UUID::asUint64() const {
    unsigned long long first = 0;
    unsigned long long second = 0;
    for (size_t i = kHalfBytes; i-- > 0;) {
        first = first << kBitsPerByte | mBytes[i];
        second = second << kBitsPerByte | mBytes[kHalfBytes + i];
    }
    return {first, second};
}

std::string UUID::str() const {
    char text[kTextBufferSize];
    std::snprintf(text, sizeof(text),
                  "%02hhx%02hhx%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx%"
                  "02hhx%02hhx%02hhx%02hhx",
                  mBytes[0], mBytes[1], mBytes[2], mBytes[3], mBytes[4], mBytes[5], mBytes[6],
                  mBytes[7], mBytes[8], mBytes[9], mBytes[10], mBytes[11], mBytes[12], mBytes[13],
                  mBytes[14], mBytes[15]);
    return text;
}

bool UUID::operator==(const UUID& other) const {
    return std::memcmp(mBytes, other.mBytes, kNumBytes) == 0;
}

bool UUID::operator<(const UUID& other) const {
    return std::memcmp(mBytes, other.mBytes, kNumBytes) < 0;
}

size_t UUIDHash::operator()(const UUID& id) const {
    uint32_t words[kNumWords];
    std::memcpy(words, id.bytes(), sizeof(words));
    uint32_t hash = kFnvOffsetBasis;
    for (size_t i = 0; i < kNumWords; ++i) {
        hash ^= words[i];
        if (i + 1 < kNumWords) {
            hash *= kFnvPrime;
        }
    }
    return hash;
}

UUIDGenerator::UUIDGenerator() : mEngine(kDefaultSeed) {
    std::random_device device("/dev/urandom");
    std::vector<uint32_t> words(kSeedWords);
    for (uint32_t& word : words) {
        word = device();
    }
    std::seed_seq sequence(words.begin(), words.end());
    mEngine.seed(sequence);
}

void UUIDGenerator::setSeed(unsigned int seed) {
    mEngine.seed(seed);
    mDistribution.reset();
}

UUID UUIDGenerator::operator()() {
    UUID id;
    uint32_t words[kNumWords];
    for (uint32_t& word : words) {
        word = mDistribution(mEngine);
    }
    for (size_t i = 0; i < kNumWords; ++i) {
        putWord(id.bytes() + i * sizeof(uint32_t), words[i]);
    }
    id.bytes()[kVersionByte] =
        static_cast<uint8_t>((words[1] >> (2 * kBitsPerByte) & kLowNibble) | kVersion4Bits);
    id.bytes()[kVariantByte] = static_cast<uint8_t>((words[2] & kLowSixBits) | kVariantBits);
    return id;
}

}  // namespace Common
}  // namespace AR
