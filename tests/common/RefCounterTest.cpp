// Intrusive reference counting: counts, the release protocol, delegation, recycling, RefPtr.
#include <gtest/gtest.h>

#include "common/RefCounter.h"

namespace {

using AR::Common::RefCounterUnprotected;

// Records its destruction; optionally goes back to a "pool" instead of being destroyed.
class Tracked : public RefCounterUnprotected {
public:
    explicit Tracked(int* destroyed, bool pooled = false)
        : mDestroyed(destroyed), mPooled(pooled) {}
    ~Tracked() override { ++*mDestroyed; }
    bool recycle() override {
        RefCounterUnprotected::recycle();
        if (mPooled) {
            ++mRecycled;
        }
        return mPooled;
    }
    int mRecycled = 0;

private:
    int* mDestroyed;
    bool mPooled;
};

TEST(RefCounter, CountsWithoutDeletingAndReleaseRefDestroysAtZero) {
    int destroyed = 0;
    auto* object = new Tracked(&destroyed);
    EXPECT_EQ(object->getRefCount(), 0);  // a fresh object is owned by nobody
    EXPECT_EQ(object->addRef(), 1);
    EXPECT_EQ(object->addRef(), 2);
    EXPECT_EQ(object->release(), 1);
    EXPECT_EQ(object->getInstance(), object);
    AR::Common::releaseRef(object);  // 1 -> 0: recycle says no, so the object goes
    EXPECT_EQ(destroyed, 1);

    // A copy is a new object with its own count.
    Tracked original(&destroyed);
    original.addRef();
    Tracked copy(original);
    EXPECT_EQ(copy.getRefCount(), 0);
    original.release();
}

TEST(RefCounter, RecycledObjectStaysAliveAndRefPtrBalances) {
    int destroyed = 0;
    Tracked pooled(&destroyed, true);
    {
        AR::Common::RefPtr<Tracked> first(&pooled);
        AR::Common::RefPtr<Tracked> second = first;
        EXPECT_EQ(pooled.getRefCount(), 2);
        AR::Common::RefPtr<Tracked> moved(std::move(second));
        EXPECT_EQ(pooled.getRefCount(), 2);
        EXPECT_FALSE(second);
        moved.reset();
        EXPECT_EQ(pooled.getRefCount(), 1);
    }
    EXPECT_EQ(pooled.getRefCount(), 0);
    EXPECT_EQ(pooled.mRecycled, 1);
    EXPECT_EQ(destroyed, 0);
}

TEST(RefCounter, DelegateTakesOverCountingAndLife) {
    int destroyed = 0;
    auto* owner = new Tracked(&destroyed);
    Tracked part(&destroyed);
    part.setDelegate(owner);
    EXPECT_EQ(part.getOwnCountField(), RefCounterUnprotected::kDelegateMarker);
    EXPECT_EQ(part.addRef(), 1);
    EXPECT_EQ(owner->getRefCount(), 1);
    EXPECT_EQ(part.getRefCount(), 1);
    EXPECT_EQ(part.getInstance(), owner);
    // Releasing the part to 0 destroys the delegate, whose life the count governs.
    AR::Common::releaseRef(&part);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(part.getOwnCountField(), RefCounterUnprotected::kDelegateMarker);
}

TEST(RefCounterDeathTest, PreconditionsOfDelegateAndRecycleAbort) {
    RefCounterUnprotected counted;
    counted.addRef();
    RefCounterUnprotected other;
    EXPECT_DEATH(counted.setDelegate(&other), "AR_ASSERT mRefCount == 0");
    EXPECT_DEATH(counted.recycle(), "AR_ASSERT mRefCount == 0 \\|\\| mRefCount == kDelegateMarker");
    counted.release();
    EXPECT_FALSE(counted.recycle());
}

}  // namespace
