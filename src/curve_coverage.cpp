// The chart is painted in blocks of 8 columns: a row of a block is what the processor works on at once. In each block, the rows above the
// line are left alone, those below it are filled, and for those between, the line and the area are added up in cells.
//
// A pixel that is covered wholly counts COVERED, 2^14. Cells hold how the coverage changes from row to row, and not that but the change of
// the change: under an edge that crosses a column at an even slope, coverage grows by the same amount in each row,
//
//     coverage    0  0 .1 .4 .7 .9  1  1       by COVERED / slope, and so there are cells other than 0 only where it begins and where it
//     change      0 .1 .3 .3 .2 .1  0          ends, however long it is: three of them, as an end inside of a row is a change of the
//     cells      .1 .2  0 -.1 -.1 -.1          change for this row and the two below.
//
// Adding up twice, downwards, gives the coverage back. Cells and sums are numbers of 16 bits, and sums in between may wrap around: what
// comes out at last lies between 0 and COVERED, give or take ROUNDING_ERROR.
//
// Opacities are of 8 bits, as in cairo's masks.
#include "curve_coverage.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace {

constexpr int COLUMNS = 8;                       // of a block
constexpr int BLOCK_ROWS = 64;                   // at once; a higher one takes several turns
constexpr int END_ROWS = 3;                      // cells that an end takes
constexpr int OPAQUE = 255;                      // levels of opacity
constexpr int LEVEL_BITS = 6;                    // a level is so many times halved in cells
constexpr float COVERED = OPAQUE << LEVEL_BITS;  // a pixel that is covered wholly
constexpr float LEVEL_SLOPE = 1.0F / 16;         // an edge of less has one height in each column
constexpr std::size_t BYTES = 4;                 // of a pixel

/// A number for each pixel in a row of a block. Compilers know such types, and what the processor has for them.
using Row = std::uint16_t __attribute__((vector_size(COLUMNS * 2)));
using SignedRow = std::int16_t __attribute__((vector_size(COLUMNS * 2)));
using PixelRow = std::uint32_t __attribute__((vector_size(COLUMNS * 2)));  // half as many
using WideRow = std::uint32_t __attribute__((vector_size(COLUMNS * 4)));

/// Makes levels of sums.
void take_levels(Row& levels, const Row& sums)
{
    constexpr int HALF = 1 << (LEVEL_BITS - 1);
    const SignedRow rounded = (reinterpret_cast<SignedRow>(sums) + HALF) >> LEVEL_BITS;
    const SignedRow positive = rounded > 0 ? rounded : SignedRow{};
    levels = reinterpret_cast<Row>(positive < OPAQUE ? positive : SignedRow{} + OPAQUE);
}

/// The levels of a line over an area of that alpha, which is in parts of 256.
void lay_over(Row& opacity, const Row& area, std::uint16_t area_alpha, const Row& line)
{
    const Row clear_of_area = OPAQUE - ((area * area_alpha + 128) >> 8);
    const Row clear = clear_of_area * (OPAQUE - line) + 128;
    opacity = OPAQUE - ((clear + (clear >> 8)) >> 8);
}

/// Blends a colour over the pixels of a row. Every second byte of them is worked on at once.
void blend(unsigned char* pixels, const Row& opacity, std::uint32_t color)
{
    const Row part = opacity + (opacity >> 7);  // of 256
    const WideRow twice = __builtin_convertvector(part, WideRow) * 0x10001U;
    Row parts[2];
    std::memcpy(parts, &twice, sizeof parts);
    const Row colors = reinterpret_cast<Row>(PixelRow{color, color, color, color});
    for (std::size_t i = 0; i < 2; ++i) {
        Row bytes;
        std::memcpy(&bytes, pixels + i * sizeof bytes, sizeof bytes);
        const Row low = (bytes << 8) + ((colors & 0xFF) - (bytes & 0xFF)) * parts[i] + 128;
        const Row high = (bytes & 0xFF00) + ((colors >> 8) - (bytes >> 8)) * parts[i] + 128;
        bytes = (low >> 8) | (high & 0xFF00);
        std::memcpy(pixels + i * sizeof bytes, &bytes, sizeof bytes);
    }
}

/// An opaque colour as cairo makes it.
std::uint32_t pixel_of(const Rgb& color)
{
    const auto channel = [](double value) { return static_cast<std::uint32_t>(std::clamp(value, 0.0, 1.0) * 65535.0 + 0.5) >> 8U; };
    return 0xFF000000U | channel(color.r) << 16U | channel(color.g) << 8U | channel(color.b);
}

}  // namespace

/// How far what lies below some edges covers the pixels of a block.
class CurveCoverage::Cells {
public:
    explicit Cells(int row_count) : m_bottom(static_cast<float>(row_count))
    {
        std::memset(m_rows, 0, (static_cast<std::size_t>(row_count) + END_ROWS) * sizeof(Row));
    }

