// Tests of CFile, CBufferedFile and CMappedMem on real files in a fresh
// temporary directory.
#include "KqFile.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KQ;

namespace {

void WriteText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::string ReadText(const std::string& path)
{
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

CSlice<unsigned char> SliceOf(std::string& text)
{
    return CSlice<unsigned char>(reinterpret_cast<unsigned char*>(&text[0]), text.size());
}

// The permission letters ("rw-s") of the mapping that contains address.
std::string MapsPermissions(const void* address)
{
    std::ifstream maps("/proc/self/maps");
    unsigned long from = 0, to = 0, where = reinterpret_cast<unsigned long>(address);
    char perms[8] = {};
    for (std::string line; std::getline(maps, line);) {
        if (sscanf(line.c_str(), "%lx-%lx %7s", &from, &to, perms) == 3 && where >= from && where < to) {
            return perms;
        }
    }
    return "";
}

// Reads up to 5 bytes, seeks to 0, writes "XY": what the three calls returned.
template <typename File>
std::string ReadSeekWriteXY(File& file)
{
    std::string buffer(5, '\0'), xy = "XY";
    CSlice<unsigned char> in = SliceOf(buffer);
    const size_t read = file.Read(in);
    const long offset = file.SeekBegin(0);
    return std::to_string(read) + std::to_string(offset) + std::to_string(file.Write(SliceOf(xy)));
}

// Opens a missing path and a file holding "hello" in mode and runs ReadSeekWriteXY on
// the second: "+" if the missing path was created, the calls' results, the file content.
template <typename File, typename... Args>
std::string ModeOutcome(Args... args)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "hello");
    std::string outcome = File(dir / "missing", args...).IsValid() ? "+" : "";
    {
        File file(dir / "f", args...);
        outcome += file.IsValid() ? ReadSeekWriteXY(file) + " " : "";
    }
    return outcome + ReadText(dir / "f");
}

