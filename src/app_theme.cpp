/// Light or dark: what the user chose, what the desktop asks for, and the stylesheet that follows.
#include <cstring>
#include <optional>

#include "app.h"
#include "session_bus.h"
#include "settings.h"

namespace {

// The portal's settings interface: flatpak.github.io/xdg-desktop-portal/docs/doc-org.freedesktop.portal.Settings.html
constexpr const char* PORTAL_NAME = "org.freedesktop.portal.Desktop";
constexpr const char* PORTAL_PATH = "/org/freedesktop/portal/desktop";
constexpr const char* PORTAL_INTERFACE = "org.freedesktop.portal.Settings";
constexpr const char* APPEARANCE = "org.freedesktop.appearance";
constexpr const char* COLOR_SCHEME = "color-scheme";
constexpr guint32 SCHEME_DARK = 1;
constexpr guint32 SCHEME_LIGHT = 2;

constexpr guint CSS_PRIORITY = GTK_STYLE_PROVIDER_PRIORITY_APPLICATION;
constexpr const char* PREFER_DARK_PROPERTY = "gtk-application-prefer-dark-theme";

/// What the portal says: true for dark, false for light, empty for no preference, an odd value, or no portal.
std::optional<bool> portal_prefers_dark()
{
    const SessionBus::Connection bus = SessionBus::connect();
    if (bus == nullptr) {
        return std::nullopt;
    }
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(bus.get(), PORTAL_NAME, PORTAL_PATH, PORTAL_INTERFACE, "Read",
                                                            g_variant_new("(ss)", APPEARANCE, COLOR_SCHEME), G_VARIANT_TYPE("(v)"),
                                                            G_DBUS_CALL_FLAGS_NONE, SessionBus::ANSWER_TIMEOUT_MS, nullptr, nullptr);
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
    GDBusConnection* bus = SessionBus::connect().release();  // kept, as is the subscription, until the process ends
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
