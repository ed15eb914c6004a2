// Tests of the wake-up timer: ids, ordering, periods, the results of the
// event operations, callbacks acting on the timer, failures and teardown.
#include "KqTestSupport.h"
#include "KqThread.h"
#include "KqTime.h"
#include "KqWakeUpTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <sys/prctl.h>

namespace {

using KQ::CWakeUpTimer;

const unsigned int NONE = CWakeUpTimer::INVALID_ID;

// Reaches the timer's protected state. Only its static helpers are used, on
// plain CWakeUpTimer objects, so no derived constructor ever races the timer
// thread's first virtual call.
struct TimerAccess : CWakeUpTimer {
    static void SetLastEventId(CWakeUpTimer& timer, unsigned int id)
    {
        WithLock(timer, [&] { timer.*(&TimerAccess::m_LastEventId) = id; });
    }
    static uint64_t DueTime(CWakeUpTimer& timer, unsigned int id)
    {
        uint64_t due = 0;
        WithLock(timer, [&] {
            const EventData_t* record = (timer.*(&TimerAccess::FindEvent))(id);
            due = record != nullptr ? record->dueTime : 0;
        });
        return due;
    }
    static void WithLock(CWakeUpTimer& timer, const std::function<void()>& work)
    {
        KQ::CMutex& lock = timer.*(&TimerAccess::m_Lock);
        lock.Lock();
        work();
        lock.Unlock();
    }
};

// An owner that records each callback (id and raw-clock nanoseconds at its
// start) and then runs an optional action.
class Recorder : public KQ::IProcessRequests {
public:
    struct Call {
        unsigned int id;
        uint64_t startNs;
    };
    std::function<void(unsigned int)> action;

    bool ProcessRequest(unsigned int eventId) override
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Calls.push_back({eventId, KQ::Time::GetTicks1G()});
            m_Changed.notify_all();
        }
        if (action) {
            action(eventId);
        }
        return true;
    }
    // True once at least count callbacks have started (waits up to 10 s).
    bool WaitForCalls(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, std::chrono::seconds(10), [&] { return m_Calls.size() >= count; });
    }
    std::vector<Call> Calls() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }
    size_t Count() const { return Calls().size(); }

private:
    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<Call> m_Calls;
};

void SleepMs(unsigned int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

std::unique_ptr<CWakeUpTimer> MakeTimer()
{
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    EXPECT_TRUE(timer->IsValid());
    return timer;
}

}  // namespace

TEST(WakeUpTimerIds, StartAtOneAndNeverReuseAFreedId)
{
    Recorder owner;
    auto timer = MakeTimer();
    unsigned int a = NONE, b = NONE, c = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 60000, a, false));
    ASSERT_TRUE(timer->AddEvent(&owner, 60000, b, false));
    EXPECT_EQ(a, 1u);
    EXPECT_EQ(b, 2u);
    ASSERT_TRUE(timer->RemoveEvent(a));
    ASSERT_TRUE(timer->AddEvent(&owner, 60000, c, false));
    EXPECT_EQ(c, 3u);
}

TEST(WakeUpTimerIds, WrapAroundSkipsZeroAndIdsInUse)
{
    struct Case {
        unsigned int last;
        unsigned int live;  // events to create first (ids 1..live)
        unsigned int expected;
    };
    const Case cases[] = {
        {0xFFFFFFFFu, 0, 1},
        {0xFFFFFFFFu, 2, 3},
        {0xFFFFFFFEu, 0, 0xFFFFFFFFu},
        {0xFFFFFFFEu, 1, 0xFFFFFFFFu},
    };
    for (const Case& c : cases) {
        Recorder owner;
        auto timer = MakeTimer();
        for (unsigned int i = 0; i < c.live; ++i) {
            unsigned int id = NONE;
            ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
        }
        TimerAccess::SetLastEventId(*timer, c.last);
        unsigned int id = NONE;
        ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
        EXPECT_EQ(id, c.expected) << "last " << c.last << " with " << c.live << " live";
    }
}

TEST(WakeUpTimerOrder, EqualDueTimesRunInAscendingIdOrder)
{
    Recorder owner;
    auto timer = MakeTimer();
    unsigned int ids[4];
    for (unsigned int& id : ids) {
        ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
    }
    // Reschedule in a scrambled order within one millisecond (retried if the
    // clock ticks over meanwhile), so the time set cannot lean on insertion order.
    const int order[] = {3, 0, 2, 1};
    bool same = false;
    for (int attempt = 0; attempt < 50 && !same; ++attempt) {
        TimerAccess::WithLock(*timer, [&] {
            for (int i : order) {
                ASSERT_TRUE(timer->UpdateEvent(ids[i], 200, false));
            }
            same = true;
            for (unsigned int id : ids) {
                same = same && TimerAccess::DueTime(*timer, id) == TimerAccess::DueTime(*timer, ids[0]);
            }
        });
    }
    ASSERT_TRUE(same);
    ASSERT_TRUE(owner.WaitForCalls(4));
    const auto calls = owner.Calls();
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(calls[i].id, ids[i]);
    }
}

