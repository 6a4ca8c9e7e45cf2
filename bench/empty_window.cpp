/// empty_window WIDTH HEIGHT: what GTK itself takes for a window of that size in which nothing ever happens.
#include <gtk/gtk.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    gtk_init(&argc, &argv);
    if (argc != 3) {
        g_printerr("usage: empty_window WIDTH HEIGHT\n");
        return EXIT_FAILURE;
    }
    GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_default_size(GTK_WINDOW(window), std::atoi(argv[1]), std::atoi(argv[2]));
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
    gtk_widget_show_all(window);
    gtk_main();
    return EXIT_SUCCESS;
}
