// Tests of the schedule: run order, drift-free periods, cancellation, waking
// a waiting pass and event counts.
#include "KqSchedule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using KQ::CSchedule;

// A functor that appends tag to log.
KQ::CFunctor<void ()> Append(std::vector<int>& log, int tag)
{
    return KQ::MakeFunctor([&log, tag] { log.push_back(tag); });
}

}  // namespace

TEST(ScheduleOrder, EarliestDueFirstCancelledCountedUntilAtTheFrontAlsoFromTheirOwnFunctor)
{
    CSchedule::CEvent self, later;  // outlive the schedule
    CSchedule schedule;
    std::vector<int> log;
    self = schedule.AddEvent(KQ::MakeFunctor([&] { self.Cancel(); }), 0, true);  // would hold the front
    for (int tag : {30, 10, 20}) {
        schedule.AddEvent(Append(log, tag), tag, false);
    }
    later = schedule.AddEvent(Append(log, 25), 25, false);
    CSchedule::CEvent(later).Cancel();  // through a copy
    // A pass that did not wait would use up the passes long before the later events are due.
    for (int pass = 0; pass < 1000 && log.size() < 2; ++pass) {
        schedule.ProcessSchedule();
    }
    EXPECT_EQ(schedule.GetEventCount(), 2u) << "the cancelled event has not reached the front yet";
    for (int pass = 0; pass < 1000 && log.size() < 3; ++pass) {
        schedule.ProcessSchedule();
    }
    EXPECT_TRUE(self.IsCancelled());
    EXPECT_EQ(log, std::vector<int>({10, 20, 30}));
    EXPECT_EQ(schedule.GetEventCount(), 0u);
    const CSchedule::CEvent longest(KQ::CFunctor<void ()>(), 0xFFFFFFFFu, false);
    EXPECT_EQ(longest.m_pEvent->intervalNs, 0xFFFFFFFFull * 1000000u) << "computed in 64 bits";
    CSchedule::CEvent moved(std::move(later));  // the source is left harmless
    EXPECT_TRUE(later.IsCancelled());
    later.Execute();
    EXPECT_FALSE(later.Reschedule());
}

TEST(SchedulePeriodic, LateOwnerMakesUpRunsOnTheGrid)
{
    CSchedule schedule;
    std::vector<int> log;
    CSchedule::CEvent event = schedule.AddEvent(Append(log, 1), 20, true);
    const uint64_t firstDue = event.m_pEvent->dueTimeNs;
    std::this_thread::sleep_for(std::chrono::milliseconds(110));
    // Each pass runs one missed period without waiting, until the next due time lies ahead.
    for (size_t passes = 0; log.size() == passes && passes < 100; ++passes) {
        schedule.ProcessSchedule();
    }
    EXPECT_GE(log.size(), 5u);
    EXPECT_EQ(event.m_pEvent->dueTimeNs, firstDue + log.size() * 20000000u);
}

TEST(ScheduleWakeUp, AddEventEndsAWaitingPass)
{
    for (bool empty : {true, false}) {
        CSchedule schedule;
        if (!empty) {
            schedule.AddEvent(KQ::CFunctor<void ()>(), 10000, false);
            schedule.ProcessSchedule();  // takes the add's wake-up
        }
        std::atomic<bool> returned(false);
        std::thread owner([&] { returned = schedule.ProcessSchedule(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(returned.load()) << (empty ? "empty" : "waiting for a later event");
        schedule.AddEvent(KQ::CFunctor<void ()>(), 0, false);
        owner.join();  // long before the 10 s event
        EXPECT_EQ(schedule.GetEventCount(), empty ? 1u : 2u) << "the added event is left for the next pass";
    }
}
