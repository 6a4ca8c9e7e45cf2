/// The icon of all windows of the program. Main thread only.
#pragma once

#include <gtk/gtk.h>

/// Gives it to all windows that are not on the screen yet. It is painted here, whatever the icon theme has: to read a theme takes a tenth
/// of the program's start, and desktops show the theme's by themselves, as the desktop entry names it.
void set_window_icon();
