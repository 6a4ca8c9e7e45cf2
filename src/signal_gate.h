/// Decides at which instants SIGINT and SIGTERM reach the program. Their handler calls GTK in signal context; were the main thread
/// stopped inside Xlib, GLib or the allocator just then, the handler would wait for a lock that its own thread holds, for good.
/// So both signals stay blocked but for an instant at the end of the start-up, and for every wait of the main loop. Threads started
/// meanwhile inherit the block, which keeps the handler on the main thread. Main thread only.
///
/// Programs inherit the block, too, and could then not be ended by either signal, nor could those that they start. Hence the rule: whoever
/// may start a program holds ForNewPrograms. That is
///   app.cpp              around gtk_init(): the accessibility of GTK starts a session bus where there is none, as under startx
///   session_bus.cpp      around each connection to the session bus, for which GLib does so
///   gtk_workarounds.cpp  around the opening of a link
/// The crash dialogue is started by a process that does not come back: crash_handler.cpp lets it have the signals for good.
#pragma once

#include <csignal>

namespace SignalGate {

/// Blocks both signals. One that comes meanwhile waits.
void close();

/// Delivers what has been waiting. From then on both signals are delivered while the default main context polls, and only then; if a
/// library has put a poll function of its own in place, once before each poll.
void open_for_main_loop();

/// For the handler: sends a signal that came to another thread on to the main thread, and says whether it did. Threads of libraries
/// that were born while somebody held ForNewPrograms let both signals through. Any thread, in signal context.
bool pass_to_main_thread(int sig);

/// Programs that are started during its life can be ended by both signals as usual, though a program inherits blocked signals from the
/// one that starts it. A signal that comes meanwhile waits until the end of that life, and then at the gate.
class ForNewPrograms {
public:
    ForNewPrograms();
    ~ForNewPrograms();
    ForNewPrograms(const ForNewPrograms&) = delete;
    ForNewPrograms& operator=(const ForNewPrograms&) = delete;

private:
    sigset_t m_mask;                      // of the main thread before
    struct sigaction m_interrupt_action;  // what the signals did before
    struct sigaction m_terminate_action;
};

}  // namespace SignalGate
