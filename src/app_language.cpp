/// The running interface in another language: what lives long is relabelled, the settings dialog's content is built afresh.
#include <algorithm>

#include "app.h"
#include "i18n.h"

void App::apply_text_direction()
{
    gtk_widget_set_default_direction(I18n::instance().is_rtl() ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR);
}

/// The gear's tooltip keeps its language until the next rebuild of the layout.
void App::retranslate()
{
    apply_text_direction();
    apply_theme();  // the stylesheet's font depends on the language
    for (GtkWidget* window : {m_window, m_settings_popover}) {
        if (window != nullptr) {
            gtk_widget_set_direction(window, gtk_widget_get_default_direction());
        }
    }
    relabel_sections();
    tell_new_names();
    if (m_window != nullptr) {
        fit_core_labels(gtk_widget_get_allocated_width(m_window));
    }
    update();
    if (m_settings_popover != nullptr) {
        rebuild_settings_content();
    }
}

void App::relabel_sections()
{
    const std::size_t count = std::min(m_clusters_ui.size(), m_clusters.size());
    for (std::size_t i = 0; i < count; ++i) {
        ClusterUI& ui = m_clusters_ui[i];
        if (ui.name_label != nullptr) {
            gtk_label_set_text(GTK_LABEL(ui.name_label), section_title(m_clusters[i]).c_str());
        }
        for (CoreWidgets& widgets : ui.cores) {
            relabel_card(widgets);
        }
    }
}

/// With the long title; which ones have to be short is decided for the new language afterwards.
void App::relabel_card(CoreWidgets& widgets)
{
    if (widgets.name_label != nullptr) {
        gtk_label_set_text(GTK_LABEL(widgets.name_label), card_title(widgets.cpu_index).c_str());
        widgets.short_label = false;
    }
}
