#include "chart_font.h"

#include <algorithm>

void select_chart_font(cairo_t* cr)
{
    cairo_select_font_face(cr, "monospace", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
}

ChartFont::ChartFont(cairo_t* cr, double size)
{
    cairo_save(cr);
    select_chart_font(cr);
    cairo_set_font_size(cr, size);
    m_font.reset(cairo_scaled_font_reference(cairo_get_scaled_font(cr)), cairo_scaled_font_destroy);
    cairo_restore(cr);
}

const ChartFont::Character& ChartFont::character(char c)
{
    std::optional<Character>& known = m_characters[static_cast<unsigned char>(c) % std::size(m_characters)];
    if (!known) {
        known = Character{};
        cairo_glyph_t buffer[1];
        cairo_glyph_t* glyphs = buffer;
        int count = 1;
        if (cairo_scaled_font_text_to_glyphs(m_font.get(), 0, 0, &c, 1, &glyphs, &count, nullptr, nullptr, nullptr) ==
                CAIRO_STATUS_SUCCESS &&
            count == 1) {
            known->glyph = glyphs[0].index;
            cairo_scaled_font_glyph_extents(m_font.get(), glyphs, 1, &known->extents);
        }
        if (glyphs != buffer) {
            cairo_glyph_free(glyphs);
        }
    }
    return *known;
}

cairo_text_extents_t ChartFont::measure(std::string_view text)
{
    double left = 0.0;
    double right = 0.0;
    double top = 0.0;
    double bottom = 0.0;
    double x = 0.0;
    bool has_ink = false;
    for (const char c : text.substr(0, LONGEST)) {
        const cairo_text_extents_t& e = character(c).extents;
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

void ChartFont::show(cairo_t* cr, double x, double y, std::string_view text)
{
    cairo_glyph_t glyphs[LONGEST];
    int count = 0;
    for (const char c : text.substr(0, LONGEST)) {
        const Character& known = character(c);
        glyphs[count++] = {.index = known.glyph, .x = x, .y = y};
        x += known.extents.x_advance;
    }
    cairo_set_scaled_font(cr, m_font.get());
    cairo_show_glyphs(cr, glyphs, count);
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
