// Tests of CThread: the run gate, pause and run, cancellation of parked,
// blocked and spinning threads, naming, priorities, affinity and sleep.
#include "KqThread.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <thread>

namespace KqThreadTestTypes {

// A derived thread with an empty name: it is named after its type. It
// cancels its thread first, as every derived class must.
class Worker : public KQ::CThread {
public:
    Worker() : CThread(KQ::MakeMemberFunctor<&Worker::Step>(this), std::string(), 1, SCHED_OTHER), m_Called(0) {}
    ~Worker() override { Cancel(); }
    bool Step()
    {
        m_SeenName = GetName();
        m_Called.Signal();
        return false;
    }
    std::string m_SeenName;
    KQ::CSemaphore m_Called;
};

template <class T>
struct Holder {};

}  // namespace KqThreadTestTypes

namespace {

using KQ::CSemaphore;
using KQ::CThread;

uint64_t NowMs() { return KQ::Time::GetTicks1K(); }

void SleepMs(unsigned int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Runs body on a std::thread and waits for it, so that changes to the
// calling thread's name, nice value or affinity stay off the test runner.
template <class F>
void OnOwnThread(F body)
{
    std::thread t(body);
    t.join();
}

// Counts functor calls and lets the test wait for them.
struct CallCounter {
    std::atomic<int> calls{0};
    CSemaphore called{0};
    bool result = false;

    KQ::CFunctor<bool ()> Functor()
    {
        return KQ::MakeFunctor([this] {
            ++calls;
            called.Signal();
            return result;
        });
    }
    bool WaitCall() { return called.Wait(5000); }
};

// ---- start gate and naming ----

TEST(ThreadStart, FunctorWaitsForTheFirstRun)
{
    CallCounter counter;
    CThread thread(counter.Functor(), "gate", 1, SCHED_OTHER);
    ASSERT_TRUE(thread.IsValid());
    SleepMs(100);
    EXPECT_EQ(counter.calls.load(), 0);
    thread.Run();
    EXPECT_TRUE(counter.WaitCall());
    EXPECT_TRUE(thread.Cancel());
    EXPECT_FALSE(thread.IsValid());
}

struct NameCase {
    const char* given;
    const char* seen;
};

class ThreadNameCut : public ::testing::TestWithParam<NameCase> {};

TEST_P(ThreadNameCut, ThreadNamesItselfCutToFifteenCharacters)
{
    std::string seen;
    CSemaphore called(0);
    CThread thread(KQ::MakeFunctor([&] {
        seen = CThread::GetName();
        called.Signal();
        return false;
    }),
        GetParam().given, 1, SCHED_OTHER);
    ASSERT_TRUE(thread.IsValid());
    thread.Run();
    ASSERT_TRUE(called.Wait(5000));
    EXPECT_TRUE(thread.Cancel());
    EXPECT_EQ(seen, GetParam().seen);
}

INSTANTIATE_TEST_SUITE_P(Names, ThreadNameCut,
    ::testing::Values(NameCase{"KQ-CWakeUpTimer", "KQ-CWakeUpTimer"}, NameCase{"short", "short"},
        NameCase{"a-name-longer-than-fifteen", "a-name-longer-t"}));

TEST(ThreadNaming, EmptyNameGivesTheDemangledTypeName)
{
    KqThreadTestTypes::Worker worker;
    ASSERT_TRUE(worker.IsValid());
    worker.Run();
    ASSERT_TRUE(worker.m_Called.Wait(5000));
    EXPECT_TRUE(worker.Cancel());
    EXPECT_EQ(worker.m_SeenName, std::string("KqThreadTestTypes::Worker").substr(0, 15));
}

TEST(ThreadNaming, TypeNamesAreDemangled)
{
    EXPECT_EQ(CThread::GetTypeName(typeid(int)), "int");
    EXPECT_EQ(CThread::GetTypeName(typeid(int*)), "int*");
    EXPECT_EQ(CThread::GetTypeName(typeid(KqThreadTestTypes::Holder<long>)), "KqThreadTestTypes::Holder<long>");
    EXPECT_EQ(CThread::GetTypeName(typeid(KqThreadTestTypes::Worker)), "KqThreadTestTypes::Worker");
}

TEST(ThreadNaming, SetNameAndGetNameOnTheCallingThread)
{
    OnOwnThread([] {
        EXPECT_TRUE(CThread::SetName("kq-named"));
        EXPECT_EQ(CThread::GetName(), "kq-named");
        EXPECT_TRUE(CThread::SetName("0123456789abcdefghij"));
        EXPECT_EQ(CThread::GetName(), "0123456789abcde");
    });
}

// ---- pause and run ----

TEST(ThreadPause, FalseResultParksUntilEachRun)
{
    CallCounter counter;
    CThread thread(counter.Functor(), "false-once", 1, SCHED_OTHER);
    ASSERT_TRUE(thread.IsValid());
    for (int round = 1; round <= 3; ++round) {
        thread.Run();
        ASSERT_TRUE(counter.WaitCall());
        SleepMs(50);
        EXPECT_EQ(counter.calls.load(), round);
    }
    EXPECT_TRUE(thread.Cancel());
}

TEST(ThreadPause, PauseLetsTheCurrentCallFinishAndStopsTheNext)
{
    CSemaphore entered(0), proceed(0);
    std::atomic<int> calls(0), finished(0);
    CThread thread(KQ::MakeFunctor([&] {
        ++calls;
        entered.Signal();
        proceed.Wait(10000);
        ++finished;
        return true;
    }),
        "pause", 1, SCHED_OTHER);
    ASSERT_TRUE(thread.IsValid());
    thread.Run();
    ASSERT_TRUE(entered.Wait(5000));
    thread.Pause();
    proceed.Signal();
    const uint64_t start = NowMs();
    while (finished.load() < 1 && NowMs() - start < 5000) {
        SleepMs(1);
    }
    SleepMs(100);
    EXPECT_EQ(finished.load(), 1);
    EXPECT_EQ(calls.load(), 1);

    thread.Run();
    ASSERT_TRUE(entered.Wait(5000));
    EXPECT_EQ(calls.load(), 2);
    thread.Pause();
    proceed.Signal();
    EXPECT_TRUE(thread.Cancel());
}

TEST(ThreadPause, TrueResultKeepsCalling)
{
    CallCounter counter;
    counter.result = true;
    CThread thread(counter.Functor(), "busy", 1, SCHED_OTHER);
    thread.Run();
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(counter.WaitCall());
    }
    EXPECT_TRUE(thread.Cancel());
}

// ---- cancellation ----

TEST(ThreadCancel, ParkedAtTheGateEndsWithoutCallingTheFunctor)
{
    CallCounter counter;
    CThread thread(counter.Functor(), "parked", 1, SCHED_OTHER);
    ASSERT_TRUE(thread.IsValid());
    SleepMs(20);
    EXPECT_TRUE(thread.Cancel());
    EXPECT_FALSE(thread.IsValid());
    EXPECT_EQ(counter.calls.load(), 0);
}

TEST(ThreadCancel, ImmediatelyAfterConstructionEnds)
{
    CallCounter counter;
    CThread thread(counter.Functor(), "at-once", 1, SCHED_OTHER);
    EXPECT_TRUE(thread.Cancel());
    EXPECT_FALSE(thread.IsValid());
    EXPECT_EQ(counter.calls.load(), 0);
}

enum BlockKind_e { eSemaphoreWait, eSemaphoreTimedWait, eSleep };

class ThreadCancelBlocked : public ::testing::TestWithParam<BlockKind_e> {};

TEST_P(ThreadCancelBlocked, SignalBreaksTheBlockingCall)
{
    CSemaphore never(0), entered(0);
    const BlockKind_e kind = GetParam();
    CThread thread(KQ::MakeFunctor([&] {
        entered.Signal();
        switch (kind) {
        case eSemaphoreWait:
            never.Wait();
            break;
        case eSemaphoreTimedWait:
            never.Wait(60000);
            break;
        case eSleep:
            CThread::Sleep(60000);
            break;
        }
        return true;
    }),
        "blocked", 1, SCHED_OTHER);
    thread.Run();
    ASSERT_TRUE(entered.Wait(5000));
    SleepMs(20);
    const uint64_t start = NowMs();
    EXPECT_TRUE(thread.Cancel());
    EXPECT_LT(NowMs() - start, 4000u);
    EXPECT_FALSE(thread.IsValid());
}

INSTANTIATE_TEST_SUITE_P(Blocks, ThreadCancelBlocked, ::testing::Values(eSemaphoreWait, eSemaphoreTimedWait, eSleep));

TEST(ThreadCancel, SpinningFunctorOutlastsTheTwelveRounds)
{
    std::atomic<bool> stop(false), entered(false);
    CThread thread(KQ::MakeFunctor([&] {
        entered = true;
        while (!stop.load()) {
            CThread::Yield();
        }
        return true;
    }),
        "spinner", 1, SCHED_OTHER);
    thread.Run();
    while (!entered.load()) {
        SleepMs(1);
    }
    const uint64_t start = NowMs();
    EXPECT_FALSE(thread.Cancel());
    const uint64_t elapsed = NowMs() - start;
    EXPECT_GE(elapsed, 4000u);
    EXPECT_LT(elapsed, 4095u + 3000u);
    EXPECT_TRUE(thread.IsValid()) << "a thread that did not end is not joined";

    stop = true;  // the quit flag is still set: the loop ends after this call
    EXPECT_TRUE(thread.Join());
    EXPECT_FALSE(thread.IsValid());
}

TEST(ThreadCancel, ObjectWithoutThreadRefusesEveryControl)
{
    CallCounter counter;
    CThread thread(counter.Functor(), "bad-policy", 1, 12345);
    EXPECT_FALSE(thread.IsValid());
    EXPECT_FALSE(thread.Signal());
    EXPECT_FALSE(thread.Cancel());
    EXPECT_FALSE(thread.Join());
    EXPECT_FALSE(thread.SetAffinity(0u));
    thread.Run();
    SleepMs(20);
    EXPECT_EQ(counter.calls.load(), 0);
}

TEST(ThreadCancel, SecondCancelAfterJoinReturnsFalse)
{
    CallCounter counter;
    CThread thread(counter.Functor(), "twice", 1, SCHED_OTHER);
    EXPECT_TRUE(thread.Cancel());
    EXPECT_FALSE(thread.Cancel());
    EXPECT_FALSE(thread.Join());
}

TEST(ThreadDestroy, DestructorStopsARunningThread)
{
    std::atomic<int> calls(0);
    {
        CThread thread(KQ::MakeFunctor([&] {
            ++calls;
            CThread::Sleep(1);
            return true;
        }),
            "destroyed", 1, SCHED_OTHER);
        thread.Run();
        while (calls.load() < 3) {
            SleepMs(1);
        }
    }
    const int after = calls.load();
    SleepMs(50);
    EXPECT_EQ(calls.load(), after) << "no call after destruction";
}

TEST(ThreadSignals, ConstructionInstallsAWakeHandlerWithoutRestart)
{
    signal(SIGUSR1, SIG_DFL);
    CallCounter counter;
    CThread thread(counter.Functor(), "handler", 1, SCHED_OTHER);
    struct sigaction current = {};
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &current), 0);
    EXPECT_NE(current.sa_handler, SIG_DFL);
    EXPECT_NE(current.sa_handler, SIG_IGN);
    EXPECT_EQ(current.sa_flags & SA_RESTART, 0);
    EXPECT_TRUE(thread.Cancel());
}

