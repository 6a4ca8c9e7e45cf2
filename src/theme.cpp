#include "theme.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "i18n.h"
#include "settings.h"

namespace {

constexpr double CHANNEL_MAX = 255.0;

constexpr std::size_t CSS_BUFFER_SIZE = 4096;
constexpr double DIM_TEXT = 0.72;  // weight of the text colour over the panel's
constexpr double SOFT_TEXT = 0.81;
constexpr double WELL_PANEL = 0.5;  // weight of the panel colour over the background's
constexpr const char* OUTLINE_DARK = "#8A8A8E";
constexpr const char* OUTLINE_LIGHT = "#909090";

// The values in the order in which build_css() fills them in. Comments are part of the stylesheet, so GTK's inspector shows them.
constexpr const char* CSS_TEMPLATE = R"css(window { background-color: %s; }
.header { padding: 6px 8px 4px 8px; }
.cpu-name { color: %s; font-family: monospace; font-size: 10px; font-weight: bold; }
.info-line { color: %s; font-family: %s; font-size: 9px; }
.total-card { background-color: %s; border-radius: 5px; border: 1px solid %s; margin: 2px 6px; padding: 4px; }
.section-header { margin: 5px 6px 1px 6px; }
.group-name { color: %s; font-family: %s; font-size: 10px; font-weight: bold; }
.group-freq { color: %s; font-family: monospace; font-size: 9px; }
.core-card { background-color: %s; border-radius: 5px; border: 1px solid %s; padding: 3px 3px 2px 3px; }
.core-label { color: %s; font-family: %s; font-size: 9px; font-weight: bold; }
.pct-label { font-family: monospace; font-size: 9px; font-weight: bold; }
.popover-box { padding: 12px; }
.about-name { color: %s; font-size: 14px; font-weight: bold; }
.about-version { color: %s; font-size: 10px; }
.about-dev { color: %s; font-size: 10px; }
.about-dim { color: %s; font-size: 9px; }
.disclaimer-box { background-color: %s; border-radius: 5px; padding: 8px; }
.disclaimer-text { color: %s; font-size: 9px; }
.settings-label { color: %s; font-size: 11px; }
/* GTK's own colour for the label is a mid-grey, hard to read on a dark panel */
.settings-expander, .settings-expander > label, .settings-expander label { color: %s; font-size: 11px; font-weight: bold; }
/* A button's colour has to reach the label in it */
.gear-btn, .gear-btn label { color: %s; font-size: 13px; font-weight: bold; }
/* Without the padding and minimum size of GTK's theme, which push the gear out of its corner */
.gear-btn { padding: 0; margin: 0; min-width: 0; min-height: 0; border: none; box-shadow: none; }
.throttle-label { font-family: %s; font-size: 9px; font-weight: bold; }
/* Nearly black on nearly black would vanish without an outline */
.color-swatch, .color-swatch colorswatch, .color-swatch button { border: 1px solid %s; border-radius: 3px; min-width: 34px; min-height: 18px; }
/* GTK gives combo boxes far more padding than the widgets around them */
.settings-combo, .settings-combo button { min-height: 22px; padding-top: 1px; padding-bottom: 1px; font-size: 11px; }
)css";

/// The low eight bits of `value` as a channel.
double channel(std::uint32_t value)
{
    return (value & 0xFFU) / CHANNEL_MAX;
}

/// A channel as the byte that stands for it. Written so that NaN, too, ends in a byte.
unsigned channel_byte(double c)
{
    const double scaled = as_double(as_double(c * CHANNEL_MAX) + 0.5);
    if (!(scaled > 0.0)) {
        return 0;
    }
    return scaled >= CHANNEL_MAX ? 255U : static_cast<unsigned>(scaled);
}

}  // namespace

Palette Palette::light()
{
    return {.dark = false,
            .background = "#D9D9D9",
            .panel = "#EBEBEB",
            .text = "#404040",
            .border = "#B3B3B3",
            .chart_bg = "#F5F5F5",
            .gear = "#CC3326",
            .ink = 0.0,
            .grid_alpha = 0.1,
            .ghost_alpha = 0.12};
}

