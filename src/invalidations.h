/// What of a window has become invalid since it was last painted. Main thread only.
#pragma once

#include <gdk/gdk.h>

#include <vector>

#include "damage.h"

/// Keeps the invalid rectangles of a window while it lives, and tells GDK that all is invalid as soon as something is. GDK itself adds each
/// rectangle to one region and goes through the whole of that each time: for the charts and labels of hundreds of cards that takes longer
/// than to paint them. To be had once for a window, and for one alone that is painted by what this tells, not by what an expose event does.
/// On X11 it hears of what the server has lost from the server itself: GDK drops that where it believes that it has just been painted.
class Invalidations {
public:
    explicit Invalidations(GdkWindow* window);
    ~Invalidations();
    Invalidations(const Invalidations&) = delete;
    Invalidations& operator=(const Invalidations&) = delete;

    /// What has become invalid in a part of the window since the call before; at first all of it. What lies outside of the part is
    /// forgotten too.
    Damage take(const GdkRectangle& part);

private:
    static void note(GdkWindow* window, cairo_region_t* region);
    static GdkFilterReturn on_event(GdkXEvent* x_event, GdkEvent* event, gpointer data);
    void add(const cairo_region_t* region);
    void merge();

    GdkWindow* m_window;                ///< a reference
    std::vector<GdkRectangle> m_parts;  ///< many of them several times
    std::size_t m_room = 64;            ///< for parts, until they are merged
};
