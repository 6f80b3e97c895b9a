#include "common/Mutex.h"

#include "common/Assert.h"

namespace AR {
namespace Common {

Mutex::Mutex() : mMutex(arThreadMutexCreate()) {
    AR_ASSERT(mMutex != nullptr);
}

Mutex::~Mutex() {
    arThreadMutexDestroy(mMutex);
}

void Mutex::lock() {
    const int result = arThreadMutexLock(mMutex);
    AR_ASSERT(result == 0);
}

void Mutex::unlock() {
    const int result = arThreadMutexUnlock(mMutex);
    AR_ASSERT(result == 0);
}

bool Mutex::tryLock() {
    return arThreadMutexTryLock(mMutex) == 0;
}

}  // namespace Common
}  // namespace AR
