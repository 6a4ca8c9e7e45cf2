/// Light or dark: what the user chose, what the desktop asks for, and the stylesheet that follows.
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <utility>

#include "app.h"
#include "settings.h"
#include "signal_gate.h"

namespace {

// The portal's settings interface: flatpak.github.io/xdg-desktop-portal/docs/doc-org.freedesktop.portal.Settings.html
constexpr const char* PORTAL_NAME = "org.freedesktop.portal.Desktop";
constexpr const char* PORTAL_PATH = "/org/freedesktop/portal/desktop";
constexpr const char* PORTAL_INTERFACE = "org.freedesktop.portal.Settings";
constexpr const char* APPEARANCE = "org.freedesktop.appearance";
constexpr const char* COLOR_SCHEME = "color-scheme";
constexpr guint32 SCHEME_DARK = 1;
constexpr guint32 SCHEME_LIGHT = 2;
constexpr int BUS_TIMEOUT_MS = 500;  // for the connection, and for an answer of the portal; the main thread waits meanwhile

constexpr guint CSS_PRIORITY = GTK_STYLE_PROVIDER_PRIORITY_APPLICATION;
constexpr const char* PREFER_DARK_PROPERTY = "gtk-application-prefer-dark-theme";

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using Bus = std::unique_ptr<GDBusConnection, Unref>;

/// A connection in the making. Whoever lets go of it last drops a connection that comes too late.
struct Connecting {
    const std::unique_ptr<GCancellable, Unref> given_up{g_cancellable_new()};
    std::promise<Bus> bus;
};

/// Body of a thread: connects to the session bus, and lets its end not be that of the program, as GLib would.
gpointer connect_to_bus(gpointer data)
{
    const std::unique_ptr<std::shared_ptr<Connecting>> connecting(static_cast<std::shared_ptr<Connecting>*>(data));
    Connecting& attempt = **connecting;
    Bus bus(g_bus_get_sync(G_BUS_TYPE_SESSION, attempt.given_up.get(), nullptr));
    if (bus != nullptr) {
        g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    }
    attempt.bus.set_value(std::move(bus));
    return nullptr;
}

/// The session bus, or null without one. One that takes too long to connect is none from then on: else each change of a colour would wait for
/// it. A thread of its own waits, as not all of what GLib does there can be cancelled.
Bus session_bus()
{
    static bool has_given_up = false;
    if (has_given_up) {
        return nullptr;
    }
    const SignalGate::ForNewPrograms gate;  // GLib starts a bus where there is none
    const auto connecting = std::make_shared<Connecting>();
    std::future<Bus> bus = connecting->bus.get_future();
    auto* const shared = new std::shared_ptr<Connecting>(connecting);
    GThread* const thread = g_thread_try_new("session-bus", connect_to_bus, shared, nullptr);
    if (thread == nullptr) {
        delete shared;
        return nullptr;
    }
    g_thread_unref(thread);
    has_given_up = bus.wait_for(std::chrono::milliseconds(BUS_TIMEOUT_MS)) != std::future_status::ready;
    if (has_given_up) {
        g_cancellable_cancel(connecting->given_up.get());
        return nullptr;
    }
    return bus.get();
}

/// What the portal says: true for dark, false for light, empty for no preference, an odd value, or no portal.
std::optional<bool> portal_prefers_dark()
{
    const Bus bus = session_bus();
    if (bus == nullptr) {
        return std::nullopt;
    }
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(bus.get(), PORTAL_NAME, PORTAL_PATH, PORTAL_INTERFACE, "Read",
                                                            g_variant_new("(ss)", APPEARANCE, COLOR_SCHEME), G_VARIANT_TYPE("(v)"),
                                                            G_DBUS_CALL_FLAGS_NONE, BUS_TIMEOUT_MS, nullptr, nullptr);
    if (reply == nullptr) {
        return std::nullopt;
    }
    g_autoptr(GVariant) value = g_variant_get_child_value(reply, 0);
    while (g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT)) {  // portals nest it deeper than the reply's type says
        GVariant* const inner = g_variant_get_variant(value);
        g_variant_unref(value);
        value = inner;
    }
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32)) {
        return std::nullopt;
    }
    const guint32 scheme = g_variant_get_uint32(value);
    return scheme == SCHEME_DARK || scheme == SCHEME_LIGHT ? std::optional(scheme == SCHEME_DARK) : std::nullopt;
}

