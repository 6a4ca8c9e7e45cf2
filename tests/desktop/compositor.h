/// A screen that looks like one with a compositor.
#pragma once

#include <gtk/gtk.h>

#include "live_app.h"

/// For as long as it lives; by the selection that a compositor owns.
class Compositor {
public:
    Compositor()
    {
        gtk_widget_realize(m_owner);
        own(gtk_widget_get_window(m_owner));
    }
    ~Compositor()
    {
        own(nullptr);
        gtk_widget_destroy(m_owner);
    }
    Compositor(const Compositor&) = delete;
    Compositor& operator=(const Compositor&) = delete;

private:
    static void own(GdkWindow* owner)
    {
        GdkDisplay* const display = gdk_display_get_default();
        gdk_selection_owner_set_for_display(display, owner, gdk_atom_intern("_NET_WM_CM_S0", FALSE), GDK_CURRENT_TIME, FALSE);
        EXPECT_TRUE(iterate_until([&] { return gdk_screen_is_composited(gdk_screen_get_default()) == (owner != nullptr); }));
    }

    GtkWidget* const m_owner = gtk_window_new(GTK_WINDOW_POPUP);
};