    /// Adds what lies below an edge, whose y counts from the first row. A pixel that is covered wholly counts `covered`.
    void add(const Edge& edge, float covered);
    /// The levels of the next row.
    void take_row(Row& levels, int row)
    {
        m_change += m_rows[row];
        m_sum += m_change;
        take_levels(levels, m_sum);
    }

private:
    void add_cut(const Edge& edge, float covered);
    void add_level(const Edge& edge, float covered);
    void add_ramp(const Edge& edge, float covered);
    std::uint16_t* cell(int row, int column) { return reinterpret_cast<std::uint16_t*>(m_rows) + row * COLUMNS + column; }

    const float m_bottom;
    Row m_change{};
    Row m_sum{};
    Row m_rows[BLOCK_ROWS + END_ROWS];
};

inline void CurveCoverage::Cells::add(const Edge& edge, float covered)
{
    const float highest = std::min(edge.y_left, edge.y_right);
    const float lowest = std::max(edge.y_left, edge.y_right);
    if (highest >= m_bottom) {
        return;
    }
    if (lowest <= 0 || std::abs(edge.slope) < LEVEL_SLOPE) {
        add_level(edge, covered);
    } else if (highest >= 0 && lowest <= m_bottom) {
        add_ramp(edge, covered);
    } else {
        add_cut(edge, covered);
    }
}

/// Adds an edge with a slope that leaves the rows upwards or downwards.
void CurveCoverage::Cells::add_cut(const Edge& edge, float covered)
{
    const bool goes_down = edge.slope > 0;
    const auto x = [&](float y) { return std::clamp(edge.left + (y - edge.y_left) / edge.slope, edge.left, edge.right); };
    const float x_top = x(0.0F);
    const float x_bottom = x(m_bottom);
    add_level(goes_down ? edge.between(edge.left, x_top) : edge.between(x_top, edge.right), covered);
    const Edge inside = goes_down ? edge.between(x_top, x_bottom) : edge.between(x_bottom, x_top);
    if (inside.left < inside.right) {
        add_ramp(inside, covered);
    }
}

/// As if the edge were level in each column.
void CurveCoverage::Cells::add_level(const Edge& edge, float covered)
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
        cells[COLUMNS] = static_cast<std::uint16_t>(cells[COLUMNS] + 2 * below - all);
        cells[2 * COLUMNS] = static_cast<std::uint16_t>(cells[2 * COLUMNS] - below);
    }
}

namespace {

/// What an end of an edge makes of three cells below each other.
struct End {
    int row;
    int parts[END_ROWS];

    /// `gain` is how much more of each row is covered, from here on.
    End(float y, int gain) : row(static_cast<int>(y))
    {
        const float above = y - static_cast<float>(row);
        const float below = 1 - above;
        const float half = static_cast<float>(gain) / 2;
        parts[0] = static_cast<int>(half * below * below);
        parts[2] = static_cast<int>(half * above * above);
        parts[1] = gain - parts[0] - parts[2];
    }
    void add_to(std::uint16_t* cells) const
    {
        for (int i = 0; i < END_ROWS; ++i) {
            cells[i * COLUMNS] = static_cast<std::uint16_t>(cells[i * COLUMNS] + parts[i]);
        }
    }
    void take_from(std::uint16_t* cells) const
    {
        for (int i = 0; i < END_ROWS; ++i) {
            cells[i * COLUMNS] = static_cast<std::uint16_t>(cells[i * COLUMNS] - parts[i]);
        }
    }
};

}  // namespace

/// Adds an edge with a slope, all of it inside of the rows.
void CurveCoverage::Cells::add_ramp(const Edge& edge, float covered)
{
    const int gain = static_cast<int>(std::lrint(covered / edge.slope));  // negative for an edge that goes up: it begins with its lower end
    int column = static_cast<int>(edge.left);
    const End begin(edge.y_left, gain);
    begin.add_to(cell(begin.row, column));
    for (; static_cast<float>(column + 1) < edge.right; ++column) {
        const End crossing(edge.y(static_cast<float>(column + 1)), gain);
        std::uint16_t* const cells = cell(crossing.row, column);
        crossing.take_from(cells);
        crossing.add_to(cells + 1);
    }
    const End end(edge.y_right, gain);
    end.take_from(cell(end.row, column));
}

/// Takes the edges of the next block; blocks are gone through from left to right.
void CurveCoverage::Edges::take(const CurveOutline::Chain& chain, int column)
{
    in_block.clear();
    const auto origin = static_cast<float>(column);
    const float end = origin + COLUMNS;
    while (first + 1 < chain.size() && chain[first + 1].x <= origin) {
        ++first;
    }
    for (std::size_t i = first; i + 1 < chain.size() && chain[i].x < end; ++i) {
        const CurveOutline::Point& from = chain[i];
        const CurveOutline::Point& to = chain[i + 1];
        if (from.x < to.x) {
            const Edge edge{from.x - origin, to.x - origin, from.y, to.y, (to.y - from.y) / (to.x - from.x)};
            const bool is_inside = from.x >= origin && to.x <= end;
            in_block.push_back(is_inside ? edge : edge.between(std::max(edge.left, 0.0F), std::min(edge.right, float{COLUMNS})));
        }
    }
}

