// Fuzzes CTarBall over arbitrary archive bytes: every input is written to an
// in-memory file, opened by path, walked member by member and searched. Any
// header or data address outside the archive's bytes stops the run, as do
// crashes, sanitizer reports and walks that never end (libFuzzer -timeout).
#include "KqTarBall.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// The one in-memory file, refilled by each input.
int ArchiveDescriptor()
{
    static const int fd = memfd_create("kq-tar-fuzz", 0);
    return fd;
}

bool Refill(const uint8_t* data, size_t size)
{
    const int fd = ArchiveDescriptor();
    if (fd < 0 || ftruncate(fd, 0) != 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        return false;
    }
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Checks that the current header lies whole inside the archive and that its
// data starts within it; touches every data byte that the archive holds.
void CheckCurrent(KQ::CTarBall& tar, const char* base, size_t size)
{
    const char* header = tar.GetCurrFile();
    if (header == nullptr) {
        return;
    }
    if (header < base || header + 512 > base + size) {
        abort();
    }
    const char* data = tar.GetFileOffset();
    if (data == nullptr) {
        return;
    }
    if (data < base || data > base + size) {
        abort();
    }
    const size_t available = static_cast<size_t>(base + size - data);
    const size_t length = tar.GetFileSize() < available ? tar.GetFileSize() : available;
    volatile unsigned sum = 0;
    for (size_t i = 0; i < length; ++i) {
        sum = sum + static_cast<unsigned char>(data[i]);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!Refill(data, size)) {
        return 0;
    }
    KQ::CTarBall tar("/proc/self/fd/" + std::to_string(ArchiveDescriptor()));
    // The first header, whatever its magic, is the start of the mapping.
    const char* base = tar.GetCurrFile();
    if (base == nullptr) {
        // Nothing mapped, or not one whole record: nothing may be found.
        if (tar.Find("") != nullptr || tar.NextFile() >= 0 || tar.Rewind() == 0) {
            abort();
        }
        return 0;
    }
    std::vector<std::string> names;
    do {
        CheckCurrent(tar, base, size);
        const char* name = tar.GetCurrFile();
        names.emplace_back(name, strnlen(name, 100));
    } while (tar.NextFile() >= 0);
    CheckCurrent(tar, base, size);

    // Search for the names seen, the last first (a failed search rewinds).
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        (void)tar.Find(*it);
        CheckCurrent(tar, base, size);
    }
    (void)tar.Find(std::string(reinterpret_cast<const char*>(data), size < 100 ? size : 100));
    CheckCurrent(tar, base, size);
    (void)KQ::CTarBall::OctStr2DecInt(names.front().c_str());
    return 0;
}
