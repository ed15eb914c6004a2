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
#include <utility>
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
    static uint64_t DueMs(CWakeUpTimer& timer, unsigned int id) { return (timer.*(&TimerAccess::FindEvent))(id)->dueTime; }
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
unsigned int RunWorker(CWakeUpTimer& timer, Recorder& owner, unsigned int seed)
{
    std::mt19937 random(seed);
    std::vector<unsigned int> periodic;
    unsigned int failures = 0;
    for (int i = 0; i < 2500; ++i) {
        unsigned int id = NONE;
        const unsigned int interval = random() % 20;
        const size_t index = periodic.empty() ? 0 : random() % periodic.size();
        const unsigned int operation = periodic.empty() ? random() % 2 : random() % 4;
        if (operation < 2) {
            failures += timer.AddEvent(&owner, interval, id, operation == 1) ? 0 : 1;
            if (operation == 1 && id % 7 != 0) {  // callbacks turn some of those into one-shots
                periodic.push_back(id);
            }
        } else if (operation == 2) {
            failures += timer.UpdateEvent(periodic[index], interval, true) ? 0 : 1;
        } else {
            id = periodic[index];
            failures += timer.AddOrUpdateEvent(&owner, interval, periodic[index], true) ? 0 : 1;
            failures += timer.RemoveEvent(id) ? 1 : 0;  // the replaced event is gone
            if (periodic[index] % 7 != 0 && random() % 2 == 0) {
                failures += timer.RemoveEvent(periodic[index]) ? 0 : 1;
            }
            if (periodic[index] % 7 == 0) {  // removed (INVALID_ID is 0) or not surely periodic
                periodic.erase(periodic.begin() + static_cast<long>(index));
            }
        }
    }
    return failures;
}

}  // namespace