Palette Palette::dark_()
{
    return {.dark = true,
            .background = "#1C1C1E",
            .panel = "#2C2C2E",
            .text = "#E5E5E7",
            .border = "#48484A",
            .chart_bg = "#1E1E20",
            .gear = "#FFFFFF",
            .ink = 1.0,
            .grid_alpha = 0.1,
            .ghost_alpha = 0.22};
}

Palette Palette::for_theme(bool dark)
{
    return dark ? dark_() : light();
}

Rgb mix(const Rgb& a, const Rgb& b, double t)
{
    const double rest = 1.0 - t;
    return {a.r * t + b.r * rest, a.g * t + b.g * rest, a.b * t + b.b * rest};
}

bool hex_to_rgb(const std::string& text, Rgb& out)
{
    constexpr std::size_t DIGITS = 6;
    std::string_view digits = text;
    if (digits.starts_with('#')) {
        digits.remove_prefix(1);
    }
    if (digits.size() != DIGITS) {
        return false;
    }
    // from_chars takes neither sign nor prefix for an unsigned number, so reaching the end means six hexadecimal digits
    std::uint32_t value = 0;
    const char* const end = digits.data() + digits.size();
    if (std::from_chars(digits.data(), end, value, 16).ptr != end) {
        return false;
    }
    out = {channel(value >> 16), channel(value >> 8), channel(value)};
    return true;
}

std::string with_hash(const std::string& color)
{
    Rgb ignored;
    const bool lacks_hash = hex_to_rgb(color, ignored) && !color.starts_with('#');
    return lacks_hash ? '#' + color : color;
}

std::string rgb_to_hex(const Rgb& color)
{
    char text[8];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", channel_byte(color.r), channel_byte(color.g), channel_byte(color.b));
    return text;
}

std::string mix_hex(const std::string& a, const std::string& b, double t)
{
    Rgb first;
    Rgb second;
    if (!hex_to_rgb(a, first) || !hex_to_rgb(b, second)) {
        return a;
    }
    return rgb_to_hex(mix(first, second, t));
}

std::string build_css(const Settings& settings, const Palette& palette)
{
    const std::string bg = with_hash(settings.background(palette.dark));
    const std::string panel = with_hash(settings.panel(palette.dark));
    const std::string text = with_hash(settings.text(palette.dark));
    const std::string gear = with_hash(settings.gear(palette.dark));
    const std::string dim = mix_hex(text, panel, DIM_TEXT);
    const std::string soft = mix_hex(text, panel, SOFT_TEXT);
    const std::string well = mix_hex(panel, bg, WELL_PANEL);
    const char* const font = I18n::instance().ui_font_family();
    const char* const outline = palette.dark ? OUTLINE_DARK : OUTLINE_LIGHT;

    std::array<char, CSS_BUFFER_SIZE> css;
    std::snprintf(css.data(), css.size(), CSS_TEMPLATE,
                  bg.c_str(),                             // window
                  text.c_str(),                           // .cpu-name
                  text.c_str(), font,                     // .info-line
                  panel.c_str(), palette.border.c_str(),  // .total-card
                  text.c_str(), font,                     // .group-name
                  dim.c_str(),                            // .group-freq
                  panel.c_str(), palette.border.c_str(),  // .core-card
                  dim.c_str(), font,                      // .core-label
                  text.c_str(),                           // .about-name
                  dim.c_str(),                            // .about-version
                  text.c_str(),                           // .about-dev
                  dim.c_str(),                            // .about-dim
                  well.c_str(),                           // .disclaimer-box
                  soft.c_str(),                           // .disclaimer-text
                  text.c_str(),                           // .settings-label
                  text.c_str(),                           // .settings-expander
                  gear.c_str(),                           // .gear-btn
                  font,                                   // .throttle-label
                  outline);                               // .color-swatch
    return css.data();
}
