// Benchmarks of CThread: the time from Run() to the first functor call of a
// new thread, beside the same hand-over to a std::thread parked on a
// condition variable; and Run() of a paused thread beside waking a thread
// parked on a bare POSIX semaphore.
#include "KqThread.h"
#include "KqTime.h"

#include <benchmark/benchmark.h>

#include <semaphore.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

// Waits (spinning with yields) until stamp holds a time, and returns it.
uint64_t AwaitStamp(const std::atomic<uint64_t>& stamp)
{
    uint64_t value;
    while ((value = stamp.load()) == 0) {
        std::this_thread::yield();
    }
    return value;
}

void BM_CThreadRunToFirstCall(benchmark::State& state)
{
    for (auto _ : state) {
        std::atomic<uint64_t> calledAt(0);
        KQ::CThread thread(KQ::MakeFunctor([&calledAt] {
            calledAt = KQ::Time::GetTicks1G();
            return false;
        }),
            "bench", 1, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(200));  // let it reach the gate
        const uint64_t start = KQ::Time::GetTicks1G();
        thread.Run();
        state.SetIterationTime(static_cast<double>(AwaitStamp(calledAt) - start) * 1e-9);
        thread.Cancel();
    }
}
BENCHMARK(BM_CThreadRunToFirstCall)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_StdThreadGateToFirstCall(benchmark::State& state)
{
    for (auto _ : state) {
        std::atomic<uint64_t> calledAt(0);
        std::mutex mutex;
        std::condition_variable gate;
        bool open = false;
        std::thread thread([&] {
            std::unique_lock<std::mutex> lock(mutex);
            gate.wait(lock, [&] { return open; });
            calledAt = KQ::Time::GetTicks1G();
        });
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        const uint64_t start = KQ::Time::GetTicks1G();
        {
            std::lock_guard<std::mutex> lock(mutex);
            open = true;
        }
        gate.notify_one();
        state.SetIterationTime(static_cast<double>(AwaitStamp(calledAt) - start) * 1e-9);
        thread.join();
    }
}
BENCHMARK(BM_StdThreadGateToFirstCall)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Run() of a thread that parked itself after its previous call.
void BM_CThreadRunPausedToCall(benchmark::State& state)
{
    std::atomic<uint64_t> calledAt(0);
    KQ::CThread thread(KQ::MakeFunctor([&calledAt] {
        calledAt = KQ::Time::GetTicks1G();
        return false;
    }),
        "bench", 1, 0);
    for (auto _ : state) {
        calledAt = 0;
        const uint64_t start = KQ::Time::GetTicks1G();
        thread.Run();
        state.SetIterationTime(static_cast<double>(AwaitStamp(calledAt) - start) * 1e-9);
        std::this_thread::sleep_for(std::chrono::microseconds(50));  // let it park again
    }
    thread.Cancel();
}
BENCHMARK(BM_CThreadRunPausedToCall)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_RawSemaphoreWakeToCall(benchmark::State& state)
{
    std::atomic<uint64_t> calledAt(0);
    std::atomic<bool> stop(false);
    sem_t gate;
    sem_init(&gate, 0, 0);
    std::thread thread([&] {
        while (sem_wait(&gate) == 0 && !stop.load()) {
            calledAt = KQ::Time::GetTicks1G();
        }
    });
    for (auto _ : state) {
        calledAt = 0;
        const uint64_t start = KQ::Time::GetTicks1G();
        sem_post(&gate);
        state.SetIterationTime(static_cast<double>(AwaitStamp(calledAt) - start) * 1e-9);
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    stop = true;
    sem_post(&gate);
    thread.join();
    sem_destroy(&gate);
}
BENCHMARK(BM_RawSemaphoreWakeToCall)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
