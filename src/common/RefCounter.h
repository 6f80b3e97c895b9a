// Intrusive reference counting. An object that derives from RefCounterT carries its own count; a
// fresh object has count 0 and is owned by nobody. `release` never deletes: the holder decides,
// through `releaseRef` (or RefPtr, which calls it), which is the one release protocol of the
// library: release; at 0 ask `recycle`; if the object does not go back to a pool, destroy the
// instance that `getInstance` names.
//
// Delegation: an object may hand its counting to another object of the same kind before it is
// shared (`setDelegate`); its own count then holds a marker and every count operation forwards.
//
// Thread safety: RefCounterT<AccessProtector_ThreadSafe> guards count and delegate with a mutex;
// RefCounterT<AccessProtector_NoProtection> must stay on one thread at a time. `setDelegate` and
// `recycle` take no lock: they are for use before an object is shared.
#ifndef VELMORA_COMMON_REFCOUNTER_H
#define VELMORA_COMMON_REFCOUNTER_H

#include <cstdint>
#include <utility>

#include "common/Assert.h"
#include "common/Platform.h"

namespace AR {
namespace Common {

namespace RefCounterHelper {

// One platform mutex, made with the object and destroyed with it. A copy gets its own mutex.
class AccessProtector_ThreadSafe {
protected:
    AccessProtector_ThreadSafe() : mMutex(arThreadMutexCreate()) { AR_ASSERT(mMutex != nullptr); }
    AccessProtector_ThreadSafe(const AccessProtector_ThreadSafe&) : AccessProtector_ThreadSafe() {}
    AccessProtector_ThreadSafe& operator=(const AccessProtector_ThreadSafe&) { return *this; }
    ~AccessProtector_ThreadSafe() { arThreadMutexDestroy(mMutex); }

    void accessProtectorLock() const { arThreadMutexLock(mMutex); }
    void accessProtectorUnlock() const { arThreadMutexUnlock(mMutex); }

private:
    ArMutex* mMutex;
};

// No fields; locking does nothing.
class AccessProtector_NoProtection {
protected:
    void accessProtectorLock() const {}
    void accessProtectorUnlock() const {}
};

}  // namespace RefCounterHelper

template <class ACCESS_PROTECTOR>
class RefCounterT : protected ACCESS_PROTECTOR {
public:
    // The count of an object that counts through its delegate.
    static constexpr int32_t kDelegateMarker = 0x7E1E9A1E;

    RefCounterT() = default;
    // A copy is a new object: count 0, no delegate.
    RefCounterT(const RefCounterT&) : ACCESS_PROTECTOR() {}
    RefCounterT& operator=(const RefCounterT&) { return *this; }
    virtual ~RefCounterT() = default;

    // Lowers the count (or the delegate's) by one and returns the new count. Deletes nothing.
    virtual int32_t release() const {
        Guard guard(*this);
        return mDelegate != nullptr ? mDelegate->release() : --mRefCount;
    }
    // Raises the count (or the delegate's) by one and returns the new count.
    virtual int32_t addRef() const {
        Guard guard(*this);
        return mDelegate != nullptr ? mDelegate->addRef() : ++mRefCount;
    }
    virtual int32_t getRefCount() const {
        Guard guard(*this);
        return mDelegate != nullptr ? mDelegate->getRefCount() : mRefCount;
    }
    // The object whose life the count governs: the delegate, or this object.
    virtual RefCounterT* getInstance() const {
        Guard guard(*this);
        return mDelegate != nullptr ? mDelegate : const_cast<RefCounterT*>(this);
    }
    // Called when the count reached 0. True keeps the object alive (it went back to a pool); the
    // default object is simply destroyed. Aborts unless the count is 0 or the delegate marker.
    virtual bool recycle() {
        AR_ASSERT(mRefCount == 0 || mRefCount == kDelegateMarker);
        return false;
    }
    // Hands the counting of this object to `delegate`. Aborts unless the count is 0.
    virtual void setDelegate(RefCounterT* delegate) {
        AR_ASSERT(mRefCount == 0);
        mRefCount = kDelegateMarker;
        mDelegate = delegate;
    }

    // The object's own count field (the marker once delegated); for diagnostics and tests.
    int32_t getOwnCountField() const { return mRefCount; }

private:
    class Guard {
    public:
        explicit Guard(const RefCounterT& owner) : mOwner(owner) { mOwner.accessProtectorLock(); }
        ~Guard() { mOwner.accessProtectorUnlock(); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

    private:
        const RefCounterT& mOwner;
    };

    mutable int32_t mRefCount = 0;
    RefCounterT* mDelegate = nullptr;
};

using RefCounter = RefCounterT<RefCounterHelper::AccessProtector_ThreadSafe>;
using RefCounterUnprotected = RefCounterT<RefCounterHelper::AccessProtector_NoProtection>;

// The one release protocol: release; at 0 recycle; if not recycled, destroy the instance.
template <class ACCESS_PROTECTOR>
void releaseRef(const RefCounterT<ACCESS_PROTECTOR>* object) {
    if (object == nullptr || object->release() != 0) {
        return;
    }
    auto* self = const_cast<RefCounterT<ACCESS_PROTECTOR>*>(object);
    if (self->recycle()) {
        return;
    }
    delete self->getInstance();
}

// Holding pointer: adds a reference on taking an object, releases it by `releaseRef` on letting
// go. T derives from some RefCounterT.
template <class T>
class RefPtr {
public:
    RefPtr() = default;
    explicit RefPtr(T* object) : mObject(object) { acquire(); }
    RefPtr(const RefPtr& other) : mObject(other.mObject) { acquire(); }
    RefPtr(RefPtr&& other) noexcept : mObject(std::exchange(other.mObject, nullptr)) {}
    ~RefPtr() { releaseRef(mObject); }
    RefPtr& operator=(RefPtr other) noexcept {
        swap(other);
        return *this;
    }

    void reset() { RefPtr().swap(*this); }
    void swap(RefPtr& other) noexcept { std::swap(mObject, other.mObject); }
    T* get() const { return mObject; }
    T* operator->() const { return mObject; }
    T& operator*() const { return *mObject; }
    explicit operator bool() const { return mObject != nullptr; }

private:
    void acquire() {
        if (mObject != nullptr) {
            mObject->addRef();
        }
    }

    T* mObject = nullptr;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_REFCOUNTER_H
