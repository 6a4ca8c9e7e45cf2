/// Widgets as text, so that a test can compare a whole tree with what is expected, line by line.
#pragma once

#include <gtk/gtk.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "app.h"

inline std::vector<GtkWidget*> children_of(GtkWidget* container)
{
    std::vector<GtkWidget*> children;
    GList* const list = gtk_container_get_children(GTK_CONTAINER(container));
    for (GList* item = list; item != nullptr; item = item->next) {
        children.push_back(GTK_WIDGET(item->data));
    }
    g_list_free(list);
    return children;
}

inline int child_number(GtkWidget* child, const char* property)
{
    gint value = 0;
    gtk_container_child_get(GTK_CONTAINER(gtk_widget_get_parent(child)), child, property, &value, nullptr);
    return value;
}

/// Place of a widget in its grid, such as "0,2 4x1": column, row, width, height.
inline std::string cell_of(GtkWidget* child)
{
    return std::to_string(child_number(child, "left-attach")) + "," + std::to_string(child_number(child, "top-attach")) + " " +
           std::to_string(child_number(child, "width")) + "x" + std::to_string(child_number(child, "height"));
}

/// How a widget is packed into its box, such as "start expand fill" or "end padding 4".
inline std::string packing_of(GtkWidget* child)
{
    gboolean expand = FALSE;
    gboolean fill = FALSE;
    guint padding = 0;
    GtkPackType end = GTK_PACK_START;
    gtk_box_query_child_packing(GTK_BOX(gtk_widget_get_parent(child)), child, &expand, &fill, &padding, &end);
    return std::string(end == GTK_PACK_START ? "start" : "end") + (expand ? " expand" : "") + (fill ? " fill" : "") +
           (padding > 0 ? " padding " + std::to_string(padding) : "");
}

/// The style classes of a widget but for those that GTK gives it, such as " .flat .gear-btn".
inline std::string classes_of(GtkWidget* widget)
{
    std::vector<std::string> classes;
    GList* const list = gtk_style_context_list_classes(gtk_widget_get_style_context(widget));
    for (GList* item = list; item != nullptr; item = item->next) {
        classes.emplace_back(static_cast<const char*>(item->data));
    }
    g_list_free(list);
    std::sort(classes.begin(), classes.end());
    std::string text;
    for (const std::string& name : classes) {
        if (name != "horizontal" && name != "vertical" && name != "text-button") {
            text += " ." + name;
        }
    }
    return text;
}

/// The text that a label shows, without markup.
inline std::string text_of(GtkWidget* label)
{
    return gtk_label_get_text(GTK_LABEL(label));
}

/// The text that a label was given, with markup.
inline std::string markup_of(GtkWidget* label)
{
    return gtk_label_get_label(GTK_LABEL(label));
}

inline std::string tooltip_of(GtkWidget* widget)
{
    gchar* const text = gtk_widget_get_tooltip_text(widget);
    const std::string tooltip = text != nullptr ? text : "";
    g_free(text);
    return tooltip;
}

/// The CPU that a card stands for.
inline int cpu_of(GtkWidget* card)
{
    auto* const chart = static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(card), "chart"));
    return static_cast<ChartMeta*>(g_object_get_data(G_OBJECT(chart), "meta"))->cpu_index;
}

inline bool has_class(GtkWidget* widget, const char* name)
{
    return gtk_style_context_has_class(gtk_widget_get_style_context(widget), name);
}

/// A card, a section header or a filler in short, such as "card 3", "header Cluster 1 (4)" or "empty".
inline std::string brief(GtkWidget* widget)
{
    if (has_class(widget, "core-card")) {
        return "card " + std::to_string(cpu_of(widget));
    }
    if (has_class(widget, "section-header")) {
        return "header " + text_of(static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(widget), "name_label")));
    }
    return GTK_IS_BOX(widget) && children_of(widget).empty() ? "empty" : "other";
}

/// What stands in each cell of a grid, row by row, such as {"0,0 2x1 header Cluster 1 (4)", "0,1 1x1 card 0"}.
inline std::vector<std::string> cells_of(GtkWidget* grid)
{
    std::vector<GtkWidget*> children = children_of(grid);
    const auto place = [](GtkWidget* w) { return std::make_tuple(child_number(w, "top-attach"), child_number(w, "left-attach")); };
    std::sort(children.begin(), children.end(), [&](GtkWidget* a, GtkWidget* b) { return place(a) < place(b); });
    std::vector<std::string> cells;
    std::transform(children.begin(), children.end(), std::back_inserter(cells),
                   [](GtkWidget* child) { return cell_of(child) + " " + brief(child); });
    return cells;
}

/// The rows of a box of sections: a header by itself, the cards of a row box behind each other, such as {"header …", "card 0, empty"}.
inline std::vector<std::string> rows_of(GtkWidget* box)
{
    std::vector<std::string> rows;
    for (GtkWidget* child : children_of(box)) {
        std::string row = brief(child);
        if (row == "other") {
            row.clear();
            for (GtkWidget* cell : children_of(child)) {
                row += (row.empty() ? "" : ", ") + brief(cell);
            }
        }
        rows.push_back(row);
    }
    return rows;
}

