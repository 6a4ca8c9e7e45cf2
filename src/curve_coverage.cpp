// How a curve becomes opacity, and opacity pixels.
//
// The chart is painted in blocks of 8 columns: a row of a block is what the processor works on at once. In each block, the rows above the
// line are left alone, those below it are filled, and for those between, the area and the line are added up in cells.
//
// Number formats. Opacity has 255 levels, as in cairo's masks. In cells and their sums a level has LEVEL_BITS more bits: a pixel that is
// covered wholly counts COVERED, 255 * 64, and one under the line that times the line's alpha. The area's alpha changes from row to row and
// is multiplied later, in parts of 256. Cells are 16 bits wide; sums on the way may wrap around, as only the last one has to fit.
//
// Cells don't hold coverage but the change of its change, downwards. Under an edge with an even slope, each row of a column is more covered
// than the one above by the same gain, COVERED / slope, so that there are cells only where the edge begins and ends in that column, however
// long it is; an end inside of a row bends the coverage of this row and the two below:
//
//     cells      0  .1  .2   0   0 -.3   0
//     change     0  .1  .3  .3  .3   0   0     sum of the cells down to here
//     coverage   0  .1  .4  .7   1   1   1     sum of the changes down to here
//
// The line is what lies below its upper edge, less what lies below its lower one.
//
// Known differences from cairo: cairo samples most edges in 15 rows to a pixel, this is exact but for rounding, and for edges flatter than
// FLAT_SLOPE, which have one height in each column. The largest difference in noisy charts is 16 levels, the mean a quarter of one.
#include "curve_coverage.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr int COLUMNS = 8;                       // of a block
constexpr std::ptrdiff_t NEXT_ROW = COLUMNS;     // from a cell to the one below
constexpr int BLOCK_ROWS = 64;                   // at once; a higher one takes several turns
constexpr int RAMP_END_ROWS = 3;                 // cells that the beginning or end of an edge takes
constexpr int OPAQUE = 255;                      // levels of opacity
constexpr int LEVEL_BITS = 6;                    // a level is so many times halved in cells
constexpr float COVERED = OPAQUE << LEVEL_BITS;  // a pixel that is covered wholly
constexpr float FLAT_SLOPE = 1.0F / 16;          // an edge of less has one height in each column
constexpr std::size_t BYTES = 4;                 // of a pixel

/// A number for each pixel in a row of a block. Compilers know such types, and what the processor has for them.
using Row = std::uint16_t __attribute__((vector_size(COLUMNS * 2)));
using SignedRow = std::int16_t __attribute__((vector_size(COLUMNS * 2)));
using HalfRow = std::uint32_t __attribute__((vector_size(COLUMNS * 2)));  // half as many
using WideRow = std::uint32_t __attribute__((vector_size(COLUMNS * 4)));

/// Makes levels of sums.
void take_levels(Row& levels, const Row& sums)
{
    constexpr int HALF = 1 << (LEVEL_BITS - 1);
    const SignedRow rounded = (reinterpret_cast<SignedRow>(sums) + HALF) >> LEVEL_BITS;
    constexpr SignedRow NONE{};
    constexpr SignedRow ALL = NONE + OPAQUE;
    const SignedRow positive = rounded > NONE ? rounded : NONE;
    levels = reinterpret_cast<Row>(positive < ALL ? positive : ALL);
}

/// The levels of a line over an area of that alpha, which is in parts of 256.
void lay_over(Row& opacity, const Row& area, std::uint16_t area_alpha, const Row& line)
{
    const Row clear_of_area = OPAQUE - ((area * area_alpha + 128) >> 8);
    const Row clear = clear_of_area * (OPAQUE - line) + 128;
    opacity = OPAQUE - ((clear + (clear >> 8)) >> 8);
}

/// A colour that is blended over rows of pixels. Of their bytes, every second one is worked on at once.
class Paint {
public:
    explicit Paint(std::uint32_t pixel)
    {
        const auto bytes = reinterpret_cast<Row>(HalfRow{pixel, pixel, pixel, pixel});
        m_low = bytes & 0xFF;
        m_high = bytes >> 8;
    }

