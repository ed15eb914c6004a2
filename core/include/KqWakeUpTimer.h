// KqWakeUpTimer.h: a thread that calls clients back when their events fall
// due.
//
// - IProcessRequests: the callback interface a client implements.
// - CWakeUpTimer: a CThread named "KQ-CWakeUpTimer" that keeps a set of
//   events (owner, interval in milliseconds, periodic or one-shot), sleeps
//   until the earliest one is due or the set changes, and calls
//   ProcessRequest(id) on the owner. A periodic event is scheduled again
//   `interval` ms after its callback returned (its period does not stay on a
//   grid; use CSchedule for that); a one-shot event is deleted after its
//   callback.
//
// Thread-safety: every public operation may be called from any thread at any
// time, also from inside a callback on the same timer (one recursive lock
// guards the events and is never held while a callback runs or while the
// timer thread sleeps). Callbacks run one at a time on the timer thread.
// An owner must stay valid until no callback for its events can run any
// more: RemoveEvent does not wait for a callback that is already under way,
// so an owner may be called once more for an event it has just removed. The
// safe point is the timer's destruction, after which no callback runs.
//
// Ownership: the timer owns its thread and its event records; it never owns
// owners. Failure is reported by false results; the one diagnostic line is
// printed when a callback throws (the event is then removed). The thread runs
// with timer slack 1 ns and wakes at the due millisecond itself: a callback
// is never early, and late only by the system's wake-up latency and the run
// time of the callbacks before it.
#pragma once

#include "KqCore.h"
#include "KqSync.h"
#include "KqThread.h"

#include <cstdint>
#include <set>

namespace KQ {

// Implemented by the clients of a CWakeUpTimer.
class KQ_API IProcessRequests {
public:
    virtual ~IProcessRequests() = default;

    // Called on the timer thread when the event eventId of this owner is due,
    // with no timer lock held; it may call any operation of the timer. The
    // result is not used. An exception removes the event (see CWakeUpTimer).
    virtual bool ProcessRequest(unsigned int eventId) = 0;
};

class KQ_API CWakeUpTimer : public CThread {
public:
    // The id no event has; operations that find an event gone, or delete
    // it, write it into the caller's id variable.
    static const unsigned int INVALID_ID = 0;

    // One live event. Shared by both ordered sets; callers never see it.
    struct EventData_t {
        IProcessRequests* owner;  // whom to call; not owned
        uint64_t dueTime;         // Time::GetUptime() value at which it is due
        unsigned int interval;    // ms from (re)scheduling to due; also the period
        unsigned int id;          // unique among live events, never INVALID_ID
        bool periodic;            // scheduled again after each callback

        // Ascending id.
        struct OrderById {
            bool operator()(const EventData_t* a, const EventData_t* b) const { return a->id < b->id; }
        };
        // Ascending due time, equal due times in ascending id: no two
        // records are ever equivalent.
        struct OrderByTime {
            bool operator()(const EventData_t* a, const EventData_t* b) const
            {
                return a->dueTime < b->dueTime || (a->dueTime == b->dueTime && a->id < b->id);
            }
        };
    };

    // Builds the timer and starts its thread with the given priority (on
    // CThread's scale) under the constructing thread's policy. If the thread
    // cannot be created (for example a real-time priority without the
    // privilege), IsValid() is false and no callback will ever run.
    explicit CWakeUpTimer(int priority);

    // Stops the thread between two passes and frees every event; owners are
    // not told. Waits for a running callback to return, however long it
    // takes, so that no record is freed and no owner called afterwards.
    ~CWakeUpTimer() override;

    // Creates an event for owner due interval ms from now and writes its
    // fresh id to id. False with id untouched if owner is null; false with id
    // set to INVALID_ID if no id is free.
    bool AddEvent(IProcessRequests* owner, unsigned int interval, unsigned int& id, bool periodic);

    // Deletes the event id. id becomes INVALID_ID in any case; false if there
    // was no such event. A callback of it already under way still completes.
    bool RemoveEvent(unsigned int& id);

    // Reschedules the event id to fall due interval ms from now, with the new
    // interval and periodic flag; id and owner stay. False with id set to
    // INVALID_ID if there is no such event.
    bool UpdateEvent(unsigned int& id, unsigned int interval, bool periodic);

    // Deletes the event id if it exists, then creates a new event for owner
    // as AddEvent does; the new event always gets a fresh id, written to id.
    // With a null owner the old event is still deleted, id becomes
    // INVALID_ID and the result is false.
    bool AddOrUpdateEvent(IProcessRequests* owner, unsigned int interval, unsigned int& id, bool periodic);

protected:
    // The internal forms below expect m_Lock to be held by the caller.

    // With newEvent: a new record for owner with a fresh id (false if owner
    // is null or no id is free); otherwise the existing, unscheduled record
    // id (false and id = INVALID_ID if none). Then sets its due time,
    // interval and periodic flag and schedules it.
    bool AddEvent(IProcessRequests* owner, unsigned int interval, unsigned int& id, bool periodic, bool newEvent);

    // Takes the event id out of the schedule; with deleteRecord also frees it
    // and sets id to INVALID_ID. False (id = INVALID_ID) if there is none.
    bool RemoveEvent(unsigned int& id, bool deleteRecord);

    // newEvent false: reschedules the event id keeping id and owner.
    // newEvent true: deletes the event id if any, then creates a new one.
    bool UpdateEvent(IProcessRequests* owner, unsigned int& id, unsigned int interval, bool periodic, bool newEvent);

    // The record with this id, or null.
    EventData_t* FindEvent(unsigned int id) const;

    // The id after m_LastEventId that is neither INVALID_ID nor in use
    // (wrapping around after 0xFFFFFFFF), stored in m_LastEventId; INVALID_ID
    // after one full turn without a free id.
    unsigned int CreateUniqueEventId();

    // Wakes the timer thread once per pass, however many changes are made.
    void SignalChange();

    // The thread body: one pass (wait for the earliest event or a change, or
    // run one due callback). Always true.
    bool ProcessEvents();

    bool m_ChangeSignalled;
    unsigned int m_LastEventId;
    CMutex m_Lock;
    CSemaphore m_WakeUp;
    std::set<EventData_t*, EventData_t::OrderByTime> m_EventsByTime;
    std::set<EventData_t*, EventData_t::OrderById> m_EventsById;

private:
    typedef std::set<EventData_t*, EventData_t::OrderById> IdSet_t;
    IdSet_t::const_iterator FindById(unsigned int id) const;
    bool IsFreeId(unsigned int id) const;
    void FreeAllEvents();
};

}  // namespace KQ

// The timer thread's body, exported for code that binds it itself.
extern template KQ_API bool KQ::INTERNAL::CMemberFunctorFactory0<KQ::CWakeUpTimer, bool>::Wrapper<
    &KQ::CWakeUpTimer::ProcessEvents>(const void*);
