/* A GTK window with a button, which opens another one with texts in fonts that were not shown before, and SIGTERM as the end: what fails
 * here fails in every GTK program. */
#include <glib-unix.h>
#include <gtk/gtk.h>

static gboolean quit(gpointer data)
{
    (void)data;
    gtk_main_quit();
    return G_SOURCE_CONTINUE;
}

static void open_dialog(void)
{
    GtkWidget *dialog = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    GtkWidget *label = gtk_label_new(NULL);
    gtk_window_set_title(GTK_WINDOW(dialog), "Settings");
    gtk_label_set_markup(GTK_LABEL(label), "<b>Bold</b> <i>italic</i> <tt>mono</tt> <big>中文 العربية ภาษาไทย</big>");
    gtk_container_add(GTK_CONTAINER(dialog), label);
    gtk_widget_show_all(dialog);
}

int main(int argc, char **argv)
{
    gtk_init(&argc, &argv);
    GtkWidget *window = gtk_window_new(GTK_WINDOW_TOPLEVEL), *button = gtk_button_new_with_label("Bare");
    gtk_window_set_title(GTK_WINDOW(window), "Vantric");
    gtk_window_set_default_size(GTK_WINDOW(window), 300, 200);
    g_signal_connect(button, "clicked", G_CALLBACK(open_dialog), NULL);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);
    g_unix_signal_add(SIGTERM, quit, NULL);
    gtk_container_add(GTK_CONTAINER(window), button);
    gtk_widget_show_all(window);
    gtk_main();
    return 0;
}
