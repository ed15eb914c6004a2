// Tests of CFile, CBufferedFile and CMappedMem on real files in a fresh
// temporary directory.
#include "KqFile.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KQ;

namespace {

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string ReadText(const std::string& p) { return {std::istreambuf_iterator<char>(std::ifstream(p).rdbuf()), {}}; }

CSlice<unsigned char> SliceOf(std::string& t) { return {reinterpret_cast<unsigned char*>(&t[0]), t.size()}; }

// The permission letters ("rw-s") of the mapping that starts at address, "" for none.
std::string MapsPermissions(const void* address)
{
    std::ifstream maps("/proc/self/maps");
    char start[32];
    snprintf(start, sizeof start, "%lx-", reinterpret_cast<unsigned long>(address));
    for (std::string line; std::getline(maps, line);) {
        if (line.rfind(start, 0) == 0) {
            return line.substr(line.find(' ') + 1, 4);
        }
    }
    return "";
}

// Opens a missing path, then a file holding "hello" where it reads 5 bytes, seeks to 0 and
// writes "XY": "+" when the missing path was created, the results of the three calls, "s"
// for O_SYNC, "!" for a descriptor left open, the content afterwards.
template <typename File, typename... Args>
std::string ModeOutcome(Args... args)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "hello");
    const int fd = open("/dev/null", O_RDONLY);  // the lowest free descriptor: each open below gets it
    close(fd);
    std::string outcome = File(dir / "missing", args...).IsValid() ? "+" : "";
    std::string buffer(5, '\0'), xy = "XY";
    CSlice<unsigned char> in = SliceOf(buffer);
    if (File file(dir / "f", args...); file.IsValid()) {
        outcome += std::to_string(file.Read(in));
        outcome += std::to_string(file.SeekBegin(0));
        outcome += std::to_string(file.Write(SliceOf(xy))) + ((fcntl(fd, F_GETFL) & O_SYNC) ? "s " : " ");
    }
    return outcome + (fcntl(fd, F_GETFD) != -1 ? "!" : "") + ReadText(dir / "f");
}

TEST(CFile, EveryModeOfBothFileClassesOpensCreatesReadsAndWritesAsItsFlagsSay)
{
    // buffered, mode, sync, outcome
    const std::tuple<bool, int, bool, const char*> cases[] = {
        {false, CFile::eModeRead, false, "500 hello"},
        {false, CFile::eModeReadWrite, true, "502s XYllo"},
        {false, CFile::eModeWrite, false, "002 XYllo"},
        {false, CFile::eModeAppend, true, "+002s helloXY"},
        {false, CFile::eModeCreateNew, true, "+hello"},
        {false, CFile::eModeTruncate, false, "+002 XY"},
        {false, 6, true, "500s hello"},
        {false, 42, false, "500 hello"},
        {true, CBufferedFile::eModeRead, false, "500 hello"},
        {true, CBufferedFile::eModeReadWrite, false, "502 XYllo"},
        {true, CBufferedFile::eModeAppend, false, "+002 helloXY"},
        {true, CBufferedFile::eModeTruncate, false, "+002 XY"},
        {true, 4, false, "hello"},
    };
    for (const auto& [buffered, mode, sync, outcome] : cases) {
        EXPECT_EQ(outcome, buffered ? ModeOutcome<CBufferedFile>(CBufferedFile::Mode_e(mode), 512ul)
                                    : ModeOutcome<CFile>(CFile::Mode_e(mode), CFile::eAccessReadWrite, sync))
            << mode;
    }
}

