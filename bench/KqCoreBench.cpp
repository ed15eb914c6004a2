// Calling and copying CFunctor against std::function holding the same target.
#include "KqCore.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <thread>

namespace {

class Counter {
public:
    bool Step()
    {
        ++m_Value;
        return true;
    }
    unsigned long m_Value = 0;
};

// Reference counts are atomic; with a second thread alive glibc and the
// compiler cannot treat the process as single-threaded.
class SecondThread {
public:
    SecondThread() : m_Thread([] {}) {}
    ~SecondThread() { m_Thread.join(); }

private:
    std::thread m_Thread;
};

void BM_CallMemberFunctor(benchmark::State& state)
{
    Counter counter;
    const KQ::CFunctor<bool ()> functor = KQ::MakeMemberFunctor<&Counter::Step>(&counter);
    benchmark::DoNotOptimize(&functor);
    for (auto _ : state) {
        benchmark::DoNotOptimize(functor());
    }
}
BENCHMARK(BM_CallMemberFunctor);

void BM_BaselineCallStdFunction(benchmark::State& state)
{
    Counter counter;
    const std::function<bool ()> function = std::bind(&Counter::Step, &counter);
    benchmark::DoNotOptimize(&function);
    for (auto _ : state) {
        benchmark::DoNotOptimize(function());
    }
}
BENCHMARK(BM_BaselineCallStdFunction);

void BM_CopyMemberFunctor(benchmark::State& state)
{
    SecondThread second;
    Counter counter;
    const KQ::CFunctor<bool ()> functor = KQ::MakeMemberFunctor<&Counter::Step>(&counter);
    for (auto _ : state) {
        KQ::CFunctor<bool ()> copy(functor);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(BM_CopyMemberFunctor);

void BM_BaselineCopyStdFunctionMemberCall(benchmark::State& state)
{
    Counter counter;
    const std::function<bool ()> function = [&counter] { return counter.Step(); };
    for (auto _ : state) {
        std::function<bool ()> copy(function);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(BM_BaselineCopyStdFunctionMemberCall);

void BM_BaselineCopyStdFunctionBoundMember(benchmark::State& state)
{
    Counter counter;
    const std::function<bool ()> function = std::bind(&Counter::Step, &counter);
    for (auto _ : state) {
        std::function<bool ()> copy(function);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(BM_BaselineCopyStdFunctionBoundMember);

// An owning functor: a copy takes and drops one atomic reference.
void BM_CopyOwningFunctor(benchmark::State& state)
{
    SecondThread second;
    Counter counter;
    const KQ::CFunctor<bool ()> functor = KQ::MakeFunctor([&counter] { return counter.Step(); });
    for (auto _ : state) {
        KQ::CFunctor<bool ()> copy(functor);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(BM_CopyOwningFunctor);

void BM_CallOwningFunctor(benchmark::State& state)
{
    Counter counter;
    const KQ::CFunctor<bool ()> functor = KQ::MakeFunctor([&counter] { return counter.Step(); });
    benchmark::DoNotOptimize(&functor);
    for (auto _ : state) {
        benchmark::DoNotOptimize(functor());
    }
}
BENCHMARK(BM_CallOwningFunctor);

void BM_BaselineCallStdFunctionLambda(benchmark::State& state)
{
    Counter counter;
    const std::function<bool ()> function = [&counter] { return counter.Step(); };
    benchmark::DoNotOptimize(&function);
    for (auto _ : state) {
        benchmark::DoNotOptimize(function());
    }
}
BENCHMARK(BM_BaselineCallStdFunctionLambda);

}  // namespace
