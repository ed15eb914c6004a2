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

// The serialised block of b, written into size bytes followed by guard bytes that must stay untouched.
std::string SerializeOf(CEnvBlock& b, size_t size)
{
    std::vector<char> out(size + 8, '#');
    b.Serialize(out.data());
    EXPECT_EQ(std::string(out.data() + size, 8), "########") << "written beyond the block";
    return std::string(out.data(), size);
}

// Every entry of b as "name=value;" in block order, read back from the serialised form.
std::string Entries(const CEnvBlock& b)
{
    std::vector<char> out(1 << 16, '\0');
    CEnvBlock(b).Serialize(out.data());
    std::string result;
    for (const char* p = out.data(); *p != '\0'; p += strlen(p) + 1) {
        result += std::string(p) + ";";
    }
    return result;
}

TEST(EnvBlock, SplitAddAndSetValueRules)
{
    const struct {
        std::vector<std::string> lines;
        const char* entries;
    } cases[] = {
        {{"A=1", "A=2"}, "A=2;"},
        {{"A=b=c"}, "A=b=c;"},
        {{"=x", "A=", "", "NOEQUALS"}, ""},
        {{"A=1", "A="}, "A=1;"},
        {{"Path=x", "PATH=y", "AB=1", "A=2"}, "A=2;AB=1;PATH=y;Path=x;"},
        {{" A = 1 "}, " A = 1 ;"},
    };
    for (const auto& c : cases) {
        CEnvBlock block(false);
        for (const std::string& line : c.lines) {
            block.SplitAdd(line);
        }
        EXPECT_EQ(Entries(block), c.entries) << c.lines.front();
    }
    CEnvBlock block(false);
    block.SetValue("A", "1");
    block.SetValue("A", "");
    block.SetValue("", "x");
    EXPECT_EQ(block.GetValue("A", "none"), "1");
    EXPECT_EQ(block.GetValue("B", "none"), "none");
    EXPECT_TRUE(block.RemoveItem("missing"));
    EXPECT_EQ(Entries(block), "A=1;");
    EXPECT_TRUE(block.RemoveItem("A"));
    EXPECT_EQ(block.GetValue("A", "gone"), "gone");
    block.SetValue("X", "1");
    block.EmptyList();
    EXPECT_EQ(Entries(block), "");
}

TEST(EnvBlock, TextLinesAndSeparators)
{
    const struct {
        std::string text;
        char separator;
        const char* entries;  // added before KEEP=me, which is there already
    } cases[] = {
        {"A=1\nB=2\n", '\n', "A=1;B=2;"},
        {"A=1\n\nB=2", '\n', "A=1;B=2;"},
        {"A=1\r\n", '\n', "A=1\r;"},
        {"", '\n', ""},
        {"\n\n\n", '\n', ""},
        {"A=1;B=2;A=3", ';', "A=3;B=2;"},
        {"A=1\nB=2", ';', "A=1\nB=2;"},
        {std::string("A=1\0B=2", 7), '\0', "A=1;B=2;"},
    };
    for (const auto& c : cases) {
        CEnvBlock block(false);
        block.SplitAdd("KEEP=me");
        block.Deserialize(c.text, c.separator);
        EXPECT_EQ(Entries(block), std::string(c.entries) + "KEEP=me;") << c.text;
    }
    std::string text = "X=1\nY=2";
    EXPECT_EQ(Entries(CEnvBlock(reinterpret_cast<unsigned char*>(&text[0]))), "X=1;Y=2;");
}

TEST(EnvBlock, SerialisedByteForByte)
{
    CEnvBlock block(false);
    block.SetValue("PATH", "/bin");
    block.SetValue("HOME", "/root");
    EXPECT_EQ(SerializeOf(block, 22), std::string("HOME=/root\0PATH=/bin\0\0", 22));
    CEnvBlock two(false);
    two.SplitAdd("B=2");
    two.SplitAdd("A=1");
    std::string bytes = SerializeOf(two, 9);
    EXPECT_EQ(bytes, std::string("A=1\0B=2\0\0", 9));
    CEnvBlock back(false);
    back.Deserialize(&bytes[0]);
    EXPECT_EQ(Entries(back), "A=1;B=2;");
    CEnvBlock empty(false);
    EXPECT_EQ(SerializeOf(empty, 0), "");
    char nothing[] = {'\0', 'A', '=', '1', '\0', '\0'};
    empty.Deserialize(nothing);
    EXPECT_EQ(Entries(empty), "");
}

