// Benchmarks of CMutex and CSemaphore, each beside its baseline:
// - CMutex lock/unlock vs std::recursive_mutex and vs a raw recursive
//   priority-inheritance pthread mutex;
// - a semaphore ping-pong between two threads vs the same ping-pong on
//   std::mutex + std::condition_variable;
// - the context switches of a thread waiting 2 s in CSemaphore::Wait(10000)
//   vs a polling wait (sem_trywait and growing usleep up to 10 ms).
#include "KqSync.h"

#include <benchmark/benchmark.h>

#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace {

// glibc skips atomic instructions while a process has only one thread;
// start one first so every lock is timed as in a threaded service.
void MakeProcessMultiThreaded()
{
    static const bool done = [] {
        std::thread([] {}).join();
        return true;
    }();
    (void)done;
}

// ---- lock/unlock ----

void BM_CMutexLockUnlock(benchmark::State& state)
{
    MakeProcessMultiThreaded();
    KQ::CMutex mutex;
    for (auto _ : state) {
        mutex.Lock();
        mutex.Unlock();
    }
}
BENCHMARK(BM_CMutexLockUnlock);

void BM_StdRecursiveMutexLockUnlock(benchmark::State& state)
{
    MakeProcessMultiThreaded();
    std::recursive_mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}
BENCHMARK(BM_StdRecursiveMutexLockUnlock);

void BM_RawRecursivePiMutexLockUnlock(benchmark::State& state)
{
    MakeProcessMultiThreaded();
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
}
BENCHMARK(BM_RawRecursivePiMutexLockUnlock);

// ---- ping-pong: one round trip between two threads per iteration ----

template <class WaitFn>
void SemaphorePingPong(benchmark::State& state, WaitFn wait)
{
    KQ::CSemaphore ping(0), pong(0);
    std::atomic<bool> stop(false);
    std::thread partner([&] {
        for (;;) {
            wait(ping);
            if (stop.load(std::memory_order_relaxed)) {
                return;
            }
            pong.Signal();
        }
    });
    for (auto _ : state) {
        ping.Signal();
        wait(pong);
    }
    stop = true;
    ping.Signal();
    partner.join();
}

void BM_CSemaphorePingPong(benchmark::State& state)
{
    SemaphorePingPong(state, [](KQ::CSemaphore& sem) { sem.Wait(); });
}
BENCHMARK(BM_CSemaphorePingPong)->UseRealTime();

void BM_CSemaphoreTimedPingPong(benchmark::State& state)
{
    SemaphorePingPong(state, [](KQ::CSemaphore& sem) { sem.Wait(10000); });
}
BENCHMARK(BM_CSemaphoreTimedPingPong)->UseRealTime();

void BM_CondVarPingPong(benchmark::State& state)
{
    std::mutex mutex;
    std::condition_variable changed;
    int turn = 0;  // 1: partner's turn, 2: main's turn, 3: stop
    std::thread partner([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return turn == 1 || turn == 3; });
            if (turn == 3) {
                return;
            }
            turn = 2;
            changed.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(mutex);
        turn = 1;
        changed.notify_all();
        changed.wait(lock, [&] { return turn == 2; });
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        turn = 3;
    }
    changed.notify_all();
    partner.join();
}
BENCHMARK(BM_CondVarPingPong)->UseRealTime();

// ---- context switches while waiting ----

// Voluntary plus nonvoluntary context switches of thread tid so far.
long ContextSwitches(long tid)
{
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    long total = 0;
    std::string key;
    while (status >> key) {
        long value = 0;
        if ((key == "voluntary_ctxt_switches:" || key == "nonvoluntary_ctxt_switches:") && status >> value) {
            total += value;
        }
    }
    return total;
}

// A thread waits on an empty semaphore with waitFor, which another thread
// ends after 2 s; reports the waiting thread's context switches over the wait.
void CountSwitchesOverTwoSeconds(benchmark::State& state, const std::function<bool(KQ::CSemaphore&)>& waitFor)
{
    long switches = 0;
    for (auto _ : state) {
        KQ::CSemaphore sem(0);
        std::atomic<long> counted(0);
        std::thread waiter([&] {
            const long tid = syscall(SYS_gettid);
            const long before = ContextSwitches(tid);
            waitFor(sem);
            counted = ContextSwitches(tid) - before;
        });
        std::this_thread::sleep_for(std::chrono::seconds(2));
        sem.Signal();
        waiter.join();
        switches += counted.load();
    }
    state.counters["ctx_switches"] = benchmark::Counter(static_cast<double>(switches), benchmark::Counter::kAvgIterations);
}

void BM_CSemaphoreWaitSwitches(benchmark::State& state)
{
    CountSwitchesOverTwoSeconds(state, [](KQ::CSemaphore& sem) { return sem.Wait(10000); });
}
BENCHMARK(BM_CSemaphoreWaitSwitches)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// Baseline: the polling wait with sleeps growing 1, 2, 4 ... up to 10 ms.
bool PollingWait(KQ::CSemaphore& sem, long ms)
{
    const auto start = std::chrono::steady_clock::now();
    const long limit = ms * 1000;
    long elapsed = 0, step = 1;
    for (;;) {
        if (sem.TryWait()) {
            return true;
        }
        const long sleep = std::min(limit - elapsed, step);
        if (usleep(static_cast<useconds_t>(sleep)) != 0) {
            return false;
        }
        step = std::min(2 * sleep, 10000L);
        elapsed = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
        if (limit < elapsed) {
            return false;
        }
    }
}

void BM_PollingWaitSwitches(benchmark::State& state)
{
    CountSwitchesOverTwoSeconds(state, [](KQ::CSemaphore& sem) { return PollingWait(sem, 10000); });
}
BENCHMARK(BM_PollingWaitSwitches)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
