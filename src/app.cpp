/// Life cycle of the application, and its tick.
#include "app.h"

#include <malloc.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "chart_look.h"
#include "i18n.h"
#include "session_bus.h"
#include "settings.h"
#include "signal_gate.h"

namespace {

constexpr guint TICK_MS = 1000;
constexpr guint STARTED_S = 5;   // by then everything has been shown and painted
constexpr guint SETTLED_S = 60;  // and by then histories are full, and GTK has let go of what it keeps for a while
constexpr int FIRST_START_COLUMNS = 1;
constexpr int LARGE_BLOCK = 128 * 1024;                   // bytes
constexpr const char* NO_ACCESSIBILITY = "NO_AT_BRIDGE";  // environment variable of GTK's accessibility

App* g_app_instance = nullptr;  // how the signal handler finds the application; never reset

/// SIGINT and SIGTERM: saves the geometry, with the position as reported even on Wayland and in the middle of a rebuild, and ends the
/// main loop. Runs in signal context, at the instants that SignalGate allows. Before the main loop runs GTK refuses to end it, and
/// the program carries on into it. A signal that comes meanwhile waits: it would be handled in the midst of Xlib or the allocator.
void signal_handler(int sig)
{
    if (SignalGate::pass_to_main_thread(sig)) {
        return;
    }
    SignalGate::close();      // until the kernel puts back the mask that was in force
    const int error = errno;  // of whatever the signal has interrupted
    if (g_app_instance != nullptr && !g_app_instance->is_window_closed()) {
        const WindowRect rect = WindowRect::of(g_app_instance->window());
        WindowManager::instance().save(rect.x, rect.y, rect.width, rect.height, g_app_instance->num_columns(),
                                       g_app_instance->is_horizontal());
    }
    gtk_main_quit();
    errno = error;
}

/// Load of the CPU at that position, or 0.0 if there is none: CPUs can go away while their cards stay.
double usage_at(const std::vector<CoreStats>& cores, std::int32_t cpu_index)
{
    const auto position = static_cast<std::size_t>(cpu_index);
    return position < cores.size() ? cores[position].usage : 0.0;
}

/// A heap for each thread would be half empty: threads here are many, and allocate little. What is large keeps a mapping of its own, which
/// takes no memory where it is not written to, and is given back.
void keep_heap_small()
{
#ifdef __GLIBC__
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, LARGE_BLOCK);
#endif
}

int default_width(GtkWidget* window)
{
    int width = 0;
    gtk_window_get_default_size(GTK_WINDOW(window), &width, nullptr);
    return width;
}

/// What the start has needed and nobody needs any more, GTK's reading of its theme above all, goes back to the system: with 256 CPUs
/// nearly 0.5 MB after a minute.
gboolean give_back_memory(gpointer)
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
    return G_SOURCE_REMOVE;
}

/// Pango reads the fonts' configuration in a thread of its own, and the first text has to wait for that. Begun now, it is over by then:
/// GTK has its theme to read first.
void begin_to_read_fonts()
{
    pango_cairo_font_map_get_default();
}

/// GTK's accessibility connects to the session bus without a time limit. So that a bus that hangs does not keep the window away for good,
/// the program connects first, and then does without accessibility. The connection, or null, is to be kept until somebody else keeps it:
/// else it would be made twice. Where there is no bus accessibility starts one, and takes its time.
SessionBus::Connection connect_for_accessibility()
{
    return g_getenv(NO_ACCESSIBILITY) == nullptr && SessionBus::is_there() ? SessionBus::connect() : nullptr;
}

/// Where accessibility finds no session bus it starts one, which lives on with all that it starts. It is kept from one that hangs, by a
/// variable that programs started later do not inherit. Other threads may be looking into the environment just then; GTK changes it
/// meanwhile as well, and glibc keeps the list that they are going through.
void init_gtk(int argc, char** argv)
{
    const SignalGate::ForNewPrograms gate;
    if (SessionBus::is_given_up()) {
        g_setenv(NO_ACCESSIBILITY, "1", TRUE);
    }
    gtk_init(&argc, &argv);
    if (SessionBus::is_given_up()) {
        g_unsetenv(NO_ACCESSIBILITY);
    }
}

}  // namespace

App::App() : m_cpu_reader(std::make_unique<CPUReader>()), m_sys_metrics(std::make_unique<SystemMetrics>()) {}

