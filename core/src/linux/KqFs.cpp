// KqFs.cpp: path-text helpers and file helpers on POSIX calls (Linux).
#include "KqFile.h"

#include "../KqErrnoGuard.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KQ {
namespace {

const size_t COPY_PIECE = 4096;

// What follows position, or "" when there is nothing after it.
std::string After(const std::string& text, size_t position) { return text.substr(position + 1); }

// True when to names the file described by source (links followed).
bool IsSameFile(const struct stat& source, const std::string& to)
{
    struct stat target;
    return stat(to.c_str(), &target) == 0 && target.st_dev == source.st_dev && target.st_ino == source.st_ino;
}

// Closes what is open and removes the destination, keeping the errno of the
// step that failed. Only a regular file is removed: a device or fifo named
// as destination was written to, not created or truncated.
bool AbandonCopy(int out, int in, const std::string& to)
{
    const INTERNAL::CErrnoGuard keep;
    struct stat target;
    const bool regular = fstat(out, &target) == 0 && S_ISREG(target.st_mode);
    close(out);
    if (in >= 0) {
        close(in);
    }
    if (regular) {
        unlink(to.c_str());
    }
    return false;
}

// Moves the whole of in to out, one read and one write of at most
// COPY_PIECE bytes per piece. False on a read error or a short write.
bool CopyContents(int in, int out)
{
    unsigned char buffer[COPY_PIECE];
    for (;;) {
        const ssize_t got = read(in, buffer, sizeof buffer);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        if (write(out, buffer, static_cast<size_t>(got)) != got) {
            return false;
        }
    }
}

}  // namespace

std::string CFs::StripPath(const std::string& path)
{
    const size_t backslash = path.rfind('\\');
    if (backslash != std::string::npos) {
        return After(path, backslash);
    }
    const size_t slash = path.rfind('/');
    return slash != std::string::npos ? After(path, slash) : path;
}

std::string CFs::RemoveExtension(const std::string& path)
{
    const std::string name = StripPath(path);
    const size_t dot = name.rfind('.');
    return dot != std::string::npos ? name.substr(0, dot) : name;
}

std::string CFs::NormalizeFilename(const std::string& name, const std::string&)
{
    std::string result = name;
    for (char& c : result) {
        if (c == '\\') {
            c = '/';
        }
    }
    if (result.size() >= 2 && result[1] == ':') {
        result.erase(0, 2);
    }
    return result;
}

std::string CFs::NormalizePath(const std::string& path, const std::string& unused)
{
    std::string result = NormalizeFilename(path, unused);
    if (!result.empty() && result.back() != '/') {
        result += '/';
    }
    return result;
}

bool CFs::RenameFile(const std::string& from, const std::string& to)
{
    return rename(from.c_str(), to.c_str()) == 0;
}

bool CFs::CopyFile(const std::string& from, const std::string& to)
{
    struct stat source;
    if (stat(from.c_str(), &source) != 0) {
        return false;
    }
    // Creating the destination would truncate the source if both are one file.
    if (IsSameFile(source, to)) {
        errno = EINVAL;
        return false;
    }
    // creat() with close-on-exec, so a shell run by another thread keeps no copy.
    const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, source.st_mode & 07777);
    if (out < 0) {
        return false;
    }
    if (fchown(out, source.st_uid, source.st_gid) != 0) {
        return AbandonCopy(out, -1, to);
    }
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        return AbandonCopy(out, -1, to);
    }
    if (!CopyContents(in, out)) {
        return AbandonCopy(out, in, to);
    }
    close(in);
    close(out);
    return true;
}

bool CFs::MoveFile(const std::string& from, const std::string& to)
{
    if (RenameFile(from, to)) {
        return true;
    }
    if (!CopyFile(from, to)) {
        return false;
    }
    unlink(from.c_str());
    return true;
}

bool CFs::MkDir(const std::string& path, unsigned int mode)
{
    return mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0;
}

bool CFs::DelFile(const std::string& path) { return unlink(path.c_str()) == 0; }

bool CFs::FsNodeExists(const std::string& path)
{
    struct stat node;
    return stat(path.c_str(), &node) == 0;
}

}  // namespace KQ
