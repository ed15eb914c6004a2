// Tests of CDaemon: quit requests from Quit() and real signals, and detaching
// in a forked child that never returns into the test runner.
#include "KqDaemon.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string ReadFile(const std::string& path)
{
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {});
}

// Waits up to 10 s for path to come into (or go out of) existence.
bool WaitForFile(const std::string& path, bool exists = true)
{
    for (int i = 0; i < 2000 && (access(path.c_str(), F_OK) == 0) != exists; ++i) {
        usleep(5000);
    }
    return (access(path.c_str(), F_OK) == 0) == exists;
}

// Runs body in a forked child (standard output sent to out) that ends with
// _exit(body()) and never returns into the test runner; gives the exit status
// as waitpid reports it.
int RunInChild(const std::string& out, const std::function<int()>& body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        _exit(body());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST(DaemonQuit, RequestsFromQuitSigintAndSigtermAddUp)
{
    KQ::CDaemon daemon;
    KQ::CDaemon::Quit();
    raise(SIGINT);
    raise(SIGTERM);
    EXPECT_TRUE(KQ::CDaemon::CheckQuit() && KQ::CDaemon::CheckQuit() && KQ::CDaemon::CheckQuit());
    EXPECT_FALSE(KQ::CDaemon::CheckQuit());
}

// The daemon's Block() is ended by a real SIGTERM from this process; a failed
// detach is reported on standard error.
TEST(DaemonDetach, PidFileStderrFileRemovalAndFailure)
{
    KqTest::TempDir dir;
    const std::string pid = dir / "svc.pid", err = dir / "svc.stderr", out = dir / "out.txt";
    std::ofstream(err) << "earlier\n";
    RunInChild(out, [&] {
        KQ::CDaemon daemon(false, pid);
        std::fputs("later\n", stderr);  // unbuffered
        std::ofstream(dir / "ready").flush();
        KQ::CDaemon::Block();  // until the test sends SIGTERM; then the destructor runs
        return 0;
    });
    ASSERT_TRUE(WaitForFile(dir / "ready"));
    const pid_t daemonPid = std::stoi(ReadFile(pid));
    ASSERT_GT(daemonPid, 1);
    EXPECT_EQ(ReadFile(pid), std::to_string(daemonPid) + "\n");
    EXPECT_EQ(ReadFile(out), "Daemonizing...\n");
    EXPECT_EQ(ReadFile(err), "earlier\nlater\n");
    ASSERT_EQ(kill(daemonPid, SIGTERM), 0);  // ends the Block() of the process the file names
    EXPECT_TRUE(WaitForFile(pid, false)) << "the PID file is removed";
    const int status = RunInChild(out, [&] {
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        const rlimit none = {0, 0};  // an unprivileged user with no process left cannot fork
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(65534) != 0) {
            return 3;
        }
        return KQ::CDaemon().Daemonize(false, "") ? 1 : 0;
    });
    EXPECT_EQ(status, 0) << "exit 3: could not drop privileges; exit 1: Daemonize() gave true";
    EXPECT_EQ(ReadFile(err), std::string("Failed to daemonize: ") + std::strerror(EAGAIN));
}

}  // namespace
