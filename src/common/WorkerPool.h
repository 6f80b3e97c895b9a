// A pool of four worker threads fed through a small bounded queue, for spreading independent
// pieces of work (the blocks of a frame) over the cores.
//
// Layers: `WaitFreeLockFreeQ` is the queue of `Work` items (16 nodes inside the queue, no
// allocation after construction). `Internal::SpinWorkerPoolST` owns a queue and runs nothing
// itself; `Internal::SpinWorkerPool` adds the four threads, which sleep on a condition between
// rounds and drain the queue within a round; `WorkerPoolBase::dispatch` runs kernel(i) for
// i = 0 .. n-1 on them, handing out indices one by one in index order.
//
// Thread-safety: `dispatch` and `submit` must be called from one thread at a time; they block
// until every worker has finished the round. The kernel must protect its own data. The calling
// thread is not one of the workers. The pool is not copyable.
#ifndef VELMORA_COMMON_WORKERPOOL_H
#define VELMORA_COMMON_WORKERPOOL_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "common/Assert.h"

namespace AR {
namespace Common {

// Worker threads of the pool.
constexpr int WORKERPOOL_DEFAULT_WORKERS = 4;
// Nodes and ring slots of the pool's queue.
constexpr int kWorkQueueSize = 16;

// Result of `enQueue`.
using Result = int;
constexpr Result kQueueSuccess = 0;
constexpr Result kQueueExhausted = -98;  // no free node left, or the ring is full

// One piece of work: a function and its pointer-sized argument.
struct Work {
    void (*function)(void*) = nullptr;
    void* argument = nullptr;
};

// Bounded FIFO of N items. Producers are serialised by one mutex, consumers by another; the ring
// state (read position, write position, node written last) is one atomic 64-bit word. The ring
// holds at most N - 1 items: a full ring would look empty.
template <typename T, int N, typename MutexType>
class WaitFreeLockFreeQ {
    static_assert(N > 1 && N <= 0xFFFF, "ring positions are 16 bits");

public:
    struct Node {
        Node* next;
        T item;
    };

    WaitFreeLockFreeQ() {
        for (int i = 0; i < N; ++i) {
            mPool[i].next = i + 1 < N ? &mPool[i + 1] : nullptr;
        }
        mFreeHead.store(&mPool[0]);
        mFreeCount.store(N);
    }
    WaitFreeLockFreeQ(const WaitFreeLockFreeQ&) = delete;
    WaitFreeLockFreeQ& operator=(const WaitFreeLockFreeQ&) = delete;

    // Appends `work`; kQueueExhausted when no node or ring slot is left.
    Result enQueue(const T& work) {
        std::lock_guard<MutexType> producer(mProducerMutex);
        const uint64_t state = mState.load(std::memory_order_acquire);
        const uint32_t read = readPosition(state);
        const uint32_t write = writePosition(state);
        if ((write + 1) % N == read) {
            return kQueueExhausted;
        }
        Node* node = popFree();
        if (node == nullptr) {
            return kQueueExhausted;
        }
        node->item = work;
        const uint32_t index = static_cast<uint32_t>(node - mPool);
        mRing[write] = static_cast<uint16_t>(index);
        // Only the consumer changes the read position, so retry until the write lands.
        uint64_t expected = state;
        for (;;) {
            const uint64_t desired = makeState(readPosition(expected), (write + 1) % N, index);
            if (mState.compare_exchange_weak(expected, desired, std::memory_order_acq_rel)) {
                break;
            }
        }
        return kQueueSuccess;
    }

    // The oldest node, or null when the ring is empty. The caller hands the node back with
    // `release` once it is done with the item.
    Node* deQueue() {
        std::lock_guard<MutexType> consumer(mConsumerMutex);
        uint64_t state = mState.load(std::memory_order_acquire);
        for (;;) {
            const uint32_t read = readPosition(state);
            const uint32_t write = writePosition(state);
            if (read == write) {
                return nullptr;
            }
            const uint32_t next = (read + 1) % N;
            const uint32_t index = next == write ? lastWritten(state) : mRing[read];
            const uint64_t desired = makeState(next, write, lastWritten(state));
            if (mState.compare_exchange_weak(state, desired, std::memory_order_acq_rel)) {
                return &mPool[index];
            }
        }
    }

    // Returns a node from `deQueue` to the free stack. A node from elsewhere is reported and
    // kept out of the pool.
    void release(Node* node);

    int freeCount() const { return mFreeCount.load(); }

private:
    static constexpr int kPositionBits = 16;
    static constexpr uint64_t kPositionMask = 0xFFFF;
    static constexpr int kLastWrittenShift = 32;

    static uint32_t readPosition(uint64_t s) { return static_cast<uint32_t>(s & kPositionMask); }
    static uint32_t writePosition(uint64_t s) {
        return static_cast<uint32_t>((s >> kPositionBits) & kPositionMask);
    }
    static uint32_t lastWritten(uint64_t s) {
        return static_cast<uint32_t>(s >> kLastWrittenShift);
    }
    static uint64_t makeState(uint32_t read, uint32_t write, uint32_t last) {
        return uint64_t(read) | (uint64_t(write) << kPositionBits) |
               (uint64_t(last) << kLastWrittenShift);
    }

