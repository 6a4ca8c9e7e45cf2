#include "curve_coverage.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr int SAMPLES = 16;                    // columns of samples to a pixel
constexpr int SAMPLE_WEIGHT = 1024;            // of a sample that covers a pixel's whole height
constexpr int FULL = SAMPLES * SAMPLE_WEIGHT;  // a pixel that is covered wholly
constexpr int BATCH = 8;                       // samples that are worked on at once
constexpr std::size_t ROW_UNIT = 16;           // rows are as long as the processor's vectors like them
constexpr float MITER_LIMIT = 10.0F;           // cairo's own
constexpr double HIGHEST_LOAD = 16.0;          // more than this is as good as infinite
constexpr float FLAT = 1e-3F;                  // of a slope: the end of such a line is taken for upright
constexpr int TOUCHING = SAMPLE_WEIGHT / 64;   // spans with no more between them count as one
constexpr float FAR = 1e6F;                    // beyond any chart
constexpr float ROUND = 0.5F;                  // makes of cutting towards zero a rounding; std::lround takes much longer

/// The high half of a product. With both sides below 2^15 the result has one bit less than they.
std::uint16_t high_product(std::uint16_t a, std::uint16_t b)
{
    return static_cast<std::uint16_t>((static_cast<std::uint32_t>(a) * b) >> 16U);
}

/// An alpha as a factor for high_product().
std::uint16_t factor(double alpha)
{
    return static_cast<std::uint16_t>(std::lround(std::clamp(alpha, 0.0, 1.0) * 2 * FULL));
}

/// Adds cells to the sums of the rows above, and clears them.
void add_row(std::uint16_t* __restrict sums, std::uint16_t* __restrict cells, std::size_t count)
{
    for (std::size_t x = 0; x < count; ++x) {
        sums[x] = static_cast<std::uint16_t>(sums[x] + cells[x]);
        cells[x] = 0;
    }
}

/// What of a pixel stays clear of paint, in parts of FULL.
std::uint16_t clear_part(std::uint16_t covered, std::uint16_t factor)
{
    constexpr std::uint16_t LIMIT = FULL;
    const std::uint16_t sane = covered < LIMIT ? covered : LIMIT;  // rounding may have summed up to a little more
    return static_cast<std::uint16_t>(LIMIT - high_product(static_cast<std::uint16_t>(2 * sane), factor));
}

/// The opacities of a row, from how far area and line cover each pixel.
void blend_row(std::uint8_t* __restrict opacity, const std::uint16_t* __restrict area, std::uint16_t area_factor,
               const std::uint16_t* __restrict line, std::uint16_t line_factor, std::size_t count)
{
    constexpr std::uint16_t HALF_A_LEVEL = FULL / 255 / 2;
    for (std::size_t x = 0; x < count; ++x) {
        const auto clear_of_area = static_cast<std::uint16_t>(2 * clear_part(area[x], area_factor));
        const auto clear_of_line = static_cast<std::uint16_t>(2 * clear_part(line[x], line_factor));
        const auto covered = static_cast<std::uint16_t>(FULL + HALF_A_LEVEL - high_product(clear_of_area, clear_of_line));
        opacity[x] = static_cast<std::uint8_t>(high_product(static_cast<std::uint16_t>(2 * covered), 2 * 255));
    }
}

// As std::max and std::min, but by value, and so for several numbers at once
float higher(float a, float b)
{
    return a > b ? a : b;
}

float lower(float a, float b)
{
    return a < b ? a : b;
}

double sane_load(double value)
{
    return std::isnan(value) ? 0.0 : std::clamp(value, -HIGHEST_LOAD, HIGHEST_LOAD);
}

/// A line that is nowhere upright: its y at a given x.
struct Line {
    float at_origin = 0.0F;
    float slope = 0.0F;

    float y(float x) const { return at_origin + slope * x; }
};

}  // namespace

/// A convex part of the stroke: what lies below some lines and above others, from `left` to `right`.
struct CurveCoverage::Piece {
    static constexpr std::size_t MAX_LINES = 3;  // of either kind, for the stroke of a segment and for a join alike

