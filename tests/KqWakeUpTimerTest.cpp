// Tests of the wake-up timer: ids, ordering, periods, the results of the
// event operations, callbacks acting on the timer, failures, teardown, and a
// stress test of concurrent changes while callbacks run.
#include "KqTestSupport.h"
#include "KqTime.h"
#include "KqWakeUpTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using KQ::CWakeUpTimer;
using namespace std::chrono_literals;

const unsigned int NONE = CWakeUpTimer::INVALID_ID;

// Reaches the timer's protected state through static helpers used on plain
// CWakeUpTimer objects, so no derived constructor races the timer thread.
struct TimerAccess : CWakeUpTimer {
    static KQ::CMutex& Lock(CWakeUpTimer& timer) { return timer.*(&TimerAccess::m_Lock); }
    static unsigned int& LastId(CWakeUpTimer& timer) { return timer.*(&TimerAccess::m_LastEventId); }
    static uint64_t DueMs(CWakeUpTimer& t, unsigned int id) { return (t.*(&TimerAccess::FindEvent))(id)->dueTime; }
};

// Records each callback as (id, raw-clock ns at its start), then runs action.
struct Recorder : KQ::IProcessRequests {
    std::function<void(unsigned int)> action = [](unsigned int) {};
    std::pair<unsigned int, uint64_t> calls[64] = {};
    std::atomic<size_t> count{0};

    bool ProcessRequest(unsigned int eventId) override
    {
        calls[count % 64] = {eventId, KQ::Time::GetTicks1G()};
        ++count;
        action(eventId);
        return true;
    }
    // The number of callbacks started, after waiting up to 10 s for atLeast.
    size_t Count(size_t atLeast = 0) const
    {
        for (int i = 0; i < 1000 && count < atLeast; ++i) {
            std::this_thread::sleep_for(10ms);
        }
        return count;
    }
};

// Random operations; the periodic events kept in the list only ever go away
// through this worker, so every operation on them must succeed.
void RunWorker(CWakeUpTimer& timer, Recorder& owner, unsigned int seed)
{
    std::mt19937 random(seed);
    std::vector<unsigned int> periodic;
    for (int i = 0; i < 2500; ++i) {
        unsigned int id = NONE;
        const unsigned int interval = random() % 20, operation = random() % 4;
        if (operation < 2 || periodic.empty()) {
            EXPECT_TRUE(timer.AddEvent(&owner, interval, id, operation == 1));
            if (operation == 1 && id % 7 != 0) {  // callbacks turn the others into one-shots
                periodic.push_back(id);
            }
        } else if (operation == 2) {
            EXPECT_TRUE(timer.UpdateEvent(periodic[random() % periodic.size()], interval, true));
        } else {
            std::swap(periodic[random() % periodic.size()], periodic.back());
            id = periodic.back();
            EXPECT_TRUE(timer.AddOrUpdateEvent(&owner, interval, periodic.back(), true));
            EXPECT_FALSE(timer.RemoveEvent(id)) << "the replaced event is gone";
            const bool mayBeGone = periodic.back() % 7 == 0;
            if (mayBeGone || random() % 2 == 0) {
                EXPECT_TRUE(timer.RemoveEvent(periodic.back()) || mayBeGone);
                periodic.pop_back();
            }
        }
    }
}

}  // namespace

TEST(WakeUpTimerIds, StartAtOneAndWrapAroundSkippingZeroAndIdsInUse)
{
    // last: m_LastEventId set after live events got ids 1..live.
    const std::tuple<unsigned int, unsigned int, unsigned int> cases[] = {
        {1, 2, 3}, {0xFFFFFFFFu, 0, 1}, {0xFFFFFFFFu, 2, 3}, {0xFFFFFFFEu, 1, 0xFFFFFFFFu}};
    for (const auto& [last, live, expected] : cases) {
        Recorder owner;
        auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
        unsigned int id = NONE;
        for (unsigned int i = 1; i <= live; ++i) {
            ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
        }
        TimerAccess::LastId(*timer) = last;  // only AddEvent on this thread uses it
        ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
        EXPECT_EQ(id, expected) << "last " << last << " with " << live << " live";
    }
}

TEST(WakeUpTimerOrder, EarliestFirstEqualDueTimesInIdOrderNeverEarly)
{
    Recorder owner;
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    unsigned int ids[7];
    for (unsigned int& id : ids) {
        ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
    }
    // Rescheduled in a scrambled order within one millisecond (retried if the
    // clock ticks meanwhile); ids 4 and 2 are the first and last of the 200 ms group.
    const unsigned int intervals[] = {200, 200, 200, 200, 40, 5, 0};
    std::vector<uint64_t> dueMs(8);
    for (int attempt = 0; attempt < 50 && (dueMs[4] != dueMs[2] || dueMs[4] == 0); ++attempt) {
        TimerAccess::Lock(*timer).Lock();
        for (int i : {3, 0, 6, 2, 5, 1, 4}) {
            EXPECT_TRUE(timer->UpdateEvent(ids[i], intervals[i], false));
        }
        for (unsigned int id : ids) {
            dueMs[id] = TimerAccess::DueMs(*timer, id);
        }
        TimerAccess::Lock(*timer).Unlock();
    }
    ASSERT_EQ(dueMs[4], dueMs[2]);
    ASSERT_EQ(owner.Count(7), 7u);
    const unsigned int expected[] = {7, 6, 5, 1, 2, 3, 4};
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(owner.calls[i].first, expected[i]);
        EXPECT_GE(owner.calls[i].second, dueMs[expected[i]] * 1000000u) << "event " << expected[i] << " came early";
    }
}

