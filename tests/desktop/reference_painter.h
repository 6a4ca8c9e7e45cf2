/// A second painter of charts, written straight down without regard to how App does it. What both paint has to be equal to the pixel.
#pragma once

#include <cairo.h>

#include <array>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "theme.h"

namespace reference {

struct Chart {
    int w = 0;
    int h = 0;
    std::deque<double> history;
    Rgb accent;
    bool dark = false;
    std::vector<std::string> ghost;
    double overlay = -1.0;
};

inline void source(cairo_t* cr, const Rgb& c, double alpha)
{
    cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
}

/// The grey of grid and ghost: black on light, white on dark.
inline Rgb ink(bool dark)
{
    return dark ? Rgb{1, 1, 1} : Rgb{0, 0, 0};
}

inline double width_of(cairo_t* cr, const std::string& text, double size)
{
    cairo_text_extents_t extents;
    cairo_set_font_size(cr, size);
    cairo_text_extents(cr, text.c_str(), &extents);
    return extents.width;
}

inline void text_at(cairo_t* cr, const std::string& text, double left, double top)
{
    cairo_text_extents_t extents;
    cairo_text_extents(cr, text.c_str(), &extents);
    cairo_move_to(cr, left - extents.x_bearing, top - extents.y_bearing);
    cairo_show_text(cr, text.c_str());
}

inline void ghost(cairo_t* cr, const Chart& c)
{
    const double room = c.w - 6.0;
    if (c.h < 20 || room < 12.0 || c.ghost.empty()) {
        return;
    }
    cairo_select_font_face(cr, "monospace", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    const double largest = c.h * 0.42 < 18.0 ? c.h * 0.42 : 18.0;
    const auto fitting = [&](const std::string& text) {
        const double width = width_of(cr, text, largest);
        return width > room ? largest * room / width : largest;
    };
    std::string chosen;
    for (auto text = c.ghost.rbegin(); text != c.ghost.rend(); ++text) {
        if (!text->empty() && fitting(*text) >= 9.0) {
            chosen = *text;  // from the back, so that the foremost that can be read is the last one taken
        }
    }
    if (chosen.empty() && fitting(c.ghost.back()) >= 7.0) {
        chosen = c.ghost.back();
    }
    if (chosen.empty()) {
        return;
    }
    cairo_set_font_size(cr, fitting(chosen));
    cairo_text_extents_t extents;
    cairo_text_extents(cr, chosen.c_str(), &extents);
    source(cr, ink(c.dark), c.dark ? 0.22 : 0.12);
    text_at(cr, chosen, (c.w - extents.width) / 2, (c.h - extents.height) / 2);
}

inline void curve(cairo_t* cr, const Chart& c)
{
    const auto x = [&](std::size_t i) { return (60 - static_cast<int>(c.history.size()) + static_cast<int>(i)) / 59.0 * c.w; };
    const auto line = [&] {
        cairo_new_path(cr);
        for (std::size_t i = 0; i < c.history.size(); ++i) {
            cairo_line_to(cr, x(i), (1.0 - c.history[i]) * c.h);
        }
    };
    cairo_pattern_t* const gradient = cairo_pattern_create_linear(0, 0, 0, c.h);
    cairo_pattern_add_color_stop_rgba(gradient, 0, c.accent.r, c.accent.g, c.accent.b, 0.55);
    cairo_pattern_add_color_stop_rgba(gradient, 1, c.accent.r, c.accent.g, c.accent.b, 0.04);
    line();
    cairo_line_to(cr, c.w, c.h);
    cairo_line_to(cr, x(0), c.h);
    cairo_close_path(cr);
    cairo_set_source(cr, gradient);
    cairo_fill(cr);
    cairo_pattern_destroy(gradient);
    line();
    source(cr, c.accent, 0.85);
    cairo_set_line_width(cr, 1.2);
    cairo_stroke(cr);
}

inline Rgb load_color(double load, bool dark)
{
    if (load >= 0.7) {
        return dark ? Rgb{1.0, 0.35, 0.25} : Rgb{0.9, 0.2, 0.1};
    }
    if (load >= 0.3) {
        return dark ? Rgb{1.0, 0.75, 0.15} : Rgb{0.8, 0.6, 0.0};
    }
    return dark ? Rgb{0.3, 0.85, 0.4} : Rgb{0.1, 0.6, 0.2};
}

inline void overlay(cairo_t* cr, const Chart& c)
{
    if (c.w <= 40 || c.overlay < 0) {
        return;
    }
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%.0f%%", c.overlay * 100);
    cairo_select_font_face(cr, "monospace", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    source(cr, load_color(c.overlay, c.dark), 0.9);
    const double width = width_of(cr, text.data(), 12.0);
    text_at(cr, text.data(), c.w - 4.0 - width, 4.0);
}

inline void paint(cairo_t* cr, const Chart& c)
{
    const double grey = c.dark ? 0x1E / 255.0 : 0xF5 / 255.0;
    cairo_set_source_rgb(cr, grey, grey, c.dark ? 0x20 / 255.0 : grey);
    cairo_paint(cr);
    for (const double y : {0.75 * c.h, 0.5 * c.h, 0.25 * c.h}) {
        source(cr, ink(c.dark), 0.1);
        cairo_set_line_width(cr, 0.5);
        cairo_move_to(cr, 0, y);
        cairo_line_to(cr, c.w, y);
        cairo_stroke(cr);
    }
    ghost(cr, c);
    if (!c.history.empty()) {
        curve(cr, c);
    }
    overlay(cr, c);
}

}  // namespace reference