// ---- priorities ----

TEST(ThreadPriority, OrdinaryPolicyUsesTheNiceScale)
{
    OnOwnThread([] {
        ASSERT_EQ(CThread::GetPolicy(), SCHED_OTHER);
        EXPECT_EQ(CThread::GetLowestPriority(), -19);
        EXPECT_EQ(CThread::GetHighestPriority(), 20);
        EXPECT_EQ(CThread::GetNormalPriority(), 1);
        const int cases[][2] = {{100, 20}, {-50, -19}, {20, 20}, {-19, -19}, {0, 0}, {5, 5}};
        for (const auto& c : cases) {
            EXPECT_EQ(CThread::GetValidPriority(c[0]), c[1]) << c[0];
        }
        ASSERT_EQ(setpriority(PRIO_PROCESS, 0, 0), 0);
        EXPECT_EQ(CThread::GetPriority(), 0);
        ASSERT_EQ(setpriority(PRIO_PROCESS, 0, 7), 0);
        EXPECT_EQ(CThread::GetPriority(), -7);
    });
}

TEST(ThreadPriority, LibraryLoadSetTheNormalPriority)
{
    // The loading thread is the test runner's main thread; std::thread
    // inherits its nice value.
    OnOwnThread([] {
        if (setpriority(PRIO_PROCESS, 0, -1) != 0 && errno == EACCES) {
            GTEST_SKIP() << "no privilege to raise the nice value";
        }
    });
    EXPECT_EQ(-getpriority(PRIO_PROCESS, 0), CThread::GetNormalPriority());
}

