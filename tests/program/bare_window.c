/* A window of GTK alone, beside which the program's is looked at: what it does as well is the doing of GTK or of the desktop.
 *
 * It stays above others, is of type "utility", shows another text each second, and comes back to where it was: the file that is its
 * argument holds "X Y WIDTH HEIGHT". At SIGUSR1 it moves to where it believes to be. */
#include <glib-unix.h>
#include <gtk/gtk.h>
#include <stdio.h>

typedef struct {
    int x, y, width, height;
} Place;

static const char* file;

static Place place_of(GtkWindow* window)
{
    Place place;
    gtk_window_get_position(window, &place.x, &place.y);
    gtk_window_get_size(window, &place.width, &place.height);
    return place;
}

static gboolean on_delete(GtkWidget* window, GdkEvent* event, gpointer data)
{
    (void)event, (void)data;
    const Place place = place_of(GTK_WINDOW(window));
    FILE* out = fopen(file, "w");
    if (out == NULL || fprintf(out, "%d %d %d %d\n", place.x, place.y, place.width, place.height) < 0 || fclose(out) != 0)
        g_error("%s can't be written", file);
    return GDK_EVENT_PROPAGATE;
}

static gboolean on_tick(gpointer label)
{
    static int ticks;
    char text[32];
    g_snprintf(text, sizeof text, "Tick %d", ticks++);
    gtk_label_set_text(GTK_LABEL(label), text);
    return G_SOURCE_CONTINUE;
}

static gboolean on_signal(gpointer window)
{
    const Place place = place_of(GTK_WINDOW(window));
    gtk_window_move(GTK_WINDOW(window), place.x, place.y);
    return G_SOURCE_CONTINUE;
}

static void come_back(GtkWindow* window)
{
    Place place;
    FILE* in = fopen(file, "r");
    if (in == NULL)
        return;
    if (fscanf(in, "%d %d %d %d", &place.x, &place.y, &place.width, &place.height) == 4) {
        gtk_window_set_default_size(window, place.width, place.height);
        gtk_window_move(window, place.x, place.y);
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
    come_back(GTK_WINDOW(window));
    GtkWidget* label = gtk_label_new("");
    gtk_container_add(GTK_CONTAINER(window), label);
    g_signal_connect(window, "delete-event", G_CALLBACK(on_delete), NULL);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);
    gtk_widget_show_all(window);
    g_timeout_add(1000, on_tick, label);
    g_unix_signal_add(SIGUSR1, on_signal, window);
    gtk_main();
    return 0;
}
