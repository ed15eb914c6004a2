// KqTime.cpp: tick counts on CLOCK_MONOTONIC_RAW and the process id (Linux).
#include "KqTime.h"

#include <time.h>
#include <unistd.h>

namespace KQ {
namespace {

// One reading of the raw monotonic clock.
timespec ReadRawClock()
{
    timespec now = {0, 0};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return now;
}

}  // namespace

namespace Time {

uint64_t GetTicks1K()
{
    const timespec now = ReadRawClock();
    return INTERNAL::ToTicks1K(now.tv_sec, now.tv_nsec);
}

uint64_t GetTicks1M()
{
    const timespec now = ReadRawClock();
    return INTERNAL::ToTicks1M(now.tv_sec, now.tv_nsec);
}

uint64_t GetTicks1G()
{
    const timespec now = ReadRawClock();
    return INTERNAL::ToTicks1G(now.tv_sec, now.tv_nsec);
}

uint64_t GetTicks27M()
{
    const timespec now = ReadRawClock();
    return INTERNAL::ToTicks27M(now.tv_sec, now.tv_nsec);
}

uint64_t GetUptime() { return GetTicks1K(); }

long GetResolution()
{
    timespec resolution = {0, 0};
    clock_getres(CLOCK_MONOTONIC_RAW, &resolution);
    return resolution.tv_nsec;
}

}  // namespace Time

unsigned long GetProcessId() { return static_cast<unsigned long>(getpid()); }

}  // namespace KQ
