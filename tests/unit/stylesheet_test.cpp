/// The stylesheet: every rule with its values, for both schemes, the user's colours and all languages; odd colours; the cut.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "i18n.h"
#include "settings.h"
#include "theme.h"

using testing::Contains;
using testing::ElementsAreArray;
using testing::EndsWith;

namespace {

constexpr std::size_t LONGEST = 4095;  // bytes of a stylesheet

/// The text without its comments, and with every run of blanks as one.
std::string squeezed(const std::string& css)
{
    std::string text;
    for (std::size_t i = 0; i < css.size(); ++i) {
        if (css.compare(i, 2, "/*") == 0) {
            i = css.find("*/", i) + 1;
        } else if (css[i] != ' ' && css[i] != '\n') {
            text += css[i];
        } else if (!text.empty() && text.back() != ' ') {
            text += ' ';
        }
    }
    return text;
}

/// The rules in their order, each like ".a, .b { color: red; margin: 0; }".
std::vector<std::string> rules_of(const std::string& css)
{
    std::vector<std::string> rules(1);
    for (const char c : squeezed(css)) {
        if (c != ' ' || !rules.back().empty()) {
            rules.back() += c;
        }
        if (c == '}') {
            rules.emplace_back();
        }
    }
    if (rules.back().empty()) {
        rules.pop_back();
    }
    return rules;
}

/// The values that the rules are filled with.
struct Look {
    std::string bg, panel, border, text, gear, dim, soft, well, outline;
    std::string font = "monospace";
};

const Look LIGHT{.bg = "#D9D9D9",
                 .panel = "#EBEBEB",
                 .border = "#B3B3B3",
                 .text = "#404040",
                 .gear = "#CC3326",
                 .dim = "#707070",   // 64 * 0.72 + 235 * 0.28 = 111.88
                 .soft = "#606060",  // 64 * 0.81 + 235 * 0.19 = 96.49
                 .well = "#E2E2E2",  // between 235 and 217
                 .outline = "#909090"};

const Look DARK{.bg = "#1C1C1E",
                .panel = "#2C2C2E",
                .border = "#48484A",
                .text = "#E5E5E7",
                .gear = "#FFFFFF",
                .dim = "#B1B1B3",   // 229 * 0.72 + 44 * 0.28 = 177.2
                .soft = "#C2C2C4",  // 229 * 0.81 + 44 * 0.19 = 193.85
                .well = "#242426",  // between 44 and 28
                .outline = "#8A8A8E"};

std::vector<std::string> rules_for(const Look& l)
{
    const std::string card = "background-color: " + l.panel + "; border-radius: 5px; border: 1px solid " + l.border + "; ";
    const std::string text = "color: " + l.text + "; ";
    const std::string dim = "color: " + l.dim + "; ";
    const std::string font = "font-family: " + l.font + "; ";
    return {
        "window { background-color: " + l.bg + "; }",
        ".header { padding: 6px 8px 4px 8px; }",
        ".cpu-name { " + text + "font-family: monospace; font-size: 10px; font-weight: bold; }",
        ".info-line { " + text + font + "font-size: 9px; }",
        ".total-card { " + card + "margin: 2px 6px; padding: 4px; }",
        ".section-header { margin: 5px 6px 1px 6px; }",
        ".group-name { " + text + font + "font-size: 10px; font-weight: bold; }",
        ".group-freq { " + dim + "font-family: monospace; font-size: 9px; }",
        ".core-card { " + card + "padding: 3px 3px 2px 3px; }",
        ".core-label { " + dim + font + "font-size: 9px; font-weight: bold; }",
        ".pct-label { font-family: monospace; font-size: 9px; font-weight: bold; }",
        ".popover-box { padding: 12px; }",
        ".about-name { " + text + "font-size: 14px; font-weight: bold; }",
        ".about-version { " + dim + "font-size: 10px; }",
        ".about-dev { " + text + "font-size: 10px; }",
        ".about-dim { " + dim + "font-size: 9px; }",
        ".disclaimer-box { background-color: " + l.well + "; border-radius: 5px; padding: 8px; }",
        ".disclaimer-text { color: " + l.soft + "; font-size: 9px; }",
        ".settings-label { " + text + "font-size: 11px; }",
        ".settings-expander, .settings-expander > label, .settings-expander label { " + text + "font-size: 11px; font-weight: bold; }",
        ".gear-btn, .gear-btn label { color: " + l.gear + "; font-size: 13px; font-weight: bold; }",
        ".gear-btn { padding: 0; margin: 0; min-width: 0; min-height: 0; border: none; box-shadow: none; }",
        ".throttle-label { " + font + "font-size: 9px; font-weight: bold; }",
        ".color-swatch, .color-swatch colorswatch, .color-swatch button { border: 1px solid " + l.outline +
            "; border-radius: 3px; min-width: 34px; min-height: 18px; }",
        ".settings-combo, .settings-combo button { min-height: 22px; padding-top: 1px; padding-bottom: 1px; font-size: 11px; }",
    };
}

/// Those rules as one text: a colour that is none can make rules that no longer come apart.
std::string text_for(const Look& look)
{
    std::string text;
    for (const std::string& rule : rules_for(look)) {
        text += rule + "\n";
    }
    return squeezed(text);
}

/// A palette that has nothing but its border and its scheme to give to a stylesheet.
Palette bare_palette(bool dark, const std::string& border)
{
    return {.dark = dark, .background = "#B1", .panel = "#B2", .text = "#B3", .border = border, .chart_bg = "#B4", .gear = "#B5"};
}

class Stylesheet : public testing::Test {
protected:
    Stylesheet() { I18n::instance().set_language("en"); }

