/// Helpers for putting widgets together. Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <string>

/// Whether a packed widget takes up, and fills, whatever room its box has left.
enum class Fill : bool { NO, YES };

void pack_start(GtkWidget* box, GtkWidget* child, Fill fill, guint padding = 0);
void pack_end(GtkWidget* box, GtkWidget* child, guint padding = 0);

/// Gives the widget a class of the stylesheet.
void add_class(GtkWidget* widget, const char* css_class);

/// `xalign` is 0.0 (at the start, which is the right-hand side in right-to-left languages) to 1.0.
GtkWidget* create_label(const std::string& text, double xalign, const char* css_class);

/// What a screen reader calls a widget that has no text of its own.
void set_accessible_name(GtkWidget* widget, const std::string& name);

/// The object data of that key, as a widget; null if there is none.
GtkWidget* widget_of(GtkWidget* owner, const char* key);
