/// Any bytes as the colours of the settings, one a line: what is a colour is one for the stylesheet and for markup too; what is none stays
/// as it stands.
#include <gtk/gtk.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "kernel_text.h"
#include "property.h"
#include "settings.h"
#include "theme.h"

namespace {

constexpr std::string_view HEX_DIGITS = "0123456789abcdefABCDEF";
constexpr std::size_t LONGEST_SHEET = 4095;

/// Background, panel, text, gear
using Colors = std::array<std::string, 4>;

bool is_color(const std::string& text)
{
    const std::string digits = text.substr(text.starts_with('#') ? 1 : 0);
    return digits.size() == 6 && digits.find_first_not_of(HEX_DIGITS) == std::string::npos;
}

std::string upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), g_ascii_toupper);
    return text;
}

/// The form that a colour has where GTK reads it.
std::string hashed(const std::string& text)
{
    return is_color(text) && !text.starts_with('#') ? '#' + text : text;
}

/// The two digits of a channel, 0 to 2, as a number.
int channel(const std::string& color, std::size_t number)
{
    return std::stoi(hashed(color).substr(1 + 2 * number, 2), nullptr, 16);
}

void require_text(const std::string& text)
{
    const Rgb before{.r = 0.25, .g = 0.5, .b = 0.75};
    Rgb color = before;
    require_equal(is_color(text), hex_to_rgb(text, color), "six digits behind an optional # are a colour, and nothing else is");
    require_equal(hashed(text), with_hash(text), "a colour gets its #, any other text stays as it is");
    require_equal(with_hash(text), with_hash(with_hash(text)), "a # is put before a colour once");
    if (!is_color(text)) {
        require(color.r == before.r && color.g == before.g && color.b == before.b, "what is no colour changes none");
        return;
    }
    require(color.r * 255.0 == channel(text, 0) && color.g * 255.0 == channel(text, 1) && color.b * 255.0 == channel(text, 2),
            "each channel is its two digits");
    require_equal(upper(hashed(text)), rgb_to_hex(color), "a colour becomes its own text");

    const std::string markup = "<span color='" + with_hash(text) + "'>1</span>";
    require(pango_parse_markup(markup.c_str(), -1, 0, nullptr, nullptr, nullptr, nullptr) != FALSE, "a colour is one in markup");
}

void require_mixed(const std::string& a, const std::string& b)
{
    const std::string mixed = mix_hex(a, b, 0.5);
    if (!is_color(a) || !is_color(b)) {
        require_equal(a, mixed, "without two colours the first text stays as it is");
        return;
    }
    require(is_color(mixed), "two colours make a colour");
    for (std::size_t i = 0; i < 3; ++i) {
        const int twice_off = 2 * channel(mixed, i) - channel(a, i) - channel(b, i);
        require(twice_off >= -1 && twice_off <= 1, "half of each is the mean, rounded");
    }
    require_equal(upper(hashed(a)), mix_hex(a, b, 1.0), "all of the first is the first");
    require_equal(upper(hashed(b)), mix_hex(a, b, 0.0), "nothing of the first is the second");
}

Settings settings_with(const Colors& colors, bool dark)
{
    Settings settings;
    settings.background(dark) = colors[0];
    settings.panel(dark) = colors[1];
    settings.text(dark) = colors[2];
    settings.gear(dark) = colors[3];
    return settings;
}

std::array<std::string, 7> values_in_sheet(const Colors& colors)
{
    const std::string bg = hashed(colors[0]);
    const std::string panel = hashed(colors[1]);
    const std::string text = hashed(colors[2]);
    return {bg, panel, text, hashed(colors[3]), mix_hex(text, panel, 0.72), mix_hex(text, panel, 0.81), mix_hex(panel, bg, 0.5)};
}

/// A stylesheet cut at its values: each text, and the number of the value that follows it. The last text has none.
struct SheetForm {
    std::vector<std::string> texts{""};
    std::vector<std::size_t> values;
};

/// The form of all stylesheets of a scheme, found by way of colours that can be told apart.
SheetForm form_of_sheets(bool dark)
{
    const Colors marks = {"#010000", "#000100", "#F00001", "#0F0002"};
    const auto marked = values_in_sheet(marks);
    const std::string sheet = build_css(settings_with(marks, dark), Palette::for_theme(dark));
    SheetForm form;
    for (std::string_view sheet_left = sheet; !sheet_left.empty();) {
        const auto mark = std::find_if(marked.begin(), marked.end(), [&](const std::string& m) { return sheet_left.starts_with(m); });
        const bool is_value = mark != marked.end();
        if (is_value) {
            form.values.push_back(static_cast<std::size_t>(mark - marked.begin()));
            form.texts.emplace_back();
        } else {
            form.texts.back() += sheet_left.front();
        }
        sheet_left.remove_prefix(is_value ? mark->size() : 1);
    }
    return form;
}

/// The stylesheet with these colours. A text ends at its first zero byte.
std::string expected_sheet(const Colors& colors, bool dark)
{
    static const std::array<SheetForm, 2> FORMS = {form_of_sheets(false), form_of_sheets(true)};
    const SheetForm& form = FORMS[dark ? 1 : 0];
    const auto values = values_in_sheet(colors);
    std::string sheet = form.texts.front();
    for (std::size_t i = 0; i < form.values.size(); ++i) {
        sheet.append(values[form.values[i]].c_str()).append(form.texts[i + 1]);
    }
    return sheet.substr(0, LONGEST_SHEET);
}

/// Whether GTK reads the stylesheet without a complaint.
bool is_good_for_gtk(const std::string& sheet)
{
    bool is_good = true;
    GtkCssProvider* provider = gtk_css_provider_new();
    const auto complain = +[](GtkCssProvider*, GtkCssSection*, GError*, bool* good) { *good = false; };
    g_signal_connect(provider, "parsing-error", G_CALLBACK(complain), &is_good);
    gtk_css_provider_load_from_data(provider, sheet.data(), static_cast<gssize>(sheet.size()), nullptr);
    g_object_unref(provider);
    return is_good;
}

void require_sheet(const Colors& colors, bool dark)
{
    const std::string sheet = build_css(settings_with(colors, dark), Palette::for_theme(dark));
    require(sheet.size() <= LONGEST_SHEET, "a stylesheet has at most 4095 bytes");
    require_equal(expected_sheet(colors, dark), sheet, "the stylesheet has the colours, and what is made of them, in their places");
    if (std::all_of(colors.begin(), colors.end(), is_color)) {
        const std::string usual = build_css(Settings(), Palette::for_theme(dark));
        for (const char sign : {'{', '}', ';', ':', '\n'}) {
            require_equal(std::count(usual.begin(), usual.end(), sign), std::count(sheet.begin(), sheet.end(), sign),
                          "colours bring no rules with them");
        }
        require(is_good_for_gtk(sheet), "GTK reads the stylesheet of any colours");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(data, data + size);
    const std::vector<std::string_view> lines = lines_of(input);
    Colors colors;
    for (std::size_t i = 0; i < colors.size(); ++i) {
        colors[i] = lines[i % lines.size()];
        require_text(colors[i]);
    }
    require_mixed(colors[0], colors[1]);
    require_mixed(colors[2], colors[3]);
    require_sheet(colors, size % 2 != 0);  // one scheme is enough at a time, as GTK takes a millisecond to read a stylesheet
    return 0;
}
