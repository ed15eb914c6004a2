// Sizing a tree of 10,000 files: CDirectory::GetSize against the same walk
// done with nftw and one stat per entry (the way du walks), and against
// running `du -sb` as a process.
#include "KqFile.h"

#include "../tests/KqTestSupport.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>

#include <ftw.h>
#include <sys/stat.h>

namespace {

const int DIRECTORIES = 100;
const int FILES_PER_DIRECTORY = 100;

// 100 directories of 100 files each, of 0 to 4095 bytes, made once.
const KqTest::TempDir& Tree()
{
    static KqTest::TempDir tree;
    static bool made = false;
    if (!made) {
        for (int d = 0; d < DIRECTORIES; ++d) {
            const std::string dir = tree / ("d" + std::to_string(d));
            mkdir(dir.c_str(), 0755);
            for (int f = 0; f < FILES_PER_DIRECTORY; ++f) {
                std::ofstream(dir + "/f" + std::to_string(f)) << std::string((d * 131 + f * 17) % 4096, 'k');
            }
        }
        made = true;
    }
    return tree;
}

void BM_CDirectoryGetSize(benchmark::State& state)
{
    const std::string root = Tree().Path();
    for (auto _ : state) {
        KQ::CDirectory dir;
        dir.Open(root);
        benchmark::DoNotOptimize(dir.GetSize(64));
    }
    state.SetItemsProcessed(state.iterations() * DIRECTORIES * FILES_PER_DIRECTORY);
}
BENCHMARK(BM_CDirectoryGetSize)->Unit(benchmark::kMillisecond)->UseRealTime();

uint64_t g_NftwTotal;

void BM_BaselineNftwStat(benchmark::State& state)
{
    const std::string root = Tree().Path();
    for (auto _ : state) {
        g_NftwTotal = 0;
        nftw(root.c_str(),
             [](const char*, const struct stat* node, int type, struct FTW*) {
                 if (type == FTW_F) {
                     g_NftwTotal += static_cast<uint64_t>(node->st_size);
                 }
                 return 0;
             },
             16, FTW_PHYS);
        benchmark::DoNotOptimize(g_NftwTotal);
    }
    state.SetItemsProcessed(state.iterations() * DIRECTORIES * FILES_PER_DIRECTORY);
}
BENCHMARK(BM_BaselineNftwStat)->Unit(benchmark::kMillisecond)->UseRealTime();

// A whole process, start-up included.
void BM_BaselineDuProcess(benchmark::State& state)
{
    const std::string command = "du -sb " + Tree().Path() + " >/dev/null";
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::system(command.c_str()));
    }
    state.SetItemsProcessed(state.iterations() * DIRECTORIES * FILES_PER_DIRECTORY);
}
BENCHMARK(BM_BaselineDuProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
