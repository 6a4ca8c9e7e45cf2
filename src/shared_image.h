/// A picture of a window in memory that the X server reads as well: what is painted there gets onto the screen without being sent. Main
/// thread only. Source: the MIT-SHM extension of X11.
#pragma once

#include <gdk/gdk.h>

#include <memory>

#include "damage.h"

class SharedImage {
public:
    /// As large as the window at present, and black. Null where there is no such memory: on Wayland, on another computer's display, in a
    /// sandbox that keeps memory apart, and where pixels are not those of cairo.
    static std::unique_ptr<SharedImage> of(GdkWindow* window);
    ~SharedImage();
    SharedImage(const SharedImage&) = delete;
    SharedImage& operator=(const SharedImage&) = delete;

    /// Whether the window still has that size and scale.
    bool fits(GdkWindow* window) const;
    /// What of the window has to be painted since the call before, as far as it can get onto the screen; at first all of that. The window's
    /// expose events tell of too much.
    Damage take_damage();
    /// A context to paint on it in units of the window, with the screen's font options; to be destroyed. What was painted before stands
    /// there still. Waits until the server has read what was put up just before.
    cairo_t* begin();
    /// Puts that part, in units of the window, onto the window.
    void put_up(const GdkRectangle& part);

private:
    struct Memory;  ///< of the X server's part, whose headers have names like None
    explicit SharedImage(std::unique_ptr<Memory> memory);

    std::unique_ptr<Memory> m_memory;
};
