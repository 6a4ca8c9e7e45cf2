/* A window whose colours, size and events are known, for test_displays.py to look at.
 *
 * Four coloured quarters, kept above others, of type "utility". Each thing that happens is told in
 * one line on the standard output.
 */
#include <gtk/gtk.h>

static gboolean draw_quarters(GtkWidget* area, cairo_t* cr, gpointer data)
{
    (void)data;
    const double colors[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 0}};
    const int w = gtk_widget_get_allocated_width(area) / 2;
    const int h = gtk_widget_get_allocated_height(area) / 2;
    for (int i = 0; i < 4; ++i) {
        cairo_set_source_rgb(cr, colors[i][0], colors[i][1], colors[i][2]);
        cairo_rectangle(cr, i % 2 * w, i / 2 * h, w, h);
        cairo_fill(cr);
    }
    return GDK_EVENT_STOP;
}

static gboolean on_configure(GtkWidget* window, GdkEvent* event, gpointer data)
{
    (void)event, (void)data;
    int x, y, w, h;
    gtk_window_get_position(GTK_WINDOW(window), &x, &y);
    gtk_window_get_size(GTK_WINDOW(window), &w, &h);
    g_print("configure %d,%d %dx%d\n", x, y, w, h);
    return GDK_EVENT_PROPAGATE;
}

static gboolean on_press(GtkWidget* area, GdkEventButton* event, gpointer data)
{
    (void)area, (void)data;
    g_print("press %u at %.0f,%.0f\n", event->button, event->x, event->y);
    return GDK_EVENT_STOP;
}

static gboolean on_delete(GtkWidget* window, GdkEvent* event, gpointer data)
{
    (void)window, (void)event, (void)data;
    g_print("delete\n");
    return GDK_EVENT_PROPAGATE;
}

static void tell_settings(void)
{
    char *theme, *font;
    gboolean animations;
    g_object_get(gtk_settings_get_default(), "gtk-theme-name", &theme, "gtk-font-name", &font,
                 "gtk-enable-animations", &animations, NULL);
    g_print("settings %s, %s, animations %d\n", theme, font, animations);
    g_print("monitors %d\n", gdk_display_get_n_monitors(gdk_display_get_default()));
    g_free(theme);
    g_free(font);
}

int main(int argc, char** argv)
{
    gtk_init(&argc, &argv);
    tell_settings();

    GtkWidget* area = gtk_drawing_area_new();
    gtk_widget_add_events(area, GDK_BUTTON_PRESS_MASK);
    g_signal_connect(area, "draw", G_CALLBACK(draw_quarters), NULL);
    g_signal_connect(area, "button-press-event", G_CALLBACK(on_press), NULL);

    GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(window), argc > 1 ? argv[1] : "Probe");
    gtk_window_set_keep_above(GTK_WINDOW(window), TRUE);
    gtk_window_set_type_hint(GTK_WINDOW(window), GDK_WINDOW_TYPE_HINT_UTILITY);
    gtk_window_set_default_size(GTK_WINDOW(window), 300, 200);
    GdkGeometry hints = {.min_width = 150, .min_height = 150};
    gtk_window_set_geometry_hints(GTK_WINDOW(window), NULL, &hints, GDK_HINT_MIN_SIZE);
    g_signal_connect(window, "configure-event", G_CALLBACK(on_configure), NULL);
    g_signal_connect(window, "delete-event", G_CALLBACK(on_delete), NULL);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);
    gtk_container_add(GTK_CONTAINER(window), area);
    gtk_widget_show_all(window);
    gtk_main();
    return 0;
}
