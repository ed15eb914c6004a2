// Tests of the clock conversions, the tick functions and the process id.
#include "KqTime.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

TEST(TimeConversion, ReadingsGiveTheDocumentedTicks)
{
    using namespace KQ::Time::INTERNAL;
    const struct {
        uint64_t seconds;
        uint32_t nanoseconds;
        uint64_t ticks1K, ticks1M, ticks1G, ticks27M;
    } cases[] = {
        {5, 999999999, 5999, 5999999, 5999999999ull, 161999999},
        {0, 37, 0, 0, 37, 0},
        {0, 38, 0, 0, 38, 1},
        {1, 1000000, 1001, 1001000, 1001000000ull, 27027000},
        {4000000000ull, 500000000, 4000000000500ull, 4000000000500000ull, 4000000000500000000ull, 108000000013500000ull},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ToTicks1K(c.seconds, c.nanoseconds), c.ticks1K) << c.nanoseconds;
        EXPECT_EQ(ToTicks1M(c.seconds, c.nanoseconds), c.ticks1M) << c.nanoseconds;
        EXPECT_EQ(ToTicks1G(c.seconds, c.nanoseconds), c.ticks1G) << c.nanoseconds;
        EXPECT_EQ(ToTicks27M(c.seconds, c.nanoseconds), c.ticks27M) << c.nanoseconds;
    }
}

TEST(TimeConversion, Ticks27MIsExactOverEveryNanosecond)
{
    // Keeps 27 * ns as whole ticks plus thousandths, so the expected value
    // needs no division.
    uint64_t ticks = 0;
    uint32_t thousandths = 0, mismatches = 0;
    for (uint32_t ns = 0; ns < 1000000000u; ++ns) {
        mismatches += KQ::Time::INTERNAL::ToTicks27M(0, ns) != ticks;
        thousandths += 27;
        if (thousandths >= 1000) {
            thousandths -= 1000;
            ++ticks;
        }
    }
    EXPECT_EQ(mismatches, 0u);
}

TEST(TimeClock, TicksFollowTheRawClockAndNeverGoBack)
{
    timespec before, after;
    uint64_t last[5] = {};
    for (int i = 0; i < 100000; ++i) {
        clock_gettime(CLOCK_MONOTONIC_RAW, &before);
        const uint64_t now[5] = {KQ::Time::GetTicks1K(), KQ::Time::GetTicks1M(), KQ::Time::GetTicks1G(),
                                 KQ::Time::GetTicks27M(), KQ::Time::GetUptime()};
        clock_gettime(CLOCK_MONOTONIC_RAW, &after);
        const uint64_t low = before.tv_sec * 1000000000ull + before.tv_nsec;
        const uint64_t high = after.tv_sec * 1000000000ull + after.tv_nsec;
        ASSERT_LE(low / 1000000, now[0]);
        ASSERT_LE(now[4], high / 1000000);
        ASSERT_LE(low / 1000, now[1]);
        ASSERT_LE(now[1], high / 1000);
        ASSERT_LE(low, now[2]);
        ASSERT_LE(now[2], high);
        ASSERT_LE(low / 1000 * 27 / 1000, now[3]);
        ASSERT_LE(now[3], high * 27 / 1000);
        for (int k = 0; k < 5; ++k) {
            ASSERT_GE(now[k], last[k]);
            last[k] = now[k];
        }
    }
    timespec resolution;
    clock_getres(CLOCK_MONOTONIC_RAW, &resolution);
    EXPECT_EQ(KQ::Time::GetResolution(), resolution.tv_nsec);
}

TEST(ProcessId, IsTheCallersPidAlsoInAChild)
{
    EXPECT_EQ(KQ::GetProcessId(), static_cast<unsigned long>(getpid()));
    const pid_t child = fork();
    if (child == 0) {
        _exit(KQ::GetProcessId() == static_cast<unsigned long>(getpid()) ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