TEST(WakeUpTimerOrder, EarliestFirstAndNeverBeforeTheDueTime)
{
    Recorder owner;
    auto timer = MakeTimer();
    const unsigned int intervals[] = {40, 5, 25, 0};
    std::vector<uint64_t> dueNs;
    TimerAccess::WithLock(*timer, [&] {
        for (unsigned int interval : intervals) {
            unsigned int id = NONE;
            ASSERT_TRUE(timer->AddEvent(&owner, interval, id, false));
            dueNs.push_back(TimerAccess::DueTime(*timer, id) * 1000000u);
        }
    });
    ASSERT_TRUE(owner.WaitForCalls(4));
    const auto calls = owner.Calls();
    const unsigned int expectedIds[] = {4, 2, 3, 1};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(calls[i].id, expectedIds[i]);
        EXPECT_GE(calls[i].startNs, dueNs[calls[i].id - 1]) << "event " << calls[i].id << " came early";
    }
}

TEST(WakeUpTimerPeriods, IntervalZero)
{
    Recorder once, repeated;
    auto timer = MakeTimer();
    unsigned int oneShot = NONE, periodic = NONE;
    ASSERT_TRUE(timer->AddEvent(&once, 0, oneShot, false));
    ASSERT_TRUE(timer->AddEvent(&repeated, 0, periodic, true));
    ASSERT_TRUE(repeated.WaitForCalls(50));
    ASSERT_TRUE(once.WaitForCalls(1));
    EXPECT_TRUE(timer->RemoveEvent(periodic));
    const size_t afterRemove = repeated.Count();
    SleepMs(50);
    EXPECT_LE(repeated.Count(), afterRemove + 1);  // one call may have been under way
    EXPECT_EQ(once.Count(), 1u);
}

TEST(WakeUpTimerPeriods, PeriodRunsFromTheEndOfTheCallback)
{
    Recorder owner;
    auto timer = MakeTimer();
    owner.action = [](unsigned int) { SleepMs(40); };
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 30, id, true));
    ASSERT_TRUE(owner.WaitForCalls(4));
    timer.reset();
    const auto calls = owner.Calls();
    for (size_t i = 1; i < calls.size(); ++i) {
        // 40 ms of callback plus 30 ms of period, less the rounding of the
        // uptime to whole milliseconds.
        EXPECT_GE(calls[i].startNs - calls[i - 1].startNs, 69000000u) << "gap " << i;
    }
}

TEST(WakeUpTimerOperations, ResultsAndIdSideEffects)
{
    Recorder owner;
    auto timer = MakeTimer();

    unsigned int id = 1234;
    EXPECT_FALSE(timer->AddEvent(nullptr, 10, id, false));
    EXPECT_EQ(id, 1234u) << "a refused add leaves the id alone";

    for (unsigned int unknown : {NONE, 77u}) {
        id = unknown;
        EXPECT_FALSE(timer->RemoveEvent(id));
        EXPECT_EQ(id, NONE);
        id = unknown;
        EXPECT_FALSE(timer->UpdateEvent(id, 10, false));
        EXPECT_EQ(id, NONE);
        id = unknown;
        EXPECT_TRUE(timer->AddOrUpdateEvent(&owner, 60000, id, false)) << "behaves as AddEvent";
        EXPECT_NE(id, NONE);
    }

    unsigned int live = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 60000, live, false));
    unsigned int replaced = live;
    ASSERT_TRUE(timer->AddOrUpdateEvent(&owner, 60000, replaced, true));
    EXPECT_NE(replaced, live);
    EXPECT_GT(replaced, live);
    unsigned int old = live;
    EXPECT_FALSE(timer->RemoveEvent(old)) << "the replaced event is gone";

    unsigned int nulled = replaced;
    EXPECT_FALSE(timer->AddOrUpdateEvent(nullptr, 10, nulled, false));
    EXPECT_EQ(nulled, NONE);
    EXPECT_FALSE(timer->RemoveEvent(replaced)) << "a null owner still deletes the old event";
}

TEST(WakeUpTimerOperations, ReplacingWithANullOwnerStopsAWaitingPass)
{
    // The timer thread waits for this event's due time; the failed
    // replacement still deletes it, and the waiting pass must not call it.
    Recorder owner;
    auto timer = MakeTimer();
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 100, id, false));
    SleepMs(20);
    EXPECT_FALSE(timer->AddOrUpdateEvent(nullptr, 10, id, false));
    EXPECT_EQ(id, NONE);
    SleepMs(200);
    EXPECT_EQ(owner.Count(), 0u);
}

