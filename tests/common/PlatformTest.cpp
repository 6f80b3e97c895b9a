// The platform layer: aligned allocation and buffer counters, the error code, reference counting;
// and the same from many threads: the error code, the counters, the library mutex, the
// reader-writer lock and the thread-safe reference count.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "common/Mutex.h"
#include "common/OS.h"
#include "common/Platform.h"
#include "common/RWLock.h"
#include "common/RefCounter.h"

namespace {

using AR::Common::OS;
using AR::Common::RefCounterUnprotected;

TEST(PlatformMemory, AlignedBlocksCountersAndRefusedAlignments) {
    arGetError();
    const int64_t aligned = OS::getNumAlignedBuffers();
    for (size_t alignment = 1; alignment <= 256; alignment *= 2)
        for (size_t size : {0, 1, 17, 100}) {
            auto* p = static_cast<unsigned char*>(OS::allocMemAligned(size, alignment));
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignment, 0u) << alignment;
            std::memset(p, 0xAB, size);  // the sanitizer checks the bounds
            OS::freeMemAligned(p);
        }
    EXPECT_EQ(arGetError(), AR_ERROR_NONE);
    // A refused allocation still counts, and so does freeing null: pairs always balance.
    for (size_t alignment : {size_t{0}, size_t{3}, size_t{512}}) {
        EXPECT_EQ(OS::allocMemAligned(100, alignment), nullptr) << alignment;
        EXPECT_EQ(arGetError(), AR_ERROR_INVALID_VALUE) << alignment;
        OS::freeMemAligned(nullptr);
    }
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned);
}

TEST(PlatformError, CodeIsReadOnceInvalidCodesBecomeFourAndWaitsTimeOut) {
    arGetError();
    EXPECT_EQ(arSetError(AR_ERROR_WRONG_STATE), 0);
    EXPECT_EQ(arGetError(), AR_ERROR_WRONG_STATE);
    EXPECT_EQ(arGetError(), AR_ERROR_NONE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(arSetError(12), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_HANDLE);
    EXPECT_EQ(arThreadMutexLock(nullptr), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_INVALID_HANDLE);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Invalid error code 12"),
              std::string::npos);

    ArMutex* mutex = arThreadMutexCreate();
    ArCond* cond = arThreadCondCreate();
    ASSERT_EQ(arThreadMutexLock(mutex), 0);
    EXPECT_EQ(arThreadCondTimedWait(cond, mutex, 5), -1);
    EXPECT_EQ(arGetError(), AR_ERROR_TIMEOUT);
    EXPECT_EQ(arThreadMutexUnlock(mutex), 0);
    arThreadCondDestroy(cond);
    arThreadMutexDestroy(mutex);
}

// Records its destruction; optionally goes back to a "pool" instead of being destroyed.
class Tracked : public RefCounterUnprotected {
public:
    explicit Tracked(int* destroyed, bool pooled = false)
        : mDestroyed(destroyed), mPooled(pooled) {}
    ~Tracked() override { ++*mDestroyed; }
    bool recycle() override {
        RefCounterUnprotected::recycle();
        mRecycled += mPooled;
        return mPooled;
    }
    int mRecycled = 0;

private:
    int* mDestroyed;
    bool mPooled;
};

TEST(RefCounter, ReleaseDestroysAtZeroUnlessRecycledAndDelegatesCountForTheirParts) {
    int destroyed = 0;
    auto* object = new Tracked(&destroyed);
    EXPECT_EQ(object->addRef(), 1);
    EXPECT_EQ(object->addRef(), 2);
    EXPECT_EQ(object->release(), 1);
    AR::Common::releaseRef(object);  // 1 -> 0: recycle says no, so the object goes
    EXPECT_EQ(destroyed, 1);

    Tracked pooled(&destroyed, true);
    {
        AR::Common::RefPtr<Tracked> first(&pooled);
        AR::Common::RefPtr<Tracked> second = first;
        AR::Common::RefPtr<Tracked> moved(std::move(second));
        EXPECT_EQ(pooled.getRefCount(), 2);
        EXPECT_FALSE(second);
    }
    EXPECT_EQ(pooled.getRefCount(), 0);
    EXPECT_EQ(pooled.mRecycled, 1);
    EXPECT_EQ(destroyed, 1);

    auto* owner = new Tracked(&destroyed);
    Tracked part(&destroyed);
    part.setDelegate(owner);
    EXPECT_EQ(part.addRef(), 1);
    EXPECT_EQ(owner->getRefCount(), 1);
    EXPECT_EQ(part.getInstance(), owner);
    AR::Common::releaseRef(&part);  // the delegate's life is what the count governs
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(part.getOwnCountField(), RefCounterUnprotected::kDelegateMarker);
}

