/// The widget groups from which the window is put together: card, section header, total panel.
#include <cstdio>

#include "app.h"
#include "chart_look.h"
#include "i18n.h"
#include "layout_boundary.h"
#include "spoken_widgets.h"
#include "tick_label.h"
#include "tooltip_label.h"
#include "widget_building.h"

namespace {

constexpr int TOTAL_CHART_MIN_HEIGHT = 60;
constexpr int CARD_CHART_MIN_HEIGHT = 1;  // cards share whatever height the window has
constexpr int COLOR_BAR_WIDTH = 3;
constexpr int COLOR_BAR_HEIGHT = 14;
constexpr int STATUS_LABEL_PADDING = 4;

/// Makes an empty label one of the status row's.
GtkWidget* as_readout(GtkWidget* label, double xalign, const char* css_class)
{
    gtk_label_set_use_markup(GTK_LABEL(label), TRUE);
    gtk_label_set_xalign(GTK_LABEL(label), static_cast<float>(xalign));
    add_class(label, css_class);
    return label;
}

void delete_meta(gpointer meta)
{
    delete static_cast<ChartMeta*>(meta);
}

}  // namespace

std::string App::section_title(const CpuCluster& cluster)
{
    char text[96];
    std::snprintf(text, sizeof text, "%s (%d)", cluster.display_name().c_str(), static_cast<int>(cluster.cpu_indices.size()));
    return text;
}

std::string App::card_title(std::int32_t cpu_index)
{
    return I18n::instance().trf("Core %d", cpu_index + 1);
}

GtkWidget* App::create_core_card(int cpu_index, int color_index)
{
    GtkWidget* card = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
    add_class(card, "core-card");
    gtk_widget_set_hexpand(card, TRUE);
    gtk_widget_set_vexpand(card, TRUE);

    GtkWidget* title_row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    // A screen reader is told the whole title, also where only the number fits
    const auto whole_title = [](GtkWidget*, gpointer cpu) { return card_title(GPOINTER_TO_INT(cpu)); };
    GtkWidget* name_label =
        create_spoken_label(card_title(cpu_index), {.name = whole_title, .description = nullptr, .data = GINT_TO_POINTER(cpu_index)});
    gtk_label_set_xalign(GTK_LABEL(name_label), 0.0F);
    add_class(name_label, "core-label");
    gtk_label_set_ellipsize(GTK_LABEL(name_label), PANGO_ELLIPSIZE_END);
    pack_start(title_row, name_label, Fill::YES);
    GtkWidget* pct_label = tick_label_new("0%");
    add_class(pct_label, "pct-label");
    pack_end(title_row, pct_label);
    gtk_label_set_mnemonic_widget(GTK_LABEL(name_label), pct_label);  // for screen readers
    make_layout_boundary(title_row);                                  // the percentage changes with each tick, its width hardly ever
    pack_start(card, title_row, Fill::NO);

    GtkWidget* chart = create_chart({cpu_index, color_index}, CARD_CHART_MIN_HEIGHT);
    gtk_widget_set_vexpand(chart, TRUE);
    pack_start(card, chart, Fill::YES);

    g_object_set_data(G_OBJECT(card), "chart", chart);
    g_object_set_data(G_OBJECT(card), "name_label", name_label);
    g_object_set_data(G_OBJECT(card), "pct_label", pct_label);
    return card;
}

GtkWidget* App::create_chart(const ChartMeta& meta, int min_height)
{
    GtkWidget* chart = create_spoken_chart({.name = chart_name, .description = chart_description, .data = this});
    gtk_widget_set_size_request(chart, -1, min_height);
    gtk_widget_set_hexpand(chart, TRUE);
    g_object_set_data_full(G_OBJECT(chart), "meta", new ChartMeta(meta), delete_meta);
    m_handlers.connect(chart, "draw", G_CALLBACK(draw_chart));
    return chart;
}

std::string App::chart_name(GtkWidget* chart, gpointer)
{
    const ChartMeta& meta = *static_cast<const ChartMeta*>(g_object_get_data(G_OBJECT(chart), "meta"));
    return meta.cpu_index == -1 ? tr("Total") : card_title(meta.cpu_index);
}

/// In the figures that stand on and beside the chart.
std::string App::chart_description(GtkWidget* chart, gpointer data)
{
    const App& app = *static_cast<const App*>(data);
    const ChartMeta& meta = *static_cast<const ChartMeta*>(g_object_get_data(G_OBJECT(chart), "meta"));
    const std::vector<std::string> clock = freq_texts(app.frequency_of(meta));
    const std::optional<double> load = app.load_of(meta);
    std::string text = load ? ChartLook::load_text(*load) : "";
    if (!clock.empty()) {
        text += (text.empty() ? "" : ", ") + clock.front();
    }
    return text.empty() ? text : I18n::instance().figure_marks() + text;
}

