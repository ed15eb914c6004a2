// Tests of the clock conversions, the tick functions and the process id.
#include "KqTime.h"

#include <gtest/gtest.h>

#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

uint64_t RawNowNs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

TEST(TimeConversion, ReadingsGiveTheDocumentedTicks)
{
    using namespace KQ::Time::INTERNAL;
    struct Case {
        uint64_t seconds;
        uint32_t nanoseconds;
        uint64_t ticks1K, ticks1M, ticks1G, ticks27M;
    };
    const Case cases[] = {
        {5, 999999999, 5999, 5999999, 5999999999ull, 161999999},
        {0, 37, 0, 0, 37, 0},
        {0, 38, 0, 0, 38, 1},
        {0, 0, 0, 0, 0, 0},
        {1, 0, 1000, 1000000, 1000000000ull, 27000000},
        {0, 999999, 0, 999, 999999, 26999},
        {0, 1000000, 1, 1000, 1000000, 27000},
        {4000000000ull, 500000000, 4000000000500ull, 4000000000500000ull, 4000000000500000000ull,
         108000000013500000ull},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ToTicks1K(c.seconds, c.nanoseconds), c.ticks1K) << c.seconds << "s " << c.nanoseconds;
        EXPECT_EQ(ToTicks1M(c.seconds, c.nanoseconds), c.ticks1M) << c.seconds << "s " << c.nanoseconds;
        EXPECT_EQ(ToTicks1G(c.seconds, c.nanoseconds), c.ticks1G) << c.seconds << "s " << c.nanoseconds;
        EXPECT_EQ(ToTicks27M(c.seconds, c.nanoseconds), c.ticks27M) << c.seconds << "s " << c.nanoseconds;
    }
}

TEST(TimeConversion, Ticks27MIsExactOverEveryNanosecond)
{
    // Walks all nanosecond values keeping 27 * ns as whole ticks plus a
    // remainder in thousandths, so the expected value never needs a division.
    uint64_t ticks = 0;
    uint32_t thousandths = 0;
    uint32_t mismatches = 0;
    for (uint32_t ns = 0; ns < 1000000000u; ++ns) {
        if (KQ::Time::INTERNAL::ToTicks27M(0, ns) != ticks && ++mismatches < 5) {
            ADD_FAILURE() << "ns " << ns << ": expected " << ticks;
        }
        thousandths += 27;
        if (thousandths >= 1000) {
            thousandths -= 1000;
            ++ticks;
        }
    }
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(ticks, 27000000u);
}

TEST(TimeClock, TicksLieBetweenRawClockReadingsTakenAround)
{
    for (int i = 0; i < 1000; ++i) {
        const uint64_t before = RawNowNs();
        const uint64_t ticks1G = KQ::Time::GetTicks1G();
        const uint64_t ticks1M = KQ::Time::GetTicks1M();
        const uint64_t ticks1K = KQ::Time::GetTicks1K();
        const uint64_t uptime = KQ::Time::GetUptime();
        const uint64_t ticks27M = KQ::Time::GetTicks27M();
        const uint64_t after = RawNowNs();
        ASSERT_LE(before, ticks1G);
        ASSERT_LE(ticks1G, after);
        ASSERT_LE(before / 1000, ticks1M);
        ASSERT_LE(ticks1M, after / 1000);
        ASSERT_LE(before / 1000000, ticks1K);
        ASSERT_LE(ticks1K, uptime);
        ASSERT_LE(uptime, after / 1000000);
        ASSERT_LE(before / 1000 * 27 / 1000, ticks27M);
        ASSERT_LE(ticks27M, after * 27 / 1000);
    }
}

TEST(TimeClock, SuccessiveCallsNeverGoBack)
{
    uint64_t last1K = 0, last1M = 0, last1G = 0, last27M = 0, lastUptime = 0;
    for (int i = 0; i < 200000; ++i) {
        const uint64_t t1K = KQ::Time::GetTicks1K();
        const uint64_t t1M = KQ::Time::GetTicks1M();
        const uint64_t t1G = KQ::Time::GetTicks1G();
        const uint64_t t27M = KQ::Time::GetTicks27M();
        const uint64_t up = KQ::Time::GetUptime();
        ASSERT_GE(t1K, last1K);
        ASSERT_GE(t1M, last1M);
        ASSERT_GE(t1G, last1G);
        ASSERT_GE(t27M, last27M);
        ASSERT_GE(up, lastUptime);
        last1K = t1K;
        last1M = t1M;
        last1G = t1G;
        last27M = t27M;
        lastUptime = up;
    }
}

TEST(TimeClock, SleepingAdvancesTheClockByAtLeastTheSleep)
{
    const uint64_t start = KQ::Time::GetTicks1M();
    usleep(20000);
    const uint64_t elapsed = KQ::Time::GetTicks1M() - start;
    EXPECT_GE(elapsed, 20000u);
    EXPECT_LT(elapsed, 2000000u);
}

TEST(TimeClock, ResolutionIsTheRawClocksNanoseconds)
{
    timespec resolution;
    ASSERT_EQ(clock_getres(CLOCK_MONOTONIC_RAW, &resolution), 0);
    EXPECT_EQ(KQ::Time::GetResolution(), resolution.tv_nsec);
    EXPECT_GE(KQ::Time::GetResolution(), 1);
}

TEST(ProcessId, IsTheCallersPidAlsoInAChild)
{
    EXPECT_EQ(KQ::GetProcessId(), static_cast<unsigned long>(getpid()));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        const unsigned long pid = KQ::GetProcessId();
        const ssize_t ignored = write(fds[1], &pid, sizeof pid);
        (void)ignored;
        _exit(0);
    }
    close(fds[1]);
    unsigned long reported = 0;
    ASSERT_EQ(read(fds[0], &reported, sizeof reported), static_cast<ssize_t>(sizeof reported));
    close(fds[0]);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(reported, static_cast<unsigned long>(child));
}
