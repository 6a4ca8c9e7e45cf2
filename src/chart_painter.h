/// The charts on the screen: painted straight into the window's image, in a small part of the time that App::paint_chart takes with cairo,
/// and to the eye no different. It keeps what charts of one size have in common. Main thread only.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <deque>
#include <vector>

#include "chart_font.h"
#include "curve_coverage.h"
#include "pixel_canvas.h"
#include "theme.h"

class ChartPainter {
public:
    /// What is to be seen.
    struct Chart {
        cairo_rectangle_int_t area{};       ///< in units of the canvas
        const std::deque<double>& history;  ///< loads from 0.0 to 1.0, oldest first
        Rgb accent;
        double mhz = 0.0;    ///< the clock behind the curve; none if not positive
        double load = -1.0;  ///< in the corner; none if negative
        Rgb load_color{};
    };

    /// `cr` is the context that the canvas was made of. The parts of the chart inside the canvas's clip are painted.
    void paint(cairo_t* cr, const PixelCanvas& canvas, const Chart& chart, const Palette& pal);

private:
    /// The backdrop of all charts of one height: one colour for each row of pixels.
    struct Backdrop {
        int height;
        int scale;
        bool dark;
        std::vector<std::uint32_t> rows;
    };
    const Backdrop& backdrop(int height, int scale, const Palette& pal);
    void paint_backdrop(const PixelCanvas& canvas, const Chart& chart, const Palette& pal);
    void paint_ghost(cairo_t* cr, const Chart& chart, const Palette& pal);
    void paint_curve(const PixelCanvas& canvas, const Chart& chart);
    void paint_overlay(cairo_t* cr, const Chart& chart);

    std::vector<Backdrop> m_backdrops;
    ChartFonts m_fonts;
    CurveCoverage m_curve;
};