    void blend(unsigned char* pixels, const Row& opacity) const
    {
        const Row part = opacity + (opacity >> 7);  // of 256
        const WideRow twice = __builtin_convertvector(part, WideRow) * 0x10001U;
        Row parts[2];
        std::memcpy(parts, &twice, sizeof parts);
        blend_half(pixels, parts[0]);
        blend_half(pixels + sizeof(Row), parts[1]);
    }

private:
    void blend_half(unsigned char* pixels, const Row& part) const
    {
        Row bytes;
        std::memcpy(&bytes, pixels, sizeof bytes);
        const Row low = (bytes << 8) + (m_low - (bytes & 0xFF)) * part + 128;
        const Row high = (bytes & 0xFF00) + (m_high - (bytes >> 8)) * part + 128;
        bytes = (low >> 8) | (high & 0xFF00);
        std::memcpy(pixels, &bytes, sizeof bytes);
    }

    Row m_low;
    Row m_high;
};

/// An opaque colour as cairo makes it.
std::uint32_t pixel_of(const Rgb& color)
{
    const auto channel = [](double value) { return static_cast<std::uint32_t>(std::lround(std::clamp(value, 0.0, 1.0) * 65535.0)) >> 8U; };
    return 0xFF000000U | channel(color.r) << 16U | channel(color.g) << 8U | channel(color.b);
}

/// What the beginning of a ramp makes of three cells below each other: from there on, coverage grows by `gain` from row to row.
struct RampEnd {
    int row;
    int first;
    int second;
    int third;

    RampEnd(float y, int gain) : row(static_cast<int>(y))
    {
        const float above = y - static_cast<float>(row);
        const float below = 1 - above;
        const float half = static_cast<float>(gain) * 0.5F;
        first = static_cast<int>(half * below * below);
        third = static_cast<int>(half * above * above);
        second = gain - first - third;
    }
    void add_to(std::uint16_t* cells) const
    {
        cells[0] = static_cast<std::uint16_t>(cells[0] + first);
        cells[NEXT_ROW] = static_cast<std::uint16_t>(cells[NEXT_ROW] + second);
        cells[2 * NEXT_ROW] = static_cast<std::uint16_t>(cells[2 * NEXT_ROW] + third);
    }
    void take_from(std::uint16_t* cells) const
    {
        cells[0] = static_cast<std::uint16_t>(cells[0] - first);
        cells[NEXT_ROW] = static_cast<std::uint16_t>(cells[NEXT_ROW] - second);
        cells[2 * NEXT_ROW] = static_cast<std::uint16_t>(cells[2 * NEXT_ROW] - third);
    }
};

}  // namespace

/// How far what lies below a chain covers the pixels of a block.
class CurveCoverage::Cells {
public:
    explicit Cells(int row_count) : m_bottom(static_cast<float>(row_count))
    {
        std::memset(m_rows, 0, (static_cast<std::size_t>(row_count) + RAMP_END_ROWS) * sizeof(Row));
    }

    /// Adds what lies below a chain; `top` is the y of the first row. A pixel that is covered wholly counts `covered`.
    void add(const Edges& edges, float top, float covered);
    /// The levels of the next row.
    void take_row(Row& levels, int row)
    {
        m_change += m_rows[row];
        m_sum += m_change;
        take_levels(levels, m_sum);
    }

private:
    /// An edge that is being added, or none if its gain is 0.
    struct Ramp {
        int gain = 0;  ///< negative for an edge that goes up: it begins with its lower end
        int column = 0;
        float right = 0.0F;
        float y_right = 0.0F;
    };
    void begin_ramp(Ramp& ramp, const Edge& edge, float covered);
    void end_ramp(Ramp& ramp);
    void add_cut(const Edge& edge, float covered);
    void add_flat(const Edge& edge, float covered);
    std::uint16_t* cell(int row, int column) { return reinterpret_cast<std::uint16_t*>(m_rows) + row * NEXT_ROW + column; }

