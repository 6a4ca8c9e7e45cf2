/// The session bus, where connecting ends within a time limit. GLib knows none, nor does GTK's accessibility: a bus that takes connections
/// and never says a word would hold up whoever asks for it, for good. Main thread only.
#pragma once

#include <gio/gio.h>

#include <memory>

namespace SessionBus {

constexpr int CONNECT_TIMEOUT_MS = 3000;  ///< for the connection: once late it is given up for good, and a session that begins is busy
constexpr int ANSWER_TIMEOUT_MS = 500;    ///< for an answer over it; the main thread waits for both

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using Connection = std::unique_ptr<GDBusConnection, Unref>;

/// Whether the session has one, so that nobody has to start it; it need not be alive.
bool is_there();

/// The bus, or null without one. As long as somebody keeps it everybody gets the same; its end is not that of the program. One that takes
/// too long to connect is none from then on: else each change of a colour would wait for it. Where there is none GLib starts one.
Connection connect();

/// Whether it has taken too long, and so is none.
bool is_given_up();

}  // namespace SessionBus
