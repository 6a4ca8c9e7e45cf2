/// The crash handler as it is built for a C library without a backtrace, as musl is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "crash_handler.h"
#include "fake_machine.h"

TEST(CrashWithoutBacktrace, TellsThatThereIsNone)
{
    const TemporaryFolder runtime;
    const ScopedEnv folder("XDG_RUNTIME_DIR", runtime.path());
    const pid_t dying = fork();
    if (dying == 0) {
        prctl(PR_SET_DUMPABLE, 0);  // no core
        CrashHandler::install();
        std::abort();
    }
    ASSERT_GT(dying, 0);
    int status = 0;
    waitpid(dying, &status, 0);
    EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, SIGABRT);
    const std::string report = read_text(runtime.path() + "/Vantric_crash.txt");
    EXPECT_THAT(report, testing::StartsWith("=== Vantric Crash Report ===\n"));
    EXPECT_THAT(report, testing::EndsWith("\n\nBacktrace:\n(none: this C library has no backtrace)\n\n=== End Report ===\n"));
}