    const float m_bottom;
    Row m_change{};
    Row m_sum{};
    Row m_rows[BLOCK_ROWS + RAMP_END_ROWS];
};

void CurveCoverage::Cells::add(const Edges& edges, float top, float covered)
{
    Ramp ramp;
    for (std::size_t i = 0; i < edges.count; ++i) {
        Edge edge = edges.in_block[i];
        edge.y_left -= top;
        edge.y_right -= top;
        const float highest = std::min(edge.y_left, edge.y_right);
        const float lowest = std::max(edge.y_left, edge.y_right);
        const bool is_flat = lowest <= 0 || std::abs(edge.slope) < FLAT_SLOPE;
        if (!is_flat && highest >= 0 && lowest <= m_bottom) {
            begin_ramp(ramp, edge, covered);
            continue;
        }
        end_ramp(ramp);
        if (is_flat && highest < m_bottom) {
            add_flat(edge, covered);
        } else if (highest < m_bottom) {
            add_cut(edge, covered);
        }
    }
    end_ramp(ramp);
}

/// Adds an edge but for its end, which may be the beginning of the next.
inline void CurveCoverage::Cells::begin_ramp(Ramp& ramp, const Edge& edge, float covered)
{
    const int gain = static_cast<int>(std::lrint(covered / edge.slope));
    int column = static_cast<int>(edge.left);
    if (ramp.gain != 0 && !(ramp.right == edge.left && ramp.y_right == edge.y_left && ramp.column == column)) {
        end_ramp(ramp);
    }
    const RampEnd begin(edge.y_left, gain - ramp.gain);
    begin.add_to(cell(begin.row, column));
    for (; static_cast<float>(column + 1) < edge.right; ++column) {
        const RampEnd crossing(edge.y(static_cast<float>(column + 1)), gain);
        std::uint16_t* const cells = cell(crossing.row, column);
        crossing.take_from(cells);
        crossing.add_to(cells + 1);
    }
    ramp = {.gain = gain, .column = column, .right = edge.right, .y_right = edge.y_right};
}

inline void CurveCoverage::Cells::end_ramp(Ramp& ramp)
{
    if (ramp.gain != 0) {
        const RampEnd end(ramp.y_right, ramp.gain);
        end.take_from(cell(end.row, ramp.column));
        ramp.gain = 0;
    }
}

/// Adds an edge with a slope that leaves the rows upwards or downwards.
void CurveCoverage::Cells::add_cut(const Edge& edge, float covered)
{
    const bool goes_down = edge.slope > 0;
    const auto x = [&](float y) { return std::clamp(edge.left + (y - edge.y_left) / edge.slope, edge.left, edge.right); };
    const float x_top = x(0.0F);
    const float x_bottom = x(m_bottom);
    add_flat(goes_down ? edge.between(edge.left, x_top) : edge.between(x_top, edge.right), covered);
    const Edge inside = goes_down ? edge.between(x_top, x_bottom) : edge.between(x_bottom, x_top);
    if (inside.left < inside.right) {
        Ramp ramp;
        begin_ramp(ramp, inside, covered);
        end_ramp(ramp);
    }
}

/// As if the edge were flat in each column.
void CurveCoverage::Cells::add_flat(const Edge& edge, float covered)
{
    for (int column = static_cast<int>(edge.left); static_cast<float>(column) < edge.right; ++column) {
        const float left = std::max(edge.left, static_cast<float>(column));
        const float right = std::min(edge.right, static_cast<float>(column + 1));
        const float y = std::clamp(edge.y((left + right) / 2), 0.0F, m_bottom);
        const int row = static_cast<int>(y);
        const float all_covered = (right - left) * covered;
        const int all = static_cast<int>(std::lrint(all_covered));
        const int below = static_cast<int>(all_covered * (y - static_cast<float>(row)));
        std::uint16_t* const cells = cell(row, column);
        cells[0] = static_cast<std::uint16_t>(cells[0] + all - below);
        cells[NEXT_ROW] = static_cast<std::uint16_t>(cells[NEXT_ROW] + 2 * below - all);
        cells[2 * NEXT_ROW] = static_cast<std::uint16_t>(cells[2 * NEXT_ROW] - below);
    }
}