    Node* popFree() {
        std::lock_guard<MutexType> guard(mFreeMutex);
        Node* head = mFreeHead.load(std::memory_order_acquire);
        while (head != nullptr &&
               !mFreeHead.compare_exchange_weak(head, head->next, std::memory_order_acq_rel)) {
        }
        if (head != nullptr) {
            mFreeCount.fetch_sub(1);
        }
        return head;
    }

    MutexType mProducerMutex;
    Node mPool[N];
    std::atomic<Node*> mFreeHead{nullptr};
    std::atomic<int> mFreeCount{0};
    MutexType mFreeMutex;
    uint16_t mRing[N] = {};
    std::atomic<uint64_t> mState{0};
    MutexType mConsumerMutex;
};

// Reports a node that does not belong to the pool of a queue.
void reportForeignNode(const void* node, const void* pool, int size);

template <typename T, int N, typename MutexType>
void WaitFreeLockFreeQ<T, N, MutexType>::release(Node* node) {
    if (node < mPool || node >= mPool + N) {
        reportForeignNode(node, mPool, N);
        return;
    }
    std::lock_guard<MutexType> guard(mFreeMutex);
    Node* head = mFreeHead.load(std::memory_order_acquire);
    do {
        node->next = head;
    } while (!mFreeHead.compare_exchange_weak(head, node, std::memory_order_acq_rel));
    mFreeCount.fetch_add(1);
}

// How `dispatch` spreads the work; the pool honours only its worker count.
enum WorkerPoolMultithreadMode : int {
    kWorkerPoolAllWorkers = 0,
};

// The kernel of a dispatch: called with indices 0 .. n-1.
using InternalKernel = std::function<void(int)>;

namespace Internal {

using WorkQueue = WaitFreeLockFreeQ<Work, kWorkQueueSize, std::mutex>;

// Single-thread base: owns the queue; its start and stop do nothing.
class SpinWorkerPoolST {
public:
    SpinWorkerPoolST() = default;
    SpinWorkerPoolST(const SpinWorkerPoolST&) = delete;
    SpinWorkerPoolST& operator=(const SpinWorkerPoolST&) = delete;
    virtual ~SpinWorkerPoolST() = default;
    virtual void startSpinWorkers() {}
    virtual void stopSpinWorkers() {}

    WorkQueue& queue() { return mQueue; }

protected:
    WorkQueue mQueue;
};

// Four threads that sleep on the start condition between rounds. In a round each runs the
// round's function once; the dispatch round's function drains the queue.
class SpinWorkerPool : public SpinWorkerPoolST {
public:
    // Starts the threads; a failure raises std::system_error.
    SpinWorkerPool();
    // Wakes the sleeping threads so that they leave, and joins them.
    ~SpinWorkerPool() override;

    // Runs f(workerSlot) once on each worker and waits for all.
    void submit(const InternalKernel& f);
    // Wakes the workers to drain the queue; `stopSpinWorkers` waits until all are done.
    void startSpinWorkers() override;
    void stopSpinWorkers() override;

protected:
    std::atomic<bool> mExitWhenEmpty{false};  // a worker leaves the drain when the ring is empty
    bool mForceSingleThread = false;          // dispatch on the calling thread instead

private:
    enum State : int { kIdle = 0, kStarted = 1, kStopping = 2 };

    void coreLoop1(int index);
    void spinLoop(int workerSlot);
    // Installs `f` for a round of all workers and wakes them.
    void beginRound(const InternalKernel& f);
    void waitForRound();

    std::vector<std::thread> mThreads;
    std::mutex mStartMutex;
    std::condition_variable mStartCondition;
    std::mutex mDoneMutex;
    std::condition_variable mDoneCondition;
    std::atomic<int> mPending{0};  // workers yet to wake for this round
    std::atomic<int> mDone{0};     // workers that finished this round
    InternalKernel mFunction;      // written under the start mutex
    std::atomic<bool> mQuit{false};
    std::atomic<int> mState{kIdle};
};

}  // namespace Internal

// The pool with `dispatch`.
class WorkerPoolBase : public Internal::SpinWorkerPool {
public:
    WorkerPoolBase() { mExitWhenEmpty = true; }

    // Calls kernel(i) for every i in [0, n) exactly once, spread over the workers; returns when
    // all calls have finished. Not reentrant.
    template <typename Kernel>
    void dispatch(Kernel&& kernel, int n, WorkerPoolMultithreadMode mode) {
        realDispatch(InternalKernel(std::forward<Kernel>(kernel)), mode, n);
    }

    void realDispatch(const InternalKernel& kernel, WorkerPoolMultithreadMode mode, int n);
};

using RealSpinPool = WorkerPoolBase;

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_WORKERPOOL_H
