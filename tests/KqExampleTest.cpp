// Runs the example service kq-demo as a child process: it ends by itself
// after --seconds, stops cleanly on SIGTERM, and refuses unknown options.
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Set by the build to the kq-demo executable, or empty when it is not built.
const char* const DEMO_PATH = KQ_DEMO_PATH;

class ExampleService : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (*DEMO_PATH == '\0') {
            GTEST_SKIP() << "kq-demo is not built (KQ_BUILD_EXAMPLES=OFF)";
        }
    }
};

// A running kq-demo with its standard output on a pipe.
class Demo {
public:
    explicit Demo(const std::vector<std::string>& args)
    {
        int fds[2];
        if (pipe(fds) != 0) {
            return;
        }
        m_Pid = fork();
        if (m_Pid == 0) {
            dup2(fds[1], STDOUT_FILENO);
            dup2(fds[1], STDERR_FILENO);
            close(fds[0]);
            close(fds[1]);
            std::vector<char*> argv{const_cast<char*>(DEMO_PATH)};
            for (const std::string& arg : args) {
                argv.push_back(const_cast<char*>(arg.c_str()));
            }
            argv.push_back(nullptr);
            execv(DEMO_PATH, argv.data());
            _exit(127);
        }
        close(fds[1]);
        m_Out = fds[0];
    }
    ~Demo()
    {
        if (m_Pid > 0 && !m_Reaped) {
            kill(m_Pid, SIGKILL);
            waitpid(m_Pid, nullptr, 0);
        }
        if (m_Out >= 0) {
            close(m_Out);
        }
    }

    // Reads output until it contains text or the output ends (10 s at most).
    bool ReadUntil(const std::string& text)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (m_Text.find(text) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            if (!ReadSome(100)) {
                break;
            }
        }
        return m_Text.find(text) != std::string::npos;
    }
    // Reads to the end of the output and waits for the process; its status.
    int Finish()
    {
        while (ReadSome(10000)) {
        }
        int status = 0;
        waitpid(m_Pid, &status, 0);
        m_Reaped = true;
        return status;
    }
    void Signal(int signal) { kill(m_Pid, signal); }
    const std::string& Text() const { return m_Text; }

private:
    // False at the end of the output.
    bool ReadSome(int timeoutMs)
    {
        pollfd pfd{m_Out, POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) <= 0) {
            return true;
        }
        char buffer[4096];
        const ssize_t n = read(m_Out, buffer, sizeof buffer);
        if (n <= 0) {
            return false;
        }
        m_Text.append(buffer, static_cast<size_t>(n));
        return true;
    }

    pid_t m_Pid = -1;
    int m_Out = -1;
    bool m_Reaped = false;
    std::string m_Text;
};

bool ExitedWith(int status, int code)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

}  // namespace

TEST_F(ExampleService, EndsByItselfAfterItsRunTime)
{
    Demo demo({"--seconds", "1"});
    const int status = demo.Finish();
    EXPECT_TRUE(ExitedWith(status, 0)) << demo.Text();
    EXPECT_NE(demo.Text().find("hex dump: 4B 51 00 1F A0 FF"), std::string::npos) << demo.Text();
    EXPECT_NE(demo.Text().find("timer: run time is up"), std::string::npos) << demo.Text();
    EXPECT_NE(demo.Text().find("kq-demo: summary: ran "), std::string::npos) << demo.Text();
}

TEST_F(ExampleService, StopsCleanlyOnSigterm)
{
    // Early (right after its first line) and in the middle of its run.
    const char* stages[] = {"kq-demo: process", "schedule: sample 2"};
    for (const char* stage : stages) {
        Demo demo({"--seconds", "60"});
        ASSERT_TRUE(demo.ReadUntil(stage)) << demo.Text();
        demo.Signal(SIGTERM);
        const int status = demo.Finish();
        EXPECT_TRUE(ExitedWith(status, 0)) << stage << "\n" << demo.Text();
        EXPECT_NE(demo.Text().find("kq-demo: summary: ran "), std::string::npos) << demo.Text();
        EXPECT_EQ(demo.Text().find("run time is up"), std::string::npos) << "stopped by the signal, not the clock";
    }
}

TEST_F(ExampleService, RefusesUnknownOptions)
{
    Demo demo({"--bogus"});
    EXPECT_TRUE(ExitedWith(demo.Finish(), 2));
    EXPECT_NE(demo.Text().find("usage:"), std::string::npos) << demo.Text();
}

TEST_F(ExampleService, DaemonModeWritesItsPidFileAndStopsOnSigterm)
{
    KqTest::TempDir dir;
    const std::string pidFile = dir / "demo.pid";
    Demo demo({"--daemon", "--pid-file", pidFile, "--seconds", "60"});
    EXPECT_TRUE(ExitedWith(demo.Finish(), 0)) << "the starting process returns at once";
    long pid = 0;
    for (int i = 0; i < 200 && pid == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
        std::ifstream(pidFile) >> pid;
    }
    ASSERT_GT(pid, 0) << "no PID file";
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(kill(static_cast<pid_t>(pid), SIGTERM), 0);
    bool removed = false;
    for (int i = 0; i < 400 && !removed; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
        removed = access(pidFile.c_str(), F_OK) != 0;
    }
    EXPECT_TRUE(removed) << "the PID file is removed at exit";
    std::stringstream diagnostics;
    diagnostics << std::ifstream(dir / "demo.stderr").rdbuf();
    EXPECT_NE(diagnostics.str().find("kq-demo: summary: ran "), std::string::npos) << diagnostics.str();
}
