// Runs the example service kq-demo as a child process, stops it with SIGTERM
// in the middle of its run and checks that it shuts down cleanly.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <signal.h>

TEST(ExampleService, StopsCleanlyOnSigterm)
{
    // The build sets KQ_DEMO_PATH to the kq-demo executable, or empty when it is not built.
    if (*KQ_DEMO_PATH == '\0') {
        GTEST_SKIP() << "kq-demo is not built (KQ_BUILD_EXAMPLES=OFF)";
    }
    // The shell prints its pid, which kq-demo keeps through exec.
    FILE* out = popen((std::string("echo $$; exec '") + KQ_DEMO_PATH + "' --seconds 60").c_str(), "r");
    ASSERT_NE(out, nullptr);
    char line[512];
    const pid_t pid = fgets(line, sizeof line, out) != nullptr ? std::atoi(line) : 0;
    ASSERT_GT(pid, 0);
    std::string text;
    bool signalled = false;
    while (fgets(line, sizeof line, out) != nullptr) {
        text += line;
        // Signalled once its timer and schedule are busy.
        if (!signalled && text.find("schedule: sample 2") != std::string::npos) {
            signalled = kill(pid, SIGTERM) == 0;
        }
    }
    EXPECT_EQ(pclose(out), 0) << "exit status 0 after SIGTERM\n" << text;
    EXPECT_NE(text.find("kq-demo: summary: ran "), std::string::npos) << text;
    EXPECT_EQ(text.find("run time is up"), std::string::npos) << "stopped by the signal, not the clock";
}
