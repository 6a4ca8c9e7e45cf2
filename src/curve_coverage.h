/// How far the curve of a chart and the area under it cover each pixel.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <deque>
#include <vector>

/// How a curve is to look. Line and area are of the same colour, so that one opacity for each pixel tells all.
struct CurveLook {
    double line_width = 0.0;
    double line_alpha = 0.0;
    double fill_alpha_top = 0.0;  ///< of the area at the top of the chart; from there it changes evenly down to the bottom
    double fill_alpha_bottom = 0.0;
};

/// A rasteriser for nothing but curves that go from left to right in even steps, which is why it takes a small part of the time of
/// cairo's general one. The area is exact. The line, with miter joins and butt ends as cairo has them, is exact downwards and sampled
/// across. An object keeps its buffers: one for many charts allocates for the largest alone.
class CurveCoverage {
public:
    CurveCoverage() = default;
    ~CurveCoverage();
    CurveCoverage(const CurveCoverage&) = delete;
    CurveCoverage& operator=(const CurveCoverage&) = delete;

    /// The opacity of each pixel of a chart of `w` by `h` units, a unit being `scale` by `scale` pixels. `history` holds loads, oldest
    /// first, and spans the chart if it has `capacity` of them; a shorter one ends at the right edge. Any values and sizes will do.
    /// The mask is borrowed until the next call; null if there is nothing to see.
    cairo_surface_t* opacity(const std::deque<double>& history, int capacity, int w, int h, int scale, const CurveLook& look);

private:
    /// A place in pixels.
    struct Point {
        float x = 0.0F;
        float y = 0.0F;
    };
    /// What a part of the line covers of one column of samples, in small parts of a pixel; empty at first.
    struct Span {
        int top = 0;
        int bottom = 0;
    };
    struct Segment;
    struct Piece;

    void prepare(int width, int height, int scale);
    void place_points(const std::deque<double>& history, int capacity);
    void add_area();
    void add_area_in_column(int column, float width, float top, float bottom);
    void add_line(float half_width);
    void add_piece(const Piece& piece);
    void unite(std::size_t sample, const Span& span);
    void add_span(std::size_t sample, const Span& span);
    void blend(const CurveLook& look);

    int m_width = 0;  ///< of the chart, in pixels
    int m_height = 0;
    std::size_t m_stride = 0;  ///< from row to row in all buffers

    std::vector<Point> m_points;
    std::vector<Span> m_spans;  ///< what is known of each column of samples and not yet added up
    /// Each cell tells how much more is covered of its pixel than of the one above. All cells are 0 between two charts.
    std::vector<std::uint16_t> m_area;
    std::vector<std::uint16_t> m_line;
    std::vector<std::uint16_t> m_area_sums;  ///< of one row, while going down
    std::vector<std::uint16_t> m_line_sums;
    std::vector<std::uint8_t> m_opacity;
    cairo_surface_t* m_mask = nullptr;  ///< on the bytes of m_opacity
    int m_mask_scale = 0;
};
