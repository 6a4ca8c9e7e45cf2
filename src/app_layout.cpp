/// The tree under the window: how it is put together, where the cards stand, how large the window wants to be, and card titles that fit.
#include <algorithm>

#include "app.h"
#include "widget_building.h"

namespace {

constexpr int SIDE_PANEL_WIDTH = 230;  // horizontal orientation
constexpr int SIDE_PANEL_AND_MARGINS = 238;
constexpr int CARD_ROW_HEIGHT = 92;  // likewise, of the default size
constexpr int SECTION_HEIGHT = 20;
constexpr int BASE_HEIGHT = 12;
constexpr int EMPTY_WIDTH = 470;  // the default size if there are no cards
constexpr int EMPTY_HEIGHT = 124;
constexpr int GRID_SIDE_MARGIN = 6;
constexpr int GRID_BOTTOM_MARGIN = 2;
constexpr int CARD_GAP = 3;  // between the cards of a row
constexpr int ROW_GAP = 2;
constexpr int TITLE_SLACK = 10;  // between name and percentage

constexpr const char* WIDEST_PERCENTAGE = "100%";

int rounded_up_quotient(int count, int per)
{
    return (count + per - 1) / per;
}

void detach(GtkWidget* widget)
{
    if (GtkWidget* parent = gtk_widget_get_parent(widget)) {
        gtk_container_remove(GTK_CONTAINER(parent), widget);
    }
}

/// Allocates the window's content once more, from within its own allocation. Labels that got another text there have asked for a new
/// allocation, but GTK forgets such a request when the window's allocation ends, and then never hears of those labels again.
void allocate_content_again(GtkWidget* window)
{
    if (GtkWidget* content = gtk_bin_get_child(GTK_BIN(window))) {
        GtkAllocation area;
        int baseline = 0;
        gtk_widget_get_allocated_size(content, &area, &baseline);
        gtk_widget_size_allocate_with_baseline(content, &area, baseline);
    }
}

/// The text with whatever is not UTF-8 replaced: a hypervisor may give its CPU any bytes for a name, and Pango would complain each time.
std::string valid_utf8(const std::string& text)
{
    gchar* const valid = g_utf8_make_valid(text.c_str(), -1);
    std::string result = valid;
    g_free(valid);
    return result;
}

/// A widget and its place in a grid; all are one row high.
struct Cell {
    GtkWidget* widget;
    int column;
    int row;
    int width;
};

/// Puts the widgets, given in the order of reading, into the grid. It puts a new child before those that it has, and their order is the one
/// in which a screen reader walks through them.
void attach_in_order(GtkWidget* grid, const std::vector<Cell>& cells)
{
    const auto attach = [grid](const Cell& cell) { gtk_grid_attach(GTK_GRID(grid), cell.widget, cell.column, cell.row, cell.width, 1); };
    std::for_each(cells.rbegin(), cells.rend(), attach);
}

GtkWidget* create_row_box()
{
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, CARD_GAP);
    gtk_box_set_homogeneous(GTK_BOX(row), TRUE);
    return row;
}

}  // namespace

void App::build_layout()
{
    GtkWidget* outer = gtk_box_new(m_horizontal ? GTK_ORIENTATION_HORIZONTAL : GTK_ORIENTATION_VERTICAL, 0);
    GtkWidget* header = create_header_block();
    if (m_horizontal) {
        m_total_panel = create_total_panel(header);
        gtk_widget_set_size_request(m_total_panel, SIDE_PANEL_WIDTH, -1);
        gtk_widget_set_hexpand(m_total_panel, FALSE);
    } else {
        gtk_box_pack_start(GTK_BOX(outer), header, FALSE, FALSE, 0);
        m_total_panel = create_total_panel(nullptr);
    }
    gtk_box_pack_start(GTK_BOX(outer), m_total_panel, FALSE, FALSE, 0);

    m_core_grid = create_core_grid();
    create_sections();
    populate_core_grid(m_num_columns);
    gtk_box_pack_start(GTK_BOX(outer), m_core_grid, TRUE, TRUE, 0);
    gtk_container_add(GTK_CONTAINER(m_window), outer);
}