TEST(WakeUpTimerOperations, OneShotIsGoneAfterItsCallback)
{
    Recorder owner;
    auto timer = MakeTimer();
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 1, id, false));
    ASSERT_TRUE(owner.WaitForCalls(1));
    SleepMs(20);
    unsigned int copy = id;
    EXPECT_FALSE(timer->RemoveEvent(copy));
    EXPECT_EQ(copy, NONE);
    EXPECT_FALSE(timer->UpdateEvent(id, 10, false));
    EXPECT_EQ(id, NONE);
    EXPECT_EQ(owner.Count(), 1u);
}

TEST(WakeUpTimerOperations, UpdateKeepsIdAndOwnerAndRestartsTheInterval)
{
    Recorder owner;
    auto timer = MakeTimer();
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 150, id, false));
    const unsigned int original = id;
    SleepMs(100);
    const uint64_t updatedAt = KQ::Time::GetTicks1G();
    ASSERT_TRUE(timer->UpdateEvent(id, 150, false));
    EXPECT_EQ(id, original);
    ASSERT_TRUE(owner.WaitForCalls(1));
    const auto calls = owner.Calls();
    EXPECT_EQ(calls[0].id, original);
    EXPECT_GE(calls[0].startNs - updatedAt, 149000000u);
}

TEST(WakeUpTimerCallbacks, ActOnTheirOwnEvent)
{
    Recorder removing, shortening, replacing;
    unsigned int removingId = NONE, shorteningId = NONE, replacingId = NONE, replacement = NONE;
    auto timer = MakeTimer();
    removing.action = [&](unsigned int id) { EXPECT_TRUE(timer->RemoveEvent(id)); };
    // Turns its periodic event into a one-shot: deleted after this callback.
    shortening.action = [&](unsigned int id) { EXPECT_TRUE(timer->UpdateEvent(id, 5, false)); };
    replacing.action = [&](unsigned int id) {
        if (replacement == NONE) {
            replacement = id;
            EXPECT_TRUE(timer->AddOrUpdateEvent(&replacing, 5, replacement, false));
            EXPECT_NE(replacement, id);
        }
    };
    ASSERT_TRUE(timer->AddEvent(&removing, 1, removingId, true));
    ASSERT_TRUE(timer->AddEvent(&shortening, 1, shorteningId, true));
    ASSERT_TRUE(timer->AddEvent(&replacing, 1, replacingId, true));
    ASSERT_TRUE(replacing.WaitForCalls(2));
    SleepMs(50);
    EXPECT_EQ(removing.Count(), 1u);
    EXPECT_EQ(shortening.Count(), 1u);
    const auto calls = replacing.Calls();
    ASSERT_EQ(calls.size(), 2u) << "the replacement is a one-shot that runs once";
    EXPECT_EQ(calls[1].id, replacement);
    EXPECT_FALSE(timer->RemoveEvent(replacingId)) << "the replaced periodic event is gone";
}

TEST(WakeUpTimerFailures, ThrowingCallbackIsReportedAndRemoved)
{
    KqTest::HookCapture capture;
    Recorder thrower, steady;
    auto timer = MakeTimer();
    thrower.action = [](unsigned int) { throw std::runtime_error("callback failed"); };
    unsigned int bad = NONE, good = NONE;
    ASSERT_TRUE(timer->AddEvent(&thrower, 1, bad, true));
    ASSERT_TRUE(timer->AddEvent(&steady, 5, good, true));
    ASSERT_TRUE(steady.WaitForCalls(5));
    EXPECT_EQ(thrower.Count(), 1u);
    const std::string expected = "KQ::CWakeUpTimer Event #" + std::to_string(bad) + " removed due to unhandled exception!";
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], expected);
    EXPECT_FALSE(timer->RemoveEvent(bad));
    timer.reset();
}

TEST(WakeUpTimerLifetime, ThreadIsNamedAndDestructionStopsCallbacks)
{
    Recorder owner;
    std::string name;
    int slack = 0;
    auto timer = MakeTimer();
    owner.action = [&](unsigned int) {
        if (name.empty()) {
            name = KQ::CThread::GetName();
            slack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
        }
    };
    for (int i = 0; i < 20; ++i) {
        unsigned int id = NONE;
        ASSERT_TRUE(timer->AddEvent(&owner, i == 0 ? 0 : 30 + i, id, i % 2 == 0));
    }
    ASSERT_TRUE(owner.WaitForCalls(1));
    timer.reset();
    const size_t atDestruction = owner.Count();
    SleepMs(100);
    EXPECT_EQ(owner.Count(), atDestruction);
    EXPECT_EQ(name, "KQ-CWakeUpTimer");
    EXPECT_EQ(slack, 1) << "the timer thread wakes without timer slack";
}

TEST(WakeUpTimerLifetime, DestructionWaitsForARunningCallback)
{
    Recorder owner;
    std::atomic<bool> finished(false);
    auto timer = MakeTimer();
    owner.action = [&](unsigned int) {
        SleepMs(300);
        finished = true;
    };
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 0, id, false));
    ASSERT_TRUE(owner.WaitForCalls(1));
    timer.reset();
    EXPECT_TRUE(finished.load());
}
