// Tests of CMutex, CEvent and CSemaphore with real threads and signals.
#include "KqSync.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <functional>
#include <signal.h>
#include <thread>
#include <unistd.h>

namespace {

using KQ::CEvent;
using KQ::CSemaphore;

const unsigned long SIGNALLED = 0, TIMED_OUT = 258;

// Runs body on its own thread and, once it has blocked for 150 ms, calls
// wake every 20 ms until body returns. Gives the microseconds from the first
// wake to that return, or UINT64_MAX if body did not block.
uint64_t WakeLatencyUs(const std::function<void()>& body, const std::function<void(pthread_t)>& wake)
{
    std::atomic<uint64_t> returnedAt(0);
    std::thread t([&] {
        body();
        returnedAt = KQ::Time::GetTicks1M();
    });
    usleep(150000);
    const bool blocked = returnedAt.load() == 0;
    const uint64_t wokenAt = KQ::Time::GetTicks1M();
    while (returnedAt.load() == 0) {  // a signal may land just before the wait
        wake(t.native_handle());
        usleep(20000);
    }
    t.join();
    return blocked ? returnedAt.load() - wokenAt : UINT64_MAX;
}

TEST(Mutex, OwnerRelocksAndOthersGetItOnlyAfterTheLastUnlock)
{
    KQ::CMutex mutex;
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    std::atomic<int> held(2);
    const auto other = [&] {
        EXPECT_FALSE(mutex.TryLock());
        mutex.Lock();
        EXPECT_EQ(held.load(), 0);
        mutex.Unlock();
    };
    const auto unlockOneLevel = [&](pthread_t) {
        if (held.load() > 0) {
            --held;
            mutex.Unlock();
        }
    };
    EXPECT_LT(WakeLatencyUs(other, unlockOneLevel), 5000000u);
}

// Starts waiters threads that each wait once on event, signals it signals
// times (each after the previous one released a waiter) and counts the
// waits that ended signalled.
int Released(CEvent& event, int waiters, int signals)
{
    std::atomic<int> released(0);
    std::thread threads[4];
    for (int i = 0; i < waiters; ++i) {
        threads[i] = std::thread([&] { released += event.Wait(1500) == SIGNALLED ? 1 : 0; });
    }
    usleep(100000);
    for (int i = 1; i <= signals; ++i) {
        event.Signal();
        for (int ms = 0; ms < 5000 && released.load() < i; ++ms) {
            usleep(1000);
        }
    }
    for (int i = 0; i < waiters; ++i) {
        threads[i].join();
    }
    return released.load();
}

TEST(Event, ManualResetReleasesEveryWaiterAutoResetOnePerSignal)
{
    const struct {
        bool manual, initial;
        int waiters, signals, released;
    } cases[] = {{true, false, 4, 1, 4}, {false, false, 3, 2, 2}, {true, true, 2, 0, 2}, {false, true, 2, 0, 1}};
    for (const auto& c : cases) {
        CEvent event(c.manual, c.initial);
        EXPECT_EQ(Released(event, c.waiters, c.signals), c.released) << c.manual << c.initial;
        EXPECT_EQ(event.Wait(0), c.manual ? SIGNALLED : TIMED_OUT) << c.manual << c.initial;
        event.NonSignal();
        EXPECT_EQ(event.Wait(0), TIMED_OUT);
    }
}

TEST(Timeout, WaitsLastTheFullTimeUnlessSignalledFromAnotherThreadOrInterrupted)
{
    CEvent event(false, false);
    uint64_t start = KQ::Time::GetTicks1K();
    EXPECT_EQ(event.Wait(300), TIMED_OUT);
    EXPECT_GE(KQ::Time::GetTicks1K() - start, 299u);
    start = KQ::Time::GetTicks1K();
    EXPECT_FALSE(CSemaphore(0).Wait(50));
    EXPECT_GE(KQ::Time::GetTicks1K() - start, 49u);
    EXPECT_LT(KQ::Time::GetTicks1K() - start, 50u + 1000u);
    EXPECT_LT(WakeLatencyUs([&] { EXPECT_EQ(event.Wait(ULONG_MAX), SIGNALLED); }, [&](pthread_t) { event.Signal(); }),
        100000u);
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // no SA_RESTART
    sigaction(SIGUSR2, &action, nullptr);
    // 0 stands for Wait(); the larger time-outs must not wrap into the past.
    for (unsigned long ms : {0ul, 10000ul, 0xFFFFFFFFul, ULONG_MAX / 1000000ul + 1, ULONG_MAX}) {
        for (bool interrupt : {false, true}) {
            CSemaphore sem(0);
            const auto wait = [&] { EXPECT_EQ(ms == 0 ? sem.Wait() : sem.Wait(ms), !interrupt) << ms; };
            const auto wake = [&](pthread_t t) { interrupt ? (void)pthread_kill(t, SIGUSR2) : (void)sem.Signal(); };
            EXPECT_LT(WakeLatencyUs(wait, wake), 100000u) << ms << " interrupt " << interrupt;
        }
    }
}

TEST(Semaphore, CountAboveTheMaximumEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const size_t tooMany = static_cast<size_t>(SEM_VALUE_MAX) + 1;
    EXPECT_DEATH({ CSemaphore sem(tooMany); }, "KQ::CSemaphore::CSemaphore\\(size_t\\).*value <= SEM_VALUE_MAX");
    CSemaphore full(SEM_VALUE_MAX);
    EXPECT_FALSE(full.Signal());
}

}  // namespace
