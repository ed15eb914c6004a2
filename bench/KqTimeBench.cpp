// Reading the clock: GetTicks1G against std::chrono::steady_clock::now().
#include "KqTime.h"

#include <benchmark/benchmark.h>

#include <chrono>

namespace {

void BM_GetTicks1G(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(KQ::Time::GetTicks1G());
    }
}
BENCHMARK(BM_GetTicks1G);

void BM_BaselineSteadyClockNow(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    }
}
BENCHMARK(BM_BaselineSteadyClockNow);

void BM_GetTicks27M(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(KQ::Time::GetTicks27M());
    }
}
BENCHMARK(BM_GetTicks27M);

}  // namespace
