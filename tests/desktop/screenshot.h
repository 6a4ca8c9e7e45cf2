/// What stands on the screen, and how far it is from what was to stand there.
#pragma once

#include <gtk/gtk.h>

#include <algorithm>
#include <cstdlib>

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
