// Tests of CFs: the path-text table, and copies, moves and node helpers on
// real files in a fresh temporary directory.
#include "KqFile.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using KQ::CFs;

namespace {

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteAll(const std::string& path, const std::string& text, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
}

struct stat StatOf(const std::string& path)
{
    struct stat node = {};
    EXPECT_EQ(0, stat(path.c_str(), &node)) << path;
    return node;
}

// Bytes that differ from piece to piece, 10,001 of them: two whole pieces of
// 4096 and a partial one.
std::string Pattern(size_t length = 10001)
{
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 4096);
    }
    return text;
}

}  // namespace

TEST(CFsPathHelpers, TableRowByRow)
{
    struct Row {
        const char* input;
        const char* strip;
        const char* noExtension;
        const char* filename;
        const char* path;
    };
    const Row rows[] = {
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
    for (const Row& row : rows) {
        SCOPED_TRACE(row.input);
        EXPECT_EQ(row.strip, CFs::StripPath(row.input));
        EXPECT_EQ(row.noExtension, CFs::RemoveExtension(row.input));
        EXPECT_EQ(row.filename, CFs::NormalizeFilename(row.input, "ignored"));
        EXPECT_EQ(row.path, CFs::NormalizePath(row.input, ""));
    }
}

TEST(CFsCopyFile, NewDestinationGetsContentAndModeLessUmask)
{
    KqTest::TempDir dir;
    const mode_t old = umask(027);
    for (size_t length : {size_t(0), size_t(4096), size_t(10001)}) {
        WriteAll(dir / "src", Pattern(length), 0775);
        EXPECT_TRUE(CFs::CopyFile(dir / "src", dir / "new")) << length;
        EXPECT_EQ(Pattern(length), ReadAll(dir / "new"));
        EXPECT_EQ(0750u, StatOf(dir / "new").st_mode & 07777);
        EXPECT_TRUE(CFs::DelFile(dir / "new"));
    }
    umask(old);
}

TEST(CFsCopyFile, ExistingDestinationIsTruncatedAndKeepsItsMode)
{
    KqTest::TempDir dir;
    WriteAll(dir / "src", "short", 0755);
    WriteAll(dir / "dst", Pattern(), 0600);
    ASSERT_TRUE(CFs::CopyFile(dir / "src", dir / "dst"));
    EXPECT_EQ("short", ReadAll(dir / "dst"));
    EXPECT_EQ(0600u, StatOf(dir / "dst").st_mode & 07777);
}

TEST(CFsCopyFile, GivesTheSourceOwnerOrFailsWithoutTrace)
{
    KqTest::TempDir dir;
    WriteAll(dir / "src", "owned");
    if (geteuid() == 0) {
        ASSERT_EQ(0, chown((dir / "src").c_str(), 4321, 4322));
        ASSERT_TRUE(CFs::CopyFile(dir / "src", dir / "dst"));
        EXPECT_EQ(4321u, StatOf(dir / "dst").st_uid);
        EXPECT_EQ(4322u, StatOf(dir / "dst").st_gid);
    } else {
        // fchown to another user is refused to an unprivileged process.
        EXPECT_FALSE(CFs::CopyFile("/etc/passwd", dir / "dst"));
        EXPECT_EQ(EPERM, errno);
        EXPECT_FALSE(CFs::FsNodeExists(dir / "dst"));
    }
}

TEST(CFsCopyFile, MissingSourceTouchesNothing)
{
    KqTest::TempDir dir;
    EXPECT_FALSE(CFs::CopyFile(dir / "missing", dir / "dst"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(CFs::FsNodeExists(dir / "dst"));
    WriteAll(dir / "dst", "kept");
    EXPECT_FALSE(CFs::CopyFile(dir / "missing", dir / "dst"));
    EXPECT_EQ("kept", ReadAll(dir / "dst"));
}

TEST(CFsCopyFile, FailedWriteRemovesTheDestination)
{
    KqTest::TempDir dir;
    WriteAll(dir / "src", Pattern());
    WriteAll(dir / "dst", "existing");
    // A file-size limit of one piece makes the second write fail with EFBIG
    // (SIGXFSZ ignored), as a full file system would.
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
    struct rlimit limited = saved;
    limited.rlim_cur = 4096;
    void (*oldHandler)(int) = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limited));
    const bool copied = CFs::CopyFile(dir / "src", dir / "dst");
    const int error = errno;
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(copied);
    EXPECT_EQ(EFBIG, error);
    EXPECT_FALSE(CFs::FsNodeExists(dir / "dst"));
    EXPECT_EQ(Pattern(), ReadAll(dir / "src"));
}

TEST(CFsCopyFile, FailedReadRemovesTheDestination)
{
    KqTest::TempDir dir;
    ASSERT_TRUE(CFs::MkDir(dir / "sub", 0755));  // stat and open succeed, read fails
    WriteAll(dir / "dst", "truncated");
    EXPECT_FALSE(CFs::CopyFile(dir / "sub", dir / "dst"));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_FALSE(CFs::FsNodeExists(dir / "dst"));
}

TEST(CFsCopyFile, SameFileIsRefusedUntouched)
{
    KqTest::TempDir dir;
    WriteAll(dir / "src", Pattern());
    ASSERT_EQ(0, link((dir / "src").c_str(), (dir / "hard").c_str()));
    ASSERT_EQ(0, symlink("src", (dir / "soft").c_str()));
    ASSERT_TRUE(CFs::MkDir(dir / "sub", 0755));
    for (const std::string& to : {dir / "src", dir / "hard", dir / "soft", dir / "sub/../src"}) {
        errno = 0;
        EXPECT_FALSE(CFs::CopyFile(dir / "src", to)) << to;
        EXPECT_EQ(EINVAL, errno);
        EXPECT_FALSE(CFs::CopyFile(dir / "soft", to)) << to;
        EXPECT_EQ(Pattern(), ReadAll(dir / "src"));
    }
}

TEST(CFsMoveFile, RenamesWithinOneFileSystem)
{
    KqTest::TempDir dir;
    WriteAll(dir / "src", "moved");
    const ino_t inode = StatOf(dir / "src").st_ino;
    ASSERT_TRUE(CFs::MoveFile(dir / "src", dir / "dst"));
    EXPECT_FALSE(CFs::FsNodeExists(dir / "src"));
    EXPECT_EQ(inode, StatOf(dir / "dst").st_ino);
    EXPECT_FALSE(CFs::MoveFile(dir / "src", dir / "again"));
    EXPECT_FALSE(CFs::FsNodeExists(dir / "again"));
}

TEST(CFsMoveFile, CopiesAndDeletesAcrossFileSystems)
{
    KqTest::TempDir dir;
    const std::string other = "/dev/shm/kq-move-" + std::to_string(getpid());
    if (access("/dev/shm", W_OK) != 0 || StatOf("/dev/shm").st_dev == StatOf(dir.Path()).st_dev) {
        GTEST_SKIP() << "/dev/shm is not a separate, writable file system here";
    }
    WriteAll(dir / "src", Pattern(), 0640);
    ASSERT_TRUE(CFs::MoveFile(dir / "src", other));
    EXPECT_FALSE(CFs::FsNodeExists(dir / "src"));
    EXPECT_EQ(Pattern(), ReadAll(other));
    EXPECT_EQ(0640u, StatOf(other).st_mode & 07777);
    EXPECT_TRUE(CFs::DelFile(other));
}

TEST(CFsNodes, MkDirDelFileRenameAndExists)
{
    KqTest::TempDir dir;
    const mode_t old = umask(022);
    EXPECT_TRUE(CFs::MkDir(dir / "d", 0777));
    umask(old);
    EXPECT_EQ(040755u, StatOf(dir / "d").st_mode);
    EXPECT_FALSE(CFs::MkDir(dir / "d", 0777));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_FALSE(CFs::MkDir(dir / "no/parent", 0777));
    EXPECT_EQ(ENOENT, errno);

    WriteAll(dir / "f", "x");
    ASSERT_EQ(0, symlink("f", (dir / "link").c_str()));
    ASSERT_EQ(0, symlink("gone", (dir / "dangling").c_str()));
    EXPECT_TRUE(CFs::FsNodeExists(dir / "d"));
    EXPECT_TRUE(CFs::FsNodeExists(dir / "link"));
    EXPECT_FALSE(CFs::FsNodeExists(dir / "dangling"));

    EXPECT_TRUE(CFs::DelFile(dir / "link"));  // the link, not its target
    EXPECT_TRUE(CFs::FsNodeExists(dir / "f"));
    EXPECT_FALSE(CFs::DelFile(dir / "link"));
    EXPECT_EQ(ENOENT, errno);

    EXPECT_TRUE(CFs::RenameFile(dir / "f", dir / "g"));
    EXPECT_FALSE(CFs::RenameFile(dir / "f", dir / "h"));
}
