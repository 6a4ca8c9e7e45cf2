/// widgets_only CPUS COLUMNS WIDTH HEIGHT: what GTK takes for a monitor's window of that many CPUs by itself, with the usual widgets of GTK's.
/// Once a second each percentage and the two readouts get another text, and each chart is asked to be drawn; but no chart has anything to
/// draw, no file is read, and there is no thread and no stylesheet. The loads are made up.
#include <gtk/gtk.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr guint TICK_MS = 1000;
constexpr int GAP = 4;
constexpr int TOTAL_HEIGHT = 60;
constexpr int CHART_HEIGHT = 1;  // the least; all share the window's height
constexpr int PERCENT = 100;

struct Card {
    GtkWidget* percentage;
    GtkWidget* chart;
};

struct Readouts {
    GtkWidget* temperature;
    GtkWidget* throttle;
    GtkWidget* total;
};

std::vector<Card> g_cards;
Readouts g_readouts;
int g_seconds = 0;

GtkWidget* new_chart(int height)
{
    GtkWidget* const chart = gtk_drawing_area_new();
    gtk_widget_set_size_request(chart, -1, height);
    gtk_widget_set_hexpand(chart, TRUE);
    gtk_widget_set_vexpand(chart, TRUE);
    return chart;
}

GtkWidget* new_card(int cpu)
{
    GtkWidget* const box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
    GtkWidget* const titles = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    const Card card = {gtk_label_new("0%"), new_chart(CHART_HEIGHT)};
    gtk_box_pack_start(GTK_BOX(titles), gtk_label_new(("Core " + std::to_string(cpu + 1)).c_str()), FALSE, FALSE, 0);
    gtk_box_pack_end(GTK_BOX(titles), card.percentage, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), titles, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), card.chart, TRUE, TRUE, 0);
    g_cards.push_back(card);
    return box;
}

GtkWidget* new_cards(int cpus, int columns)
{
    GtkWidget* const grid = gtk_grid_new();
    gtk_grid_set_row_spacing(GTK_GRID(grid), GAP);
    gtk_grid_set_column_spacing(GTK_GRID(grid), GAP);
    for (int cpu = 0; cpu < cpus; ++cpu) {
        gtk_grid_attach(GTK_GRID(grid), new_card(cpu), cpu % columns, cpu / columns, 1, 1);
    }
    return grid;
}

GtkWidget* new_panel()
{
    GtkWidget* const panel = gtk_box_new(GTK_ORIENTATION_VERTICAL, 3);
    GtkWidget* const row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, GAP);
    g_readouts = {gtk_label_new(""), gtk_label_new(""), new_chart(TOTAL_HEIGHT)};
    gtk_widget_set_vexpand(g_readouts.total, FALSE);
    gtk_box_pack_start(GTK_BOX(row), gtk_button_new_with_label("⚙"), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(row), g_readouts.temperature, FALSE, FALSE, 0);
    gtk_box_pack_end(GTK_BOX(row), g_readouts.throttle, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(panel), gtk_label_new("CPU"), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(panel), row, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(panel), g_readouts.total, FALSE, FALSE, 0);
    return panel;
}

/// Of two digits, so that no label comes to need another place.
int made_up_load(std::size_t place)
{
    constexpr int STEP = 7;
    constexpr int LEAST = 10;
    return LEAST + (g_seconds * STEP + static_cast<int>(place) * STEP * STEP) % (PERCENT - LEAST);
}

gboolean tick(gpointer)
{
    ++g_seconds;
    gtk_label_set_text(GTK_LABEL(g_readouts.temperature),
                       (std::to_string(made_up_load(0)) + "°C  " + std::to_string(made_up_load(1)) + " W").c_str());
    gtk_label_set_text(GTK_LABEL(g_readouts.throttle), (std::to_string(made_up_load(2)) + "%").c_str());
    gtk_widget_queue_draw(g_readouts.total);
    for (std::size_t i = 0; i < g_cards.size(); ++i) {
        gtk_label_set_text(GTK_LABEL(g_cards[i].percentage), (std::to_string(made_up_load(i)) + "%").c_str());
        gtk_widget_queue_draw(g_cards[i].chart);
    }
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv)
{
    gtk_init(&argc, &argv);
    if (argc != 5) {
        g_printerr("usage: widgets_only CPUS COLUMNS WIDTH HEIGHT\n");
        return EXIT_FAILURE;
    }
    GtkWidget* const window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_default_size(GTK_WINDOW(window), std::atoi(argv[3]), std::atoi(argv[4]));
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
    GtkWidget* const all = gtk_box_new(GTK_ORIENTATION_VERTICAL, GAP);
    gtk_box_pack_start(GTK_BOX(all), new_panel(), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(all), new_cards(std::atoi(argv[1]), std::max(std::atoi(argv[2]), 1)), TRUE, TRUE, 0);
    gtk_container_add(GTK_CONTAINER(window), all);
    gtk_widget_show_all(window);
    g_timeout_add(TICK_MS, tick, nullptr);
    gtk_main();
    return EXIT_SUCCESS;
}
