// MyPrintf into a no-op hook against its baseline, vsnprintf into a stack
// buffer with the same format and arguments.
#include "KqOutput.h"

#include <benchmark/benchmark.h>

#include <cstdarg>
#include <cstdio>

namespace {

int NoOpHook(const char* format, ...)
{
    benchmark::DoNotOptimize(format);
    return 0;
}

// The baseline: format into a 256-byte stack buffer and hand it on.
void FormatOnStack(const char* format, ...)
{
    char buffer[256] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    NoOpHook("%s\n", buffer);
}

void BM_MyPrintfNoOpHook(benchmark::State& state)
{
    KQ::Init(&NoOpHook);
    int i = 0;
    for (auto _ : state) {
        KQ::MyPrintf("event %d on queue %s after %u ms", ++i, "/kq-demo", 250u);
    }
    KQ::Init(&printf);
}
BENCHMARK(BM_MyPrintfNoOpHook);

void BM_BaselineVsnprintfStackBuffer(benchmark::State& state)
{
    int i = 0;
    for (auto _ : state) {
        FormatOnStack("event %d on queue %s after %u ms", ++i, "/kq-demo", 250u);
    }
}
BENCHMARK(BM_BaselineVsnprintfStackBuffer);

}  // namespace
