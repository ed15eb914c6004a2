// KqDirectory.cpp: a directory stream with its path, listing, sizing and
// removal (Linux).
#include "KqFile.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KQ {

struct CDirectory::Handle_t {
    DIR* pDir;
    struct dirent* pEntry;  // what the last readdir returned; null after the end
};

namespace {

bool IsDotOrDotDot(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

uint64_t SumSubdirectory(int parent, const char* name, unsigned int depth);

// Adds up the sizes of the entries that dir still has to give, descending
// depth levels. Entries are stated relative to the stream's own descriptor,
// so each costs one lookup of one name; links are followed.
uint64_t SumEntries(DIR* dir, unsigned int depth, struct dirent*& entry)
{
    const int fd = dirfd(dir);
    uint64_t total = 0;
    while ((entry = readdir(dir)) != nullptr) {
        struct stat node;
        if (fstatat(fd, entry->d_name, &node, 0) != 0) {
            continue;
        }
        if (!S_ISDIR(node.st_mode)) {
            total += static_cast<uint64_t>(node.st_size);
        } else if (depth > 0 && !IsDotOrDotDot(entry->d_name)) {
            total += SumSubdirectory(fd, entry->d_name, depth - 1);
        }
    }
    return total;
}

// The size of the subdirectory name of parent, from its first entry; 0 when
// it can't be opened. The subdirectory is never created.
uint64_t SumSubdirectory(int parent, const char* name, unsigned int depth)
{
    const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        return 0;
    }
    struct dirent* entry = nullptr;
    const uint64_t total = SumEntries(dir, depth, entry);
    closedir(dir);
    return total;
}

// path, single-quoted for the shell: every ' becomes '\''. A path that
// starts with '-' gets "./" in front so that rm can't take it for options.
std::string QuoteForShell(const std::string& path)
{
    std::string quoted = "'";
    if (path[0] == '-') {
        quoted += "./";
    }
    for (char c : path) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// True for "/", "//", ... and for any path that leads to the root directory.
bool IsRootDirectory(const std::string& path)
{
    if (path.find_first_not_of('/') == std::string::npos) {
        return true;
    }
    struct stat node;
    struct stat root;
    return stat(path.c_str(), &node) == 0 && stat("/", &root) == 0 && node.st_dev == root.st_dev &&
           node.st_ino == root.st_ino;
}

}  // namespace

CDirectory::CDirectory() : m_pHandle(new Handle_t{nullptr, nullptr}) {}

CDirectory::~CDirectory()
{
    Close();
    delete m_pHandle;
}

bool CDirectory::Open(const std::string& path)
{
    if (path.empty()) {
        return false;
    }
    Close();
    m_Path = path;
    if (m_Path.back() != '/') {
        m_Path += '/';
    }
    m_pHandle->pDir = opendir(m_Path.c_str());
    if (m_pHandle->pDir != nullptr) {
        return true;
    }
    if (errno != ENOENT || mkdir(m_Path.c_str(), 0777) != 0) {
        return false;
    }
    m_pHandle->pDir = opendir(m_Path.c_str());
    return m_pHandle->pDir != nullptr;
}

void CDirectory::Close()
{
    if (m_pHandle->pDir != nullptr) {
        closedir(m_pHandle->pDir);
        m_pHandle->pDir = nullptr;
    }
    m_pHandle->pEntry = nullptr;
}

void CDirectory::Rewind()
{
    if (m_pHandle->pDir != nullptr) {
        rewinddir(m_pHandle->pDir);
    }
}

std::string CDirectory::GetNextEntry()
{
    if (m_pHandle->pDir == nullptr) {
        return std::string();
    }
    m_pHandle->pEntry = readdir(m_pHandle->pDir);
    return m_pHandle->pEntry != nullptr ? std::string(m_pHandle->pEntry->d_name) : std::string();
}

std::string CDirectory::GetNextFile()
{
    if (m_pHandle->pDir == nullptr) {
        return std::string();
    }
    const int fd = dirfd(m_pHandle->pDir);
    while ((m_pHandle->pEntry = readdir(m_pHandle->pDir)) != nullptr) {
        struct stat node;
        if (fstatat(fd, m_pHandle->pEntry->d_name, &node, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(node.st_mode)) {
            return m_pHandle->pEntry->d_name;
        }
    }
    return std::string();
}

bool CDirectory::DeleteAllFiles()
{
    // An empty path would make the command "rm -rf ''"; the root is never removed.
    if (m_Path.empty() || IsRootDirectory(m_Path)) {
        errno = EINVAL;
        return false;
    }
    const std::string command = "rm -rf " + QuoteForShell(m_Path);
    return std::system(command.c_str()) == 0;
}

FILE* CDirectory::OpenFile(const std::string& name, const std::string& mode) const
{
    return std::fopen((m_Path + name).c_str(), mode.c_str());
}

int CDirectory::CloseFile(FILE* file) const { return file != nullptr ? std::fclose(file) : EOF; }

uint64_t CDirectory::GetFileSize(const std::string& name) const
{
    struct stat node;
    return stat((m_Path + name).c_str(), &node) == 0 ? static_cast<uint64_t>(node.st_size) : 0;
}

bool CDirectory::CreateFile(const std::string& name) const
{
    // creat() with close-on-exec, so a shell run by another thread keeps no copy.
    const int fd = open((m_Path + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

uint64_t CDirectory::GetSize(unsigned int depth)
{
    if (m_pHandle->pDir == nullptr) {
        return 0;
    }
    return SumEntries(m_pHandle->pDir, depth, m_pHandle->pEntry);
}

}  // namespace KQ
