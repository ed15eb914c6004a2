// Tests of CFile, CBufferedFile and CMappedMem on real files in a fresh
// temporary directory.
#include "KqFile.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

using KQ::CBufferedFile;
using KQ::CFile;
using KQ::CMappedMem;
using KQ::CSlice;

namespace {

void WriteText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::string ReadText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

long SizeOnDisk(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

CSlice<unsigned char> SliceOf(std::string& text)
{
    return CSlice<unsigned char>(reinterpret_cast<unsigned char*>(&text[0]), text.size());
}

// The descriptor this process has open on path (the object hides it), or -1.
int FindDescriptor(const std::string& path)
{
    int found = -1;
    DIR* dir = opendir("/proc/self/fd");
    while (dir != nullptr && found == -1) {
        const dirent* entry = readdir(dir);
        if (entry == nullptr) {
            break;
        }
        char target[4096] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 && path == target) {
            found = atoi(entry->d_name);
        }
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return found;
}

// The status flags of the descriptor open on path, as the kernel keeps them.
int StatusFlagsOf(const std::string& path)
{
    const int fd = FindDescriptor(path);
    return fd == -1 ? -1 : fcntl(fd, F_GETFL);
}

// The permission letters ("rw-s") of the mapping that contains address.
std::string MapsPermissions(const void* address)
{
    std::ifstream maps("/proc/self/maps");
    const unsigned long where = reinterpret_cast<unsigned long>(address);
    std::string line;
    while (std::getline(maps, line)) {
        unsigned long from = 0, to = 0;
        char perms[8] = {};
        if (sscanf(line.c_str(), "%lx-%lx %7s", &from, &to, perms) == 3 && where >= from && where < to) {
            return perms;
        }
    }
    return "";
}

// ---- CFile ----

struct ModeCase {
    int mode;
    bool opensExisting;
    bool createsMissing;
    bool canRead;
    bool canWrite;
    std::string afterWritingXY;  // content of "hello" after writing "XY" at offset 0
};

TEST(CFileOpen, EveryModeOpensCreatesReadsAndWritesAsItsFlagsSay)
{
    const ModeCase cases[] = {
        {CFile::eModeRead, true, false, true, false, "hello"},
        {CFile::eModeReadWrite, true, false, true, true, "XYllo"},
        {CFile::eModeWrite, true, false, false, true, "XYllo"},
        {CFile::eModeAppend, true, true, false, true, "helloXY"},
        {CFile::eModeCreateNew, false, true, false, true, ""},
        {CFile::eModeTruncate, true, true, false, true, "XY"},
        {6, true, false, true, false, "hello"},
        {42, true, false, true, false, "hello"},
    };
    for (const ModeCase& c : cases) {
        SCOPED_TRACE(c.mode);
        KqTest::TempDir dir;
        const CFile::Mode_e mode = static_cast<CFile::Mode_e>(c.mode);
        {
            CFile missing(dir / "missing", mode, CFile::eAccessReadWrite, false);
            EXPECT_EQ(c.createsMissing, missing.IsValid());
            EXPECT_EQ(c.createsMissing, Exists(dir / "missing"));
        }
        WriteText(dir / "f", "hello");
        CFile file(dir / "f", mode, CFile::eAccessReadWrite, false);
        ASSERT_EQ(c.opensExisting, file.IsValid());
        if (!c.opensExisting) {
            EXPECT_EQ(EEXIST, errno);
            continue;
        }
        std::string buffer(5, '\0');
        CSlice<unsigned char> in = SliceOf(buffer);
        EXPECT_EQ(c.canRead ? 5u : 0u, file.Read(in));
        EXPECT_EQ(0, file.SeekBegin(0));
        std::string xy = "XY";
        EXPECT_EQ(c.canWrite ? 2u : 0u, file.Write(SliceOf(xy)));
        EXPECT_EQ(c.afterWritingXY, ReadText(dir / "f"));
    }
}

TEST(CFileOpen, CreatedFilesGetTheAccessBitsLessTheUmask)
{
    const struct {
        int access;
        mode_t bits;
    } cases[] = {{CFile::eAccessRead, 0444}, {CFile::eAccessReadWrite, 0666}, {CFile::eAccessReadWriteExecute, 0777}, {3, 0}};
    const mode_t oldMask = umask(027);
    for (const auto& c : cases) {
        for (CFile::Mode_e mode : {CFile::eModeAppend, CFile::eModeCreateNew, CFile::eModeTruncate}) {
            SCOPED_TRACE(c.access * 10 + mode);
            KqTest::TempDir dir;
            CFile file(dir / "new", mode, static_cast<CFile::Access_e>(c.access), false);
            ASSERT_TRUE(file.IsValid());
            struct stat st;
            ASSERT_EQ(0, stat((dir / "new").c_str(), &st));
            EXPECT_EQ(c.bits & ~mode_t(027), st.st_mode & 0777);
        }
    }
    umask(oldMask);
}

TEST(CFileOpen, SyncAddsOSyncToEveryMode)
{
    for (int mode = CFile::eModeRead; mode <= 6; ++mode) {
        for (bool sync : {false, true}) {
            SCOPED_TRACE(mode * 2 + sync);
            KqTest::TempDir dir;
            if (mode != CFile::eModeCreateNew) {
                WriteText(dir / "f", "x");
            }
            CFile file(dir / "f", static_cast<CFile::Mode_e>(mode), CFile::eAccessReadWrite, sync);
            ASSERT_TRUE(file.IsValid());
            const int flags = StatusFlagsOf(dir / "f");
            ASSERT_NE(-1, flags);
            EXPECT_EQ(sync, (flags & O_SYNC) == O_SYNC);
            EXPECT_EQ(mode == CFile::eModeAppend, (flags & O_APPEND) != 0);
        }
    }
}

TEST(CFileOpen, SecondOpenIsRefusedAndKeepsDescriptorAndAccess)
{
    KqTest::TempDir dir;
    WriteText(dir / "a", "first");
    WriteText(dir / "b", "second");
    CFile file;
    EXPECT_FALSE(file.IsValid());
    ASSERT_TRUE(file.Open(dir / "a", CFile::eModeRead, CFile::eAccessRead, false));
    EXPECT_FALSE(file.Open(dir / "b", CFile::eModeRead, CFile::eAccessReadWrite, false));
    std::string buffer(5, '\0');
    CSlice<unsigned char> in = SliceOf(buffer);
    EXPECT_EQ(5u, file.Read(in));
    EXPECT_EQ("first", buffer);
    // A read-write access class would make a shared mapping of this read-only
    // descriptor fail; the first Open's eAccessRead is still in force.
    CMappedMem map(file, 0, 0);
    EXPECT_TRUE(map.IsValid());
}

TEST(CFileOpen, AFailedOpenLeavesTheObjectOpenable)
{
    KqTest::TempDir dir;
    CFile file(dir / "missing", CFile::eModeRead, CFile::eAccessRead, false);
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(ENOENT, errno);
    WriteText(dir / "present", "x");
    EXPECT_TRUE(file.Open(dir / "present", CFile::eModeRead, CFile::eAccessRead, false));
}

TEST(CFileIo, ReadsAtMostTheSliceAndLeavesItUnchanged)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "hello");
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false);
    std::string buffer(100, '.');
    CSlice<unsigned char> in = SliceOf(buffer);
    EXPECT_EQ(5u, file.Read(in));
    EXPECT_EQ(100u, in.m_Length);
    EXPECT_EQ("hello.", buffer.substr(0, 6));
    EXPECT_EQ(0u, file.Read(in));  // end of file
}

