/// A thread of its own waits for the bus, and the main thread for that one, no longer than CONNECT_TIMEOUT_MS.
#include "session_bus.h"

#include <chrono>
#include <future>
#include <string>
#include <utility>

#include "signal_gate.h"

namespace {

/// A connection in the making. Whoever lets go of it last drops a connection that comes too late.
struct Connecting {
    const std::unique_ptr<GCancellable, SessionBus::Unref> given_up{g_cancellable_new()};
    std::promise<SessionBus::Connection> bus;
};

bool g_given_up = false;
GWeakRef g_connected;  // the bus that connect() gave out last, as long as somebody keeps it

/// The connection that is there already, or null.
SessionBus::Connection present_connection()
{
    SessionBus::Connection bus(static_cast<GDBusConnection*>(g_weak_ref_get(&g_connected)));
    return bus != nullptr && g_dbus_connection_is_closed(bus.get()) == FALSE ? std::move(bus) : nullptr;
}

/// Body of a thread: connects to the session bus, and lets its end not be that of the program, as GLib would.
gpointer connect_to_bus(gpointer data)
{
    const std::unique_ptr<std::shared_ptr<Connecting>> connecting(static_cast<std::shared_ptr<Connecting>*>(data));
    Connecting& attempt = **connecting;
    SessionBus::Connection bus(g_bus_get_sync(G_BUS_TYPE_SESSION, attempt.given_up.get(), nullptr));
    if (bus != nullptr) {
        g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    }
    attempt.bus.set_value(std::move(bus));
    return nullptr;
}

}  // namespace

/// By the two places where GLib and libdbus look before they start one.
bool SessionBus::is_there()
{
    const char* const runtime_folder = g_getenv("XDG_RUNTIME_DIR");
    return g_getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr ||
           (runtime_folder != nullptr && g_file_test((std::string(runtime_folder) + "/bus").c_str(), G_FILE_TEST_EXISTS));
}

/// Not all of what GLib does there can be cancelled, hence the thread.
SessionBus::Connection SessionBus::connect()
{
    if (g_given_up) {
        return nullptr;
    }
    if (const Connection present = present_connection()) {  // as long as it is kept GLib gives it out, and nobody has to wait
        return Connection(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
    }
    const SignalGate::ForNewPrograms gate;  // GLib starts a bus where there is none
    const auto connecting = std::make_shared<Connecting>();
    std::future<Connection> bus = connecting->bus.get_future();
    auto* const shared = new std::shared_ptr<Connecting>(connecting);
    GThread* const thread = g_thread_try_new("session-bus", connect_to_bus, shared, nullptr);
    if (thread == nullptr) {
        delete shared;
        return nullptr;
    }
    g_thread_unref(thread);
    g_given_up = bus.wait_for(std::chrono::milliseconds(CONNECT_TIMEOUT_MS)) != std::future_status::ready;
    if (g_given_up) {
        g_cancellable_cancel(connecting->given_up.get());
        return nullptr;
    }
    Connection connected = bus.get();
    g_weak_ref_set(&g_connected, connected.get());
    return connected;
}

bool SessionBus::is_given_up()
{
    return g_given_up;
}
