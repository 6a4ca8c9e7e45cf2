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