TEST(CFile, SeeksAndGetSizeGiveTheNewOffsetOrMinusOneAndASecondOpenIsRefused)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "0123456789");
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false), closed;
    EXPECT_FALSE(file.Open(dir / "f", CFile::eModeReadWrite, CFile::eAccessReadWrite, false));
    EXPECT_TRUE(CMappedMem(file, 0, 0).IsValid());  // still read-only: read-write access could not map
    EXPECT_EQ(7, file.SeekEnd(-3));
    EXPECT_EQ(5, file.Seek(-2));
    EXPECT_EQ(-1, file.SeekBegin(-1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(10, file.GetSize());
    int unread = -1;
    EXPECT_TRUE(file.IoControl(FIONREAD, &unread) && file.Flush());
    EXPECT_EQ(5, unread);  // GetSize restored the offset
    std::string buffer(5, '\0');
    CSlice<unsigned char> slice = SliceOf(buffer);
    EXPECT_FALSE(closed.Read(slice) || closed.Write(slice) || closed.Flush() || closed.IoControl(FIONREAD, &unread));
    EXPECT_EQ(std::vector<long>(5, -1), std::vector<long>({closed.GetOffset(), closed.Seek(0), closed.SeekBegin(0),
                                                           closed.SeekEnd(0), closed.GetSize()}));
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
    EXPECT_EQ(lines, ReadText("/proc/self/fd/" + std::to_string(file.GetFileNo())));
    EXPECT_EQ(8, file.SeekBegin(-5));  // refused: the position stays
    EXPECT_EQ(6, file.Seek(-2));
    EXPECT_EQ(8, file.GetSize());
    EXPECT_EQ(6, file.GetOffset());
    CSlice<unsigned char> slice = SliceOf(lines);
    EXPECT_FALSE(closed.Read(slice) || closed.Write(slice) || closed.Flush());
    EXPECT_EQ(std::vector<long>({0, 0, 0, 0, 0, -1}),
              std::vector<long>({closed.GetOffset(), closed.GetSize(), closed.Seek(1), closed.SeekBegin(1),
                                 closed.SeekEnd(1), closed.GetFileNo()}));
}

TEST(CMappedMem, MapsAWholeFileOrAPageAlignedPartOnceOnly)
{
    KqTest::TempDir dir;
    const long page = sysconf(_SC_PAGESIZE);
    const std::string content = std::string(page, 'a') + "xyz";
    WriteText(dir / "f", content);
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false), closed;
    CMappedMem whole, part(file, 3, page), unaligned(file, 3, 100);
    EXPECT_FALSE(unaligned.IsValid());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("xyz", std::string(static_cast<const char*>(part.GetPointer()), part.GetSize()));
    EXPECT_FALSE(whole.MapFile(closed, 0, 0) || whole.MapMemory(0, CFile::eAccessRead));
    EXPECT_EQ(EINVAL, errno);
    ASSERT_TRUE(whole.MapFile(file, 0, 0));
    EXPECT_FALSE(whole.MapFile(file, 3, page) || whole.MapMemory(4096, CFile::eAccessReadWrite));
    EXPECT_EQ(content, std::string(static_cast<const char*>(whole.GetPointer()), whole.GetSize()));
}

// Created files get the access class's bits less the umask, anonymous mappings its protection
// (MapMemory keeps it in a CFile whose open fails), file mappings too when the open mode allows.
TEST(CMappedMem, AccessClassesGiveFileBitsAndTheProtectionOfMappings)
{
    const std::tuple<int, mode_t, const char*, CFile::Mode_e, const char*> cases[] = {
        {CFile::eAccessRead, 0444, "r--s", CFile::eModeRead, "r--s"},
        {CFile::eAccessReadWrite, 0666, "rw-s", CFile::eModeReadWrite, "rw-s"},
        {CFile::eAccessReadWrite, 0666, "rw-s", CFile::eModeRead, ""},  // refused by the system
        {CFile::eAccessReadWriteExecute, 0777, "rwxs", CFile::eModeWrite, ""},
        {3, 0, "---s", CFile::eModeReadWrite, "---s"},
    };
    const mode_t oldMask = umask(027);
    for (const auto& [access, bits, anonymous, mode, perms] : cases) {
        KqTest::TempDir dir;
        CFile created(dir / "new", CFile::eModeCreateNew, CFile::Access_e(access), false);
        struct stat st;
        EXPECT_EQ(0, stat((dir / "new").c_str(), &st));
        EXPECT_EQ(bits & 0750, st.st_mode & 0777) << access;
        EXPECT_EQ(anonymous, MapsPermissions(CMappedMem(4096, CFile::Access_e(access)).GetPointer()));
        WriteText(dir / "f", "some bytes");
        CMappedMem map;
        {
            CFile file(dir / "f", mode, CFile::Access_e(access), false);
            EXPECT_EQ(*perms != '\0', map.MapFile(file, 4, 0));
        }
        EXPECT_EQ(perms, MapsPermissions(map.GetPointer())) << mode;  // the mapping outlives the CFile
    }
    umask(oldMask);
}

}  // namespace
