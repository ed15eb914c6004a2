// Named-queue messages per second: CNamedQ Send + Receive against plain
// mq_send + mq_receive on a queue of the same shape, in one thread. The
// argument is the queue's slot size in bytes; each message is a 32-character
// text with its NUL.
#include "KqNamedQ.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <fcntl.h>
#include <mqueue.h>
#include <unistd.h>

namespace {

const unsigned long DEPTH = 10;

std::string BenchQueueName(const char* kind)
{
    return std::string("kq-bench-") + kind + "-" + std::to_string(getpid());
}

void BM_NamedQSendReceive(benchmark::State& state)
{
    KQ::CNamedQ q(BenchQueueName("kq"), true, static_cast<unsigned long>(state.range(0)), DEPTH);
    if (!q.IsValid()) {
        state.SkipWithError("queue not created");
        return;
    }
    const std::string text(32, 'm');
    for (auto _ : state) {
        q.Send(text);
        benchmark::DoNotOptimize(q.Receive(0));
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_PlainMqSendReceive(benchmark::State& state)
{
    const std::string name = "/" + BenchQueueName("plain");
    mq_attr attr = {};
    attr.mq_maxmsg = DEPTH;
    attr.mq_msgsize = state.range(0);
    const mqd_t q = mq_open(name.c_str(), O_RDWR | O_CREAT, 0770, &attr);
    if (q == static_cast<mqd_t>(-1)) {
        state.SkipWithError("queue not created");
        return;
    }
    const std::string text(32, 'm');
    std::vector<char> buffer(static_cast<size_t>(state.range(0)));
    unsigned int priority = 0;
    for (auto _ : state) {
        mq_send(q, text.c_str(), text.size() + 1, 0);
        benchmark::DoNotOptimize(mq_receive(q, buffer.data(), buffer.size(), &priority));
    }
    state.SetItemsProcessed(state.iterations());
    mq_close(q);
    mq_unlink(name.c_str());
}

}  // namespace

BENCHMARK(BM_NamedQSendReceive)->Arg(64)->Arg(1024);
BENCHMARK(BM_PlainMqSendReceive)->Arg(64)->Arg(1024);