TEST(CFileIo, SeeksReturnTheNewOffsetOrMinusOne)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "0123456789");
    CFile file(dir / "f", CFile::eModeReadWrite, CFile::eAccessReadWrite, false);
    EXPECT_EQ(10, file.SeekEnd(0));
    EXPECT_EQ(7, file.SeekEnd(-3));
    EXPECT_EQ(7, file.Seek(0));
    EXPECT_EQ(5, file.Seek(-2));
    EXPECT_EQ(5, file.GetOffset());
    EXPECT_EQ(3, file.SeekBegin(3));
    EXPECT_EQ(-1, file.SeekBegin(-1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(3, file.GetOffset());
    EXPECT_EQ(20, file.SeekBegin(20));  // past the end is allowed
}

TEST(CFileIo, GetSizeGivesTheLengthAndRestoresTheOffset)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", std::string(1234, 'x'));
    WriteText(dir / "empty", "");
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false);
    EXPECT_EQ(100, file.SeekBegin(100));
    EXPECT_EQ(1234, file.GetSize());
    EXPECT_EQ(100, file.GetOffset());
    CFile empty(dir / "empty", CFile::eModeRead, CFile::eAccessRead, false);
    EXPECT_EQ(0, empty.GetSize());
}

TEST(CFileIo, FlushAndIoControlReachTheDescriptor)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "0123456789");
    CFile file(dir / "f", CFile::eModeReadWrite, CFile::eAccessReadWrite, false);
    EXPECT_TRUE(file.Flush());
    file.SeekBegin(4);
    int unread = -1;
    EXPECT_TRUE(file.IoControl(FIONREAD, &unread));
    EXPECT_EQ(6, unread);
    termios settings;
    EXPECT_FALSE(file.IoControl(TCGETS, &settings));  // not a terminal
    EXPECT_EQ(ENOTTY, errno);
}

