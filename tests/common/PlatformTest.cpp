// The platform layer: aligned allocation layout, buffer counters, the error code, timing, timed
// waits, files and the system-log colon rule.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "common/OS.h"
#include "common/Path.h"
#include "common/Platform.h"

namespace {

using AR::Common::OS;

TEST(PlatformMemory, AlignedBlocksAreAlignedInBoundsAndRememberTheirStart) {
    arGetError();
    const size_t sizes[] = {0, 1, 3, 17, 100};
    for (size_t alignment = 1; alignment <= 256; alignment *= 2) {
        for (size_t size : sizes) {
            auto* p = static_cast<unsigned char*>(arMemoryAllocAligned(size, alignment));
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignment, 0u) << alignment;
            void* raw = nullptr;
            std::memcpy(&raw, p - sizeof(void*), sizeof(void*));
            const auto start = reinterpret_cast<uintptr_t>(raw);
            const auto aligned = reinterpret_cast<uintptr_t>(p);
            // The start word fits before the aligned address, the payload inside the block.
            EXPECT_GE(aligned - start, sizeof(void*));
            EXPECT_LE(aligned + size, start + size + alignment + sizeof(void*) - 1);
            std::memset(p, 0xAB, size);  // the sanitizer checks the bounds
            arMemoryFreeAligned(p);
        }
    }
    EXPECT_EQ(arGetError(), AR_ERROR_NONE);
    arMemoryFreeAligned(nullptr);
    arMemoryFree(nullptr);
}

TEST(PlatformMemory, InvalidAlignmentsAreRefusedWithErrorThree) {
    for (size_t alignment : {size_t{0}, size_t{3}, size_t{12}, size_t{512}}) {
        arGetError();
        EXPECT_EQ(arMemoryAllocAligned(100, alignment), nullptr) << alignment;
        EXPECT_EQ(arGetError(), AR_ERROR_INVALID_VALUE) << alignment;
    }
}

TEST(PlatformMemory, CountersFollowEveryCallEvenNullAndFailures) {
    const int64_t plain = OS::getNumUnalignedBuffers();
    const int64_t aligned = OS::getNumAlignedBuffers();
    void* a = OS::allocMem(10);
    void* b = OS::allocMemAligned(10, 16);
    EXPECT_EQ(OS::getNumUnalignedBuffers(), plain + 1);
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned + 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 16, 0u);
    // A refused allocation still counts, and so does freeing null: pairs always balance.
    EXPECT_EQ(OS::allocMemAligned(10, 3), nullptr);
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned + 2);
    OS::freeMemAligned(nullptr);
    OS::freeMemAligned(b);
    OS::freeMem(a);
    EXPECT_EQ(OS::getNumUnalignedBuffers(), plain);
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned);
    arGetError();
}

TEST(PlatformMemory, GetAlignmentIsTheLargestPowerOfTwoUpTo128) {
    const std::pair<uintptr_t, int> cases[] = {{0, 128},     {0x1000, 128}, {0x1100, 128},
                                               {0x1040, 64}, {0x1004, 4},   {0x1003, 1}};
    for (const auto& [address, alignment] : cases) {
        EXPECT_EQ(OS::getAlignment(reinterpret_cast<void*>(address)), alignment) << address;
    }
}

TEST(PlatformError, CodeIsReadOnceAndInvalidCodesBecomeFour) {
    arGetError();
    EXPECT_EQ(arSetError(AR_ERROR_WRONG_STATE), 0);
    EXPECT_EQ(arGetError(), AR_ERROR_WRONG_STATE);
    EXPECT_EQ(arGetError(), AR_ERROR_NONE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(arSetError(12), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Invalid error code 12"),
              std::string::npos);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_HANDLE);
}

