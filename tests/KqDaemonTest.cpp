// Tests of CDaemon: quit requests from Quit() and real signals, Block(), the
// PID file, and detaching in forked children that never return into the
// test runner.
#include "KqDaemon.h"
#include "KqTestSupport.h"
#include "KqTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <signal.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using KQ::CDaemon;

void SleepMs(unsigned int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

void DrainQuitRequests()
{
    while (CDaemon::CheckQuit()) {
    }
}

bool Exists(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

// Writes text to path in one step (through a rename), for the parent to poll.
void Publish(const std::string& path, const std::string& text)
{
    WriteFile(path + ".tmp", text);
    rename((path + ".tmp").c_str(), path.c_str());
}

bool WaitForFile(const std::string& path, unsigned int ms = 10000)
{
    const uint64_t start = KQ::Time::GetTicks1K();
    while (!Exists(path)) {
        if (KQ::Time::GetTicks1K() - start > ms) {
            return false;
        }
        SleepMs(5);
    }
    return true;
}

// Runs body in a forked child with standard output sent to stdoutPath and
// a 30 s alarm as a safety net; the child (and a process it detaches into)
// ends with _exit and never returns into the test runner. Returns the
// child's exit status as waitpid reports it.
int RunInChild(const std::string& stdoutPath, const std::function<void()>& body)
{
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        const int fd = open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDOUT_FILENO);
        body();
        std::fflush(stdout);
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// ---- quit requests ----

TEST(DaemonQuit, CheckQuitConsumesOneRequestEach)
{
    DrainQuitRequests();
    EXPECT_FALSE(CDaemon::CheckQuit());
    CDaemon::Quit();
    EXPECT_TRUE(CDaemon::CheckQuit());
    EXPECT_FALSE(CDaemon::CheckQuit());
    CDaemon::Quit();
    CDaemon::Quit();
    EXPECT_TRUE(CDaemon::CheckQuit());
    EXPECT_TRUE(CDaemon::CheckQuit());
    EXPECT_FALSE(CDaemon::CheckQuit());
}

TEST(DaemonQuit, BlockTakesAQuitFromAnotherThread)
{
    DrainQuitRequests();
    std::thread asker([] {
        SleepMs(50);
        CDaemon::Quit();
    });
    EXPECT_TRUE(CDaemon::Block());
    asker.join();
    EXPECT_FALSE(CDaemon::CheckQuit());
}

class DaemonSignal : public ::testing::TestWithParam<int> {};

TEST_P(DaemonSignal, EachSignalAddsOneRequestThroughAHandlerThatOutlivesTheObject)
{
    signal(GetParam(), SIG_DFL);
    {
        CDaemon daemon;
    }
    struct sigaction current = {};
    ASSERT_EQ(sigaction(GetParam(), nullptr, &current), 0);
    EXPECT_EQ(current.sa_handler, &CDaemon::HandleSignal);
    EXPECT_EQ(current.sa_flags & SA_RESTART, 0);
    DrainQuitRequests();
    raise(GetParam());
    raise(GetParam());
    EXPECT_TRUE(CDaemon::CheckQuit());
    EXPECT_TRUE(CDaemon::CheckQuit());
    EXPECT_FALSE(CDaemon::CheckQuit());
}

INSTANTIATE_TEST_SUITE_P(QuitSignals, DaemonSignal, ::testing::Values(SIGINT, SIGTERM));

// Sends SIGTERM to the whole process (any thread may handle it) or to the
// thread blocked in Block() (its wait is interrupted).
class DaemonBlock : public ::testing::TestWithParam<bool> {};

TEST_P(DaemonBlock, SigtermEndsTheBlockAndNoRequestIsLost)
{
    CDaemon daemon;
    DrainQuitRequests();
    const pthread_t blocked = pthread_self();
    const bool toThread = GetParam();
    std::atomic<bool> done(false);
    std::thread sender([&] {
        SleepMs(100);
        toThread ? pthread_kill(blocked, SIGTERM) : kill(getpid(), SIGTERM);
        for (int i = 0; i < 500 && !done.load(); ++i) {
            SleepMs(10);
        }
        if (!done.load()) {
            CDaemon::Quit();  // unblock the test if the signal was lost
        }
    });
    const bool taken = CDaemon::Block();
    done = true;
    sender.join();
    EXPECT_NE(taken, CDaemon::CheckQuit()) << "the request is either taken or still pending";
    EXPECT_FALSE(CDaemon::CheckQuit());
}

INSTANTIATE_TEST_SUITE_P(Targets, DaemonBlock, ::testing::Values(false, true));

// ---- PID file in the foreground ----

TEST(DaemonPidFile, ForegroundWritesNothingAndTheDestructorRemovesThePath)
{
    KqTest::TempDir dir;
    const std::string pid = dir / "svc.pid";
    const std::string out = dir / "out.txt";
    const int status = RunInChild(out, [&] {
        CDaemon daemon(true, pid);
        if (Exists(pid) || Exists(dir / "svc.stderr") || getppid() == 1) {
            _exit(2);
        }
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(ReadFile(out), "") << "foreground mode prints nothing";

    {
        CDaemon daemon(true, pid);
        EXPECT_FALSE(Exists(pid));
        WriteFile(pid, "someone else's\n");
    }
    EXPECT_FALSE(Exists(pid)) << "the destructor removes a file of that name";
}

TEST(DaemonPidFile, CreatePidFileWritesTheProcessId)
{
    KqTest::TempDir dir;
    const std::string pid = dir / "svc.pid";
    {
        CDaemon daemon;
        EXPECT_FALSE(daemon.CreatePidFile()) << "no PID path";
        EXPECT_TRUE(daemon.Daemonize(true, pid));
        EXPECT_TRUE(daemon.CreatePidFile());
        EXPECT_EQ(ReadFile(pid), std::to_string(getpid()) + "\n");
    }
    EXPECT_FALSE(Exists(pid));

    CDaemon daemon(true, dir / "missing/svc.pid");
    EXPECT_FALSE(daemon.CreatePidFile());
}

// ---- detaching ----

TEST(DaemonDetach, PidFileStderrFileAndRemoval)
{
    KqTest::TempDir dir;
    const std::string pid = dir / "svc.pid";
    const std::string err = dir / "svc.stderr";
    const std::string report = dir / "report";
    const std::string done = dir / "done";
    WriteFile(err, "earlier\n");

    const int status = RunInChild(dir / "out.txt", [&] {
        {
            CDaemon daemon(false, pid);
            std::fputs("later\n", stderr);
            std::fflush(stderr);
            const bool ownSession = getsid(0) == getpid();
            Publish(report, std::to_string(getpid()) + " " + (ownSession ? "session" : "no-session"));
            CDaemon::Block();  // until the test sends SIGTERM
        }
        Publish(done, "done");
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the detaching parent exits with 0";

    ASSERT_TRUE(WaitForFile(report));
    std::istringstream fields(ReadFile(report));
    long daemonPid = 0;
    std::string session;
    fields >> daemonPid >> session;
    EXPECT_GT(daemonPid, 0);
    EXPECT_EQ(session, "session");
    EXPECT_EQ(ReadFile(pid), std::to_string(daemonPid) + "\n");
    EXPECT_EQ(ReadFile(dir / "out.txt"), "Daemonizing...\n");
    EXPECT_EQ(ReadFile(err), "earlier\nlater\n");

    ASSERT_EQ(kill(static_cast<pid_t>(daemonPid), SIGTERM), 0);
    ASSERT_TRUE(WaitForFile(done));
    EXPECT_FALSE(Exists(pid));
}

TEST(DaemonDetach, FailedDetachReportsOnStderrAndStillWritesThePidFile)
{
    KqTest::TempDir dir;
    const std::string shared = dir / "shared";
    ASSERT_EQ(mkdir(shared.c_str(), 0777), 0);
    ASSERT_EQ(chmod(shared.c_str(), 0777), 0);
    ASSERT_EQ(chmod(dir.Path().c_str(), 0755), 0);
    const std::string pid = shared + "/svc.pid";
    const std::string report = shared + "/report";
    const std::string err = dir / "err.txt";
    const int status = RunInChild(dir / "out.txt", [&] {
        const int fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDERR_FILENO);
        // Without privilege and with no process left to the user, fork fails.
        const rlimit none = {0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(65534) != 0) {
            _exit(3);
        }
        CDaemon daemon;
        const bool result = daemon.Daemonize(false, pid);
        Publish(report, std::string(result ? "true " : "false ") + std::to_string(getpid()));
        _exit(0);  // keep the PID file
    });
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_NE(WEXITSTATUS(status), 3) << "could not drop privileges";
    ASSERT_TRUE(Exists(report));
    std::istringstream fields(ReadFile(report));
    std::string result;
    long childPid = 0;
    fields >> result >> childPid;
    EXPECT_EQ(result, "false");
    EXPECT_EQ(ReadFile(pid), std::to_string(childPid) + "\n") << "the id is recorded without detaching";
    EXPECT_EQ(ReadFile(dir / "out.txt"), "Daemonizing...\n");
    EXPECT_EQ(ReadFile(err), std::string("Failed to daemonize: ") + std::strerror(EAGAIN));
}

struct StderrNameCase {
    const char* pidFile;     // relative to the test directory
    const char* stderrFile;  // where standard error must go
};

class DaemonStderrName : public ::testing::TestWithParam<StderrNameCase> {};

TEST_P(DaemonStderrName, LastDotOfTheWholePathIsReplaced)
{
    KqTest::TempDir dir;
    ASSERT_EQ(mkdir((dir / "run.d").c_str(), 0700), 0);
    const std::string pid = dir / GetParam().pidFile;
    const std::string report = dir / "report";
    RunInChild(dir / "out.txt", [&] {
        umask(022);
        CDaemon daemon(false, pid);
        std::fputs("to the error file\n", stderr);
        std::fflush(stderr);
        Publish(report, "written");
        _exit(0);  // keep the PID file
    });
    ASSERT_TRUE(WaitForFile(report));
    EXPECT_TRUE(Exists(pid));
    EXPECT_EQ(ReadFile(dir / GetParam().stderrFile), "to the error file\n");
    struct stat info;
    ASSERT_EQ(stat((dir / GetParam().stderrFile).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u) << "a new error file is made with mode 0640";
}

INSTANTIATE_TEST_SUITE_P(Paths, DaemonStderrName,
    ::testing::Values(StderrNameCase{"svc.pid", "svc.stderr"}, StderrNameCase{"run.d/svc", "run.stderr"},
        StderrNameCase{"svc", "svc.stderr"}, StderrNameCase{"svc.tar.pid", "svc.tar.stderr"}));

TEST(DaemonDetach, EmptyPidPathDetachesWithoutFiles)
{
    KqTest::TempDir dir;
    const std::string work = dir / "work";
    ASSERT_EQ(mkdir(work.c_str(), 0700), 0);
    const std::string report = dir / "report";
    RunInChild(dir / "out.txt", [&] {
        if (chdir(work.c_str()) != 0) {
            _exit(3);
        }
        CDaemon daemon;
        const bool result = daemon.Daemonize(false, "");
        const bool detached = getsid(0) == getpid();
        Publish(report, std::string(result ? "true" : "false") + (detached ? " detached" : " attached"));
    });
    ASSERT_TRUE(WaitForFile(report));
    EXPECT_EQ(ReadFile(report), "true detached");
    EXPECT_EQ(ReadFile(dir / "out.txt"), "Daemonizing...\n");
    EXPECT_FALSE(Exists(work + "/.stderr")) << "no error output file without a PID path";
}

}  // namespace
