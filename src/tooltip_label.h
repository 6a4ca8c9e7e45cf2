/// A GtkLabel whose tooltip may change with each tick. With each new tooltip GTK asks the X server where the pointer is, and keeps all
/// other programs off the server meanwhile; a TooltipLabel has that asked only if its tooltip has been seen since the last time. Main
/// thread only.
#pragma once

#include <gtk/gtk.h>

/// An empty label. Its tooltip is set and read like that of any widget.
GtkWidget* tooltip_label_new();
