/// Colours and their texts; the stylesheet has a file of its own, theme_stylesheet.cpp.
#include "theme.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace {

constexpr double CHANNEL_MAX = 255.0;

/// The low eight bits of `value` as a channel.
double channel(std::uint32_t value)
{
    return (value & 0xFFU) / CHANNEL_MAX;
}

/// A channel as the byte that stands for it. Written so that NaN, too, ends in a byte.
unsigned channel_byte(double c)
{
    const double scaled = as_double(as_double(c * CHANNEL_MAX) + 0.5);
    if (!(scaled > 0.0)) {
        return 0;
    }
    return scaled >= CHANNEL_MAX ? 255U : static_cast<unsigned>(scaled);
}

}  // namespace

Palette Palette::light()
{
    return {.dark = false,
            .background = "#D9D9D9",
            .panel = "#EBEBEB",
            .text = "#404040",
            .border = "#B3B3B3",
            .chart_bg = "#F5F5F5",
            .gear = "#CC3326",
            .ink = 0.0,
            .grid_alpha = 0.1,
            .ghost_alpha = 0.12};
}

Palette Palette::dark_()
{
    return {.dark = true,
            .background = "#1C1C1E",
            .panel = "#2C2C2E",
            .text = "#E5E5E7",
            .border = "#48484A",
            .chart_bg = "#1E1E20",
            .gear = "#FFFFFF",
            .ink = 1.0,
            .grid_alpha = 0.1,
            .ghost_alpha = 0.22};
}

Palette Palette::for_theme(bool dark)
{
    return dark ? dark_() : light();
}

Rgb mix(const Rgb& a, const Rgb& b, double t)
{
    const double rest = 1.0 - t;
    return {a.r * t + b.r * rest, a.g * t + b.g * rest, a.b * t + b.b * rest};
}

bool hex_to_rgb(const std::string& text, Rgb& out)
{
    constexpr std::size_t DIGITS = 6;
    std::string_view digits = text;
    if (digits.starts_with('#')) {
        digits.remove_prefix(1);
    }
    if (digits.size() != DIGITS) {
        return false;
    }
    // from_chars takes neither sign nor prefix for an unsigned number, so reaching the end means six hexadecimal digits
    std::uint32_t value = 0;
    const char* const end = digits.data() + digits.size();
    if (std::from_chars(digits.data(), end, value, 16).ptr != end) {
        return false;
    }
    out = {channel(value >> 16), channel(value >> 8), channel(value)};
    return true;
}

std::string with_hash(const std::string& color)
{
    Rgb ignored;
    const bool lacks_hash = hex_to_rgb(color, ignored) && !color.starts_with('#');
    return lacks_hash ? '#' + color : color;
}

std::string rgb_to_hex(const Rgb& color)
{
    char text[8];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", channel_byte(color.r), channel_byte(color.g), channel_byte(color.b));
    return text;
}

std::string mix_hex(const std::string& a, const std::string& b, double t)
{
    Rgb first;
    Rgb second;
    if (!hex_to_rgb(a, first) || !hex_to_rgb(b, second)) {
        return a;
    }
    return rgb_to_hex(mix(first, second, t));
}
