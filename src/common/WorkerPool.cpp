#include "common/WorkerPool.h"

#include <sched.h>
#include <cstdio>

namespace AR {
namespace Common {

void reportForeignNode(const void* node, const void* pool, int size) {
    std::printf("Freeing buffer NOT from the pool p:%p qBuf:%p N%d", node, pool, size);
    std::fflush(stdout);
}

namespace Internal {

SpinWorkerPool::SpinWorkerPool() {
    mThreads.reserve(WORKERPOOL_DEFAULT_WORKERS);
    for (int index = 0; index < WORKERPOOL_DEFAULT_WORKERS; ++index) {
        mThreads.emplace_back([this, index] { coreLoop1(index); });
    }
}

SpinWorkerPool::~SpinWorkerPool() {
    mQuit = true;
    submit(InternalKernel());  // wakes every worker; each sees the quit flag and leaves
    for (std::thread& thread : mThreads) {
        thread.join();
    }
}

void SpinWorkerPool::coreLoop1(int /*index*/) {
    for (;;) {
        InternalKernel function;
        int slot;
        {
            std::unique_lock<std::mutex> start(mStartMutex);
            mStartCondition.wait(start, [this] { return mPending.load() != 0; });
            slot = mPending.fetch_sub(1) - 1;
            function = mFunction;
        }
        const bool quit = mQuit.load();
        if (!quit) {
            AR_ASSERT(function);
            function(slot);
        }
        {
            std::lock_guard<std::mutex> done(mDoneMutex);
            mDone.fetch_add(1);
            mDoneCondition.notify_one();
        }
        if (quit) {
            return;
        }
    }
}

void SpinWorkerPool::spinLoop(int /*workerSlot*/) {
    for (;;) {
        WorkQueue::Node* node = mQueue.deQueue();
        if (node != nullptr) {
            node->item.function(node->item.argument);
            mQueue.release(node);
            continue;
        }
        if (mExitWhenEmpty.load()) {
            return;
        }
        sched_yield();
        if (mState.load() == kStopping) {
            return;
        }
    }
}

void SpinWorkerPool::beginRound(const InternalKernel& f) {
    std::lock_guard<std::mutex> start(mStartMutex);
    mFunction = f;
    mDone = 0;
    mPending = WORKERPOOL_DEFAULT_WORKERS;
    mStartCondition.notify_all();
}

void SpinWorkerPool::waitForRound() {
    std::unique_lock<std::mutex> done(mDoneMutex);
    mDoneCondition.wait(done, [this] { return mDone.load() == WORKERPOOL_DEFAULT_WORKERS; });
}

void SpinWorkerPool::submit(const InternalKernel& f) {
    beginRound(f);
    waitForRound();
}

void SpinWorkerPool::startSpinWorkers() {
    mState = kStarted;
    beginRound([this](int slot) { spinLoop(slot); });
}

void SpinWorkerPool::stopSpinWorkers() {
    mState = kStopping;
    waitForRound();
}

}  // namespace Internal

namespace {

// The state of one dispatch, shared by the four queued work items.
struct Caller {
    const InternalKernel* kernel;
    int n;
    std::atomic<int> next{0};      // next index to hand out
    std::atomic<int> workerId{0};  // next worker id to hand out

    void body(int /*workerId*/) {
        for (int i = next++; i < n; i = next++) {
            (*kernel)(i);
        }
    }

    static void run(void* argument) {
        Caller* caller = static_cast<Caller*>(argument);
        const int worker_id = caller->workerId++;
        AR_ASSERT(worker_id < WORKERPOOL_DEFAULT_WORKERS);
        caller->body(worker_id);
    }
};

}  // namespace

void WorkerPoolBase::realDispatch(const InternalKernel& kernel, WorkerPoolMultithreadMode /*mode*/,
                                  int n) {
    Caller caller;
    caller.kernel = &kernel;
    caller.n = n;
    if (mForceSingleThread) {
        caller.body(0);
        return;
    }
    for (int w = 0; w < WORKERPOOL_DEFAULT_WORKERS; ++w) {
        // Four items in a queue of sixteen cannot exhaust it.
        mQueue.enQueue(Work{&Caller::run, &caller});
    }
    startSpinWorkers();
    stopSpinWorkers();
}

}  // namespace Common
}  // namespace AR