TEST(ThreadPriority, OrdinaryThreadTakesItsPriorityAsNiceValue)
{
    int seen = 0;
    CSemaphore called(0);
    CThread thread(KQ::MakeFunctor([&] {
        seen = CThread::GetPriority();
        called.Signal();
        return false;
    }),
        "nice", 5, SCHED_OTHER);
    thread.Run();
    ASSERT_TRUE(called.Wait(5000));
    EXPECT_TRUE(thread.Cancel());
    EXPECT_EQ(seen, 5);
}

// True if this process may create SCHED_FIFO threads.
bool CanUseFifo()
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    sched_param param = {};
    param.sched_priority = 1;
    pthread_attr_setschedparam(&attr, &param);
    pthread_t id;
    const int error = pthread_create(&id, &attr, [](void*) -> void* { return nullptr; }, nullptr);
    pthread_attr_destroy(&attr);
    if (error == 0) {
        pthread_join(id, nullptr);
    }
    return error != EPERM;
}

TEST(ThreadPriority, FifoThreadRunsAtItsStaticPriority)
{
    if (!CanUseFifo()) {
        GTEST_SKIP() << "SCHED_FIFO refused with EPERM (no CAP_SYS_NICE)";
    }
    struct Seen {
        int policy, priority, lowest, highest, normal, above, below;
    } seen = {};
    CSemaphore called(0);
    CThread thread(KQ::MakeFunctor([&] {
        seen = {CThread::GetPolicy(), CThread::GetPriority(), CThread::GetLowestPriority(),
            CThread::GetHighestPriority(), CThread::GetNormalPriority(), CThread::GetValidPriority(100),
            CThread::GetValidPriority(-50)};
        called.Signal();
        return false;
    }),
        "fifo", 10, SCHED_FIFO);
    ASSERT_TRUE(thread.IsValid());
    thread.Run();
    ASSERT_TRUE(called.Wait(5000));
    EXPECT_TRUE(thread.Cancel());
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    EXPECT_EQ(seen.priority, 10);
    EXPECT_EQ(seen.lowest, 1);
    EXPECT_EQ(seen.highest, 99);
    EXPECT_EQ(seen.normal, 1);
    EXPECT_EQ(seen.above, 99);
    EXPECT_EQ(seen.below, 1);
}

