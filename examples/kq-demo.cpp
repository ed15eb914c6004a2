// kq-demo: a small program that shows the library in use: an installed print
// hook with timestamps, a hex dump and the four clocks.
#include "Kq.h"

#include <cstdarg>
#include <cstdio>

namespace {

// A print hook that puts the uptime in front of every library line.
int TimestampedPrint(const char* format, ...)
{
    const unsigned long long ms = KQ::Time::GetUptime();
    int written = std::printf("[%llu.%03llu] ", ms / 1000, ms % 1000);
    va_list args;
    va_start(args, format);
    written += std::vprintf(format, args);
    va_end(args);
    return written;
}

}  // namespace

int main()
{
    KQ::Init(&TimestampedPrint);
    KQ::MyPrintf("kq-demo: process %lu", KQ::GetProcessId());

    const unsigned char bytes[] = {0x4B, 0x51, 0x00, 0x1F, 0xA0, 0xFF};
    std::string dump;
    KQ::MyPrintf("hex dump: %s", KQ::HexStream(dump, bytes, sizeof bytes));

    KQ::MyPrintf("1 kHz ticks:  %llu", static_cast<unsigned long long>(KQ::Time::GetTicks1K()));
    KQ::MyPrintf("1 MHz ticks:  %llu", static_cast<unsigned long long>(KQ::Time::GetTicks1M()));
    KQ::MyPrintf("1 GHz ticks:  %llu", static_cast<unsigned long long>(KQ::Time::GetTicks1G()));
    KQ::MyPrintf("27 MHz ticks: %llu", static_cast<unsigned long long>(KQ::Time::GetTicks27M()));
    KQ::MyPrintf("clock resolution: %ld ns", KQ::Time::GetResolution());
    return 0;
}