void CurveCoverage::Edges::begin(const CurveOutline::Chain& chain)
{
    m_next = chain.data();
    m_last = chain.data() + chain.size() - 1;
    in_block.resize(std::max(in_block.size(), chain.size()));
}

/// Takes the edges of a block. Blocks are gone through from left to right.
void CurveCoverage::Edges::take(int column)
{
    const auto origin = static_cast<float>(column);
    const float end = origin + COLUMNS;
    while (m_next < m_last && m_next[1].x <= origin) {
        ++m_next;
    }
    count = 0;
    for (const CurveOutline::Point* from = m_next; from < m_last && from->x < end; ++from) {
        const float left = from[0].x - origin;
        const float right = from[1].x - origin;
        if (!(left < right)) {
            continue;
        }
        Edge& edge = in_block[count++];
        edge = {left, right, from[0].y, from[1].y, (from[1].y - from[0].y) / (right - left)};
        if (left < 0 || right > COLUMNS) {
            edge = edge.between(std::max(left, 0.0F), std::min(right, float{COLUMNS}));
        }
    }
}

/// The pixels of a block on the canvas, as far as they are painted.
struct CurveCoverage::Pixels {
    unsigned char* rows;  ///< of the chart, from its first one
    std::ptrdiff_t stride;
    std::size_t begin;  ///< bytes of a row that are not to be painted
    std::size_t size;   ///< bytes that are
    Paint color;

    void paint(int row, const Row& opacity) const
    {
        unsigned char* const pixels = rows + row * stride;
        if (size == COLUMNS * BYTES) {
            color.blend(pixels, opacity);
            return;
        }
        unsigned char copy[COLUMNS * BYTES] = {};
        std::memcpy(copy + begin, pixels + begin, size);
        color.blend(copy, opacity);
        std::memcpy(pixels + begin, copy + begin, size);
    }
};

void CurveCoverage::paint(const std::deque<double>& history, int capacity, const CurveLook& look, const Rgb& color,
                          const CurveCanvas& canvas)
{
    const cairo_rectangle_int_t& chart = canvas.chart;
    const cairo_rectangle_int_t& clip = canvas.clip;
    m_part = {.left = std::max(clip.x - chart.x, 0),
              .top = std::max(clip.y - chart.y, 0),
              .right = std::min(clip.x + clip.width - chart.x, chart.width),
              .bottom = std::min(clip.y + clip.height - chart.y, chart.height)};
    if (history.size() < 2 || capacity < 2 || m_part.left >= m_part.right || m_part.top >= m_part.bottom || canvas.scale <= 0) {
        return;
    }
    m_outline.take(history, capacity, chart.width, chart.height, look.line_width * canvas.scale);
    if (m_outline.upper().empty()) {
        return;
    }
    m_canvas = canvas;
    m_color = pixel_of(color);
    take_look(look, chart.height);
    m_curve.begin(m_outline.curve());
    m_upper.begin(m_outline.upper());
    m_lower.begin(m_outline.lower());
    const float begin = std::min(m_outline.upper().front().x, m_outline.lower().front().x);
    const int left = std::max(m_part.left, static_cast<int>(begin));
    for (int column = left / COLUMNS * COLUMNS; column < m_part.right; column += COLUMNS) {
        paint_block(column);
    }
}