TEST(CFile, EveryModeOfBothClassesOpensCreatesReadsAndWritesAsItsFlagsSay)
{
    const struct {
        bool buffered;
        int mode;
        const char* outcome;
    } cases[] = {
        {false, CFile::eModeRead, "500 hello"},          {false, CFile::eModeReadWrite, "502 XYllo"},
        {false, CFile::eModeWrite, "002 XYllo"},         {false, CFile::eModeAppend, "+002 helloXY"},
        {false, CFile::eModeCreateNew, "+hello"},        {false, CFile::eModeTruncate, "+002 XY"},
        {false, 6, "500 hello"},                         {false, 42, "500 hello"},
        {true, CBufferedFile::eModeRead, "500 hello"},   {true, CBufferedFile::eModeReadWrite, "502 XYllo"},
        {true, CBufferedFile::eModeAppend, "+002 helloXY"}, {true, CBufferedFile::eModeTruncate, "+002 XY"},
        {true, 4, "hello"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        EXPECT_EQ(c.outcome, c.buffered ? ModeOutcome<CBufferedFile>(CBufferedFile::Mode_e(c.mode), 512ul)
                                        : ModeOutcome<CFile>(CFile::Mode_e(c.mode), CFile::eAccessReadWrite, false));
    }
}

TEST(CFile, SyncAddsOSyncInEveryModeAndTheDestructorCloses)
{
    for (int mode = CFile::eModeRead; mode <= 6; ++mode) {
        for (bool sync : {false, true}) {
            SCOPED_TRACE(mode * 2 + sync);
            KqTest::TempDir dir;
            WriteText(dir / "f", "x");
            const int fd = open("/dev/null", O_RDONLY);  // the lowest free descriptor, which the next open gets
            close(fd);
            {
                CFile file(dir / (mode == CFile::eModeCreateNew ? "new" : "f"), CFile::Mode_e(mode), CFile::eAccessRead, sync);
                EXPECT_EQ(sync, (fcntl(fd, F_GETFL) & O_SYNC) == O_SYNC);
            }
            EXPECT_EQ(-1, fcntl(fd, F_GETFD));
        }
    }
}

TEST(CFile, ASecondOpenIsRefusedAndKeepsTheFirstFileAndAccessClass)
{
    KqTest::TempDir dir;
    WriteText(dir / "a", "first");
    CFile file;
    ASSERT_TRUE(file.Open(dir / "a", CFile::eModeRead, CFile::eAccessRead, false));
    EXPECT_FALSE(file.Open(dir / "a", CFile::eModeReadWrite, CFile::eAccessReadWrite, false));
    EXPECT_EQ("500", ReadSeekWriteXY(file));
    // Read-write access would make a shared mapping of this read-only descriptor fail.
    EXPECT_TRUE(CMappedMem(file, 0, 0).IsValid());
}

TEST(CFile, SeeksAndGetSizeGiveTheNewOffsetOrMinusOneAndGetSizeRestoresIt)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "0123456789");
    CFile file(dir / "f", CFile::eModeReadWrite, CFile::eAccessReadWrite, false), closed;
    EXPECT_EQ(7, file.SeekEnd(-3));
    EXPECT_EQ(5, file.Seek(-2));
    EXPECT_EQ(-1, file.SeekBegin(-1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(10, file.GetSize());
    int unread = -1;
    EXPECT_TRUE(file.IoControl(FIONREAD, &unread) && file.Flush());
    EXPECT_EQ(5, unread);
    EXPECT_EQ(20, file.SeekBegin(20));
    std::string buffer(5, '\0');
    CSlice<unsigned char> slice = SliceOf(buffer);
    EXPECT_EQ(0u, closed.Read(slice) + closed.Write(slice));
    EXPECT_FALSE(closed.Flush() || closed.IoControl(FIONREAD, &unread));
    for (long result : {closed.GetOffset(), closed.Seek(0), closed.SeekBegin(0), closed.SeekEnd(0), closed.GetSize()}) {
        EXPECT_EQ(-1, result);
    }
    EXPECT_EQ(EBADF, errno);
}

TEST(CBufferedFile, BuffersFullyUntilFlushAndSeeksGiveTheStreamPosition)
{
    KqTest::TempDir dir;
    CBufferedFile file(dir / "f", CBufferedFile::eModeTruncate, 65536), closed;
    EXPECT_FALSE(file.Open(dir / "f", CBufferedFile::eModeRead, 512));
    std::string lines = "one\ntwo\n";  // line buffering would write these out
    EXPECT_EQ(8u, file.Write(SliceOf(lines)));
    EXPECT_EQ("", ReadText(dir / "f"));
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(lines, ReadText(dir / "f"));
    EXPECT_EQ(2, file.SeekBegin(2));
    EXPECT_EQ(2, file.SeekBegin(-5));  // refused: the position stays
    EXPECT_EQ(6, file.Seek(4));
    EXPECT_EQ(8, file.GetSize());
    EXPECT_EQ(6, file.GetOffset());
    struct stat byName, byNumber;
    EXPECT_EQ(0, fstat(file.GetFileNo(), &byNumber) + stat((dir / "f").c_str(), &byName));
    EXPECT_EQ(byName.st_ino, byNumber.st_ino);
    CSlice<unsigned char> slice = SliceOf(lines);
    EXPECT_EQ(0u, closed.Read(slice) + closed.Write(slice));
    for (long result : {closed.GetOffset(), closed.GetSize(), closed.Seek(1), closed.SeekBegin(1), closed.SeekEnd(1)}) {
        EXPECT_EQ(0, result);
    }
    EXPECT_FALSE(closed.Flush());
    EXPECT_EQ(-1, closed.GetFileNo());
}

TEST(CMappedMem, MapsAWholeFileOrAPageAlignedPartOnceOnly)
{
    KqTest::TempDir dir;
    const long page = sysconf(_SC_PAGESIZE);
    std::string content(2 * page, 'a');
    content.replace(page, 3, "xyz");
    WriteText(dir / "f", content);
    WriteText(dir / "empty", "");
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false), closed;
    CFile empty(dir / "empty", CFile::eModeRead, CFile::eAccessRead, false);
    CMappedMem whole, part(file, 3, page), unaligned(file, 3, 100);
    EXPECT_FALSE(unaligned.IsValid());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("xyz", std::string(static_cast<const char*>(part.GetPointer()), part.GetSize()));
    EXPECT_FALSE(whole.MapFile(closed, 0, 0) || whole.MapFile(empty, 0, 0) || whole.GetPointer() != nullptr);
    ASSERT_TRUE(whole.MapFile(file, 0, 0));
    EXPECT_FALSE(whole.MapFile(file, 3, page) || whole.MapMemory(4096, CFile::eAccessReadWrite));
    EXPECT_EQ(content, std::string(static_cast<const char*>(whole.GetPointer()), whole.GetSize()));
}

