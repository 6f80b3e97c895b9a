// The worker pool: every index of a dispatch runs exactly once, on the workers and not on the
// caller; rounds with fewer items than workers; destruction of a sleeping pool; and the bounded
// queue underneath. Run under ThreadSanitizer by the Concurrency suite.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "common/WorkerPool.h"

namespace AR {
namespace Common {
namespace {

// Runs a dispatch of n items and checks that each index ran once, off the calling thread, on at
// most WORKERPOOL_DEFAULT_WORKERS threads.
void dispatchAndCount(WorkerPoolBase& pool, int n) {
    std::vector<std::atomic<int>> runs(static_cast<size_t>(n));
    std::mutex idsMutex;
    std::set<std::thread::id> ids;
    pool.dispatch(
        [&](int i) {
            runs[static_cast<size_t>(i)].fetch_add(1);
            std::lock_guard<std::mutex> lock(idsMutex);
            ids.insert(std::this_thread::get_id());
        },
        n, kWorkerPoolAllWorkers);
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(runs[static_cast<size_t>(i)].load(), 1) << "index " << i;
    EXPECT_LE(ids.size(), static_cast<size_t>(WORKERPOOL_DEFAULT_WORKERS));
    EXPECT_EQ(ids.count(std::this_thread::get_id()), 0u);
}

TEST(WorkerPoolConcurrency, EveryIndexRunsExactlyOnce) {
    WorkerPoolBase pool;
    std::atomic<int> calls{0};
    pool.dispatch([&](int) { calls.fetch_add(1); }, 0, kWorkerPoolAllWorkers);
    EXPECT_EQ(calls.load(), 0);
    dispatchAndCount(pool, 3);
    dispatchAndCount(pool, 1000);
    // Rounds follow each other on the same threads; the queue's nodes all come back.
    for (int round = 0; round < 20; ++round)
        dispatchAndCount(pool, round);
    EXPECT_EQ(pool.queue().freeCount(), kWorkQueueSize);
}

TEST(WorkerPoolConcurrency, SubmitRunsOncePerWorkerAndDestructionWakesSleepers) {
    std::vector<std::atomic<int>> slots(WORKERPOOL_DEFAULT_WORKERS);
    {
        WorkerPoolBase pool;
        pool.submit([&](int slot) { slots.at(static_cast<size_t>(slot)).fetch_add(1); });
        // The workers are back asleep on the start condition when the pool goes.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (const auto& count : slots)
        EXPECT_EQ(count.load(), 1);
}

void* tag(int i) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(i));
}
int untag(const void* p) {
    return static_cast<int>(reinterpret_cast<intptr_t>(p));
}

TEST(WorkerPoolConcurrency, ProducerAndConsumerThreadsLoseNothing) {
    WaitFreeLockFreeQ<Work, kWorkQueueSize, std::mutex> queue;
    constexpr int kItems = 5000;
    std::atomic<long> sum{0};
    std::thread producer([&] {
        for (int i = 1; i <= kItems; ++i)
            while (queue.enQueue(Work{nullptr, tag(i)}) != kQueueSuccess)
                std::this_thread::yield();
    });
    std::vector<std::thread> consumers;
    std::atomic<int> taken{0};
    for (int c = 0; c < 2; ++c) {
        consumers.emplace_back([&] {
            while (taken.load() < kItems) {
                auto* node = queue.deQueue();
                if (node == nullptr) {
                    std::this_thread::yield();
                    continue;
                }
                sum.fetch_add(untag(node->item.argument));
                queue.release(node);
                taken.fetch_add(1);
            }
        });
    }
    producer.join();
    for (auto& t : consumers)
        t.join();
    EXPECT_EQ(sum.load(), static_cast<long>(kItems) * (kItems + 1) / 2);
    EXPECT_EQ(queue.freeCount(), kWorkQueueSize);
}

}  // namespace
}  // namespace Common
}  // namespace AR
