// Tests of the environment block: adding rules, the text and serialised
// forms, the process environment and files.
#include "KqEnvBlock.h"

#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using KQ::CEnvBlock;

namespace {

// The serialised block of b, sized by the documented rule plus guard bytes
// that must stay untouched.
std::string SerializeOf(CEnvBlock& b, size_t size)
{
    std::vector<char> out(size + 8, '#');
    b.Serialize(out.data());
    for (size_t i = size; i < out.size(); ++i) {
        EXPECT_EQ(out[i], '#') << "byte " << i << " written beyond the block";
    }
    return std::string(out.data(), size);
}

// Every entry of b as "name=value;" in block order, read back through the
// serialised form.
std::string Entries(CEnvBlock& b)
{
    std::vector<char> out(1 << 16, '\0');
    b.Serialize(out.data());
    std::string result;
    for (const char* p = out.data(); *p != '\0'; p += strlen(p) + 1) {
        result += std::string(p) + ";";
    }
    return result;
}

std::string EntriesOfFile(const char* path)
{
    CEnvBlock block(path);
    return Entries(block);
}

TEST(EnvBlockAdd, SplitAddRules)
{
    struct Case {
        std::vector<std::string> lines;
        const char* entries;
    };
    const Case cases[] = {
        {{"A=1", "A=2"}, "A=2;"},
        {{"A=b=c"}, "A=b=c;"},
        {{"=x", "A=", ""}, ""},
        {{"NOEQUALS"}, ""},
        {{"A=1", "A="}, "A=1;"},
        {{"B=2", "A=1"}, "A=1;B=2;"},
        {{"Path=x", "PATH=y", "AB=1", "A=2"}, "A=2;AB=1;PATH=y;Path=x;"},
        {{" A = 1 "}, " A = 1 ;"},
    };
    for (const Case& c : cases) {
        CEnvBlock block(false);
        for (const std::string& line : c.lines) {
            block.SplitAdd(line);
        }
        EXPECT_EQ(Entries(block), c.entries) << c.lines.front();
    }
}

TEST(EnvBlockAdd, SetGetRemove)
{
    CEnvBlock block(false);
    block.SetValue("A", "1");
    block.SetValue("A", "");
    block.SetValue("", "x");
    EXPECT_EQ(block.GetValue("A", "none"), "1");
    EXPECT_EQ(block.GetValue("B", "none"), "none");
    EXPECT_EQ(block.GetValue("", "d"), "d");
    block.SetValue("A", "2");
    EXPECT_EQ(block.GetValue("A", ""), "2");
    EXPECT_TRUE(block.RemoveItem("missing"));
    EXPECT_EQ(Entries(block), "A=2;");
    EXPECT_TRUE(block.RemoveItem("A"));
    EXPECT_EQ(block.GetValue("A", "gone"), "gone");
    block.SetValue("X", "1");
    block.SetValue("Y", "2");
    block.EmptyList();
    EXPECT_EQ(Entries(block), "");
}

TEST(EnvBlockText, LinesAndSeparators)
{
    struct Case {
        std::string text;
        char separator;
        const char* entries;
    };
    const Case cases[] = {
        {"A=1\nB=2\n", '\n', "A=1;B=2;"},
        {"A=1\n\nB=2", '\n', "A=1;B=2;"},
        {"A=1\r\n", '\n', "A=1\r;"},
        {"", '\n', ""},
        {"\n\n\n", '\n', ""},
        {"A=1;B=2;A=3", ';', "A=3;B=2;"},
        {"A=1\nB=2", ';', "A=1\nB=2;"},
        {std::string("A=1\0B=2", 7), '\0', "A=1;B=2;"},
    };
    for (const Case& c : cases) {
        CEnvBlock block(false);
        block.SplitAdd("KEEP=me");
        block.Deserialize(c.text, c.separator);
        EXPECT_EQ(Entries(block), std::string(c.entries) + "KEEP=me;") << c.text;
    }
    std::string text = "X=1\nY=2";
    CEnvBlock fromBytes(reinterpret_cast<unsigned char*>(&text[0]));
    EXPECT_EQ(Entries(fromBytes), "X=1;Y=2;");
    CEnvBlock fromNull(static_cast<unsigned char*>(nullptr));
    EXPECT_EQ(Entries(fromNull), "");
}

TEST(EnvBlockSerialised, ByteForByte)
{
    CEnvBlock block(false);
    block.SetValue("PATH", "/bin");
    block.SetValue("HOME", "/root");
    EXPECT_EQ(SerializeOf(block, 22), std::string("HOME=/root\0PATH=/bin\0\0", 22));

    CEnvBlock two(false);
    two.SplitAdd("B=2");
    two.SplitAdd("A=1");
    const std::string bytes = SerializeOf(two, 9);
    EXPECT_EQ(bytes, std::string("A=1\0B=2\0\0", 9));

    CEnvBlock back(false);
    std::string copy = bytes;
    back.Deserialize(&copy[0]);
    EXPECT_EQ(Entries(back), "A=1;B=2;");

    CEnvBlock empty(false);
    EXPECT_EQ(SerializeOf(empty, 0), "");
    char nothing[] = {'\0', 'A', '=', '1', '\0', '\0'};
    empty.Deserialize(nothing);
    EXPECT_EQ(Entries(empty), "");
}

TEST(EnvBlockSerialised, RandomBlocksRoundTrip)
{
    std::mt19937 random(6101u);
    std::uniform_int_distribution<int> byte(1, 255);
    for (int round = 0; round < 300; ++round) {
        CEnvBlock block(false);
        std::map<std::string, std::string> model;
        size_t size = 1;
        for (int n = static_cast<int>(random() % 40); n > 0; --n) {
            std::string name, value;
            for (int i = 1 + static_cast<int>(random() % 8); i > 0; --i) {
                const char c = static_cast<char>(byte(random));
                name += c == '=' ? 'x' : c;
            }
            for (int i = 1 + static_cast<int>(random() % 12); i > 0; --i) {
                value += static_cast<char>(byte(random));
            }
            block.SetValue(name, value);
            model[name] = value;
        }
        for (const auto& entry : model) {
            size += entry.first.size() + entry.second.size() + 2;
        }
        std::string bytes = SerializeOf(block, model.empty() ? 0 : size);
        bytes += std::string(2, '\0');
        CEnvBlock back(false);
        back.Deserialize(&bytes[0]);
        for (const auto& entry : model) {
            ASSERT_EQ(back.GetValue(entry.first, "<missing>"), entry.second);
        }
        ASSERT_EQ(Entries(back), Entries(block));
    }
}

TEST(EnvBlockEnvironment, LoadsTheProcessEnvironment)
{
    ASSERT_EQ(setenv("KQ_ENV_TEST", "a=b", 1), 0);
    CEnvBlock loaded(true);
    EXPECT_EQ(loaded.GetValue("KQ_ENV_TEST", ""), "a=b");
    CEnvBlock notLoaded(false);
    EXPECT_EQ(notLoaded.GetValue("KQ_ENV_TEST", "no"), "no");
    unsetenv("KQ_ENV_TEST");

    char a[] = "ONE=1", b[] = "broken", c[] = "TWO=2";
    char* list[] = {a, b, c, nullptr};
    CEnvBlock fromList(false);
    fromList.Deserialize(list);
    EXPECT_EQ(Entries(fromList), "ONE=1;TWO=2;");
    fromList.Deserialize(static_cast<char**>(nullptr));
    EXPECT_EQ(Entries(fromList), "ONE=1;TWO=2;");
}

TEST(EnvBlockEnvironmentDeathTest, ClearedEnvironmentAddsNothing)
{
    // clearenv() sets environ to null; do it in a child so the test process
    // keeps its environment.
    EXPECT_EXIT(
        {
            clearenv();
            CEnvBlock block(true);
            std::exit(Entries(block).empty() && environ == nullptr ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(EnvBlockFile, ReadsLinesOfARealFile)
{
    KqTest::TempDir dir;
    const std::string path = dir / "env.txt";
    std::ofstream(path) << "HOME=/root\nPATH=/bin:/usr/bin\r\nbad line\n=x\nHOME=/home\n";
    CEnvBlock block(path.c_str());
    EXPECT_EQ(Entries(block), "HOME=/home;PATH=/bin:/usr/bin\r;");

    const std::string withNul = dir / "nul.txt";
    std::ofstream(withNul) << std::string("A=1\nB=2\0C=3\n", 12);
    EXPECT_EQ(EntriesOfFile(withNul.c_str()), "A=1;B=2;");
}

TEST(EnvBlockFile, UnreadableOrZeroSizedFilesAddNothing)
{
    KqTest::TempDir dir;
    EXPECT_EQ(EntriesOfFile((dir / "missing").c_str()), "");
    EXPECT_EQ(EntriesOfFile(dir.Path().c_str()), "");
    EXPECT_EQ(EntriesOfFile(static_cast<const char*>(nullptr)), "");

    const std::string empty = dir / "empty";
    std::ofstream(empty).flush();
    EXPECT_EQ(EntriesOfFile(empty.c_str()), "");

    // /proc files report size 0 whatever reading them delivers.
    EXPECT_EQ(EntriesOfFile("/proc/self/environ"), "");

    // A FIFO reports size 0 too; a writer feeds it so open() does not block.
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        std::ofstream(fifo) << "A=1\n";
        _exit(0);
    }
    EXPECT_EQ(EntriesOfFile(fifo.c_str()), "");
    waitpid(writer, nullptr, 0);

    if (geteuid() != 0) {
        const std::string locked = dir / "locked";
        std::ofstream(locked) << "A=1\n";
        ASSERT_EQ(chmod(locked.c_str(), 0), 0);
        EXPECT_EQ(EntriesOfFile(locked.c_str()), "");
    }
}

}  // namespace
