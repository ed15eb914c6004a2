// Benchmarks of the environment block with 10,000 entries, each beside a
// plain std::map doing the same work: filling from name=value lines, filling
// from a serialised block, and writing the serialised block.
#include "KqEnvBlock.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

const int ENTRY_COUNT = 10000;

typedef std::map<std::string, std::string> Map_t;

const std::string& Lines()
{
    static const std::string text = [] {
        std::string out;
        for (int i = 0; i < ENTRY_COUNT; ++i) {
            // Names not in sorted order, values of varied length.
            out += "VARIABLE_" + std::to_string((i * 7919) % ENTRY_COUNT) + "=/usr/local/value/" +
                   std::string(static_cast<size_t>(i % 23), 'x') + "\n";
        }
        return out;
    }();
    return text;
}

size_t BlockSize()
{
    return Lines().size() + 1;  // each line's '\n' becomes its NUL, plus the end NUL
}

std::vector<char> Block()
{
    std::vector<char> block(BlockSize());
    KQ::CEnvBlock env(false);
    env.Deserialize(Lines(), '\n');
    env.Serialize(block.data());
    return block;
}

// The baseline's split of one line into the map, with the same rules.
void MapAdd(Map_t& map, const char* line, size_t length)
{
    const char* equals = static_cast<const char*>(memchr(line, '=', length));
    if (equals == nullptr || equals == line || equals + 1 == line + length) {
        return;
    }
    map[std::string(line, equals)].assign(equals + 1, line + length);
}

void BM_EnvBlockFromLines(benchmark::State& state)
{
    for (auto _ : state) {
        KQ::CEnvBlock env(false);
        env.Deserialize(Lines(), '\n');
        benchmark::DoNotOptimize(env);
    }
}
BENCHMARK(BM_EnvBlockFromLines)->Unit(benchmark::kMicrosecond);

void BM_MapFromLines(benchmark::State& state)
{
    const std::string& text = Lines();
    for (auto _ : state) {
        Map_t map;
        for (size_t position = 0; position < text.size();) {
            size_t end = text.find('\n', position);
            end = end == std::string::npos ? text.size() : end;
            MapAdd(map, text.data() + position, end - position);
            position = end + 1;
        }
        benchmark::DoNotOptimize(map);
    }
}
BENCHMARK(BM_MapFromLines)->Unit(benchmark::kMicrosecond);

void BM_EnvBlockFromBlock(benchmark::State& state)
{
    std::vector<char> block = Block();
    for (auto _ : state) {
        KQ::CEnvBlock env(false);
        env.Deserialize(block.data());
        benchmark::DoNotOptimize(env);
    }
}
BENCHMARK(BM_EnvBlockFromBlock)->Unit(benchmark::kMicrosecond);

void BM_MapFromBlock(benchmark::State& state)
{
    const std::vector<char> block = Block();
    for (auto _ : state) {
        Map_t map;
        for (const char* p = block.data(); *p != '\0';) {
            const size_t length = strlen(p);
            MapAdd(map, p, length);
            p += length + 1;
        }
        benchmark::DoNotOptimize(map);
    }
}
BENCHMARK(BM_MapFromBlock)->Unit(benchmark::kMicrosecond);

void BM_EnvBlockSerialize(benchmark::State& state)
{
    KQ::CEnvBlock env(false);
    env.Deserialize(Lines(), '\n');
    std::vector<char> out(BlockSize());
    for (auto _ : state) {
        env.Serialize(out.data());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_EnvBlockSerialize)->Unit(benchmark::kMicrosecond);

void BM_MapSerialize(benchmark::State& state)
{
    Map_t map;
    const std::string& text = Lines();
    for (size_t position = 0; position < text.size();) {
        const size_t end = text.find('\n', position);
        MapAdd(map, text.data() + position, end - position);
        position = end + 1;
    }
    std::vector<char> out(BlockSize());
    for (auto _ : state) {
        char* p = out.data();
        for (const auto& entry : map) {
            memcpy(p, entry.first.data(), entry.first.size());
            p += entry.first.size();
            *p++ = '=';
            memcpy(p, entry.second.data(), entry.second.size());
            p += entry.second.size();
            *p++ = '\0';
        }
        *p = '\0';
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_MapSerialize)->Unit(benchmark::kMicrosecond);

}  // namespace
