// Tests of CTarBall on archives written by GNU tar and on hand-made hostile
// archives, all in a fresh temporary directory.
#include "KqTarBall.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <tuple>

#include <sys/stat.h>

using KQ::CTarBall;

namespace {

void WriteBytes(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// Member data that differs from member to member.
std::string Content(size_t size)
{
    return (std::to_string(size) + std::string(size, '.') + "\n").substr(0, size);
}

// A hand-made header record: name (unterminated when 100 long), size field as given,
// mtime digits right behind it, magic.
std::string Header(const std::string& name, const std::string& size, const char* magic = "ustar")
{
    std::string record(512, '\0');
    record.replace(0, name.size(), name).replace(100, 7, "0000644").replace(124, size.size(), size);
    return record.replace(136, 12, "777777777777").replace(257, 8, std::string(magic) + '\0' + "00");
}

// A member with its data padded to the next record (sizes below 8 read the same in octal).
std::string Member(const std::string& name, const std::string& data)
{
    return Header(name, std::to_string(data.size())) + data + std::string((512 - data.size() % 512) % 512, '\0');
}

const std::string END(1024, '\0');

// The data of the member Find gives, or "<none>".
std::string Found(CTarBall& tar, const std::string& name)
{
    const char* data = tar.Find(name);
    return data != nullptr ? std::string(data, tar.GetFileSize()) : "<none>";
}

// After the sized members come two directories; GNU tar puts the second one's name in the
// prefix field of its 300 members, which names are never joined with.
TEST(CTarBall, WalksAndFindsTheMembersThatGnuTarWrote)
{
    KqTest::TempDir dir;
    const uint32_t sizes[] = {0, 1, 511, 512, 513, 1000};
    const std::string folder(99, 'p');
    for (uint32_t size : sizes) {
        WriteBytes(dir / ("m" + std::to_string(size)), Content(size));
    }
    mkdir((dir / "d").c_str(), 0755);
    mkdir((dir / folder).c_str(), 0755);
    for (int i = 0; i < 300; ++i) {
        WriteBytes(dir / (folder + "/f" + std::to_string(i)), Content(i));
    }
    const std::string command = "cd " + dir.Path() + " && tar --format=ustar -cf a.tar m0 m1 m511 m512 m513 m1000 d ";
    ASSERT_EQ(0, std::system((command + folder).c_str()));
    CTarBall tar(dir / "a.tar");
    uint32_t offset = 0;
    for (uint32_t size : sizes) {
        EXPECT_EQ(int(offset), size == 0 ? 0 : tar.NextFile());
        EXPECT_STREQ(("m" + std::to_string(size)).c_str(), tar.GetCurrFile());
        EXPECT_EQ(Content(size), std::string(tar.GetFileOffset(), tar.GetFileSize()));
        offset += 512 + (size + 511) / 512 * 512;
    }
    EXPECT_EQ(int(offset), tar.NextFile());
    EXPECT_STREQ("d/", tar.GetCurrFile());
    int members = 7, step = 0;
    for (; (step = tar.NextFile()) >= 0; ++members) {
    }
    EXPECT_EQ(308, members);
    EXPECT_EQ(-2, step);  // the zero record that ends the archive
    for (const char* name : {"m0", "./m1", "m1/", "M1", "m10", "d", ""}) {
        EXPECT_EQ("<none>", Found(tar, name)) << name;  // the first search starts at the end record
    }
    EXPECT_STREQ("m0", tar.GetCurrFile());  // a failed search rewinds
    EXPECT_EQ(Content(512), Found(tar, "m512"));
    EXPECT_EQ(Content(512), Found(tar, "m512"));    // the current member itself
    EXPECT_EQ(Content(1000), Found(tar, "m1000"));  // after the current one
    EXPECT_EQ("<none>", Found(tar, "m1"));          // before it: not found, rewound
    EXPECT_EQ(Content(1), Found(tar, "m1"));
    EXPECT_EQ("<none>", Found(tar, folder + "/f299"));
    EXPECT_EQ(Content(299), Found(tar, "f299"));
}

// Every walk and search must stay inside the mapping (ASan checks the reads).
TEST(CTarBall, HandMadeAndHostileArchivesEndTheWalkWithoutReadingOutside)
{
    const std::string name100(100, 'n'), tail = Member("b", "x") + END;
    // bytes (rows of status -2 open a path that does not exist), status, first member's size,
    // headers the walk visits, the NextFile result that ends it, a name searched for after
    // Rewind, whether it is found
    const std::tuple<std::string, int, uint32_t, int, int, std::string, bool> cases[] = {
        {"", -2, 0, 1, -1, "a", false},
        {"", -3, 0, 1, -1, "a", false},
        {Member("a", "").substr(0, 511), -4, 0, 1, -1, "a", false},  // no whole first record
        {std::string(2048, 'x'), -4, 0, 1, -2, "x", false},          // no magic in the first record
        {Member("a", "12345") + Header("b", "1").substr(0, 312), 0, 5, 1, -1, "b", false},  // truncated header
        {Member("a", "12345") + Member("b", ""), 0, 5, 2, -1, "c", false},                  // no end records
        {Header("a", "37777777777") + tail, 0, 0xFFFFFFFFu, 1, -1, "b", false},             // 32-bit sum: record 512
        {Header("a", "37777777000") + tail, 0, 0xFFFFFE00u, 1, -1, "b", false},             // 32-bit sum: record 0
        {Header("a", "37777776000") + tail, 0, 0xFFFFFC00u, 1, -1, "b", false},             // merely past the end
        {Member(name100, "data") + END, 0, 4, 1, -2, name100, true},
        {Member(name100, "data") + END, 0, 4, 1, -2, name100 + "0000644", false},
        {Header("a", "12x4") + std::string(512, 'z') + tail, 0, 10, 2, -2, "b", true},         // non-digit size
        {Header("a", "000000000011") + std::string(512, 'z') + tail, 0, 9, 2, -2, "b", true},  // no NUL
        {Member("a", "12345") + Header("b", "0", "USTAR") + tail, 0, 5, 1, -2, "b", false},    // no magic
    };
    for (const auto& [bytes, status, firstSize, members, end, name, found] : cases) {
        KqTest::TempDir dir;
        WriteBytes(dir / "h.tar", bytes);
        CTarBall tar(status == -2 ? dir / "missing.tar" : dir / "h.tar");
        EXPECT_EQ(status, tar.GetStatus()) << name;
        EXPECT_EQ(firstSize, tar.GetFileSize()) << name;
        int walked = 1, step = 0;
        for (; walked < 10 && (step = tar.NextFile()) >= 0; ++walked) {
        }
        EXPECT_EQ(members, walked) << name;
        EXPECT_EQ(end, step);
        tar.Rewind();
        EXPECT_EQ(found, tar.Find(name) != nullptr) << name;
    }
}

TEST(CTarBall, ReadsNumbersAsPosixTarWritesThem)
{
    // 8^11 wraps to 0 in 32 bits
    const std::pair<const char*, unsigned int> cases[] = {
        {"00000001750 ", 1000},       {" 1750", 1000},     {"\t17", 15}, {"12 ", 10}, {"8", 0}, {"a", 0}, {"", 0},
        {"77777777777", 4294967295u}, {"100000000000", 0},
    };
    for (const auto& [text, value] : cases) {
        EXPECT_EQ(value, CTarBall::OctStr2DecInt(text)) << text;
    }
}

}  // namespace
