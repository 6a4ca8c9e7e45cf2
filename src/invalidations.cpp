/// A window's invalidate handler is told of each rectangle, in the window or not, before GDK takes it over, and may change it.
#include "invalidations.h"

#include <algorithm>

#ifdef GDK_WINDOWING_X11
#include <X11/Xlib.h>
#endif

namespace {

GdkRectangle all_of(GdkWindow* window)
{
    return {0, 0, gdk_window_get_width(window), gdk_window_get_height(window)};
}

#ifdef GDK_WINDOWING_X11
/// The exposed part, in pixels, with all units of which it has a part.
GdkRectangle in_units_of(GdkWindow* window, const XExposeEvent& exposed)
{
    const int scale = gdk_window_get_scale_factor(window);
    const int x = exposed.x / scale;
    const int y = exposed.y / scale;
    return {x, y, (exposed.x + exposed.width + scale - 1) / scale - x, (exposed.y + exposed.height + scale - 1) / scale - y};
}
#endif

constexpr const char* OWNER = "vantric-invalidations";
constexpr std::size_t MOST_PARTS = 4096;  // that differ: several for each card

}  // namespace

Invalidations::Invalidations(GdkWindow* window) : m_window(GDK_WINDOW(g_object_ref(window))), m_parts{all_of(window)}
{
    g_object_set_data(G_OBJECT(m_window), OWNER, this);
    gdk_window_set_invalidate_handler(m_window, note);
    gdk_window_add_filter(m_window, on_event, m_window);
}

Invalidations::~Invalidations()
{
    gdk_window_remove_filter(m_window, on_event, m_window);
    gdk_window_set_invalidate_handler(m_window, nullptr);
    g_object_set_data(G_OBJECT(m_window), OWNER, nullptr);
    g_object_unref(m_window);
}

/// Clips at the end, as the window may have been larger meanwhile, and at the time of each part it may have been smaller.
Damage Invalidations::take(const GdkRectangle& part)
{
    GdkRectangle place = all_of(m_window);
    gdk_rectangle_intersect(&part, &place, &place);
    for (GdkRectangle& invalid : m_parts) {
        gdk_rectangle_intersect(&invalid, &place, &invalid);  // which empties one that lies beside it
    }
    Damage damage = Damage::of(m_parts);
    m_parts.clear();
    return damage;
}

void Invalidations::note(GdkWindow* window, cairo_region_t* region)
{
    static_cast<Invalidations*>(g_object_get_data(G_OBJECT(window), OWNER))->add(region);
    const GdkRectangle all = all_of(window);
    cairo_region_union_rectangle(region, &all);
}

/// An expose event that was on its way while GDK had the window painted is news of before to GDK, which asked for all of the window then
/// and does not know that less was painted.
GdkFilterReturn Invalidations::on_event([[maybe_unused]] GdkXEvent* x_event, GdkEvent*, [[maybe_unused]] gpointer data)
{
#ifdef GDK_WINDOWING_X11
    const auto& event = *static_cast<const XEvent*>(x_event);
    if (event.type == Expose) {
        auto* const window = static_cast<GdkWindow*>(data);
        const GdkRectangle lost = in_units_of(window, event.xexpose);
        gdk_window_invalidate_rect(window, &lost, FALSE);
    }
#endif
    return GDK_FILTER_CONTINUE;
}

void Invalidations::add(const cairo_region_t* region)
{
    for (int i = 0; i < cairo_region_num_rectangles(region); ++i) {
        GdkRectangle part;
        cairo_region_get_rectangle(region, i, &part);
        m_parts.push_back(part);
    }
    if (m_parts.size() > m_room) {
        merge();
    }
}

/// A window that nobody paints would gather the same parts for ever.
void Invalidations::merge()
{
    const Damage damage = Damage::of(m_parts);
    m_parts.assign(damage.parts().begin(), damage.parts().end());
    if (m_parts.size() > MOST_PARTS) {
        m_parts.assign({damage.bounds()});
    }
    m_room = std::max(m_room, 2 * m_parts.size());
}
