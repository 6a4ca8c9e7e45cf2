/// Colours: the record Rgb, the two built-in palettes, the built-in chart colours, the helpers for "#RRGGBB" text, and the stylesheet
/// that is made of them. Constants, and functions that keep nothing: any thread, but for build_css().
#pragma once

#include <array>
#include <cfloat>
#include <string>

// Settings are made of what stands here. Only build_css() looks into them, and so has a source file of its own: theme_stylesheet.cpp
struct Settings;

/// The value in the width of a double. Registers of some machines are wider, and what they keep beyond it would tip a rounding.
inline double as_double(double value)
{
    if constexpr (FLT_EVAL_METHOD == 0) {
        return value;
    }
    const volatile double in_memory = value;
    return in_memory;
}

/// A colour; each channel is nominally 0.0 to 1.0.
struct Rgb {
    double r = 0.0;
    double g = 0.0;
    double b = 0.0;
};

/// The fixed look of one scheme. Those called default only seed the user's Settings.
struct Palette {
    bool dark = false;
    std::string background;  ///< default window background
    std::string panel;       ///< default fill of cards and panels
    std::string text;        ///< default text colour
    std::string border;      ///< outline of cards and panels; not configurable
    std::string chart_bg;    ///< background of a chart; not configurable
    std::string gear;        ///< default colour of the settings button
    double ink = 0.0;        ///< grey level (0 black, 1 white) of grid lines and ghost text
    double grid_alpha = 0.0;
    double ghost_alpha = 0.0;

    static Palette light();
    static Palette dark_();
    static Palette for_theme(bool dark);
};

/// Built-in colours of the total chart and of the four cluster groups: the defaults of Settings and the fallback of painters.
namespace ColorDefaults {
inline const std::string TOTAL = "#00A659";
inline const std::array<std::string, 4> GROUPS = {"#CC3326", "#0080D9", "#00A659", "#8066D9"};
}  // namespace ColorDefaults

/// Blends per channel; `t` is the weight of `a` (1.0 gives `a`, 0.0 gives `b`).
Rgb mix(const Rgb& a, const Rgb& b, double t);

/// Parses six hexadecimal digits of either case behind an optional "#". Returns false, and leaves `out` alone, for anything else.
bool hex_to_rgb(const std::string& text, Rgb& out);

/// The colour text as GTK and Pango want it: a valid one gets its leading "#" if that is missing; any other stays as it is.
std::string with_hash(const std::string& color);

/// "#RRGGBB" in upper case; channels are rounded, and those outside 0.0 to 1.0 are clamped.
std::string rgb_to_hex(const Rgb& color);

/// Blends two colour texts as mix() does. If either does not parse, the result is `a` exactly as it stands.
std::string mix_hex(const std::string& a, const std::string& b, double t);

/// The program's whole stylesheet: the user's colours for the palette's scheme, in the interface font of the current language.
/// A colour that does not parse goes in as it stands. At most 4095 bytes; what is longer is cut. Main thread only.
std::string build_css(const Settings& settings, const Palette& palette);