/// The CPU's name, and below it the info line.
GtkWidget* App::create_header_block()
{
    GtkWidget* header = gtk_box_new(GTK_ORIENTATION_VERTICAL, 1);
    add_class(header, "header");

    m_cpu_label = gtk_label_new(valid_utf8(m_sys_metrics->get_cpu_name()).c_str());
    gtk_label_set_xalign(GTK_LABEL(m_cpu_label), 0.0);
    gtk_label_set_line_wrap(GTK_LABEL(m_cpu_label), TRUE);
    add_class(m_cpu_label, "cpu-name");
    gtk_box_pack_start(GTK_BOX(header), m_cpu_label, FALSE, FALSE, 0);

    GtkWidget* info_row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    gtk_widget_set_hexpand(info_row, TRUE);
    m_info_label = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(m_info_label), 0.0);
    gtk_label_set_line_wrap(GTK_LABEL(m_info_label), TRUE);
    gtk_label_set_line_wrap_mode(GTK_LABEL(m_info_label), PANGO_WRAP_WORD_CHAR);
    gtk_label_set_max_width_chars(GTK_LABEL(m_info_label), 1);  // so that its text never asks for a wider window
    add_class(m_info_label, "info-line");
    m_handlers.connect(m_info_label, "style-updated", G_CALLBACK(on_font_changed));
    gtk_box_pack_start(GTK_BOX(info_row), m_info_label, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(header), info_row, FALSE, FALSE, 0);
    return header;
}

/// A grid, or a box of rows where sections of different size must each fill the width.
GtkWidget* App::create_core_grid() const
{
    GtkWidget* container = nullptr;
    if (!m_horizontal || single_core_row()) {
        container = gtk_grid_new();
        gtk_grid_set_column_homogeneous(GTK_GRID(container), TRUE);
        gtk_grid_set_column_spacing(GTK_GRID(container), CARD_GAP);
        gtk_grid_set_row_spacing(GTK_GRID(container), ROW_GAP);
    } else {
        container = gtk_box_new(GTK_ORIENTATION_VERTICAL, ROW_GAP);
    }
    gtk_widget_set_margin_start(container, GRID_SIDE_MARGIN);
    gtk_widget_set_margin_end(container, GRID_SIDE_MARGIN);
    gtk_widget_set_margin_bottom(container, GRID_BOTTOM_MARGIN);
    gtk_widget_set_vexpand(container, TRUE);
    return container;
}

/// A header and its cards for each cluster, not yet placed. Our own references keep them alive while they are moved.
void App::create_sections()
{
    for (const CpuCluster& cluster : m_clusters) {
        ClusterUI& ui = m_clusters_ui.emplace_back();
        ui.section_hdr = create_section_header(cluster);
        g_object_ref_sink(ui.section_hdr);
        ui.name_label = widget_of(ui.section_hdr, "name_label");
        ui.cores.reserve(cluster.cpu_indices.size());
        for (const std::int32_t cpu_index : cluster.cpu_indices) {
            GtkWidget* card = create_core_card(cpu_index, cluster.color_index);
            g_object_ref_sink(card);
            if (card_count() == 0) {
                m_handlers.connect(widget_of(card, "name_label"), "style-updated", G_CALLBACK(on_font_changed));
                m_handlers.connect(card, "style-updated", G_CALLBACK(forget_backdrops));
            }
            ui.cores.push_back({.card = card,
                                .chart = widget_of(card, "chart"),
                                .name_label = widget_of(card, "name_label"),
                                .pct_label = widget_of(card, "pct_label"),
                                .cpu_index = cpu_index,
                                .short_label = false});
        }
    }
}

void App::populate_core_grid(int columns)
{
    empty_core_grid();
    if (!m_horizontal) {
        place_in_grid(std::max(columns, 1));
    } else if (single_core_row()) {
        place_in_single_row();
    } else {
        place_in_row_boxes(columns);
    }
}

/// Takes headers and cards out; what is left are the row boxes of an earlier placement, which go.
void App::empty_core_grid()
{
    for (const ClusterUI& ui : m_clusters_ui) {
        detach(ui.section_hdr);
        for (const CoreWidgets& widgets : ui.cores) {
            detach(widgets.card);
        }
    }
    GList* children = gtk_container_get_children(GTK_CONTAINER(m_core_grid));
    g_list_free_full(children, [](gpointer child) { gtk_widget_destroy(GTK_WIDGET(child)); });
}

/// Vertical orientation: sections below each other, each header above its rows of cards.
void App::place_in_grid(int cols)
{
    std::vector<Cell> cells;
    int row = 0;
    for (ClusterUI& ui : m_clusters_ui) {
        cells.push_back({ui.section_hdr, 0, row, cols});
        ui.grid_row = row + 1;
        const int count = static_cast<int>(ui.cores.size());
        for (int i = 0; i < count; ++i) {
            cells.push_back({ui.cores[static_cast<std::size_t>(i)].card, i % cols, ui.grid_row + i / cols, 1});
        }
        row = ui.grid_row + rounded_up_quotient(count, cols);
    }
    attach_in_order(m_core_grid, cells);
}

/// Horizontal orientation, one column: all cards in one row, clusters side by side under their headers.
void App::place_in_single_row()
{
    std::vector<Cell> cells;
    int col = 0;
    for (ClusterUI& ui : m_clusters_ui) {
        const int count = static_cast<int>(ui.cores.size());
        if (count == 0) {
            continue;
        }
        cells.push_back({ui.section_hdr, col, 0, count});
        ui.grid_row = 1;
        for (const CoreWidgets& widgets : ui.cores) {
            cells.push_back({widgets.card, col, ui.grid_row, 1});
            ++col;
        }
    }
    attach_in_order(m_core_grid, cells);
}

