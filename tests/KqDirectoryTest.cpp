// Tests of CDirectory on real directories in a fresh temporary directory:
// opening and creating, listings with links and fifos, sizes to a depth,
// files by name, and removal through the shell.
#include "KqFile.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <set>

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

using KQ::CDirectory;

namespace {

void WriteBytes(const std::string& path, size_t length) { std::ofstream(path) << std::string(length, 'k'); }

std::set<std::string> ListAll(CDirectory& dir, std::string (CDirectory::*next)())
{
    std::set<std::string> names;
    for (std::string name = (dir.*next)(); !name.empty(); name = (dir.*next)()) {
        names.insert(name);
    }
    return names;
}

// Adds up st_size of the regular files at most depth + 1 levels below root,
// as found by an independent walk.
uint64_t SizeByStat(const std::string& root, int depth)
{
    static uint64_t total;
    static int maxLevel;
    total = 0;
    maxLevel = depth + 1;
    nftw(root.c_str(),
         [](const char*, const struct stat* node, int type, struct FTW* where) {
             if (type == FTW_F && where->level <= maxLevel) {
                 total += static_cast<uint64_t>(node->st_size);
             }
             return 0;
         },
         16, FTW_PHYS);
    return total;
}

// Puts a stand-in for rm first in PATH that records its arguments, one per
// line, and exits with the given status; restores PATH afterwards.
struct FakeRm {
    FakeRm(const KqTest::TempDir& dir, int status) : m_Log(dir / "rm.log"), m_OldPath(getenv("PATH"))
    {
        mkdir((dir / "bin").c_str(), 0755);
        std::ofstream(dir / "bin/rm") << "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\" >>'" << m_Log << "'; done\nexit "
                                      << status << "\n";
        chmod((dir / "bin/rm").c_str(), 0755);
        setenv("PATH", (dir / "bin").c_str(), 1);
    }
    ~FakeRm() { setenv("PATH", m_OldPath.c_str(), 1); }
    std::string Log() const
    {
        std::ifstream in(m_Log);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::string m_Log;
    std::string m_OldPath;
};

// Runs the test in another working directory and goes back afterwards.
struct WorkIn {
    explicit WorkIn(const std::string& path) : m_Old(getcwd(nullptr, 0)) { EXPECT_EQ(0, chdir(path.c_str())); }
    ~WorkIn()
    {
        EXPECT_EQ(0, chdir(m_Old));
        free(m_Old);
    }
    char* m_Old;
};

}  // namespace

TEST(CDirectoryOpen, CreatesOnlyTheLastComponent)
{
    KqTest::TempDir tmp;
    CDirectory dir;
    EXPECT_TRUE(dir.Open(tmp / "new"));
    struct stat node;
    ASSERT_EQ(0, stat((tmp / "new").c_str(), &node));
    EXPECT_TRUE(S_ISDIR(node.st_mode));
    EXPECT_FALSE(dir.Open(tmp / "no/parent"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("", dir.GetNextEntry());  // the old stream was closed
    // The path of the failed Open is kept for the name-based operations.
    EXPECT_FALSE(dir.CreateFile("f"));
    ASSERT_TRUE(dir.Open(tmp / "plain"));
    EXPECT_TRUE(dir.CreateFile("f"));
    ASSERT_TRUE(dir.Open(tmp / "plain/"));
    EXPECT_FALSE(dir.Open(""));  // changes nothing: the stream stays open
    EXPECT_EQ(std::set<std::string>({".", "..", "f"}), ListAll(dir, &CDirectory::GetNextEntry));
}

TEST(CDirectoryListing, EntriesAndFilesWithLinksAndFifos)
{
    KqTest::TempDir tmp;
    WriteBytes(tmp / "file", 1);
    ASSERT_EQ(0, mkdir((tmp / "sub").c_str(), 0755));
    ASSERT_EQ(0, mkfifo((tmp / "fifo").c_str(), 0644));
    ASSERT_EQ(0, symlink("sub", (tmp / "to-dir").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (tmp / "dangling").c_str()));
    CDirectory dir;
    ASSERT_TRUE(dir.Open(tmp.Path()));
    const std::set<std::string> files = {"file", "fifo", "to-dir", "dangling"};
    std::set<std::string> entries = files;
    entries.insert({".", "..", "sub"});
    EXPECT_EQ(entries, ListAll(dir, &CDirectory::GetNextEntry));
    EXPECT_EQ("", dir.GetNextFile());
    dir.Rewind();
    EXPECT_EQ(files, ListAll(dir, &CDirectory::GetNextFile));
    EXPECT_EQ("", dir.GetNextEntry());
    dir.Rewind();
    EXPECT_EQ(entries, ListAll(dir, &CDirectory::GetNextEntry));
    dir.Close();
    dir.Rewind();
    EXPECT_EQ("", dir.GetNextFile());
}

TEST(CDirectoryGetSize, EachDepthMatchesStatSums)
{
    KqTest::TempDir tmp;
    // Three levels, sizes that differ per file so a miscount shows.
    std::string path = tmp.Path();
    for (int level = 0; level < 4; ++level) {
        for (int i = 0; i < 3; ++i) {
            WriteBytes(path + "/f" + std::to_string(i), static_cast<size_t>(100 * level + 17 * i + 1));
        }
        ASSERT_EQ(0, mkdir((path + "/empty").c_str(), 0755));
        path += "/d";
        if (level < 3) {
            ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        }
    }
    for (unsigned int depth : {0u, 1u, 2u, 3u, 100u}) {
        CDirectory dir;
        ASSERT_TRUE(dir.Open(tmp.Path()));
        EXPECT_EQ(SizeByStat(tmp.Path(), static_cast<int>(depth)), dir.GetSize(depth)) << depth;
        EXPECT_EQ(0u, dir.GetSize(depth));  // the stream is at its end
        dir.Rewind();
        EXPECT_EQ(SizeByStat(tmp.Path(), static_cast<int>(depth)), dir.GetSize(depth));
    }
    CDirectory none;
    EXPECT_EQ(0u, none.GetSize(5));
}

TEST(CDirectoryGetSize, FollowsLinksAndSkipsDanglingOnes)
{
    KqTest::TempDir tmp;
    ASSERT_EQ(0, mkdir((tmp / "tree").c_str(), 0755));
    ASSERT_EQ(0, mkdir((tmp / "other").c_str(), 0755));
    WriteBytes(tmp / "other/big", 5000);
    WriteBytes(tmp / "tree/small", 30);
    ASSERT_EQ(0, symlink("../other", (tmp / "tree/to-dir").c_str()));
    ASSERT_EQ(0, symlink("../other/big", (tmp / "tree/to-file").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (tmp / "tree/dangling").c_str()));
    CDirectory dir;
    ASSERT_TRUE(dir.Open(tmp / "tree"));
    EXPECT_EQ(30u + 5000u, dir.GetSize(0));
    dir.Rewind();
    EXPECT_EQ(30u + 5000u + 5000u, dir.GetSize(1));
    ASSERT_TRUE(dir.Open(tmp / "other"));
    ASSERT_TRUE(dir.Open(tmp.Path()));  // only subdirectories here
    EXPECT_EQ(0u, dir.GetSize(0));
}

TEST(CDirectoryFiles, CreateOpenMeasureByName)
{
    KqTest::TempDir tmp;
    CDirectory dir;
    ASSERT_TRUE(dir.Open(tmp.Path()));
    ASSERT_TRUE(dir.Open(tmp / "sub"));
    ASSERT_TRUE(dir.Open(tmp.Path()));
    const mode_t old = umask(027);
    EXPECT_TRUE(dir.CreateFile("sub/made"));
    umask(old);
    struct stat node;
    ASSERT_EQ(0, stat((tmp / "sub/made").c_str(), &node));
    EXPECT_EQ(0640u, node.st_mode & 07777);

    FILE* file = dir.OpenFile("sub/made", "wb");
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(123u, fwrite(std::string(123, 'x').data(), 1, 123, file));
    EXPECT_EQ(0, dir.CloseFile(file));
    EXPECT_EQ(123u, dir.GetFileSize("sub/made"));
    EXPECT_TRUE(dir.CreateFile("sub/made"));  // truncates
    EXPECT_EQ(0u, dir.GetFileSize("sub/made"));

    dir.Close();  // the path stays
    EXPECT_EQ(nullptr, dir.OpenFile("missing", "rb"));
    EXPECT_EQ(0u, dir.GetFileSize("missing"));
    EXPECT_FALSE(dir.CreateFile("no/such/dir"));
    EXPECT_EQ(EOF, dir.CloseFile(nullptr));
}

TEST(CDirectoryDeleteAllFiles, RemovesExactlyAPathWithBlanksQuoteAndSemicolon)
{
    KqTest::TempDir tmp;
    // Unquoted, this would remove "a" beside it and run touch in the working directory.
    const std::string name = "a 'b' c; touch pwned; echo ";
    ASSERT_EQ(0, mkdir((tmp / "a").c_str(), 0755));
    WriteBytes(tmp / "a/inner", 1);
    CDirectory dir;
    ASSERT_TRUE(dir.Open(tmp / name));
    ASSERT_TRUE(dir.CreateFile("x"));
    ASSERT_EQ(0, mkdir((tmp / name + "/sub").c_str(), 0755));
    WriteBytes(tmp / name + "/sub/y", 10);
    WorkIn here(tmp.Path());
    EXPECT_TRUE(dir.DeleteAllFiles());
    EXPECT_FALSE(KQ::CFs::FsNodeExists(tmp / name));
    EXPECT_TRUE(KQ::CFs::FsNodeExists(tmp / "a/inner"));
    EXPECT_FALSE(KQ::CFs::FsNodeExists(tmp / "pwned"));
}

TEST(CDirectoryDeleteAllFiles, HandsRmOneArgumentAndRefusesRoot)
{
    KqTest::TempDir tmp;
    CDirectory dir;
    {
        FakeRm rm(tmp, 0);
        EXPECT_FALSE(dir.DeleteAllFiles());  // never opened: empty path
        for (const char* root : {"/", "//", "/tmp/..", "/."}) {
            ASSERT_TRUE(dir.Open(root));
            errno = 0;
            EXPECT_FALSE(dir.DeleteAllFiles()) << root;
            EXPECT_EQ(EINVAL, errno);
        }
        EXPECT_EQ("", rm.Log());
        WorkIn here(tmp.Path());
        ASSERT_TRUE(dir.Open("-i x"));
        EXPECT_TRUE(dir.DeleteAllFiles());
        ASSERT_TRUE(dir.Open(tmp / "a'b\"$(c)\\"));
        EXPECT_TRUE(dir.DeleteAllFiles());
        EXPECT_EQ("-rf\n./-i x/\n-rf\n" + tmp / "a'b\"$(c)\\/\n", rm.Log());
    }
    FakeRm failing(tmp, 3);
    EXPECT_FALSE(dir.DeleteAllFiles());
}