TEST(EnvBlock, RandomBlocksRoundTripThroughTheSerialisedForm)
{
    std::mt19937 random(6101u);
    auto randomText = [&random](char replaceEquals) {
        std::string text;
        for (int i = 1 + static_cast<int>(random() % 10); i > 0; --i) {
            const char c = static_cast<char>(1 + random() % 255);
            text += c == '=' ? replaceEquals : c;
        }
        return text;
    };
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        CEnvBlock block(false);
        std::map<std::string, std::string> model;
        for (int n = static_cast<int>(random() % 40); n > 0; --n) {
            const std::string name = randomText('x'), value = randomText('=');
            block.SetValue(name, value);
            model[name] = value;
        }
        size_t size = model.empty() ? 0 : 1;
        for (const auto& entry : model) {
            size += entry.first.size() + entry.second.size() + 2;
        }
        std::string bytes = SerializeOf(block, size) + std::string(2, '\0');
        CEnvBlock back(false);
        back.Deserialize(&bytes[0]);
        for (const auto& entry : model) {
            EXPECT_EQ(back.GetValue(entry.first, "<missing>"), entry.second);
        }
        EXPECT_EQ(Entries(back), Entries(block));
    }
}

TEST(EnvBlock, ProcessEnvironmentAndArrays)
{
    ASSERT_EQ(setenv("KQ_ENV_TEST", "a=b", 1), 0);
    EXPECT_EQ(CEnvBlock(true).GetValue("KQ_ENV_TEST", ""), "a=b");
    EXPECT_EQ(CEnvBlock(false).GetValue("KQ_ENV_TEST", "no"), "no");
    unsetenv("KQ_ENV_TEST");
    char a[] = "ONE=1", b[] = "broken", c[] = "TWO=2";
    char* list[] = {a, b, c, nullptr};
    CEnvBlock fromList(false);
    fromList.Deserialize(list);
    EXPECT_EQ(Entries(fromList), "ONE=1;TWO=2;");
    // clearenv() makes environ null; done in a child so this process keeps its environment.
    EXPECT_EXIT(
        {
            clearenv();
            std::exit(Entries(CEnvBlock(true)).empty() && environ == nullptr ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(EnvBlock, ReadsFilesByTheirStatSize)
{
    KqTest::TempDir dir;
    std::ofstream(dir / "env") << "HOME=/root\nPATH=/bin:/usr/bin\r\nbad line\n=x\nHOME=/home\n";
    EXPECT_EQ(Entries(CEnvBlock((dir / "env").c_str())), "HOME=/home;PATH=/bin:/usr/bin\r;");
    std::ofstream(dir / "nul") << std::string("A=1\nB=2\0C=3\n", 12);
    EXPECT_EQ(Entries(CEnvBlock((dir / "nul").c_str())), "A=1;B=2;");
    std::ofstream(dir / "empty").flush();
    // Missing, a directory, empty, and /proc (size 0 whatever reading gives): nothing is added.
    for (const std::string& path : {dir / "missing", dir.Path(), dir / "empty", std::string("/proc/self/environ")}) {
        EXPECT_EQ(Entries(CEnvBlock(path.c_str())), "") << path;
    }
    EXPECT_EQ(Entries(CEnvBlock(static_cast<const char*>(nullptr))), "");
    // A FIFO reports size 0 too; a child writes to it so that opening it does not block.
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        std::ofstream(dir / "fifo") << "A=1\n";
        _exit(0);
    }
    EXPECT_EQ(Entries(CEnvBlock((dir / "fifo").c_str())), "");
    waitpid(writer, nullptr, 0);
}

}  // namespace