/// Horizontal orientation, several columns: a box for each row. A short last row is filled up, so that its cards keep their width.
void App::place_in_row_boxes(int columns)
{
    int row = 0;
    for (ClusterUI& ui : m_clusters_ui) {
        gtk_box_pack_start(GTK_BOX(m_core_grid), ui.section_hdr, FALSE, FALSE, 0);
        ui.grid_row = row;
        const std::size_t per = columns < 2 ? ui.cores.size() : static_cast<std::size_t>(columns);
        for (std::size_t first = 0; first < ui.cores.size(); first += per) {
            GtkWidget* box = create_row_box();
            for (std::size_t i = first; i < first + per; ++i) {
                GtkWidget* cell = i < ui.cores.size() ? ui.cores[i].card : gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
                gtk_box_pack_start(GTK_BOX(box), cell, TRUE, TRUE, 0);
            }
            gtk_box_pack_start(GTK_BOX(m_core_grid), box, TRUE, TRUE, 0);
            ++row;
        }
    }
}

/// GTK gives one widget after the other its new font, and then allocates all of them: only there can they be measured.
void App::on_font_changed(GtkWidget* label, gpointer data)
{
    static_cast<App*>(data)->m_last_window_w = 0;
    gtk_widget_queue_resize(label);
}

void App::on_win_size_alloc(GtkWidget*, GtkAllocation* allocation, gpointer data)
{
    App& app = *static_cast<App*>(data);
    if (allocation->width != app.m_last_window_w) {
        app.m_last_window_w = allocation->width;
        app.fit_core_labels(allocation->width);
        app.update_info_line();
        if (app.m_window != nullptr) {
            allocate_content_again(app.m_window);
        }
    }
    if (allocation->height != app.m_last_window_h) {
        app.m_last_window_h = allocation->height;
    }
}

void App::fit_core_labels(int window_w)
{
    const int count = single_core_row() ? card_count() : std::max(m_num_columns, 1);
    if (count == 0) {
        return;
    }
    const int card_width = (cards_width(window_w) - (count - 1) * CARD_GAP) / count;
    if (card_width <= 0) {
        return;
    }
    int pct_width = 0;  // the same on all cards
    for (ClusterUI& ui : m_clusters_ui) {
        for (CoreWidgets& widgets : ui.cores) {
            if (widgets.name_label != nullptr && widgets.pct_label != nullptr) {
                pct_width = pct_width > 0 ? pct_width : text_width(widgets.pct_label, WIDEST_PERCENTAGE);
                fit_core_label(widgets, card_width, pct_width);
            }
        }
    }
}

/// The percentage counts at its widest, so that a title does not change with the load.
void App::fit_core_label(CoreWidgets& widgets, int card_width, int pct_width)
{
    const int number = widgets.cpu_index + 1;
    const std::string long_text = card_title(widgets.cpu_index);
    const int needed = text_width(widgets.name_label, long_text) + pct_width + TITLE_SLACK;
    const bool is_short = card_width < needed;
    if (is_short != widgets.short_label) {
        widgets.short_label = is_short;
        gtk_label_set_text(GTK_LABEL(widgets.name_label), is_short ? std::to_string(number).c_str() : long_text.c_str());
    }
}

int App::cards_width(int window_w) const
{
    return window_w - (m_horizontal ? SIDE_PANEL_WIDTH : 0) - 2 * GRID_SIDE_MARGIN;
}

void App::default_horizontal_size(int& w, int& h) const
{
    int rows = 0;
    int widest = 0;
    for (const CpuCluster& cluster : m_clusters) {
        const int n = static_cast<int>(cluster.cpu_indices.size());
        const int per = m_num_columns >= 2 ? m_num_columns : n;
        rows += n > 0 ? rounded_up_quotient(n, per) : 0;
        widest = std::max(widest, per);
    }
    if (rows == 0) {
        w = EMPTY_WIDTH;
        h = EMPTY_HEIGHT;
        return;
    }
    w = widest * COLUMN_WIDTH + SIDE_PANEL_AND_MARGINS;
    h = rows * CARD_ROW_HEIGHT + static_cast<int>(m_clusters.size()) * SECTION_HEIGHT + BASE_HEIGHT;
}

int App::card_count() const
{
    std::size_t count = 0;
    for (const ClusterUI& ui : m_clusters_ui) {
        count += ui.cores.size();
    }
    return static_cast<int>(count);
}

int App::text_width(GtkWidget* widget, const std::string& text)
{
    PangoLayout* layout = gtk_widget_create_pango_layout(widget, text.c_str());
    int width = 0;
    pango_layout_get_pixel_size(layout, &width, nullptr);
    g_object_unref(layout);
    return width;
}
