// Heap memory and time of the whole library, with counters of live buffers. Every heap buffer of
// the library's containers, images and blocks goes through here, so that the counters tell at any
// moment how many buffers are alive (a leak shows as a counter that does not return to its start).
#ifndef VELMORA_COMMON_OS_H
#define VELMORA_COMMON_OS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace AR {
namespace Common {

// Alignment of an aligned buffer, in bytes.
enum MEMORY_ALIGNMENT : int32_t {
    ALIGNMENT_1 = 1,
    ALIGNMENT_2 = 2,
    ALIGNMENT_4 = 4,
    ALIGNMENT_8 = 8,
    ALIGNMENT_16 = 16,
    ALIGNMENT_32 = 32,
    ALIGNMENT_64 = 64,
    ALIGNMENT_128 = 128,
    ALIGNMENT_256 = 256,
};

// Pixel and block memory is 16-byte aligned as a rule, so that vector code can load rows directly.
constexpr MEMORY_ALIGNMENT kDefaultAlignment = ALIGNMENT_16;

// Static facade over the platform layer. All functions are safe from any thread.
class OS {
public:
    // Plain allocation, counted: the counter rises even when the allocation fails, and falls even
    // for a null pointer, so every allocMem is paired with exactly one freeMem.
    static void* allocMem(size_t size);
    static void freeMem(void* p);
    // Aligned allocation, counted separately; `alignment` a power of two up to 256, else null.
    static void* allocMemAligned(size_t size, size_t alignment);
    static void freeMemAligned(void* p);
    // Live buffers of each kind.
    static int64_t getNumUnalignedBuffers();
    static int64_t getNumAlignedBuffers();

    // The largest power of two from 1 to 128 that divides `p`; a null pointer yields 128.
    static MEMORY_ALIGNMENT getAlignment(const void* p);

    // Real-time clock in seconds (float: coarse, for logs and statistics only).
    static float getTime();
    // Real-time clock in milliseconds, wrapping: the low 32 bits of the nanoseconds divided down.
    static uint32_t getTimeMS();
    // Local time as "YYYY-MM-DD hh:mm:ss".
    static void getTimeString(std::string& out);
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_OS_H
