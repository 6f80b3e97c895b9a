#include "common/RWLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using Lock = AR::Common::RWLockImpl<true>;

// Two fields that the writer always changes together: a reader under the lock must never see
// them differ, and must never see a change in the middle of its own critical section.
struct Guarded {
    long first = 0;
    long second = 0;
};

TEST(RWLockConcurrency, ReadersNeverSeeAHalfWrite) {
    constexpr int kReaders = 2;
    constexpr int kReadsPerReader = 2000;
    constexpr int kWrites = 1000;
    // Readers pause between reads, sleeping, so that the spinning writer finds the lock free.
    constexpr std::chrono::microseconds kReaderPause(20);
    Lock lock;
    Guarded data;
    std::atomic<long> torn{0};
    std::atomic<long> changedWhileReading{0};

    // Both sides yield inside their critical sections, so that a writer let in beside a reader
    // (or a reader beside a writer) has time to be seen. Writers do not hold new readers off, so
    // readers that never paused could keep the spinning writer out for a long time.
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            for (int i = 0; i < kReadsPerReader; ++i) {
                {
                    AR::Common::ReadLockGuard<Lock> guard(lock);
                    const long first = data.first;
                    if (first != data.second) {
                        ++torn;
                    }
                    std::this_thread::yield();
                    if (first != data.first) {
                        ++changedWhileReading;
                    }
                }
                std::this_thread::sleep_for(kReaderPause);
            }
        });
    }
    for (int w = 1; w <= kWrites; ++w) {
        {
            AR::Common::WriteLockGuard<Lock> guard(lock);
            data.first = w;
            std::this_thread::yield();
            data.second = w;
        }
        std::this_thread::yield();
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(changedWhileReading.load(), 0);
    EXPECT_EQ(data.first, kWrites);
}

TEST(RWLockConcurrency, WriterWaitsForReadersAndWakesSleepingReaders) {
    Lock lock;
    Guarded data;
    std::atomic<bool> writerIn{false};

    // A writer waits for an active reader.
    lock.lockRead();
    std::thread writer([&] {
        lock.lockWrite();
        writerIn = true;
        data.first = 1;
        lock.unlockWrite();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(writerIn.load());
    lock.unlockRead();
    writer.join();
    EXPECT_TRUE(writerIn.load());

    // A reader that arrives during a write sleeps and is woken by unlockWrite.
    std::atomic<bool> readerStarted{false};
    std::atomic<long> seen{0};
    lock.lockWrite();
    std::thread reader([&] {
        readerStarted = true;
        lock.lockRead();
        seen = data.second;
        lock.unlockRead();
    });
    while (!readerStarted.load()) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    data.second = 42;
    lock.unlockWrite();
    reader.join();
    EXPECT_EQ(seen.load(), 42);
}

}  // namespace
