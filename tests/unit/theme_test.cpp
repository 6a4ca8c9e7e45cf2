/// The palettes and the helpers for "#RRGGBB" text.
#include "theme.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>

#include "app.h"

using testing::ElementsAre;

namespace {

/// The bytes that a colour text stands for; empty if it is refused.
std::vector<double> bytes(const std::string& text)
{
    Rgb color;
    return hex_to_rgb(text, color) ? std::vector<double>{color.r * 255, color.g * 255, color.b * 255} : std::vector<double>{};
}

const char* const BAD_COLORS[] = {
    "",        "#",       "#FFF",    "FFF",      "#FFFFF",  "FFFFF",   "#FFFFFFF", "FFFFFFF",  "#FFFFFFFF", "#GGGGGG",
    "GGGGGG",  "#12345G", "##12345", "##123456", "#12345#", "123456#", " #123456", "#123456 ", "# 12345",   "#12 456",
    "#+12345", "+12345",  "#-12345", "-12345",   "0x1234",  "#0x1234", "0X1234",   "#1234\n",  "#12345\n",  "#\xC3\xA9\xC3\xA9\xC3\xA9",
    "#/:@`g1",
};

// --- palettes ---

TEST(Palette, LightHasItsFixedValues)
{
    const Palette light = Palette::light();
    EXPECT_FALSE(light.dark);
    EXPECT_EQ("#D9D9D9", light.background);
    EXPECT_EQ("#EBEBEB", light.panel);
    EXPECT_EQ("#404040", light.text);
    EXPECT_EQ("#B3B3B3", light.border);
    EXPECT_EQ("#F5F5F5", light.chart_bg);
    EXPECT_EQ("#CC3326", light.gear);
    EXPECT_EQ(0.0, light.ink);
    EXPECT_EQ(0.1, light.grid_alpha);
    EXPECT_EQ(0.12, light.ghost_alpha);
}

TEST(Palette, DarkHasItsFixedValues)
{
    const Palette dark = Palette::dark_();
    EXPECT_TRUE(dark.dark);
    EXPECT_EQ("#1C1C1E", dark.background);
    EXPECT_EQ("#2C2C2E", dark.panel);
    EXPECT_EQ("#E5E5E7", dark.text);
    EXPECT_EQ("#48484A", dark.border);
    EXPECT_EQ("#1E1E20", dark.chart_bg);
    EXPECT_EQ("#FFFFFF", dark.gear);
    EXPECT_EQ(1.0, dark.ink);
    EXPECT_EQ(0.1, dark.grid_alpha);
    EXPECT_EQ(0.22, dark.ghost_alpha);
}

TEST(Palette, ForThemeGivesTheSetOfThatTheme)
{
    EXPECT_TRUE(Palette::for_theme(true).dark);
    EXPECT_EQ(Palette::dark_().panel, Palette::for_theme(true).panel);
    EXPECT_FALSE(Palette::for_theme(false).dark);
    EXPECT_EQ(Palette::light().panel, Palette::for_theme(false).panel);
}

TEST(ColorDefaults, HaveTheirFixedValues)
{
    EXPECT_EQ("#00A659", ColorDefaults::TOTAL);
    EXPECT_THAT(ColorDefaults::GROUPS, ElementsAre("#CC3326", "#0080D9", "#00A659", "#8066D9"));
}

// --- hex_to_rgb ---

TEST(HexToRgb, TakesDigitsOfEitherCaseWithAndWithoutHash)
{
    EXPECT_THAT(bytes("#1a2B3c"), ElementsAre(0x1A, 0x2B, 0x3C));
    EXPECT_THAT(bytes("1A2B3C"), ElementsAre(0x1A, 0x2B, 0x3C));
    EXPECT_THAT(bytes("abcdef"), ElementsAre(0xAB, 0xCD, 0xEF));
    EXPECT_THAT(bytes("#ABCDEF"), ElementsAre(0xAB, 0xCD, 0xEF));
}

TEST(HexToRgb, ChannelsRunFromZeroToOne)
{
    Rgb color;
    ASSERT_TRUE(hex_to_rgb("#FF0080", color));
    EXPECT_EQ(1.0, color.r);
    EXPECT_EQ(0.0, color.g);
    EXPECT_EQ(128 / 255.0, color.b);
}

TEST(HexToRgb, RefusesEverythingButSixDigitsAndLeavesTheOutputAlone)
{
    for (const char* bad : BAD_COLORS) {
        Rgb color = {0.1, 0.2, 0.3};
        EXPECT_FALSE(hex_to_rgb(bad, color)) << bad;
        EXPECT_EQ(0.1, color.r) << bad;
        EXPECT_EQ(0.2, color.g) << bad;
        EXPECT_EQ(0.3, color.b) << bad;
    }
}

TEST(HexToRgb, TakesHexadecimalDigitsAndNoOtherByteAtEveryPosition)
{
    for (const char* color : {"#123456", "123456"}) {
        for (std::size_t position = color[0] == '#' ? 1 : 0; position < std::string(color).size(); ++position) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string text = color;
                text[position] = static_cast<char>(byte);
                Rgb ignored;
                EXPECT_EQ(std::isxdigit(byte) != 0, hex_to_rgb(text, ignored)) << byte << " at " << position;
            }
        }
    }
}

