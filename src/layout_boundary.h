/// A box that keeps changes of its labels to itself. GTK lays the whole window out anew for every label that gets another text, though most
/// texts, one percentage after another, need the room that the last one had. Main thread only.
#pragma once

#include <gtk/gtk.h>

/// From now on a change inside the box leads to a layout of that box alone, in the next frame, unless the size that the box asks for has
/// changed: then its parent is laid out anew, as ever. Either way everything ends up where GTK alone would have put it.
/// For boxes whose height does not depend on their width; not to be undone.
void make_layout_boundary(GtkWidget* box);
