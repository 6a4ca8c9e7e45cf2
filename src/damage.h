/// What of a window is to be painted anew.
#pragma once

#include <gdk/gdk.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

/// Rectangles that don't overlap, in units of the window.
class Damage {
public:
    using Area = std::int64_t;  ///< square units

    /// What the context's clip lets through; empty if that is not made of rectangles of whole units.
    static std::optional<Damage> of(cairo_t* cr);
    static Damage of(const cairo_region_t* region);
    /// Of rectangles that may overlap.
    static Damage of(const std::vector<GdkRectangle>& parts);
    static Damage of(const GdkRectangle& whole);

    bool is_empty() const { return m_parts.empty(); }
    const std::vector<GdkRectangle>& parts() const { return m_parts; }
    Area area() const;
    /// How much of it lies in a rectangle.
    Area area_within(const GdkRectangle& place) const;
    /// The smallest rectangle around it; 0 by 0 if it is empty.
    GdkRectangle bounds() const;
    /// Limits painting to it.
    void clip(cairo_t* cr) const;
    /// What of it lies outside of a rectangle.
    Damage without(const GdkRectangle& place) const;

private:
    using Region = std::unique_ptr<cairo_region_t, void (*)(cairo_region_t*)>;
    static Region region_of(const std::vector<GdkRectangle>& parts);

    std::vector<GdkRectangle> m_parts;  ///< in bands from the top down, as regions keep them
};
