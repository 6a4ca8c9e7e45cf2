/// Whatever moves a window, the server tells of each part that comes onto the screen by an expose event. The position that GDK knows comes
/// later, and not at all from someone who moves a window around this one.
#include "screen_reach.h"

#ifdef GDK_WINDOWING_X11
#include <X11/Xlib.h>
#endif

ScreenReach::ScreenReach(GdkWindow* window) : m_window(GDK_WINDOW(g_object_ref(window)))
{
    gdk_window_add_filter(m_window, on_event, this);
}

ScreenReach::~ScreenReach()
{
    gdk_window_remove_filter(m_window, on_event, this);
    g_object_unref(m_window);
}

GdkFilterReturn ScreenReach::on_event([[maybe_unused]] GdkXEvent* x_event, GdkEvent*, [[maybe_unused]] gpointer data)
{
#ifdef GDK_WINDOWING_X11
    if (static_cast<const XEvent*>(x_event)->type == Expose) {
        static_cast<ScreenReach*>(data)->m_origin.reset();
    }
#endif
    return GDK_FILTER_CONTINUE;
}

GdkRectangle ScreenReach::part()
{
    GdkScreen* const screen = gdk_window_get_screen(m_window);
    GdkWindow* const root = gdk_screen_get_root_window(screen);
    const GdkRectangle all{0, 0, gdk_window_get_width(m_window), gdk_window_get_height(m_window)};
    const int width = gdk_window_get_width(root);
    const int height = gdk_window_get_height(root);
    if ((all.width <= width && all.height <= height) || gdk_screen_is_composited(screen)) {
        return all;
    }
    constexpr int ROUNDING = 1;  // of pixels to units
    const auto [x, y] = origin();
    const GdkRectangle shown{-x - ROUNDING, -y - ROUNDING, width + 2 * ROUNDING, height + 2 * ROUNDING};
    GdkRectangle part{};
    gdk_rectangle_intersect(&all, &shown, &part);
    return part;
}

GdkPoint ScreenReach::origin()
{
    if (!m_origin) {
        m_origin.emplace();
        gdk_window_get_origin(m_window, &m_origin->x, &m_origin->y);
    }
    return *m_origin;
}
