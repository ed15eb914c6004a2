// Tests of CTarBall on archives written by GNU tar and on hand-made hostile
// archives, all in a fresh temporary directory.
#include "KqTarBall.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include <sys/stat.h>

using KQ::CTarBall;

namespace {

void WriteBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// Content of a member of size bytes that differs from member to member.
std::string Content(size_t size, char seed)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(seed + i % 23);
    }
    return text;
}

// Runs GNU tar in dir: creates archive.tar (ustar) from the members listed.
std::string MakeArchive(const KqTest::TempDir& dir, const std::string& members)
{
    const std::string command = "cd '" + dir.Path() + "' && tar --format=ustar -cf archive.tar " + members;
    EXPECT_EQ(0, std::system(command.c_str())) << command;
    return dir / "archive.tar";
}

uint32_t RoundUp512(uint32_t size)
{
    return (size + 511) / 512 * 512;
}

// A hand-made 512-byte header: name (up to 100 bytes, unterminated when it is
// 100 long), a size field taken as given (12 bytes), the "ustar" magic.
std::string Header(const std::string& name, const std::string& sizeField, const char* magic = "ustar")
{
    std::string record(512, '\0');
    record.replace(0, std::min<size_t>(name.size(), 100), name.substr(0, 100));
    record.replace(100, 8, "0000644", 8);
    record.replace(124, std::min<size_t>(sizeField.size(), 12), sizeField.substr(0, 12));
    record.replace(136, 12, "14000000000", 12);
    const size_t magicLength = std::min<size_t>(strlen(magic) + 1, 6);
    record.replace(257, magicLength, magic, magicLength);
    record.replace(263, 2, "00");
    return record;
}

std::string OctalSize(uint32_t size)
{
    char text[16];
    snprintf(text, sizeof text, "%011o", size);
    return std::string(text, 12);  // eleven digits and the NUL
}

// A member: its header and its data padded to the next record.
std::string Member(const std::string& name, const std::string& data)
{
    std::string bytes = Header(name, OctalSize(static_cast<uint32_t>(data.size()))) + data;
    bytes.resize(bytes.size() + (RoundUp512(static_cast<uint32_t>(data.size())) - data.size()), '\0');
    return bytes;
}

const std::string END_RECORDS(1024, '\0');

std::string NameOf(const CTarBall& tar)
{
    return tar.GetCurrFile() != nullptr ? std::string(tar.GetCurrFile(), strnlen(tar.GetCurrFile(), 100)) : "<null>";
}

// ---- construction ----

