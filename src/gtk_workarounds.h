/// What GTK 3 does otherwise than a dialog needs, put right. Main thread only.
#pragma once

#include <gtk/gtk.h>

/// Puts title and arrow of a new expander where the current language has them: it turns itself round only when its direction changes, not
/// when it is made in an interface written from right to left.
void mirror_expander(GtkWidget* expander);

/// Keeps the keyboard out of what a closed expander holds, which must be in it already: GTK lets it into one that was never opened.
void close_to_keyboard(GtkWidget* expander);

/// Lets the keyboard pass an expander by the left arrow key where the interface is written from right to left: GTK goes from the title to
/// what the expander holds and back for ever, until one of them takes the focus.
void pass_left_key(GtkWidget* expander);

/// Moves a window, also one that is hidden: GTK forgets the place of a window that has been shown and hidden.
void move_window(GtkWindow* window, int x, int y);

/// A button that opens the address as GTK's own would, with two differences: what is started can be ended by signals, and a desktop without
/// a program for the address gives no warning.
GtkWidget* create_link_button(const char* uri, const char* label);

/// Closes all choosers of colours, for good. To be called before the buttons go that have opened them, and the choosers with these: on its
/// way out a chooser with a menu, or one that was just closed, gives the focus to a widget that is already gone.
void close_color_choosers();

/// Lets the menu of a combo box fail to open, as it does while another program holds the pointer: GTK then gives all that is pressed to the
/// menu that nobody sees, for good, and warns of a window that this does not have.
void let_menu_fail(GtkWidget* combo);

/// Closes the menu that is open, if one is. To be called before the widgets go that have opened it: GTK leaves the pointer to the menu of a
/// link that is gone, and the focus to a colour of the chooser that went with its menu.
void close_menu();
