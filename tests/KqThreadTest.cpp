// Tests of CThread: the run gate, pause and run, cancellation of parked,
// blocked and spinning threads, priorities and affinity.
#include "KqThread.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <pthread.h>
#include <thread>

namespace {

using namespace KQ;

// A CThread whose functor signals m_Entered, runs body, signals m_Called and
// returns m_Result.
struct Probe {
    CSemaphore m_Entered{0}, m_Called{0};
    std::atomic<bool> m_Result{false};
    CThread m_Thread;

    explicit Probe(std::function<void()> body = [] {}, int priority = 1, int policy = SCHED_OTHER)
        : m_Thread(MakeFunctor([this, body] {
              m_Entered.Signal();
              body();
              m_Called.Signal();
              return m_Result.load();
          }),
              "probe", priority, policy)
    {
    }
};

TEST(ThreadGate, CallsWaitForRunAndFalseOrPauseParksTheThreadAfterTheCurrentCall)
{
    CSemaphore proceed(0);
    Probe probe([&] { proceed.Wait(10000); });
    EXPECT_FALSE(probe.m_Entered.Wait(100)) << "no call before Run()";
    for (bool pause : {false, true, false, true}) {
        probe.m_Result = pause;
        probe.m_Thread.Run();
        ASSERT_TRUE(probe.m_Entered.Wait(5000));
        if (pause) {
            probe.m_Thread.Pause();
        }
        proceed.Signal();
        EXPECT_TRUE(probe.m_Called.Wait(5000));
        EXPECT_FALSE(probe.m_Entered.Wait(100)) << "no next call, pause " << pause;
    }
    Probe parked;
    EXPECT_TRUE(parked.m_Thread.Cancel());
    EXPECT_FALSE(parked.m_Entered.TryWait()) << "a thread cancelled at the gate makes no call";
}

TEST(ThreadCancel, SignalBreaksBlockingCallsAndASpinnerIsGivenUpOnAfterAboutFourSeconds)
{
    CSemaphore never(0);
    std::atomic<bool> stop(false);
    const std::function<void()> blocks[] = {[&] { never.Wait(); }, [&] { never.Wait(60000); },
        [] { CThread::Sleep(60000); }, [&] {  // spins
            while (!stop.load()) {
                CThread::Yield();
            }
        }};
    for (const std::function<void()>& block : blocks) {
        const bool spins = &block == &blocks[3];
        Probe probe(block);
        probe.m_Thread.Run();
        ASSERT_TRUE(probe.m_Entered.Wait(5000));
        const uint64_t start = Time::GetTicks1K();
        EXPECT_EQ(probe.m_Thread.Cancel(), !spins);
        EXPECT_GE(Time::GetTicks1K() - start, spins ? 4000u : 0u);
        EXPECT_LT(Time::GetTicks1K() - start, spins ? 4095u + 3000u : 4000u);
        stop = spins;  // the quit flag stays set: the spinner ends after this call
        EXPECT_EQ(probe.m_Thread.Join(), spins);
    }
}

TEST(ThreadPriority, ClampedToThePolicysScaleAndAFifoThreadRunsAtItsStaticPriority)
{
    const int cases[][2] = {{100, 20}, {-50, -19}, {20, 20}, {-19, -19}, {0, 0}, {5, 5}};
    for (const auto& c : cases) {
        EXPECT_EQ(CThread::GetValidPriority(c[0]), c[1]) << c[0];
    }
    EXPECT_FALSE(Probe([] {}, 1, 12345).m_Thread.IsValid()) << "unknown policy";
    const sched_param param = {1};
    int error = 0;
    std::thread([&] { error = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param); }).join();
    if (error == EPERM) {
        GTEST_SKIP() << "SCHED_FIFO refused with EPERM (no CAP_SYS_NICE)";
    }
    std::vector<int> seen;
    Probe probe([&] {
        seen = {CThread::GetPolicy(), CThread::GetPriority(), CThread::GetValidPriority(100),
            CThread::GetValidPriority(-50)};
    }, 10, SCHED_FIFO);
    probe.m_Thread.Run();
    EXPECT_TRUE(probe.m_Called.Wait(5000));
    EXPECT_EQ(seen, std::vector<int>({SCHED_FIFO, 10, 99, 1}));
    EXPECT_FALSE(Probe([] {}, 100, SCHED_FIFO).m_Thread.IsValid());
}

TEST(ThreadAffinity, SetsAreAppliedAndOutOfRangeCpusIgnored)
{
    const std::set<unsigned int> all = CThread::GetAffinity();
    const unsigned int first = *all.begin(), last = *all.rbegin();
    Probe probe([&] {
        EXPECT_EQ(CThread::GetAffinity(), std::set<unsigned int>{first}) << "set before Run()";
        EXPECT_FALSE(CThread::SetAffinity(std::set<unsigned int>{1024u, 4096u})) << "only ignored CPUs";
        EXPECT_TRUE(CThread::SetAffinity(std::set<unsigned int>{last, 5000u}));
        EXPECT_EQ(CThread::GetAffinity(), std::set<unsigned int>{last});
    });
    EXPECT_TRUE(probe.m_Thread.SetAffinity(first));
    probe.m_Thread.Run();
    EXPECT_TRUE(probe.m_Called.Wait(5000));
}

}  // namespace
