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

using namespace KQ;

const unsigned long SIGNALLED = 0, TIMED_OUT = 258;

// Runs body on its own thread and, once it has blocked for 150 ms, calls
// wake every 20 ms until body returns. Gives the microseconds from the first
// wake to that return, or UINT64_MAX if body did not block.
uint64_t WakeLatencyUs(const std::function<void()>& body, const std::function<void(pthread_t)>& wake)
{
    std::atomic<uint64_t> returnedAt(0);
    std::thread t([&] {
        body();
        returnedAt = Time::GetTicks1M();
    });
    usleep(150000);
    const uint64_t wokenAt = Time::GetTicks1M();
    while (returnedAt.load() == 0) {  // a signal may land just before the wait
        wake(t.native_handle());
        usleep(20000);
    }
    t.join();
    return returnedAt.load() > wokenAt ? returnedAt.load() - wokenAt : UINT64_MAX;
}

TEST(Mutex, OwnerRelocksAndOthersGetItOnlyAfterTheLastUnlock)
{
    CMutex mutex;
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
    // manual reset, initially signalled, waiters, signals, waits released
    const int cases[][5] = {{1, 0, 4, 1, 4}, {0, 0, 3, 2, 2}, {1, 1, 2, 0, 2}, {0, 1, 2, 0, 1}};
    for (const auto& c : cases) {
        CEvent event(c[0] != 0, c[1] != 0);
        EXPECT_EQ(Released(event, c[2], c[3]), c[4]) << c[0] << c[1];
        event.NonSignal();
        EXPECT_EQ(event.Wait(0), TIMED_OUT);
    }
}

TEST(Timeout, WaitsLastTheFullTimeUnlessSignalledFromAnotherThreadOrInterrupted)
{
    const uint64_t start = Time::GetTicks1K();
    EXPECT_EQ(CEvent(false, false).Wait(200), TIMED_OUT);
    EXPECT_FALSE(CSemaphore(0).Wait(100));
    EXPECT_GE(Time::GetTicks1K() - start, 299u);
    EXPECT_LT(Time::GetTicks1K() - start, 300u + 1000u);
    CEvent event(false, false);
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
    EXPECT_DEATH(CSemaphore(SEM_VALUE_MAX + 1ul), "KQ::CSemaphore::CSemaphore\\(size_t\\).*value <= SEM_VALUE_MAX");
    EXPECT_FALSE(CSemaphore(SEM_VALUE_MAX).Signal()) << "full";
}

}  // namespace
