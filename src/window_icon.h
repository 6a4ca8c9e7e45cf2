/// The icon of all windows of the program. Main thread only.
#pragma once

#include <gtk/gtk.h>

/// Gives it to all windows once the main loop has nothing else to do: reading the icon theme takes longer than showing the window. It is
/// the icon theme's, or, where the theme has none but what an installation brings along, the same picture painted here.
void queue_window_icon();
