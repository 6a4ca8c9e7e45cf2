/// A GtkLabel for a text that changes with each tick and keeps its size, such as a percentage. GTK sets, measures and shapes every new text
/// from scratch; a TickLabel keeps what comes of it for all labels together, since one of them shows soon what another has shown.
/// What it asks for and paints is what a plain GtkLabel would. Main thread only.
#pragma once

#include <gtk/gtk.h>

/// A label of one line, neither wrapped nor ellipsized, with this markup.
GtkWidget* tick_label_new(const char* markup);
