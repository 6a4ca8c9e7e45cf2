/// An image in memory that is painted on pixel by pixel, beside cairo.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <optional>

/// What a context paints on, where that is an image whose pixels can be told from the context's units: each unit begins with a pixel
/// and is a whole number of pixels wide and high. Valid as long as the context is not given another matrix, clip or group.
struct PixelCanvas {
    cairo_surface_t* image = nullptr;  ///< borrowed; of the format RGB24 or ARGB32
    unsigned char* data = nullptr;
    int stride = 0;  ///< bytes from row to row
    cairo_rectangle_int_t
        clip{};  ///< in pixels: nothing outside is to be painted; what is inside may be, even where the context's clip is smaller
    int x = 0;   ///< pixel at which the context's unit 0, 0 begins; may lie outside of the image
    int y = 0;
    int scale = 1;  ///< pixels to a unit

    /// Empty for any other kind of surface or matrix.
    static std::optional<PixelCanvas> of(cairo_t* cr);

    std::uint32_t* row(int pixel_y) const { return reinterpret_cast<std::uint32_t*>(data + static_cast<std::ptrdiff_t>(pixel_y) * stride); }

    /// The pixels of a rectangle of units that may be painted on; may be empty.
    cairo_rectangle_int_t pixels_of(const cairo_rectangle_int_t& units) const;

    /// Tells cairo of what has been painted without it.
    void mark_dirty() const { cairo_surface_mark_dirty(image); }
};
