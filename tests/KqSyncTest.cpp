// Tests of CMutex, CEvent and CSemaphore with real threads and signals.
#include "KqSync.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <signal.h>
#include <thread>
#include <vector>

namespace {

using KQ::CEvent;
using KQ::CMutex;
using KQ::CSemaphore;

const unsigned long SIGNALLED = 0;
const unsigned long TIMED_OUT = 258;

uint64_t NowMs() { return KQ::Time::GetTicks1K(); }

void SleepMs(unsigned int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Runs body on its own thread and reports whether it is still running after
// 150 ms; wake then ends it.
template <class Body, class Wake>
bool StillBlockedAfterWhile(Body body, Wake wake)
{
    std::atomic<bool> done(false);
    std::thread t([&] {
        body();
        done = true;
    });
    SleepMs(150);
    const bool blocked = !done.load();
    wake(t, done);
    t.join();
    return blocked;
}

// ---- CMutex ----

TEST(MutexRecursion, OwnerRelocksAndOthersGetItOnlyAfterTheLastUnlock)
{
    CMutex mutex;
    auto otherCanLock = [&mutex] {
        bool locked = false;
        std::thread([&] {
            const uint64_t start = NowMs();
            locked = mutex.TryLock();
            EXPECT_LT(NowMs() - start, 500u) << "TryLock never blocks";
            if (locked) {
                mutex.Unlock();
            }
        }).join();
        return locked;
    };
    mutex.Lock();
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());  // a third level, still the owner
    for (int level = 3; level > 0; --level) {
        EXPECT_FALSE(otherCanLock()) << level << " levels held";
        mutex.Unlock();
    }
    EXPECT_TRUE(otherCanLock());
}

TEST(MutexExclusion, GuardsAPlainCounterAcrossThreads)
{
    CMutex mutex(nullptr);
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            mutex.Lock();
            mutex.Lock();
            ++counter;
            mutex.Unlock();
            mutex.Unlock();
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 40000L);
}

// ---- CEvent ----

struct EventCase {
    bool manualReset, initialState;
    unsigned long first, second;  // results of two Wait(0) in a row
};

class EventInitialState : public ::testing::TestWithParam<EventCase> {};

