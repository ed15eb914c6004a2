// Copying a 64 MiB file: CFs::CopyFile (pieces of 4096 bytes) against the
// same read/write loop written out, and against running `cp` as a process.
#include "KqFile.h"

#include "../tests/KqTestSupport.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

const size_t FILE_BYTES = 64u << 20;

// The source file, made once.
const KqTest::TempDir& Files()
{
    static KqTest::TempDir dir;
    static bool made = false;
    if (!made) {
        std::vector<char> bytes(FILE_BYTES);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<char>(i * 31 + i / 4096);
        }
        std::ofstream(dir / "source", std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        made = true;
    }
    return dir;
}

void BM_CFsCopyFile(benchmark::State& state)
{
    const std::string from = Files() / "source";
    const std::string to = Files() / "copy";
    for (auto _ : state) {
        benchmark::DoNotOptimize(KQ::CFs::CopyFile(from, to));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * FILE_BYTES));
}
BENCHMARK(BM_CFsCopyFile)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BaselineReadWrite4K(benchmark::State& state)
{
    const std::string from = Files() / "source";
    const std::string to = Files() / "copy";
    char buffer[4096];
    for (auto _ : state) {
        const int in = open(from.c_str(), O_RDONLY);
        const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ssize_t got;
        while ((got = read(in, buffer, sizeof buffer)) > 0) {
            benchmark::DoNotOptimize(write(out, buffer, static_cast<size_t>(got)));
        }
        close(in);
        close(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * FILE_BYTES));
}
BENCHMARK(BM_BaselineReadWrite4K)->Unit(benchmark::kMillisecond)->UseRealTime();

// A whole process, start-up included.
void BM_BaselineCpProcess(benchmark::State& state)
{
    const std::string command = "cp " + Files() / "source" + " " + Files() / "copy";
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::system(command.c_str()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * FILE_BYTES));
}
BENCHMARK(BM_BaselineCpProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
