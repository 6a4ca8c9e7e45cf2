/// Changes of shape while the program runs: another number of columns, and the switch between the orientations.
#include <algorithm>

#include "app.h"
#include "settings.h"

namespace {

constexpr guint MOVE_DELAY_MS = 120;    // after the resize
constexpr guint SETTLE_DELAY_MS = 450;  // by then all moves and resizes of a rebuild have been reported

/// Limits `position` so that `size` pixels from there end before `begin + extent`; what is larger starts at `begin`.
int limited(int position, int size, int begin, int extent)
{
    return std::max(std::min(position, begin + extent - size), begin);
}

}  // namespace

void App::relayout_cores(int columns)
{
    m_num_columns = columns;
    populate_core_grid(columns);
    gtk_widget_show_all(m_core_grid);

    int width = calc_window_w(columns);
    int height = WindowRect::of(m_window).height;
    if (m_horizontal) {
        default_horizontal_size(width, height);
    }
    gtk_window_resize(GTK_WINDOW(m_window), width, height);
    fit_core_labels(width);
    save_geometry(WindowRect::of(m_window));
}

/// The orientation that is left is saved before anything changes; from then on until on_settled() the window's moves and changes of
/// size are the rebuild's own and must not reach the record of the orientation that is entered.
void App::rebuild_layout()
{
    const WindowRect left = WindowRect::of(m_window);
    trace("[trace] rebuild: leave %s save %dx%d at %d,%d\n", orientation_word(), left.width, left.height, left.x, left.y);
    save_geometry(left);
    m_freeze_geometry_save = true;

    m_horizontal = SettingsStore::instance().get().is_horizontal();
    const WindowGeometry stored = WindowManager::instance().load(m_horizontal);
    if (stored.valid) {
        m_num_columns = stored.num_columns;
    } else if (m_horizontal) {
        m_num_columns = default_horizontal_columns();
    }

    if (GtkWidget* content = gtk_bin_get_child(GTK_BIN(m_window))) {
        gtk_widget_destroy(content);
    }
    release_sections();
    m_total_panel = nullptr;
    build_layout();

    int width = 0;
    int height = 0;
    initial_window_size(stored, width, height);
    enter_stored_geometry(stored, left, width, height);
    gtk_widget_show_all(gtk_bin_get_child(GTK_BIN(m_window)));

    m_last_window_w = 0;
    m_last_window_h = 0;
    fit_core_labels(width);
    update();
    g_timeout_add(SETTLE_DELAY_MS, on_settled, this);
}

void App::queue_rebuild_layout()
{
    const auto rebuild = [](gpointer data) -> gboolean {
        App& app = *static_cast<App*>(data);
        if (app.m_window != nullptr) {
            app.rebuild_layout();
        }
        return G_SOURCE_REMOVE;
    };
    g_idle_add(rebuild, this);
}

void App::release_sections()
{
    for (ClusterUI& ui : m_clusters_ui) {
        for (CoreWidgets& widgets : ui.cores) {
            g_clear_object(&widgets.card);
        }
        g_clear_object(&ui.section_hdr);
    }
    m_clusters_ui.clear();
}

/// Resizes the window at once and moves it a little later: GTK takes the news of a move for the answer to a resize that it has just asked
/// for, and asks for the old size again.
void App::enter_stored_geometry(const WindowGeometry& stored, const WindowRect& left, int width, int height)
{
    if (running_on_wayland()) {
        gtk_window_resize(GTK_WINDOW(m_window), width, height);
        return;
    }
    const GdkPoint target = rebuild_target(stored, left, width, height);
    trace("[trace] rebuild: enter %s stored=%d %dx%d at %d,%d -> move %d,%d\n", orientation_word(), stored.valid ? 1 : 0, width, height,
          stored.x, stored.y, target.x, target.y);
    gtk_window_resize(GTK_WINDOW(m_window), width, height);
    m_pending_move_x = target.x;
    m_pending_move_y = target.y;
    g_timeout_add(MOVE_DELAY_MS, on_pending_move, this);
}

/// The stored position, pulled into the monitor, or the middle of the monitor.
GdkPoint App::rebuild_target(const WindowGeometry& stored, const WindowRect& left, int width, int height) const
{
    const GdkRectangle area = monitor_area();
    if (area.width < 1 || area.height < 1) {
        return stored.valid ? GdkPoint{stored.x, stored.y} : GdkPoint{left.x, left.y};
    }
    const int x = stored.valid ? stored.x : area.x + (area.width - width) / 2;
    const int y = stored.valid ? stored.y : area.y + (area.height - height) / 2;
    return {limited(x, width, area.x, area.width), limited(y, height, area.y, area.height)};
}

gboolean App::on_pending_move(gpointer data)
{
    const App& app = *static_cast<App*>(data);
    if (app.m_window != nullptr) {
        gtk_window_move(GTK_WINDOW(app.m_window), app.m_pending_move_x, app.m_pending_move_y);
    }
    return G_SOURCE_REMOVE;
}

/// The first to fire ends the freeze, also for a rebuild that began meanwhile.
gboolean App::on_settled(gpointer data)
{
    App& app = *static_cast<App*>(data);
    if (app.m_window == nullptr) {
        return G_SOURCE_REMOVE;
    }
    app.m_freeze_geometry_save = false;
    const WindowRect rect = WindowRect::of(app.m_window);
    if (rect.width > 0 && rect.height > 0) {
        app.save_geometry(rect);
    }
    trace("[trace] settled(%s): %dx%d at %d,%d\n", app.orientation_word(), rect.width, rect.height, rect.x, rect.y);
    return G_SOURCE_REMOVE;
}