TEST(WakeUpTimerIds, StartAtOneAndWrapAroundSkippingZeroAndIdsInUse)
{
    // last: m_LastEventId set after live events got ids 1..live.
    const struct {
        unsigned int last, live, expected;
    } cases[] = {{1, 2, 3}, {0xFFFFFFFFu, 0, 1}, {0xFFFFFFFFu, 2, 3}, {0xFFFFFFFEu, 1, 0xFFFFFFFFu}};
    for (const auto& c : cases) {
        Recorder owner;
        auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
        unsigned int id = NONE;
        for (unsigned int i = 1; i <= c.live; ++i) {
            ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
        }
        TimerAccess::LastId(*timer) = c.last;  // only AddEvent on this thread uses it
        ASSERT_TRUE(timer->AddEvent(&owner, 60000, id, false));
        EXPECT_EQ(id, c.expected) << "last " << c.last << " with " << c.live << " live";
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
    std::atomic<bool> inCallback(false);
    int runs = 0;
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    owner.action = [&](unsigned int) {
        inCallback = true;
        name = KQ::CThread::GetName();
        std::this_thread::sleep_for(++runs == 4 ? 300ms : 40ms);  // the destruction comes during the 4th
        inCallback = false;
    };
    unsigned int id = NONE;
    ASSERT_TRUE(timer->AddEvent(&owner, 30, id, true));
    ASSERT_GE(owner.Count(4), 4u);
    timer.reset();  // with a callback under way and its event pending
    EXPECT_FALSE(inCallback.load());
    const size_t calls = owner.Count();
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
        id = unknown;
        EXPECT_FALSE(timer->RemoveEvent(id));
        EXPECT_EQ(id, NONE);
        id = unknown;
        EXPECT_FALSE(timer->UpdateEvent(id, 10, false));
        EXPECT_EQ(id, NONE);
        id = unknown;
        EXPECT_TRUE(timer->AddOrUpdateEvent(&owner, 60000, id, false));
        EXPECT_NE(id, NONE);
    }
    // Replacing gives a fresh id (a freed id is not reused) and deletes the old event.
    unsigned int replaced = id, old = id;
    ASSERT_TRUE(timer->AddOrUpdateEvent(&owner, 60000, replaced, true));
    EXPECT_GT(replaced, old);
    EXPECT_FALSE(timer->RemoveEvent(old));
    // Update keeps the id; a null owner still deletes the event, also while the thread waits for it.
    ASSERT_TRUE(timer->UpdateEvent(id = replaced, 100, false));
    EXPECT_EQ(id, replaced);
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
    unsigned int ids[6], replacement = NONE;
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    removing.action = [&](unsigned int id) { EXPECT_TRUE(timer->RemoveEvent(id)); };
    zeroPeriodic.action = [&](unsigned int id) {
        if (zeroPeriodic.count == 50) {
            EXPECT_TRUE(timer->RemoveEvent(id));
        }
    };
    // Turns its periodic event into a one-shot: deleted after this callback.
    shortening.action = [&](unsigned int id) { EXPECT_TRUE(timer->UpdateEvent(id, 5, false)); };
    replacing.action = [&](unsigned int id) {
        if (replacement == NONE) {
            EXPECT_TRUE(timer->AddOrUpdateEvent(&replacing, 5, replacement = id, false));
        }
    };
    thrower.action = [](unsigned int) { throw std::runtime_error("callback failed"); };
    const std::tuple<Recorder*, unsigned int, bool, size_t> cases[] = {
        {&removing, 1, true, 1},   {&zeroPeriodic, 0, true, 50}, {&zeroOnce, 0, false, 1},
        {&shortening, 1, true, 1}, {&replacing, 1, true, 2},     {&thrower, 1, true, 1}};
    unsigned int* id = ids;
    for (const auto& [owner, interval, periodic, calls] : cases) {
        ASSERT_TRUE(timer->AddEvent(owner, interval, *id++, periodic));
    }
    ASSERT_GE(replacing.Count(2) + zeroPeriodic.Count(50), 52u);
    std::this_thread::sleep_for(50ms);
    for (const auto& [owner, interval, periodic, calls] : cases) {
        EXPECT_EQ(owner->Count(), calls) << "interval " << interval << (periodic ? ", periodic" : "");
    }
    EXPECT_EQ(replacing.calls[1].first, replacement);
    EXPECT_FALSE(timer->RemoveEvent(ids[4])) << "the replaced periodic event is gone";
    for (unsigned int gone : {ids[0], ids[2], ids[3], ids[5]}) {
        EXPECT_FALSE(timer->RemoveEvent(gone)) << "removed, one-shot or throwing";
    }
    const std::vector<std::string> expected{"KQ::CWakeUpTimer Event #6 removed due to unhandled exception!"};
    EXPECT_EQ(capture.Lines(), expected);
}

TEST(WakeUpTimerStress, ConcurrentChangesWhileCallbacksRunAndNoneAfterDestruction)
{
    Recorder owners[4];
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    CWakeUpTimer* raw = timer.get();  // the callbacks never see the unique_ptr reset
    std::atomic<unsigned int> failures{0};
    std::vector<std::thread> threads;
    for (unsigned int w = 0; w < 4; ++w) {
        owners[w].action = [raw](unsigned int id) {
            if (id % 7 == 0) {
                raw->UpdateEvent(id, 3, id % 2 == 0);  // may find it removed meanwhile
            }
        };
        threads.emplace_back([&, w] { failures += RunWorker(*timer, owners[w], 1000 + w); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // The periodic events left keep the callbacks coming.
    const auto total = [&owners] { return owners[0].Count() + owners[1].Count() + owners[2].Count() + owners[3].Count(); };
    for (int i = 0; i < 1000 && total() < 2000; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    timer.reset();
    const size_t atDestruction = total();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(failures.load(), 0u);
    EXPECT_GE(atDestruction, 2000u);
    EXPECT_EQ(total(), atDestruction) << "called after the timer was destroyed";
}
