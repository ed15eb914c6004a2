// KqSync.h: a recursive mutex, an event and a counting semaphore.
//
// Three thin owners of POSIX synchronisation objects for the threads of one
// process. Each object allocates its POSIX object on the heap and keeps only
// a pointer to it, frees it in its destructor, and cannot be copied or
// assigned. Every operation may be called from any thread. Nothing throws;
// apart from the two assertions of the semaphore constructor, failures show
// only in the results documented below.
#pragma once

#include "KqExport.h"

#include <cstddef>

namespace KQ {

namespace INTERNAL {
struct CSemaphoreAccess;
}

// CMutex: a recursive, priority-inheriting mutex. The thread that holds it
// may lock it again and must unlock it as many times before another thread
// can take it. A real-time thread that waits for it lifts the holder to its
// own priority until the holder unlocks (where the system refuses priority
// inheritance the mutex is still recursive). Lock and Unlock report nothing:
// unlocking a mutex the caller does not hold is a caller error.
// Destroying a mutex that is held is a caller error.
class KQ_API CMutex {
public:
    // Creates the mutex, unlocked. name is accepted for callers that label
    // their locks and is not used.
    explicit CMutex(const char* name = nullptr);
    virtual ~CMutex();

    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    // Blocks until the calling thread holds the mutex (at once if it
    // already does; each Lock needs its own Unlock).
    void Lock();
    // Takes the mutex if that is possible without blocking: true if the
    // caller now holds it (also when it already did), false at once if
    // another thread holds it.
    bool TryLock();
    // Gives up one level of the caller's hold.
    void Unlock();

private:
    void* m_pMutex;  // the pthread_mutex_t, allocated separately
};

// CEvent: a manual- or auto-reset event built from a mutex and a condition
// variable. A manual-reset event stays signalled until NonSignal() and lets
// every waiter through; an auto-reset event lets one successful Wait through
// and is reset by it. Time-outs are measured on CLOCK_MONOTONIC, so setting
// the wall clock neither ends a pending wait early nor stretches it.
// Waits do not tell a time-out from a failure: both give WAIT_TIMEOUT.
// For counting wake-ups between threads prefer CSemaphore; the library
// itself uses only that.
class KQ_API CEvent {
public:
    // Results of Wait.
    static constexpr unsigned long WAIT_OBJECT_0 = 0;   // the event was signalled
    static constexpr unsigned long WAIT_TIMEOUT = 258;  // time ran out, or the wait failed
    // The only time-out that means "no limit"; larger values are finite.
    static constexpr unsigned long INFINITE_WAIT = 0xFFFFFFFFul;

    // manualReset: stay signalled until NonSignal(); otherwise a successful
    // Wait resets the event. initialState: start signalled.
    CEvent(bool manualReset, bool initialState);
    virtual ~CEvent();

    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    // Waits up to ms milliseconds for the event: 0 if it was or became
    // signalled (resetting an auto-reset event), 258 otherwise. Wait(0)
    // never blocks. Every wake-up that finds the event still unsignalled
    // starts the full ms again. 0xFFFFFFFF waits without a limit.
    unsigned long Wait(unsigned long ms);
    // Wait(0xFFFFFFFF): waits without a time limit.
    unsigned long Wait();
    // Signals the event: wakes every waiter of a manual-reset event, one
    // waiter of an auto-reset event; with no waiter the event stays
    // signalled for the next Wait.
    void Signal();
    // Resets the event to unsignalled.
    void NonSignal();

private:
    struct Record_t;
    Record_t* m_pRecord;
};

// CSemaphore: a counting semaphore for the threads of one process. Waits
// block in the kernel, so a waiting thread costs nothing until a unit
// arrives, and a Signal() is noticed at once. A signal handler that
// interrupts a wait makes it return false (the library stops its threads
// this way). Signal() is safe to call from a signal handler.
class KQ_API CSemaphore {
public:
    // Creates the semaphore with value units. Ends the process through an
    // assertion if value exceeds SEM_VALUE_MAX (2,147,483,647) or if the
    // system cannot create it.
    explicit CSemaphore(size_t value);
    ~CSemaphore();

    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    // Takes one unit, waiting without a limit: true if taken, false if the
    // wait failed or a signal interrupted it (it is not retried).
    bool Wait();
    // Takes one unit, waiting up to about ms milliseconds on a monotonic
    // clock: true if taken. A unit that is available is always taken, also
    // by Wait(0); false when the time ran out or a signal interrupted the
    // wait. Time-outs too large for the clock are clamped, never wrapped.
    bool Wait(unsigned long ms);
    // Takes one unit if one is available: true if taken; never blocks.
    bool TryWait();
    // Adds one unit, waking one waiter: true on success (false when the
    // count would exceed SEM_VALUE_MAX). Safe in a signal handler.
    bool Signal();

private:
    friend struct INTERNAL::CSemaphoreAccess;  // the library's own timed waits
    void* m_pSem;  // the sem_t, allocated separately
};

}  // namespace KQ
