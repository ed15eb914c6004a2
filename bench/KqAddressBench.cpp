// Benchmarks of the address parsers, each beside the system parser it is
// compared with: CIpAddress::SetIp vs inet_pton(AF_INET) and
// CIpV6Address::SetIp vs inet_pton(AF_INET6), on the same varied texts.
#include "KqAddress.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <random>
#include <string>
#include <vector>

namespace {

const size_t TEXT_COUNT = 1024;

const std::vector<std::string>& V4Texts()
{
    static const std::vector<std::string> texts = [] {
        std::mt19937 random(41u);
        std::vector<std::string> out;
        for (size_t i = 0; i < TEXT_COUNT; ++i) {
            out.push_back(KQ::CIpAddress(static_cast<unsigned int>(random())).GetIp(false));
        }
        return out;
    }();
    return texts;
}

const std::vector<std::string>& V6Texts()
{
    static const std::vector<std::string> texts = [] {
        std::mt19937 random(42u);
        std::vector<std::string> out;
        for (size_t i = 0; i < TEXT_COUNT; ++i) {
            unsigned char bytes[16];
            for (unsigned char& b : bytes) {
                b = random() % 3 == 0 ? 0 : static_cast<unsigned char>(random());
            }
            out.push_back(KQ::CIpV6Address(KQ::CSlice<unsigned char>(bytes, 16)).GetIp(false));
        }
        return out;
    }();
    return texts;
}

void BM_CIpAddressSetIp(benchmark::State& state)
{
    const std::vector<std::string>& texts = V4Texts();
    KQ::CIpAddress address;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(address.SetIp(texts[i++ % TEXT_COUNT]));
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(BM_CIpAddressSetIp);

void BM_InetPtonV4(benchmark::State& state)
{
    const std::vector<std::string>& texts = V4Texts();
    in_addr address;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(inet_pton(AF_INET, texts[i++ % TEXT_COUNT].c_str(), &address));
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(BM_InetPtonV4);

void BM_CIpV6AddressSetIp(benchmark::State& state)
{
    const std::vector<std::string>& texts = V6Texts();
    KQ::CIpV6Address address;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(address.SetIp(texts[i++ % TEXT_COUNT]));
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(BM_CIpV6AddressSetIp);

void BM_InetPtonV6(benchmark::State& state)
{
    const std::vector<std::string>& texts = V6Texts();
    in6_addr address;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(inet_pton(AF_INET6, texts[i++ % TEXT_COUNT].c_str(), &address));
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(BM_InetPtonV6);

}  // namespace
