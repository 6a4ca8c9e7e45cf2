/// What of a window is to be painted anew.
#pragma once

#include <gdk/gdk.h>

#include <cstdint>
#include <optional>
#include <vector>

/// Rectangles that don't overlap, in units of the window.
class Damage {
public:
    using Area = std::int64_t;  ///< square units

    /// What the context's clip lets through; empty if that is not made of rectangles of whole units.
    static std::optional<Damage> of(cairo_t* cr);

    bool is_empty() const { return m_parts.empty(); }
    Area area() const;
    /// How much of it lies in a rectangle.
    Area area_within(const GdkRectangle& place) const;
    /// The smallest rectangle around it, if it is not empty.
    GdkRectangle bounds() const;
    /// Limits painting to it.
    void clip(cairo_t* cr) const;
    /// Limits painting to what of it lies outside of a rectangle.
    void clip_without(cairo_t* cr, const GdkRectangle& place) const;

private:
    cairo_region_t* region() const;

    std::vector<GdkRectangle> m_parts;  ///< in bands from the top down, as regions keep them
};
