// Tests of CThread: the run gate, pause and run, cancellation of parked,
// blocked and spinning threads, naming, priorities, affinity and sleep.
#include "KqThread.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <thread>

namespace KqThreadTestTypes {

// A derived thread with an empty name, named after its type. It cancels its
// thread first, as every derived class must.
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

// Runs body on a std::thread, so that changes to the calling thread's name,
// nice value or affinity stay off the test runner's main thread.
void OnOwnThread(const std::function<void()>& body) { std::thread(body).join(); }

// A CThread whose functor runs body (if any), counts the call, signals
// m_Called and returns m_Result.
struct Probe {
    std::atomic<int> m_Calls{0};
    CSemaphore m_Called{0};
    bool m_Result = false;
    std::function<void()> m_Body;
    CThread m_Thread;

    explicit Probe(const std::string& name, std::function<void()> body = nullptr, int priority = 1,
        int policy = SCHED_OTHER)
        : m_Body(std::move(body)), m_Thread(KQ::MakeFunctor([this] {
              if (m_Body) {
                  m_Body();
              }
              ++m_Calls;
              m_Called.Signal();
              return m_Result;
          }),
                                        name, priority, policy)
    {
    }
    // Runs the thread once and waits for the call; then cancels it.
    bool RunOnceAndCancel()
    {
        m_Thread.Run();
        return m_Called.Wait(5000) && m_Thread.Cancel();
    }
};

// ---- start gate and naming ----

TEST(ThreadStart, FunctorWaitsForTheFirstRun)
{
    Probe probe("gate");
    ASSERT_TRUE(probe.m_Thread.IsValid());
    SleepMs(100);
    EXPECT_EQ(probe.m_Calls.load(), 0);
    EXPECT_TRUE(probe.RunOnceAndCancel());
    EXPECT_FALSE(probe.m_Thread.IsValid());
}

TEST(ThreadNaming, ThreadNamesItselfCutToFifteenCharacters)
{
    const char* const cases[][2] = {
        {"KQ-CWakeUpTimer", "KQ-CWakeUpTimer"}, {"short", "short"}, {"a-name-longer-than-fifteen", "a-name-longer-t"}};
    for (const auto& c : cases) {
        std::string seen;
        Probe probe(c[0], [&seen] { seen = CThread::GetName(); });
        EXPECT_TRUE(probe.RunOnceAndCancel());
        EXPECT_EQ(seen, c[1]);
    }
}

TEST(ThreadNaming, EmptyNameGivesTheDemangledTypeName)
{
    KqThreadTestTypes::Worker worker;
    worker.Run();
    ASSERT_TRUE(worker.m_Called.Wait(5000));
    EXPECT_TRUE(worker.Cancel());
    EXPECT_EQ(worker.m_SeenName, std::string("KqThreadTestTypes::Worker").substr(0, 15));
    EXPECT_EQ(CThread::GetTypeName(typeid(int*)), "int*");
    EXPECT_EQ(CThread::GetTypeName(typeid(KqThreadTestTypes::Holder<long>)), "KqThreadTestTypes::Holder<long>");
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
    Probe probe("false-once");
    for (int round = 1; round <= 3; ++round) {
        probe.m_Thread.Run();
        ASSERT_TRUE(probe.m_Called.Wait(5000));
        SleepMs(50);
        EXPECT_EQ(probe.m_Calls.load(), round);
    }
    EXPECT_TRUE(probe.m_Thread.Cancel());
}

TEST(ThreadPause, PauseLetsTheCurrentCallFinishAndStopsTheNext)
{
    CSemaphore entered(0), proceed(0);
    Probe probe("pause", [&] {
        entered.Signal();
        proceed.Wait(10000);
    });
    probe.m_Result = true;
    probe.m_Thread.Run();
    ASSERT_TRUE(entered.Wait(5000));
    probe.m_Thread.Pause();
    proceed.Signal();
    ASSERT_TRUE(probe.m_Called.Wait(5000)) << "the current call finishes";
    SleepMs(100);
    EXPECT_EQ(probe.m_Calls.load(), 1);
    EXPECT_FALSE(entered.TryWait()) << "no next call while paused";

    probe.m_Thread.Run();
    ASSERT_TRUE(entered.Wait(5000));
    probe.m_Thread.Pause();
    proceed.Signal();
    EXPECT_TRUE(probe.m_Thread.Cancel());
}

// ---- cancellation ----

TEST(ThreadCancel, ParkedAtTheGateEndsWithoutCallingTheFunctor)
{
    Probe probe("parked");
    SleepMs(20);
    EXPECT_TRUE(probe.m_Thread.Cancel());
    EXPECT_FALSE(probe.m_Thread.IsValid());
    EXPECT_EQ(probe.m_Calls.load(), 0);
    EXPECT_FALSE(probe.m_Thread.Cancel()) << "nothing left to cancel";
    EXPECT_FALSE(probe.m_Thread.Join());
}

class ThreadCancelBlocked : public ::testing::TestWithParam<int> {};

TEST_P(ThreadCancelBlocked, SignalBreaksTheBlockingCall)
{
    CSemaphore never(0), entered(0);
    const std::function<void()> blocks[] = {
        [&] { never.Wait(); }, [&] { never.Wait(60000); }, [] { CThread::Sleep(60000); }};
    const std::function<void()> block = blocks[GetParam()];
    Probe probe("blocked", [&] {
        entered.Signal();
        block();
    });
    probe.m_Thread.Run();
    ASSERT_TRUE(entered.Wait(5000));
    SleepMs(20);
    const uint64_t start = NowMs();
    EXPECT_TRUE(probe.m_Thread.Cancel());
    EXPECT_LT(NowMs() - start, 4000u);
    EXPECT_FALSE(probe.m_Thread.IsValid());
}

// 0: CSemaphore::Wait(), 1: CSemaphore::Wait(60000), 2: CThread::Sleep(60000).
INSTANTIATE_TEST_SUITE_P(Blocks, ThreadCancelBlocked, ::testing::Values(0, 1, 2));

TEST(ThreadCancel, SpinningFunctorOutlastsTheTwelveRounds)
{
    std::atomic<bool> stop(false), entered(false);
    Probe probe("spinner", [&] {
        entered = true;
        while (!stop.load()) {
            CThread::Yield();
        }
    });
    probe.m_Thread.Run();
    while (!entered.load()) {
        SleepMs(1);
    }
    const uint64_t start = NowMs();
    EXPECT_FALSE(probe.m_Thread.Cancel());
    EXPECT_GE(NowMs() - start, 4000u);
    EXPECT_LT(NowMs() - start, 4095u + 3000u);
    EXPECT_TRUE(probe.m_Thread.IsValid()) << "a thread that did not end is not joined";

    stop = true;  // the quit flag is still set: the loop ends after this call
    EXPECT_TRUE(probe.m_Thread.Join());
    EXPECT_FALSE(probe.m_Thread.IsValid());
}

TEST(ThreadCancel, ObjectWithoutThreadRefusesEveryControl)
{
    Probe probe("bad-policy", nullptr, 1, 12345);
    EXPECT_FALSE(probe.m_Thread.IsValid());
    EXPECT_FALSE(probe.m_Thread.Signal());
    EXPECT_FALSE(probe.m_Thread.Cancel());
    EXPECT_FALSE(probe.m_Thread.Join());
    EXPECT_FALSE(probe.m_Thread.SetAffinity(0u));
    probe.m_Thread.Run();
    EXPECT_FALSE(probe.m_Called.Wait(20));
}

TEST(ThreadCancel, DestructorStopsARunningThread)
{
    std::atomic<int> calls(0);
    {
        Probe probe("destroyed", [&] {
            ++calls;
            CThread::Sleep(1);
        });
        probe.m_Result = true;
        probe.m_Thread.Run();
        while (calls.load() < 3) {
            SleepMs(1);
        }
    }
    const int after = calls.load();
    SleepMs(50);
    EXPECT_EQ(calls.load(), after) << "no call after destruction";
}

TEST(ThreadCancel, ConstructionInstallsAWakeHandlerWithoutRestart)
{
    signal(SIGUSR1, SIG_DFL);
    Probe probe("handler");
    struct sigaction current = {};
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &current), 0);
    EXPECT_NE(current.sa_handler, SIG_DFL);
    EXPECT_NE(current.sa_handler, SIG_IGN);
    EXPECT_EQ(current.sa_flags & SA_RESTART, 0);
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