/// The pixels of a block on the canvas, as far as they are painted.
struct CurveCoverage::Pixels {
    unsigned char* rows;  ///< of the chart, from its first one
    std::ptrdiff_t stride;
    std::size_t begin;  ///< bytes of a row that are not to be painted
    std::size_t size;   ///< bytes that are
    std::uint32_t color;

    void paint(int row, const Row& opacity) const
    {
        unsigned char* const pixels = rows + row * stride;
        if (size == COLUMNS * BYTES) {
            blend(pixels, opacity, color);
            return;
        }
        unsigned char copy[COLUMNS * BYTES] = {};
        std::memcpy(copy + begin, pixels + begin, size);
        blend(copy, opacity, color);
        std::memcpy(pixels + begin, copy + begin, size);
    }
};

CurveCoverage::~CurveCoverage()
{
    cairo_surface_destroy(m_mask);
}

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
    m_curve.first = m_upper.first = m_lower.first = 0;
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
    m_upper.take(m_outline.upper(), column);
    m_lower.take(m_outline.lower(), column);
    m_curve.take(m_outline.curve(), column);
    auto top = static_cast<float>(m_part.bottom);
    float end = 0.0F;
    for (const Edge& edge : m_upper.in_block) {
        top = std::min(top, std::min(edge.y_left, edge.y_right));
    }
    for (const Edge& edge : m_lower.in_block) {
        end = std::max(end, std::max(edge.y_left, edge.y_right));
    }
    const std::size_t left = static_cast<std::size_t>(std::max(m_part.left - column, 0));
    const std::size_t right = static_cast<std::size_t>(std::min(m_part.right - column, COLUMNS));
    const Pixels pixels{.rows = m_canvas.data + static_cast<std::ptrdiff_t>(m_canvas.chart.y) * m_canvas.stride +
                                static_cast<std::ptrdiff_t>(m_canvas.chart.x + column) * static_cast<std::ptrdiff_t>(BYTES),
                        .stride = m_canvas.stride,
                        .begin = left * BYTES,
                        .size = (right - left) * BYTES,
                        .color = m_color};
    const int first_row = static_cast<int>(std::max(top, 0.0F));
    const int end_row = static_cast<int>(std::ceil(std::min(end, static_cast<float>(m_part.bottom))));
    for (int row = first_row; row < end_row; row += BLOCK_ROWS) {
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
    const auto shift = -static_cast<float>(top);
    for (const Edge& edge : m_curve.in_block) {
        area.add(edge.lower_by(shift), COVERED);
    }
    for (const Edge& edge : m_upper.in_block) {
        line.add(edge.lower_by(shift), m_line_covered);
    }
    for (const Edge& edge : m_lower.in_block) {
        line.add(edge.lower_by(shift), -m_line_covered);
    }
    for (int row = top; row < end; ++row) {
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

cairo_surface_t* CurveCoverage::opacity(const std::deque<double>& history, int capacity, int w, int h, int scale, const CurveLook& look)
{
    if (history.size() < 2 || capacity < 2 || w <= 0 || h <= 0 || scale <= 0) {
        return nullptr;
    }
    const int width = w * scale;
    const int height = h * scale;
    if (m_mask == nullptr || cairo_image_surface_get_width(m_mask) != width || cairo_image_surface_get_height(m_mask) != height) {
        cairo_surface_destroy(m_mask);
        m_mask = cairo_image_surface_create(CAIRO_FORMAT_A8, width, height);
    }
    cairo_surface_set_device_scale(m_mask, scale, scale);
    m_mask_pixels.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0);
    paint(history, capacity, look, {1, 1, 1},
          {.data = reinterpret_cast<unsigned char*>(m_mask_pixels.data()),
           .stride = width * static_cast<int>(BYTES),
           .chart = {0, 0, width, height},
           .clip = {0, 0, width, height},
           .scale = scale});
    cairo_surface_flush(m_mask);
    for (int y = 0; y < height; ++y) {
        unsigned char* const row =
            cairo_image_surface_get_data(m_mask) + static_cast<std::ptrdiff_t>(y) * cairo_image_surface_get_stride(m_mask);
        for (int x = 0; x < width; ++x) {
            row[x] = static_cast<unsigned char>(
                m_mask_pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)] >> 24U);
        }
    }
    cairo_surface_mark_dirty(m_mask);
    return m_mask;
}
