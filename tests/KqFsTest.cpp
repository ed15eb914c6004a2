// Tests of CFs and CDirectory on real files and directories in a fresh
// temporary directory: the path-text table, copies and moves, listings with
// links and fifos, sizes to a depth, and removal through the shell.
#include "KqFile.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KQ;
namespace fs = std::filesystem;

namespace {

// Two whole copy pieces of 4096 bytes and a partial one, each piece different.
const std::string DATA = std::string(4096, 'a') + std::string(4096, 'b') + std::string(1809, 'c');

std::string ReadAll(const std::string& p) { return {std::istreambuf_iterator<char>(std::ifstream(p).rdbuf()), {}}; }

void WriteAll(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

std::set<std::string> ListAll(CDirectory& dir, std::string (CDirectory::*next)())
{
    std::set<std::string> names;
    for (std::string name = (dir.*next)(); !name.empty(); name = (dir.*next)()) {
        names.insert(name);
    }
    return names;
}

}  // namespace

TEST(CFsPathHelpers, TableRowByRow)
{
    // input, StripPath, RemoveExtension, NormalizeFilename, NormalizePath
    const char* const rows[][5] = {
        {"dir/sub/file.txt", "file.txt", "file", "dir/sub/file.txt", "dir/sub/file.txt/"},
        {"C:\\dir\\file.txt", "file.txt", "file", "/dir/file.txt", "/dir/file.txt/"},
        {"a\\b/c", "b/c", "b/c", "a/b/c", "a/b/c/"},
        {"dir/archive.tar.gz", "archive.tar.gz", "archive.tar", "dir/archive.tar.gz", "dir/archive.tar.gz/"},
        {"dir.d/file", "file", "file", "dir.d/file", "dir.d/file/"},
        {".profile", ".profile", "", ".profile", ".profile/"},
        {"dir/", "", "", "dir/", "dir/"},
        {"C:file", "C:file", "C:file", "file", "file/"},
        {"x:", "x:", "x:", "", ""},
        {"", "", "", "", ""},
    };
    for (const auto& row : rows) {
        const std::vector<std::string> got = {CFs::StripPath(row[0]), CFs::RemoveExtension(row[0]),
                                              CFs::NormalizeFilename(row[0], "x"), CFs::NormalizePath(row[0], "")};
        EXPECT_EQ(std::vector<std::string>(row + 1, row + 5), got) << row[0];
    }
}

TEST(CFsCopyFile, ContentModeMoveAcrossFileSystemsAndRefusals)
{
    KqTest::TempDir dir;
    WriteAll(dir / "src", DATA);
    WriteAll(dir / "old", DATA + DATA);
    fs::permissions(dir / "src", fs::perms(0775));
    fs::permissions(dir / "old", fs::perms(0600));
    const mode_t mask = umask(027);
    EXPECT_TRUE(CFs::CopyFile(dir / "src", dir / "new"));
    EXPECT_TRUE(CFs::CopyFile(dir / "src", dir / "old"));
    umask(mask);
    EXPECT_EQ(DATA, ReadAll(dir / "new"));
    EXPECT_EQ(DATA, ReadAll(dir / "old"));                                // truncated first
    EXPECT_EQ(fs::perms(0750), fs::status(dir / "new").permissions());  // the source's bits less the umask
    EXPECT_EQ(fs::perms(0600), fs::status(dir / "old").permissions());  // kept
    EXPECT_FALSE(CFs::CopyFile(dir / "missing", dir / "none"));
    EXPECT_FALSE(CFs::FsNodeExists(dir / "none"));
    // The same file under another name is refused untouched.
    ASSERT_EQ(0, link((dir / "src").c_str(), (dir / "hard").c_str()));
    ASSERT_EQ(0, symlink("src", (dir / "soft").c_str()));
    for (const std::string& to : {dir / "src", dir / "hard", dir / "soft"}) {
        errno = 0;
        EXPECT_FALSE(CFs::CopyFile(dir / "soft", to)) << to;
        EXPECT_EQ(EINVAL, errno);
    }
    EXPECT_EQ(DATA, ReadAll(dir / "src"));
    // /dev/shm is another file system here, where rename fails with EXDEV.
    const std::string other = "/dev/shm/kq-move-" + std::to_string(getpid());
    ASSERT_TRUE(CFs::MoveFile(dir / "new", other));
    EXPECT_FALSE(CFs::FsNodeExists(dir / "new"));
    EXPECT_EQ(DATA, ReadAll(other));
    EXPECT_TRUE(CFs::DelFile(other));
    // A file-size limit of one piece fails the second write with EFBIG (SIGXFSZ ignored), like a full disk.
    struct rlimit saved;
    getrlimit(RLIMIT_FSIZE, &saved);
    const struct rlimit limited = {4096, saved.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limited));
    const bool copied = CFs::CopyFile(dir / "src", dir / "old");
    const int error = errno;
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_FALSE(copied);
    EXPECT_EQ(EFBIG, error);
    EXPECT_FALSE(CFs::FsNodeExists(dir / "old"));
}