TEST(ThreadPriority, LoadAndThreadStartSetTheNiceValue)
{
    bool privileged = true;
    OnOwnThread([&] { privileged = setpriority(PRIO_PROCESS, 0, -1) == 0 || errno != EACCES; });
    if (!privileged) {
        GTEST_SKIP() << "no privilege to raise the nice value";
    }
    // The test runner's main thread loaded the library.
    EXPECT_EQ(-getpriority(PRIO_PROCESS, 0), CThread::GetNormalPriority());
    int seen = 0;
    Probe probe("nice", [&] { seen = CThread::GetPriority(); }, 5);
    EXPECT_TRUE(probe.RunOnceAndCancel());
    EXPECT_EQ(seen, 5);
}

// True if this process may create SCHED_FIFO threads (false on EPERM).
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
    int seen[7] = {};
    Probe probe("fifo", [&] {
        const int values[7] = {CThread::GetPolicy(), CThread::GetPriority(), CThread::GetLowestPriority(),
            CThread::GetHighestPriority(), CThread::GetNormalPriority(), CThread::GetValidPriority(100),
            CThread::GetValidPriority(-50)};
        std::copy(values, values + 7, seen);
    }, 10, SCHED_FIFO);
    ASSERT_TRUE(probe.m_Thread.IsValid());
    EXPECT_TRUE(probe.RunOnceAndCancel());
    const int expected[7] = {SCHED_FIFO, 10, 1, 99, 1, 99, 1};
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(seen[i], expected[i]) << "value " << i;
    }
    Probe outOfRange("fifo-bad", nullptr, 100, SCHED_FIFO);
    EXPECT_FALSE(outOfRange.m_Thread.IsValid());
}

