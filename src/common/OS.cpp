#include "common/OS.h"

#include <atomic>
#include <cstdlib>

namespace AR {
namespace Common {

namespace {
std::atomic<int64_t> gUnalignedBuffers{0};
std::atomic<int64_t> gAlignedBuffers{0};
}  // namespace

void* OS::allocMem(size_t size) {
    ++gUnalignedBuffers;
    return std::malloc(size);
}

void OS::freeMem(void* p) {
    --gUnalignedBuffers;
    std::free(p);
}

void* OS::allocMemAligned(size_t size, size_t alignment) {
    ++gAlignedBuffers;
    const size_t rounded = (size + alignment - 1) / alignment * alignment;
    return std::aligned_alloc(alignment, rounded);
}

void OS::freeMemAligned(void* p) {
    --gAlignedBuffers;
    std::free(p);
}

int64_t OS::getNumUnalignedBuffers() {
    return gUnalignedBuffers.load();
}
int64_t OS::getNumAlignedBuffers() {
    return gAlignedBuffers.load();
}

}  // namespace Common
}  // namespace AR