std::optional<double> App::load_of(const ChartMeta& meta) const
{
    if (meta.cpu_index == -1) {
        return m_cache.total_history.empty() ? std::nullopt : std::optional(m_cache.total);
    }
    const auto cpu = static_cast<std::size_t>(meta.cpu_index);
    return cpu < m_cache.cores.size() ? std::optional(m_cache.cores[cpu].usage) : std::nullopt;
}

double App::frequency_of(const ChartMeta& meta) const
{
    if (meta.cpu_index == -1) {
        return total_frequency();
    }
    const auto cpu = static_cast<std::size_t>(meta.cpu_index);
    return cpu < m_cache.frequencies.size() ? m_cache.frequencies[cpu] : 0.0;
}

GtkWidget* App::create_section_header(const CpuCluster& cluster)
{
    GtkWidget* header = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 5);
    add_class(header, "section-header");
    gtk_widget_set_hexpand(header, TRUE);

    GtkWidget* color_bar = create_decoration();
    gtk_widget_set_size_request(color_bar, COLOR_BAR_WIDTH, COLOR_BAR_HEIGHT);
    g_object_set_data(G_OBJECT(color_bar), "color_index", GINT_TO_POINTER(cluster.color_index));
    m_handlers.connect(color_bar, "draw", G_CALLBACK(draw_color_bar));
    pack_start(header, color_bar, Fill::NO);

    GtkWidget* name_label = create_label(section_title(cluster), 0.0, "group-name");
    pack_start(header, name_label, Fill::NO);
    g_object_set_data(G_OBJECT(header), "name_label", name_label);

    if (cluster.max_freq_mhz > 0) {
        pack_start(header, create_label(freq_texts(cluster.max_freq_mhz).front(), 0.0, "group-freq"), Fill::NO);
    }
    return header;
}

GtkWidget* App::create_total_panel(GtkWidget* extra)
{
    GtkWidget* panel = gtk_box_new(GTK_ORIENTATION_VERTICAL, 3);
    add_class(panel, "total-card");
    gtk_widget_set_hexpand(panel, TRUE);
    m_handlers.connect(panel, "style-updated", G_CALLBACK(forget_backdrops));
    if (extra != nullptr) {
        pack_start(panel, extra, Fill::NO);
    }
    pack_start(panel, create_status_row(panel), Fill::NO);

    m_total_chart = create_chart({.cpu_index = -1, .color_index = -1}, TOTAL_CHART_MIN_HEIGHT);
    if (m_horizontal) {
        gtk_widget_set_vexpand(m_total_chart, TRUE);  // beside the cards; above them it keeps its height
    }
    pack_start(panel, m_total_chart, m_horizontal ? Fill::YES : Fill::NO);
    return panel;
}

/// Settings button, temperature and power, throttle readout.
GtkWidget* App::create_status_row(GtkWidget* panel)
{
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
    const auto name = [](GtkWidget*, gpointer) -> std::string { return tr("Settings"); };
    GtkWidget* gear = create_spoken_button("⚙", {.name = name, .description = nullptr, .data = nullptr});
    add_class(gear, "flat");
    add_class(gear, "gear-btn");
    gtk_button_set_relief(GTK_BUTTON(gear), GTK_RELIEF_NONE);
    gtk_widget_set_tooltip_text(gear, tr("Settings"));
    m_handlers.connect(gear, "clicked", G_CALLBACK(on_settings_clicked));
    pack_start(row, gear, Fill::NO);
    g_object_set_data(G_OBJECT(panel), "gear", gear);

    m_right_info_label = as_readout(gtk_label_new(""), 0.0, "info-line");
    pack_start(row, m_right_info_label, Fill::NO, STATUS_LABEL_PADDING);
    m_throttle_label = as_readout(tooltip_label_new(), 1.0, "throttle-label");
    pack_end(row, m_throttle_label, STATUS_LABEL_PADDING);
    make_layout_boundary(row);
    return row;
}

void App::tell_new_names() const
{
    if (m_total_panel != nullptr) {
        tell_new_name(widget_of(m_total_panel, "gear"));
        tell_new_name(m_total_chart);
    }
    for (const ClusterUI& ui : m_clusters_ui) {
        for (const CoreWidgets& widgets : ui.cores) {
            tell_new_name(widgets.name_label);
            tell_new_name(widgets.chart);
        }
    }
}
