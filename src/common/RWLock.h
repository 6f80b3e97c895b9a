// Reader-writer lock of the volume grids: writers spin, readers sleep only while a writer holds
// the lock.
//
// RWLockImpl<true> state (one atomic 64-bit word): the low 32 bits count the active readers, bit
// 32 is set while a writer holds the lock, the top bits stay zero. A reader touches the mutex and
// the condition only when it meets an active writer. The writer path is meant for very short
// critical sections (one table insertion) and burns its core while it waits; it does not exclude
// readers that keep arriving, so a writer can be delayed by a steady stream of readers.
//
// All four operations are thread-safe; a lock must be released by the thread that took it.
#ifndef VELMORA_COMMON_RW_LOCK_H
#define VELMORA_COMMON_RW_LOCK_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace AR {
namespace Common {

template <bool SPINNING_WRITERS>
class RWLockImpl;

template <>
class RWLockImpl<true> {
public:
    // Bit 32 of the state: a writer holds the lock.
    static constexpr uint64_t kWriterFlag = uint64_t(1) << 32;
    // Low 32 bits of the state: the number of active readers.
    static constexpr uint64_t kReaderMask = kWriterFlag - 1;
    // The writer byte, bits 32 to 39.
    static constexpr uint64_t kWriterByteMask = uint64_t(0xFF) << 32;

    RWLockImpl() = default;
    RWLockImpl(const RWLockImpl&) = delete;
    RWLockImpl& operator=(const RWLockImpl&) = delete;

    void lockRead();
    void unlockRead();
    void lockWrite();
    void unlockWrite();

private:
    // Raises the reader count unless a writer is active; true on success.
    bool tryAddReader();

    std::atomic<uint64_t> mState{0};
    std::mutex mMutex;
    std::condition_variable mCondition;
};

// Scoped read lock.
template <typename Lock>
class ReadLockGuard {
public:
    explicit ReadLockGuard(Lock& lock) : mLock(lock) { mLock.lockRead(); }
    ~ReadLockGuard() { mLock.unlockRead(); }
    ReadLockGuard(const ReadLockGuard&) = delete;
    ReadLockGuard& operator=(const ReadLockGuard&) = delete;

private:
    Lock& mLock;
};

// Scoped write lock.
template <typename Lock>
class WriteLockGuard {
public:
    explicit WriteLockGuard(Lock& lock) : mLock(lock) { mLock.lockWrite(); }
    ~WriteLockGuard() { mLock.unlockWrite(); }
    WriteLockGuard(const WriteLockGuard&) = delete;
    WriteLockGuard& operator=(const WriteLockGuard&) = delete;

private:
    Lock& mLock;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_RW_LOCK_H
