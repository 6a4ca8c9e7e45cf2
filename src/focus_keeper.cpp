/// Places are counted in the order in which containers hold their children.
#include "focus_keeper.h"

#include <algorithm>
#include <vector>

namespace {

/// A widget and all that is in it.
void collect_widgets(GtkWidget* widget, gpointer list)
{
    static_cast<std::vector<GtkWidget*>*>(list)->push_back(widget);
    if (GTK_IS_CONTAINER(widget)) {
        gtk_container_forall(GTK_CONTAINER(widget), collect_widgets, list);
    }
}

std::vector<GtkWidget*> all_widgets(GtkWidget* root)
{
    std::vector<GtkWidget*> widgets;
    collect_widgets(root, &widgets);
    return widgets;
}

}  // namespace

FocusKeeper::FocusKeeper(GtkWidget* box) : m_box(box)
{
    GtkWidget* const window = gtk_widget_get_toplevel(box);
    GtkWidget* const focus = GTK_IS_WINDOW(window) ? gtk_window_get_focus(GTK_WINDOW(window)) : nullptr;
    const std::vector<GtkWidget*> widgets = all_widgets(box);
    m_place = static_cast<std::size_t>(std::find(widgets.begin(), widgets.end(), focus) - widgets.begin());
    m_had_focus = m_place < widgets.size();
}

void FocusKeeper::restore() const
{
    const std::vector<GtkWidget*> widgets = all_widgets(m_box);
    if (m_had_focus && m_place < widgets.size() && gtk_widget_get_can_focus(widgets[m_place])) {
        gtk_widget_grab_focus(widgets[m_place]);
    }
}