TEST(CFileIo, FailingCallsGiveZeroFalseOrMinusOne)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "hello");
    std::string buffer(5, '\0');
    CSlice<unsigned char> slice = SliceOf(buffer);

    CFile writeOnly(dir / "f", CFile::eModeWrite, CFile::eAccessRead, false);
    EXPECT_EQ(0u, writeOnly.Read(slice));
    EXPECT_EQ(EBADF, errno);
    CFile readOnly(dir / "f", CFile::eModeRead, CFile::eAccessRead, false);
    EXPECT_EQ(0u, readOnly.Write(slice));
    EXPECT_EQ(EBADF, errno);

    CFile closed;
    EXPECT_EQ(0u, closed.Read(slice));
    EXPECT_EQ(0u, closed.Write(slice));
    EXPECT_FALSE(closed.Flush());
    EXPECT_FALSE(closed.IoControl(FIONREAD, &slice));
    EXPECT_EQ(-1, closed.GetOffset());
    EXPECT_EQ(-1, closed.Seek(0));
    EXPECT_EQ(-1, closed.SeekBegin(0));
    EXPECT_EQ(-1, closed.SeekEnd(0));
    EXPECT_EQ(-1, closed.GetSize());
    EXPECT_EQ(EBADF, errno);
}

TEST(CFileLifetime, DestructorClosesTheDescriptor)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "x");
    {
        CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false);
        EXPECT_NE(-1, FindDescriptor(dir / "f"));
    }
    EXPECT_EQ(-1, FindDescriptor(dir / "f"));
}

// ---- CBufferedFile ----

TEST(CBufferedFileOpen, EveryModeStringOpensCreatesAndWritesAsStdioDoes)
{
    const struct {
        int mode;
        bool createsMissing;
        bool canRead;
        std::string afterWritingXYAtStart;
    } cases[] = {
        {CBufferedFile::eModeRead, false, true, "hello"},
        {CBufferedFile::eModeReadWrite, false, true, "XYllo"},
        {CBufferedFile::eModeAppend, true, false, "helloXY"},
        {CBufferedFile::eModeTruncate, true, false, "XY"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        KqTest::TempDir dir;
        const CBufferedFile::Mode_e mode = static_cast<CBufferedFile::Mode_e>(c.mode);
        {
            CBufferedFile missing(dir / "missing", mode, 512);
            EXPECT_EQ(c.createsMissing, missing.IsValid());
        }
        WriteText(dir / "f", "hello");
        {
            CBufferedFile file(dir / "f", mode, 512);
            ASSERT_TRUE(file.IsValid());
            std::string buffer(5, '\0');
            CSlice<unsigned char> in = SliceOf(buffer);
            EXPECT_EQ(c.canRead ? 5u : 0u, file.Read(in));
            EXPECT_EQ(0, file.SeekBegin(0));
            std::string xy = "XY";
            file.Write(SliceOf(xy));
        }
        EXPECT_EQ(c.afterWritingXYAtStart, ReadText(dir / "f"));
    }
}

TEST(CBufferedFileOpen, RefusesUnknownModesAndASecondOpen)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "x");
    CBufferedFile unknown(dir / "f", static_cast<CBufferedFile::Mode_e>(4), 512);
    EXPECT_FALSE(unknown.IsValid());
    CBufferedFile file;
    ASSERT_TRUE(file.Open(dir / "f", CBufferedFile::eModeRead, 512));
    EXPECT_FALSE(file.Open(dir / "f", CBufferedFile::eModeRead, 512));
    struct stat byName, byNumber;
    ASSERT_EQ(0, stat((dir / "f").c_str(), &byName));
    ASSERT_EQ(0, fstat(file.GetFileNo(), &byNumber));
    EXPECT_EQ(byName.st_ino, byNumber.st_ino);
}