TEST(CDirectory, ListingsAndSizesWithLinksFifosAndDepths)
{
    KqTest::TempDir tmp;
    // Four levels of two files and a subdirectory d, sizes differing per file.
    std::string path = tmp.Path();
    for (int level = 0; level < 4; ++level, path += "/d") {
        ASSERT_TRUE(CFs::MkDir(path + "/d", 0755));
        WriteAll(path + "/f", std::string(level + 1, 'k'));
        WriteAll(path + "/g", std::string(100 * level + 10, 'k'));
    }
    ASSERT_EQ(0, mkfifo((tmp / "fifo").c_str(), 0644));
    ASSERT_EQ(0, symlink("d/d", (tmp / "to-dir").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (tmp / "dangling").c_str()));
    EXPECT_FALSE(CFs::FsNodeExists(tmp / "dangling"));
    CDirectory dir;
    EXPECT_FALSE(dir.Open(tmp / "new/sub"));  // only the last component is created
    EXPECT_FALSE(dir.CreateFile("f"));        // in the path of the failed Open
    ASSERT_TRUE(dir.Open(tmp / "new"));
    EXPECT_FALSE(dir.Open(""));  // changes nothing: the path stays
    WriteAll(tmp / "new/f", "hello");
    EXPECT_EQ(5u, dir.GetFileSize("f"));
    EXPECT_TRUE(dir.CreateFile("f"));  // truncates
    EXPECT_EQ(0u, dir.GetFileSize("f"));
    EXPECT_EQ(0, dir.CloseFile(dir.OpenFile("f", "r")));
    ASSERT_TRUE(dir.Open(tmp.Path()));
    EXPECT_EQ(std::set<std::string>({"f", "g", "fifo", "to-dir", "dangling"}), ListAll(dir, &CDirectory::GetNextFile));
    EXPECT_EQ("", dir.GetNextEntry());  // both listings share the stream
    dir.Rewind();
    EXPECT_EQ(std::set<std::string>({".", "..", "d", "new", "f", "g", "fifo", "to-dir", "dangling"}),
              ListAll(dir, &CDirectory::GetNextEntry));
    // GetSize against the stat sizes of the regular files at most depth levels below, links followed.
    for (int depth : {0, 1, 2, 3, 100}) {
        uint64_t statSum = 0;
        for (fs::recursive_directory_iterator it(tmp.Path(), fs::directory_options::follow_directory_symlink), end;
             it != end; ++it) {
            statSum += it->is_regular_file() && it.depth() <= depth ? it->file_size() : 0;
        }
        dir.Rewind();
        EXPECT_EQ(statSum, dir.GetSize(depth)) << depth;
        EXPECT_EQ(0u, dir.GetSize(depth));  // the stream is at its end
    }
}

TEST(CDirectoryDeleteAllFiles, RemovesExactlyThePathWhateverItHoldsButNeverTheRoot)
{
    KqTest::TempDir tmp;
    const fs::path home = fs::current_path();
    fs::current_path(tmp.Path());
    WriteAll("a", "sentinel");  // unquoted, the first name removes "a" and runs touch here
    // "-i x" is relative and would be taken for options of rm without a "./" in front.
    for (const auto& name : {tmp / "a 'b' c; touch pwned; echo ", std::string("-i x"), tmp / "q\"$(touch pwned)\\"}) {
        CDirectory dir;
        ASSERT_TRUE(dir.Open(name));
        ASSERT_TRUE(dir.CreateFile("x"));
        EXPECT_TRUE(dir.DeleteAllFiles()) << name;
        EXPECT_FALSE(CFs::FsNodeExists(name));
    }
    EXPECT_TRUE(CFs::FsNodeExists("a"));
    EXPECT_FALSE(CFs::FsNodeExists("pwned"));
    fs::current_path(home);
    // With no rm to be found, a refusal that fails still removes nothing.
    const std::string path = getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    for (const char* root : {"", "/", "//", "/tmp/..", "/."}) {
        CDirectory dir;
        EXPECT_EQ(*root != '\0', dir.Open(root));
        errno = 0;
        EXPECT_FALSE(dir.DeleteAllFiles()) << root;
        EXPECT_EQ(EINVAL, errno);
    }
    setenv("PATH", path.c_str(), 1);
}
