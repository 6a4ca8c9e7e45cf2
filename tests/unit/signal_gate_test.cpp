/// The instants at which SIGINT and SIGTERM get through to the main thread.
#include "signal_gate.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>

#include "fake_machine.h"

namespace {

volatile std::sig_atomic_t g_interrupts = 0;
volatile std::sig_atomic_t g_terminations = 0;
volatile std::sig_atomic_t g_elsewhere = 0;  ///< deliveries to another thread than the main one
pthread_t g_main_thread;
GMainLoop* g_loop = nullptr;  ///< ended by a signal, if set

void count(int signal)
{
    if (signal == SIGINT) {
        g_interrupts = g_interrupts + 1;
    } else {
        g_terminations = g_terminations + 1;
    }
    g_elsewhere = g_elsewhere + !pthread_equal(pthread_self(), g_main_thread);
    if (g_loop != nullptr) {
        g_main_loop_quit(g_loop);
    }
}

bool is_blocked(int signal)
{
    sigset_t set;
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    return sigismember(&set, signal) == 1;
}

gboolean run_once(gpointer what)
{
    (*static_cast<std::function<void()>*>(what))();
    return G_SOURCE_REMOVE;
}

/// Counts both signals, and puts handlers, mask and the main context's poll function back at the end.
struct SignalGateTest : testing::Test {
    SignalGateTest()
    {
        g_interrupts = 0;
        g_terminations = 0;
        g_elsewhere = 0;
        g_main_thread = pthread_self();
        g_loop = loop;
        std::signal(SIGINT, count);
        std::signal(SIGTERM, count);
    }
    ~SignalGateTest() override
    {
        std::signal(SIGINT, SIG_IGN);  // drops what still waits
        std::signal(SIGTERM, SIG_IGN);
        g_main_context_set_poll_func(nullptr, nullptr);
        pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
        g_loop = nullptr;
        g_main_loop_unref(loop);
    }

    static sigset_t current_mask()
    {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        return mask;
    }

