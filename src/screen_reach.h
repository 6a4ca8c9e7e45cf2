/// What of a window can get onto the screen of an X server, which is the source. Main thread only.
#pragma once

#include <gdk/gdk.h>

#include <optional>

/// The X server forgets what lies beside the screen and asks for it when it comes there, unless a compositor has it keep the whole, for the
/// small picture of an overview perhaps. So a window of hundreds of cards, several screens high, need not be painted as far down as it
/// goes.
class ScreenReach {
public:
    explicit ScreenReach(GdkWindow* window);
    ~ScreenReach();
    ScreenReach(const ScreenReach&) = delete;
    ScreenReach& operator=(const ScreenReach&) = delete;

    /// A part of the window, in its units: all of one that is no larger than the screen. Of another it asks the server after each expose
    /// event where it is.
    GdkRectangle part();

private:
    static GdkFilterReturn on_event(GdkXEvent* x_event, GdkEvent* event, gpointer data);
    GdkPoint origin();

    GdkWindow* m_window;               ///< a reference
    std::optional<GdkPoint> m_origin;  ///< on the screen; none: not asked since the last expose event
};