    std::string css(bool dark = false) const { return build_css(settings, Palette::for_theme(dark)); }
    std::vector<std::string> rules(bool dark = false) const { return rules_of(css(dark)); }

    Settings settings;
};

// --- rules and values ---

TEST_F(Stylesheet, HasAllRulesInTheirOrderWithTheLightDefaults)
{
    EXPECT_THAT(rules(false), ElementsAreArray(rules_for(LIGHT)));
}

TEST_F(Stylesheet, HasAllRulesInTheirOrderWithTheDarkDefaults)
{
    EXPECT_THAT(rules(true), ElementsAreArray(rules_for(DARK)));
}

TEST_F(Stylesheet, TakesColorsFromTheSettingsAndOnlyBorderAndSchemeFromThePalette)
{
    for (const bool dark : {false, true}) {
        settings.background(dark) = "#102030";
        settings.panel(dark) = "#F0A050";
        settings.text(dark) = "#0000FF";
        settings.gear(dark) = "#ABCDEF";
        settings.background(!dark) = settings.panel(!dark) = settings.text(!dark) = settings.gear(!dark) = "#000000";
        const Look look{.bg = "#102030",
                        .panel = "#F0A050",
                        .border = "#123456",
                        .text = "#0000FF",
                        .gear = "#ABCDEF",
                        .dim = "#432DCE",   // a share of 0.28 of the panel
                        .soft = "#2E1EDE",  // of 0.19
                        .well = "#806040",
                        .outline = dark ? "#8A8A8E" : "#909090"};
        EXPECT_THAT(rules_of(build_css(settings, bare_palette(dark, "#123456"))), ElementsAreArray(rules_for(look)));
    }
}

TEST_F(Stylesheet, DoesNotLookAtTheThemeOfTheSettings)
{
    settings.theme = "dark";
    EXPECT_THAT(rules(false), ElementsAreArray(rules_for(LIGHT)));
    settings.theme = "light";
    EXPECT_THAT(rules(true), ElementsAreArray(rules_for(DARK)));
}

TEST_F(Stylesheet, HasNothingOfTheChartColors)
{
    const std::string before = css();
    settings.total = "#010203";
    settings.groups.fill("#010203");
    EXPECT_EQ(css(), before);
}

TEST_F(Stylesheet, KeepsTheCaseOfAColorButMixesInUpperCase)
{
    settings.text_light = settings.panel_light = settings.bg_light = "#abcdef";
    Look look = LIGHT;
    look.text = look.panel = look.bg = "#abcdef";
    look.dim = look.soft = look.well = "#ABCDEF";
    EXPECT_THAT(rules(), ElementsAreArray(rules_for(look)));
}

TEST_F(Stylesheet, IsWholeWithTheDefaults)
{
    for (const bool dark : {false, true}) {
        EXPECT_LT(css(dark).size(), LONGEST);
        EXPECT_THAT(css(dark), EndsWith("}\n"));
    }
}

// --- fonts ---

TEST_F(Stylesheet, FontFollowsTheLanguageWhereItIsNotFixed)
{
    constexpr std::array PROPORTIONAL = {"zh", "zh_TW", "ja", "ko", "ar", "fa", "ur", "he", "hi", "ne", "bn", "th"};
    for (const LanguageInfo& language : I18n::available()) {
        I18n::instance().set_language(language.code);
        Look look = LIGHT;
        look.font = std::find(PROPORTIONAL.begin(), PROPORTIONAL.end(), language.code) != PROPORTIONAL.end() ? "sans-serif" : "monospace";
        EXPECT_THAT(rules(), ElementsAreArray(rules_for(look))) << language.code;
    }
}

TEST_F(Stylesheet, UnknownLanguageIsEnglishWithMonospace)
{
    I18n::instance().set_language("he");
    I18n::instance().set_language("xx");
    EXPECT_THAT(rules(), ElementsAreArray(rules_for(LIGHT)));
}

// --- odd colours ---

TEST_F(Stylesheet, ColorsWithoutHashGetItBack)
{
    const std::vector<std::string> with_hash = rules(true);
    settings.bg_dark = "1C1C1E";
    settings.panel_dark = "2C2C2E";
    settings.text_dark = "E5E5E7";
    settings.gear_dark = "FFFFFF";
    EXPECT_THAT(rules(true), ElementsAreArray(with_hash));
    settings.gear_dark = "ffFFff";
    EXPECT_THAT(rules(true), Contains(".gear-btn, .gear-btn label { color: #ffFFff; font-size: 13px; font-weight: bold; }"));
}

TEST_F(Stylesheet, TextThatIsNoColorGoesInAsItStandsAndUnmixed)
{
    for (const char* odd : {"chartreuse", "#FFF", "", "#GGGGGG", "1234567", "red; }", "%s%n%d", "$bg", "$"}) {
        settings.text_light = odd;
        Look look = LIGHT;
        look.text = look.dim = look.soft = odd;
        EXPECT_EQ(squeezed(css()), text_for(look)) << odd;
    }
}

TEST_F(Stylesheet, ValueEndsAtItsFirstZeroByte)
{
    settings.text_light = std::string("blue\0; } * {", 12);
    Look look = LIGHT;
    look.text = look.dim = look.soft = "blue";
    EXPECT_EQ(squeezed(css()), text_for(look));
}

TEST_F(Stylesheet, PanelThatIsNoColorLeavesTheTextUndimmedAndTheWellAsItIs)
{
    settings.panel_light = "no colour";
    Look look = LIGHT;
    look.panel = look.well = "no colour";
    look.dim = look.soft = look.text;
    EXPECT_THAT(rules(), ElementsAreArray(rules_for(look)));
}

TEST_F(Stylesheet, PanelThatIsNoColorLeavesTextWithoutHashWithItsHash)
{
    settings.panel_light = "no colour";
    settings.text_light = "404040";
    Look look = LIGHT;
    look.panel = look.well = "no colour";
    look.dim = look.soft = look.text;
    EXPECT_THAT(rules(), ElementsAreArray(rules_for(look)));
}

TEST_F(Stylesheet, BackgroundThatIsNoColorLeavesTheWellLikeThePanel)
{
    settings.bg_light = "no colour";
    Look look = LIGHT;
    look.bg = "no colour";
    look.well = look.panel;
    EXPECT_THAT(rules(), ElementsAreArray(rules_for(look)));
}

TEST_F(Stylesheet, GearThatIsNoColorGoesInAsItStands)
{
    settings.gear_light = "no colour";
    Look look = LIGHT;
    look.gear = "no colour";
    EXPECT_THAT(rules(), ElementsAreArray(rules_for(look)));
}

// --- the cut ---

/// The stylesheet with so long a gear colour, which stands in it once, that it would have that many bytes.
std::string css_of_length(std::size_t length)
{
    Settings settings;
    settings.gear_light = "";
    settings.gear_light.assign(length - build_css(settings, Palette::light()).size(), 'x');
    return build_css(settings, Palette::light());
}

TEST_F(Stylesheet, IsCutBehind4095Bytes)
{
    const std::string whole = css_of_length(LONGEST);
    EXPECT_EQ(whole.size(), LONGEST);
    EXPECT_THAT(whole, EndsWith("}\n"));
    EXPECT_EQ(css_of_length(LONGEST - 1).size(), LONGEST - 1);

    const std::string cut = css_of_length(LONGEST + 1);
    EXPECT_EQ(cut.size(), LONGEST);
    EXPECT_THAT(cut, EndsWith("}"));
}

TEST_F(Stylesheet, KeepsTheBeginningOfWhatIsFarTooLong)
{
    settings.gear_light = "";
    const std::string plain = css();
    const std::string before_gear = ".gear-btn, .gear-btn label { color: ";
    const std::size_t place = plain.find(before_gear) + before_gear.size();
    settings.gear_light.assign(100'000, 'x');
    EXPECT_EQ(css(), plain.substr(0, place) + std::string(LONGEST - place, 'x'));
}

// --- comments ---

/// The selectors of the rules that a comment stands right before.
std::vector<std::string> commented_selectors(const std::string& css)
{
    constexpr std::size_t SHORTEST_REASON = 20;  // characters
    std::vector<std::string> selectors;
    for (auto begin = css.find("/*"); begin != std::string::npos; begin = css.find("/*", begin + 2)) {
        const auto end = css.find("*/", begin);
        const auto rule = css.find_first_not_of(" \n", end + 2);
        if (end - begin > SHORTEST_REASON) {
            selectors.push_back(css.substr(rule, css.find(" {", rule) - rule));
        }
    }
    return selectors;
}

TEST_F(Stylesheet, KeepsTheReasonsForItsOddRulesAsComments)
{
    for (const bool dark : {false, true}) {
        const std::vector<std::string> commented = commented_selectors(css(dark));
        EXPECT_THAT(commented, Contains(".settings-expander, .settings-expander > label, .settings-expander label"));
        EXPECT_THAT(commented, Contains(".gear-btn, .gear-btn label"));
        EXPECT_THAT(commented, Contains(".gear-btn"));
        EXPECT_THAT(commented, Contains(".color-swatch, .color-swatch colorswatch, .color-swatch button"));
        EXPECT_THAT(commented, Contains(".settings-combo, .settings-combo button"));
    }
}

}  // namespace
