/// Backdrops are kept, one colour for each row; texts are left to ChartFont, curves to CurveCoverage.
#include "chart_painter.h"

#include <algorithm>

#include "chart_look.h"

namespace {

constexpr std::size_t MAX_BACKDROPS = 6;  // the total chart, and cards that differ by a pixel
constexpr std::uint32_t OPAQUE = 0xFF000000;

/// What cairo makes of a backdrop: the grid goes from side to side, so a chart of one unit's width tells all.
std::vector<std::uint32_t> painted_rows(int height, int scale, const Palette& pal)
{
    cairo_surface_t* const image = cairo_image_surface_create(CAIRO_FORMAT_RGB24, scale, height * scale);
    cairo_surface_set_device_scale(image, scale, scale);
    cairo_t* const cr = cairo_create(image);
    ChartLook::paint_backdrop(cr, 1, height, pal);
    const std::optional<PixelCanvas> canvas = PixelCanvas::of(cr);
    std::vector<std::uint32_t> rows;
    for (int y = 0; canvas && y < height * scale; ++y) {
        rows.push_back(canvas->row(y)[0] | OPAQUE);
    }
    cairo_destroy(cr);
    cairo_surface_destroy(image);
    return rows;
}

}  // namespace

void ChartPainter::paint(cairo_t* cr, const PixelCanvas& canvas, const Chart& chart, const Palette& pal)
{
    paint_backdrop(canvas, chart, pal);
    paint_ghost(cr, chart, pal);
    paint_curve(canvas, chart);
    if (ChartLook::has_overlay(chart.area.width, chart.load)) {
        paint_overlay(cr, chart);
    }
}

const ChartPainter::Backdrop& ChartPainter::backdrop(int height, int scale, const Palette& pal)
{
    const auto known = std::find_if(m_backdrops.begin(), m_backdrops.end(),
                                    [&](const Backdrop& b) { return b.height == height && b.scale == scale && b.dark == pal.dark; });
    if (known != m_backdrops.end()) {
        return *known;
    }
    if (m_backdrops.size() == MAX_BACKDROPS) {
        m_backdrops.clear();
    }
    m_backdrops.push_back({height, scale, pal.dark, painted_rows(height, scale, pal)});
    return m_backdrops.back();
}

void ChartPainter::paint_backdrop(const PixelCanvas& canvas, const Chart& chart, const Palette& pal)
{
    const cairo_rectangle_int_t pixels = canvas.pixels_of(chart.area);
    const std::vector<std::uint32_t>& colors = backdrop(chart.area.height, canvas.scale, pal).rows;
    const int top = canvas.y + chart.area.y * canvas.scale;
    for (int y = pixels.y; y < pixels.y + pixels.height; ++y) {
        const auto color = colors.begin() + (y - top);
        std::uint32_t* const row = canvas.row(y) + pixels.x;
        if (y > pixels.y && *color == color[-1]) {
            std::copy_n(canvas.row(y - 1) + pixels.x, pixels.width, row);  // the processor's fastest way to fill memory at this length
        } else {
            std::fill_n(row, pixels.width, *color);
        }
    }
    canvas.mark_dirty();
}

void ChartPainter::paint_ghost(cairo_t* cr, const Chart& chart, const Palette& pal)
{
    const auto& [x, y, w, h] = chart.area;
    const ChartLook::FrequencyForms forms(chart.mhz);
    const auto ghost = ChartLook::choose_ghost(
        w, h, forms.count(), [&](std::size_t form) { return forms.text(form); },
        [&](const std::string& text, double size) { return m_fonts.at(cr, size).measure(text).width; });
    if (!ghost) {
        return;
    }
    ChartFont& font = m_fonts.at(cr, ghost->size);
    const ChartLook::Origin origin = ChartLook::ghost_origin(w, h, font.measure(ghost->text));
    cairo_set_source_rgba(cr, pal.ink, pal.ink, pal.ink, pal.ghost_alpha);
    font.show(cr, x + origin.x, y + origin.y, ghost->text);
}

void ChartPainter::paint_curve(const PixelCanvas& canvas, const Chart& chart)
{
    const auto& [x, y, w, h] = chart.area;
    const int scale = canvas.scale;
    m_curve.paint(chart.history, ChartLook::MAX_POINTS, ChartLook::CURVE, chart.accent,
                  {.data = canvas.data,
                   .stride = canvas.stride,
                   .chart = {canvas.x + x * scale, canvas.y + y * scale, w * scale, h * scale},
                   .clip = canvas.clip,
                   .scale = scale});
    canvas.mark_dirty();
}

void ChartPainter::paint_overlay(cairo_t* cr, const Chart& chart)
{
    const std::string text = ChartLook::load_text(chart.load);
    ChartFont& font = m_fonts.at(cr, ChartLook::OVERLAY_FONT_SIZE);
    const ChartLook::Origin origin = ChartLook::overlay_origin(chart.area.width, font.measure(text));
    cairo_set_source_rgba(cr, chart.load_color.r, chart.load_color.g, chart.load_color.b, ChartLook::OVERLAY_ALPHA);
    font.show(cr, chart.area.x + origin.x, chart.area.y + origin.y, text);
}
