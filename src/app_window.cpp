/// The window: how it is made, where it first stands, and on which monitor.
#include <algorithm>

#include "app.h"

namespace {

constexpr const char* TITLE = "Vantric";
constexpr int WINDOW_PADDING = 8;  // of the default width, beside the columns
constexpr int DEFAULT_HEIGHT = 700;
constexpr int MIN_SIZE = 150;

GdkRectangle geometry_of(GdkMonitor* monitor)
{
    GdkRectangle area{};
    gdk_monitor_get_geometry(monitor, &area);
    return area;
}

}  // namespace

void App::create_window()
{
    m_window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(m_window), TITLE);
    gtk_window_set_keep_above(GTK_WINDOW(m_window), TRUE);
    gtk_window_set_type_hint(GTK_WINDOW(m_window), GDK_WINDOW_TYPE_HINT_UTILITY);
    gtk_window_set_resizable(GTK_WINDOW(m_window), TRUE);

    int width = calc_window_w(m_num_columns);
    int height = DEFAULT_HEIGHT;
    if (m_horizontal) {
        default_horizontal_size(width, height);
    }
    gtk_window_set_default_size(GTK_WINDOW(m_window), width, height);
    place_window(width, height);
    limit_window_size();

    g_signal_connect(m_window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
    g_signal_connect(m_window, "size-allocate", G_CALLBACK(on_win_size_alloc), this);
    build_layout();
}

/// Centres the window on the monitor. A Wayland client has no say in that.
void App::place_window(int width, int height)
{
    if (running_on_wayland()) {
        return;
    }
    if (GdkMonitor* monitor = usable_monitor(gdk_display_get_default(), m_window)) {
        const GdkRectangle area = geometry_of(monitor);
        gtk_window_move(GTK_WINDOW(m_window), area.x + (area.width - width) / 2, area.y + (area.height - height) / 2);
    }
}

/// No smaller than can be read, no larger than the monitor, if there is one.
void App::limit_window_size()
{
    GdkGeometry limits{};
    limits.min_width = MIN_SIZE;
    limits.min_height = MIN_SIZE;
    int hints = GDK_HINT_MIN_SIZE;
    if (GdkMonitor* monitor = usable_monitor(gdk_display_get_default(), m_window)) {
        const GdkRectangle area = geometry_of(monitor);
        if (area.width > 0 && area.height > 0) {
            limits.max_width = area.width;
            limits.max_height = area.height;
            hints |= GDK_HINT_MAX_SIZE;
        }
    }
    gtk_window_set_geometry_hints(GTK_WINDOW(m_window), nullptr, &limits, static_cast<GdkWindowHints>(hints));
}

bool App::running_on_wayland()
{
    GdkDisplay* display = gdk_display_get_default();
    return display != nullptr && g_str_has_prefix(G_OBJECT_TYPE_NAME(display), "GdkWayland");
}

GdkMonitor* App::usable_monitor(GdkDisplay* display, GtkWidget* widget)
{
    if (display == nullptr) {
        return nullptr;
    }
    if (GdkMonitor* primary = gdk_display_get_primary_monitor(display)) {
        return primary;
    }
    GdkWindow* window = widget != nullptr ? gtk_widget_get_window(widget) : nullptr;
    GdkMonitor* monitor = window != nullptr ? gdk_display_get_monitor_at_window(display, window) : nullptr;
    if (monitor != nullptr) {
        return monitor;
    }
    return gdk_display_get_n_monitors(display) >= 1 ? gdk_display_get_monitor(display, 0) : nullptr;
}

int App::calc_window_w(int cols)
{
    return cols * COLUMN_WIDTH + WINDOW_PADDING;
}
