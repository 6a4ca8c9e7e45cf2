/// The gate is the main thread's signal mask: a poll function opens it, or a source in front of one that is somebody else's.
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

/// Delivers what has been waiting.
void open_for_an_instant()
{
    pthread_sigmask(SIG_SETMASK, &g_open_mask, nullptr);
    SignalGate::close();
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
    open_for_an_instant();
    errno = error;  // GLib looks at it
    return ready;
}

/// What a main context polls with unless somebody has put another function in place.
GPollFunc usual_poll_function()
{
    g_autoptr(GMainContext) fresh = g_main_context_new();
    return g_main_context_get_poll_func(fresh);
}

/// "prepare" of a source that is never ready. The poll function that is about to be called may be a library's, which keeps the gate shut:
/// the main loop waits with it until the next tick at the latest, and comes by here again.
gboolean deliver_before_foreign_poll(GSource*, gint* timeout_ms)
{
    if (g_main_context_get_poll_func(nullptr) != poll_with_gate_open) {
        open_for_an_instant();
    }
    *timeout_ms = -1;
    return FALSE;
}

/// Adds that source to the main context, once, and in front of all others: of those behind one that is ready nobody asks.
void watch_poll_function()
{
    static GSourceFuncs functions = {.prepare = deliver_before_foreign_poll};
    static GSource* source = nullptr;
    if (source == nullptr) {
        source = g_source_new(&functions, sizeof(GSource));
        g_source_set_priority(source, G_MININT);
        g_source_attach(source, nullptr);
    }
}

volatile std::sig_atomic_t g_interrupted = 0;  // came while a program was being started
volatile std::sig_atomic_t g_terminated = 0;

/// Only the main thread takes the note: one taken by another could come after it was looked for.
void note_signal(int sig)
{
    if (SignalGate::pass_to_main_thread(sig)) {
        return;
    }
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
    if (g_main_context_get_poll_func(nullptr) == usual_poll_function()) {
        g_main_context_set_poll_func(nullptr, poll_with_gate_open);
    }
    watch_poll_function();
    open_for_an_instant();
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
    pthread_sigmask(SIG_UNBLOCK, &set, &m_mask);
}

SignalGate::ForNewPrograms::~ForNewPrograms()
{
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    sigaction(SIGINT, &m_interrupt_action, nullptr);
    sigaction(SIGTERM, &m_terminate_action, nullptr);
    if (std::exchange(g_interrupted, 0) != 0) {
        std::raise(SIGINT);  // waits for the gate
    }
    if (std::exchange(g_terminated, 0) != 0) {
        std::raise(SIGTERM);
    }
}
