/* A window of GTK alone, beside which the program's is looked at: what it does as well is GTK's doing or the desktop's.
 *
 * It stays above others, is of type "utility", paints something new each second, and comes back to where it was: the file that is its
 * argument holds place and size, "X Y WIDTH HEIGHT". */
#include <gtk/gtk.h>
#include <stdio.h>

static const char* file;

static gboolean on_delete(GtkWidget* window, GdkEvent* event, gpointer data)
{
    (void)event, (void)data;
    int x, y, width, height;
    gtk_window_get_position(GTK_WINDOW(window), &x, &y);
    gtk_window_get_size(GTK_WINDOW(window), &width, &height);
    FILE* out = fopen(file, "w");
    if (out == NULL || fprintf(out, "%d %d %d %d\n", x, y, width, height) < 0 || fclose(out) != 0)
        g_error("%s can't be written", file);
    return GDK_EVENT_PROPAGATE;
}

static gboolean on_tick(gpointer data)
{
    static int ticks;
    char text[32];
    g_snprintf(text, sizeof text, "Tick %d", ticks++);
    gtk_label_set_text(GTK_LABEL(data), text);
    return G_SOURCE_CONTINUE;
}

static void place(GtkWindow* window)
{
    int x, y, width, height;
    FILE* in = fopen(file, "r");
    if (in == NULL)
        return;
    if (fscanf(in, "%d %d %d %d", &x, &y, &width, &height) == 4) {
        gtk_window_set_default_size(window, width, height);
        gtk_window_move(window, x, y);
    }
    fclose(in);
}

int main(int argc, char** argv)
{
    gtk_init(&argc, &argv);
    file = argv[1];
    GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(window), "Bare");
    gtk_window_set_keep_above(GTK_WINDOW(window), TRUE);
    gtk_window_set_type_hint(GTK_WINDOW(window), GDK_WINDOW_TYPE_HINT_UTILITY);
    gtk_window_set_default_size(GTK_WINDOW(window), 400, 500);
    place(GTK_WINDOW(window));
    GtkWidget* label = gtk_label_new("");
    gtk_container_add(GTK_CONTAINER(window), label);
    g_signal_connect(window, "delete-event", G_CALLBACK(on_delete), NULL);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);
    gtk_widget_show_all(window);
    g_timeout_add(1000, on_tick, label);
    gtk_main();
    return 0;
}
