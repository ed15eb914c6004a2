// Tests of the print hook, MyPrintf and the text helpers.
#include "KqOutput.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

// g++ takes the malloc/free pair inside the replaced operators below for a
// mismatch once it inlines them into new-expressions.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

// Counts every allocation of this test program, so a test can show that a
// call allocates nothing.
static std::atomic<unsigned long> g_Allocations{0};

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

std::string g_Format;
std::string g_Text;

// Records the format and the one text argument the library passes.
int RecordingHook(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    g_Format = format;
    g_Text = va_arg(args, const char*);
    va_end(args);
    return 0;
}

int OtherHook(const char*, ...)
{
    errno = EIO;
    return 0;
}

class HookTest : public ::testing::Test {
protected:
    void SetUp() override { KQ::Init(&RecordingHook); }
    void TearDown() override { KQ::Init(&printf); }
};

}  // namespace

TEST(OutputHook, StartsAsPrintfToStandardOutput)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(fds[1], STDOUT_FILENO);
        KQ::MyPrintf("x=%d", 5);
        fflush(stdout);
        _exit(0);
    }
    close(fds[1]);
    char buffer[16] = {};
    EXPECT_EQ(read(fds[0], buffer, sizeof buffer - 1), 4);
    EXPECT_STREQ(buffer, "x=5\n");
    close(fds[0]);
    waitpid(child, nullptr, 0);
}

TEST_F(HookTest, HookGetsTheTextAsDataBehindPercentSNewline)
{
    const char* const texts[] = {"x=5, five", "100%s done %d %n", "line\n"};
    for (const char* text : texts) {
        KQ::MyPrintf("%s", text);
        EXPECT_EQ(g_Format, "%s\n");
        EXPECT_EQ(g_Text, text);
    }
    KQ::MyPrintf("x=%d", 5);
    EXPECT_EQ(g_Text, "x=5");
}

TEST_F(HookTest, LongMessagesAreCutAt255Characters)
{
    const size_t cases[][2] = {{0, 0}, {254, 254}, {255, 255}, {256, 255}, {300, 255}, {5000, 255}};
    for (const auto& c : cases) {
        std::string text(c[0], 'a');
        for (size_t i = 0; i < text.size(); ++i) {
            text[i] = static_cast<char>('a' + i % 26);
        }
        KQ::MyPrintf("%s", text.c_str());
        EXPECT_EQ(g_Text, text.substr(0, c[1])) << c[0];
    }
}

// OtherHook clobbers errno; the last non-null hook stays installed.
TEST(OutputHook, MyPrintfAllocatesNothingAndKeepsErrno)
{
    KQ::Init(&OtherHook);
    KQ::Init(nullptr);
    EXPECT_EQ(KQ::pPrintf, &OtherHook);
    const std::string big(1000, 'z');
    const unsigned long before = g_Allocations.load();
    for (int i = 0; i < 100; ++i) {
        errno = ENOENT;
        KQ::MyPrintf("%d %s %f", i, big.c_str(), 1.5);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_EQ(g_Allocations.load() - before, 0u);
    KQ::Init(&printf);
}

TEST(HexStream, AppendsTwoUpperCaseDigitsAndABlankPerByte)
{
    const unsigned char bytes[] = {0x00, 0x1F, 0xA0};
    const struct {
        const char* before;
        int count;
        const char* after;
    } cases[] = {{"", 3, "00 1F A0 "}, {"pre ", 1, "pre 00 "}, {"keep", 0, "keep"}, {"keep", -5, "keep"}};
    for (const auto& c : cases) {
        std::string out = c.before;
        const char* result = KQ::HexStream(out, bytes, c.count);
        EXPECT_EQ(out, c.after);
        EXPECT_EQ(result, out.c_str());
    }
}

TEST(StrFormat, FormatsTheWholeTextOrNothing)
{
    EXPECT_EQ(KQ::Str::Format(nullptr), "");
    EXPECT_EQ(KQ::Str::Format("%05d", 42), "00042");
    EXPECT_EQ(KQ::Str::Format("%s", std::string(10000, 'q').c_str()), std::string(10000, 'q'));
    // In the "C" locale a wide character outside ASCII cannot be converted,
    // so vsnprintf fails.
    const wchar_t unconvertible[] = {static_cast<wchar_t>(0x20AC), 0};
    EXPECT_EQ(KQ::Str::Format("%ls", unconvertible), "");
}

TEST(RemoveTrailingWhitespace, TrimsOnlyTheEnd)
{
    const std::string cases[][2] = {
        {"a b \t\r\n", "a b"},     {"   ", ""},        {" a", " a"}, {std::string("ab \0\0", 5), "ab"},
        {"x\v\f", "x"},            {std::string("a\0b", 3), std::string("a\0b", 3)}, {"\xA0", "\xA0"},
    };
    for (const auto& c : cases) {
        const std::string original = c[0];
        EXPECT_EQ(KQ::Str::RemoveTrailingWhitespace(c[0]), c[1]);
        EXPECT_EQ(c[0], original);
    }
}
