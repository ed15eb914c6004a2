// kq-fstool: the file-system helpers from the command line, one operation
// per run, so that each can be timed as a whole process.
//   kq-fstool size DIR [DEPTH]   prints the bytes of the files below DIR
//                                (CDirectory::GetSize, DEPTH levels, default 64)
//   kq-fstool copy FROM TO       copies a file (CFs::CopyFile)
#include "Kq.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

int Usage()
{
    std::fprintf(stderr, "usage: kq-fstool size DIR [DEPTH] | kq-fstool copy FROM TO\n");
    return 2;
}

int PrintSize(const std::string& path, unsigned int depth)
{
    KQ::CDirectory dir;
    if (path.empty() || !KQ::CFs::FsNodeExists(path) || !dir.Open(path)) {
        std::perror(path.c_str());
        return 1;
    }
    std::printf("%llu\t%s\n", static_cast<unsigned long long>(dir.GetSize(depth)), path.c_str());
    return 0;
}

int Copy(const std::string& from, const std::string& to)
{
    if (!KQ::CFs::CopyFile(from, to)) {
        std::perror(from.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "size" && (argc == 3 || argc == 4)) {
        return PrintSize(argv[2], argc == 4 ? static_cast<unsigned int>(std::strtoul(argv[3], nullptr, 10)) : 64);
    }
    if (command == "copy" && argc == 4) {
        return Copy(argv[2], argv[3]);
    }
    return Usage();
}