TEST(ThreadPriority, RoundRobinThreadBlockedInAWaitIsCancelled)
{
    if (!CanUseFifo()) {
        GTEST_SKIP() << "real-time policies refused with EPERM (no CAP_SYS_NICE)";
    }
    CSemaphore never(0), entered(0);
    int policy = -1;
    CThread thread(KQ::MakeFunctor([&] {
        policy = CThread::GetPolicy();
        entered.Signal();
        never.Wait();
        return true;
    }),
        "rr", 5, SCHED_RR);
    ASSERT_TRUE(thread.IsValid());
    thread.Run();
    ASSERT_TRUE(entered.Wait(5000));
    EXPECT_TRUE(thread.Cancel());
    EXPECT_EQ(policy, SCHED_RR);
}

TEST(ThreadPriority, InvalidRealTimePriorityGivesNoThread)
{
    CallCounter counter;
    CThread thread(counter.Functor(), "fifo-bad", 100, SCHED_FIFO);
    EXPECT_FALSE(thread.IsValid());
}

// ---- affinity ----

TEST(ThreadAffinity, CallingThreadSetsAndReadsItsCpus)
{
    OnOwnThread([] {
        const std::set<unsigned int> all = CThread::GetAffinity();
        ASSERT_FALSE(all.empty());
        const unsigned int first = *all.begin();
        EXPECT_TRUE(CThread::SetAffinity(std::set<unsigned int>{first}));
        EXPECT_EQ(CThread::GetAffinity(), std::set<unsigned int>{first});
        EXPECT_TRUE(CThread::SetAffinity(std::set<unsigned int>{first, 5000u}));  // 5000 is ignored
        EXPECT_EQ(CThread::GetAffinity(), std::set<unsigned int>{first});
        EXPECT_TRUE(CThread::SetAffinity(all));
        EXPECT_EQ(CThread::GetAffinity(), all);
    });
}

