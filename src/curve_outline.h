/// The shape of a chart's curve: the curve itself, and the two edges of the stroke along it.
#pragma once

#include <cstddef>
#include <deque>
#include <vector>

/// Three chains of points from left to right, in pixels from the top left corner of the chart, y downwards. Between two points a chain is
/// straight; two points above each other are a leap. All of the stroke lies between `upper` and `lower`, and nothing but the stroke does.
/// Chains reach beyond the chart where the stroke does. An object keeps its buffers: one for many curves allocates for the longest alone.
class CurveOutline {
public:
    struct Point {
        float x = 0.0F;
        float y = 0.0F;
        friend bool operator==(const Point&, const Point&) = default;
    };
    using Chain = std::vector<Point>;

    /// Takes the shape of a history of loads, oldest first, in a chart of `width` by `height` pixels, with a line of `line_width` pixels,
    /// miter joins and butt ends. The history spans the chart if it has `capacity` values; a shorter one ends at the right edge. Any
    /// values will do, and what is no number is no load; there must be two of them, and `capacity` at least 2.
    void take(const std::deque<double>& history, int capacity, int width, int height, double line_width);

    const Chain& curve() const { return m_curve; }
    const Chain& upper() const { return m_upper; }
    const Chain& lower() const { return m_lower; }

private:
    /// How the outer side of a bend is filled.
    enum class Join { miter, bevel };
    /// A straight part of the stroke.
    struct Segment {
        double dx = 0.0;  ///< its direction, of length 1
        double dy = 0.0;
        Point normal;  ///< from the curve to the stroke's upper edge
    };
    /// Between a segment and the next.
    struct Bend {
        Point to_miter;  ///< from the bend to where the two upper edges meet; as far to the other side, the lower edges do
        bool turns_down = false;
        Join join = Join::miter;
    };
    class Side;

    void place_points(const std::deque<double>& history, int capacity, int width, int height);
    void measure_segments(double half_width);
    void measure_bends();

    Chain m_curve;
    Chain m_upper;
    Chain m_lower;
    std::vector<Segment> m_segments;
    std::vector<Bend> m_bends;
    Chain m_known;  ///< what Side::unite works on
};