App::~App()
{
    if (m_cpu_reader) {
        m_cpu_reader->stop();
    }
    if (m_sys_metrics) {
        m_sys_metrics->stop();
    }
    release_sections();
    g_clear_object(&m_css);
    gdk_event_handler_set([](GdkEvent* event, gpointer) { gtk_main_do_event(event); }, nullptr, nullptr);
}

int App::run(int argc, char** argv)
{
    keep_heap_small();
    g_app_instance = this;
    SignalGate::close();  // before there is a handler: with no window yet, it would save an empty geometry
    std::signal(SIGINT, signal_handler);
    std::signal(SIGTERM, signal_handler);
    begin_to_read_fonts();
    const SessionBus::Connection bus = connect_for_accessibility();  // kept until watch_system_theme() has it, too
    init_gtk(argc, argv);
    SettingsStore::instance().load();
    I18n::instance().set_language(SettingsStore::instance().get().language);
    apply_text_direction();
    m_horizontal = SettingsStore::instance().get().is_horizontal();
    m_clusters = CpuTopology::detect(m_sys_metrics->get_core_count());
    const WindowGeometry stored = WindowManager::instance().load(m_horizontal);
    m_num_columns = stored.valid ? stored.num_columns : FIRST_START_COLUMNS;
    create_window();
    apply_theme();
    watch_system_theme();
    fit_core_labels(default_width(m_window));  // else the whole window would be laid out a second time before its first picture
    gtk_widget_show_all(m_window);
    m_cpu_reader->start();
    m_sys_metrics->start();
    g_timeout_add(TICK_MS, on_update, this);
    for (const guint seconds : {STARTED_S, SETTLED_S}) {
        g_timeout_add_seconds(seconds, give_back_memory, nullptr);
    }
    SignalGate::open_for_main_loop();
    gtk_main();
    return 0;
}

gboolean App::on_update(gpointer data)
{
    App& app = *static_cast<App*>(data);
    if (app.m_window != nullptr) {  // else it was closed in the same turn of the main loop, and its labels are gone
        app.update();
    }
    return G_SOURCE_CONTINUE;  // the tick lives as long as the main loop
}

void App::update()
{
    fill_cache();
    update_right_info_label();
    update_info_line();
    update_throttle_label();
    gtk_widget_queue_draw(m_total_chart);
    for (const ClusterUI& ui : m_clusters_ui) {
        for (const CoreWidgets& widgets : ui.cores) {
            update_card(widgets);
        }
    }
}

void App::fill_cache()
{
    m_cache.cores.clear();  // before the copy that replaces them, so that there are never two
    m_cache.cores = m_cpu_reader->get_cores();
    m_cache.total = m_cpu_reader->get_total();
    m_cache.total_history = m_cpu_reader->get_total_history();
    m_cache.frequencies = m_sys_metrics->get_frequencies();
    m_cache.max_frequencies = m_sys_metrics->get_max_frequencies();
    m_cache.mem_used_gb = m_sys_metrics->get_memory_used_gb();
    m_cache.mem_total_gb = m_sys_metrics->get_memory_total_gb();
}

void App::update_card(const CoreWidgets& widgets)
{
    const double usage = usage_at(m_cache.cores, widgets.cpu_index);
    double r = 0.0;
    double g = 0.0;
    double b = 0.0;
    usage_color(usage, m_dark, r, g, b);
    char markup[64];
    std::snprintf(markup, sizeof markup, "<span color='#%02x%02x%02x'>%s</span>", label_byte(r), label_byte(g), label_byte(b),
                  ChartLook::load_text(usage).c_str());
    set_markup(widgets.pct_label, markup);
    gtk_widget_queue_draw(widgets.chart);
}

void App::set_markup(GtkWidget* label, const char* markup)
{
    if (label != nullptr && std::strcmp(gtk_label_get_label(GTK_LABEL(label)), markup) != 0) {
        gtk_label_set_markup(GTK_LABEL(label), markup);
    }
}

void App::set_text(GtkWidget* label, const char* text)
{
    if (label != nullptr && std::strcmp(gtk_label_get_label(GTK_LABEL(label)), text) != 0) {
        gtk_label_set_text(GTK_LABEL(label), text);
    }
}

void App::set_tooltip(GtkWidget* widget, const char* text)
{
    gchar* const present = gtk_widget_get_tooltip_text(widget);
    if (g_strcmp0(present ? present : "", text) != 0) {
        gtk_widget_set_tooltip_text(widget, *text != '\0' ? text : nullptr);
    }
    g_free(present);
}
