/// Decides at which instants SIGINT and SIGTERM reach the program. Their handler calls GTK in signal context; were the main thread
/// stopped inside Xlib, GLib or the allocator just then, the handler would wait for a lock that its own thread holds, for good.
/// So both signals stay blocked but for two kinds of moment: the end of the start-up, up to the main loop's first wait, and every
/// wait of the main loop. Threads started meanwhile inherit the block, which keeps the handler on the main thread. Main thread only.
#pragma once

namespace SignalGate {

/// Blocks both signals. One that comes meanwhile waits.
void close();

/// Delivers what has been waiting and lets both signals through, until the default main context has polled for the first time;
/// from then on it delivers them whenever it polls, and only then.
void open_for_main_loop();

}  // namespace SignalGate
