/// The font of texts in charts, prepared for many short texts of the same few characters: cairo looks the font up and asks it about
/// each character again whenever a text is measured. What comes out is what cairo's text calls give. Main thread only.
#pragma once

#include <cairo.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// Makes that font the context's, at whatever size it has.
void select_chart_font(cairo_t* cr);

/// The font at one size. For texts of ASCII characters.
class ChartFont {
public:
    /// `size` in units of the context, whose scale and font options are those of all texts to come.
    ChartFont(cairo_t* cr, double size);

    /// As cairo_text_extents.
    cairo_text_extents_t measure(std::string_view text);

    /// As cairo_show_text, from that point on, in the context's colour. Leaves the font to the context.
    void show(cairo_t* cr, double x, double y, const std::string& text) const;

private:
    struct Character {
        char c;
        cairo_text_extents_t extents;
    };
    const cairo_text_extents_t& extents_of(char c);

    const double m_size;
    std::shared_ptr<cairo_scaled_font_t> m_font;
    std::vector<Character> m_characters;  ///< those that have been asked for, some twenty: clocks and percentages
};

/// The sizes of the font that are in use, for one scale at a time.
class ChartFonts {
public:
    /// Borrowed, until the next call. The context's matrix may shift, and scale by its device's scale alone.
    ChartFont& at(cairo_t* cr, double size);

private:
    struct Known {
        double size;
        std::unique_ptr<ChartFont> font;
    };
    static constexpr std::size_t MOST = 12;  // cards differ by a pixel, texts by the width of a digit

    std::vector<Known> m_fonts;
    double m_scale = 0.0;
};
