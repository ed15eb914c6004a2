// Runs the example service kq-demo as a child process, stops it with SIGTERM
// in the middle of its run and checks that it shuts down cleanly.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

// Set by the build to the kq-demo executable, or empty when it is not built.
const char* const DEMO_PATH = KQ_DEMO_PATH;

TEST(ExampleService, StopsCleanlyOnSigterm)
{
    if (*DEMO_PATH == '\0') {
        GTEST_SKIP() << "kq-demo is not built (KQ_BUILD_EXAMPLES=OFF)";
    }
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        execl(DEMO_PATH, DEMO_PATH, "--seconds", "60", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    FILE* out = fdopen(fds[0], "r");
    std::string text;
    char line[512];
    bool signalled = false;
    while (fgets(line, sizeof line, out) != nullptr) {
        text += line;
        // Signalled once its timer and schedule are busy.
        if (!signalled && text.find("schedule: sample 2") != std::string::npos) {
            signalled = kill(pid, SIGTERM) == 0;
        }
    }
    fclose(out);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(signalled) << text;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    EXPECT_NE(text.find("kq-demo: summary: ran "), std::string::npos) << text;
    EXPECT_EQ(text.find("run time is up"), std::string::npos) << "stopped by the signal, not the clock";
}
