// Stress test: several threads add, update and remove thousands of timer
// events while callbacks run (some acting on their own events).
#include "KqThread.h"
#include "KqWakeUpTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

using KQ::CWakeUpTimer;

// Counts its calls, and those that arrive after it was closed.
struct StressOwner : KQ::IProcessRequests {
    CWakeUpTimer* timer = nullptr;
    std::atomic<bool> closed{false};
    std::atomic<unsigned int> calls{0}, lateCalls{0};

    bool ProcessRequest(unsigned int eventId) override
    {
        lateCalls += closed ? 1 : 0;
        ++calls;
        if (eventId % 7 == 0) {
            timer->UpdateEvent(eventId, 3, eventId % 2 == 0);  // may find it removed meanwhile
        }
        return true;
    }
};

// Random operations; the periodic events kept in the list only ever go away
// through this worker, so every operation on them must succeed.
unsigned int RunWorker(CWakeUpTimer& timer, StressOwner& owner, unsigned int seed)
{
    std::mt19937 random(seed);
    std::vector<unsigned int> periodic;
    unsigned int failures = 0;
    for (int i = 0; i < 2500; ++i) {
        unsigned int id = CWakeUpTimer::INVALID_ID;
        const unsigned int interval = random() % 20;
        const size_t index = periodic.empty() ? 0 : random() % periodic.size();
        const unsigned int operation = periodic.empty() ? random() % 2 : random() % 4;
        if (operation < 2) {
            failures += timer.AddEvent(&owner, interval, id, operation == 1) ? 0 : 1;
            if (operation == 1 && id % 7 != 0) {  // callbacks may turn those into one-shots
                periodic.push_back(id);
            }
        } else if (operation == 2) {
            failures += timer.UpdateEvent(periodic[index], interval, true) ? 0 : 1;
        } else {
            id = periodic[index];
            failures += timer.AddOrUpdateEvent(&owner, interval, periodic[index], true) ? 0 : 1;
            failures += timer.RemoveEvent(id) ? 1 : 0;  // the replaced event is gone
            if (periodic[index] % 7 != 0 && random() % 2 == 0) {
                failures += timer.RemoveEvent(periodic[index]) ? 0 : 1;
            }
            if (periodic[index] % 7 == 0) {  // removed (INVALID_ID is 0) or not surely periodic
                periodic.erase(periodic.begin() + static_cast<long>(index));
            }
        }
    }
    return failures;
}

}  // namespace

TEST(TimerStress, ConcurrentChangesWhileCallbacksRunAndNoneAfterDestruction)
{
    StressOwner owners[4];
    auto timer = std::make_unique<CWakeUpTimer>(KQ::CThread::GetPriority());
    ASSERT_TRUE(timer->IsValid());
    std::atomic<unsigned int> failures{0};
    std::vector<std::thread> threads;
    for (unsigned int w = 0; w < 4; ++w) {
        owners[w].timer = timer.get();
        threads.emplace_back([&, w] { failures += RunWorker(*timer, owners[w], 1000 + w); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // The periodic events left keep the callbacks coming.
    const auto totalCalls = [&owners] { return owners[0].calls + owners[1].calls + owners[2].calls + owners[3].calls; };
    for (int i = 0; i < 1000 && totalCalls() < 2000; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    timer.reset();
    for (StressOwner& owner : owners) {
        owner.closed = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(failures.load(), 0u);
    EXPECT_GE(totalCalls(), 2000u);
    for (StressOwner& owner : owners) {
        EXPECT_EQ(owner.lateCalls.load(), 0u) << "called after the timer was destroyed";
    }
}
