// Tests of the schedule: run order, drift-free periods, cancellation, waking
// a waiting pass and event counts.
#include "KqSchedule.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using KQ::CSchedule;

const uint64_t NS_PER_MS = 1000000u;

// A functor that appends tag to log.
KQ::CFunctor<void ()> Append(std::vector<int>& log, int tag)
{
    return KQ::MakeFunctor([&log, tag] { log.push_back(tag); });
}

// Runs passes until log holds count entries; a pass that did not wait would
// use up the 1,000 passes long before the later events are due.
void RunUntil(CSchedule& schedule, const std::vector<int>& log, size_t count)
{
    for (int pass = 0; pass < 1000 && log.size() < count; ++pass) {
        schedule.ProcessSchedule();
    }
}

}  // namespace

TEST(ScheduleOrder, EarliestDueFirstOnePerPass)
{
    CSchedule schedule;
    std::vector<int> log;
    for (int tag : {30, 10, 20, 0}) {
        schedule.AddEvent(Append(log, tag), tag, false);
    }
    EXPECT_TRUE(schedule.ProcessSchedule());
    EXPECT_EQ(log, std::vector<int>({0}));
    RunUntil(schedule, log, 4);
    EXPECT_EQ(log, std::vector<int>({0, 10, 20, 30}));
    EXPECT_EQ(schedule.GetEventCount(), 0u);
    EXPECT_EQ(CSchedule::CEvent(KQ::CFunctor<void ()>(), 0xFFFFFFFFu, false).m_pEvent->intervalNs, 0xFFFFFFFFull * NS_PER_MS);
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
    EXPECT_EQ(event.m_pEvent->dueTimeNs, firstDue + log.size() * 20 * NS_PER_MS);
}

TEST(ScheduleCancel, CountedUntilAtTheFrontAlsoFromTheirOwnFunctor)
{
    CSchedule::CEvent self, later;  // outlive the schedule
    CSchedule schedule;
    std::vector<int> log;
    self = schedule.AddEvent(KQ::MakeFunctor([&] {
                                 log.push_back(1);
                                 self.Cancel();
                             }),
                             0, true);
    schedule.AddEvent(Append(log, 2), 10, false);
    later = schedule.AddEvent(Append(log, 3), 30, false);
    CSchedule::CEvent(later).Cancel();  // through a copy
    EXPECT_EQ(schedule.GetEventCount(), 3u);
    RunUntil(schedule, log, 2);
    EXPECT_EQ(log, std::vector<int>({1, 2})) << "cancelled by itself after one run";
    EXPECT_EQ(schedule.GetEventCount(), 1u) << "the cancelled event has not reached the front yet";
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    schedule.AddEvent(Append(log, 4), 0, false);
    schedule.ProcessSchedule();
    EXPECT_EQ(log, std::vector<int>({1, 2, 4}));
    EXPECT_EQ(schedule.GetEventCount(), 0u);
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
