/// Pictures painted by the code under test, and questions about their pixels.
#pragma once

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <utility>

#include "theme.h"

/// A pixel's colour, each channel from 0 to 255.
struct Pixel {
    int r = 0;
    int g = 0;
    int b = 0;
    int a = 255;
    friend bool operator==(const Pixel&, const Pixel&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Pixel& p)
    {
        return out << "rgba(" << p.r << ", " << p.g << ", " << p.b << ", " << p.a << ")";
    }
};

constexpr Pixel CLEAR{0, 0, 0, 0};

inline Pixel pixel_of(const Rgb& color)
{
    const auto byte = [](double channel) { return static_cast<int>(std::lround(channel * 255)); };
    return {byte(color.r), byte(color.g), byte(color.b)};
}

/// A colour laid over an opaque pixel.
inline Pixel blend(const Pixel& under, const Rgb& color, double alpha)
{
    const auto mix = [alpha](int below, double above) { return static_cast<int>(std::lround(below * (1 - alpha) + above * 255 * alpha)); };
    return {mix(under.r, color.r), mix(under.g, color.g), mix(under.b, color.b)};
}

/// Whether two pixels are equal but for rounding, which each layer of paint does.
inline bool is_about(const Pixel& a, const Pixel& b, int tolerance = 2)
{
    const auto near = [tolerance](int x, int y) { return std::abs(x - y) <= tolerance; };
    return near(a.r, b.r) && near(a.g, b.g) && near(a.b, b.b) && near(a.a, b.a);
}

/// The pixels from `left` to `right` and from `top` to `bottom`, each inclusive.
struct PixelBox {
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;
};

/// A picture of that many units, each of them `zoom` pixels wide and high: magnified, a line of half a unit fills whole pixels.
class Picture {
public:
    Picture(int width, int height, int zoom = 1)
        : m_surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width * zoom, height * zoom), cairo_surface_destroy),
          m_cr(cairo_create(m_surface.get()), cairo_destroy)
    {
        cairo_scale(cr(), zoom, zoom);
    }

    cairo_t* cr() const { return m_cr.get(); }
    int width() const { return cairo_image_surface_get_width(m_surface.get()); }
    int height() const { return cairo_image_surface_get_height(m_surface.get()); }

    Pixel at(int x, int y) const
    {
        const std::uint32_t value = raw(x, y);
        const int alpha = static_cast<int>(value >> 24);
        const auto channel = [&](unsigned shift) {
            const int premultiplied = static_cast<int>(value >> shift & 0xFFU);
            return alpha == 0 ? 0 : (premultiplied * 255 + alpha / 2) / alpha;
        };
        return {channel(16), channel(8), channel(0), alpha};
    }

    /// The topmost pixel for which that holds, as x and y; none if there is none.
    std::optional<std::pair<int, int>> find(const std::function<bool(int x, int y)>& holds) const
    {
        for (int y = 0; y < height(); ++y) {
            for (int x = 0; x < width(); ++x) {
                if (holds(x, y)) {
                    return std::pair{x, y};
                }
            }
        }
        return std::nullopt;
    }

    /// The smallest box around all pixels for which that holds; none if there are none.
    std::optional<PixelBox> box_of(const std::function<bool(int x, int y)>& holds) const
    {
        std::optional<PixelBox> box;
        for (int y = 0; y < height(); ++y) {
            for (int x = 0; x < width(); ++x) {
                if (holds(x, y)) {
                    const PixelBox b = box.value_or(PixelBox{x, y, x, y});
                    box = {std::min(b.left, x), std::min(b.top, y), std::max(b.right, x), std::max(b.bottom, y)};
                }
            }
        }
        return box;
    }

    /// The smallest box around all pixels in which two pictures of one size differ.
    std::optional<PixelBox> difference(const Picture& other) const
    {
        return box_of([&](int x, int y) { return raw(x, y) != other.raw(x, y); });
    }

    friend bool operator==(const Picture& a, const Picture& b)
    {
        return a.width() == b.width() && a.height() == b.height() && !a.find([&](int x, int y) { return a.raw(x, y) != b.raw(x, y); });
    }
    friend std::ostream& operator<<(std::ostream& out, const Picture& p) { return out << "picture " << p.width() << "x" << p.height(); }

private:
    std::uint32_t raw(int x, int y) const
    {
        cairo_surface_flush(m_surface.get());
        const unsigned char* const row =
            cairo_image_surface_get_data(m_surface.get()) + y * cairo_image_surface_get_stride(m_surface.get());
        std::uint32_t value = 0;
        std::copy_n(row + 4 * x, 4, reinterpret_cast<unsigned char*>(&value));
        return value;
    }

    std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)> m_surface;
    std::unique_ptr<cairo_t, void (*)(cairo_t*)> m_cr;
};
