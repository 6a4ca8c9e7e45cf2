#include "signal_gate.h"

#include <glib.h>
#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <utility>

namespace {

sigset_t gated_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

sigset_t g_open_mask;                            // the main thread's signal mask without the gate
const pthread_t g_main_thread = pthread_self();  // which also initialises the globals

/// Lets both signals through, at once if one has been waiting.
void open()
{
    pthread_sigmask(SIG_SETMASK, &g_open_mask, nullptr);
}

timespec from_milliseconds(gint ms)
{
    constexpr int MS_PER_S = 1000;
    constexpr long NS_PER_MS = 1'000'000;
    return {.tv_sec = ms / MS_PER_S, .tv_nsec = ms % MS_PER_S * NS_PER_MS};
}

/// A main context's poll function: opens the gate exactly for the wait, so that no signal comes too early for the wait to end by it. Then
/// opens it once more, since ppoll delivers nothing when some descriptor is ready at once, which may be so each time.
gint poll_with_gate_open(GPollFD* fds, guint count, gint timeout_ms)
{
    static_assert(sizeof(GPollFD) == sizeof(pollfd));  // GLib documents the two as the same
    const timespec timeout = from_milliseconds(timeout_ms);
    const gint ready = ppoll(reinterpret_cast<pollfd*>(fds), count, timeout_ms < 0 ? nullptr : &timeout, &g_open_mask);
    const int error = errno;
    open();
    SignalGate::close();
    errno = error;  // GLib looks at it
    return ready;
}

volatile std::sig_atomic_t g_interrupted = 0;  // came while a program was being started
volatile std::sig_atomic_t g_terminated = 0;

void note_signal(int sig)
{
    (sig == SIGINT ? g_interrupted : g_terminated) = 1;
}

}  // namespace

void SignalGate::close()
{
    const sigset_t set = gated_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void SignalGate::open_for_main_loop()
{
    pthread_sigmask(SIG_BLOCK, nullptr, &g_open_mask);
    sigdelset(&g_open_mask, SIGINT);
    sigdelset(&g_open_mask, SIGTERM);
    g_main_context_set_poll_func(nullptr, poll_with_gate_open);
    open();
}

bool SignalGate::pass_to_main_thread(int sig)
{
    return !pthread_equal(pthread_self(), g_main_thread) && pthread_kill(g_main_thread, sig) == 0;
}

/// A handler that only takes a note may run at any moment, so the gate can stand open; and a new program does not inherit handlers.
SignalGate::ForNewPrograms::ForNewPrograms()
{
    struct sigaction note {};
    note.sa_handler = note_signal;
    note.sa_flags = SA_RESTART;
    sigaction(SIGINT, &note, &m_interrupt_action);
    sigaction(SIGTERM, &note, &m_terminate_action);
    const sigset_t set = gated_signals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

SignalGate::ForNewPrograms::~ForNewPrograms()
{
    close();
    sigaction(SIGINT, &m_interrupt_action, nullptr);
    sigaction(SIGTERM, &m_terminate_action, nullptr);
    if (std::exchange(g_interrupted, 0) != 0) {
        std::raise(SIGINT);  // waits for the gate
    }
    if (std::exchange(g_terminated, 0) != 0) {
        std::raise(SIGTERM);
    }
}