    float left;
    float right;
    Line above[MAX_LINES] = {{-FAR}, {-FAR}, {-FAR}};  // the piece is below these
    Line below[MAX_LINES] = {{FAR}, {FAR}, {FAR}};
    std::size_t count_above = 0;
    std::size_t count_below = 0;

    void limit(const Line& line, bool is_above)
    {
        if (is_above) {
            above[count_above++] = line;
        } else {
            below[count_below++] = line;
        }
    }
    Span at(float x, float height) const
    {
        const float top = higher(higher(above[0].y(x), above[1].y(x)), higher(above[2].y(x), 0.0F));
        const float bottom = lower(lower(below[0].y(x), below[1].y(x)), lower(below[2].y(x), height));
        return {static_cast<int>(lower(top, height) * SAMPLE_WEIGHT), static_cast<int>(higher(bottom, 0.0F) * SAMPLE_WEIGHT)};
    }
};

/// The stroke between two points. It goes to the right, so each of its two long sides is above or below it.
struct CurveCoverage::Segment {
    Point from;
    Point to;
    float dx;  // the direction, of length 1
    float dy;
    float half_width;

    Segment(const Point& a, const Point& b, float half) : from(a), to(b), dx(b.x - a.x), dy(b.y - a.y), half_width(half)
    {
        const float length = std::sqrt(dx * dx + dy * dy);
        dx /= length;
        dy /= length;
    }

    bool is_flat() const { return std::abs(dy) < FLAT * dx; }
    bool goes_down() const { return dy > 0; }
    Line long_side(bool upper) const
    {
        const float slope = dy / dx;
        return {from.y - slope * from.x + (upper ? -half_width : half_width) / dx, slope};
    }
    /// The line through one of its points at a right angle.
    Line end(const Point& p) const { return {p.y + p.x * dx / dy, -dx / dy}; }

    Piece piece() const
    {
        const float overhang = half_width * std::abs(dy);
        Piece piece{.left = from.x - overhang, .right = to.x + overhang};
        piece.limit(long_side(true), true);
        piece.limit(long_side(false), false);
        if (!is_flat()) {
            piece.limit(end(from), goes_down());
            piece.limit(end(to), !goes_down());
        }
        return piece;
    }

    /// What fills the gap on the outer side of the bend between two segments.
    static Piece join(const Segment& a, const Segment& b)
    {
        const bool outside_is_above = a.dx * b.dy > a.dy * b.dx;
        const float side = outside_is_above ? a.half_width : -a.half_width;
        const Point& bend = a.to;
        const Point corner_a{bend.x + a.dy * side, bend.y - a.dx * side};
        const Point corner_b{bend.x + b.dy * side, bend.y - b.dx * side};
        const float closeness = 1 + a.dx * b.dx + a.dy * b.dy;
        const bool is_miter = closeness * MITER_LIMIT * MITER_LIMIT >= 2;
        const float tip = is_miter ? bend.x + (a.dy + b.dy) * side / closeness : bend.x;
        Piece piece{.left = std::min({bend.x, corner_a.x, corner_b.x, tip}), .right = std::max({bend.x, corner_a.x, corner_b.x, tip})};
        if (is_miter) {
            piece.limit(a.long_side(outside_is_above), outside_is_above);
            piece.limit(b.long_side(outside_is_above), outside_is_above);
        } else {
            const float slope = (corner_b.y - corner_a.y) / (corner_b.x - corner_a.x);
            piece.limit({corner_a.y - slope * corner_a.x, slope}, outside_is_above);
        }
        if (!a.is_flat()) {
            piece.limit(a.end(bend), a.goes_down());
        }
        if (!b.is_flat()) {
            piece.limit(b.end(bend), !b.goes_down());
        }
        return piece;
    }
};

CurveCoverage::~CurveCoverage()
{
    cairo_surface_destroy(m_mask);
}

