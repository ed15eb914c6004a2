// Finding the last member of a 10,000-member ustar archive: CTarBall::Find
// on the mapped archive against walking the same headers with pread, both
// with the archive already open and with the open counted; and, as a whole
// process, `tar -xOf archive member` spawned per iteration. The archive
// (members of 0 to 1,999 bytes, about 15 MB) is written once into a
// temporary directory and removed at exit.
//
// Whole process against whole process, with public tools:
//   /usr/bin/time -v ./build/examples/kq-tar-cat archive.tar MEMBER >/dev/null
//   /usr/bin/time -v tar -xOf archive.tar MEMBER >/dev/null
#include "KqTarBall.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

const int MEMBER_COUNT = 10000;

std::string MemberName(int i)
{
    char name[32];
    snprintf(name, sizeof name, "data/file-%05d.bin", i);
    return name;
}

// A ustar header that tar itself accepts (checksum included).
std::string Header(const std::string& name, unsigned size)
{
    std::string record(512, '\0');
    record.replace(0, name.size(), name);
    auto field = [&record](size_t offset, size_t width, const char* format, unsigned long value) {
        char text[16];
        snprintf(text, sizeof text, format, value);
        record.replace(offset, width, text, width);
    };
    field(100, 8, "%07lo", 0644);
    field(108, 8, "%07lo", 0);
    field(116, 8, "%07lo", 0);
    field(124, 12, "%011lo", size);
    field(136, 12, "%011lo", 1700000000);
    record[156] = '0';
    record.replace(257, 8, "ustar\0" "00", 8);
    record.replace(148, 8, "        ");
    unsigned long sum = 0;
    for (unsigned char byte : record) {
        sum += byte;
    }
    field(148, 8, "%06lo", sum);
    record[155] = ' ';
    return record;
}

class Archive {
public:
    Archive()
    {
        char pattern[] = "/tmp/kq-tar-bench-XXXXXX";
        m_Dir = mkdtemp(pattern) != nullptr ? pattern : "";
        m_Path = m_Dir + "/archive.tar";
        FILE* out = fopen(m_Path.c_str(), "wb");
        if (out == nullptr) {
            return;
        }
        for (int i = 0; i < MEMBER_COUNT; ++i) {
            const unsigned size = static_cast<unsigned>(i * 37 % 2000);
            const std::string record = Header(MemberName(i), size);
            fwrite(record.data(), 1, record.size(), out);
            std::string data(size + (512 - size % 512) % 512, '\0');
            memset(&data[0], 'a' + i % 26, size);
            fwrite(data.data(), 1, data.size(), out);
        }
        const std::string end(1024, '\0');
        fwrite(end.data(), 1, end.size(), out);
        fclose(out);
    }
    ~Archive()
    {
        unlink(m_Path.c_str());
        rmdir(m_Dir.c_str());
    }
    const std::string& Path() const { return m_Path; }

private:
    std::string m_Dir;
    std::string m_Path;
};

const Archive& TheArchive()
{
    static const Archive archive;
    return archive;
}

const std::string LAST = MemberName(MEMBER_COUNT - 1);

// The baseline walk: one pread of each 512-byte header until the name matches;
// the offset of the member's data, or -1.
long PreadFind(int fd, const std::string& name)
{
    char header[512];
    long offset = 0;
    while (pread(fd, header, sizeof header, offset) == static_cast<ssize_t>(sizeof header)) {
        if (header[0] == '\0' || memcmp(header + 257, "ustar", 5) != 0) {
            break;
        }
        if (strnlen(header, 100) == name.size() && memcmp(header, name.data(), name.size()) == 0) {
            return offset + 512;
        }
        const unsigned long size = strtoul(std::string(header + 124, 12).c_str(), nullptr, 8);
        offset += 512 + static_cast<long>((size + 511) / 512 * 512);
    }
    return -1;
}

void BM_TarBallFindLast(benchmark::State& state)
{
    KQ::CTarBall tar(TheArchive().Path());
    if (!tar.IsFileOk() || tar.Find(LAST) == nullptr) {
        state.SkipWithError("archive not usable");
        return;
    }
    for (auto _ : state) {
        tar.Rewind();
        benchmark::DoNotOptimize(tar.Find(LAST));
    }
}

void BM_PreadWalkFindLast(benchmark::State& state)
{
    const int fd = open(TheArchive().Path().c_str(), O_RDONLY);
    if (fd < 0 || PreadFind(fd, LAST) < 0) {
        state.SkipWithError("archive not usable");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(PreadFind(fd, LAST));
    }
    close(fd);
}

void BM_TarBallOpenAndFindLast(benchmark::State& state)
{
    for (auto _ : state) {
        KQ::CTarBall tar(TheArchive().Path());
        benchmark::DoNotOptimize(tar.Find(LAST));
    }
}

void BM_OpenAndPreadWalkFindLast(benchmark::State& state)
{
    for (auto _ : state) {
        const int fd = open(TheArchive().Path().c_str(), O_RDONLY);
        benchmark::DoNotOptimize(PreadFind(fd, LAST));
        close(fd);
    }
}

// The whole tar process: spawn `tar -xOf archive member` (output to
// /dev/null) and wait for it.
void BM_TarProcessExtractLast(benchmark::State& state)
{
    std::string archive = TheArchive().Path();
    std::string member = LAST;
    char tar[] = "tar", options[] = "-xOf";
    char* argv[] = {tar, options, &archive[0], &member[0], nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        pid_t child = -1;
        if (posix_spawnp(&child, "tar", &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("tar not started");
            break;
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("tar failed");
            break;
        }
    }
    posix_spawn_file_actions_destroy(&actions);
}

}  // namespace

BENCHMARK(BM_TarBallFindLast)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PreadWalkFindLast)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TarBallOpenAndFindLast)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenAndPreadWalkFindLast)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TarProcessExtractLast)->Unit(benchmark::kMicrosecond);
