// Stress tests: several threads add, update and remove thousands of timer
// events while callbacks run (some acting on their own events), and add and
// cancel schedule events while an owner thread drives the schedule.
#include "KqSchedule.h"
#include "KqThread.h"
#include "KqWakeUpTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace {

using KQ::CWakeUpTimer;

// One worker's owner: remembers every id given to its worker and every id
// it was called with, and counts calls that arrive after it was closed.
class StressOwner : public KQ::IProcessRequests {
public:
    CWakeUpTimer* timer = nullptr;
    std::atomic<bool> closed{false};
    std::atomic<unsigned int> lateCalls{0};
    std::atomic<unsigned int> calls{0};

    bool ProcessRequest(unsigned int eventId) override
    {
        if (closed) {
            ++lateCalls;
        }
        ++calls;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Called.insert(eventId);
        }
        if (eventId % 7 == 0) {
            unsigned int id = eventId;
            timer->UpdateEvent(id, 3, eventId % 2 == 0);  // may find it removed meanwhile
        }
        return true;
    }
    void Issued(unsigned int id)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Issued.insert(id);
    }
    // Ids this owner was called with that were never given to its worker.
    size_t ForeignCalls()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        size_t foreign = 0;
        for (unsigned int id : m_Called) {
            foreign += m_Issued.count(id) == 0 ? 1 : 0;
        }
        return foreign;
    }

private:
    std::mutex m_Mutex;
    std::set<unsigned int> m_Issued;
    std::set<unsigned int> m_Called;
};

// Random operations on the timer; periodic events only ever go away through
// this worker, so every operation on them must succeed.
unsigned int RunWorker(CWakeUpTimer& timer, StressOwner& owner, unsigned int seed, int operations)
{
    std::mt19937 random(seed);
    std::vector<unsigned int> periodic;
    unsigned int failures = 0;
    for (int i = 0; i < operations; ++i) {
        unsigned int id = CWakeUpTimer::INVALID_ID;
        const unsigned int interval = random() % 20;
        switch (random() % 4) {
        case 0:
            failures += timer.AddEvent(&owner, interval, id, false) ? 0 : 1;
            owner.Issued(id);
            break;
        case 1:
            // Callbacks may turn a periodic event into a one-shot (id % 7 == 0
            // and odd), so only the others are kept as surely periodic.
            failures += timer.AddEvent(&owner, interval, id, true) ? 0 : 1;
            owner.Issued(id);
            if (id % 7 != 0) {
                periodic.push_back(id);
            }
            break;
        case 2:
            if (!periodic.empty()) {
                failures += timer.UpdateEvent(periodic[random() % periodic.size()], interval, true) ? 0 : 1;
            }
            break;
        default:
            if (!periodic.empty()) {
                const size_t index = random() % periodic.size();
                unsigned int old = periodic[index];
                failures += timer.AddOrUpdateEvent(&owner, interval, periodic[index], true) ? 0 : 1;
                owner.Issued(periodic[index]);
                failures += timer.RemoveEvent(old) ? 1 : 0;  // already gone
                if (random() % 2 == 0) {
                    failures += timer.RemoveEvent(periodic[index]) ? 0 : 1;
                    periodic.erase(periodic.begin() + static_cast<long>(index));
                } else if (periodic[index] % 7 == 0) {
                    periodic.erase(periodic.begin() + static_cast<long>(index));
                }
            }
            break;
        }
    }
    return failures;
}

}  // namespace

TEST(TimerStress, ConcurrentChangesWhileCallbacksRun)
{
    const int workers = 4;
    const int operations = 2500;
    std::vector<std::unique_ptr<StressOwner>> owners;
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    ASSERT_TRUE(timer->IsValid());
    std::vector<std::thread> threads;
    std::atomic<unsigned int> failures{0};
    for (int w = 0; w < workers; ++w) {
        owners.push_back(std::make_unique<StressOwner>());
        owners.back()->timer = timer.get();
    }
    for (int w = 0; w < workers; ++w) {
        threads.emplace_back([&, w] { failures += RunWorker(*timer, *owners[w], 1000u + w, operations); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // The periodic events left keep the callbacks coming for a while.
    const auto totalCalls = [&owners] {
        unsigned int total = 0;
        for (auto& owner : owners) {
            total += owner->calls.load();
        }
        return total;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (totalCalls() < 2000 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    timer.reset();
    for (auto& owner : owners) {
        owner->closed = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

    EXPECT_EQ(failures.load(), 0u);
    for (auto& owner : owners) {
        EXPECT_EQ(owner->lateCalls.load(), 0u) << "called after the timer was destroyed";
        EXPECT_EQ(owner->ForeignCalls(), 0u) << "called with another worker's id";
    }
    EXPECT_GE(totalCalls(), 2000u) << "callbacks ran during and after the stress";
}

TEST(TimerStress, ScheduleAddAndCancelFromManyThreads)
{
    KQ::CSchedule schedule;
    std::atomic<unsigned int> runs{0};
    std::atomic<bool> stop{false};
    const auto count = KQ::MakeFunctor([&runs] { ++runs; });
    std::thread owner([&] {
        while (!stop) {
            schedule.ProcessSchedule();
        }
    });
    std::vector<std::thread> adders;
    const int perThread = 2000;
    std::atomic<unsigned int> cancelled{0};
    for (int t = 0; t < 3; ++t) {
        adders.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                KQ::CSchedule::CEvent event = schedule.AddEvent(count, static_cast<unsigned int>(i % 5), false);
                if ((i + t) % 3 == 0) {
                    event.Cancel();
                    ++cancelled;
                }
            }
        });
    }
    for (std::thread& adder : adders) {
        adder.join();
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (schedule.GetEventCount() != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(schedule.GetEventCount(), 0u);
    stop = true;
    schedule.AddEvent(KQ::CFunctor<void ()>(), 0, false);  // wakes the owner for its last pass
    owner.join();
    // A cancellation can lose the race with a run that already began.
    EXPECT_GE(runs.load(), 3u * perThread - cancelled.load());
    EXPECT_LE(runs.load(), 3u * perThread);
}
