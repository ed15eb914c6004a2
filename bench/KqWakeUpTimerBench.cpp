// Wake-up timer benchmarks, each beside a baseline fed the same events: a
// straightforward timer thread that sleeps in
// std::condition_variable::wait_until on each event's exact steady_clock due
// time and keeps its events in a std::multimap.
//
// - Lateness: p50/p99 from the due moment to the callback's start, in
//   microseconds, with 1, 1,000 and 100,000 pending events (the others due
//   far in the future; probes 2 ms ahead, one at a time).
// - Add+remove: the cost of adding an event and removing it again with 1,000
//   and 100,000 events pending.
// - Idle wake-ups: context switches per second of the timer thread while its
//   only event is 10 s away.
#include "KqTime.h"
#include "KqWakeUpTimer.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <pthread.h>

namespace {

using Clock = std::chrono::steady_clock;

const unsigned int FAR_MS = 600000;  // background events: 10 minutes ahead
const unsigned int PROBE_MS = 2;
const int PROBES = 200;

// Adds an event and reads its due time (in nanoseconds) through the timer's
// protected interface, under the timer's lock so that no pass can pick the
// event up before the due time is known.
struct TimerAccess : KQ::CWakeUpTimer {
    static void AddEvent(KQ::CWakeUpTimer& timer, KQ::IProcessRequests* owner, unsigned int interval,
                         std::atomic<uint64_t>& dueNs)
    {
        KQ::CMutex& lock = timer.*(&TimerAccess::m_Lock);
        lock.Lock();
        unsigned int id = 0;
        timer.AddEvent(owner, interval, id, false);
        dueNs = (timer.*(&TimerAccess::FindEvent))(id)->dueTime * 1000000u;
        lock.Unlock();
    }
};

// One probe at a time: the callback stores its lateness and wakes the
// measuring thread.
class Probe {
public:
    void Done(double latenessUs)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Lateness.push_back(latenessUs);
        m_Done = true;
        m_Changed.notify_one();
    }
    void Wait()
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait(lock, [this] { return m_Done; });
        m_Done = false;
    }
    void Report(benchmark::State& state)
    {
        std::sort(m_Lateness.begin(), m_Lateness.end());
        state.counters["p50_us"] = m_Lateness[m_Lateness.size() / 2];
        state.counters["p99_us"] = m_Lateness[m_Lateness.size() * 99 / 100];
        state.counters["max_us"] = m_Lateness.back();
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<double> m_Lateness;
    bool m_Done = false;
};

class KqProbeOwner : public KQ::IProcessRequests {
public:
    explicit KqProbeOwner(Probe& probe) : m_Probe(probe) {}
    std::atomic<uint64_t> dueNs{0};
    bool ProcessRequest(unsigned int) override
    {
        const uint64_t now = KQ::Time::GetTicks1G();
        m_Probe.Done(static_cast<double>(now - dueNs.load()) / 1000.0);
        return true;
    }

private:
    Probe& m_Probe;
};

class IdleOwner : public KQ::IProcessRequests {
public:
    bool ProcessRequest(unsigned int) override { return true; }
};

// The baseline timer thread.
class BaselineTimer {
public:
    typedef std::multimap<Clock::time_point, std::function<void()>>::iterator Handle_t;

    BaselineTimer() : m_Thread([this] { Loop(); }) {}
    ~BaselineTimer()
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Quit = true;
        }
        m_Changed.notify_one();
        m_Thread.join();
    }
    Handle_t Add(Clock::time_point due, std::function<void()> fn)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        Handle_t handle = m_Events.emplace(due, std::move(fn));
        m_Changed.notify_one();
        return handle;
    }
    void Remove(Handle_t handle)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Events.erase(handle);
        m_Changed.notify_one();
    }
    pthread_t NativeHandle() { return m_Thread.native_handle(); }

private:
    void Loop()
    {
        pthread_setname_np(pthread_self(), "baseline-timer");
        std::unique_lock<std::mutex> lock(m_Mutex);
        while (!m_Quit) {
            if (m_Events.empty()) {
                m_Changed.wait(lock);
            } else if (Clock::now() < m_Events.begin()->first) {
                m_Changed.wait_until(lock, m_Events.begin()->first);
            } else {
                std::function<void()> fn = std::move(m_Events.begin()->second);
                m_Events.erase(m_Events.begin());
                lock.unlock();
                fn();
                lock.lock();
            }
        }
    }

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::multimap<Clock::time_point, std::function<void()>> m_Events;
    bool m_Quit = false;
    std::thread m_Thread;
};