namespace widget_text {

inline std::string number(double value)
{
    std::ostringstream text;
    text << value;
    return text.str();
}

inline std::string of_label(GtkWidget* widget)
{
    GtkLabel* const label = GTK_LABEL(widget);
    std::string text = "label \"" + text_of(widget) + '"';
    if (gtk_label_get_use_markup(label)) {
        text += " markup";
    }
    if (gtk_label_get_xalign(label) != 0.5F) {
        text += " xalign " + number(static_cast<double>(gtk_label_get_xalign(label)));
    }
    if (gtk_label_get_ellipsize(label) != PANGO_ELLIPSIZE_NONE) {
        text += gtk_label_get_ellipsize(label) == PANGO_ELLIPSIZE_END ? " ellipsize end" : " ellipsize other";
    }
    if (gtk_label_get_line_wrap(label)) {
        text += gtk_label_get_line_wrap_mode(label) == PANGO_WRAP_WORD_CHAR ? " wrap word-char" : " wrap word";
    }
    if (gtk_label_get_max_width_chars(label) != -1) {
        text += " max-width-chars " + std::to_string(gtk_label_get_max_width_chars(label));
    }
    return text;
}

inline std::string of_box(GtkWidget* widget)
{
    const bool vertical = gtk_orientable_get_orientation(GTK_ORIENTABLE(widget)) == GTK_ORIENTATION_VERTICAL;
    return std::string("box ") + (vertical ? "vertical" : "horizontal") + " spacing " +
           std::to_string(gtk_box_get_spacing(GTK_BOX(widget))) + (gtk_box_get_homogeneous(GTK_BOX(widget)) ? " homogeneous" : "");
}

inline std::string of_grid(GtkWidget* widget)
{
    GtkGrid* const grid = GTK_GRID(widget);
    return "grid spacing " + std::to_string(gtk_grid_get_column_spacing(grid)) + "," + std::to_string(gtk_grid_get_row_spacing(grid)) +
           (gtk_grid_get_column_homogeneous(grid) ? " homogeneous columns" : "") +
           (gtk_grid_get_row_homogeneous(grid) ? " homogeneous rows" : "");
}

inline std::string of_button(GtkWidget* widget)
{
    return std::string("button \"") + gtk_button_get_label(GTK_BUTTON(widget)) + '"' +
           (gtk_button_get_relief(GTK_BUTTON(widget)) == GTK_RELIEF_NONE ? " flat" : " raised");
}

inline std::string kind_of(GtkWidget* widget)
{
    return GTK_IS_LABEL(widget)    ? of_label(widget)
           : GTK_IS_BUTTON(widget) ? of_button(widget)
           : GTK_IS_BOX(widget)    ? of_box(widget)
           : GTK_IS_GRID(widget)   ? of_grid(widget)
                                   : G_OBJECT_TYPE_NAME(widget);
}

/// Size request, margins, expansion, tooltip: each only where it was set.
inline std::string properties_of(GtkWidget* widget)
{
    std::string text;
    int width = -1;
    int height = -1;
    gtk_widget_get_size_request(widget, &width, &height);
    if (width != -1 || height != -1) {
        text += " request " + std::to_string(width) + "x" + std::to_string(height);
    }
    for (const char* property : {"margin-start", "margin-end", "margin-top", "margin-bottom"}) {
        gint margin = 0;
        g_object_get(widget, property, &margin, nullptr);
        text += margin != 0 ? std::string(" ") + property + " " + std::to_string(margin) : "";
    }
    text += gtk_widget_get_hexpand(widget) ? " hexpand" : "";
    text += gtk_widget_get_vexpand(widget) ? " vexpand" : "";
    const std::string tooltip = tooltip_of(widget);
    return text + (tooltip.empty() ? "" : " tooltip \"" + tooltip + '"');
}

}  // namespace widget_text

/// One line about a widget without its children.
inline std::string describe_widget(GtkWidget* widget)
{
    return widget_text::kind_of(widget) + widget_text::properties_of(widget) + classes_of(widget);
}

/// A widget and all below it, a line each, deeper ones behind more dashes, with how each child of a box is packed. Children come in the
/// order of packing. What has a description of its own stays in short: the total panel, and what is in a grid.
inline std::vector<std::string> describe(GtkWidget* widget, const std::string& indent = "")
{
    std::vector<std::string> lines = {indent + describe_widget(widget)};
    if (!GTK_IS_BOX(widget)) {
        return lines;
    }
    for (GtkWidget* child : children_of(widget)) {
        const std::string lead = indent + "- ";
        if (has_class(child, "total-card")) {
            lines.push_back(lead + packing_of(child) + ": " + describe_widget(child));
            continue;
        }
        std::vector<std::string> below = describe(child, lead);
        below.front() = lead + packing_of(child) + ": " + below.front().substr(lead.size());
        std::move(below.begin(), below.end(), std::back_inserter(lines));
    }
    return lines;
}

/// Whether that handler of a signal is connected, with that data.
inline bool is_connected(GtkWidget* widget, const char* signal, GCallback handler, gconstpointer data)
{
    const auto mask = static_cast<GSignalMatchType>(G_SIGNAL_MATCH_ID | G_SIGNAL_MATCH_FUNC | G_SIGNAL_MATCH_DATA);
    return g_signal_handler_find(widget, mask, g_signal_lookup(signal, G_OBJECT_TYPE(widget)), 0, nullptr,
                                 reinterpret_cast<gpointer>(handler), const_cast<gpointer>(data)) != 0;
}

inline unsigned references_of(gpointer object)
{
    return G_OBJECT(object)->ref_count;
}