TEST(WakeUpTimerPeriods, PeriodFromCallbackEndAndDestructionWaitsForIt)
{
    Recorder owner;
    std::string name;
    std::atomic<size_t> finished(0);
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    owner.action = [&](unsigned int) {
        name = KQ::CThread::GetName();
        std::this_thread::sleep_for(owner.count == 4 ? 300ms : 40ms);  // the destruction comes during the 4th
        ++finished;
    };
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 30, id, true));
    ASSERT_GE(owner.Count(4), 4u);
    timer.reset();  // with a callback under way and its event pending
    const size_t calls = owner.Count();
    EXPECT_EQ(finished.load(), calls);
    for (size_t i = 1; i < calls; ++i) {
        // 40 ms callback + 30 ms period, less the rounding to whole ms.
        EXPECT_GE(owner.calls[i].second - owner.calls[i - 1].second, 69000000u) << "gap " << i;
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(owner.Count(), calls) << "no callback after destruction";
    EXPECT_EQ(name, "KQ-CWakeUpTimer");
}

TEST(WakeUpTimerOperations, ResultsAndIdSideEffects)
{
    Recorder owner;
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    unsigned int id = 1234;
    EXPECT_FALSE(timer->AddEvent(nullptr, 10, id, false));
    EXPECT_EQ(id, 1234u);
    for (unsigned int unknown : {NONE, 77u}) {
        unsigned int removed = unknown, updated = unknown;
        EXPECT_FALSE(timer->RemoveEvent(removed));
        EXPECT_EQ(removed, NONE);
        EXPECT_FALSE(timer->UpdateEvent(updated, 10, false));
        EXPECT_EQ(updated, NONE);
        EXPECT_TRUE(timer->AddOrUpdateEvent(&owner, 60000, id = unknown, false));
        EXPECT_NE(id, NONE);
    }
    // Replacing gives a fresh id (a freed id is not reused) and deletes the old event.
    unsigned int replaced = id, old = id;
    ASSERT_TRUE(timer->AddOrUpdateEvent(&owner, 60000, replaced, true));
    EXPECT_GT(replaced, old);
    EXPECT_FALSE(timer->RemoveEvent(old));
    // Update keeps the id; a null owner still deletes the event, also while the thread waits for it.
    ASSERT_TRUE(timer->UpdateEvent(id = replaced, 100, false));
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(timer->AddOrUpdateEvent(nullptr, 10, id, false));
    EXPECT_EQ(id, NONE);
    EXPECT_FALSE(timer->RemoveEvent(replaced));
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(owner.Count(), 0u);
}

TEST(WakeUpTimerCallbacks, ActOnTheirOwnEventOrThrow)
{
    KqTest::HookCapture capture;
    Recorder removing, zeroPeriodic, zeroOnce, shortening, replacing, thrower;
    unsigned int replacement = NONE;
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    removing.action = [&](unsigned int id) { EXPECT_TRUE(timer->RemoveEvent(id)); };
    zeroPeriodic.action = [&](unsigned int id) { EXPECT_TRUE(zeroPeriodic.count < 50 || timer->RemoveEvent(id)); };
    // Turns its periodic event into a one-shot: deleted after this callback.
    shortening.action = [&](unsigned int id) { EXPECT_TRUE(timer->UpdateEvent(id, 5, false)); };
    replacing.action = [&](unsigned int id) {
        EXPECT_TRUE(replacement != NONE || timer->AddOrUpdateEvent(&replacing, 5, replacement = id, false));
    };
    thrower.action = [](unsigned int) { throw std::runtime_error("callback failed"); };
    // owner, interval, periodic, calls expected, id.
    std::tuple<Recorder*, unsigned int, bool, size_t, unsigned int> cases[] = {
        {&removing, 1, true, 1, NONE},   {&zeroPeriodic, 0, true, 50, NONE}, {&zeroOnce, 0, false, 1, NONE},
        {&shortening, 1, true, 1, NONE}, {&replacing, 1, true, 2, NONE},     {&thrower, 1, true, 1, NONE}};
    for (auto& [owner, interval, periodic, calls, id] : cases) {
        ASSERT_TRUE(timer->AddEvent(owner, interval, id, periodic));
    }
    ASSERT_GE(replacing.Count(2) + zeroPeriodic.Count(50), 52u);
    std::this_thread::sleep_for(50ms);
    for (auto& [owner, interval, periodic, calls, id] : cases) {
        EXPECT_EQ(owner->Count(), calls) << "event " << id;
        EXPECT_FALSE(timer->RemoveEvent(id)) << "removed, one-shot, replaced or throwing";
    }
    EXPECT_EQ(replacing.calls[1].first, replacement);
    const std::vector<std::string> expected{"KQ::CWakeUpTimer Event #6 removed due to unhandled exception!"};
    EXPECT_EQ(capture.Lines(), expected);
}

TEST(WakeUpTimerStress, ConcurrentChangesWhileCallbacksRunAndNoneAfterDestruction)
{
    Recorder owners[4];
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    CWakeUpTimer* raw = timer.get();  // the callbacks never see the unique_ptr reset
    std::vector<std::thread> threads;
    for (unsigned int w = 0; w < 4; ++w) {
        owners[w].action = [raw](unsigned int id) {
            if (id % 7 == 0) {
                raw->UpdateEvent(id, 3, false);  // may find it removed meanwhile
            }
        };
        threads.emplace_back([&, w] { RunWorker(*timer, owners[w], 1000 + w); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GE(owners[0].Count(500), 500u) << "the periodic events left keep the callbacks coming";
    timer.reset();
    const auto total = [&owners] { return owners[0].count + owners[1].count + owners[2].count + owners[3].count; };
    const size_t atDestruction = total();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(total(), atDestruction) << "called after the timer was destroyed";
}
