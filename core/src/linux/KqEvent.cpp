// KqEvent.cpp: the manual- or auto-reset event on a mutex and a condition
// variable whose time-outs run on CLOCK_MONOTONIC (Linux).
#include "KqSync.h"

#include "KqDeadline.h"

#include <pthread.h>

namespace KQ {

struct CEvent::Record_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool manualReset;
    bool signalled;
};

namespace {

// One wait on the condition, bounded unless ms means no limit; 0 or the error.
int WaitOnce(pthread_cond_t* cond, pthread_mutex_t* mutex, unsigned long ms)
{
    if (ms == CEvent::INFINITE_WAIT) {
        return pthread_cond_wait(cond, mutex);
    }
    const timespec deadline = INTERNAL::MonotonicDeadline(INTERNAL::MsToNs(ms));
    return pthread_cond_timedwait(cond, mutex, &deadline);
}

}  // namespace

CEvent::CEvent(bool manualReset, bool initialState) : m_pRecord(new Record_t())
{
    pthread_mutex_init(&m_pRecord->mutex, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_pRecord->cond, &attr);
    pthread_condattr_destroy(&attr);
    m_pRecord->manualReset = manualReset;
    m_pRecord->signalled = initialState;
}

CEvent::~CEvent()
{
    pthread_cond_destroy(&m_pRecord->cond);
    pthread_mutex_destroy(&m_pRecord->mutex);
    delete m_pRecord;
}

unsigned long CEvent::Wait(unsigned long ms)
{
    Record_t& record = *m_pRecord;
    pthread_mutex_lock(&record.mutex);
    if (!record.signalled && ms == 0) {
        pthread_mutex_unlock(&record.mutex);
        return WAIT_TIMEOUT;
    }
    while (!record.signalled) {
        if (WaitOnce(&record.cond, &record.mutex, ms) != 0) {
            pthread_mutex_unlock(&record.mutex);
            return WAIT_TIMEOUT;
        }
    }
    if (!record.manualReset) {
        record.signalled = false;
    }
    pthread_mutex_unlock(&record.mutex);
    return WAIT_OBJECT_0;
}

unsigned long CEvent::Wait() { return Wait(INFINITE_WAIT); }

void CEvent::Signal()
{
    Record_t& record = *m_pRecord;
    pthread_mutex_lock(&record.mutex);
    if (record.manualReset) {
        pthread_cond_broadcast(&record.cond);
    } else {
        pthread_cond_signal(&record.cond);
    }
    record.signalled = true;
    pthread_mutex_unlock(&record.mutex);
}

void CEvent::NonSignal()
{
    pthread_mutex_lock(&m_pRecord->mutex);
    m_pRecord->signalled = false;
    pthread_mutex_unlock(&m_pRecord->mutex);
}

}  // namespace KQ
