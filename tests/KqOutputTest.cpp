// Tests of the print hook, MyPrintf and the text helpers.
#include "KqOutput.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "KqTestSupport.h"

// g++ takes the malloc/free pair inside the replaced operators below for a
// mismatch once it inlines them into new-expressions.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

// Counts every allocation made through the global operator new in this test
// program, so a test can show that a call allocates nothing.
namespace {
std::atomic<unsigned long> g_Allocations{0};
}

void* operator new(std::size_t size)
{
    ++g_Allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

// A hook that records the format it was given and its first argument.
struct RecordedCall {
    std::string format;
    std::string argument;
    int calls = 0;
};
RecordedCall g_Recorded;

int RecordingHook(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    g_Recorded.format = format;
    g_Recorded.argument = va_arg(args, const char*);
    va_end(args);
    ++g_Recorded.calls;
    return 0;
}

int OtherHook(const char*, ...) { return 0; }

int NoOpHook(const char*, ...) { return 0; }

// Installs the recording hook for one test and restores printf afterwards.
class HookTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_Recorded = RecordedCall();
        KQ::Init(&RecordingHook);
    }
    void TearDown() override { KQ::Init(&printf); }
};

// Runs body in a child process whose standard output goes to a pipe and
// returns what the child printed.
template <class Body>
std::string StdoutOfChild(Body body)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return "pipe failed";
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        body();
        fflush(stdout);
        _exit(0);
    }
    close(fds[1]);
    std::string output;
    char buffer[256];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0) {
        output.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return output;
}

}  // namespace

TEST(OutputHook, StartsAsPrintfToStandardOutput)
{
    EXPECT_EQ(StdoutOfChild([] { KQ::MyPrintf("x=%d", 5); }), "x=5\n");
}

TEST_F(HookTest, HookReceivesPercentSNewlineAndTheText)
{
    KQ::MyPrintf("x=%d, %s", 5, "five");
    EXPECT_EQ(g_Recorded.calls, 1);
    EXPECT_EQ(g_Recorded.format, "%s\n");
    EXPECT_EQ(g_Recorded.argument, "x=5, five");
}

TEST_F(HookTest, InitWithNullKeepsTheInstalledHook)
{
    KQ::Init(nullptr);
    EXPECT_EQ(KQ::pPrintf, &RecordingHook);
    KQ::MyPrintf("still here");
    EXPECT_EQ(g_Recorded.argument, "still here");
}

TEST_F(HookTest, LastNonNullInitWins)
{
    KQ::Init(&OtherHook);
    KQ::Init(nullptr);
    EXPECT_EQ(KQ::pPrintf, &OtherHook);
}

TEST_F(HookTest, LongMessagesAreCutAt255Characters)
{
    struct Case {
        size_t length;
        size_t expected;
    };
    for (const Case& c : {Case{0, 0}, Case{254, 254}, Case{255, 255}, Case{256, 255}, Case{300, 255}, Case{5000, 255}}) {
        std::string text;
        for (size_t i = 0; i < c.length; ++i) {
            text += static_cast<char>('a' + i % 26);
        }
        KQ::MyPrintf("%s", text.c_str());
        EXPECT_EQ(g_Recorded.argument, text.substr(0, c.expected)) << "length " << c.length;
    }
}

TEST_F(HookTest, PercentInTheTextIsPassedAsData)
{
    KQ::MyPrintf("%s", "100%s done %d %n");
    EXPECT_EQ(g_Recorded.format, "%s\n");
    EXPECT_EQ(g_Recorded.argument, "100%s done %d %n");
}

TEST_F(HookTest, FormatEndingInNewlineKeepsItBeforeTheAddedOne)
{
    KQ::MyPrintf("line\n");
    EXPECT_EQ(g_Recorded.argument, "line\n");
    EXPECT_EQ(g_Recorded.format, "%s\n");
}

