/// The rows of a dialog and the controls that stand in them. Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <string>
#include <vector>

#include "widget_building.h"

inline constexpr int DIALOG_SPACING = 6;  ///< pixels between rows, and between what stands in one

/// A label at the start and a control at the end, which a screen reader calls by that label.
GtkWidget* create_row(GtkWidget* label, GtkWidget* control);

struct Choice {
    std::string id;    ///< as it stands in the settings
    std::string text;  ///< as it is shown
};

/// A combo box with its label. `wrap_width` is the number of columns in which it lists its choices, 0 for a plain list. The active choice
/// is set before the signal is connected, so that building raises no change.
GtkWidget* create_combo_row(const char* label, const std::vector<Choice>& choices, const std::string& active, const Handlers& handlers,
                            GCallback on_changed, int wrap_width = 0);

/// The chosen id, if it is another than the setting; null if there is nothing to change.
const char* new_choice(GtkComboBox* combo, const std::string& setting);

GtkWidget* create_button(const char* label, const Handlers& handlers, GCallback on_clicked);

/// A button that shows a colour and lets another be chosen, without transparency. A colour that does not parse shows as black.
GtkWidget* create_color_button(const char* hex);

void add_separator(GtkWidget* box);
