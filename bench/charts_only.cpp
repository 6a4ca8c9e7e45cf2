/// charts_only CPUS COLUMNS WIDTH HEIGHT: paints the charts of a monitor of that many CPUs once a second, in a window of that size, and
/// does nothing else: no file is read, no label set, nothing laid out. The loads are made up in memory.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "app.h"

namespace {

constexpr guint TICK_MS = 1000;
constexpr int TOTAL_HEIGHT = 60;  // the large chart, and what stands above it, as in the monitor's window
constexpr int HEAD_HEIGHT = 60;
constexpr int TITLE_HEIGHT = 22;  // of a card
constexpr int GAP = 4;
constexpr double MHZ = 3600.0;

struct Charts {
    int cpus = 0;
    int columns = 1;
    std::vector<std::deque<double>> histories;  ///< that of the whole machine comes last
    int seconds = 0;
};

double made_up_load(std::size_t chart, int second)
{
    return 0.5 + 0.45 * std::sin(second / 3.0 + static_cast<double>(chart));
}

void let_a_second_pass(Charts& charts)
{
    ++charts.seconds;
    for (std::size_t i = 0; i < charts.histories.size(); ++i) {
        auto& history = charts.histories[i];
        history.push_back(made_up_load(i, charts.seconds));
        if (history.size() > CPUReader::HISTORY_SIZE) {
            history.pop_front();
        }
    }
}

/// One chart at its place. Its painter fills whatever it may paint on, so it gets no more than the chart.
void paint_at(cairo_t* cr, const GdkRectangle& place, const std::deque<double>& history, int color, double overlay)
{
    cairo_save(cr);
    cairo_translate(cr, place.x, place.y);
    cairo_rectangle(cr, 0, 0, place.width, place.height);
    cairo_clip(cr);
    App::paint_chart(cr, place.width, place.height, history, App::group_color(color), Palette::light(), App::freq_texts(MHZ), overlay);
    cairo_restore(cr);
}

gboolean paint(GtkWidget* area, cairo_t* cr, gpointer data)
{
    const Charts& charts = *static_cast<Charts*>(data);
    const int width = gtk_widget_get_allocated_width(area);
    const int height = gtk_widget_get_allocated_height(area);
    paint_at(cr, {GAP, HEAD_HEIGHT, width - 2 * GAP, TOTAL_HEIGHT}, charts.histories.back(), -1, charts.histories.back().back());

    const int top = HEAD_HEIGHT + TOTAL_HEIGHT;
    const int rows = (charts.cpus + charts.columns - 1) / charts.columns;
    const int row_height = (height - top) / rows;
    const int column_width = (width - GAP) / charts.columns;
    for (int cpu = 0; cpu < charts.cpus; ++cpu) {
        const GdkRectangle place = {GAP + cpu % charts.columns * column_width, top + cpu / charts.columns * row_height + TITLE_HEIGHT,
                                    column_width - GAP, std::max(row_height - TITLE_HEIGHT - GAP, 1)};
        paint_at(cr, place, charts.histories[static_cast<std::size_t>(cpu)], 0, -1.0);
    }
    return GDK_EVENT_STOP;
}

}  // namespace

int main(int argc, char** argv)
{
    gtk_init(&argc, &argv);
    if (argc != 5) {
        g_printerr("usage: charts_only CPUS COLUMNS WIDTH HEIGHT\n");
        return EXIT_FAILURE;
    }
    static Charts charts;
    charts.cpus = std::atoi(argv[1]);
    charts.columns = std::max(std::atoi(argv[2]), 1);
    charts.histories.resize(static_cast<std::size_t>(charts.cpus) + 1);
    let_a_second_pass(charts);

    GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_default_size(GTK_WINDOW(window), std::atoi(argv[3]), std::atoi(argv[4]));
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
    static GtkWidget* area = gtk_drawing_area_new();
    gtk_container_add(GTK_CONTAINER(window), area);
    g_signal_connect(area, "draw", G_CALLBACK(paint), &charts);
    gtk_widget_show_all(window);
    const auto tick = [](gpointer) -> gboolean {
        let_a_second_pass(charts);
        gtk_widget_queue_draw(area);
        return G_SOURCE_CONTINUE;
    };
    g_timeout_add(TICK_MS, tick, nullptr);
    gtk_main();
    return EXIT_SUCCESS;
}