TEST(HexToRgb, RefusesNulBytesAtTheEnds)
{
    Rgb color;
    EXPECT_FALSE(hex_to_rgb(std::string("#123456\0", 8), color));
    EXPECT_FALSE(hex_to_rgb(std::string("\000123456", 7), color));
}

// --- rgb_to_hex ---

TEST(RgbToHex, WritesUpperCaseDigitsWithHash)
{
    EXPECT_EQ("#0A0BCD", rgb_to_hex({10 / 255.0, 11 / 255.0, 205 / 255.0}));
    EXPECT_EQ("#000000", rgb_to_hex({}));
}

TEST(RgbToHex, RoundsHalvesUp)
{
    EXPECT_EQ("#80807F", rgb_to_hex({0.5, 127.5 / 255, 127.49 / 255}));
    EXPECT_EQ("#FFFE01", rgb_to_hex({254.5 / 255, 254.49 / 255, 0.5 / 255}));
}

TEST(RgbToHex, EveryByteComesBackFromItsChannel)
{
    for (unsigned byte = 0; byte <= 255; ++byte) {
        const double channel = byte / 255.0;
        EXPECT_EQ(byte, std::stoul(rgb_to_hex({0.0, 0.0, channel}).substr(1), nullptr, 16));
        EXPECT_EQ(byte, App::label_byte(channel)) << "cut towards zero, in a label's markup";
    }
}

TEST(RgbToHex, ClampsChannelsOutsideZeroToOne)
{
    EXPECT_EQ("#FF00FF", rgb_to_hex({1.5, -0.2, 1.01}));
    EXPECT_EQ("#00FF00", rgb_to_hex({-0.001, 1.0, -1e300}));
    constexpr double INFINITE = std::numeric_limits<double>::infinity();
    EXPECT_EQ("#FF00FF", rgb_to_hex({INFINITE, -INFINITE, 1e300}));
}

TEST(RgbToHex, MakesTextOfAnyNumberEvenOfNone)
{
    EXPECT_EQ(7, rgb_to_hex({std::nan(""), std::nan(""), std::nan("")}).size());
}

TEST(RgbToHex, IsTheInverseOfHexToRgb)
{
    for (unsigned byte = 0; byte < 256; ++byte) {
        char text[8];
        std::snprintf(text, sizeof text, "#%02X%02X%02X", byte, 255 - byte, byte ^ 0x55);
        Rgb color;
        ASSERT_TRUE(hex_to_rgb(text, color));
        EXPECT_EQ(text, rgb_to_hex(color));
    }
}

// --- mix, mix_hex, with_hash ---

TEST(Mix, WeighsTheFirstColorByT)
{
    const Rgb mixed = mix({1.0, 0.0, 0.5}, {0.0, 1.0, 0.5}, 0.25);
    EXPECT_EQ(0.25, mixed.r);
    EXPECT_EQ(0.75, mixed.g);
    EXPECT_EQ(0.5, mixed.b);
}

TEST(Mix, GivesTheFirstColorAtOneAndTheSecondAtZero)
{
    EXPECT_EQ("#112233", mix_hex("#112233", "#AABBCC", 1.0));
    EXPECT_EQ("#AABBCC", mix_hex("#112233", "#AABBCC", 0.0));
}

TEST(MixHex, BlackAndWhiteInEqualPartsAre808080)
{
    EXPECT_EQ("#808080", mix_hex("#000000", "#FFFFFF", 0.5));
}

TEST(MixHex, WritesHashAndUpperCaseWhateverTheArgumentsHad)
{
    EXPECT_EQ("#ABCDEF", mix_hex("abcdef", "#abcdef", 0.5));
}

TEST(MixHex, GivesTheFirstTextBackAsItStandsIfEitherIsBad)
{
    EXPECT_EQ("nonsense", mix_hex("nonsense", "#FFFFFF", 0.5));
    EXPECT_EQ("", mix_hex("", "#FFFFFF", 0.5));
    EXPECT_EQ("abcdef", mix_hex("abcdef", "#FFF", 0.5)) << "not even the hash is added";
    EXPECT_EQ("#FFF", mix_hex("#FFF", "nonsense", 0.5));
}

TEST(WithHash, AddsTheHashThatAValidColorLacks)
{
    EXPECT_EQ("#abcdef", with_hash("abcdef"));
    EXPECT_EQ("#ABCDEF", with_hash("#ABCDEF"));
}

TEST(WithHash, LeavesAnyOtherTextAlone)
{
    for (const char* bad : BAD_COLORS) {
        EXPECT_EQ(bad, with_hash(bad));
    }
}

TEST(HexToRgb, CopesWithRandomText)
{
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        std::string text(random() % 10, '\0');
        for (char& c : text) {
            c = "#0123456789abcdefABCDEFgG \0x+-"[random() % 31];
        }
        Rgb color;
        const std::string digits = text.starts_with('#') ? text.substr(1) : text;
        const bool valid = digits.size() == 6 && digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
        ASSERT_EQ(valid, hex_to_rgb(text, color)) << text;
    }
}

}  // namespace
