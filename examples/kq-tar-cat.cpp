// kq-tar-cat: writes one member of a ustar archive to standard output, read
// in place from the mapped archive (like `tar -xOf ARCHIVE MEMBER`).
// Exit status: 0 written, 1 no such member, 2 unusable archive or usage,
// 3 the archive ends inside the member's data, 4 write error.
#include "KqTarBall.h"

#include <cstdio>

#include <sys/stat.h>

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s ARCHIVE MEMBER\n", argv[0]);
        return 2;
    }
    KQ::CTarBall tar(argv[1]);
    if (!tar.IsFileOk()) {
        fprintf(stderr, "%s: not a usable ustar archive (status %d)\n", argv[1], tar.GetStatus());
        return 2;
    }
    // The first header is the start of the mapping; Find moves on from it.
    const char* archiveStart = tar.GetCurrFile();
    const char* data = tar.Find(argv[2]);
    if (data == nullptr) {
        fprintf(stderr, "%s: no member %s\n", argv[1], argv[2]);
        return 1;
    }
    // Headers are trusted by the reader: check that the data is really there.
    struct stat st;
    if (stat(argv[1], &st) != 0 || static_cast<unsigned long long>(data - archiveStart) + tar.GetFileSize() >
                                       static_cast<unsigned long long>(st.st_size)) {
        fprintf(stderr, "%s: member %s is cut short\n", argv[1], argv[2]);
        return 3;
    }
    return fwrite(data, 1, tar.GetFileSize(), stdout) == tar.GetFileSize() && fflush(stdout) == 0 ? 0 : 4;
}
