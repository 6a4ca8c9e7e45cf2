/// The widget groups from which the window is put together: card, section header, total panel.
#include <cstdio>

#include "app.h"
#include "i18n.h"
#include "widget_building.h"

namespace {

constexpr int TOTAL_CHART_MIN_HEIGHT = 60;
constexpr int CARD_CHART_MIN_HEIGHT = 1;  // cards share whatever height the window has
constexpr int COLOR_BAR_WIDTH = 3;
constexpr int COLOR_BAR_HEIGHT = 14;
constexpr int STATUS_LABEL_PADDING = 4;

GtkWidget* create_markup_label(double xalign, const char* css_class)
{
    GtkWidget* label = create_label("", xalign, css_class);
    gtk_label_set_use_markup(GTK_LABEL(label), TRUE);
    return label;
}

/// A drawing area without a GDK window of its own, which only one that takes part in events needs: memory and time for each chart.
GtkWidget* create_canvas()
{
    GtkWidget* canvas = gtk_drawing_area_new();
    gtk_widget_set_has_window(canvas, FALSE);
    return canvas;
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
    m_handlers.connect(card, "draw", G_CALLBACK(draw_card));

    GtkWidget* title_row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    GtkWidget* name_label = create_label(card_title(cpu_index), 0.0, "core-label");
    gtk_label_set_ellipsize(GTK_LABEL(name_label), PANGO_ELLIPSIZE_END);
    pack_start(title_row, name_label, Fill::YES);
    GtkWidget* pct_label = gtk_label_new("0%");
    gtk_label_set_use_markup(GTK_LABEL(pct_label), TRUE);
    add_class(pct_label, "pct-label");
    pack_end(title_row, pct_label);
    pack_start(card, title_row, Fill::NO);

    GtkWidget* chart = create_chart({cpu_index, color_index}, CARD_CHART_MIN_HEIGHT);
    gtk_widget_set_vexpand(chart, TRUE);
    set_accessible_name(chart, card_title(cpu_index));
    pack_start(card, chart, Fill::YES);

    g_object_set_data(G_OBJECT(card), "chart", chart);
    g_object_set_data(G_OBJECT(card), "name_label", name_label);
    g_object_set_data(G_OBJECT(card), "pct_label", pct_label);
    return card;
}

GtkWidget* App::create_chart(const ChartMeta& meta, int min_height)
{
    GtkWidget* chart = create_canvas();
    gtk_widget_set_size_request(chart, -1, min_height);
    gtk_widget_set_hexpand(chart, TRUE);
    g_object_set_data_full(G_OBJECT(chart), "meta", new ChartMeta(meta), delete_meta);
    m_handlers.connect(chart, "draw", G_CALLBACK(draw_chart));
    return chart;
}

GtkWidget* App::create_section_header(const CpuCluster& cluster)
{
    GtkWidget* header = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 5);
    add_class(header, "section-header");
    gtk_widget_set_hexpand(header, TRUE);

    GtkWidget* color_bar = create_canvas();
    gtk_widget_set_size_request(color_bar, COLOR_BAR_WIDTH, COLOR_BAR_HEIGHT);
    g_object_set_data(G_OBJECT(color_bar), "color_index", GINT_TO_POINTER(cluster.color_index));
    m_handlers.connect(color_bar, "draw", G_CALLBACK(draw_color_bar));
    pack_start(header, color_bar, Fill::NO);

    GtkWidget* name_label = create_label(section_title(cluster), 0.0, "group-name");
    pack_start(header, name_label, Fill::NO);
    g_object_set_data(G_OBJECT(header), "name_label", name_label);

    if (cluster.max_freq_mhz > 0) {
        pack_start(header, create_label(frequency_caption(cluster.max_freq_mhz), 0.0, "group-freq"), Fill::NO);
    }
    return header;
}

GtkWidget* App::create_total_panel(GtkWidget* extra)
{
    GtkWidget* panel = gtk_box_new(GTK_ORIENTATION_VERTICAL, 3);
    add_class(panel, "total-card");
    gtk_widget_set_hexpand(panel, TRUE);
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
    GtkWidget* gear = gtk_button_new_with_label("⚙");
    add_class(gear, "flat");
    add_class(gear, "gear-btn");
    gtk_button_set_relief(GTK_BUTTON(gear), GTK_RELIEF_NONE);
    gtk_widget_set_tooltip_text(gear, I18n::instance().tr("Settings"));
    m_handlers.connect(gear, "clicked", G_CALLBACK(on_settings_clicked));
    pack_start(row, gear, Fill::NO);
    g_object_set_data(G_OBJECT(panel), "gear", gear);

    m_right_info_label = create_markup_label(0.0, "info-line");
    pack_start(row, m_right_info_label, Fill::NO, STATUS_LABEL_PADDING);
    m_throttle_label = create_markup_label(1.0, "throttle-label");
    pack_end(row, m_throttle_label, STATUS_LABEL_PADDING);
    return row;
}

std::string App::frequency_caption(double mhz)
{
    char text[32];
    if (mhz >= MHZ_PER_GHZ) {
        std::snprintf(text, sizeof text, "%.3f GHz", mhz / MHZ_PER_GHZ);
    } else {
        std::snprintf(text, sizeof text, "%.0f MHz", mhz);
    }
    return text;
}

void App::name_status_widgets()
{
    if (m_total_panel == nullptr) {
        return;
    }
    if (GtkWidget* gear = widget_of(m_total_panel, "gear")) {
        set_accessible_name(gear, I18n::instance().tr("Settings"));
    }
    if (m_total_chart != nullptr) {
        set_accessible_name(m_total_chart, I18n::instance().tr("Total"));
    }
}
