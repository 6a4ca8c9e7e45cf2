/// What a chart looks like: the rules that both painters of charts keep to, App::paint_chart with cairo alone and ChartPainter on the
/// screen. All lengths are units of the chart, which begins at 0, 0. Main thread only.
#pragma once

#include <cairo.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>

#include "cpu_reader.h"
#include "curve_coverage.h"
#include "theme.h"

namespace ChartLook {

constexpr int MAX_POINTS = static_cast<int>(CPUReader::HISTORY_SIZE);  ///< a chart always spans a whole history
constexpr CurveLook CURVE{.line_width = 1.2, .line_alpha = 0.85, .fill_alpha_top = 0.55, .fill_alpha_bottom = 0.04};

/// A load as it is shown and told everywhere, in whole per cent.
std::string load_text(double load);

constexpr double OVERLAY_FONT_SIZE = 12.0;
constexpr double OVERLAY_ALPHA = 0.9;

/// Background and grid.
void paint_backdrop(cairo_t* cr, int w, int h, const Palette& pal);

/// Whether a chart of that width has room for the load in its corner; a negative load is never shown.
bool has_overlay(int w, double load);

/// Where a text of these extents begins.
struct Origin {
    double x;
    double y;
};
Origin overlay_origin(int w, const cairo_text_extents_t& ext);
Origin ghost_origin(int w, int h, const cairo_text_extents_t& ext);

/// The forms of a clock frequency in MHz for the ghost text, longest first; none if it is not positive.
class FrequencyForms {
public:
    explicit FrequencyForms(double mhz);
    std::size_t count() const { return m_count; }
    std::string text(std::size_t form) const;

private:
    const char* const* m_formats = nullptr;
    std::size_t m_count = 0;
    double m_value = 0.0;  ///< in the unit of the formats
};

/// What stands behind a curve: one of the candidates, at that size of font.
struct Ghost {
    std::string text;
    double size = 0.0;
};

/// The first of `count` candidates that can be read at that size of chart, which are told longest first; none if there is no room.
/// `text_at(i)` is the candidate, `width_of(text, size)` how wide its ink is.
template <typename TextAt, typename WidthOf>
std::optional<Ghost> choose_ghost(int w, int h, std::size_t count, const TextAt& text_at, const WidthOf& width_of)
{
    constexpr int MIN_HEIGHT = 20;
    constexpr double MARGINS = 6.0;
    constexpr double MIN_WIDTH = 12.0;
    constexpr double MAX_SIZE = 18.0;
    constexpr double SIZE_BY_HEIGHT = 0.42;
    constexpr double LEGIBLE = 9.0;   // a longer form of the clock must read without effort
    constexpr double MIN_FONT = 7.0;  // the shortest form may go down to this before it is given up

    const double avail = w - MARGINS;
    if (count == 0 || h < MIN_HEIGHT || avail < MIN_WIDTH) {
        return std::nullopt;
    }
    const double base_size = std::min(MAX_SIZE, h * SIZE_BY_HEIGHT);
    const auto fitted_size = [&](const std::string& text) {
        const double width = width_of(text, base_size);
        return width > avail && width > 0 ? base_size * avail / width : base_size;
    };
    for (std::size_t i = 0; i < count; ++i) {
        const std::string text = text_at(i);
        if (text.empty()) {
            continue;
        }
        if (const double size = fitted_size(text); size >= LEGIBLE) {
            return Ghost{text, size};
        }
    }
    const std::string shortest = text_at(count - 1);
    const double size = fitted_size(shortest);
    return size >= MIN_FONT ? std::optional(Ghost{shortest, size}) : std::nullopt;
}

}  // namespace ChartLook
