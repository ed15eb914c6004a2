// KqTime.h: the library's one time base, and the process id.
//
// Every function reads CLOCK_MONOTONIC_RAW once: a clock that never goes
// back and is not moved by setting the wall clock or by time
// synchronisation. Its zero is the system's (in practice the boot), so
// readings are only meaningful as differences. Nothing here keeps state, and
// all of it may be called from any thread.
#pragma once

#include "KqExport.h"

#include <cstdint>

namespace KQ {
namespace Time {

// Milliseconds: seconds * 1,000 + nanoseconds / 1,000,000.
KQ_API uint64_t GetTicks1K();
// Microseconds: seconds * 1,000,000 + nanoseconds / 1,000.
KQ_API uint64_t GetTicks1M();
// Nanoseconds: seconds * 1,000,000,000 + nanoseconds.
KQ_API uint64_t GetTicks1G();
// Ticks of a 27 MHz clock: seconds * 27,000,000 + nanoseconds * 27 / 1,000
// (rounded down, exact for every nanoseconds value).
KQ_API uint64_t GetTicks27M();
// Milliseconds since the clock's zero; the same value as GetTicks1K().
KQ_API uint64_t GetUptime();
// The clock's resolution in nanoseconds (the nanoseconds field of
// clock_getres on the same clock), e.g. 1 on a 1 ns clock.
KQ_API long GetResolution();

namespace INTERNAL {

// The conversions of one clock reading (whole seconds, nanoseconds below
// 1,000,000,000) into each tick rate, in 64-bit arithmetic rounding down.
inline uint64_t ToTicks1K(uint64_t seconds, uint32_t nanoseconds) { return seconds * 1000u + nanoseconds / 1000000u; }
inline uint64_t ToTicks1M(uint64_t seconds, uint32_t nanoseconds) { return seconds * 1000000u + nanoseconds / 1000u; }
inline uint64_t ToTicks1G(uint64_t seconds, uint32_t nanoseconds) { return seconds * 1000000000u + nanoseconds; }
inline uint64_t ToTicks27M(uint64_t seconds, uint32_t nanoseconds)
{
    return seconds * 27000000u + static_cast<uint64_t>(nanoseconds) * 27u / 1000u;
}

}  // namespace INTERNAL
}  // namespace Time

// The calling process's id (getpid()), widened to 64 bits.
KQ_API unsigned long GetProcessId();

}  // namespace KQ