TEST(CTarBallOpen, StatusTellsWhyAnArchiveIsUnusable)
{
    KqTest::TempDir dir;
    WriteBytes(dir / "empty.tar", "");
    WriteBytes(dir / "plain.tar", std::string(2048, 'x'));
    WriteBytes(dir / "short.tar", Header("a", OctalSize(0)).substr(0, 300));
    WriteBytes(dir / "ok.tar", Member("a", "x") + END_RECORDS);
    const struct {
        std::string path;
        int status;
    } cases[] = {
        {dir / "missing.tar", -2}, {dir / "empty.tar", -3}, {dir.Path(), -3},
        {dir / "plain.tar", -4},   {dir / "short.tar", -4}, {dir / "ok.tar", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        CTarBall tar(c.path);
        EXPECT_EQ(c.status, tar.GetStatus());
        EXPECT_EQ(c.status == 0, tar.IsFileOk());
    }
}

TEST(CTarBallOpen, UnmappedArchivesFailEveryOperationWithoutReading)
{
    KqTest::TempDir dir;
    WriteBytes(dir / "empty.tar", "");
    for (const std::string& path : {dir / "missing.tar", dir / "empty.tar"}) {
        SCOPED_TRACE(path);
        CTarBall tar(path);
        EXPECT_EQ(-1, tar.Rewind());
        EXPECT_EQ(-1, tar.NextFile());
        EXPECT_EQ(-1, tar.GetRecord());
        EXPECT_EQ(nullptr, tar.Find("a"));
        EXPECT_EQ(nullptr, tar.GetCurrFile());
        EXPECT_EQ(nullptr, tar.GetFileOffset());
        EXPECT_EQ(0u, tar.GetFileSize());
    }
}

TEST(CTarBallOpen, ATooShortFirstRecordLeavesNoHeader)
{
    KqTest::TempDir dir;
    WriteBytes(dir / "short.tar", Header("a", OctalSize(0)).substr(0, 511));
    CTarBall tar(dir / "short.tar");
    EXPECT_EQ(-4, tar.GetStatus());
    EXPECT_EQ(nullptr, tar.GetCurrFile());
    EXPECT_EQ(nullptr, tar.Find("a"));
    EXPECT_EQ(-1, tar.Rewind());
}

TEST(CTarBallOpen, StatusMinusFourStillWalksTheMapping)
{
    KqTest::TempDir dir;
    WriteBytes(dir / "odd.tar", Header("junk", OctalSize(0), "nope") + Member("x", "data") + END_RECORDS);
    CTarBall tar(dir / "odd.tar");
    EXPECT_EQ(-4, tar.GetStatus());
    EXPECT_FALSE(tar.IsFileOk());
    EXPECT_EQ("junk", NameOf(tar));
    EXPECT_EQ(512, tar.NextFile());
    EXPECT_EQ("x", NameOf(tar));
    EXPECT_EQ(4u, tar.GetFileSize());
}

// ---- archives written by GNU tar ----

class CTarBallGnu : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char seeds[] = "ABCDEF";
        for (size_t i = 0; i < m_Sizes.size(); ++i) {
            m_Names.push_back("m" + std::to_string(m_Sizes[i]));
            m_Data.push_back(Content(m_Sizes[i], seeds[i]));
            WriteBytes(m_Dir / m_Names.back(), m_Data.back());
        }
        mkdir((m_Dir / "d").c_str(), 0755);
        WriteBytes(m_Dir / "d/inner", "inner file");
        m_Archive = MakeArchive(m_Dir, "m0 m1 m511 m512 m513 m1000 d");
    }

    KqTest::TempDir m_Dir;
    const std::vector<uint32_t> m_Sizes = {0, 1, 511, 512, 513, 1000};
    std::vector<std::string> m_Names;
    std::vector<std::string> m_Data;
    std::string m_Archive;
};

TEST_F(CTarBallGnu, WalksEveryMemberWithItsSizeOffsetAndData)
{
    CTarBall tar(m_Archive);
    ASSERT_TRUE(tar.IsFileOk());
    uint32_t expectedOffset = 0;
    for (size_t i = 0; i < m_Sizes.size(); ++i) {
        SCOPED_TRACE(m_Names[i]);
        if (i > 0) {
            expectedOffset += 512 + RoundUp512(m_Sizes[i - 1]);
            EXPECT_EQ(static_cast<int>(expectedOffset), tar.NextFile());
        }
        EXPECT_EQ(m_Names[i], NameOf(tar));
        EXPECT_EQ(m_Sizes[i], tar.GetFileSize());
        EXPECT_EQ(tar.GetCurrFile() + 512, tar.GetFileOffset());
        EXPECT_EQ(0, memcmp(m_Data[i].data(), tar.GetFileOffset(), m_Sizes[i]));
    }
    // 1000 bytes take two records: the directory's header is 1536 bytes on.
    EXPECT_EQ(static_cast<int>(expectedOffset + 1536), tar.NextFile());
    EXPECT_EQ("d/", NameOf(tar));
    EXPECT_EQ(0u, tar.GetFileSize());
    EXPECT_GT(tar.NextFile(), 0);
    EXPECT_EQ("d/inner", NameOf(tar));
    EXPECT_EQ(0, memcmp("inner file", tar.GetFileOffset(), 10));
    // Past the last member lies the zero record that ends the archive.
    EXPECT_EQ(-2, tar.NextFile());
    EXPECT_EQ("", NameOf(tar));
    EXPECT_EQ(0, tar.Rewind());
    EXPECT_EQ("m0", NameOf(tar));
}

TEST_F(CTarBallGnu, FindComparesWholeNamesExactly)
{
    CTarBall tar(m_Archive);
    ASSERT_TRUE(tar.IsFileOk());
    for (const char* name : {"./m1", "m1/", "M1", "m", "m10", "d", "inner", ""}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(nullptr, tar.Find(name));
        EXPECT_EQ("m0", NameOf(tar));  // a failed search rewinds
    }
    const char* data = tar.Find("m513");
    ASSERT_NE(nullptr, data);
    EXPECT_EQ("m513", NameOf(tar));
    EXPECT_EQ(513u, tar.GetFileSize());
    EXPECT_EQ(data, tar.GetFileOffset());
    EXPECT_EQ(0, memcmp(m_Data[4].data(), data, 513));
    EXPECT_EQ(data, tar.Find("m513"));  // the current member itself is found
    EXPECT_NE(nullptr, tar.Find("d/"));
    EXPECT_EQ(0u, tar.GetFileSize());
}