TEST(ThreadAffinity, EmptyOrOutOfRangeMasksAreRefused)
{
    OnOwnThread([] {
        const std::set<unsigned int> before = CThread::GetAffinity();
        EXPECT_FALSE(CThread::SetAffinity(std::set<unsigned int>()));
        EXPECT_FALSE(CThread::SetAffinity(std::set<unsigned int>{1024u, 4096u}));
        EXPECT_EQ(CThread::GetAffinity(), before);
    });
}

TEST(ThreadAffinity, DefaultAffinityIsTheMaskOfProcessOne)
{
    cpu_set_t init;
    CPU_ZERO(&init);
    ASSERT_EQ(sched_getaffinity(1, sizeof init, &init), 0);
    std::set<unsigned int> expected;
    for (unsigned int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &init)) {
            expected.insert(cpu);
        }
    }
    OnOwnThread([&] {
        ASSERT_TRUE(CThread::SetAffinity(std::set<unsigned int>{*expected.begin()}));
        EXPECT_TRUE(CThread::SetDefaultAffinity());
        EXPECT_EQ(CThread::GetAffinity(), expected);
    });
}

TEST(ThreadAffinity, MemberPinsTheObjectsThread)
{
    const unsigned int cpu = *CThread::GetAffinity().begin();
    std::set<unsigned int> seen;
    CSemaphore called(0);
    CThread thread(KQ::MakeFunctor([&] {
        seen = CThread::GetAffinity();
        called.Signal();
        return false;
    }),
        "pinned", 1, SCHED_OTHER);
    EXPECT_FALSE(thread.SetAffinity(1024u));
    EXPECT_TRUE(thread.SetAffinity(cpu));
    thread.Run();
    ASSERT_TRUE(called.Wait(5000));
    EXPECT_TRUE(thread.Cancel());
    EXPECT_EQ(seen, std::set<unsigned int>{cpu});
}

// ---- sleep and yield ----

TEST(ThreadSleep, SleepsTheWholeTime)
{
    const unsigned int cases[] = {0u, 20u, 1500u};
    for (unsigned int ms : cases) {
        const uint64_t start = NowMs();
        EXPECT_TRUE(CThread::Sleep(ms)) << ms;
        const uint64_t elapsed = NowMs() - start;
        EXPECT_GE(elapsed + 1, ms) << ms;
        EXPECT_LT(elapsed, ms + 1000u) << ms;
    }
    EXPECT_TRUE(CThread::Yield());
}

TEST(ThreadSleep, SignalCutsTheSleepShort)
{
    CallCounter counter;
    CThread installer(counter.Functor(), "installer", 1, SCHED_OTHER);  // installs the SIGUSR1 handler
    std::atomic<bool> done(false);
    bool result = true;
    std::thread sleeper([&] {
        result = CThread::Sleep(30000);
        done = true;
    });
    const uint64_t start = NowMs();
    while (!done.load()) {
        SleepMs(20);
        pthread_kill(sleeper.native_handle(), SIGUSR1);
    }
    sleeper.join();
    EXPECT_FALSE(result);
    EXPECT_LT(NowMs() - start, 5000u);
    EXPECT_TRUE(installer.Cancel());
}

}  // namespace
