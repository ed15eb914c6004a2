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

using namespace std::chrono_literals;

const unsigned int NONE = KQ::CWakeUpTimer::INVALID_ID;

// Reaches the timer's protected state through static helpers used on plain
// CWakeUpTimer objects, so no derived constructor races the timer thread.
struct TimerAccess : KQ::CWakeUpTimer {
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

// Random replacements, updates and removals of the thread's own events, kept in 50 slots.
void RunWorker(KQ::CWakeUpTimer& timer, Recorder& owner, unsigned int seed)
{
    std::mt19937 random(seed);
    std::vector<unsigned int> ids(50, NONE);
    for (int i = 0; i < 2500; ++i) {
        unsigned int& id = ids[random() % ids.size()];
        const unsigned int interval = random() % 20, operation = random() % 4;
        if (operation == 0) {
            timer.RemoveEvent(id);
        } else if (operation == 1) {
            timer.UpdateEvent(id, interval, true);  // fails once a one-shot has run
        } else {
            EXPECT_TRUE(timer.AddOrUpdateEvent(&owner, interval, id, operation == 2));
        }
    }
}

// The owner is declared first so that it outlives the timer.
struct WakeUpTimer : ::testing::Test {
    Recorder owner;
    std::unique_ptr<KQ::CWakeUpTimer> timer = std::make_unique<KQ::CWakeUpTimer>(KQ::CThread::GetPriority());
};

}  // namespace

TEST_F(WakeUpTimer, WrapAroundSkippingZeroAndIdsInUse)
{
    // m_LastEventId before the add, the id the add gives; every event stays, so its id is in use.
    const std::pair<unsigned int, unsigned int> cases[] = {
        {0, 1}, {0, 2}, {0xFFFFFFFEu, 0xFFFFFFFFu}, {0xFFFFFFFEu, 3}, {0xFFFFFFFFu, 4}};
    for (const auto& [last, expected] : cases) {
        TimerAccess::LastId(*timer) = last;  // only AddEvent on this thread uses it
        unsigned int id = NONE;
        ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
        EXPECT_EQ(id, expected) << "after " << last;
    }
}

TEST_F(WakeUpTimer, IdsFromOneEarliestFirstEqualDueTimesInIdOrderNeverEarly)
{
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
            dueMs[ids[i]] = TimerAccess::DueMs(*timer, ids[i]);
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

TEST_F(WakeUpTimer, PeriodFromCallbackEndAndDestructionWaitsForIt)
{
    std::atomic<size_t> finished(0);
    owner.action = [&](unsigned int) {
        std::this_thread::sleep_for(owner.count == 4 ? 300ms : 40ms);  // the destruction comes during the 4th
        ++finished;
    };
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 30, id, true));
    ASSERT_GE(owner.Count(4), 4u);
    timer.reset();  // with a callback under way and its event pending
    EXPECT_EQ(finished.load(), owner.count);
    for (size_t i = 1; i < owner.count; ++i) {
        // 40 ms callback + 30 ms period, less the rounding to whole ms.
        EXPECT_GE(owner.calls[i].second - owner.calls[i - 1].second, 69000000u) << "gap " << i;
    }
}

TEST_F(WakeUpTimer, ResultsAndIdSideEffects)
{
    unsigned int id = 1234;
    EXPECT_FALSE(timer->AddEvent(nullptr, 10, id, false));
    EXPECT_EQ(id, 1234u);
    EXPECT_FALSE(timer->RemoveEvent(id = 77));
    EXPECT_EQ(id, NONE);
    EXPECT_FALSE(timer->UpdateEvent(id = 77, 10, false));
    EXPECT_EQ(id, NONE);
    EXPECT_TRUE(timer->AddOrUpdateEvent(&owner, 60000, id, false));
    EXPECT_NE(id, NONE);
    // Replacing gives a fresh id (a freed id is not reused) and deletes the old event.
    unsigned int old = id;
    ASSERT_TRUE(timer->AddOrUpdateEvent(&owner, 100, id, false));
    EXPECT_GT(id, old);
    EXPECT_FALSE(timer->RemoveEvent(old));
    // A null owner still deletes the event, also while the thread waits for it.
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(timer->AddOrUpdateEvent(nullptr, 10, id, false));
    EXPECT_EQ(id, NONE);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(owner.Count(), 0u);
}

TEST_F(WakeUpTimer, ActOnTheirOwnEventOrThrow)
{
    KqTest::HookCapture capture;
    Recorder zeroPeriodic, zeroOnce, shortening, replacing, thrower;
    unsigned int replacement = NONE;
    zeroPeriodic.action = [&](unsigned int id) { EXPECT_TRUE(zeroPeriodic.count < 50 || timer->RemoveEvent(id)); };
    // Turns its periodic event into a one-shot: deleted after this callback.
    shortening.action = [&](unsigned int id) { EXPECT_TRUE(timer->UpdateEvent(id, 5, false)); };
    replacing.action = [&](unsigned int id) {
        EXPECT_TRUE(replacement != NONE || timer->AddOrUpdateEvent(&replacing, 5, replacement = id, false));
    };
    thrower.action = [](unsigned int) { throw std::runtime_error("callback failed"); };
    // owner, interval, periodic, calls expected, id.
    std::tuple<Recorder*, unsigned int, bool, size_t, unsigned int> cases[] = {
        {&zeroPeriodic, 0, true, 50, NONE}, {&zeroOnce, 0, false, 1, NONE},
        {&shortening, 1, true, 1, NONE}, {&replacing, 1, true, 2, NONE},     {&thrower, 1, true, 1, NONE}};
    for (auto& [target, interval, periodic, calls, id] : cases) {
        ASSERT_TRUE(timer->AddEvent(target, interval, id, periodic));
    }
    ASSERT_GE(replacing.Count(2) + zeroPeriodic.Count(50), 52u);
    std::this_thread::sleep_for(50ms);
    for (auto& [target, interval, periodic, calls, id] : cases) {
        EXPECT_EQ(target->Count(), calls) << "event " << id;
        EXPECT_FALSE(timer->RemoveEvent(id)) << "removed, one-shot, replaced or throwing";
    }
    const std::vector<std::string> expected{"KQ::CWakeUpTimer Event #5 removed due to unhandled exception!"};
    EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(WakeUpTimer, StressConcurrentChangesWhileCallbacksRunAndNoneAfterDestruction)
{
    // Callbacks change their own events meanwhile; they never see the unique_ptr reset.
    owner.action = [raw = timer.get()](unsigned int id) { raw->UpdateEvent(id, id % 20, id % 2 == 0); };
    std::thread first([this] { RunWorker(*timer, owner, 1); }), second([this] { RunWorker(*timer, owner, 2); });
    RunWorker(*timer, owner, 3);
    first.join();
    second.join();
    EXPECT_GE(owner.Count(1000), 1000u) << "the periodic events left keep the callbacks coming";
    timer.reset();
    const size_t atDestruction = owner.count;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(owner.count, atDestruction) << "called after the timer was destroyed";
}
