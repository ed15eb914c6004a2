// Schedule benchmark: the cost of adding an event and running it, per event,
// for CSchedule and for a baseline that does the same duties with the
// standard library: a std::priority_queue of std::function ordered by due
// time, guarded by a std::mutex, the due time read from steady_clock on add
// and checked before each run.
#include "KqSchedule.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

namespace {

struct Counter {
    uint64_t runs = 0;
    void Bump() { ++runs; }
};

class BaselineQueue {
public:
    void Add(std::function<void()> fn, unsigned int intervalMs)
    {
        const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(intervalMs);
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Items.push(Item{due, std::move(fn)});
    }
    // Runs the earliest event if it is due; false otherwise.
    bool RunOne()
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (m_Items.empty() || m_Items.top().due > std::chrono::steady_clock::now()) {
            return false;
        }
        std::function<void()> fn = std::move(const_cast<Item&>(m_Items.top()).fn);
        m_Items.pop();
        lock.unlock();
        fn();
        return true;
    }

private:
    struct Item {
        std::chrono::steady_clock::time_point due;
        std::function<void()> fn;
        bool operator<(const Item& other) const { return due > other.due; }
    };
    std::mutex m_Mutex;
    std::priority_queue<Item> m_Items;
};

// glibc skips atomics in a single-threaded process; a second thread makes the
// locks cost what they cost in a service.
void StartSecondThread()
{
    static std::thread idle([] {});
    static bool joined = (idle.join(), true);
    (void)joined;
}

void BM_ScheduleAddRun(benchmark::State& state)
{
    StartSecondThread();
    const int batch = static_cast<int>(state.range(0));
    Counter counter;
    const KQ::CFunctor<void ()> bump = KQ::MakeMemberFunctor<&Counter::Bump>(&counter);
    KQ::CSchedule schedule;
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i) {
            schedule.AddEvent(bump, 0, false);
        }
        for (int i = 0; i < batch; ++i) {
            schedule.ProcessSchedule();
        }
    }
    state.SetItemsProcessed(state.iterations() * batch);
    benchmark::DoNotOptimize(counter.runs);
}

void BM_BaselinePriorityQueueAddRun(benchmark::State& state)
{
    StartSecondThread();
    const int batch = static_cast<int>(state.range(0));
    Counter counter;
    BaselineQueue queue;
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i) {
            queue.Add([&counter] { counter.Bump(); }, 0);
        }
        for (int i = 0; i < batch; ++i) {
            queue.RunOne();
        }
    }
    state.SetItemsProcessed(state.iterations() * batch);
    benchmark::DoNotOptimize(counter.runs);
}

}  // namespace

BENCHMARK(BM_ScheduleAddRun)->Arg(1)->Arg(1000)->Arg(100000);
BENCHMARK(BM_BaselinePriorityQueueAddRun)->Arg(1)->Arg(1000)->Arg(100000);
