// Tests of the schedule: run order, one event per pass, drift-free periods,
// cancellation, waking a waiting pass, event counts and handle lifetimes.
#include "KqSchedule.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using KQ::CSchedule;

const uint64_t NS_PER_MS = 1000000u;

// A functor that appends tag to a shared log.
KQ::CFunctor<void ()> Append(std::vector<int>& log, int tag)
{
    return KQ::MakeFunctor([&log, tag] { log.push_back(tag); });
}

void SleepMs(unsigned int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Runs passes until the log holds count entries (at most 1,000 passes).
void RunUntil(CSchedule& schedule, const std::vector<int>& log, size_t count)
{
    for (int pass = 0; pass < 1000 && log.size() < count; ++pass) {
        schedule.ProcessSchedule();
    }
}

}  // namespace

TEST(ScheduleOrder, EarliestDueRunsFirstOnePerPass)
{
    CSchedule schedule;
    std::vector<int> log;
    schedule.AddEvent(Append(log, 30), 30, false);
    schedule.AddEvent(Append(log, 10), 10, false);
    schedule.AddEvent(Append(log, 20), 20, false);
    schedule.AddEvent(Append(log, 0), 0, false);
    EXPECT_TRUE(schedule.ProcessSchedule());
    EXPECT_EQ(log, std::vector<int>({0})) << "the due event runs in the next pass, alone";
    RunUntil(schedule, log, 4);
    EXPECT_EQ(log, std::vector<int>({0, 10, 20, 30}));
    EXPECT_EQ(schedule.GetEventCount(), 0u);
}

TEST(ScheduleOrder, PassBeforeTheDueTimeWaitsAndRunsNothing)
{
    CSchedule schedule;
    std::vector<int> log;
    CSchedule::CEvent event = schedule.AddEvent(Append(log, 1), 200, false);
    schedule.ProcessSchedule();  // takes the add's wake-up at once
    EXPECT_TRUE(log.empty());
    schedule.ProcessSchedule();
    EXPECT_TRUE(log.empty());
    EXPECT_GE(KQ::Time::GetTicks1G() + NS_PER_MS, event.m_pEvent->dueTimeNs) << "the pass waited for the due time";
    schedule.ProcessSchedule();
    ASSERT_EQ(log.size(), 1u) << "runs once less than a millisecond remains";
}

TEST(SchedulePeriodic, IntervalZeroHoldsTheFront)
{
    CSchedule schedule;
    std::vector<int> log;
    CSchedule::CEvent zero = schedule.AddEvent(Append(log, 0), 0, true);
    schedule.AddEvent(Append(log, 5), 5, false);
    const uint64_t due = zero.m_pEvent->dueTimeNs;
    SleepMs(10);
    for (int pass = 0; pass < 20; ++pass) {
        schedule.ProcessSchedule();
    }
    EXPECT_EQ(log, std::vector<int>(20, 0));
    EXPECT_EQ(zero.m_pEvent->dueTimeNs, due);
    EXPECT_EQ(schedule.GetEventCount(), 2u);
}

TEST(SchedulePeriodic, LateOwnerMakesUpRunsOnTheGrid)
{
    CSchedule schedule;
    std::vector<int> log;
    const unsigned int period = 20;
    CSchedule::CEvent event = schedule.AddEvent(Append(log, 1), period, true);
    const uint64_t firstDue = event.m_pEvent->dueTimeNs;
    SleepMs(110);
    // Each pass runs one missed period without waiting, until the next due
    // time lies ahead; that pass then only takes the add's wake-up.
    size_t passes = 0;
    while (log.size() == passes && passes < 100) {
        schedule.ProcessSchedule();
        ++passes;
    }
    const size_t runs = log.size();
    EXPECT_GE(runs, 5u);
    EXPECT_EQ(event.m_pEvent->dueTimeNs, firstDue + runs * period * NS_PER_MS);
}

TEST(ScheduleCancel, CancelledEventIsCountedUntilItReachesTheFront)
{
    CSchedule schedule;
    std::vector<int> log;
    schedule.AddEvent(Append(log, 1), 10, false);
    CSchedule::CEvent later = schedule.AddEvent(Append(log, 2), 30, false);
    CSchedule::CEvent copy = later;
    copy.Cancel();
    EXPECT_TRUE(later.IsCancelled()) << "copies share the record";
    EXPECT_EQ(schedule.GetEventCount(), 2u);
    RunUntil(schedule, log, 1);
    EXPECT_EQ(schedule.GetEventCount(), 1u);
    SleepMs(40);
    schedule.AddEvent(Append(log, 3), 0, false);
    schedule.ProcessSchedule();
    EXPECT_EQ(log, std::vector<int>({1, 3}));
    EXPECT_EQ(schedule.GetEventCount(), 0u);
}

