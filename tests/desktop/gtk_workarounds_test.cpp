/// The work-arounds for GTK that can be seen without the settings dialog.
#include "gtk_workarounds.h"

#include "live_app.h"

TEST_F(DesktopTest, ClosedChoosersGiveNobodyTheFocus)
{
    gtk_init(nullptr, nullptr);
    GtkWidget* const chooser = gtk_color_chooser_dialog_new("Colour", nullptr);
    gtk_widget_show(chooser);
    ASSERT_TRUE(settle(chooser));
    GtkWidget* const button = gtk_dialog_get_widget_for_response(GTK_DIALOG(chooser), GTK_RESPONSE_OK);
    gtk_widget_grab_focus(button);
    ASSERT_EQ(gtk_window_get_focus(GTK_WINDOW(chooser)), button);
    close_color_choosers();
    EXPECT_FALSE(gtk_widget_get_visible(chooser));
    EXPECT_EQ(gtk_window_get_focus(GTK_WINDOW(chooser)), nullptr);
    gtk_widget_grab_focus(button);
    EXPECT_EQ(gtk_window_get_focus(GTK_WINDOW(chooser)), nullptr) << "it is about to go";
    gtk_widget_destroy(chooser);
}

namespace {

/// Another program that holds the pointer, for as long as this lives.
class PointerElsewhere {
public:
    PointerElsewhere()
    {
        GdkWindowAttr attributes{};
        attributes.window_type = GDK_WINDOW_TEMP;
        attributes.wclass = GDK_INPUT_OUTPUT;
        attributes.width = attributes.height = 1;
        m_window = gdk_window_new(gdk_screen_get_root_window(gdk_display_get_default_screen(m_display)), &attributes, 0);
        gdk_window_show(m_window);
        const auto grab = [&] {
            return gdk_seat_grab(gdk_display_get_default_seat(m_display), m_window, GDK_SEAT_CAPABILITY_ALL_POINTING, TRUE, nullptr,
                                 nullptr, nullptr, nullptr) == GDK_GRAB_SUCCESS;
        };
        EXPECT_TRUE(iterate_until(grab));
        gdk_display_sync(m_display);
    }
    ~PointerElsewhere()
    {
        gdk_seat_ungrab(gdk_display_get_default_seat(m_display));
        gdk_window_destroy(m_window);
        gdk_display_sync(m_display);
        gdk_display_close(m_display);
    }
    PointerElsewhere(const PointerElsewhere&) = delete;
    PointerElsewhere& operator=(const PointerElsewhere&) = delete;

private:
    GdkDisplay* const m_display = gdk_display_open(gdk_display_get_name(gdk_display_get_default()));
    GdkWindow* m_window = nullptr;
};

void find_button(GtkWidget* widget, gpointer found)
{
    if (GTK_IS_BUTTON(widget)) {
        *static_cast<GtkWidget**>(found) = widget;
    } else if (GTK_IS_CONTAINER(widget)) {
        gtk_container_forall(GTK_CONTAINER(widget), find_button, found);
    }
}

/// Presses the left button on a combo box, whoever holds the pointer by now.
void press_on(GtkWidget* combo)
{
    GtkWidget* button = nullptr;
    find_button(combo, &button);
    ASSERT_NE(button, nullptr);
    GdkEvent* const event = gdk_event_new(GDK_BUTTON_PRESS);
    event->button.window = GDK_WINDOW(g_object_ref(gtk_button_get_event_window(GTK_BUTTON(button))));
    event->button.button = GDK_BUTTON_PRIMARY;
    gdk_event_set_device(event, gdk_seat_get_pointer(gdk_display_get_default_seat(gdk_display_get_default())));
    gtk_main_do_event(event);
    gdk_event_free(event);
}

}  // namespace

TEST_F(DesktopTest, MenusThatCannotOpenTakeNothing)
{
    gtk_init(nullptr, nullptr);
    GtkWidget* const window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    GtkWidget* const combo = gtk_combo_box_text_new();
    gtk_combo_box_text_append_text(GTK_COMBO_BOX_TEXT(combo), "one");
    gtk_combo_box_text_append_text(GTK_COMBO_BOX_TEXT(combo), "two");
    gtk_combo_box_set_active(GTK_COMBO_BOX(combo), 1);
    gtk_container_add(GTK_CONTAINER(window), combo);
    let_menu_fail(combo);
    gtk_widget_show_all(window);
    ASSERT_TRUE(settle(window));
    {
        const PointerElsewhere pointer;
        press_on(combo);
        ASSERT_NE(gtk_grab_get_current(), nullptr) << "GTK has the fault no more";
        EXPECT_TRUE(iterate_until([] { return gtk_grab_get_current() == nullptr; }));
    }
    press_on(combo);
    EXPECT_NE(gtk_grab_get_current(), nullptr) << "opens afterwards";
    gtk_combo_box_popdown(GTK_COMBO_BOX(combo));
    EXPECT_EQ(gtk_grab_get_current(), nullptr);
    gtk_widget_destroy(window);
}
