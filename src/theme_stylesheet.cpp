/// The stylesheet: a template, the values that its names stand for, and what puts the two together.
#include <algorithm>
#include <iterator>
#include <string_view>

#include "i18n.h"
#include "settings.h"
#include "theme.h"

namespace {

constexpr std::size_t MAX_CSS_SIZE = 4095;  // bytes
constexpr double DIM_TEXT = 0.72;           // weight of the text colour over the panel's
constexpr double SOFT_TEXT = 0.81;
constexpr double WELL_PANEL = 0.5;  // weight of the panel colour over the background's
constexpr const char* OUTLINE_DARK = "#8A8A8E";
constexpr const char* OUTLINE_LIGHT = "#909090";

// "$" and a name stand for a value. Comments are part of the stylesheet, so GTK's inspector shows them.
constexpr std::string_view CSS_TEMPLATE = R"css(window { background-color: $bg; }
.header { padding: 6px 8px 4px 8px; }
.cpu-name { color: $text; font-family: monospace; font-size: 10px; font-weight: bold; }
.info-line { color: $text; font-family: $font; font-size: 9px; }
.total-card { background-color: $panel; border-radius: 5px; border: 1px solid $border; margin: 2px 6px; padding: 4px; }
.section-header { margin: 5px 6px 1px 6px; }
.group-name { color: $text; font-family: $font; font-size: 10px; font-weight: bold; }
.group-freq { color: $dim; font-family: monospace; font-size: 9px; }
.core-card { background-color: $panel; border-radius: 5px; border: 1px solid $border; padding: 3px 3px 2px 3px; }
.core-label { color: $dim; font-family: $font; font-size: 9px; font-weight: bold; }
.pct-label { font-family: monospace; font-size: 9px; font-weight: bold; }
.popover-box { padding: 12px; }
.about-name { color: $text; font-size: 14px; font-weight: bold; }
.about-version { color: $dim; font-size: 10px; }
.about-dev { color: $text; font-size: 10px; }
.about-dim { color: $dim; font-size: 9px; }
.disclaimer-box { background-color: $well; border-radius: 5px; padding: 8px; }
.disclaimer-text { color: $soft; font-size: 9px; }
.settings-label { color: $text; font-size: 11px; }
/* GTK's own colour for the label is a mid-grey, hard to read on a dark panel */
.settings-expander, .settings-expander > label, .settings-expander label { color: $text; font-size: 11px; font-weight: bold; }
/* A button's colour has to reach the label in it */
.gear-btn, .gear-btn label { color: $gear; font-size: 13px; font-weight: bold; }
/* Without the padding and minimum size of GTK's theme, which push the gear out of its corner */
.gear-btn { padding: 0; margin: 0; min-width: 0; min-height: 0; border: none; box-shadow: none; }
.throttle-label { font-family: $font; font-size: 9px; font-weight: bold; }
/* Nearly black on nearly black would vanish without an outline */
.color-swatch, .color-swatch colorswatch, .color-swatch button { border: 1px solid $outline; border-radius: 3px; min-width: 34px; min-height: 18px; }
/* GTK gives combo boxes far more padding than the widgets around them */
.settings-combo, .settings-combo button { min-height: 22px; padding-top: 1px; padding-bottom: 1px; font-size: 11px; }
)css";

/// What goes in for the names.
struct CssValues {
    std::string bg;
    std::string panel;
    std::string border;
    std::string text;
    std::string gear;
    std::string dim;   // text of less weight
    std::string soft;  // text of a little less weight
    std::string well;  // a panel that lies deeper
    std::string outline;
    std::string font;
};

struct CssName {
    std::string_view name;
    std::string CssValues::*value;
};
constexpr CssName CSS_NAMES[] = {
    {"bg", &CssValues::bg},     {"panel", &CssValues::panel},     {"border", &CssValues::border}, {"text", &CssValues::text},
    {"gear", &CssValues::gear}, {"dim", &CssValues::dim},         {"soft", &CssValues::soft},     {"well", &CssValues::well},
    {"font", &CssValues::font}, {"outline", &CssValues::outline},
};

/// Null if there is none of that name.
constexpr const CssName* find_name(std::string_view name)
{
    const auto* const found = std::find_if(std::begin(CSS_NAMES), std::end(CSS_NAMES), [&](const CssName& n) { return n.name == name; });
    return found != std::end(CSS_NAMES) ? found : nullptr;
}

/// Hands out the template piece by piece: what stands as it is, and the names, without their "$".
template <typename OnText, typename OnName>
constexpr void read_template(OnText on_text, OnName on_name)
{
    std::string_view rest = CSS_TEMPLATE;
    for (std::size_t mark = rest.find('$'); mark != std::string_view::npos; mark = rest.find('$')) {
        on_text(rest.substr(0, mark));
        rest.remove_prefix(mark + 1);
        const std::string_view name = rest.substr(0, rest.find_first_not_of("abcdefghijklmnopqrstuvwxyz"));
        on_name(name);
        rest.remove_prefix(name.size());
    }
    on_text(rest);
}

constexpr bool are_all_names_known()
{
    bool are_known = true;
    read_template([](std::string_view) {}, [&](std::string_view name) { are_known = are_known && find_name(name) != nullptr; });
    return are_known;
}
static_assert(are_all_names_known());

/// In bytes, as long as colours are colours.
constexpr std::size_t longest_css()
{
    constexpr std::size_t LONGEST_VALUE = std::string_view("sans-serif").size();  // colours are shorter
    std::size_t size = 0;
    read_template([&](std::string_view text) { size += text.size(); }, [&](std::string_view) { size += LONGEST_VALUE; });
    return size;
}
static_assert(longest_css() <= MAX_CSS_SIZE);

CssValues css_values(const Settings& settings, const Palette& palette)
{
    const std::string bg = with_hash(settings.background(palette.dark));
    const std::string panel = with_hash(settings.panel(palette.dark));
    const std::string text = with_hash(settings.text(palette.dark));
    return {.bg = bg,
            .panel = panel,
            .border = palette.border,
            .text = text,
            .gear = with_hash(settings.gear(palette.dark)),
            .dim = mix_hex(text, panel, DIM_TEXT),
            .soft = mix_hex(text, panel, SOFT_TEXT),
            .well = mix_hex(panel, bg, WELL_PANEL),
            .outline = palette.dark ? OUTLINE_DARK : OUTLINE_LIGHT,
            .font = I18n::instance().ui_font_family()};
}

}  // namespace

std::string build_css(const Settings& settings, const Palette& palette)
{
    const CssValues values = css_values(settings, palette);
    std::string css;
    const auto append_value = [&](std::string_view name) {
        const std::string& value = values.*find_name(name)->value;
        css.append(value, 0, value.find('\0'));
    };
    read_template([&](std::string_view text) { css += text; }, append_value);
    css.resize(std::min(css.size(), MAX_CSS_SIZE));  // only what is no colour can be so long
    return css;
}
