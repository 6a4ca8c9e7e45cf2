/// Only images and matrices will do for which each unit is a whole number of pixels.
#include "pixel_canvas.h"

#include <gdk/gdk.h>

#include <cmath>

namespace {

bool is_whole(double number)
{
    return number == std::floor(number);
}

bool is_shift(const cairo_matrix_t& m)
{
    return m.xx == 1 && m.yy == 1 && m.xy == 0 && m.yx == 0 && is_whole(m.x0) && is_whole(m.y0);
}

bool has_four_bytes(cairo_surface_t* image)
{
    const cairo_format_t format = cairo_image_surface_get_format(image);
    return format == CAIRO_FORMAT_RGB24 || format == CAIRO_FORMAT_ARGB32;
}

}  // namespace

std::optional<PixelCanvas> PixelCanvas::of(cairo_t* cr)
{
    cairo_surface_t* const surface = cairo_get_group_target(cr);
    if (surface != cairo_get_target(cr) || cairo_surface_get_type(surface) != CAIRO_SURFACE_TYPE_IMAGE || !has_four_bytes(surface)) {
        return std::nullopt;
    }
    double scale = 1.0;
    double scale_y = 1.0;
    double offset_x = 0.0;
    double offset_y = 0.0;
    cairo_surface_get_device_scale(surface, &scale, &scale_y);
    cairo_surface_get_device_offset(surface, &offset_x, &offset_y);
    cairo_matrix_t m;
    cairo_get_matrix(cr, &m);
    if (!is_shift(m) || scale != scale_y || !is_whole(scale) || scale < 1 || !is_whole(offset_x) || !is_whole(offset_y)) {
        return std::nullopt;
    }
    cairo_surface_flush(surface);
    PixelCanvas canvas{.image = surface,
                       .data = cairo_image_surface_get_data(surface),
                       .stride = cairo_image_surface_get_stride(surface),
                       .clip = {0, 0, cairo_image_surface_get_width(surface), cairo_image_surface_get_height(surface)},
                       .x = static_cast<int>(m.x0 * scale + offset_x),
                       .y = static_cast<int>(m.y0 * scale + offset_y),
                       .scale = static_cast<int>(scale)};
    GdkRectangle clip{};
    if (canvas.data == nullptr || !gdk_cairo_get_clip_rectangle(cr, &clip)) {
        return std::nullopt;
    }
    canvas.clip = canvas.pixels_of(clip);
    return canvas;
}

cairo_rectangle_int_t PixelCanvas::pixels_of(const cairo_rectangle_int_t& units) const
{
    const GdkRectangle pixels{x + units.x * scale, y + units.y * scale, units.width * scale, units.height * scale};
    GdkRectangle common{};
    if (!gdk_rectangle_intersect(&pixels, &clip, &common)) {
        common = {};
    }
    return common;
}
