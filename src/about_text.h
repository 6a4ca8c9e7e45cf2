/// The foot of the settings dialog: who made the program, which version it is, and the disclaimer. Main thread only.
#pragma once

#include <gtk/gtk.h>

/// Adds name, version, maker and links, a line each.
void add_about(GtkWidget* box);

/// In the current language.
GtkWidget* create_disclaimer();