TEST(CBufferedFileIo, BuffersFullyUntilFlush)
{
    KqTest::TempDir dir;
    CBufferedFile file(dir / "f", CBufferedFile::eModeTruncate, 65536);
    ASSERT_TRUE(file.IsValid());
    std::string lines = "one\ntwo\n";  // line buffering would write these out
    EXPECT_EQ(lines.size(), file.Write(SliceOf(lines)));
    EXPECT_EQ(0, SizeOnDisk(dir / "f"));
    EXPECT_EQ(8, file.GetOffset());
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(8, SizeOnDisk(dir / "f"));
}

TEST(CBufferedFileIo, SeeksReturnTheStreamPositionEvenWhenTheyFail)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "0123456789");
    CBufferedFile file(dir / "f", CBufferedFile::eModeRead, 512);
    EXPECT_EQ(10, file.SeekEnd(0));
    EXPECT_EQ(8, file.Seek(-2));
    EXPECT_EQ(4, file.SeekBegin(4));
    EXPECT_EQ(4, file.SeekBegin(-5));  // refused by fseek: position unchanged
    EXPECT_EQ(4, file.Seek(0));
    EXPECT_EQ(10, file.GetSize());
    EXPECT_EQ(4, file.GetOffset());
    std::string buffer(20, '\0');
    CSlice<unsigned char> in = SliceOf(buffer);
    EXPECT_EQ(6u, file.Read(in));
    EXPECT_EQ("456789", buffer.substr(0, 6));
}

TEST(CBufferedFileIo, EmptyFileHasSizeZero)
{
    KqTest::TempDir dir;
    CBufferedFile file(dir / "f", CBufferedFile::eModeTruncate, 512);
    EXPECT_EQ(0, file.GetSize());
}

TEST(CBufferedFileIo, ClosedObjectGivesZeroWithoutTouchingAStream)
{
    CBufferedFile closed;
    std::string buffer(4, 'x');
    CSlice<unsigned char> slice = SliceOf(buffer);
    EXPECT_FALSE(closed.IsValid());
    EXPECT_EQ(0u, closed.Read(slice));
    EXPECT_EQ(0u, closed.Write(slice));
    EXPECT_EQ(0, closed.GetOffset());
    EXPECT_EQ(0, closed.GetSize());
    EXPECT_EQ(0, closed.Seek(1));
    EXPECT_EQ(0, closed.SeekBegin(1));
    EXPECT_EQ(0, closed.SeekEnd(1));
    EXPECT_FALSE(closed.Flush());
    EXPECT_EQ(-1, closed.GetFileNo());
}

// ---- CMappedMem ----

TEST(CMappedMemFile, LengthZeroMapsTheWholeFile)
{
    KqTest::TempDir dir;
    std::string content(10000, '\0');
    for (size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 7);
    }
    WriteText(dir / "f", content);
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false);
    CMappedMem map;
    EXPECT_FALSE(map.IsValid());
    EXPECT_EQ(nullptr, map.GetPointer());
    ASSERT_TRUE(map.MapFile(file, 0, 0));
    EXPECT_EQ(10000u, map.GetSize());
    EXPECT_EQ(0, memcmp(content.data(), map.GetPointer(), content.size()));
    EXPECT_EQ("r--s", MapsPermissions(map.GetPointer()));
}

TEST(CMappedMemFile, MapsAPartFromAPageAlignedOffsetOnly)
{
    KqTest::TempDir dir;
    const long page = sysconf(_SC_PAGESIZE);
    std::string content(2 * page, 'a');
    content.replace(page, 3, "xyz");
    WriteText(dir / "f", content);
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false);
    CMappedMem part(file, 3, page);
    ASSERT_TRUE(part.IsValid());
    EXPECT_EQ(3u, part.GetSize());
    EXPECT_EQ(0, memcmp("xyz", part.GetPointer(), 3));
    CMappedMem unaligned(file, 3, 100);
    EXPECT_FALSE(unaligned.IsValid());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(3u, unaligned.GetSize());  // kept from the failed attempt
}

