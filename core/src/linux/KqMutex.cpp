// KqMutex.cpp: the recursive, priority-inheriting mutex (Linux).
#include "KqSync.h"

#include <pthread.h>

#include <cstring>

namespace KQ {
namespace {

pthread_mutex_t* AsMutex(void* p) { return static_cast<pthread_mutex_t*>(p); }

// Recursive, and priority-inheriting where the system allows it: a
// real-time waiter then lifts a lower-priority holder instead of waiting
// behind medium-priority work.
void InitRecursive(pthread_mutex_t* mutex)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT) != 0 || pthread_mutex_init(mutex, &attr) != 0) {
        pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_NONE);
        pthread_mutex_init(mutex, &attr);
    }
    pthread_mutexattr_destroy(&attr);
}

}  // namespace

CMutex::CMutex(const char*) : m_pMutex(new pthread_mutex_t)
{
    std::memset(m_pMutex, 0, sizeof(pthread_mutex_t));
    InitRecursive(AsMutex(m_pMutex));
}

CMutex::~CMutex()
{
    pthread_mutex_destroy(AsMutex(m_pMutex));
    delete AsMutex(m_pMutex);
}

void CMutex::Lock() { pthread_mutex_lock(AsMutex(m_pMutex)); }

bool CMutex::TryLock() { return pthread_mutex_trylock(AsMutex(m_pMutex)) == 0; }

void CMutex::Unlock() { pthread_mutex_unlock(AsMutex(m_pMutex)); }

}  // namespace KQ