TEST(RefCounterDeathTest, PreconditionsOfDelegateAndRecycleAbort) {
    RefCounterUnprotected counted;
    counted.addRef();
    RefCounterUnprotected other;
    EXPECT_DEATH(counted.setDelegate(&other), "AR_ASSERT mRefCount == 0");
    EXPECT_DEATH(counted.recycle(), "AR_ASSERT mRefCount == 0 \\|\\| mRefCount == kDelegateMarker");
    counted.release();
}

constexpr int kThreads = 4;
constexpr int kRounds = 2000;

// Runs `body(index)` on kThreads platform threads and joins them; a thread that could not be
// created fails its join.
template <class Body>
void runThreads(Body& body) {
    std::pair<Body*, int> starts[kThreads];
    ArThread* threads[kThreads];
    for (int i = 0; i < kThreads; ++i) {
        starts[i] = {&body, i};
        threads[i] = arThreadCreate(
            [](void* arg) -> void* {
                auto* start = static_cast<std::pair<Body*, int>*>(arg);
                (*start->first)(start->second);
                return nullptr;
            },
            &starts[i], "velmora-test");
    }
    for (ArThread* thread : threads)
        EXPECT_EQ(arThreadJoin(thread), 0);
}

// Each thread sets its own error code, allocates and frees, takes the library mutex and counts
// references: no read sees a code no thread set, the counters balance, no update is lost.
TEST(PlatformConcurrency, ErrorCodeCountersMutexAndReferenceCounts) {
    arGetError();
    const int64_t plain = OS::getNumUnalignedBuffers(), aligned = OS::getNumAlignedBuffers();
    std::atomic<int> badReads{0};
    AR::Common::Mutex mutex;
    int64_t counter = 0;  // guarded by `mutex`
    AR::Common::RefCounter object, delegate, delegating;
    delegating.setDelegate(&delegate);
    auto body = [&](int index) {
        const int code = AR_ERROR_INVALID_PARAMETER + index;  // 2..5, all valid
        for (int round = 0; round < kRounds; ++round) {
            arSetError(code);
            const int seen = arGetError();
            badReads += seen != 0 && (seen < AR_ERROR_INVALID_PARAMETER ||
                                      seen >= AR_ERROR_INVALID_PARAMETER + kThreads);
            void* a = OS::allocMem(static_cast<size_t>(round % 64) + 1);
            void* b = OS::allocMemAligned(static_cast<size_t>(round % 64) + 1, 32);
            OS::freeMemAligned(b);
            OS::freeMem(a);
            {
                std::lock_guard<AR::Common::Mutex> lock(mutex);
                ++counter;
            }
            object.addRef();
            delegating.addRef();
        }
        for (int round = 0; round < kRounds / 2; ++round) {
            object.release();
            delegating.release();
        }
    };
    runThreads(body);
    EXPECT_EQ(badReads.load(), 0);
    EXPECT_EQ(OS::getNumUnalignedBuffers(), plain);
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned);
    EXPECT_EQ(counter, int64_t{kThreads} * kRounds);
    EXPECT_EQ(object.getRefCount(), kThreads * kRounds / 2);
    EXPECT_EQ(delegate.getRefCount(), kThreads * kRounds / 2);
    arGetError();
}

// Releasing what is not held is a programming error the lock refuses: a read lock with no reader,
// a write lock with no writer (also while only readers hold it).
TEST(RWLockDeathTest, ReleasingWhatIsNotHeldAborts) {
    using Lock = AR::Common::RWLockImpl<true>;
    Lock idle;
    EXPECT_DEATH(idle.unlockRead(), "kReaderMask");
    EXPECT_DEATH(idle.unlockWrite(), "released");
    Lock read;
    read.lockRead();
    EXPECT_DEATH(read.unlockWrite(), "released");
    read.unlockRead();
}

// Thread 0 writes two fields, always together; the others read them under the lock and must
// never see them differ, nor change in the middle of their own critical section. Both sides yield
// inside their critical sections, so that a writer let in beside a reader has time to be seen;
// readers sleep between reads, so that the spinning writer finds the lock free.
TEST(RWLockConcurrency, ReadersNeverSeeAHalfWrite) {
    using Lock = AR::Common::RWLockImpl<true>;
    constexpr int kWrites = 1000;
    Lock lock;
    long first = 0, second = 0;  // guarded by `lock`
    std::atomic<long> torn{0}, changedWhileReading{0};
    auto body = [&](int index) {
        for (int i = 1; i <= (index == 0 ? kWrites : kRounds); ++i) {
            if (index == 0) {
                std::this_thread::yield();
                AR::Common::WriteLockGuard<Lock> guard(lock);
                first = i;
                std::this_thread::yield();
                second = i;
            } else {
                std::this_thread::sleep_for(std::chrono::microseconds(20));
                AR::Common::ReadLockGuard<Lock> guard(lock);
                const long seen = first;
                torn += seen != second;
                std::this_thread::yield();
                changedWhileReading += seen != first;
            }
        }
    };
    runThreads(body);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(changedWhileReading.load(), 0);
    EXPECT_EQ(first, kWrites);
}

}  // namespace
