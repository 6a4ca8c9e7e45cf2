/// The window: how it is made, where it stands, on which monitor, and what is remembered of that.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "app.h"
#include "build_config.h"
#include "window_icon.h"

namespace {

constexpr int WINDOW_PADDING = 8;  // of the default width, beside the columns
constexpr int DEFAULT_HEIGHT = 700;
constexpr int MIN_SIZE = 150;
constexpr int MIN_STORED_HEIGHT = 101;  // outside these a stored height is taken for damage
constexpr int MAX_STORED_HEIGHT = 2999;
constexpr const char* TRACE_VARIABLE = "VANTRIC_TRACE";

}  // namespace

void App::create_window()
{
    m_window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(m_window), BuildConfig::APP_NAME);
    gtk_window_set_keep_above(GTK_WINDOW(m_window), TRUE);
    gtk_window_set_type_hint(GTK_WINDOW(m_window), GDK_WINDOW_TYPE_HINT_UTILITY);
    gtk_window_set_resizable(GTK_WINDOW(m_window), TRUE);

    const WindowGeometry stored = WindowManager::instance().load(m_horizontal);
    int width = 0;
    int height = 0;
    initial_window_size(stored, width, height);
    gtk_window_set_default_size(GTK_WINDOW(m_window), width, height);
    place_window(stored, width, height);
    limit_window_size();

    g_signal_connect(m_window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
    m_handlers.connect(m_window, "destroy", G_CALLBACK(on_destroy));
    m_handlers.connect(m_window, "delete-event", G_CALLBACK(on_delete));
    m_handlers.connect(m_window, "configure-event", G_CALLBACK(on_configure));
    m_handlers.connect(m_window, "draw", G_CALLBACK(draw_window));
    gdk_event_handler_set(handle_event, this, nullptr);
    m_handlers.connect(m_window, "size-allocate", G_CALLBACK(on_win_size_alloc));
    build_layout();
    set_window_icon();
}

void App::initial_window_size(const WindowGeometry& stored, int& width, int& height) const
{
    width = calc_window_w(m_num_columns);
    height = DEFAULT_HEIGHT;
    if (m_horizontal) {
        default_horizontal_size(width, height);
    }
    if (!stored.valid) {
        return;
    }
    if (stored.width > 0) {
        width = stored.width;
    }
    if (stored.height >= MIN_STORED_HEIGHT && stored.height <= MAX_STORED_HEIGHT) {
        height = stored.height;
    }
}

/// Puts the window where it stood last, wherever that is, or centres it on the monitor. A Wayland client has no say in that.
void App::place_window(const WindowGeometry& stored, int width, int height)
{
    if (running_on_wayland()) {
        return;
    }
    if (stored.valid) {
        gtk_window_move(GTK_WINDOW(m_window), stored.x, stored.y);
    } else if (usable_monitor(gdk_display_get_default(), m_window) != nullptr) {
        const GdkRectangle area = monitor_area();
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
    const GdkRectangle area = monitor_area();
    if (area.width > 0 && area.height > 0) {
        limits.max_width = area.width;
        limits.max_height = area.height;
        hints |= GDK_HINT_MAX_SIZE;
    }
    gtk_window_set_geometry_hints(GTK_WINDOW(m_window), nullptr, &limits, static_cast<GdkWindowHints>(hints));
}

/// Follows each move and change of size. The size is the event's, which is newer than what GTK reports.
gboolean App::on_configure(GtkWidget*, GdkEventConfigure* ev, gpointer data)
{
    const App& app = *static_cast<App*>(data);
    if (app.m_freeze_geometry_save) {
        return FALSE;
    }
    WindowRect rect = app.rect_to_remember();
    rect.width = ev->width;
    rect.height = ev->height;
    trace("[trace] configure(%s): %dx%d at %d,%d\n", app.orientation_word(), rect.width, rect.height, rect.x, rect.y);
    app.save_geometry(rect);
    return FALSE;
}

gboolean App::on_delete(GtkWidget*, GdkEvent*, gpointer data)
{
    const App& app = *static_cast<App*>(data);
    app.save_geometry(app.rect_to_remember());
    return FALSE;
}

void App::on_destroy(GtkWidget*, gpointer data)
{
    App& app = *static_cast<App*>(data);
    app.m_window = nullptr;
    app.m_screen_image.reset();
    app.m_is_window_closed = true;
}

/// Where the window is, except on Wayland: there the stored position stays, since nobody can tell a newer one.
WindowRect App::rect_to_remember() const
{
    WindowRect rect = WindowRect::of(m_window);
    if (running_on_wayland()) {
        const WindowGeometry stored = WindowManager::instance().load(m_horizontal);
        rect.x = stored.valid ? stored.x : 0;
        rect.y = stored.valid ? stored.y : 0;
    }
    return rect;
}

void App::save_geometry(const WindowRect& rect) const
{
    WindowManager::instance().save(rect.x, rect.y, rect.width, rect.height, m_num_columns, m_horizontal);
}

void App::trace(const char* format, ...)
{
    if (std::getenv(TRACE_VARIABLE) == nullptr) {
        return;
    }
    std::va_list values;
    va_start(values, format);
    std::vfprintf(stderr, format, values);
    va_end(values);
}

WindowRect WindowRect::of(GtkWidget* window)
{
    WindowRect rect;
    gtk_window_get_position(GTK_WINDOW(window), &rect.x, &rect.y);
    gtk_window_get_size(GTK_WINDOW(window), &rect.width, &rect.height);
    return rect;
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

GdkRectangle App::monitor_area() const
{
    GdkRectangle area{};
    if (GdkMonitor* const monitor = usable_monitor(gdk_display_get_default(), m_window)) {
        gdk_monitor_get_geometry(monitor, &area);
    }
    return area;
}

int App::calc_window_w(int cols)
{
    return cols * COLUMN_WIDTH + WINDOW_PADDING;
}