cairo_surface_t* CurveCoverage::opacity(const std::deque<double>& history, int capacity, int w, int h, int scale, const CurveLook& look)
{
    if (history.size() < 2 || capacity < 2 || w <= 0 || h <= 0 || scale <= 0) {
        return nullptr;
    }
    prepare(w * scale, h * scale, scale);
    place_points(history, capacity);
    add_area();
    add_line(static_cast<float>(look.line_width * scale / 2));
    blend(look);
    return m_mask;
}

void CurveCoverage::prepare(int width, int height, int scale)
{
    if (width == m_width && height == m_height && scale == m_mask_scale) {
        cairo_surface_flush(m_mask);
        return;
    }
    m_width = width;
    m_height = height;
    m_mask_scale = scale;
    m_stride = (static_cast<std::size_t>(width) + ROW_UNIT - 1) / ROW_UNIT * ROW_UNIT;
    const auto fit = [](auto& buffer, std::size_t size) {
        if (buffer.size() < size) {
            buffer.resize(size);
        }
    };
    const std::size_t cells = m_stride * static_cast<std::size_t>(height);
    fit(m_area, cells);
    fit(m_line, cells + 2 * m_stride);  // a span may end at the bottom, half of a cell further
    fit(m_area_sums, m_stride);
    fit(m_line_sums, m_stride);
    fit(m_opacity, cells);
    fit(m_spans, static_cast<std::size_t>(width) * SAMPLES);
    cairo_surface_destroy(m_mask);
    m_mask = cairo_image_surface_create_for_data(m_opacity.data(), CAIRO_FORMAT_A8, width, height, static_cast<int>(m_stride));
    cairo_surface_set_device_scale(m_mask, scale, scale);
}

void CurveCoverage::place_points(const std::deque<double>& history, int capacity)
{
    const double step = static_cast<double>(m_width) / (capacity - 1);
    double steps_to_end = static_cast<double>(history.size());
    m_points.clear();
    for (const double value : history) {
        --steps_to_end;
        m_points.push_back({static_cast<float>(m_width - steps_to_end * step), static_cast<float>((1.0 - sane_load(value)) * m_height)});
    }
}

void CurveCoverage::add_area()
{
    for (std::size_t i = 1; i < m_points.size(); ++i) {
        const Point& from = m_points[i - 1];
        const Point& to = m_points[i];
        const float slope = (to.y - from.y) / (to.x - from.x);
        const int last = std::min(static_cast<int>(to.x), m_width - 1);
        for (int column = std::max(static_cast<int>(from.x), 0); column <= last; ++column) {
            const float left = std::max(from.x, static_cast<float>(column));
            const float right = std::min(to.x, static_cast<float>(column + 1));
            const float y1 = from.y + (left - from.x) * slope;
            const float y2 = from.y + (right - from.x) * slope;
            if (left < right) {
                add_area_in_column(column, right - left, std::min(y1, y2), std::max(y1, y2));
            }
        }
    }
}

/// Adds what lies under a piece of the curve which goes, up or down, between those two heights.
void CurveCoverage::add_area_in_column(int column, float width, float top, float bottom)
{
    const auto covered_above = [=](float y) {  // how much of the strip, as wide as the piece, is covered down to there
        if (y <= top) {
            return 0.0F;
        }
        return y < bottom ? (y - top) * (y - top) / (2 * (bottom - top)) : y - (top + bottom) / 2;
    };
    const float weight = width * FULL;
    int before = 0;
    int row = std::max(static_cast<int>(std::floor(std::min(top, static_cast<float>(m_height)))), 0);
    float down_to_here = covered_above(static_cast<float>(row));
    std::uint16_t* cell = m_area.data() + static_cast<std::size_t>(row) * m_stride + column;
    for (; row < m_height; ++row, cell += m_stride) {
        const float down_to_next = covered_above(static_cast<float>(row + 1));
        const int covered = static_cast<int>((down_to_next - down_to_here) * weight + ROUND);
        *cell = static_cast<std::uint16_t>(*cell + covered - before);
        if (static_cast<float>(row) >= bottom) {
            return;
        }
        before = covered;
        down_to_here = down_to_next;
    }
}