TEST(ScheduleCancel, PeriodicEventCancelledFromItsOwnFunctor)
{
    CSchedule schedule;
    int runs = 0;
    auto handle = std::make_shared<CSchedule::CEvent>();
    *handle = schedule.AddEvent(KQ::MakeFunctor([&] {
                                    ++runs;
                                    handle->Cancel();
                                }),
                                0, true);
    schedule.ProcessSchedule();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(schedule.GetEventCount(), 1u) << "already back in the heap";
    schedule.ProcessSchedule();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(schedule.GetEventCount(), 0u);
}

TEST(ScheduleWakeUp, AddEventEndsAWaitingPass)
{
    for (bool empty : {true, false}) {
        CSchedule schedule;
        std::vector<int> log;
        if (!empty) {
            schedule.AddEvent(Append(log, 10), 10000, false);
            schedule.ProcessSchedule();  // takes the add's wake-up
        }
        std::atomic<bool> returned(false);
        std::thread owner([&] {
            schedule.ProcessSchedule();
            returned = true;
        });
        SleepMs(50);
        EXPECT_FALSE(returned.load()) << (empty ? "empty" : "waiting for a later event");
        const uint64_t added = KQ::Time::GetTicks1G();
        schedule.AddEvent(KQ::CFunctor<void ()>(), 0, false);
        owner.join();
        EXPECT_LT(KQ::Time::GetTicks1G() - added, 5000 * NS_PER_MS);
        EXPECT_TRUE(log.empty());
        EXPECT_EQ(schedule.GetEventCount(), empty ? 1u : 2u);
    }
}

TEST(ScheduleEvent, HandlesAndRecords)
{
    CSchedule::CEvent none;
    EXPECT_TRUE(none.IsCancelled());
    none.Cancel();
    none.Execute();
    EXPECT_FALSE(none.Reschedule());
    EXPECT_EQ(none.GetTriggerDelay(), 0u);

    const CSchedule::CEvent longest(KQ::CFunctor<void ()>(), 0xFFFFFFFFu, false);
    EXPECT_EQ(longest.m_pEvent->intervalNs, 0xFFFFFFFFull * NS_PER_MS);
    EXPECT_FALSE(longest.IsCancelled());

    const CSchedule::CEvent second(KQ::CFunctor<void ()>(), 1000, true);
    const unsigned int delay = second.GetTriggerDelay();
    EXPECT_LE(delay, 999u);
    EXPECT_GE(delay, 900u);
    EXPECT_TRUE(longest < second);
    EXPECT_FALSE(second < longest);
}

TEST(ScheduleEvent, ThrowingFunctorLeavesTheScheduleConsistent)
{
    CSchedule schedule;
    const auto thrower = KQ::MakeFunctor([] { throw std::runtime_error("event failed"); });
    CSchedule::CEvent periodic = schedule.AddEvent(thrower, 0, true);
    const uint64_t due = periodic.m_pEvent->dueTimeNs;
    EXPECT_THROW(schedule.ProcessSchedule(), std::runtime_error);
    EXPECT_EQ(schedule.GetEventCount(), 1u);
    periodic.Cancel();
    schedule.ProcessSchedule();
    schedule.AddEvent(thrower, 0, false);
    EXPECT_THROW(schedule.ProcessSchedule(), std::runtime_error);
    EXPECT_EQ(schedule.GetEventCount(), 0u);
    EXPECT_EQ(periodic.m_pEvent->dueTimeNs, due) << "interval 0 keeps its due time";
}

TEST(ScheduleEvent, RecordOutlivesTheSchedule)
{
    int runs = 0;
    CSchedule::CEvent kept;
    {
        CSchedule schedule;
        kept = schedule.AddEvent(KQ::MakeFunctor([&runs] { ++runs; }), 1000, true);
    }
    EXPECT_FALSE(kept.IsCancelled());
    kept.Execute();
    EXPECT_EQ(runs, 1);
}
