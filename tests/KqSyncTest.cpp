// Tests of CMutex, CEvent and CSemaphore with real threads and signals.
#include "KqSync.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <semaphore.h>
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

// A do-nothing SIGUSR2 handler without SA_RESTART, so that a signal breaks a
// blocking call of the thread it is sent to.
void InstallInterruptHandler()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR2, &action, nullptr);
}

// Sends SIGUSR2 to thread until done is set (one signal could land just
// before the thread enters its wait).
void InterruptUntil(std::thread& thread, const std::atomic<bool>& done)
{
    while (!done.load()) {
        pthread_kill(thread.native_handle(), SIGUSR2);
        SleepMs(20);
    }
}

// ---- CMutex ----

TEST(MutexRecursion, OwnerRelocksAndOthersWaitForTheLastUnlock)
{
    CMutex mutex("recursive");
    mutex.Lock();
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());  // a third level, still the owner

    auto otherCanLock = [&mutex] {
        bool locked = false;
        std::thread other([&] {
            locked = mutex.TryLock();
            if (locked) {
                mutex.Unlock();
            }
        });
        other.join();
        return locked;
    };
    EXPECT_FALSE(otherCanLock());
    mutex.Unlock();
    EXPECT_FALSE(otherCanLock());
    mutex.Unlock();
    EXPECT_FALSE(otherCanLock());
    mutex.Unlock();
    EXPECT_TRUE(otherCanLock());
}

TEST(MutexRecursion, NullNameIsAccepted)
{
    CMutex mutex(nullptr);
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
}

TEST(MutexExclusion, TryLockOnAHeldMutexFailsWithoutBlocking)
{
    CMutex mutex;
    std::atomic<bool> held(false), release(false);
    std::thread holder([&] {
        mutex.Lock();
        held = true;
        while (!release.load()) {
            SleepMs(1);
        }
        mutex.Unlock();
    });
    while (!held.load()) {
        SleepMs(1);
    }
    const uint64_t start = NowMs();
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_LT(NowMs() - start, 500u);
    release = true;
    holder.join();
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
}

TEST(MutexExclusion, LockBlocksUntilTheHolderUnlocks)
{
    CMutex mutex;
    std::atomic<bool> acquired(false);
    mutex.Lock();
    std::thread waiter([&] {
        mutex.Lock();
        acquired = true;
        mutex.Unlock();
    });
    SleepMs(100);
    EXPECT_FALSE(acquired.load());
    mutex.Unlock();
    waiter.join();
    EXPECT_TRUE(acquired.load());
}

