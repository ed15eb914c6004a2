// KqSchedule.cpp: the owner-driven schedule of timed callbacks and its
// shared event handles (portable).
#include "KqSchedule.h"

#include "KqLockGuard.h"
#include "KqTime.h"

#include <algorithm>
#include <utility>

namespace KQ {

namespace {

const uint64_t NS_PER_MS = 1000000u;

CPtrRef* CreateRecord(CSchedule::CEvent::Event_t*& event, const CFunctor<void ()>& functor, uint64_t intervalNs,
                      uint64_t dueTimeNs, bool periodic, bool cancelled)
{
    event = new CSchedule::CEvent::Event_t{functor, intervalNs, dueTimeNs, periodic, {cancelled}};
    try {
        return CPtrRef::Create(event);
    } catch (...) {
        delete event;
        throw;
    }
}

}  // namespace

CSchedule::CEvent::CEvent() : m_pRef(nullptr), m_pEvent(nullptr)
{
    m_pRef = CreateRecord(m_pEvent, CFunctor<void ()>(), 0, 0, false, true);
}

CSchedule::CEvent::CEvent(const CFunctor<void ()>& functor, unsigned int interval, bool periodic)
    : m_pRef(nullptr), m_pEvent(nullptr)
{
    const uint64_t intervalNs = static_cast<uint64_t>(interval) * NS_PER_MS;
    m_pRef = CreateRecord(m_pEvent, functor, intervalNs, Time::GetTicks1G() + intervalNs, periodic, false);
}

CSchedule::CEvent::CEvent(const CEvent& other) noexcept : m_pRef(other.m_pRef), m_pEvent(other.m_pEvent)
{
    if (m_pRef != nullptr) {
        Atomic::Increment(&m_pRef->m_RefCount);
    }
}

CSchedule::CEvent& CSchedule::CEvent::operator=(const CEvent& other) noexcept
{
    CEvent copy(other);
    std::swap(m_pRef, copy.m_pRef);
    std::swap(m_pEvent, copy.m_pEvent);
    return *this;
}

CSchedule::CEvent::~CEvent()
{
    if (m_pRef != nullptr) {
        m_pRef->DelRef();
    }
}

void CSchedule::CEvent::Cancel()
{
    if (m_pEvent != nullptr) {
        m_pEvent->cancelled.store(true);
    }
}

bool CSchedule::CEvent::IsCancelled() const
{
    return m_pEvent == nullptr || m_pEvent->cancelled.load();
}

unsigned int CSchedule::CEvent::GetTriggerDelay() const
{
    if (m_pEvent == nullptr) {
        return 0;
    }
    const uint64_t now = Time::GetTicks1G();
    const uint64_t due = m_pEvent->dueTimeNs;
    return due < now ? 0 : static_cast<unsigned int>((due - now) / NS_PER_MS);
}

void CSchedule::CEvent::Execute() const
{
    if (m_pEvent != nullptr) {
        m_pEvent->functor();
    }
}

bool CSchedule::CEvent::Reschedule()
{
    if (m_pEvent == nullptr || !m_pEvent->periodic) {
        return false;
    }
    m_pEvent->dueTimeNs += m_pEvent->intervalNs;
    return true;
}

CSchedule::CSchedule() : m_Lock(nullptr), m_WakeUp(0) {}

CSchedule::~CSchedule() = default;

CSchedule::CEvent CSchedule::AddEvent(const CFunctor<void ()>& functor, unsigned int interval, bool periodic)
{
    CEvent event(functor, interval, periodic);
    INTERNAL::CLockGuard guard(m_Lock);
    m_Events.push_back(event);
    std::push_heap(m_Events.begin(), m_Events.end());
    m_WakeUp.Signal();
    return event;
}

size_t CSchedule::GetEventCount() const
{
    INTERNAL::CLockGuard guard(m_Lock);
    return m_Events.size();
}

bool CSchedule::ProcessSchedule()
{
    INTERNAL::CLockGuard guard(m_Lock);
    while (!m_Events.empty() && m_Events.front().IsCancelled()) {
        std::pop_heap(m_Events.begin(), m_Events.end());
        m_Events.pop_back();
    }
    if (m_Events.empty()) {
        guard.Unlock();
        m_WakeUp.Wait();
        return true;
    }
    const unsigned int delay = m_Events.front().GetTriggerDelay();
    if (delay != 0) {
        guard.Unlock();
        m_WakeUp.Wait(delay);
        return true;
    }

    std::pop_heap(m_Events.begin(), m_Events.end());
    CEvent due(std::move(m_Events.back()));
    m_Events.pop_back();
    if (due.Reschedule()) {
        m_Events.push_back(due);
        std::push_heap(m_Events.begin(), m_Events.end());
    }
    guard.Unlock();
    due.Execute();
    return true;
}

}  // namespace KQ

template struct KQ::CPtrRef::Deleter_t<KQ::CSchedule::CEvent::Event_t>;