TEST(OutputHook, MyPrintfAllocatesNothing)
{
    KQ::Init(&NoOpHook);
    const std::string big(1000, 'z');
    const unsigned long before = g_Allocations.load();
    for (int i = 0; i < 100; ++i) {
        KQ::MyPrintf("%d %s %f %p", i, big.c_str(), 1.5, static_cast<void*>(nullptr));
    }
    const unsigned long after = g_Allocations.load();
    KQ::Init(&printf);
    EXPECT_EQ(after - before, 0u);
}

TEST(OutputHook, CallsFromManyThreadsEachReachTheHookWhole)
{
    KqTest::HookCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                KQ::MyPrintf("thread %d line %d", t, i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 800u);
    for (const std::string& line : lines) {
        int t = -1;
        int i = -1;
        EXPECT_EQ(sscanf(line.c_str(), "thread %d line %d", &t, &i), 2) << line;
    }
}

TEST(HexStream, AppendsTwoUpperCaseDigitsAndABlankPerByte)
{
    struct Case {
        std::vector<unsigned char> bytes;
        int count;
        const char* expected;
    };
    const Case cases[] = {
        {{0x00, 0x1F, 0xA0}, 3, "00 1F A0 "},
        {{0x0A, 0xFF}, 2, "0A FF "},
        {{0x7F}, 1, "7F "},
        {{0x01, 0x02}, 0, ""},
        {{0x01, 0x02}, -5, ""},
        {{0x12, 0x34, 0x56}, 2, "12 34 "},
    };
    for (const Case& c : cases) {
        std::string out;
        EXPECT_STREQ(KQ::HexStream(out, c.bytes.data(), c.count), c.expected);
        EXPECT_EQ(out, c.expected);
    }
}

TEST(HexStream, AppendsWithoutClearingAndReturnsTheStringsCharacters)
{
    std::string out = "pre: ";
    const unsigned char bytes[] = {0xDE, 0xAD};
    const char* result = KQ::HexStream(out, bytes, 2);
    EXPECT_EQ(out, "pre: DE AD ");
    EXPECT_EQ(result, out.c_str());
    EXPECT_EQ(KQ::HexStream(out, nullptr, 0), out.c_str());
    EXPECT_EQ(out, "pre: DE AD ");
}

TEST(StrFormat, FormatsWholeTextOfAnyLength)
{
    EXPECT_EQ(KQ::Str::Format(nullptr), "");
    EXPECT_EQ(KQ::Str::Format("%05d", 42), "00042");
    EXPECT_EQ(KQ::Str::Format("%s-%u", "a", 7u), "a-7");
    EXPECT_EQ(KQ::Str::Format("%s", ""), "");

    const std::string big(10000, 'q');
    const std::string formatted = KQ::Str::Format("%s", big.c_str());
    EXPECT_EQ(formatted.size(), 10000u);
    EXPECT_EQ(formatted, big);
    EXPECT_EQ(KQ::Str::Format("[%9999d]", 1).size(), 10001u);
}

TEST(StrFormat, FailedFormattingGivesAnEmptyString)
{
    // In the "C" locale a wide character outside ASCII cannot be converted,
    // so vsnprintf returns a negative count.
    const wchar_t unconvertible[] = {static_cast<wchar_t>(0x20AC), 0};
    EXPECT_EQ(KQ::Str::Format("%ls", unconvertible), "");
}

TEST(RemoveTrailingWhitespace, TrimsOnlyTheEnd)
{
    struct Case {
        std::string text;
        std::string expected;
    };
    const Case cases[] = {
        {"a b \t\r\n", "a b"},
        {"   ", ""},
        {"", ""},
        {" a", " a"},
        {" a b ", " a b"},
        {std::string("ab\0\0", 4), "ab"},
        {std::string("ab \0 \0", 6), "ab"},
        {"x\v\f", "x"},
        {std::string("a\0b", 3), std::string("a\0b", 3)},
        {"\xA0", "\xA0"},
    };
    for (const Case& c : cases) {
        const std::string original = c.text;
        EXPECT_EQ(KQ::Str::RemoveTrailingWhitespace(c.text), c.expected);
        EXPECT_EQ(c.text, original);
    }
}