TEST(MutexExclusion, GuardsAPlainCounterAcrossThreads)
{
    CMutex mutex;
    long counter = 0;
    const int rounds = 20000;
    auto work = [&] {
        for (int i = 0; i < rounds; ++i) {
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
    EXPECT_EQ(counter, 2L * rounds);
}

// ---- CEvent ----

struct EventCase {
    const char* name;
    bool manualReset;
    bool initialState;
    unsigned long first;   // result of the first Wait(0)
    unsigned long second;  // result of the second Wait(0)
};

class EventInitialState : public ::testing::TestWithParam<EventCase> {};

TEST_P(EventInitialState, ZeroWaitsFollowTheResetMode)
{
    const EventCase& c = GetParam();
    CEvent event(c.manualReset, c.initialState);
    EXPECT_EQ(event.Wait(0), c.first);
    EXPECT_EQ(event.Wait(0), c.second);
}

INSTANTIATE_TEST_SUITE_P(Modes, EventInitialState,
    ::testing::Values(EventCase{"AutoSignalled", false, true, SIGNALLED, TIMED_OUT},
        EventCase{"ManualSignalled", true, true, SIGNALLED, SIGNALLED},
        EventCase{"AutoUnsignalled", false, false, TIMED_OUT, TIMED_OUT},
        EventCase{"ManualUnsignalled", true, false, TIMED_OUT, TIMED_OUT}),
    [](const ::testing::TestParamInfo<EventCase>& info) { return std::string(info.param.name); });

TEST(EventSignal, SignalBeforeWaitIsKeptAndAutoResetConsumesIt)
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

TEST(EventSignal, WaitBeforeSignalWakesAnUnlimitedWaiter)
{
    CEvent event(false, false);
    std::atomic<bool> done(false);
    unsigned long result = TIMED_OUT;
    std::thread waiter([&] {
        result = event.Wait();
        done = true;
    });
    SleepMs(50);
    EXPECT_FALSE(done.load());
    event.Signal();
    waiter.join();
    EXPECT_EQ(result, SIGNALLED);
}

// Starts count threads that each wait once on event with ms and count their
// results.
struct Waiters {
    std::vector<std::thread> threads;
    std::atomic<int> signalled{0};
    std::atomic<int> timedOut{0};

    Waiters(CEvent& event, int count, unsigned long ms)
    {
        for (int i = 0; i < count; ++i) {
            threads.emplace_back([this, &event, ms] {
                (event.Wait(ms) == SIGNALLED ? signalled : timedOut)++;
            });
        }
    }
    void Join()
    {
        for (std::thread& t : threads) {
            t.join();
        }
    }
};

TEST(EventSignal, ManualResetReleasesEveryWaiterAndStaysSignalled)
{
    CEvent event(true, false);
    Waiters waiters(event, 4, 10000);
    SleepMs(100);
    EXPECT_EQ(waiters.signalled.load(), 0);
    event.Signal();
    waiters.Join();
    EXPECT_EQ(waiters.signalled.load(), 4);
    EXPECT_EQ(event.Wait(0), SIGNALLED);
    EXPECT_EQ(event.Wait(10), SIGNALLED);
    event.NonSignal();
    EXPECT_EQ(event.Wait(0), TIMED_OUT);
}

TEST(EventSignal, AutoResetReleasesOneWaiterPerSignal)
{
    CEvent event(false, false);
    Waiters waiters(event, 3, 10000);
    SleepMs(100);
    for (int released = 1; released <= 3; ++released) {
        event.Signal();
        const uint64_t start = NowMs();
        while (waiters.signalled.load() < released && NowMs() - start < 5000) {
            SleepMs(1);
        }
        SleepMs(50);  // no second waiter may slip through on the same signal
        EXPECT_EQ(waiters.signalled.load(), released);
    }
    waiters.Join();
    EXPECT_EQ(waiters.timedOut.load(), 0);
    EXPECT_EQ(event.Wait(0), TIMED_OUT);  // the last waiter reset it
}

TEST(EventTimeout, UnsignalledEventTimesOutAfterTheFullTime)
{
    CEvent event(false, false);
    const uint64_t start = NowMs();
    EXPECT_EQ(event.Wait(1500), TIMED_OUT);
    const uint64_t elapsed = NowMs() - start;
    EXPECT_GE(elapsed, 1490u);
    EXPECT_LT(elapsed, 1500u + 1000u);
}

TEST(EventTimeout, ZeroWaitOnUnsignalledEventDoesNotBlock)
{
    CEvent event(true, false);
    const uint64_t start = NowMs();
    EXPECT_EQ(event.Wait(0), TIMED_OUT);
    EXPECT_LT(NowMs() - start, 500u);
}

TEST(EventTimeout, TimeOutsBeyondTheUnlimitedValueAreFiniteAndHugeOnesDoNotWrap)
{
    CEvent event(false, false);
    std::atomic<bool> done(false);
    unsigned long result = TIMED_OUT;
    std::thread waiter([&] {
        result = event.Wait(ULONG_MAX);
        done = true;
    });
    SleepMs(150);
    EXPECT_FALSE(done.load()) << "a huge time-out must not wrap into the past";
    event.Signal();
    waiter.join();
    EXPECT_EQ(result, SIGNALLED);
}

// ---- CSemaphore ----

TEST(SemaphoreCount, TryWaitTakesEachUnitOnce)
{
    CSemaphore empty(0);
    EXPECT_FALSE(empty.TryWait());
    EXPECT_TRUE(empty.Signal());
    EXPECT_TRUE(empty.TryWait());
    EXPECT_FALSE(empty.TryWait());

    CSemaphore three(3);
    EXPECT_TRUE(three.TryWait());
    EXPECT_TRUE(three.Wait());
    EXPECT_TRUE(three.Wait(0));
    EXPECT_FALSE(three.TryWait());
}

TEST(SemaphoreCount, AvailableUnitIsTakenByZeroAndHugeTimeOuts)
{
    CSemaphore sem(0);
    const unsigned long timeOuts[] = {0ul, 1ul, 0xFFFFFFFFul, ULONG_MAX / 1000000ul + 1, ULONG_MAX};
    for (unsigned long ms : timeOuts) {
        ASSERT_TRUE(sem.Signal());
        const uint64_t start = NowMs();
        EXPECT_TRUE(sem.Wait(ms)) << ms;
        EXPECT_LT(NowMs() - start, 500u) << ms;
        EXPECT_FALSE(sem.TryWait()) << ms;
    }
}

TEST(SemaphoreCount, SignalsFromManyThreadsAddUp)
{
    CSemaphore sem(0);
    std::vector<std::thread> posters;
    for (int i = 0; i < 4; ++i) {
        posters.emplace_back([&sem] {
            for (int j = 0; j < 250; ++j) {
                sem.Signal();
            }
        });
    }
    for (std::thread& t : posters) {
        t.join();
    }
    int taken = 0;
    while (sem.TryWait()) {
        ++taken;
    }
    EXPECT_EQ(taken, 1000);
}

TEST(SemaphoreTimeout, NeverSignalledWaitFailsAfterTheTime)
{
    CSemaphore sem(0);
    const uint64_t start = NowMs();
    EXPECT_FALSE(sem.Wait(50));
    const uint64_t elapsed = NowMs() - start;
    EXPECT_GE(elapsed, 49u);
    EXPECT_LT(elapsed, 50u + 1000u);
    EXPECT_FALSE(sem.Wait(0));
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
    const uint64_t start = NowMs();
    EXPECT_TRUE(sem.Wait(50000));
    const uint64_t returnedAt = KQ::Time::GetTicks1M();
    signaller.join();
    EXPECT_GE(NowMs() - start, 19u);
    EXPECT_LT(returnedAt - signalledAt.load(), 200000u) << "microseconds from Signal() to the wait's return";
}

TEST(SemaphoreTimeout, HugeTimeOutIsClampedNotWrapped)
{
    CSemaphore sem(0);
    std::atomic<bool> done(false);
    bool result = false;
    std::thread waiter([&] {
        result = sem.Wait(ULONG_MAX);
        done = true;
    });
    SleepMs(150);
    EXPECT_FALSE(done.load());
    sem.Signal();
    waiter.join();
    EXPECT_TRUE(result);
}

class SemaphoreInterrupt : public ::testing::TestWithParam<unsigned long> {};

// Each parameter is a time-out for Wait(ms); 0 stands for the unlimited Wait().
TEST_P(SemaphoreInterrupt, SignalHandlerMakesTheWaitReturnFalse)
{
    InstallInterruptHandler();
    CSemaphore sem(0);
    const unsigned long ms = GetParam();
    std::atomic<bool> done(false);
    bool result = true;
    const uint64_t start = NowMs();
    std::thread waiter([&] {
        result = ms == 0 ? sem.Wait() : sem.Wait(ms);
        done = true;
    });
    SleepMs(50);
    InterruptUntil(waiter, done);
    waiter.join();
    EXPECT_FALSE(result);
    EXPECT_LT(NowMs() - start, 5000u);
    EXPECT_FALSE(sem.TryWait());
}

INSTANTIATE_TEST_SUITE_P(Waits, SemaphoreInterrupt, ::testing::Values(0ul, 10000ul, ULONG_MAX));

TEST(SemaphoreDeathTest, CountAboveTheMaximumEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const size_t tooMany = static_cast<size_t>(SEM_VALUE_MAX) + 1;
    EXPECT_DEATH({ CSemaphore sem(tooMany); }, "value <= SEM_VALUE_MAX");
    EXPECT_DEATH({ CSemaphore sem(tooMany); }, "KQ::CSemaphore::CSemaphore\\(size_t\\)");
}

TEST(SemaphoreDeathTest, MaximumCountIsAccepted)
{
    CSemaphore sem(SEM_VALUE_MAX);
    EXPECT_TRUE(sem.TryWait());
    EXPECT_TRUE(sem.Signal());
    EXPECT_FALSE(sem.Signal());  // the count would pass the maximum
}

}  // namespace