TEST_P(EventInitialState, ZeroWaitsFollowTheResetMode)
{
    CEvent event(GetParam().manualReset, GetParam().initialState);
    EXPECT_EQ(event.Wait(0), GetParam().first);
    EXPECT_EQ(event.Wait(0), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Modes, EventInitialState,
    ::testing::Values(EventCase{false, true, SIGNALLED, TIMED_OUT}, EventCase{true, true, SIGNALLED, SIGNALLED},
        EventCase{false, false, TIMED_OUT, TIMED_OUT}, EventCase{true, false, TIMED_OUT, TIMED_OUT}));

TEST(EventSignal, SignalBeforeWaitIsKeptUntilConsumedOrReset)
{
    CEvent autoEvent(false, false);
    autoEvent.Signal();
    EXPECT_EQ(autoEvent.Wait(1000), SIGNALLED);
    EXPECT_EQ(autoEvent.Wait(0), TIMED_OUT);

    CEvent manualEvent(true, false);
    manualEvent.Signal();
    EXPECT_EQ(manualEvent.Wait(), SIGNALLED);
    EXPECT_EQ(manualEvent.Wait(0), SIGNALLED);
    manualEvent.NonSignal();
    EXPECT_EQ(manualEvent.Wait(0), TIMED_OUT);
}

// count threads each wait once on event for ms; counts the signalled ones.
struct Waiters {
    std::vector<std::thread> threads;
    std::atomic<int> signalled{0};

    Waiters(CEvent& event, int count, unsigned long ms)
    {
        for (int i = 0; i < count; ++i) {
            threads.emplace_back([this, &event, ms] { signalled += event.Wait(ms) == SIGNALLED ? 1 : 0; });
        }
        SleepMs(100);
    }
    void AwaitAtLeast(int count)
    {
        const uint64_t start = NowMs();
        while (signalled.load() < count && NowMs() - start < 5000) {
            SleepMs(1);
        }
        SleepMs(50);  // time for a waiter that should not wake to slip through
    }
    ~Waiters()
    {
        for (std::thread& t : threads) {
            t.join();
        }
    }
};

TEST(EventSignal, ManualResetReleasesEveryWaiterAndStaysSignalled)
{
    CEvent event(true, false);
    {
        Waiters waiters(event, 4, CEvent::INFINITE_WAIT);
        EXPECT_EQ(waiters.signalled.load(), 0);
        event.Signal();
        waiters.AwaitAtLeast(4);
        EXPECT_EQ(waiters.signalled.load(), 4);
    }
    EXPECT_EQ(event.Wait(10), SIGNALLED);
    event.NonSignal();
    EXPECT_EQ(event.Wait(0), TIMED_OUT);
}

TEST(EventSignal, AutoResetReleasesOneWaiterPerSignal)
{
    CEvent event(false, false);
    {
        Waiters waiters(event, 3, 10000);
        for (int released = 1; released <= 3; ++released) {
            event.Signal();
            waiters.AwaitAtLeast(released);
            EXPECT_EQ(waiters.signalled.load(), released);
        }
    }
    EXPECT_EQ(event.Wait(0), TIMED_OUT);  // the last waiter reset it
}

TEST(EventTimeout, UnsignalledEventTimesOutAfterTheFullTimeAndZeroDoesNotBlock)
{
    CEvent event(false, false);
    uint64_t start = NowMs();
    EXPECT_EQ(event.Wait(1500), TIMED_OUT);
    EXPECT_GE(NowMs() - start, 1490u);
    EXPECT_LT(NowMs() - start, 1500u + 1000u);
    start = NowMs();
    EXPECT_EQ(event.Wait(0), TIMED_OUT);
    EXPECT_LT(NowMs() - start, 500u);
}

TEST(EventTimeout, HugeTimeOutDoesNotWrapIntoThePast)
{
    CEvent event(false, false);
    unsigned long result = TIMED_OUT;
    EXPECT_TRUE(StillBlockedAfterWhile([&] { result = event.Wait(ULONG_MAX); },
        [&](std::thread&, std::atomic<bool>&) { event.Signal(); }));
    EXPECT_EQ(result, SIGNALLED);
}

// ---- CSemaphore ----

TEST(SemaphoreCount, EveryFormTakesEachUnitOnce)
{
    CSemaphore sem(0);
    EXPECT_FALSE(sem.TryWait());
    const unsigned long timeOuts[] = {0ul, 1ul, 0xFFFFFFFFul, ULONG_MAX / 1000000ul + 1, ULONG_MAX};
    for (unsigned long ms : timeOuts) {
        ASSERT_TRUE(sem.Signal());
        const uint64_t start = NowMs();
        EXPECT_TRUE(sem.Wait(ms)) << ms;
        EXPECT_LT(NowMs() - start, 500u) << ms;
        EXPECT_FALSE(sem.TryWait()) << ms;
    }
    CSemaphore three(3);
    EXPECT_TRUE(three.TryWait());
    EXPECT_TRUE(three.Wait());
    EXPECT_TRUE(three.Wait(0));
    EXPECT_FALSE(three.Wait(0));
}

TEST(SemaphoreTimeout, NeverSignalledWaitFailsAfterTheTime)
{
    CSemaphore sem(0);
    const uint64_t start = NowMs();
    EXPECT_FALSE(sem.Wait(50));
    EXPECT_GE(NowMs() - start, 49u);
    EXPECT_LT(NowMs() - start, 50u + 1000u);
}

TEST(SemaphoreTimeout, SignalFromAnotherThreadIsNoticedPromptly)
{
    CSemaphore sem(0);
    std::atomic<uint64_t> signalledAt(0);
    std::thread signaller([&] {
        SleepMs(20);
        signalledAt = KQ::Time::GetTicks1M();
        sem.Signal();
    });
    EXPECT_TRUE(sem.Wait(50));
    const uint64_t returnedAt = KQ::Time::GetTicks1M();
    signaller.join();
    EXPECT_LT(returnedAt - signalledAt.load(), 100000u) << "microseconds from Signal() to the wait's return";
}

TEST(SemaphoreTimeout, HugeTimeOutIsClampedNotWrapped)
{
    CSemaphore sem(0);
    bool result = false;
    EXPECT_TRUE(StillBlockedAfterWhile(
        [&] { result = sem.Wait(ULONG_MAX); }, [&](std::thread&, std::atomic<bool>&) { sem.Signal(); }));
    EXPECT_TRUE(result);
}

class SemaphoreInterrupt : public ::testing::TestWithParam<unsigned long> {};

// The parameter is a time-out for Wait(ms); 0 stands for the unlimited Wait().
TEST_P(SemaphoreInterrupt, SignalHandlerMakesTheWaitReturnFalse)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // no SA_RESTART
    sigaction(SIGUSR2, &action, nullptr);
    CSemaphore sem(0);
    const unsigned long ms = GetParam();
    bool result = true;
    const uint64_t start = NowMs();
    EXPECT_TRUE(StillBlockedAfterWhile([&] { result = ms == 0 ? sem.Wait() : sem.Wait(ms); },
        [](std::thread& t, std::atomic<bool>& done) {
            while (!done.load()) {  // a signal may land just before the wait
                pthread_kill(t.native_handle(), SIGUSR2);
                SleepMs(20);
            }
        }));
    EXPECT_FALSE(result);
    EXPECT_LT(NowMs() - start, 5000u);
}

INSTANTIATE_TEST_SUITE_P(Waits, SemaphoreInterrupt, ::testing::Values(0ul, 10000ul, ULONG_MAX));

TEST(SemaphoreLimits, CountAboveTheMaximumEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const size_t tooMany = static_cast<size_t>(SEM_VALUE_MAX) + 1;
    EXPECT_DEATH({ CSemaphore sem(tooMany); }, "KQ::CSemaphore::CSemaphore\\(size_t\\).*value <= SEM_VALUE_MAX");

    CSemaphore full(SEM_VALUE_MAX);
    EXPECT_FALSE(full.Signal()) << "the count cannot pass the maximum";
    EXPECT_TRUE(full.TryWait());
}

}  // namespace