/// What GTK's own settings say, where the portal says nothing.
bool gtk_prefers_dark()
{
    GtkSettings* settings = gtk_settings_get_default();
    if (settings == nullptr) {
        return false;
    }
    gboolean prefers_dark = FALSE;
    g_autofree gchar* theme_name = nullptr;
    g_object_get(settings, PREFER_DARK_PROPERTY, &prefers_dark, "gtk-theme-name", &theme_name, nullptr);
    if (prefers_dark || theme_name == nullptr) {
        return prefers_dark;
    }
    g_autofree gchar* lower = g_ascii_strdown(theme_name, -1);
    return std::strstr(lower, "dark") != nullptr;
}

/// Lets GTK's own widgets follow. It is also what gtk_prefers_dark() reads: without a portal "auto" stays dark once a dark theme has been
/// applied.
void prefer_in_gtk(bool dark)
{
    GtkSettings* settings = gtk_settings_get_default();
    if (settings == nullptr) {
        return;
    }
    gboolean present = FALSE;
    g_object_get(settings, PREFER_DARK_PROPERTY, &present, nullptr);
    if (dark != (present != FALSE)) {  // even for the same value GTK would load its whole theme again
        g_object_set(settings, PREFER_DARK_PROPERTY, static_cast<gboolean>(dark), nullptr);
    }
}

}  // namespace

bool App::resolve_dark() const
{
    const std::string& theme = SettingsStore::instance().get().theme;
    if (theme == "dark" || theme == "light") {
        return theme == "dark";
    }
    return system_prefers_dark();
}

bool App::system_prefers_dark()
{
    const std::optional<bool> portal = portal_prefers_dark();
    return portal ? *portal : gtk_prefers_dark();
}

void App::apply_theme()
{
    m_dark = resolve_dark();
    const std::string css = build_css(SettingsStore::instance().get(), palette());
    if (m_css == nullptr) {
        m_css = gtk_css_provider_new();
        gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(m_css), CSS_PRIORITY);
    }
    gtk_css_provider_load_from_data(m_css, css.c_str(), -1, nullptr);
    prefer_in_gtk(m_dark);
    for (GtkWidget* window : {m_window, m_settings_popover}) {
        if (window != nullptr) {
            gtk_widget_queue_draw(window);  // charts paint in the palette's colours
        }
    }
}

void App::queue_apply_theme()
{
    const auto apply = [](gpointer data) -> gboolean {
        static_cast<App*>(data)->apply_theme();
        return G_SOURCE_REMOVE;
    };
    g_idle_add(apply, this);
}

void App::watch_system_theme()
{
    GDBusConnection* bus = session_bus().release();  // kept, as is the subscription, until the process ends
    if (bus == nullptr || g_dbus_connection_is_closed(bus)) {
        return;  // closed: it went away since the start, and GLib would complain of a subscription
    }
    m_portal_sub = g_dbus_connection_signal_subscribe(bus, PORTAL_NAME, PORTAL_INTERFACE, "SettingChanged", PORTAL_PATH, nullptr,
                                                      G_DBUS_SIGNAL_FLAGS_NONE, on_portal_setting_changed, this, nullptr);
}

void App::on_portal_setting_changed(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
                                    gpointer data)
{
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ssv)"))) {
        return;
    }
    const gchar* name_space = nullptr;
    const gchar* key = nullptr;
    g_variant_get(parameters, "(&s&sv)", &name_space, &key, nullptr);
    const bool is_scheme = std::strcmp(name_space, APPEARANCE) == 0 && std::strcmp(key, COLOR_SCHEME) == 0;
    if (is_scheme && SettingsStore::instance().get().theme == "auto") {
        static_cast<App*>(data)->apply_theme();  // asks for the scheme anew, whatever the signal carries
    }
}
