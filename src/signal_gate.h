/// Decides at which instants SIGINT and SIGTERM reach the program. Their handler calls GTK in signal context; were the main thread
/// stopped inside Xlib, GLib or the allocator just then, the handler would wait for a lock that its own thread holds, for good.
/// So both signals stay blocked but for two kinds of moment: the end of the start-up, up to the main loop's first wait, and every
/// wait of the main loop. Threads started meanwhile inherit the block, which keeps the handler on the main thread. Main thread only.
#pragma once

#include <csignal>

namespace SignalGate {

/// Blocks both signals. One that comes meanwhile waits.
void close();

/// Delivers what has been waiting and lets both signals through, until the default main context has polled for the first time;
/// from then on it delivers them whenever it polls, and only then.
void open_for_main_loop();

/// For the handler: sends a signal that came to another thread on to the main thread, and says whether it did. Threads of libraries
/// that were born while the gate stood open let both signals through. Any thread, in signal context.
bool pass_to_main_thread(int sig);

/// Programs that are started during its life can be ended by both signals as usual, though a program inherits blocked signals from the
/// one that starts it. A signal that comes meanwhile waits until the end of that life.
class ForNewPrograms {
public:
    ForNewPrograms();
    ~ForNewPrograms();
    ForNewPrograms(const ForNewPrograms&) = delete;
    ForNewPrograms& operator=(const ForNewPrograms&) = delete;

private:
    struct sigaction m_interrupt_action;  // what the signals did before
    struct sigaction m_terminate_action;
};

}  // namespace SignalGate