TEST(CMappedMemFile, ProtectionFollowsTheAccessClassAndTheSystemRefusesMismatches)
{
    const struct {
        CFile::Mode_e mode;
        int access;
        bool maps;
        const char* perms;
    } cases[] = {
        {CFile::eModeRead, CFile::eAccessRead, true, "r--s"},
        {CFile::eModeRead, CFile::eAccessReadWrite, false, ""},
        {CFile::eModeReadWrite, CFile::eAccessReadWrite, true, "rw-s"},
        {CFile::eModeReadWrite, 7, true, "---s"},
        {CFile::eModeWrite, CFile::eAccessRead, false, ""},
        {CFile::eModeAppend, CFile::eAccessRead, false, ""},
        {CFile::eModeTruncate, CFile::eAccessRead, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode * 10 + c.access);
        KqTest::TempDir dir;
        WriteText(dir / "f", "some bytes");
        CFile file(dir / "f", c.mode, static_cast<CFile::Access_e>(c.access), false);
        ASSERT_TRUE(file.IsValid());
        if (c.mode == CFile::eModeTruncate) {
            std::string text = "refill";
            file.Write(SliceOf(text));  // an empty file could not be mapped at all
        }
        CMappedMem map(file, 4, 0);
        ASSERT_EQ(c.maps, map.IsValid());
        if (c.maps) {
            EXPECT_EQ(c.perms, MapsPermissions(map.GetPointer()));
        } else {
            EXPECT_EQ(EACCES, errno);
        }
    }
}

TEST(CMappedMemFile, WritesReachTheFileAndTheMappingOutlivesTheCFile)
{
    KqTest::TempDir dir;
    WriteText(dir / "f", "hello world");
    CMappedMem map;
    {
        CFile file(dir / "f", CFile::eModeReadWrite, CFile::eAccessReadWrite, false);
        ASSERT_TRUE(map.MapFile(file, 0, 0));
    }
    memcpy(map.GetPointer(), "HELLO", 5);
    EXPECT_EQ("HELLO world", ReadText(dir / "f"));
}

TEST(CMappedMemFile, RefusesClosedAndEmptyFilesAndASecondMapping)
{
    KqTest::TempDir dir;
    CFile closed;
    CMappedMem map;
    EXPECT_FALSE(map.MapFile(closed, 100, 0));
    EXPECT_EQ(0u, map.GetSize());  // refused before any size was taken

    WriteText(dir / "empty", "");
    CFile empty(dir / "empty", CFile::eModeRead, CFile::eAccessRead, false);
    EXPECT_FALSE(map.MapFile(empty, 0, 0));
    EXPECT_EQ(EINVAL, errno);

    WriteText(dir / "f", "abc");
    CFile file(dir / "f", CFile::eModeRead, CFile::eAccessRead, false);
    ASSERT_TRUE(map.MapFile(file, 0, 0));
    void* const first = map.GetPointer();
    EXPECT_FALSE(map.MapFile(file, 0, 0));
    EXPECT_FALSE(map.MapMemory(4096, CFile::eAccessReadWrite));
    EXPECT_EQ(first, map.GetPointer());
    EXPECT_EQ(3u, map.GetSize());
}

// MapMemory carries its access class in a CFile whose open fails, so this
// also shows that a failed Open keeps the access class it was given.
TEST(CMappedMemAnonymous, GivesZeroedMemoryWithTheAccessClassProtection)
{
    const struct {
        int access;
        const char* perms;
    } cases[] = {{CFile::eAccessRead, "r--s"}, {CFile::eAccessReadWrite, "rw-s"}, {CFile::eAccessReadWriteExecute, "rwxs"}, {3, "---s"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.access);
        CMappedMem map(4096, static_cast<CFile::Access_e>(c.access));
        ASSERT_TRUE(map.IsValid());
        EXPECT_EQ(4096u, map.GetSize());
        EXPECT_EQ(c.perms, MapsPermissions(map.GetPointer()));
        if (c.access == CFile::eAccessReadWrite) {
            const unsigned char* bytes = static_cast<const unsigned char*>(map.GetPointer());
            EXPECT_EQ(4096, std::count(bytes, bytes + 4096, 0));
            memset(map.GetPointer(), 0x5a, 4096);
            EXPECT_EQ(0x5a, bytes[4095]);
        }
    }
}

TEST(CMappedMemAnonymous, IsSharedWithAForkedChild)
{
    CMappedMem map(4096, CFile::eAccessReadWrite);
    ASSERT_TRUE(map.IsValid());
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        strcpy(static_cast<char*>(map.GetPointer()), "from the child");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_STREQ("from the child", static_cast<const char*>(map.GetPointer()));
}

TEST(CMappedMemAnonymous, SizeZeroIsRefusedByTheSystem)
{
    CMappedMem map;
    EXPECT_FALSE(map.MapMemory(0, CFile::eAccessReadWrite));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(map.MapMemory(100, CFile::eAccessReadWrite));  // a failed attempt may be retried
    EXPECT_EQ(100u, map.GetSize());
}

}  // namespace
