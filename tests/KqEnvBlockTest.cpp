// Tests of the environment block: adding rules, the text and serialised
// forms, the process environment and files.
#include "KqEnvBlock.h"

#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using KQ::CEnvBlock;

namespace {

// Serialize writes exactly the expected bytes (guard bytes after them stay untouched), and
// Deserialize of them into an empty block gives a block that serialises the same again,
// without reading what follows the block's end.
void ExpectSerialised(CEnvBlock block, const std::string& expected)
{
    std::string input = expected + std::string("\0X=9", 4);
    CEnvBlock back(false);
    back.Deserialize(&input[0]);
    for (CEnvBlock* b : {&block, &back}) {
        std::vector<char> out(expected.size() + 8, '#');
        b->Serialize(out.data());
        EXPECT_EQ(std::string(out.begin(), out.end()), expected + "########");
    }
}

// Every entry of b as "name=value;" in block order, read back from the serialised form.
std::string Entries(CEnvBlock b)
{
    std::string out(1 << 16, '\0');
    b.Serialize(&out[0]);
    out.resize(out[0] == '\0' ? 0 : out.find(std::string(2, '\0')) + 1);
    std::replace(out.begin(), out.end(), '\0', ';');
    return out;
}

TEST(EnvBlock, TextLinesSplitAndSetRules)
{
    // Text, separator, the entries it adds to a block that holds Z=kept.
    const std::tuple<std::string, char, std::string> cases[] = {
        {"A=1\nB=2\n", '\n', "A=1;B=2;"},       {"A=1\n\nB=2", '\n', "A=1;B=2;"},
        {"A=1\r\n", '\n', "A=1\r;"},            {"", '\n', ""},
        {"A=1\nA=2", '\n', "A=2;"},             {"A=b=c", '\n', "A=b=c;"},
        {"=x\nA=\nNOEQUALS\nZ=", '\n', ""},     {"Path=x\nPATH=y\nAB=1\nA=2", '\n', "A=2;AB=1;PATH=y;Path=x;"},
        {" A = 1 ", '\n', " A = 1 ;"},          {"A=1;B=2;A=3", ';', "A=3;B=2;"},
        {std::string("A=1\0B=2", 7), '\0', "A=1;B=2;"},
    };
    for (const auto& [text, separator, entries] : cases) {
        CEnvBlock block(false);
        block.SplitAdd("Z=kept");
        block.Deserialize(text, separator);
        EXPECT_EQ(Entries(block), entries + "Z=kept;") << text;
    }
    std::string text = "X=1\nY=2";
    CEnvBlock block(reinterpret_cast<unsigned char*>(&text[0]));
    EXPECT_EQ(Entries(block), "X=1;Y=2;");
    block.SetValue("X", "");
    block.SetValue("", "x");
    EXPECT_EQ(block.GetValue("Z", "none"), "none");
    EXPECT_TRUE(block.RemoveItem("missing"));
    EXPECT_TRUE(block.RemoveItem("Y"));
    EXPECT_EQ(Entries(block), "X=1;");
}

TEST(EnvBlock, SerialisedByteForByteAndBackAgain)
{
    CEnvBlock example(false);
    example.Deserialize("B=2\nA=1", '\n');
    ExpectSerialised(example, std::string("A=1\0B=2\0\0", 9));
    ExpectSerialised(CEnvBlock(false), "");
    // Random blocks, with every byte but NUL in names and values.
    std::mt19937 random(6101u);
    auto randomText = [&random](char insteadOfEquals) {
        std::string text;
        for (int i = 1 + static_cast<int>(random() % 10); i > 0; --i) {
            const char c = static_cast<char>(1 + random() % 255);
            text += c == '=' ? insteadOfEquals : c;
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
        std::string expected;
        for (const auto& [name, value] : model) {
            expected += name + "=" + value + '\0';
        }
        ExpectSerialised(block, model.empty() ? "" : expected + '\0');
    }
}

TEST(EnvBlock, ProcessEnvironmentAndArrays)
{
    ASSERT_EQ(setenv("KQ_ENV_TEST", "a=b", 1), 0);
    EXPECT_EQ(CEnvBlock(true).GetValue("KQ_ENV_TEST", ""), "a=b");
    unsetenv("KQ_ENV_TEST");
    char a[] = "ONE=1", b[] = "broken", c[] = "TWO=2";
    char* list[] = {a, b, c, nullptr};
    CEnvBlock fromList(false);
    fromList.Deserialize(list);
    EXPECT_EQ(Entries(fromList), "ONE=1;TWO=2;");
    // clearenv() makes environ null; done in a child so this process keeps its environment.
    EXPECT_EXIT(std::exit(clearenv() == 0 && Entries(CEnvBlock(true)).empty() && environ == nullptr ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

TEST(EnvBlock, ReadsFilesByTheirStatSize)
{
    KqTest::TempDir dir;
    std::ofstream(dir / "env") << "HOME=/root\nPATH=/bin:/usr/bin\r\nbad line\n=x\nHOME=/home\n";
    EXPECT_EQ(Entries(CEnvBlock((dir / "env").c_str())), "HOME=/home;PATH=/bin:/usr/bin\r;");
    std::ofstream(dir / "nul") << std::string("A=1\nB=2\0C=3\n", 12);
    EXPECT_EQ(Entries(CEnvBlock((dir / "nul").c_str())), "A=1;B=2;");
    // Missing, a directory, and /proc (size 0 whatever reading gives): nothing is added.
    for (const std::string& path : {dir / "missing", dir.Path(), std::string("/proc/self/environ")}) {
        EXPECT_EQ(Entries(CEnvBlock(path.c_str())), "") << path;
    }
    EXPECT_EQ(Entries(CEnvBlock(static_cast<const char*>(nullptr))), "");
}

}  // namespace
