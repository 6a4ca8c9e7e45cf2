/// Measures, formats and places of what stands in a chart, and the backdrop as cairo paints it.
#include "chart_look.h"

#include <cstdio>
#include <iterator>

namespace {

constexpr double MHZ_PER_GHZ = 1000.0;

constexpr double GRID_LINE_WIDTH = 0.5;

constexpr int OVERLAY_MIN_WIDTH = 40;  // the chart must be wider than this
constexpr double OVERLAY_MARGIN = 4.0;

constexpr const char* GHZ_FORMS[] = {"%.3f GHz", "%.1f GHz", "%.1fG", "%.1f"};
constexpr const char* MHZ_FORMS[] = {"%.0f MHz", "%.0fM", "%.0f"};

}  // namespace

void ChartLook::paint_backdrop(cairo_t* cr, int w, int h, const Palette& pal)
{
    Rgb background;
    hex_to_rgb(pal.chart_bg, background);
    cairo_set_source_rgb(cr, background.r, background.g, background.b);
    cairo_paint(cr);
    cairo_set_line_width(cr, GRID_LINE_WIDTH);
    cairo_set_source_rgba(cr, pal.ink, pal.ink, pal.ink, pal.grid_alpha);
    for (const double pct : {0.25, 0.5, 0.75}) {
        const double y = (1.0 - pct) * h;
        cairo_move_to(cr, 0, y);
        cairo_line_to(cr, w, y);
        cairo_stroke(cr);
    }
}

bool ChartLook::has_overlay(int w, double load)
{
    return w > OVERLAY_MIN_WIDTH && load >= 0;
}

std::string ChartLook::load_text(double load)
{
    char text[16];
    std::snprintf(text, sizeof text, "%.0f%%", load * 100);
    return text;
}

ChartLook::Origin ChartLook::overlay_origin(int w, const cairo_text_extents_t& ext)
{
    return {w - ext.width - ext.x_bearing - OVERLAY_MARGIN, OVERLAY_MARGIN - ext.y_bearing};
}

ChartLook::Origin ChartLook::ghost_origin(int w, int h, const cairo_text_extents_t& ext)
{
    return {(w - ext.width) * 0.5 - ext.x_bearing, (h + ext.height) * 0.5 - ext.y_bearing - ext.height};
}

ChartLook::FrequencyForms::FrequencyForms(double mhz)
{
    if (mhz >= MHZ_PER_GHZ) {
        m_formats = GHZ_FORMS;
        m_count = std::size(GHZ_FORMS);
        m_value = mhz / MHZ_PER_GHZ;
    } else if (mhz > 0) {
        m_formats = MHZ_FORMS;
        m_count = std::size(MHZ_FORMS);
        m_value = mhz;
    }
}

std::string ChartLook::FrequencyForms::text(std::size_t form) const
{
    char text[32];
    std::snprintf(text, sizeof text, m_formats[form], m_value);
    return text;
}
