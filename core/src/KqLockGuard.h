// KqLockGuard.h: scoped locking of a CMutex inside the library (internal,
// portable). Locks in the constructor and unlocks in the destructor unless
// Unlock() came first, so every path out of a scope, exceptions included,
// releases the lock exactly once.
#pragma once

#include "KqSync.h"

namespace KQ {
namespace INTERNAL {

class CLockGuard {
public:
    explicit CLockGuard(CMutex& mutex) : m_Mutex(mutex), m_Locked(true) { m_Mutex.Lock(); }
    ~CLockGuard() { Unlock(); }
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;

    // Releases the lock early; later calls do nothing.
    void Unlock()
    {
        if (m_Locked) {
            m_Locked = false;
            m_Mutex.Unlock();
        }
    }

private:
    CMutex& m_Mutex;
    bool m_Locked;
};

}  // namespace INTERNAL
}  // namespace KQ
