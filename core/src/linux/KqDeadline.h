// KqDeadline.h: relative time-outs turned into absolute deadlines for the
// library's blocking waits (internal, Linux).
#pragma once

#include <time.h>

#include <cstdint>
#include <limits>

namespace KQ {
namespace INTERNAL {

// ms in nanoseconds, saturating instead of wrapping.
inline uint64_t MsToNs(unsigned long ms)
{
    const uint64_t maxMs = std::numeric_limits<uint64_t>::max() / 1000000u;
    return ms > maxMs ? std::numeric_limits<uint64_t>::max() : static_cast<uint64_t>(ms) * 1000000u;
}

// The time on clock nanoseconds from now; the seconds saturate at the
// largest time_t rather than wrapping.
inline timespec DeadlineOn(clockid_t clock, uint64_t nanoseconds)
{
    timespec deadline = {0, 0};
    clock_gettime(clock, &deadline);
    const uint64_t seconds = nanoseconds / 1000000000u;
    const time_t maxSeconds = std::numeric_limits<time_t>::max();
    deadline.tv_nsec += static_cast<long>(nanoseconds % 1000000000u);
    if (deadline.tv_nsec > 999999999L) {
        deadline.tv_nsec -= 1000000000L;
        ++deadline.tv_sec;
    }
    if (seconds > static_cast<uint64_t>(maxSeconds - deadline.tv_sec)) {
        deadline.tv_sec = maxSeconds;
    } else {
        deadline.tv_sec += static_cast<time_t>(seconds);
    }
    return deadline;
}

// The CLOCK_MONOTONIC time nanoseconds from now, saturating.
inline timespec MonotonicDeadline(uint64_t nanoseconds) { return DeadlineOn(CLOCK_MONOTONIC, nanoseconds); }

}  // namespace INTERNAL
}  // namespace KQ
