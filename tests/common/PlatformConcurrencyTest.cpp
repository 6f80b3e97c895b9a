// The platform layer from many threads: the error code, the buffer counters, the library mutex,
// conditions and the thread-safe reference count.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "common/Mutex.h"
#include "common/OS.h"
#include "common/Platform.h"
#include "common/RefCounter.h"

namespace {

using AR::Common::OS;

constexpr int kThreads = 4;
constexpr int kRounds = 2000;

// Runs `body(index)` on kThreads platform threads and joins them.
template <class Body>
void runThreads(Body& body) {
    struct Start {
        Body* body;
        int index;
    };
    std::vector<Start> starts(kThreads);
    std::vector<ArThread*> threads;
    for (int i = 0; i < kThreads; ++i) {
        starts[i] = Start{&body, i};
        threads.push_back(arThreadCreate(
            [](void* arg) -> void* {
                auto* start = static_cast<Start*>(arg);
                (*start->body)(start->index);
                return nullptr;
            },
            &starts[i], "velmora-test"));
        ASSERT_NE(threads.back(), nullptr);
    }
    for (ArThread* thread : threads) {
        EXPECT_EQ(arThreadJoin(thread), 0);
    }
}

TEST(PlatformConcurrency, ErrorCodeIsNeverTornAndCountersBalance) {
    arGetError();
    const int64_t plain = OS::getNumUnalignedBuffers();
    const int64_t aligned = OS::getNumAlignedBuffers();
    std::atomic<int> badReads{0};
    auto body = [&](int index) {
        const int code = AR_ERROR_INVALID_PARAMETER + index;  // 2..5, all valid
        for (int round = 0; round < kRounds; ++round) {
            arSetError(code);
            const int seen = arGetError();
            if (seen != 0 && (seen < AR_ERROR_INVALID_PARAMETER ||
                              seen >= AR_ERROR_INVALID_PARAMETER + kThreads)) {
                ++badReads;
            }
            void* a = OS::allocMem(static_cast<size_t>(round % 64) + 1);
            void* b = OS::allocMemAligned(static_cast<size_t>(round % 64) + 1, 32);
            OS::freeMemAligned(b);
            OS::freeMem(a);
        }
    };
    runThreads(body);
    EXPECT_EQ(badReads.load(), 0);
    EXPECT_EQ(OS::getNumUnalignedBuffers(), plain);
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned);
    arGetError();
}

TEST(PlatformConcurrency, LibraryMutexSerialisesAndConditionHandsOver) {
    AR::Common::Mutex mutex;
    int64_t counter = 0;  // guarded by `mutex`
    auto body = [&](int) {
        for (int round = 0; round < kRounds; ++round) {
            std::lock_guard<AR::Common::Mutex> lock(mutex);
            ++counter;
        }
    };
    runThreads(body);
    EXPECT_EQ(counter, int64_t{kThreads} * kRounds);

    // One producer hands values one by one to the consumers through a condition.
    ArMutex* m = arThreadMutexCreate();
    ArCond* cond = arThreadCondCreate();
    int slot = 0;  // guarded by `m`; 0 means empty
    int64_t consumed = 0;
    constexpr int kItems = 200;
    auto handOver = [&](int index) {
        arThreadMutexLock(m);
        if (index == 0) {
            for (int item = 1; item <= kItems; ++item) {
                while (slot != 0) {
                    arThreadCondWait(cond, m);
                }
                slot = item;
                arThreadCondBroadcast(cond);
            }
            while (slot != 0) {
                arThreadCondWait(cond, m);
            }
            slot = -1;  // stop
            arThreadCondBroadcast(cond);
        } else {
            while (slot != -1) {
                if (slot > 0) {
                    consumed += slot;
                    slot = 0;
                    arThreadCondBroadcast(cond);
                } else {
                    arThreadCondWait(cond, m);
                }
            }
        }
        arThreadMutexUnlock(m);
    };
    runThreads(handOver);
    EXPECT_EQ(consumed, int64_t{kItems} * (kItems + 1) / 2);
    arThreadCondDestroy(cond);
    arThreadMutexDestroy(m);
}

TEST(RefCounterConcurrency, ThreadSafeCountLosesNoUpdate) {
    AR::Common::RefCounter object;
    AR::Common::RefCounter delegate;
    AR::Common::RefCounter delegating;
    delegating.setDelegate(&delegate);
    auto body = [&](int) {
        for (int round = 0; round < kRounds; ++round) {
            object.addRef();
            delegating.addRef();
        }
        for (int round = 0; round < kRounds / 2; ++round) {
            object.release();
            delegating.release();
        }
    };
    runThreads(body);
    EXPECT_EQ(object.getRefCount(), kThreads * kRounds / 2);
    EXPECT_EQ(delegate.getRefCount(), kThreads * kRounds / 2);
}

}  // namespace
