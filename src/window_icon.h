/// The icon of all windows of the program. Main thread only.
#pragma once

#include <gtk/gtk.h>

/// Gives it to all windows a second from now: to read the icon theme takes a tenth of the processor time of a start. It is the icon theme's,
/// or, where the theme has none but what an installation brings along, the same picture painted here.
void queue_window_icon();
