#include "common/RWLock.h"

#include "common/Assert.h"

namespace AR {
namespace Common {

bool RWLockImpl<true>::tryAddReader() {
    uint64_t state = mState.load(std::memory_order_relaxed);
    while ((state & kWriterByteMask) == 0) {
        if (mState.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

void RWLockImpl<true>::lockRead() {
    if (tryAddReader()) {
        return;
    }
    // A writer is active: sleep until it leaves. unlockWrite takes the mutex before it notifies,
    // so a writer cannot finish between our test and our wait.
    std::unique_lock<std::mutex> guard(mMutex);
    while (!tryAddReader()) {
        mCondition.wait(guard);
    }
}

void RWLockImpl<true>::unlockRead() {
    uint64_t state = mState.load(std::memory_order_relaxed);
    do {
        AR_ASSERT((state & kReaderMask) != 0);
    } while (!mState.compare_exchange_weak(state, state - 1, std::memory_order_release,
                                           std::memory_order_relaxed));
}

void RWLockImpl<true>::lockWrite() {
    for (;;) {
        uint64_t state = mState.load(std::memory_order_relaxed);
        if (state != 0) {
            continue;
        }
        if (mState.compare_exchange_weak(state, kWriterFlag, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return;
        }
    }
}

void RWLockImpl<true>::unlockWrite() {
    uint64_t expected = kWriterFlag;
    const bool released = mState.compare_exchange_strong(expected, 0, std::memory_order_release);
    AR_ASSERT(released);
    { std::lock_guard<std::mutex> guard(mMutex); }
    mCondition.notify_all();
}

}  // namespace Common
}  // namespace AR