void CurveCoverage::add_line(float half_width)
{
    Segment last(m_points[0], m_points[1], half_width);
    add_piece(last.piece());
    for (std::size_t i = 2; i < m_points.size(); ++i) {
        const Segment next(m_points[i - 1], m_points[i], half_width);
        add_piece(next.piece());
        if (!(last.is_flat() && next.is_flat())) {
            add_piece(Segment::join(last, next));  // after both: with them it has no more than edges in common, while they overlap
        }
        last = next;
    }
    const std::size_t samples = static_cast<std::size_t>(m_width) * SAMPLES;
    for (std::size_t sample = 0; sample < samples; ++sample) {
        add_span(sample, m_spans[sample]);
        m_spans[sample] = {};
    }
}

/// Unites a piece with what is already there. Pieces that follow each other touch, so one span for each column is enough to remember.
void CurveCoverage::add_piece(const Piece& piece)
{
    const auto first_sample_after = [this](float x) {
        return static_cast<int>(std::ceil(std::clamp(x, 0.0F, static_cast<float>(m_width)) * SAMPLES - 0.5F));
    };
    const int end = first_sample_after(piece.right);
    const auto height = static_cast<float>(m_height);
    for (int first = first_sample_after(piece.left); first < end; first += BATCH) {
        int tops[BATCH];
        int bottoms[BATCH];
        for (int i = 0; i < BATCH; ++i) {
            const Span span = piece.at((static_cast<float>(first + i) + 0.5F) / SAMPLES, height);
            tops[i] = span.top;
            bottoms[i] = span.bottom;
        }
        const int count = std::min(end - first, BATCH);
        for (int i = 0; i < count; ++i) {
            if (tops[i] < bottoms[i]) {
                unite(static_cast<std::size_t>(first) + static_cast<std::size_t>(i), {tops[i], bottoms[i]});
            }
        }
    }
}

void CurveCoverage::unite(std::size_t sample, const Span& span)
{
    Span& known = m_spans[sample];
    if (span.top <= known.bottom + TOUCHING && known.top <= span.bottom + TOUCHING) {
        known = {std::min(span.top, known.top), std::max(span.bottom, known.bottom)};
    } else {
        add_span(sample, known);
        known = span;
    }
}

void CurveCoverage::add_span(std::size_t sample, const Span& span)
{
    std::uint16_t* const column = &m_line[sample / SAMPLES];
    const auto change = [&](int y, int sign) {  // from there on more is covered, or less
        std::uint16_t* const cell = column + static_cast<unsigned>(y) / SAMPLE_WEIGHT * m_stride;
        const int in_next = y % SAMPLE_WEIGHT;
        cell[0] = static_cast<std::uint16_t>(cell[0] + sign * (SAMPLE_WEIGHT - in_next));
        cell[m_stride] = static_cast<std::uint16_t>(cell[m_stride] + sign * in_next);
    };
    if (span.top < span.bottom) {
        change(span.top, 1);
        change(span.bottom, -1);
    }
}

/// Sums up each column downwards, clears the cells, and lays the line over the area.
void CurveCoverage::blend(const CurveLook& look)
{
    std::fill_n(m_area_sums.begin(), m_stride, 0);
    std::fill_n(m_line_sums.begin(), m_stride, 0);
    const std::uint16_t line_factor = factor(look.line_alpha);
    for (int row = 0; row < m_height; ++row) {
        const std::size_t start = static_cast<std::size_t>(row) * m_stride;
        const double depth = (row + 0.5) / m_height;
        const std::uint16_t area_factor = factor(look.fill_alpha_top + (look.fill_alpha_bottom - look.fill_alpha_top) * depth);
        add_row(&m_area_sums[0], &m_area[start], m_stride);
        add_row(&m_line_sums[0], &m_line[start], m_stride);
        blend_row(&m_opacity[start], &m_area_sums[0], area_factor, &m_line_sums[0], line_factor, m_stride);
    }
    std::fill_n(m_line.begin() + static_cast<std::ptrdiff_t>(m_stride) * m_height, 2 * m_stride, 0);
    cairo_surface_mark_dirty(m_mask);
}
