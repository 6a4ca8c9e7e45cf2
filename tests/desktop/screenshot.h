/// What stands on the screen, and how far it is from what was to stand there.
#pragma once

#include <gtk/gtk.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "desktop/pictures.h"

/// The pixels of a widget as they stand in its window on the X server.
struct Screenshot {
    GdkPixbuf* const pixels;
    explicit Screenshot(GtkWidget* widget) : Screenshot(widget, place_in_window(widget)) {}
    ~Screenshot() { g_object_unref(pixels); }
    Screenshot(const Screenshot&) = delete;
    Screenshot& operator=(const Screenshot&) = delete;

    Pixel at(int x, int y) const
    {
        const guchar* const p =
            gdk_pixbuf_read_pixels(pixels) + y * gdk_pixbuf_get_rowstride(pixels) + x * gdk_pixbuf_get_n_channels(pixels);
        return {p[0], p[1], p[2]};
    }

private:
    Screenshot(GtkWidget* widget, const GtkAllocation& place)
        : pixels(gdk_pixbuf_get_from_window(gtk_widget_get_window(widget), place.x, place.y, place.width, place.height))
    {
    }

    /// A widget without a window of its own lies somewhere in its parent's.
    static GtkAllocation place_in_window(GtkWidget* widget)
    {
        GtkAllocation place;
        gtk_widget_get_allocation(widget, &place);
        if (gtk_widget_get_has_window(widget)) {
            place.x = place.y = 0;
        }
        return place;
    }
};

/// A picture of what is painted on a surface of the X server such as those of the widget's window, as GTK does it.
inline Picture painted_by_server(GtkWidget* widget, int width, int height, int zoom, const std::function<void(cairo_t*)>& paint)
{
    cairo_surface_t* const surface = gdk_window_create_similar_surface(gtk_widget_get_window(widget), CAIRO_CONTENT_COLOR, width, height);
    cairo_t* const cr = cairo_create(surface);
    paint(cr);
    cairo_destroy(cr);
    Picture picture(width, height, zoom);
    cairo_set_source_surface(picture.cr(), surface, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(picture.cr()), CAIRO_FILTER_NEAREST);
    cairo_paint(picture.cr());
    cairo_surface_destroy(surface);
    return picture;
}

/// Lets texts on that canvas look as on the widget's screen.
inline void take_font_options(GtkWidget* widget, cairo_t* cr)
{
    cairo_surface_t* const surface = gdk_window_create_similar_surface(gtk_widget_get_window(widget), CAIRO_CONTENT_COLOR, 1, 1);
    cairo_font_options_t* const options = cairo_font_options_create();
    cairo_surface_get_font_options(surface, options);
    cairo_set_font_options(cr, options);
    cairo_font_options_destroy(options);
    cairo_surface_destroy(surface);
}

/// How far a picture on the screen is from the one wanted: the largest difference of a channel, and the mean of all.
struct Distance {
    int largest = 0;
    double mean = 0.0;

    template <typename Shown>
    Distance(const Shown& screen, const Picture& wanted)
    {
        for (int y = 0; y < wanted.height(); ++y) {
            for (int x = 0; x < wanted.width(); ++x) {
                const Pixel a = screen.at(x, y);
                const Pixel b = wanted.at(x, y);
                for (const int channel : {std::abs(a.r - b.r), std::abs(a.g - b.g), std::abs(a.b - b.b)}) {
                    largest = std::max(largest, channel);
                    mean += channel / (3.0 * wanted.width() * wanted.height());
                }
            }
        }
    }
};