TEST_F(CTarBallGnu, FindSearchesOnlyFromTheCurrentMemberOn)
{
    CTarBall tar(m_Archive);
    ASSERT_NE(nullptr, tar.Find("m512"));
    EXPECT_NE(nullptr, tar.Find("m1000"));  // after the current one
    EXPECT_EQ(nullptr, tar.Find("m1"));     // before it: not found, rewound
    EXPECT_EQ("m0", NameOf(tar));
    const char* data = tar.Find("m1");      // found from the start
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(m_Data[1][0], data[0]);
    EXPECT_EQ(1u, tar.GetFileSize());
}

TEST(CTarBallGnuMany, FindsTheLastOfManyMembersAndCountsThemAll)
{
    KqTest::TempDir dir;
    const int count = 300;
    mkdir((dir / "many").c_str(), 0755);
    for (int i = 0; i < count; ++i) {
        WriteBytes(dir / ("many/f" + std::to_string(i)), Content(i * 3, 'a'));
    }
    // A list file keeps the members in a known order.
    std::string list;
    for (int i = 0; i < count; ++i) {
        list += "many/f" + std::to_string(i) + "\n";
    }
    WriteBytes(dir / "list", list);
    CTarBall tar(MakeArchive(dir, "-T list"));
    ASSERT_TRUE(tar.IsFileOk());
    int members = 1;
    while (tar.NextFile() >= 0) {
        ++members;
    }
    EXPECT_EQ(count, members);
    const std::string last = "many/f" + std::to_string(count - 1);
    // The walk left the end record current: a search from there finds
    // nothing and rewinds, and the next one finds the last member.
    const char* data = tar.Find(last);
    EXPECT_EQ(nullptr, data);
    data = tar.Find(last);
    ASSERT_NE(nullptr, data);
    EXPECT_EQ((count - 1) * 3u, tar.GetFileSize());
    EXPECT_EQ(0, memcmp(Content((count - 1) * 3, 'a').data(), data, tar.GetFileSize()));
}

TEST(CTarBallGnuLongName, NamesAreNeverJoinedWithTheirPrefix)
{
    KqTest::TempDir dir;
    const std::string folder(60, 'p');
    const std::string file(50, 'f');
    mkdir((dir / folder).c_str(), 0755);
    WriteBytes(dir / (folder + "/" + file), "long");
    CTarBall tar(MakeArchive(dir, folder + "/" + file));
    ASSERT_TRUE(tar.IsFileOk());
    EXPECT_EQ(nullptr, tar.Find(folder + "/" + file));
    ASSERT_NE(nullptr, tar.Find(file));
    EXPECT_EQ(4u, tar.GetFileSize());
}

// ---- hand-made and hostile archives ----

TEST(CTarBallHostile, ArchiveEndingRightAfterTheLastMemberEndsWithMinusOne)
{
    KqTest::TempDir dir;
    WriteBytes(dir / "a.tar", Member("a", "12345") + Member("b", ""));
    CTarBall tar(dir / "a.tar");
    EXPECT_EQ(1024, tar.NextFile());
    EXPECT_EQ(-1, tar.NextFile());
    EXPECT_EQ("b", NameOf(tar));  // the rest still describes the last member
    EXPECT_EQ(nullptr, tar.Find("c"));
    EXPECT_EQ("a", NameOf(tar));
}

TEST(CTarBallHostile, TruncatedHeaderEndsTheWalkLikeTheEndOfTheFile)
{
    KqTest::TempDir dir;
    // The second header holds its magic but stops 200 bytes short.
    WriteBytes(dir / "t.tar", Member("a", "12345") + Header("b", OctalSize(1)).substr(0, 312));
    CTarBall tar(dir / "t.tar");
    ASSERT_TRUE(tar.IsFileOk());
    EXPECT_EQ(-1, tar.NextFile());
    EXPECT_EQ("a", NameOf(tar));
    EXPECT_EQ(5u, tar.GetFileSize());
    EXPECT_EQ(0, tar.Rewind());
    EXPECT_EQ(nullptr, tar.Find("b"));
}