// ---- affinity ----

TEST(ThreadAffinity, CallingThreadSetsAndReadsItsCpus)
{
    OnOwnThread([] {
        const std::set<unsigned int> all = CThread::GetAffinity();
        ASSERT_FALSE(all.empty());
        const std::set<unsigned int> first{*all.begin()};
        EXPECT_TRUE(CThread::SetAffinity(first));
        EXPECT_EQ(CThread::GetAffinity(), first);
        EXPECT_FALSE(CThread::SetAffinity(std::set<unsigned int>())) << "empty mask";
        EXPECT_FALSE(CThread::SetAffinity(std::set<unsigned int>{1024u, 4096u})) << "only ignored CPUs";
        EXPECT_TRUE(CThread::SetAffinity(std::set<unsigned int>{*all.begin(), 5000u}));
        EXPECT_EQ(CThread::GetAffinity(), first);
        EXPECT_TRUE(CThread::SetAffinity(all));
        EXPECT_EQ(CThread::GetAffinity(), all);
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
    Probe probe("pinned", [&] { seen = CThread::GetAffinity(); });
    EXPECT_FALSE(probe.m_Thread.SetAffinity(1024u));
    EXPECT_TRUE(probe.m_Thread.SetAffinity(cpu));
    EXPECT_TRUE(probe.RunOnceAndCancel());
    EXPECT_EQ(seen, std::set<unsigned int>{cpu});
}

// ---- sleep and yield ----

TEST(ThreadSleep, SleepsTheWholeTime)
{
    for (unsigned int ms : {0u, 20u, 1500u}) {
        const uint64_t start = NowMs();
        EXPECT_TRUE(CThread::Sleep(ms)) << ms;
        EXPECT_GE(NowMs() - start + 1, ms) << ms;
        EXPECT_LT(NowMs() - start, ms + 1000u) << ms;
    }
    EXPECT_TRUE(CThread::Yield());
}

TEST(ThreadSleep, SignalCutsTheSleepShort)
{
    Probe installer("installer");  // installs the SIGUSR1 handler
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
}

}  // namespace
