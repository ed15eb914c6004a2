// KqSemaphoreWait.h: the library's internal nanosecond form of the
// semaphore's timed wait (not installed, not exported).
#pragma once

#include "KqSync.h"

#include <cstdint>

namespace KQ {
namespace INTERNAL {

// Takes one unit of sem, waiting up to nanoseconds on CLOCK_MONOTONIC: the
// relative time becomes an absolute deadline for sem_clockwait, clamped to
// the clock's range. A unit that is available is always taken (also with 0);
// false when the time ran out or a signal interrupted the wait.
bool WaitNs(CSemaphore& sem, uint64_t nanoseconds);

}  // namespace INTERNAL
}  // namespace KQ