    /// Runs the main loop until a signal ends it; false if the deadline does.
    bool run_until_signal()
    {
        bool in_time = true;
        std::function<void()> give_up = [&] {
            in_time = false;
            g_main_loop_quit(loop);
        };
        const guint timer = g_timeout_add(static_cast<guint>(DEADLINE.count()), run_once, &give_up);
        g_main_loop_run(loop);
        if (in_time) {
            g_source_remove(timer);
        }
        return in_time;
    }

    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    const sigset_t mask_before = current_mask();
};

TEST_F(SignalGateTest, CloseMakesBothSignalsWait)
{
    SignalGate::close();
    std::raise(SIGINT);
    std::raise(SIGTERM);
    EXPECT_EQ(0, g_interrupts);
    EXPECT_EQ(0, g_terminations);
}

TEST_F(SignalGateTest, CloseLeavesOtherSignalsAlone)
{
    SignalGate::close();
    for (const int other : {SIGHUP, SIGUSR1, SIGSEGV, SIGABRT, SIGTRAP, SIGCHLD, SIGQUIT}) {
        EXPECT_FALSE(is_blocked(other)) << other;
    }
}

TEST_F(SignalGateTest, OpeningDeliversWhatHasWaited)
{
    SignalGate::close();
    std::raise(SIGINT);
    std::raise(SIGTERM);
    SignalGate::open_for_main_loop();
    EXPECT_EQ(1, g_interrupts);
    EXPECT_EQ(1, g_terminations);
}

TEST_F(SignalGateTest, IsOpenInPollOnlyFromTheStartOn)
{
    SignalGate::close();
    SignalGate::open_for_main_loop();
    EXPECT_TRUE(is_blocked(SIGINT));
    EXPECT_TRUE(is_blocked(SIGTERM));
    std::raise(SIGTERM);
    EXPECT_EQ(0, g_terminations);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(1, g_terminations);
    EXPECT_TRUE(is_blocked(SIGINT));
    EXPECT_TRUE(is_blocked(SIGTERM));
}

TEST_F(SignalGateTest, IsShutWhileTheFirstPollIsPrepared)
{
    static bool was_blocked;
    was_blocked = false;
    static GSourceFuncs functions = {.prepare = [](GSource*, gint* timeout_ms) -> gboolean {
        was_blocked = is_blocked(SIGINT) && is_blocked(SIGTERM);
        std::raise(SIGTERM);
        EXPECT_EQ(0, g_terminations);
        *timeout_ms = -1;
        return FALSE;
    }};
    SignalGate::close();
    g_autoptr(GSource) source = g_source_new(&functions, sizeof(GSource));
    g_source_attach(source, nullptr);
    SignalGate::open_for_main_loop();
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_TRUE(was_blocked);
    EXPECT_EQ(1, g_terminations);
    g_source_destroy(source);
}

TEST_F(SignalGateTest, SignalsGetThroughThoughALibraryPollsByItself)
{
    static int polls;
    polls = 0;
    const GPollFunc foreign = [](GPollFD* fds, guint count, gint timeout_ms) -> gint {
        ++polls;
        EXPECT_TRUE(is_blocked(SIGTERM)) << "who knows where it waits";
        return g_poll(fds, count, timeout_ms);
    };
    const guint tick = g_timeout_add(
        10, [](gpointer) -> gboolean { return std::raise(SIGTERM), G_SOURCE_CONTINUE; }, nullptr);
    SignalGate::close();
    SignalGate::open_for_main_loop();
    g_main_context_set_poll_func(nullptr, foreign);
    EXPECT_TRUE(run_until_signal());
    EXPECT_LE(1, g_terminations);
    EXPECT_LE(1, polls);
    EXPECT_EQ(foreign, g_main_context_get_poll_func(nullptr)) << "it is theirs to decide";
    g_source_remove(tick);
}

TEST_F(SignalGateTest, LeavesAPollFunctionThatWasThereBefore)
{
    static int polls;
    polls = 0;
    const GPollFunc foreign = [](GPollFD* fds, guint count, gint timeout_ms) -> gint {
        ++polls;
        return g_poll(fds, count, timeout_ms);
    };
    SignalGate::close();
    g_main_context_set_poll_func(nullptr, foreign);
    SignalGate::open_for_main_loop();
    std::raise(SIGINT);
    EXPECT_EQ(0, g_interrupts);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(1, g_interrupts);
    EXPECT_EQ(1, polls);
}

TEST_F(SignalGateTest, SignalsGetThroughForeignPollsThoughSomeSourceIsAlwaysReady)
{
    const guint busy = g_idle_add_full(
        G_PRIORITY_HIGH, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    SignalGate::close();
    SignalGate::open_for_main_loop();
    g_main_context_set_poll_func(nullptr, g_poll);
    std::raise(SIGTERM);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(1, g_terminations);
    g_source_remove(busy);
}

TEST_F(SignalGateTest, KeepsTheOtherSignalsOfTheMaskBlockedThroughout)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    SignalGate::close();
    EXPECT_TRUE(is_blocked(SIGUSR1));
    SignalGate::open_for_main_loop();
    EXPECT_TRUE(is_blocked(SIGUSR1));
    std::signal(SIGUSR1, [](int) { FAIL() << "the poll let it through"; });
    std::raise(SIGUSR1);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_TRUE(is_blocked(SIGUSR1));
    std::signal(SIGUSR1, SIG_IGN);
}

TEST_F(SignalGateTest, ASignalDuringACallbackWaitsForThePollThatFollows)
{
    SignalGate::close();
    SignalGate::open_for_main_loop();
    std::function<void()> callback = [] {
        EXPECT_TRUE(is_blocked(SIGINT));
        EXPECT_TRUE(is_blocked(SIGTERM));
        std::raise(SIGTERM);
        EXPECT_EQ(0, g_terminations);
    };
    g_idle_add(run_once, &callback);
    EXPECT_TRUE(run_until_signal());
    EXPECT_EQ(1, g_terminations);
}

TEST_F(SignalGateTest, ASignalEndsTheWaitOfTheLoopAndReachesTheMainThread)
{
    SignalGate::close();
    std::thread killer([this] {
        // The loop runs before it waits: the signal comes during the wait or just before it, and neither may lose it
        wait_until([this] { return g_main_loop_is_running(loop) != FALSE; });
        kill(getpid(), SIGTERM);
    });
    SignalGate::open_for_main_loop();
    EXPECT_TRUE(run_until_signal());
    killer.join();
    EXPECT_EQ(1, g_terminations);
    EXPECT_EQ(0, g_elsewhere);
}

TEST_F(SignalGateTest, NoSignalIsLostHoweverManyComeWhileTheLoopWorks)
{
    SignalGate::close();
    SignalGate::open_for_main_loop();
    g_main_context_iteration(nullptr, FALSE);  // from here on new threads have both signals blocked
    constexpr int ROUNDS = 500;
    for (int i = 0; i < ROUNDS; ++i) {
        std::thread killer([] { kill(getpid(), SIGINT); });
        const bool in_time = run_until_signal();
        killer.join();
        ASSERT_TRUE(in_time);
    }
    EXPECT_EQ(ROUNDS, g_interrupts);
    EXPECT_EQ(0, g_elsewhere);
}

TEST_F(SignalGateTest, AThreadStartedWhileClosedHasBothSignalsBlocked)
{
    SignalGate::close();
    bool blocked = false;
    std::thread([&] { blocked = is_blocked(SIGINT) && is_blocked(SIGTERM) && !is_blocked(SIGUSR1); }).join();
    EXPECT_TRUE(blocked);
}

TEST_F(SignalGateTest, TheLoopStillKeepsItsTimersAndItsDescriptors)
{
    SignalGate::close();
    SignalGate::open_for_main_loop();
    int pipe_ends[2];
    ASSERT_EQ(0, pipe(pipe_ends));
    int timers = 0;
    std::function<void()> first = [&] {
        ++timers;
        EXPECT_EQ(1, write(pipe_ends[1], "x", 1));
    };
    g_timeout_add(5, run_once, &first);
    GIOChannel* channel = g_io_channel_unix_new(pipe_ends[0]);
    const auto on_readable = [](GIOChannel*, GIOCondition, gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return G_SOURCE_REMOVE;
    };
    g_io_add_watch(channel, G_IO_IN, on_readable, loop);
    EXPECT_TRUE(run_until_signal());
    EXPECT_EQ(1, timers);
    g_io_channel_unref(channel);
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

TEST_F(SignalGateTest, ThePollFunctionKeepsTheContractOfPoll)
{
    SignalGate::close();
    SignalGate::open_for_main_loop();
    const GPollFunc poll_function = g_main_context_get_poll_func(nullptr);
    int pipe_ends[2];
    ASSERT_EQ(0, pipe(pipe_ends));
    GPollFD readable = {pipe_ends[0], G_IO_IN, 0};
    EXPECT_EQ(0, poll_function(&readable, 1, 0));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(0, poll_function(&readable, 1, 1050));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1050));
    EXPECT_EQ(1, write(pipe_ends[1], "x", 1));
    EXPECT_EQ(1, poll_function(&readable, 1, -1)) << "waits without end if need be";
    EXPECT_EQ(G_IO_IN, readable.revents);
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

TEST_F(SignalGateTest, AnInterruptedPollSaysSoAndClosesTheGateAgain)
{
    SignalGate::close();
    SignalGate::open_for_main_loop();
    g_main_context_iteration(nullptr, FALSE);  // from here on new threads have both signals blocked
    std::atomic<bool> ended{false};
    std::thread killer([&] {  // one that comes before the wait does not end it, hence more than one
        wait_until([&] {
            kill(getpid(), SIGINT);
            return ended.load();
        });
    });
    constexpr int LONG_MS = 60'000;
    errno = 0;
    EXPECT_EQ(-1, g_main_context_get_poll_func(nullptr)(nullptr, 0, LONG_MS));
    EXPECT_EQ(EINTR, errno);
    EXPECT_TRUE(is_blocked(SIGINT));
    ended = true;
    killer.join();
    EXPECT_LE(1, g_interrupts);
}

TEST_F(SignalGateTest, ASignalGetsThroughThoughADescriptorIsAlwaysReady)
{
    SignalGate::close();
    SignalGate::open_for_main_loop();
    int pipe_ends[2];
    ASSERT_EQ(0, pipe(pipe_ends));
    ASSERT_EQ(1, write(pipe_ends[1], "x", 1));
    GIOChannel* channel = g_io_channel_unix_new(pipe_ends[0]);
    const auto keep_watching = [](GIOChannel*, GIOCondition, gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
    const guint watch = g_io_add_watch(channel, G_IO_IN, keep_watching, nullptr);
    std::function<void()> callback = [] { std::raise(SIGTERM); };
    g_idle_add_full(G_PRIORITY_DEFAULT, run_once, &callback, nullptr);
    EXPECT_TRUE(run_until_signal());
    EXPECT_EQ(1, g_terminations);
    g_source_remove(watch);
    g_io_channel_unref(channel);
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

}  // namespace