TEST(CTarBallHostile, HugeSizesEndTheWalkInsteadOfWrapping)
{
    const uint32_t sizes[] = {
        0xFFFFFFFFu,         // data and its 1 byte of padding span 4 GiB: a 32-bit sum lands on record 512
        0xFFFFFFFFu - 511,   // header and data span 4 GiB: a 32-bit sum lands on record 0 again
        0xFFFFFFFFu - 1023,  // merely past the end
    };
    for (uint32_t size : sizes) {
        SCOPED_TRACE(size);
        KqTest::TempDir dir;
        WriteBytes(dir / "h.tar", Header("a", OctalSize(size)) + Member("b", "x") + END_RECORDS);
        CTarBall tar(dir / "h.tar");
        ASSERT_TRUE(tar.IsFileOk());
        EXPECT_EQ(size, tar.GetFileSize());
        EXPECT_EQ(nullptr, tar.Find("b"));
        EXPECT_EQ(-1, tar.NextFile());
        EXPECT_EQ("a", NameOf(tar));
    }
}

TEST(CTarBallHostile, HundredCharacterNamesAreComparedWithinTheirField)
{
    KqTest::TempDir dir;
    const std::string name(100, 'n');
    WriteBytes(dir / "n.tar", Member(name, "data") + END_RECORDS);
    CTarBall tar(dir / "n.tar");
    ASSERT_TRUE(tar.IsFileOk());
    EXPECT_EQ(nullptr, tar.Find(name + "0000644"));  // what follows in the mode field
    EXPECT_EQ(nullptr, tar.Find(name.substr(0, 99)));
    EXPECT_NE(nullptr, tar.Find(name));
    EXPECT_EQ(4u, tar.GetFileSize());
}

TEST(CTarBallHostile, SizeFieldsAreReadAsOctalWithinTwelveBytes)
{
    const struct {
        std::string field;
        uint32_t size;
    } cases[] = {
        {"00000001750 ", 1000},      {"12x4", 10},          {"     17", 15},
        {"000000000011", 9},  // no NUL: the digits of the mtime field are not read
        {"-5", 0},                   {"", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.field);
        KqTest::TempDir dir;
        std::string header = Header("a", c.field);
        header.replace(136, 12, "777777777777");
        WriteBytes(dir / "s.tar", header + std::string(RoundUp512(c.size < 4096 ? c.size : 0), 'z') + Member("b", "") + END_RECORDS);
        CTarBall tar(dir / "s.tar");
        ASSERT_TRUE(tar.IsFileOk());
        EXPECT_EQ(c.size, tar.GetFileSize());
        if (c.size < 4096) {
            EXPECT_EQ(static_cast<int>(512 + RoundUp512(c.size)), tar.NextFile());
            EXPECT_EQ("b", NameOf(tar));
        }
    }
}

TEST(CTarBallHostile, ARecordWithoutMagicStopsTheWalkAtIt)
{
    KqTest::TempDir dir;
    WriteBytes(dir / "m.tar", Member("a", "12345") + Header("bad", OctalSize(0), "USTAR") + Member("c", "") + END_RECORDS);
    CTarBall tar(dir / "m.tar");
    EXPECT_EQ(-2, tar.NextFile());
    EXPECT_EQ("bad", NameOf(tar));
    EXPECT_EQ(5u, tar.GetFileSize());  // still the last good member's
    EXPECT_EQ(nullptr, tar.Find("c"));
    EXPECT_EQ("a", NameOf(tar));
}

// ---- numbers ----

TEST(CTarBallOctal, ReadsNumbersAsPosixTarWritesThem)
{
    const struct {
        const char* text;
        unsigned int value;
    } cases[] = {
        {"00000001750 ", 1000}, {" 1750", 1000}, {"00000001750", 1000}, {"12 ", 10}, {"7", 7},
        {"\t17", 15}, {"8", 0}, {"a", 0}, {"", 0}, {"1 2", 1}, {"77777777777", 4294967295u},
        {"100000000000", 0},  // 8^11 wraps to 0 in 32 bits
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.value, CTarBall::OctStr2DecInt(c.text));
    }
}

}  // namespace
