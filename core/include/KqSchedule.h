// KqSchedule.h: a queue of timed callbacks that its owner drives.
//
// - CSchedule: any thread adds a CFunctor<void ()> to run after an interval
//   in milliseconds, once or periodically, and gets a handle back. The owner
//   calls ProcessSchedule() in a loop on a thread of its choosing (it fits
//   the body of a CThread); each call either waits until the earliest event
//   is due or an event is added, or runs exactly one due event. Due times
//   are nanoseconds on the raw monotonic clock, and a periodic event's due
//   times stay on the grid of its first due time plus whole periods: runs
//   missed while the owner was busy are made up, one per pass.
// - CSchedule::CEvent: a shared handle (two pointers) onto one event record;
//   Cancel() through any copy stops the event from running again.
//
// Thread-safety: AddEvent, GetEventCount and CEvent::Cancel may be called
// from any thread at any time, also from inside an event's functor (the
// schedule's lock is not held while a functor runs or while a pass waits).
// A cancellation does not wake a waiting pass and does not stop a run that
// has already begun. A single handle object is not to be assigned while
// another thread uses it; copies of a handle may be used on different
// threads.
//
// Ownership: records live as long as the last handle to them, in the
// schedule or in the caller's hands. Nothing fails: there are no error
// results. An exception from a functor leaves ProcessSchedule to its caller
// with the schedule consistent. When not to use it: for a thread that calls
// clients back by itself, with periods counted from each callback's end, use
// CWakeUpTimer.
#pragma once

#include "KqCore.h"
#include "KqSync.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace KQ {

class KQ_API CSchedule {
public:
    class KQ_API CEvent {
    public:
        // The record shared by all handles of one event.
        struct Event_t {
            CFunctor<void ()> functor;   // what to call
            uint64_t intervalNs;         // the interval in nanoseconds
            uint64_t dueTimeNs;          // Time::GetTicks1G() value at which it is due
            bool periodic;               // scheduled again each time it runs
            std::atomic<bool> cancelled; // not to run again
        };

        // A handle onto a fresh record that does nothing, both times 0, not
        // periodic and already cancelled.
        CEvent();
        // A handle onto a fresh record that calls a copy of functor
        // interval ms from now (computed in 64-bit nanoseconds), not
        // cancelled.
        CEvent(const CFunctor<void ()>& functor, unsigned int interval, bool periodic);
        // Copies share the record.
        CEvent(const CEvent& other) noexcept;
        CEvent& operator=(const CEvent& other) noexcept;
        // A moved-from handle has no record: it reads as cancelled and due,
        // Cancel, Execute and Reschedule do nothing, and it must not be
        // compared; it may be assigned to or destroyed.
        CEvent(CEvent&& other) noexcept : m_pRef(other.m_pRef), m_pEvent(other.m_pEvent)
        {
            other.m_pRef = nullptr;
            other.m_pEvent = nullptr;
        }
        CEvent& operator=(CEvent&& other) noexcept
        {
            std::swap(m_pRef, other.m_pRef);
            std::swap(m_pEvent, other.m_pEvent);
            return *this;
        }
        // Drops this handle's reference; the last one frees the record.
        ~CEvent();

        // Marks the event cancelled for every handle; takes no lock, wakes
        // nobody. The event is dropped unrun when it next reaches the front.
        void Cancel();
        // True once Cancel() was called (true for a default handle).
        bool IsCancelled() const;
        // Heap order: true when this event is due later than other.
        bool operator<(const CEvent& other) const { return m_pEvent->dueTimeNs > other.m_pEvent->dueTimeNs; }
        // Whole milliseconds until due, rounded down; 0 when due or overdue.
        unsigned int GetTriggerDelay() const;
        // Calls the functor (cancelled or not); exceptions pass through.
        void Execute() const;
        // For a periodic event moves the due time on by one interval and
        // returns true; returns false for a one-shot event.
        bool Reschedule();

        CPtrRef* m_pRef;
        Event_t* m_pEvent;
    };

    // An empty schedule.
    CSchedule();
    // Drops the schedule's handles; records the caller still holds stay.
    ~CSchedule();
    CSchedule(const CSchedule&) = delete;
    CSchedule& operator=(const CSchedule&) = delete;

    // Adds an event that calls functor interval ms from now (0: at the next
    // pass), once or every interval ms, wakes a waiting pass, and returns
    // the event's handle. Never fails short of running out of memory.
    CEvent AddEvent(const CFunctor<void ()>& functor, unsigned int interval, bool periodic);

    // The number of pending events, cancelled ones that have not reached the
    // front yet included.
    size_t GetEventCount() const;

    // One pass: drops cancelled events at the front; with nothing pending
    // waits until an event is added; with the earliest event not yet due
    // waits until it is (or an event is added) and runs nothing; otherwise
    // runs that one event, without the lock, and does not wait. Always true.
    bool ProcessSchedule();

protected:
    mutable CMutex m_Lock;
    CSemaphore m_WakeUp;
    std::vector<CEvent> m_Events;
};

}  // namespace KQ

// The deleter of event records, exported for handles freed in applications.
extern template struct KQ_API KQ::CPtrRef::Deleter_t<KQ::CSchedule::CEvent::Event_t>;