void BM_KqTimerLateness(benchmark::State& state)
{
    const int pending = static_cast<int>(state.range(0));
    Probe probe;
    KqProbeOwner owner(probe);
    IdleOwner idle;
    KQ::CWakeUpTimer timer(KQ::CThread::GetPriority());
    for (int i = 1; i < pending; ++i) {
        unsigned int id = 0;
        timer.AddEvent(&idle, FAR_MS + static_cast<unsigned int>(i % 1000), id, false);
    }
    for (auto _ : state) {
        for (int i = 0; i < PROBES; ++i) {
            TimerAccess::AddEvent(timer, &owner, PROBE_MS, owner.dueNs);
            probe.Wait();
        }
    }
    probe.Report(state);
}

void BM_BaselineTimerLateness(benchmark::State& state)
{
    const int pending = static_cast<int>(state.range(0));
    Probe probe;
    BaselineTimer timer;
    for (int i = 1; i < pending; ++i) {
        timer.Add(Clock::now() + std::chrono::milliseconds(FAR_MS + i % 1000), [] {});
    }
    for (auto _ : state) {
        for (int i = 0; i < PROBES; ++i) {
            const Clock::time_point due = Clock::now() + std::chrono::milliseconds(PROBE_MS);
            timer.Add(due, [&probe, due] {
                probe.Done(std::chrono::duration<double, std::micro>(Clock::now() - due).count());
            });
            probe.Wait();
        }
    }
    probe.Report(state);
}

void BM_KqTimerAddRemove(benchmark::State& state)
{
    IdleOwner idle;
    KQ::CWakeUpTimer timer(KQ::CThread::GetPriority());
    for (int i = 0; i < state.range(0); ++i) {
        unsigned int id = 0;
        timer.AddEvent(&idle, FAR_MS + static_cast<unsigned int>(i % 1000), id, false);
    }
    for (auto _ : state) {
        unsigned int id = 0;
        timer.AddEvent(&idle, FAR_MS + 500, id, false);
        timer.RemoveEvent(id);
    }
}

void BM_BaselineTimerAddRemove(benchmark::State& state)
{
    BaselineTimer timer;
    for (int i = 0; i < state.range(0); ++i) {
        timer.Add(Clock::now() + std::chrono::milliseconds(FAR_MS + i % 1000), [] {});
    }
    for (auto _ : state) {
        timer.Remove(timer.Add(Clock::now() + std::chrono::milliseconds(FAR_MS + 500), [] {}));
    }
}

// Context switches so far of the calling process's thread named name.
long ContextSwitchesOf(const std::string& name)
{
    DIR* tasks = opendir("/proc/self/task");
    long total = -1;
    for (dirent* entry = tasks != nullptr ? readdir(tasks) : nullptr; entry != nullptr; entry = readdir(tasks)) {
        const std::string dir = std::string("/proc/self/task/") + entry->d_name;
        char comm[32] = {0};
        FILE* file = std::fopen((dir + "/comm").c_str(), "r");
        if (file == nullptr) {
            continue;
        }
        const bool match = std::fgets(comm, sizeof comm, file) != nullptr && name + "\n" == comm;
        std::fclose(file);
        file = match ? std::fopen((dir + "/status").c_str(), "r") : nullptr;
        char line[256];
        while (file != nullptr && std::fgets(line, sizeof line, file) != nullptr) {
            long count = 0;
            if (std::sscanf(line, "voluntary_ctxt_switches: %ld", &count) == 1 ||
                std::sscanf(line, "nonvoluntary_ctxt_switches: %ld", &count) == 1) {
                total = (total < 0 ? 0 : total) + count;
            }
        }
        if (file != nullptr) {
            std::fclose(file);
        }
    }
    if (tasks != nullptr) {
        closedir(tasks);
    }
    return total;
}

void ReportIdleSwitches(benchmark::State& state, const std::string& threadName)
{
    const double seconds = 2.0;
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let start-up settle
        const long before = ContextSwitchesOf(threadName);
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        const long after = ContextSwitchesOf(threadName);
        state.counters["switches_per_s"] = before < 0 ? -1.0 : static_cast<double>(after - before) / seconds;
    }
}

void BM_KqTimerIdleWakeUps(benchmark::State& state)
{
    IdleOwner idle;
    KQ::CWakeUpTimer timer(KQ::CThread::GetPriority());
    unsigned int id = 0;
    timer.AddEvent(&idle, 10000, id, false);
    ReportIdleSwitches(state, "KQ-CWakeUpTimer");
}

void BM_BaselineTimerIdleWakeUps(benchmark::State& state)
{
    BaselineTimer timer;
    timer.Add(Clock::now() + std::chrono::seconds(10), [] {});
    ReportIdleSwitches(state, "baseline-timer");
}

}  // namespace

BENCHMARK(BM_KqTimerLateness)->Arg(1)->Arg(1000)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BaselineTimerLateness)->Arg(1)->Arg(1000)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KqTimerAddRemove)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_BaselineTimerAddRemove)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_KqTimerIdleWakeUps)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BaselineTimerIdleWakeUps)->Iterations(1)->Unit(benchmark::kMillisecond);