void CurveCoverage::take_look(const CurveLook& look, int height)
{
    const auto sane = [](double alpha) { return std::clamp(alpha, 0.0, 1.0); };
    constexpr double PARTS = 1 << 24;
    const double top = sane(look.fill_alpha_top) * PARTS;
    const double step = (sane(look.fill_alpha_bottom) * PARTS - top) / height;
    m_area_alpha_top = static_cast<std::uint32_t>(std::lrint(top + step / 2));
    m_area_alpha_step = static_cast<std::int32_t>(std::lrint(step));
    m_line_covered = static_cast<float>(sane(look.line_alpha)) * COVERED;
}

/// In the middle of a row, in parts of 256.
std::uint16_t CurveCoverage::area_alpha(int row) const
{
    constexpr std::uint32_t HALF = 1 << 15;
    return static_cast<std::uint16_t>(
        (m_area_alpha_top + static_cast<std::uint32_t>(row) * static_cast<std::uint32_t>(m_area_alpha_step) + HALF) >> 16U);
}

void CurveCoverage::paint_block(int column)
{
    m_upper.take(column);
    m_lower.take(column);
    m_curve.take(column);
    const auto height = static_cast<float>(m_canvas.chart.height);
    float top = height;
    float end = 0.0F;
    for (std::size_t i = 0; i < m_upper.count; ++i) {
        top = std::min(top, std::min(m_upper.in_block[i].y_left, m_upper.in_block[i].y_right));
    }
    for (std::size_t i = 0; i < m_lower.count; ++i) {
        end = std::max(end, std::max(m_lower.in_block[i].y_left, m_lower.in_block[i].y_right));
    }
    const std::size_t left = static_cast<std::size_t>(std::max(m_part.left - column, 0));
    const std::size_t right = static_cast<std::size_t>(std::min(m_part.right - column, COLUMNS));
    const Pixels pixels{.rows = m_canvas.data + static_cast<std::ptrdiff_t>(m_canvas.chart.y) * m_canvas.stride +
                                static_cast<std::ptrdiff_t>(m_canvas.chart.x + column) * static_cast<std::ptrdiff_t>(BYTES),
                        .stride = m_canvas.stride,
                        .begin = left * BYTES,
                        .size = (right - left) * BYTES,
                        .color = Paint(m_color)};
    const int first_row = static_cast<int>(std::max(top, 0.0F));
    const int end_row = static_cast<int>(std::ceil(std::min(end, height)));
    for (int row = first_row; row < std::min(end_row, m_part.bottom); row += BLOCK_ROWS) {
        if (row + BLOCK_ROWS > m_part.top) {
            paint_line(pixels, row, std::min(row + BLOCK_ROWS, end_row));
        }
    }
    fill(pixels, column, std::max({first_row, end_row, m_part.top}));
}

/// Paints the rows in which the line is, and the area there.
void CurveCoverage::paint_line(const Pixels& pixels, int top, int end)
{
    Cells area(end - top);
    Cells line(end - top);
    area.add(m_curve, static_cast<float>(top), COVERED);
    line.add(m_upper, static_cast<float>(top), m_line_covered);
    line.add(m_lower, static_cast<float>(top), -m_line_covered);
    for (int row = top; row < std::min(end, m_part.bottom); ++row) {
        Row area_levels;
        Row opacity;
        area.take_row(area_levels, row - top);
        line.take_row(opacity, row - top);
        if (row >= m_part.top) {
            lay_over(opacity, area_levels, area_alpha(row), opacity);
            pixels.paint(row, opacity);
        }
    }
}

/// Fills the rows below the line.
void CurveCoverage::fill(const Pixels& pixels, int column, int top)
{
    const float begin = m_outline.curve().front().x - static_cast<float>(column);
    Row covered;
    for (int i = 0; i < COLUMNS; ++i) {
        covered[i] = static_cast<std::uint16_t>(std::lrint(std::clamp(static_cast<float>(i + 1) - begin, 0.0F, 1.0F) * OPAQUE));
    }
    for (int row = top; row < m_part.bottom; ++row) {
        const Row opacity = (covered * area_alpha(row) + 128) >> 8;
        pixels.paint(row, opacity);
    }
}
