// KqWakeUpTimer.cpp: the wake-up timer thread and its event sets (Linux:
// timer slack through prctl, nanosecond semaphore deadline).
#include "KqWakeUpTimer.h"

#include "../KqLockGuard.h"
#include "KqOutput.h"
#include "KqSemaphoreWait.h"
#include "KqTime.h"

#include <sys/prctl.h>

namespace KQ {

const unsigned int CWakeUpTimer::INVALID_ID;

namespace {

const uint64_t NS_PER_MS = 1000000u;

// The timer thread asks for 1 ns timer slack once, on its first pass, so that
// its timed waits end at the deadline instead of up to 50 us after it.
thread_local bool t_SlackSet = false;

void SetTimerSlackOnce()
{
    if (!t_SlackSet) {
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        t_SlackSet = true;
    }
}

// Nanoseconds from now until the start of the millisecond dueTime on the
// uptime clock; 0 if that moment has passed.
uint64_t NanosecondsUntil(uint64_t dueTime)
{
    const uint64_t dueNs = dueTime * NS_PER_MS;
    const uint64_t nowNs = Time::GetTicks1G();
    return dueNs > nowNs ? dueNs - nowNs : 0;
}

}  // namespace

CWakeUpTimer::CWakeUpTimer(int priority)
    : CThread(INTERNAL::CMemberFunctorFactory0<CWakeUpTimer, bool>::Create<&CWakeUpTimer::ProcessEvents>(this),
              "KQ-CWakeUpTimer", priority, CThread::GetPolicy()),
      m_ChangeSignalled(true),
      m_LastEventId(0),
      m_Lock(nullptr),
      m_WakeUp(0)
{
    // Last, so that the first pass sees a complete object.
    Run();
}

CWakeUpTimer::~CWakeUpTimer()
{
    // Cancel() gives up after about 4 s when a callback keeps the thread
    // busy; the records must outlive that callback, so keep asking.
    while (IsValid() && !Cancel()) {
    }
    FreeAllEvents();
}

void CWakeUpTimer::FreeAllEvents()
{
    INTERNAL::CLockGuard guard(m_Lock);
    m_EventsByTime.clear();
    for (EventData_t* record : m_EventsById) {
        delete record;
    }
    m_EventsById.clear();
}

bool CWakeUpTimer::AddEvent(IProcessRequests* owner, unsigned int interval, unsigned int& id, bool periodic)
{
    INTERNAL::CLockGuard guard(m_Lock);
    const bool result = AddEvent(owner, interval, id, periodic, true);
    if (result) {
        SignalChange();
    }
    return result;
}

bool CWakeUpTimer::RemoveEvent(unsigned int& id)
{
    INTERNAL::CLockGuard guard(m_Lock);
    const bool result = RemoveEvent(id, true);
    if (result) {
        SignalChange();
    }
    return result;
}

bool CWakeUpTimer::UpdateEvent(unsigned int& id, unsigned int interval, bool periodic)
{
    INTERNAL::CLockGuard guard(m_Lock);
    const bool result = UpdateEvent(nullptr, id, interval, periodic, false);
    if (result) {
        SignalChange();
    }
    return result;
}

bool CWakeUpTimer::AddOrUpdateEvent(IProcessRequests* owner, unsigned int interval, unsigned int& id, bool periodic)
{
    INTERNAL::CLockGuard guard(m_Lock);
    // A deleted event must not be called back from a pass that is waiting
    // for it, so its deletion is signalled even when no new event is made.
    const bool deletesOld = FindEvent(id) != nullptr;
    const bool result = UpdateEvent(owner, id, interval, periodic, true);
    if (result || deletesOld) {
        SignalChange();
    }
    return result;
}

bool CWakeUpTimer::AddEvent(IProcessRequests* owner, unsigned int interval, unsigned int& id, bool periodic,
                            bool newEvent)
{
    EventData_t* record = nullptr;
    if (newEvent) {
        if (owner == nullptr) {
            return false;
        }
        id = CreateUniqueEventId();
        if (id == INVALID_ID) {
            return false;
        }
        record = new EventData_t{owner, 0, 0, id, false};
        try {
            // Fresh ids are nearly always the largest: the end is the hint.
            m_EventsById.insert(m_EventsById.end(), record);
        } catch (...) {
            delete record;
            id = INVALID_ID;
            throw;
        }
    } else {
        record = FindEvent(id);
        if (record == nullptr) {
            id = INVALID_ID;
            return false;
        }
    }
    record->dueTime = Time::GetUptime() + interval;
    record->interval = interval;
    record->periodic = periodic;
    m_EventsByTime.insert(record);
    return true;
}

bool CWakeUpTimer::RemoveEvent(unsigned int& id, bool deleteRecord)
{
    const auto byId = FindById(id);
    if (byId == m_EventsById.end()) {
        id = INVALID_ID;
        return false;
    }
    EventData_t* record = *byId;
    const auto scheduled = m_EventsByTime.find(record);
    if (scheduled != m_EventsByTime.end()) {
        m_EventsByTime.erase(scheduled);
    }
    if (!deleteRecord) {
        return true;
    }
    m_EventsById.erase(byId);
    delete record;
    id = INVALID_ID;
    return true;
}

bool CWakeUpTimer::UpdateEvent(IProcessRequests* owner, unsigned int& id, unsigned int interval, bool periodic,
                               bool newEvent)
{
    const bool removed = RemoveEvent(id, newEvent);
    if (!newEvent && !removed) {
        return false;
    }
    return AddEvent(owner, interval, id, periodic, newEvent);
}

CWakeUpTimer::EventData_t* CWakeUpTimer::FindEvent(unsigned int id) const
{
    const auto it = FindById(id);
    return it == m_EventsById.end() ? nullptr : *it;
}

CWakeUpTimer::IdSet_t::const_iterator CWakeUpTimer::FindById(unsigned int id) const
{
    EventData_t key{nullptr, 0, 0, id, false};
    return m_EventsById.find(&key);
}

bool CWakeUpTimer::IsFreeId(unsigned int id) const
{
    if (id == INVALID_ID) {
        return false;
    }
    // Above the largest live id nothing needs to be looked up.
    return m_EventsById.empty() || (*m_EventsById.rbegin())->id < id || FindEvent(id) == nullptr;
}

unsigned int CWakeUpTimer::CreateUniqueEventId()
{
    if (m_EventsById.size() >= m_EventsById.max_size()) {
        return INVALID_ID;
    }
    // One full turn of the counter at most: with every id in use the search
    // ends at the id it started from.
    unsigned int candidate = m_LastEventId;
    do {
        ++candidate;
        if (IsFreeId(candidate)) {
            m_LastEventId = candidate;
            return candidate;
        }
    } while (candidate != m_LastEventId);
    return INVALID_ID;
}

void CWakeUpTimer::SignalChange()
{
    if (!m_ChangeSignalled) {
        m_ChangeSignalled = true;
        m_WakeUp.Signal();
    }
}

bool CWakeUpTimer::ProcessEvents()
{
    SetTimerSlackOnce();

    EventData_t due{nullptr, 0, 0, INVALID_ID, false};
    {
        INTERNAL::CLockGuard guard(m_Lock);
        m_ChangeSignalled = false;
        if (!m_EventsByTime.empty()) {
            due = **m_EventsByTime.begin();
        }
    }
    if (due.id == INVALID_ID) {
        m_WakeUp.Wait();
        return true;
    }

    if (INTERNAL::WaitNs(m_WakeUp, NanosecondsUntil(due.dueTime))) {
        return true;  // the events changed; look at them afresh
    }
    if (due.dueTime > Time::GetUptime()) {
        return true;  // woken early (a signal); not yet due
    }

    try {
        due.owner->ProcessRequest(due.id);
    } catch (...) {
        MyPrintf("KQ::CWakeUpTimer Event #%u removed due to unhandled exception!", due.id);
        RemoveEvent(due.id);
        return true;
    }

    INTERNAL::CLockGuard guard(m_Lock);
    EventData_t* record = FindEvent(due.id);
    if (record != nullptr) {
        unsigned int id = record->id;
        if (record->periodic) {
            UpdateEvent(nullptr, id, record->interval, true, false);
        } else {
            RemoveEvent(id, true);
        }
    }
    return true;
}

}  // namespace KQ

template bool KQ::INTERNAL::CMemberFunctorFactory0<KQ::CWakeUpTimer, bool>::Wrapper<
    &KQ::CWakeUpTimer::ProcessEvents>(const void*);