TEST(CMappedMem, FileProtectionFollowsTheAccessClassAndWritesReachTheFile)
{
    const struct {
        CFile::Mode_e mode;
        int access;
        const char* perms;  // "" when the system refuses the mapping
    } cases[] = {
        {CFile::eModeRead, CFile::eAccessRead, "r--s"},     {CFile::eModeRead, CFile::eAccessReadWrite, ""},
        {CFile::eModeReadWrite, CFile::eAccessReadWrite, "rw-s"}, {CFile::eModeReadWrite, 7, "---s"},
        {CFile::eModeWrite, CFile::eAccessRead, ""},        {CFile::eModeAppend, CFile::eAccessRead, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode * 10 + c.access);
        KqTest::TempDir dir;
        WriteText(dir / "f", "some bytes");
        CMappedMem map;
        {
            CFile file(dir / "f", c.mode, CFile::Access_e(c.access), false);
            EXPECT_EQ(*c.perms != '\0', map.MapFile(file, 4, 0));
        }
        EXPECT_EQ(c.perms, map.IsValid() ? MapsPermissions(map.GetPointer()) : "");
        if (c.access == CFile::eAccessReadWrite && map.IsValid()) {
            memcpy(map.GetPointer(), "SOME", 4);  // the mapping outlives the CFile
            EXPECT_EQ("SOME bytes", ReadText(dir / "f"));
        }
    }
}

// Created files get the access class's bits less the umask, anonymous mappings its
// protection; MapMemory keeps the access class in a CFile whose open fails.
TEST(CMappedMem, AccessClassesGiveFileBitsAndAnonymousProtection)
{
    const struct {
        int access;
        mode_t bits;
        const char* perms;
    } cases[] = {{CFile::eAccessRead, 0444, "r--s"},
                 {CFile::eAccessReadWrite, 0666, "rw-s"},
                 {CFile::eAccessReadWriteExecute, 0777, "rwxs"},
                 {3, 0, "---s"}};
    const mode_t oldMask = umask(027);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.access);
        KqTest::TempDir dir;
        CFile file(dir / "new", CFile::eModeCreateNew, CFile::Access_e(c.access), false);
        struct stat st;
        EXPECT_EQ(0, stat((dir / "new").c_str(), &st));
        EXPECT_EQ(c.bits & 0750, st.st_mode & 0777);
        CMappedMem map(4096, CFile::Access_e(c.access));
        EXPECT_EQ(4096u, map.GetSize());
        EXPECT_EQ(c.perms, MapsPermissions(map.GetPointer()));
    }
    umask(oldMask);
}

TEST(CMappedMem, AnonymousMemoryIsZeroedAndSharedWithAForkedChild)
{
    CMappedMem map;
    EXPECT_FALSE(map.MapMemory(0, CFile::eAccessReadWrite));
    EXPECT_EQ(EINVAL, errno);
    ASSERT_TRUE(map.MapMemory(4096, CFile::eAccessReadWrite));
    char* const bytes = static_cast<char*>(map.GetPointer());
    EXPECT_EQ(std::string(4096, '\0'), std::string(bytes, 4096));
    const pid_t child = fork();
    if (child == 0) {
        strcpy(bytes, "from the child");
        _exit(0);
    }
    ASSERT_EQ(child, waitpid(child, nullptr, 0));
    EXPECT_STREQ("from the child", bytes);
}

}  // namespace
