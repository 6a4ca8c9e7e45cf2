/// Programs that are started while the signals wait at the gate.
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include "fake_machine.h"
#include "signal_gate.h"

extern char** environ;

namespace {

volatile std::sig_atomic_t g_interrupts = 0;
volatile std::sig_atomic_t g_terminations = 0;

void count(int signal)
{
    if (signal == SIGINT) {
        g_interrupts = g_interrupts + 1;
    } else {
        g_terminations = g_terminations + 1;
    }
}

bool is_blocked(int signal)
{
    sigset_t set;
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    return sigismember(&set, signal) == 1;
}

/// A program that sleeps until its end, which comes by SIGKILL at the latest.
class Child {
public:
    explicit Child(GPid pid) : m_pid(pid) {}
    ~Child()
    {
        if (!m_has_ended) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    static GPid spawned_by_glib()
    {
        char program[] = "sleep";
        char duration[] = "1000";
        char* argv[] = {program, duration, nullptr};
        GPid pid = 0;
        const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
        if (!g_spawn_async(nullptr, argv, nullptr, flags, nullptr, nullptr, &pid, nullptr)) {
            throw std::runtime_error("can't start sleep");
        }
        return pid;
    }

    static GPid spawned_by_posix()
    {
        char program[] = "sleep";
        char duration[] = "1000";
        char* argv[] = {program, duration, nullptr};
        GPid pid = 0;
        if (posix_spawnp(&pid, program, nullptr, nullptr, argv, environ) != 0) {
            throw std::runtime_error("can't start sleep");
        }
        return pid;
    }

    /// Which of the two signals stand in one of the sets of its status, such as "SigBlk": "INT", "TERM", "INT TERM" or "none". Waits until
    /// the program itself runs, since what stands before it may block all signals for a while.
    std::string signals(const std::string& set) const
    {
        std::string status;
        wait_until([&] {
            status = read_text("/proc/" + std::to_string(m_pid) + "/status");
            return status.starts_with("Name:\tsleep\n");
        });
        const std::size_t line = status.find(set + ":");
        if (line == std::string::npos) {
            return "unknown";
        }
        const unsigned long long bits = std::stoull(status.substr(line + set.size() + 1), nullptr, 16);
        const bool interrupt = (bits >> (SIGINT - 1) & 1U) != 0;
        const bool terminate = (bits >> (SIGTERM - 1) & 1U) != 0;
        return interrupt && terminate ? "INT TERM" : interrupt ? "INT" : terminate ? "TERM" : "none";
    }

    /// The signal by which it ends after it was sent that one; 0 if it does not end.
    int end_by(int signal)
    {
        kill(m_pid, signal);
        int status = 0;
        m_has_ended = wait_until([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; });
        return m_has_ended && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    const GPid m_pid;
    bool m_has_ended = false;
};

/// A program whose handlers count, behind the closed gate. Puts handlers, mask and the main context's poll function back at the end.
struct NewPrograms : testing::Test {
    NewPrograms()
    {
        pthread_sigmask(SIG_BLOCK, nullptr, &mask_before);
        g_interrupts = 0;
        g_terminations = 0;
        std::signal(SIGINT, count);
        std::signal(SIGTERM, count);
        SignalGate::close();
    }
    ~NewPrograms() override
    {
        std::signal(SIGINT, SIG_IGN);  // drops what still waits
        std::signal(SIGTERM, SIG_IGN);
        g_main_context_set_poll_func(nullptr, nullptr);
        pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
    }

    sigset_t mask_before;
};

}  // namespace

TEST_F(NewPrograms, OfGlibCanBeEndedByBothSignals)
{
    const SignalGate::ForNewPrograms gate;
    Child interrupted(Child::spawned_by_glib());
    Child terminated(Child::spawned_by_glib());
    EXPECT_EQ(interrupted.signals("SigBlk"), "none");
    EXPECT_EQ(interrupted.signals("SigIgn"), "none");
    EXPECT_EQ(interrupted.end_by(SIGINT), SIGINT);
    EXPECT_EQ(terminated.end_by(SIGTERM), SIGTERM);
}

TEST_F(NewPrograms, OfPosixCanBeEndedByBothSignals)
{
    const SignalGate::ForNewPrograms gate;
    Child interrupted(Child::spawned_by_posix());
    Child terminated(Child::spawned_by_posix());
    EXPECT_EQ(interrupted.signals("SigBlk"), "none");
    EXPECT_EQ(interrupted.signals("SigIgn"), "none");
    EXPECT_EQ(interrupted.end_by(SIGINT), SIGINT);
    EXPECT_EQ(terminated.end_by(SIGTERM), SIGTERM);
}

TEST_F(NewPrograms, StartedOutsideInheritTheBlock)
{
    EXPECT_EQ(Child(Child::spawned_by_posix()).signals("SigBlk"), "INT TERM");
    {
        const SignalGate::ForNewPrograms gate;
    }
    EXPECT_EQ(Child(Child::spawned_by_posix()).signals("SigBlk"), "INT TERM");
}

TEST_F(NewPrograms, SignalMeanwhileWaitsForTheGate)
{
    {
        const SignalGate::ForNewPrograms gate;
        kill(getpid(), SIGINT);
        kill(getpid(), SIGTERM);
        EXPECT_EQ(0, g_interrupts);
        EXPECT_EQ(0, g_terminations);
    }
    EXPECT_EQ(0, g_interrupts) << "the gate is closed";
    EXPECT_EQ(0, g_terminations);
    SignalGate::open_for_main_loop();
    EXPECT_EQ(1, g_interrupts);
    EXPECT_EQ(1, g_terminations);
}

TEST_F(NewPrograms, SignalMeanwhileIsDeliveredByTheNextPoll)
{
    SignalGate::open_for_main_loop();
    g_main_context_iteration(nullptr, FALSE);
    {
        const SignalGate::ForNewPrograms gate;
        std::raise(SIGTERM);
    }
    EXPECT_EQ(0, g_terminations);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(1, g_terminations);
    EXPECT_EQ(0, g_interrupts) << "only what came is passed on";
}

TEST_F(NewPrograms, SignalThatHasWaitedBeforeWaitsOn)
{
    std::raise(SIGINT);
    {
        const SignalGate::ForNewPrograms gate;
        EXPECT_EQ(0, g_interrupts);
    }
    EXPECT_EQ(0, g_interrupts);
    SignalGate::open_for_main_loop();
    EXPECT_EQ(1, g_interrupts);
    EXPECT_EQ(0, g_terminations);
}

TEST_F(NewPrograms, EachSignalIsPassedOnOnce)
{
    {
        const SignalGate::ForNewPrograms gate;
        std::raise(SIGTERM);
    }
    {
        const SignalGate::ForNewPrograms gate;
    }
    SignalGate::open_for_main_loop();
    EXPECT_EQ(1, g_terminations);
    {
        const SignalGate::ForNewPrograms gate;
    }
    SignalGate::open_for_main_loop();
    EXPECT_EQ(1, g_terminations);
}

TEST_F(NewPrograms, CanBeStartedByWhoIsCalledByAnother)
{
    {
        const SignalGate::ForNewPrograms outer;
        {
            const SignalGate::ForNewPrograms inner;
            std::raise(SIGINT);
        }
        EXPECT_EQ(Child(Child::spawned_by_posix()).signals("SigBlk"), "none") << "the outer one still holds";
        EXPECT_EQ(0, g_interrupts);
    }
    EXPECT_TRUE(is_blocked(SIGINT));
    EXPECT_EQ(0, g_interrupts);
    SignalGate::open_for_main_loop();
    EXPECT_EQ(1, g_interrupts);
}

TEST_F(NewPrograms, SignalThatAnotherThreadIsStillToldOfIsNotLost)
{
    struct sigaction meanwhile {};
    {
        const SignalGate::ForNewPrograms gate;
        sigaction(SIGTERM, nullptr, &meanwhile);
    }
    std::thread(meanwhile.sa_handler, SIGTERM).join();  // as in a thread of a library whose handler has just been entered
    EXPECT_EQ(0, g_terminations);
    SignalGate::open_for_main_loop();
    EXPECT_EQ(1, g_terminations);
}

TEST_F(NewPrograms, HandlersAndMaskAreBackAfterwards)
{
    struct sigaction own {};
    own.sa_handler = count;
    own.sa_flags = SA_NODEFER;
    sigaddset(&own.sa_mask, SIGUSR2);
    sigaction(SIGTERM, &own, nullptr);
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    {
        const SignalGate::ForNewPrograms gate;
        EXPECT_FALSE(is_blocked(SIGINT));
        EXPECT_FALSE(is_blocked(SIGTERM));
        EXPECT_TRUE(is_blocked(SIGUSR1));
    }
    struct sigaction interrupt {};
    struct sigaction terminate {};
    sigaction(SIGINT, nullptr, &interrupt);
    sigaction(SIGTERM, nullptr, &terminate);
    EXPECT_EQ(interrupt.sa_handler, count);
    EXPECT_EQ(terminate.sa_handler, count);
    EXPECT_TRUE((terminate.sa_flags & SA_NODEFER) != 0);
    EXPECT_EQ(sigismember(&terminate.sa_mask, SIGUSR2), 1);
    EXPECT_TRUE(is_blocked(SIGINT));
    EXPECT_TRUE(is_blocked(SIGTERM));
    EXPECT_TRUE(is_blocked(SIGUSR1));
    EXPECT_FALSE(is_blocked(SIGHUP));
}

TEST_F(NewPrograms, SignalMeanwhileBreaksNoSystemCall)
{
    int pipe_ends[2];
    ASSERT_EQ(0, pipe2(pipe_ends, O_CLOEXEC));
    const pthread_t main_thread = pthread_self();
    const std::string status = "/proc/self/task/" + std::to_string(syscall(SYS_gettid)) + "/status";
    const auto sleeps = [&] { return read_text(status).find("\nState:\tS") != std::string::npos; };
    const SignalGate::ForNewPrograms gate;
    std::thread other([&] {
        wait_until(sleeps);
        pthread_kill(main_thread, SIGTERM);
        wait_until(sleeps);  // in the same call once more
        EXPECT_EQ(1, write(pipe_ends[1], "x", 1));
    });
    char byte = 0;
    EXPECT_EQ(1, read(pipe_ends[0], &byte, 1)) << std::strerror(errno);
    other.join();
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}
