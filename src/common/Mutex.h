// A plain mutex over the platform layer, for code that wants the library's own lock rather than
// std::mutex. Not recursive. Usable with std::lock_guard (lock/unlock).
#ifndef VELMORA_COMMON_MUTEX_H
#define VELMORA_COMMON_MUTEX_H

#include "common/Platform.h"

namespace AR {
namespace Common {

class Mutex {
public:
    // A mutex that cannot be made is a broken process, not a result: the constructor asserts.
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock();
    void unlock();
    // True when the mutex was taken.
    bool tryLock();

private:
    ArMutex* mMutex;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_MUTEX_H
