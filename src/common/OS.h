// Heap memory and time of the whole library, with counters of live buffers.
#ifndef VELMORA_COMMON_OS_H
#define VELMORA_COMMON_OS_H

#include <cstddef>
#include <cstdint>

namespace AR {
namespace Common {

class OS {
public:
    // Plain allocation, counted. Returns null on failure.
    static void* allocMem(size_t size);
    static void freeMem(void* p);
    // Aligned allocation, counted separately; `alignment` a power of two up to 256.
    static void* allocMemAligned(size_t size, size_t alignment);
    static void freeMemAligned(void* p);
    // Live buffers of each kind.
    static int64_t getNumUnalignedBuffers();
    static int64_t getNumAlignedBuffers();
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_OS_H
