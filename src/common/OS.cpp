#include "common/OS.h"

#include <time.h>

#include <atomic>
#include <cstdio>

#include "common/Platform.h"

namespace AR {
namespace Common {

namespace {
std::atomic<int64_t> gUnalignedBuffers{0};
std::atomic<int64_t> gAlignedBuffers{0};

// getAlignment reports at most this many bytes.
constexpr uintptr_t kMaxReportedAlignment = 128;
constexpr double kNanosPerSecond = 1e9;
constexpr int64_t kNanosPerMilli = 1000000;
// struct tm counts years from 1900 and months from 0.
constexpr int kTmYearBase = 1900;
// Room for "YYYY-MM-DD hh:mm:ss" and its terminating zero, with slack for out-of-range fields.
constexpr size_t kTimeStringSize = 32;
}  // namespace

void* OS::allocMem(size_t size) {
    ++gUnalignedBuffers;
    return arMemoryAlloc(size);
}

void OS::freeMem(void* p) {
    --gUnalignedBuffers;
    arMemoryFree(p);
}

void* OS::allocMemAligned(size_t size, size_t alignment) {
    ++gAlignedBuffers;
    return arMemoryAllocAligned(size, alignment);
}

void OS::freeMemAligned(void* p) {
    --gAlignedBuffers;
    arMemoryFreeAligned(p);
}

int64_t OS::getNumUnalignedBuffers() {
    return gUnalignedBuffers.load();
}

int64_t OS::getNumAlignedBuffers() {
    return gAlignedBuffers.load();
}

MEMORY_ALIGNMENT OS::getAlignment(const void* p) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(p);
    uintptr_t alignment = 1;
    while (alignment < kMaxReportedAlignment && (address & alignment) == 0) {
        alignment <<= 1;
    }
    return static_cast<MEMORY_ALIGNMENT>(alignment);
}

float OS::getTime() {
    return static_cast<float>(static_cast<double>(arTimeGetNanoSeconds()) / kNanosPerSecond);
}

uint32_t OS::getTimeMS() {
    const uint32_t lowNanos = static_cast<uint32_t>(arTimeGetNanoSeconds());
    return static_cast<uint32_t>(lowNanos / kNanosPerMilli);
}

void OS::getTimeString(std::string& out) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[kTimeStringSize];
    std::snprintf(text, sizeof(text), "%u-%02u-%02u %02u:%02u:%02u",
                  static_cast<unsigned>(local.tm_year + kTmYearBase),
                  static_cast<unsigned>(local.tm_mon + 1), static_cast<unsigned>(local.tm_mday),
                  static_cast<unsigned>(local.tm_hour), static_cast<unsigned>(local.tm_min),
                  static_cast<unsigned>(local.tm_sec));
    out = text;
}

}  // namespace Common
}  // namespace AR
