/// Each work-around stands by itself; its reason stands with its declaration, or beside the line.
#include "gtk_workarounds.h"

#include "signal_gate.h"

namespace {

gboolean on_activate_link(GtkLinkButton* link, gpointer)
{
    const SignalGate::ForNewPrograms gate;
    // Without a parent window: with one GTK would start the program later, from a thread of its own
    gtk_show_uri_on_window(nullptr, gtk_link_button_get_uri(link), gtk_get_current_event_time(), nullptr);
    return GDK_EVENT_STOP;
}

/// Hides a window that is about to be destroyed, and gives no widget of it the focus any more.
void close_for_ever(GtkWindow* window)
{
    gtk_widget_hide(GTK_WIDGET(window));
    gtk_window_set_focus(window, nullptr);
    const auto refuse = +[](GtkWindow* refusing, GtkWidget*, gpointer) { g_signal_stop_emission_by_name(refusing, "set-focus"); };
    g_signal_connect(window, "set-focus", G_CALLBACK(refuse), nullptr);
}

/// As GTK does with the right arrow key in an interface written from left to right.
gboolean on_expander_focus(GtkWidget* expander, GtkDirectionType direction, gpointer)
{
    if (direction != GTK_DIR_LEFT || gtk_widget_get_direction(expander) != GTK_TEXT_DIR_RTL) {
        return FALSE;
    }
    g_signal_stop_emission_by_name(expander, "focus");
    GtkWidget* const present = gtk_container_get_focus_child(GTK_CONTAINER(expander));
    if (present != nullptr) {
        return gtk_widget_child_focus(present, direction);
    }
    if (gtk_widget_is_focus(expander)) {
        GtkWidget* const content = gtk_bin_get_child(GTK_BIN(expander));
        return gtk_widget_get_child_visible(content) && gtk_widget_child_focus(content, direction);
    }
    gtk_widget_grab_focus(expander);
    return TRUE;
}

gboolean cancel_unopened(gpointer menu)
{
    if (gtk_widget_has_grab(GTK_WIDGET(menu)) && !gtk_widget_get_mapped(GTK_WIDGET(menu))) {
        gtk_menu_shell_cancel(GTK_MENU_SHELL(menu));
    }
    return G_SOURCE_REMOVE;
}

/// Comes while GTK gives the menu the grab; it can be cancelled only afterwards, and before the next event.
void on_grab_notify(GtkWidget*, gboolean was_grabbed, gpointer)
{
    GtkWidget* const grab = gtk_grab_get_current();
    if (was_grabbed == FALSE && grab != nullptr && GTK_IS_MENU_SHELL(grab) && !gtk_widget_get_mapped(grab)) {
        g_idle_add_full(G_PRIORITY_HIGH, cancel_unopened, g_object_ref(grab), g_object_unref);
    }
}

/// Gives the menu its window just before GTK opens it: one for each menu of a dialog that is built anew with each change would be too many.
gboolean on_combo_event(GtkWidget*, const GdkEvent* event, gpointer combo)
{
    if (event->type == GDK_BUTTON_PRESS) {
        for (GList* menu = gtk_menu_get_for_attach_widget(GTK_WIDGET(combo)); menu != nullptr; menu = menu->next) {
            gtk_widget_realize(gtk_widget_get_toplevel(GTK_WIDGET(menu->data)));
        }
    }
    return GDK_EVENT_PROPAGATE;
}

/// Looks for the button of a combo box in one of its parts.
void watch_button_of(GtkWidget* part, gpointer combo)
{
    if (GTK_IS_TOGGLE_BUTTON(part)) {
        g_signal_connect(part, "event", G_CALLBACK(on_combo_event), combo);
    } else if (GTK_IS_CONTAINER(part)) {
        gtk_container_forall(GTK_CONTAINER(part), watch_button_of, combo);
    }
}

}  // namespace

void mirror_expander(GtkWidget* expander)
{
    gtk_widget_set_direction(expander, GTK_TEXT_DIR_LTR);
    gtk_widget_set_direction(expander, GTK_TEXT_DIR_NONE);
}

void close_to_keyboard(GtkWidget* expander)
{
    const auto follow = +[](GtkExpander* changed, GParamSpec*, gpointer) {
        gtk_widget_set_child_visible(gtk_bin_get_child(GTK_BIN(changed)), gtk_expander_get_expanded(changed));
    };
    const auto admit = +[](GtkExpander* changed, gpointer) { gtk_widget_set_child_visible(gtk_bin_get_child(GTK_BIN(changed)), TRUE); };
    follow(GTK_EXPANDER(expander), nullptr, nullptr);
    g_signal_connect(expander, "notify::expanded", G_CALLBACK(follow), nullptr);
    g_signal_connect(expander, "activate", G_CALLBACK(admit), nullptr);  // GTK maps what is in it before it tells that it is open
}

void pass_left_key(GtkWidget* expander)
{
    g_signal_connect(expander, "focus", G_CALLBACK(on_expander_focus), nullptr);
}

void move_window(GtkWindow* window, int x, int y)
{
    gtk_window_move(window, x, y);
    GdkWindow* const gdk_window = gtk_widget_get_window(GTK_WIDGET(window));
    if (gdk_window != nullptr && !gtk_widget_get_mapped(GTK_WIDGET(window))) {
        gdk_window_move(gdk_window, x, y);
    }
}

GtkWidget* create_link_button(const char* uri, const char* label)
{
    GtkWidget* const link = gtk_link_button_new_with_label(uri, label);
    g_signal_connect(link, "activate-link", G_CALLBACK(on_activate_link), nullptr);
    return link;
}

void close_color_choosers()
{
    GList* const windows = gtk_window_list_toplevels();
    for (GList* item = windows; item != nullptr; item = item->next) {
        if (GTK_IS_COLOR_CHOOSER_DIALOG(item->data)) {
            close_for_ever(GTK_WINDOW(item->data));
        }
    }
    g_list_free(windows);
}

void let_menu_fail(GtkWidget* combo)
{
    g_signal_connect(combo, "grab-notify", G_CALLBACK(on_grab_notify), nullptr);
    watch_button_of(combo, combo);
}

void close_menu()
{
    GtkWidget* const grab = gtk_grab_get_current();
    if (grab != nullptr && GTK_IS_MENU_SHELL(grab)) {
        gtk_menu_shell_cancel(GTK_MENU_SHELL(grab));
    } else if (grab != nullptr && GTK_IS_POPOVER(grab)) {
        gtk_widget_hide(grab);
    }
}
