#include "signal_gate.h"

#include <glib.h>
#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace {

sigset_t gated_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

sigset_t g_open_mask;  // the main thread's signal mask without the gate

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