TEST(PlatformTiming, SectionsMeasureAndMisuseIsReported) {
    arGetError();
    ArTiming* timing = arTimingCreate();
    int64_t micros = -1;
    EXPECT_EQ(arTimingEndSection(timing, &micros), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_WRONG_STATE);
    EXPECT_EQ(arTimingGetElapsedTime(timing, &micros), -1);
    EXPECT_EQ(micros, 0);
    EXPECT_EQ(arTimingBeginSection(nullptr), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_HANDLE);

    constexpr unsigned kSleepMs = 3;
    ASSERT_EQ(arTimingBeginSection(timing), 0);
    arThreadSleepMilliSeconds(kSleepMs);
    ASSERT_EQ(arTimingGetElapsedTime(timing, &micros), 0);
    EXPECT_GE(micros, kSleepMs * 1000);
    EXPECT_EQ(arTimingEndSection(timing, nullptr), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_PARAMETER);
    ASSERT_EQ(arTimingEndSection(timing, &micros), 0);
    EXPECT_GE(micros, kSleepMs * 1000);
    // A second stop has nothing to stop.
    EXPECT_EQ(arTimingEndSection(timing, &micros), -1);
    arTimingDestroy(timing);
    arGetError();
}

TEST(PlatformThreads, TimedWaitExpiresWithErrorEightAndNullHandlesAreRefused) {
    ArMutex* mutex = arThreadMutexCreate();
    ArCond* cond = arThreadCondCreate();
    arGetError();
    ASSERT_EQ(arThreadMutexLock(mutex), 0);
    EXPECT_EQ(arThreadCondTimedWait(cond, mutex, 5), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_TIMEOUT);
    EXPECT_EQ(arThreadMutexUnlock(mutex), 0);
    EXPECT_EQ(arThreadMutexTryLock(mutex), 0);
    EXPECT_EQ(arThreadMutexUnlock(mutex), 0);

    testing::internal::CaptureStderr();
    EXPECT_EQ(arThreadMutexLock(nullptr), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_HANDLE);
    EXPECT_EQ(arThreadCondSignal(nullptr), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Mutex is invalid"), std::string::npos);
    EXPECT_NE(log.find("Condition variable is invalid"), std::string::npos);
    EXPECT_EQ(arThreadCondDestroy(cond), 0);
    EXPECT_EQ(arThreadMutexDestroy(mutex), 0);
    arGetError();
}

// The library opens files (the log file) and asks for existence (paths); the rest of the file
// interface is a thin layer over stdio that nothing calls.
TEST(PlatformFiles, WrittenFilesExistAndBadArgumentsAreRefused) {
    char dirTemplate[] = "/tmp/velmora-platform-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    const std::string path = std::string(dirTemplate) + "/data.bin";
    EXPECT_EQ(arFileExists(path.c_str()), 0);
    ArFile* out = arFileOpen(path.c_str(), "wb");
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(arFileWrite(out, "velmora", 7), 7);
    EXPECT_EQ(arFileClose(out), 0);
    EXPECT_TRUE(AR::Common::FileSystem::doesFileExist(AR::Common::Path(path)));
    // A path below a regular file is missing (ENOTDIR), not "exists but cannot be examined".
    EXPECT_EQ(arFileExists((path + "/below").c_str()), 0);
    EXPECT_EQ(arFileExists(""), 0);

    arGetError();
    testing::internal::CaptureStderr();
    char text[4];
    EXPECT_EQ(arFileRead(nullptr, text, 1), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(arFileExists(nullptr), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_PARAMETER);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("File is invalid"), std::string::npos);
    EXPECT_NE(log.find("arFileExists(): Path parameter is invalid"), std::string::npos);
    EXPECT_EQ(arFileDeleteFile(path.c_str()), 0);
    EXPECT_EQ(arFileExists(path.c_str()), 0);
    EXPECT_EQ(arFileDeleteEmptyDirectory(dirTemplate), 0);
}

TEST(PlatformSystemLog, OnlyTheTextFromTheFirstColonIsWritten) {
    arGetError();
    testing::internal::CaptureStderr();
    EXPECT_EQ(arLogMessage(AR_LOG_LEVEL_DEBUG, "AR", "AR DEBUG: hello: world\n"), 0);
    EXPECT_EQ(arLogMessage(AR_LOG_LEVEL_ERROR, "AR", "no colon at all\n"), 0);
    EXPECT_EQ(arLogMessage(AR_LOG_LEVEL_NONE, "AR", "AR: silent\n"), 0);
    EXPECT_EQ(arLogMessage(AR_LOG_LEVEL_DEBUG, "AR", nullptr), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), ": hello: world\n");

    testing::internal::CaptureStderr();
    EXPECT_EQ(arLogMessage(6, "AR", "AR X: never\n"), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Erroneous log level 6"), std::string::npos);
    EXPECT_EQ(log.find("never"), std::string::npos);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_VALUE);
}

}  // namespace
