/// Paints the curve of a chart and the area under it onto an image in memory.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <deque>
#include <vector>

#include "curve_outline.h"
#include "theme.h"

/// How a curve is to look. Line and area are of the same colour, so that one opacity for each pixel tells all.
struct CurveLook {
    double line_width = 0.0;  ///< in units of the chart
    double line_alpha = 0.0;
    double fill_alpha_top = 0.0;  ///< of the area at the top of the chart; from there it changes evenly down to the bottom
    double fill_alpha_bottom = 0.0;
};

/// The part of an image onto which a curve is painted. All numbers are pixels of the image.
struct CurveCanvas {
    unsigned char* data = nullptr;  ///< as of cairo's images of the formats ARGB32 and RGB24
    int stride = 0;                 ///< bytes from row to row
    cairo_rectangle_int_t chart{};  ///< where the chart is; parts of it may lie outside of the image
    cairo_rectangle_int_t clip{};   ///< inside the image; nothing else is read or written
    int scale = 1;                  ///< pixels of the image to a unit of the chart
};

/// A rasteriser for nothing but curves that go from left to right, which is why it takes a small part of the time of cairo's general one.
/// What it paints is what cairo would, but for the rounding of either; cairo counts in 15 rows to a pixel, this one is nearly exact.
/// It needs no more memory for a large chart than for a small one.
class CurveCoverage {
public:
    /// Paints a history of loads, oldest first. It spans the chart if it has `capacity` of them; a shorter one ends at the right edge. Any
    /// values and sizes will do; with fewer than two values there is nothing to see.
    void paint(const std::deque<double>& history, int capacity, const CurveLook& look, const Rgb& color, const CurveCanvas& canvas);

private:
    /// A straight part of a chain inside of a block, x from the left side of that.
    struct Edge {
        float left;
        float right;
        float y_left;
        float y_right;
        float slope;

        float y(float x) const { return y_left + (x - left) * slope; }
        Edge between(float new_left, float new_right) const { return {new_left, new_right, y(new_left), y(new_right), slope}; }
    };
    /// A chain, and what of it is in the block at hand.
    struct Edges {
        std::vector<Edge> in_block;  ///< the first `count` of them
        std::size_t count = 0;

        void begin(const CurveOutline::Chain& chain);
        void take(int column);

    private:
        const CurveOutline::Point* m_next = nullptr;
        const CurveOutline::Point* m_last = nullptr;
    };
    /// What is painted of a chart, in its pixels.
    struct Part {
        int left;
        int top;
        int right;
        int bottom;
    };
    class Cells;
    struct Pixels;

    void take_look(const CurveLook& look, int height);
    void paint_block(int column);
    void paint_line(const Pixels& pixels, int top, int end);
    void fill(const Pixels& pixels, int column, int top);
    std::uint16_t area_alpha(int row) const;

    CurveOutline m_outline;
    Edges m_curve;
    Edges m_upper;
    Edges m_lower;
    CurveCanvas m_canvas;
    Part m_part{};
    std::uint32_t m_color = 0;
    float m_line_covered = 0.0F;         ///< a pixel that the line covers wholly, in the units of the line's cells
    std::uint32_t m_area_alpha_top = 0;  ///< in the first row, in parts of 2^24
    std::int32_t m_area_alpha_step = 0;  ///< from row to row
};
