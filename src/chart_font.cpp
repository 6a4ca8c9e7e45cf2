/// Extents are added up from those of single characters, which are kept; cairo shows the texts.
#include "chart_font.h"

#include <algorithm>

void select_chart_font(cairo_t* cr)
{
    cairo_select_font_face(cr, "monospace", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
}

ChartFont::ChartFont(cairo_t* cr, double size) : m_size(size)
{
    cairo_save(cr);
    select_chart_font(cr);
    cairo_set_font_size(cr, size);
    m_font.reset(cairo_scaled_font_reference(cairo_get_scaled_font(cr)), cairo_scaled_font_destroy);
    cairo_restore(cr);
}

const cairo_text_extents_t& ChartFont::extents_of(char c)
{
    const auto known = std::find_if(m_characters.begin(), m_characters.end(), [c](const Character& k) { return k.c == c; });
    if (known != m_characters.end()) {
        return known->extents;
    }
    const char text[] = {c, '\0'};
    m_characters.push_back({c, {}});
    cairo_scaled_font_text_extents(m_font.get(), text, &m_characters.back().extents);
    return m_characters.back().extents;
}

cairo_text_extents_t ChartFont::measure(std::string_view text)
{
    double left = 0.0;
    double right = 0.0;
    double top = 0.0;
    double bottom = 0.0;
    double x = 0.0;
    bool has_ink = false;
    for (const char c : text) {
        const cairo_text_extents_t& e = extents_of(c);
        if (e.width != 0 && e.height != 0) {
            const double ink_left = e.x_bearing + x;
            left = has_ink ? std::min(left, ink_left) : ink_left;
            right = has_ink ? std::max(right, ink_left + e.width) : ink_left + e.width;
            top = has_ink ? std::min(top, e.y_bearing) : e.y_bearing;
            bottom = has_ink ? std::max(bottom, e.y_bearing + e.height) : e.y_bearing + e.height;
            has_ink = true;
        }
        x += e.x_advance;
    }
    return {.x_bearing = left, .y_bearing = top, .width = right - left, .height = bottom - top, .x_advance = x, .y_advance = 0.0};
}

void ChartFont::show(cairo_t* cr, double x, double y, const std::string& text) const
{
    select_chart_font(cr);
    cairo_set_font_size(cr, m_size);
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, text.c_str());
}

ChartFont& ChartFonts::at(cairo_t* cr, double size)
{
    double scale = 0.0;
    cairo_surface_get_device_scale(cairo_get_target(cr), &scale, nullptr);
    if (scale != m_scale || m_fonts.size() == MOST) {
        m_fonts.clear();
        m_scale = scale;
    }
    const auto known = std::find_if(m_fonts.begin(), m_fonts.end(), [size](const Known& k) { return k.size == size; });
    if (known != m_fonts.end()) {
        return *known->font;
    }
    m_fonts.push_back({size, std::make_unique<ChartFont>(cr, size)});
    return *m_fonts.back().font;
}
