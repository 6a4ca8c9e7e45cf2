/// Painting, by the pixels that come of it: charts, ghost text, overlay, colour bar, and the colours of load and group. Many pictures
/// are magnified, so that a line of half a pixel fills whole ones and shows its colour unmixed.
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/pictures.h"
#include "desktop/reference_painter.h"
#include "desktop/screenshot.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A text that the program painted.
struct Shown {
    std::string text;
    double size = 0.0;
    std::string family;
    bool is_bold = false;
    bool is_upright = false;
};

std::vector<Shown> g_shown;  // since it was last cleared

}  // namespace

extern "C" void cairo_show_text(cairo_t* cr, const char* text)
{
    cairo_matrix_t font{};
    cairo_get_font_matrix(cr, &font);
    cairo_font_face_t* const face = cairo_get_font_face(cr);
    g_shown.push_back({.text = text,
                       .size = font.xx,
                       .family = cairo_toy_font_face_get_family(face),
                       .is_bold = cairo_toy_font_face_get_weight(face) == CAIRO_FONT_WEIGHT_BOLD,
                       .is_upright = cairo_toy_font_face_get_slant(face) == CAIRO_FONT_SLANT_NORMAL});
    next<decltype(cairo_show_text)>("cairo_show_text")(cr, text);
}

namespace {

constexpr int ZOOM = 10;
constexpr Rgb RED{0.8, 0.1, 0.2};
constexpr Pixel LIGHT_BACKGROUND{245, 245, 245};
constexpr Pixel DARK_BACKGROUND{30, 30, 32};
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

/// What a chart is painted from; at first a light one with nothing in it.
struct Chart {
    int w = 59;  ///< so that the points of a whole history stand one unit apart
    int h = 40;
    std::deque<double> history;
    std::vector<std::string> ghost;
    double overlay = -1.0;
    Palette palette = Palette::light();
    Rgb accent = RED;

    Picture paint(int zoom = 1) const
    {
        Picture picture(w, h, zoom);
        g_shown.clear();
        paint_on(picture.cr());
        return picture;
    }
    void paint_on(cairo_t* cr) const { App::paint_chart(cr, w, h, history, accent, palette, ghost, overlay); }
    Picture magnified() const { return paint(ZOOM); }

    /// The texts that are painted.
    std::vector<std::string> texts() const
    {
        paint();
        std::vector<std::string> list;
        for (const Shown& shown : g_shown) {
            list.push_back(shown.text);
        }
        return list;
    }

    /// Where paint is that this chart has and another hasn't.
    std::optional<PixelBox> paint_beyond(const Chart& other) const { return magnified().difference(other.magnified()); }
};

std::deque<double> flat(double value, std::size_t count = 60)
{
    return std::deque<double>(count, value);
}

/// A history that is 0 but for a full load at one place.
std::deque<double> spike(std::size_t place, std::size_t count)
{
    std::deque<double> history = flat(0.0, count);
    history[place] = 1.0;
    return history;
}

Rgb usage_color(double usage, bool dark)
{
    Rgb color;
    App::usage_color(usage, dark, color.r, color.g, color.b);
    return color;
}

std::string hex(const Rgb& color)
{
    return rgb_to_hex(color);
}

class Painting : public IdleAppTest {
protected:
    static Settings& settings() { return SettingsStore::instance().mutable_get(); }
};

using LoadColour = Painting;
using GroupColour = Painting;
using FrequencyTexts = Painting;
using Background = Painting;
using Grid = Painting;
using Curve = Painting;
using Ghost = Painting;
using Overlay = Painting;
using ColourBar = Painting;

}  // namespace

// --- colour of a load ---

TEST_F(LoadColour, InTheDarkThemeHasThreeBands)
{
    EXPECT_EQ(pixel_of(usage_color(1.0, true)), pixel_of({1.0, 0.35, 0.25}));
    EXPECT_EQ(pixel_of(usage_color(0.5, true)), pixel_of({1.0, 0.75, 0.15}));
    EXPECT_EQ(pixel_of(usage_color(0.0, true)), pixel_of({0.3, 0.85, 0.4}));
}

TEST_F(LoadColour, InTheLightThemeHasThreeBands)
{
    EXPECT_EQ(pixel_of(usage_color(1.0, false)), pixel_of({0.9, 0.2, 0.1}));
    EXPECT_EQ(pixel_of(usage_color(0.5, false)), pixel_of({0.8, 0.6, 0.0}));
    EXPECT_EQ(pixel_of(usage_color(0.0, false)), pixel_of({0.1, 0.6, 0.2}));
}

TEST_F(LoadColour, ThresholdsBelongToTheHigherBand)
{
    for (const bool dark : {false, true}) {
        EXPECT_EQ(hex(usage_color(0.7, dark)), hex(usage_color(1.0, dark)));
        EXPECT_EQ(hex(usage_color(std::nextafter(0.7, 0.0), dark)), hex(usage_color(0.5, dark)));
        EXPECT_EQ(hex(usage_color(0.3, dark)), hex(usage_color(0.5, dark)));
        EXPECT_EQ(hex(usage_color(std::nextafter(0.3, 0.0), dark)), hex(usage_color(0.0, dark)));
    }
}

// --- colour of a group ---

TEST_F(GroupColour, IndicesNoughtToThreeAreTheConfiguredGroups)
{
    settings().groups = {"#010203", "#040506", "#070809", "#0A0B0C"};
    EXPECT_EQ(hex(App::group_color(0)), "#010203");
    EXPECT_EQ(hex(App::group_color(1)), "#040506");
    EXPECT_EQ(hex(App::group_color(2)), "#070809");
    EXPECT_EQ(hex(App::group_color(3)), "#0A0B0C");
}

TEST_F(GroupColour, EveryOtherIndexIsTheTotal)
{
    settings().total = "#123456";
    for (const int index : {4, 7, -1, -2, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        EXPECT_EQ(hex(App::group_color(index)), "#123456") << index;
    }
}

TEST_F(GroupColour, ColourStoredWithoutItsHashCounts)
{
    settings().groups[1] = "abcdef";
    EXPECT_EQ(hex(App::group_color(1)), "#ABCDEF");
}

TEST_F(GroupColour, BrokenGroupFallsBackToTheDefaultOfThatSlot)
{
    settings().groups = {"", "red", "#12345", "#GGGGGG"};
    settings().total = "#123456";
    EXPECT_EQ(hex(App::group_color(0)), "#CC3326");
    EXPECT_EQ(hex(App::group_color(1)), "#0080D9");
    EXPECT_EQ(hex(App::group_color(2)), "#00A659");
    EXPECT_EQ(hex(App::group_color(3)), "#8066D9");
}

TEST_F(GroupColour, BrokenTotalFallsBackToItsDefault)
{
    settings().total = "green";
    EXPECT_EQ(hex(App::group_color(-1)), "#00A659");
}

// --- forms of a clock frequency ---

TEST_F(FrequencyTexts, GigahertzHaveFourFormsTheLongestFirst)
{
    EXPECT_THAT(App::freq_texts(3641.2), ElementsAre(localized("3.641 GHz"), localized("3.6 GHz"), localized("3.6G"), localized("3.6")));
}

TEST_F(FrequencyTexts, MegahertzHaveThreeFormsTheLongestFirst)
{
    EXPECT_THAT(App::freq_texts(799.7), ElementsAre("800 MHz", "800M", "800"));
}

TEST_F(FrequencyTexts, ExactlyAThousandIsAGigahertz)
{
    EXPECT_THAT(App::freq_texts(1000.0), ElementsAre(localized("1.000 GHz"), localized("1.0 GHz"), localized("1.0G"), localized("1.0")));
}

TEST_F(FrequencyTexts, UnitIsChosenBeforeRounding)
{
    EXPECT_THAT(App::freq_texts(999.6), ElementsAre("1000 MHz", "1000M", "1000"));
}

TEST_F(FrequencyTexts, UnknownFrequencyHasNone)
{
    EXPECT_THAT(App::freq_texts(0.0), IsEmpty());
    EXPECT_THAT(App::freq_texts(-1.0), IsEmpty());
    EXPECT_THAT(App::freq_texts(NOT_A_NUMBER), IsEmpty());
}

TEST_F(FrequencyTexts, EachIsCutAtThirtyOneBytes)
{
    EXPECT_EQ(App::freq_texts(1000.0 * std::ldexp(1.0, 100)).at(0), "1267650600228229401496703205376");
}

// --- background ---

TEST_F(Background, IsThatOfTheTheme)
{
    EXPECT_EQ(Chart{}.paint().at(0, 0), LIGHT_BACKGROUND);
    EXPECT_EQ(Chart{.palette = Palette::dark_()}.paint().at(58, 39), DARK_BACKGROUND);
}

TEST_F(Background, InvalidOneIsBlack)
{
    Palette palette = Palette::light();
    palette.chart_bg = "#F5F5";
    EXPECT_EQ(Chart{.palette = palette}.paint().at(0, 0), (Pixel{0, 0, 0}));
}

// --- grid ---

TEST_F(Grid, ThreeLinesHalfAPixelWideDivideTheHeightInFour)
{
    const Picture picture = Chart{}.magnified();
    for (int y = 0; y < picture.height(); ++y) {
        const double distance = std::min({std::abs(y + 0.5 - 100), std::abs(y + 0.5 - 200), std::abs(y + 0.5 - 300)});
        const double covered = distance < 2 ? 1.0 : distance < 3 ? 0.5 : 0.0;
        EXPECT_TRUE(is_about(picture.at(300, y), blend(LIGHT_BACKGROUND, {0, 0, 0}, 0.1 * covered))) << y << picture.at(300, y);
    }
}

TEST_F(Grid, LinesGoFromEdgeToEdge)
{
    const Picture picture = Chart{}.magnified();
    for (const int y : {100, 200, 300}) {
        EXPECT_TRUE(is_about(picture.at(0, y), {220, 220, 220}));
        EXPECT_TRUE(is_about(picture.at(picture.width() - 1, y), {220, 220, 220}));
    }
}

TEST_F(Grid, LinesOfTheDarkThemeAreWhite)
{
    const Picture picture = Chart{.palette = Palette::dark_()}.magnified();
    EXPECT_TRUE(is_about(picture.at(300, 200), blend(DARK_BACKGROUND, {1, 1, 1}, 0.1)));
}

TEST_F(Grid, LinesOfAnOddHeightStandBetweenPixels)
{
    const Picture picture = Chart{.h = 25}.magnified();
    for (const double y : {62.5, 125.0, 187.5}) {
        EXPECT_TRUE(is_about(picture.at(300, static_cast<int>(y)), {220, 220, 220})) << y;
        EXPECT_EQ(picture.at(300, static_cast<int>(y - 4)), LIGHT_BACKGROUND) << y;
        EXPECT_EQ(picture.at(300, static_cast<int>(y + 4)), LIGHT_BACKGROUND) << y;
    }
}

TEST_F(Grid, InkAndAlphaAreThoseOfThePalette)
{
    Palette palette = Palette::light();
    palette.ink = 0.5;
    palette.grid_alpha = 0.8;
    EXPECT_TRUE(is_about(Chart{.palette = palette}.magnified().at(300, 200), blend(LIGHT_BACKGROUND, {0.5, 0.5, 0.5}, 0.8)));
}

// --- curve ---

TEST_F(Curve, EmptyHistoryHasNone)
{
    const Picture picture = Chart{}.magnified();
    EXPECT_FALSE(picture.find([&](int x, int y) { return picture.at(x, y).r != picture.at(x, y).g; }));
}

TEST_F(Curve, OneValueShowsNothingAndFailsAtNothing)
{
    EXPECT_EQ(Chart{.history = {0.7}}.magnified(), Chart{}.magnified());
}

TEST_F(Curve, TwoValuesTakeTheLastOfFiftyNineSteps)
{
    const auto box = Chart{.history = {1.0, 1.0}}.paint_beyond({});
    ASSERT_TRUE(box);
    EXPECT_EQ(box->left, 580);
    EXPECT_EQ(box->right, 589);
}

TEST_F(Curve, SixtyValuesGoFromEdgeToEdge)
{
    const auto box = Chart{.history = flat(1.0)}.paint_beyond({});
    ASSERT_TRUE(box);
    EXPECT_EQ(box->left, 0);
    EXPECT_EQ(box->right, 589);
}

TEST_F(Curve, ShortHistoryIsPinnedToTheRightEdge)
{
    for (const int count : {2, 10, 59}) {
        const auto box = Chart{.history = flat(1.0, static_cast<std::size_t>(count))}.paint_beyond({});
        ASSERT_TRUE(box);
        EXPECT_EQ(box->left, (60 - count) * ZOOM) << count;
        EXPECT_EQ(box->right, 589) << count;
    }
}

TEST_F(Curve, EveryValueStandsAtItsFiftyNinth)
{
    for (const std::size_t place : {1U, 30U, 58U}) {
        const Picture picture = Chart{.history = spike(place, 60)}.magnified();
        const Picture empty = Chart{}.magnified();
        const auto box = picture.box_of([&](int x, int y) { return y < 40 && !(picture.at(x, y) == empty.at(x, y)); });
        ASSERT_TRUE(box);
        EXPECT_NEAR((box->left + box->right + 1) / 2.0, static_cast<double>(place * ZOOM), 1.0);
    }
}

TEST_F(Curve, NewestValueStandsAtTheRightEdge)
{
    const auto box = Chart{.history = spike(4, 5)}.paint_beyond({.history = flat(0.0, 5)});
    ASSERT_TRUE(box);
    EXPECT_EQ(box->right, 589);
    EXPECT_NEAR(box->left, 580, ZOOM);
}

TEST_F(Curve, OldestValueStandsFurthestLeft)
{
    const auto box = Chart{.history = spike(0, 5)}.paint_beyond({.history = flat(0.0, 5)});
    ASSERT_TRUE(box);
    EXPECT_NEAR(box->left, 550, 7);  // the end of a steep line sticks out by half its width
    EXPECT_NEAR(box->right, 560, ZOOM);
}

TEST_F(Curve, WidthStretchesTheSteps)
{
    const auto box = Chart{.w = 118, .history = flat(1.0, 30)}.paint_beyond({.w = 118});
    ASSERT_TRUE(box);
    EXPECT_EQ(box->left, 600);
}

TEST_F(Curve, LineIsOnePointTwoWideAtTheHeightOfItsValue)
{
    const Picture picture = Chart{.history = flat(0.6)}.magnified();
    const Pixel line_on_background = blend(LIGHT_BACKGROUND, RED, 0.85);
    EXPECT_EQ(picture.at(300, 153), LIGHT_BACKGROUND);
    for (int y = 154; y < 160; ++y) {
        EXPECT_TRUE(is_about(picture.at(300, y), line_on_background)) << y << picture.at(300, y);
    }
    EXPECT_FALSE(is_about(picture.at(300, 166), picture.at(300, 165), 10));
}

TEST_F(Curve, FillFadesFromTheTopOfTheChartToItsBottom)
{
    const Picture picture = Chart{.history = flat(0.9)}.magnified();
    for (const int y : {60, 150, 250, 350, 399}) {
        const double alpha = 0.55 + (0.04 - 0.55) * (y + 0.5) / 400;
        EXPECT_TRUE(is_about(picture.at(300, y), blend(LIGHT_BACKGROUND, RED, alpha))) << y << picture.at(300, y);
    }
}

TEST_F(Curve, FillBeginsAtTheCurve)
{
    EXPECT_EQ(Chart{.history = flat(0.6)}.magnified().at(300, 60), LIGHT_BACKGROUND);
}

TEST_F(Curve, FullLoadReachesTheTopAndNoLoadTheBottom)
{
    const Pixel line = blend(LIGHT_BACKGROUND, RED, 0.85);
    const Pixel top = Chart{.history = flat(1.0)}.magnified().at(300, 0);
    EXPECT_TRUE(is_about(top, blend(blend(LIGHT_BACKGROUND, RED, 0.55), RED, 0.85))) << top;
    EXPECT_TRUE(is_about(Chart{.history = flat(0.0)}.magnified().at(300, 399), line));
}

TEST_F(Curve, LiesOverTheGrid)
{
    const Picture picture = Chart{.history = flat(1.0)}.magnified();
    const Pixel grid = blend(LIGHT_BACKGROUND, {0, 0, 0}, 0.1);
    EXPECT_TRUE(is_about(picture.at(300, 100), blend(grid, RED, 0.55 - 0.51 * 0.25))) << picture.at(300, 100);
}

TEST_F(Curve, IsPaintedInTheAccentColour)
{
    const Rgb green{0.0, 0.8, 0.1};
    EXPECT_TRUE(is_about(Chart{.history = flat(0.6), .accent = green}.magnified().at(300, 156), blend(LIGHT_BACKGROUND, green, 0.85)));
}

// --- ghost text ---

namespace {

/// A tall chart with room for a text of that many units.
Chart with_room(double room, std::vector<std::string> ghost)
{
    return {.w = static_cast<int>(std::ceil(room)) + 6, .h = 60, .ghost = std::move(ghost)};
}

/// Width of a text at that size in the font of charts.
double width_at(double size, const std::string& text)
{
    const Picture picture(1, 1);
    cairo_select_font_face(picture.cr(), "monospace", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    return reference::width_of(picture.cr(), text, size);
}

/// The widths from `first` to `last` at which the ghost is that text.
std::vector<int> widths_with(const std::vector<std::string>& ghost, const std::string& text, int first, int last)
{
    std::vector<int> widths;
    for (int w = first; w <= last; ++w) {
        if (Chart{.w = w, .h = 60, .ghost = ghost}.texts() == std::vector<std::string>{text}) {
            widths.push_back(w);
        }
    }
    return widths;
}

const std::vector<std::string> FORMS = {"3.600 GHz", "3.6 GHz", "3.6G", "3.6"};

}  // namespace

TEST_F(Ghost, LongestFormIsTakenWhereThereIsRoom)
{
    EXPECT_THAT((Chart{.w = 200, .h = 60, .ghost = FORMS}.texts()), ElementsAre("3.600 GHz"));
}

TEST_F(Ghost, IsUprightBoldMonospace)
{
    Chart{.w = 200, .h = 60, .ghost = FORMS}.paint();
    ASSERT_EQ(g_shown.size(), 1U);
    EXPECT_EQ(g_shown[0].family, "monospace");
    EXPECT_TRUE(g_shown[0].is_bold);
    EXPECT_TRUE(g_shown[0].is_upright);
}

TEST_F(Ghost, SizeIsEighteenAtMost)
{
    Chart{.w = 400, .h = 43, .ghost = FORMS}.paint();
    EXPECT_EQ(g_shown.at(0).size, 18.0);
}

TEST_F(Ghost, SizeIsAtMostFortyTwoHundredthsOfTheHeight)
{
    Chart{.w = 400, .h = 30, .ghost = FORMS}.paint();
    EXPECT_NEAR(g_shown.at(0).size, 12.6, 1e-9);
}

TEST_F(Ghost, TextThatIsTooWideShrinksToTheRoomOfAllButSixPixels)
{
    const double room = width_at(18.0, "3.600 GHz") * 0.75;
    const Chart chart = with_room(room, {"3.600 GHz"});
    chart.paint();
    EXPECT_NEAR(g_shown.at(0).size, 18.0 * (chart.w - 6) / width_at(18.0, "3.600 GHz"), 1e-9);
}

TEST_F(Ghost, FormsGetShorterAsTheChartGetsNarrower)
{
    std::vector<std::string> seen;
    for (int w = 200; w >= 18; --w) {
        const std::vector<std::string> texts = Chart{.w = w, .h = 60, .ghost = FORMS}.texts();
        if (!texts.empty() && (seen.empty() || seen.back() != texts[0])) {
            seen.push_back(texts[0]);
        }
    }
    EXPECT_EQ(seen, FORMS);
}

TEST_F(Ghost, LongFormHasToStayAtNineOrMore)
{
    const std::vector<int> widths = widths_with({"3.600 GHz", "3.6"}, "3.600 GHz", 18, 200);
    const double half = width_at(18.0, "3.600 GHz") / 2;
    ASSERT_FALSE(widths.empty());
    EXPECT_EQ(widths.front(), static_cast<int>(std::ceil(half)) + 6);
    EXPECT_EQ(widths.back(), 200);
}

TEST_F(Ghost, ShortestFormMayGoDownToSeven)
{
    const std::vector<int> widths = widths_with({"3.600 GHz", "3.6"}, "3.6", 18, 40);
    const double smallest = width_at(18.0, "3.6") * 7.0 / 18.0;
    ASSERT_FALSE(widths.empty());
    EXPECT_EQ(widths.front(), static_cast<int>(std::ceil(smallest)) + 6);
}

TEST_F(Ghost, IsGivenUpBelowSeven)
{
    EXPECT_THAT((Chart{.w = 18, .h = 60, .ghost = {"3.600 GHz"}}.texts()), IsEmpty());
}

TEST_F(Ghost, FormsInTheMiddleMayNotGoBelowNine)
{
    const int w = widths_with(FORMS, "3.6G", 18, 200).front() - 1;
    EXPECT_THAT((Chart{.w = w, .h = 60, .ghost = FORMS}.texts()), ElementsAre("3.6"));
}

TEST_F(Ghost, NineteenPixelsAreTooLow)
{
    EXPECT_THAT((Chart{.w = 200, .h = 19, .ghost = FORMS}.texts()), IsEmpty());
}

TEST_F(Ghost, TwentyPixelsShowOnlyTheLastFormAtEightPointFour)
{
    EXPECT_THAT((Chart{.w = 200, .h = 20, .ghost = FORMS}.texts()), ElementsAre("3.6"));
    EXPECT_NEAR(g_shown.at(0).size, 8.4, 1e-9);
}

TEST_F(Ghost, TwentyTwoPixelsShowTheLongestForm)
{
    EXPECT_THAT((Chart{.w = 200, .h = 22, .ghost = FORMS}.texts()), ElementsAre("3.600 GHz"));
}

TEST_F(Ghost, SeventeenPixelsAreTooNarrow)
{
    EXPECT_THAT((Chart{.w = 17, .h = 60, .ghost = {"9"}}.texts()), IsEmpty());
}

TEST_F(Ghost, EighteenPixelsMayHaveOne)
{
    EXPECT_THAT((Chart{.w = 18, .h = 60, .ghost = {"9"}}.texts()), ElementsAre("9"));
}

TEST_F(Ghost, EmptyFormsAreSkipped)
{
    EXPECT_THAT((Chart{.w = 200, .h = 60, .ghost = {"", "3.6", ""}}.texts()), ElementsAre("3.6"));
}

TEST_F(Ghost, NoFormsPaintNothing)
{
    EXPECT_THAT((Chart{.w = 200, .h = 60}.texts()), IsEmpty());
    EXPECT_EQ((Chart{.w = 200, .h = 60, .ghost = {""}}.paint()), (Chart{.w = 200, .h = 60}.paint()));
}

TEST_F(Ghost, InkStandsInTheMiddleOfTheChart)
{
    for (const std::vector<std::string>& ghost : {std::vector<std::string>{"3.6G"}, {"g,"}, {"111"}}) {
        const Chart chart{.w = 100, .h = 60, .ghost = ghost};
        const auto box = chart.paint_beyond({.w = 100, .h = 60});
        ASSERT_TRUE(box);
        EXPECT_NEAR((box->left + box->right + 1) / 2.0, 500, 3) << ghost[0];
        EXPECT_NEAR((box->top + box->bottom + 1) / 2.0, 300, 3) << ghost[0];
    }
}

namespace {

/// A pixel below the middle line of the grid that has exactly that colour.
std::optional<std::pair<int, int>> find_color(const Picture& picture, const Pixel& color)
{
    return picture.find([&](int x, int y) { return y > 310 && is_about(picture.at(x, y), color, 1); });
}

}  // namespace

TEST_F(Ghost, IsFaintBlackInTheLightTheme)
{
    const Picture picture = Chart{.w = 100, .h = 60, .ghost = {"3.6"}}.magnified();
    EXPECT_TRUE(find_color(picture, blend(LIGHT_BACKGROUND, {0, 0, 0}, 0.12)));
}

TEST_F(Ghost, IsFaintWhiteInTheDarkTheme)
{
    const Picture picture = Chart{.w = 100, .h = 60, .ghost = {"3.6"}, .palette = Palette::dark_()}.magnified();
    EXPECT_TRUE(find_color(picture, blend(DARK_BACKGROUND, {1, 1, 1}, 0.22)));
}

TEST_F(Ghost, LiesUnderTheCurve)
{
    Chart chart{.w = 100, .h = 60, .ghost = {"3.6"}};
    const Pixel ghost = blend(LIGHT_BACKGROUND, {0, 0, 0}, 0.12);
    const auto place = find_color(chart.magnified(), ghost);
    ASSERT_TRUE(place);
    chart.history = flat(1.0);
    const auto [x, y] = *place;
    const double alpha = 0.55 - 0.51 * (y + 0.5) / 600;
    const Pixel there = chart.magnified().at(x, y);
    EXPECT_TRUE(is_about(there, blend(ghost, RED, alpha))) << there;
}

TEST_F(Ghost, LeavesFontAndColourOfTheContextAlone)
{
    const Picture picture(100, 60);
    cairo_set_font_size(picture.cr(), 33.0);
    cairo_select_font_face(picture.cr(), "serif", CAIRO_FONT_SLANT_ITALIC, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_source_rgb(picture.cr(), 1, 0, 1);
    App::draw_ghost(picture.cr(), 100, 60, {"3.6"}, Palette::light());
    cairo_matrix_t font{};
    cairo_get_font_matrix(picture.cr(), &font);
    EXPECT_EQ(font.xx, 33.0);
    EXPECT_STREQ(cairo_toy_font_face_get_family(cairo_get_font_face(picture.cr())), "serif");
    double red = 0;
    double green = 0;
    cairo_pattern_get_rgba(cairo_get_source(picture.cr()), &red, &green, nullptr, nullptr);
    EXPECT_EQ(red, 1.0);
    EXPECT_EQ(green, 0.0);
}

// --- overlay ---

namespace {

/// Where the overlay of a chart is.
std::optional<PixelBox> overlay_box(double load, int w = 100)
{
    return Chart{.w = w, .h = 60, .overlay = load}.paint_beyond({.w = w, .h = 60});
}

}  // namespace

TEST_F(Overlay, IsShownAtFortyOnePixelsAndNotAtForty)
{
    EXPECT_THAT((Chart{.w = 41, .overlay = 0.5}.texts()), ElementsAre("50%"));
    EXPECT_THAT((Chart{.w = 40, .overlay = 0.5}.texts()), IsEmpty());
}

TEST_F(Overlay, NegativeLoadNeverShowsOne)
{
    EXPECT_THAT((Chart{.w = 500, .overlay = -1.0}.texts()), IsEmpty());
}

TEST_F(Overlay, LoadThatIsNoNumberShowsNone)
{
    EXPECT_THAT((Chart{.w = 500, .overlay = NOT_A_NUMBER}.texts()), IsEmpty());
}

TEST_F(Overlay, IsAWholePercentageFromNoughtUp)
{
    EXPECT_THAT((Chart{.overlay = 0.0}.texts()), ElementsAre("0%"));
    EXPECT_THAT((Chart{.overlay = 0.126}.texts()), ElementsAre("13%"));
    EXPECT_THAT((Chart{.overlay = 1.0}.texts()), ElementsAre("100%"));
}

TEST_F(Overlay, IsCutAtFifteenBytes)
{
    EXPECT_THAT((Chart{.overlay = 1e17}.texts()), ElementsAre("100000000000000"));
}

TEST_F(Overlay, IsUprightBoldMonospaceOfSizeTwelve)
{
    Chart{.overlay = 0.5}.paint();
    EXPECT_EQ(g_shown.at(0).size, 12.0);
    EXPECT_EQ(g_shown.at(0).family, "monospace");
    EXPECT_TRUE(g_shown.at(0).is_bold);
    EXPECT_TRUE(g_shown.at(0).is_upright);
}

TEST_F(Overlay, InkKeepsFourPixelsFromTheTopRightCorner)
{
    for (const double load : {0.05, 0.5, 1.0}) {
        const auto box = overlay_box(load);
        ASSERT_TRUE(box);
        EXPECT_NEAR(box->right, 1000 - 40 - 1, 3) << load;
        EXPECT_NEAR(box->top, 40, 3) << load;
    }
}

TEST_F(Overlay, TakesTheColourOfTheLoad)
{
    for (const bool dark : {false, true}) {
        for (const double load : {0.0, 0.299, 0.3, 0.699, 0.7, 1.0}) {
            const Picture picture = Chart{.w = 100, .h = 60, .overlay = load, .palette = Palette::for_theme(dark)}.magnified();
            const Pixel wanted = blend(dark ? DARK_BACKGROUND : LIGHT_BACKGROUND, reference::load_color(load, dark), 0.9);
            EXPECT_TRUE(picture.find([&](int x, int y) { return is_about(picture.at(x, y), wanted, 1); })) << load << dark;
        }
    }
}

TEST_F(Overlay, LiesOverTheCurve)
{
    const Picture picture = Chart{.w = 100, .h = 60, .history = flat(1.0), .overlay = 0.0, .accent = {0, 0, 0}}.magnified();
    const int y = 80;
    const Pixel fill = blend(LIGHT_BACKGROUND, {0, 0, 0}, 0.55 - 0.51 * (y + 0.5) / 600);
    const Pixel wanted = blend(fill, reference::load_color(0.0, false), 0.9);
    EXPECT_TRUE(picture.find([&](int x, int row) { return row == y && is_about(picture.at(x, row), wanted, 1); }));
}

TEST_F(Overlay, LeavesTheFontOfTheContextAlone)
{
    const Picture picture(100, 60);
    cairo_set_font_size(picture.cr(), 33.0);
    App::paint_chart(picture.cr(), 100, 60, {}, RED, Palette::light(), {}, 0.5);
    cairo_matrix_t font{};
    cairo_get_font_matrix(picture.cr(), &font);
    EXPECT_EQ(font.xx, 33.0);
}

// --- whole charts against the reference ---

TEST_F(Painting, EqualsTheReferenceToThePixel)
{
    std::mt19937 random(20240229);
    const auto number = [&](double from, double to) { return std::uniform_real_distribution<double>(from, to)(random); };
    const auto whole = [&](int from, int to) { return std::uniform_int_distribution<int>(from, to)(random); };
    for (int i = 0; i < 300; ++i) {
        reference::Chart wanted{.w = whole(1, 250), .h = whole(1, 120), .dark = whole(0, 1) == 1};
        for (int points = whole(0, 60); points > 0; --points) {
            wanted.history.push_back(number(0.0, 1.0));
        }
        wanted.accent = {number(0, 1), number(0, 1), number(0, 1)};
        wanted.ghost = App::freq_texts(number(-1000, 6000));
        wanted.overlay = number(-0.5, 1.0);
        const Picture expected(wanted.w, wanted.h);
        reference::paint(expected.cr(), wanted);
        const Chart chart{.w = wanted.w,
                          .h = wanted.h,
                          .history = wanted.history,
                          .ghost = wanted.ghost,
                          .overlay = wanted.overlay,
                          .palette = Palette::for_theme(wanted.dark),
                          .accent = wanted.accent};
        ASSERT_EQ(chart.paint(), expected) << "chart " << i;
    }
}

// --- draw handler of charts ---

namespace {

/// A drawing area of that size, in no window.
class Area {
public:
    Area(int width, int height) : m_widget(gtk_drawing_area_new())
    {
        g_object_ref_sink(m_widget);
        gtk_widget_show(m_widget);
        gint ignored = 0;
        gtk_widget_get_preferred_width(m_widget, &ignored, nullptr);
        GtkAllocation place{0, 0, width, height};
        gtk_widget_size_allocate(m_widget, &place);
    }
    ~Area()
    {
        gtk_widget_destroy(m_widget);
        g_object_unref(m_widget);
    }
    Area(const Area&) = delete;
    Area& operator=(const Area&) = delete;

    GtkWidget* widget() const { return m_widget; }

private:
    GtkWidget* const m_widget;
};

class DrawChart : public Painting {
protected:
    static constexpr int W = 120;
    static constexpr int H = 60;

    /// What the handler paints for a CPU, or for -1.
    Picture draw(int cpu_index, int color_index = 0)
    {
        const Area area(W, H);
        ChartMeta meta{.cpu_index = cpu_index, .color_index = color_index};
        g_object_set_data(G_OBJECT(area.widget()), "meta", &meta);
        Picture picture(W, H);
        g_shown.clear();
        EXPECT_FALSE(App::draw_chart(area.widget(), picture.cr(), static_cast<App*>(&app)));
        return picture;
    }

    /// A chart of the handler's size, to compare with.
    static Chart chart() { return {.w = W, .h = H}; }

    IdleApp app;
};

}  // namespace

TEST_F(DrawChart, WithoutMetaPaintsNothing)
{
    const Area area(W, H);
    const Picture picture(W, H);
    EXPECT_FALSE(App::draw_chart(area.widget(), picture.cr(), static_cast<App*>(&app)));
    EXPECT_FALSE(picture.find([&](int x, int y) { return !(picture.at(x, y) == CLEAR); }));
}

TEST_F(DrawChart, CoreShowsItsHistoryItsClockAndItsGroupWithoutAnOverlay)
{
    settings().groups[2] = "#336699";
    app.m_cache.cores = {{}, {.usage = 0.5, .history = {0.1, 0.9, 0.5}}};
    app.m_cache.frequencies = {5000.0, 2400.0};
    app.m_cache.total = 0.5;
    Chart wanted = chart();
    wanted.history = {0.1, 0.9, 0.5};
    wanted.ghost = {localized("2.400 GHz")};
    wanted.accent = {0.2, 0.4, 0.6};
    EXPECT_EQ(draw(1, 2), wanted.paint());
}

TEST_F(DrawChart, TotalShowsTheMeansTheHighestClockAndTheLoad)
{
    settings().total = "#336699";
    app.m_cache.total = 0.42;
    app.m_cache.total_history = {0.1, 0.9, 0.42};
    app.m_cache.frequencies = {800.0, 4100.0, 2400.0};
    app.m_cache.cores = {{.usage = 0.9, .history = {0.9, 0.9}}};
    Chart wanted = chart();
    wanted.history = {0.1, 0.9, 0.42};
    wanted.ghost = {localized("4.100 GHz")};
    wanted.accent = {0.2, 0.4, 0.6};
    wanted.overlay = 0.42;
    EXPECT_EQ(draw(-1, -1), wanted.paint());
}

TEST_F(DrawChart, TotalWithoutFrequenciesHasNoGhost)
{
    Chart wanted = chart();
    wanted.overlay = 0.0;
    EXPECT_EQ(draw(-1, -1), wanted.paint());
}

TEST_F(DrawChart, CpuBeyondTheCachedCoresHasAnEmptyChart)
{
    app.m_cache.cores = {{.usage = 0.9, .history = {0.9, 0.9}}};
    EXPECT_EQ(draw(1), chart().paint());
    EXPECT_EQ(draw(1000), chart().paint());
}

TEST_F(DrawChart, CpuBeyondTheCachedCoresKeepsItsClock)
{
    app.m_cache.frequencies = {800.0, 2400.0};
    Chart wanted = chart();
    wanted.ghost = {localized("2.400 GHz")};
    EXPECT_EQ(draw(1), wanted.paint());
}

TEST_F(DrawChart, CpuBeyondTheFrequenciesHasNoGhost)
{
    app.m_cache.cores = {{}, {.usage = 0.9, .history = {0.9, 0.9}}};
    app.m_cache.frequencies = {2400.0};
    draw(1);
    EXPECT_THAT(g_shown, IsEmpty());
}

TEST_F(DrawChart, CpuWithAnUnknownFrequencyHasNoGhost)
{
    app.m_cache.frequencies = {-1.0, 2400.0};
    draw(0);
    EXPECT_THAT(g_shown, IsEmpty());
}

TEST_F(DrawChart, TakesThePaletteOfTheTheme)
{
    app.m_dark = true;
    Chart wanted = chart();
    wanted.palette = Palette::dark_();
    EXPECT_EQ(draw(0), wanted.paint());
}

TEST_F(DrawChart, TakesNoLock)
{
    app.m_cache.cores = {{.usage = 0.9, .history = {0.9, 0.9}}};
    const std::lock_guard reader(app.m_cpu_reader->m_mutex);
    const std::lock_guard metrics(app.m_sys_metrics->m_mutex);
    std::thread([this] {  // a thread that holds neither: taking one would hang
        draw(0);
        draw(-1, -1);
    })
        .join();
}

TEST_F(DrawChart, PaintsTheCardOnTheScreen)
{
    IdleApp built(Shape{.clusters = {1}});
    built.m_cache.cores = {{.usage = 0.9, .history = flat(0.9)}};
    ASSERT_TRUE(built.show());
    GtkWidget* const widget = built.core(0, 0).chart;
    const int w = gtk_widget_get_allocated_width(widget);
    const int h = gtk_widget_get_allocated_height(widget);
    const Picture picture(w, h);
    gtk_widget_draw(widget, picture.cr());
    EXPECT_EQ(picture, (Chart{.w = w, .h = h, .history = flat(0.9), .accent = App::group_color(0)}.paint()));
}

// --- colour bar ---

namespace {

/// What the handler of a colour bar paints, magnified.
Picture bar(int width, int height, int color_index)
{
    const Area area(width, height);
    g_object_set_data(G_OBJECT(area.widget()), "color_index", GINT_TO_POINTER(color_index));
    Picture picture(width, height, ZOOM);
    EXPECT_FALSE(App::draw_color_bar(area.widget(), picture.cr(), nullptr));
    return picture;
}

std::optional<PixelBox> painted(const Picture& picture)
{
    return picture.box_of([&](int x, int y) { return picture.at(x, y).a > 0; });
}

}  // namespace

TEST_F(ColourBar, IsOneAndAHalfPixelsWideAndLeavesTheRestEmpty)
{
    const auto box = painted(bar(3, 14, 0));
    ASSERT_TRUE(box);
    EXPECT_EQ(box->left, 0);
    EXPECT_EQ(box->right, 14);
    EXPECT_EQ(box->top, 0);
    EXPECT_EQ(box->bottom, 139);
}

TEST_F(ColourBar, IsNoWiderInAWiderWidget)
{
    const auto box = painted(bar(20, 30, 0));
    ASSERT_TRUE(box);
    EXPECT_EQ(box->right, 14);
    EXPECT_EQ(box->bottom, 299);
}

TEST_F(ColourBar, LeftCornersAreQuartersOfACircle)
{
    const Picture picture = bar(3, 14, 0);
    for (int y = 0; y < 15; ++y) {
        for (int x = 0; x < 15; ++x) {
            const double distance = std::hypot(15 - (x + 0.5), 15 - (y + 0.5));
            if (std::abs(distance - 15) > 1) {
                EXPECT_EQ(picture.at(x, y).a, distance < 15 ? 255 : 0) << x << "," << y;
                EXPECT_EQ(picture.at(x, 139 - y).a, distance < 15 ? 255 : 0) << x << "," << 139 - y;
            }
        }
    }
}

TEST_F(ColourBar, RightEdgeIsStraight)
{
    const Picture picture = bar(3, 14, 0);
    for (const int y : {0, 1, 70, 138, 139}) {
        EXPECT_NEAR(picture.at(14, y).a, 255, 8) << y;
    }
}

TEST_F(ColourBar, IsOpaqueInTheColourOfItsGroup)
{
    settings().groups = {"#FF0000", "#00FF00", "#0000FF", "#FF00FF"};
    EXPECT_EQ(bar(3, 14, 0).at(7, 70), (Pixel{255, 0, 0}));
    EXPECT_EQ(bar(3, 14, 1).at(7, 70), (Pixel{0, 255, 0}));
    EXPECT_EQ(bar(3, 14, 2).at(7, 70), (Pixel{0, 0, 255}));
    EXPECT_EQ(bar(3, 14, 3).at(7, 70), (Pixel{255, 0, 255}));
}

TEST_F(ColourBar, OtherIndicesTakeTheTotalColour)
{
    settings().total = "#336699";
    EXPECT_EQ(bar(3, 14, 7).at(7, 70), (Pixel{0x33, 0x66, 0x99}));
    EXPECT_EQ(bar(3, 14, -1).at(7, 70), (Pixel{0x33, 0x66, 0x99}));
}

// --- a display with two pixels for each point ---

namespace {

/// A load that goes up and down, with slopes of every steepness.
std::deque<double> uneven()
{
    std::deque<double> history;
    for (int i = 0; i < 60; ++i) {
        history.push_back(0.5 + 0.45 * std::sin(i * i / 120.0));
    }
    return history;
}

// On the screen a rasteriser of our own paints the curve. Where cairo's is exact, ours is off by as little as cairo's where ours is.
constexpr int LARGEST_DIFFERENCE = 16;
constexpr double MEAN_DIFFERENCE = 0.5;

/// Random loads, which leap up and down as steeply as can be.
std::deque<double> restless(unsigned seed, std::size_t count = 60)
{
    std::mt19937 random(seed);
    std::deque<double> history;
    while (history.size() < count) {
        history.push_back(std::uniform_real_distribution<double>(0.0, 1.0)(random));
    }
    return history;
}

Picture in_memory(GtkWidget* widget, const Chart& wanted, int scale)
{
    Picture picture(wanted.w, wanted.h, scale);
    take_font_options(widget, picture.cr());
    wanted.paint_on(picture.cr());
    return picture;
}

/// Compares what stands on the screen with the reference painted at that scale.
void expect_on_screen(GtkWidget* widget, const Chart& wanted, int scale)
{
    ASSERT_EQ(gtk_widget_get_scale_factor(widget), scale);
    const Screenshot screen(widget);
    // The X server paints curves more roughly than cairo does, so those are compared with cairo's in memory, and texts with the server's
    const Picture picture = wanted.history.empty()
                                ? painted_by_server(widget, wanted.w, wanted.h, scale, [&](cairo_t* cr) { wanted.paint_on(cr); })
                                : in_memory(widget, wanted, scale);
    ASSERT_EQ(gdk_pixbuf_get_width(screen.pixels), picture.width());
    ASSERT_EQ(gdk_pixbuf_get_height(screen.pixels), picture.height());
    const Distance distance(screen, picture);
    EXPECT_LE(distance.largest, LARGEST_DIFFERENCE);
    EXPECT_LE(distance.mean, MEAN_DIFFERENCE);
}

/// With cards small enough for masks, at scale 2 as well.
const Shape SMALL_CARDS{.clusters = {16}, .columns = 2};

/// Shows each of the histories in a card and in the total chart, in the light theme and in the dark one.
void expect_charts_on_screen(const std::vector<std::deque<double>>& histories, int scale)
{
    IdleApp app(SMALL_CARDS);
    app.m_cache.frequencies = {2400.0};
    app.m_cache.total = 0.5;
    ASSERT_TRUE(app.show());
    for (const bool is_dark : {false, true}) {
        app.m_dark = is_dark;
        for (const std::deque<double>& history : histories) {
            SCOPED_TRACE(history.size());
            app.m_cache.cores = {{.usage = 0.5, .history = history}};
            app.m_cache.total_history = history;
            gtk_widget_queue_draw(app.m_window);
            ASSERT_TRUE(settle(app.m_window));
            const auto chart_of = [&](GtkWidget* widget, int color_index, double overlay) {
                return Chart{.w = gtk_widget_get_allocated_width(widget),
                             .h = gtk_widget_get_allocated_height(widget),
                             .history = history,
                             .ghost = App::freq_texts(2400.0),
                             .overlay = overlay,
                             .palette = Palette::for_theme(is_dark),
                             .accent = App::group_color(color_index)};
            };
            GtkWidget* const card = app.core(0, 0).chart;
            expect_on_screen(card, chart_of(card, 0, -1.0), scale);
            expect_on_screen(app.m_total_chart, chart_of(app.m_total_chart, -1, 0.5), scale);
        }
    }
}

class Scaled : public DesktopTest {
protected:
    const ScopedEnv scale{"GDK_SCALE", "2"};
};

}  // namespace

TEST_F(Painting, ChartStandsOnTheScreenAsPainted)
{
    expect_charts_on_screen({uneven(), restless(1), restless(2), restless(3)}, 1);
}

TEST_F(Painting, LevelChartStandsOnTheScreenAsPainted)
{
    expect_charts_on_screen({flat(0.5), flat(0.0), flat(1.0), flat(0.333)}, 1);
}

TEST_F(Painting, ShortHistoryStandsOnTheScreenAsPainted)
{
    expect_charts_on_screen({{}, {0.7}, restless(4, 2), restless(5, 17), restless(6, 59)}, 1);
}

namespace {

/// A card's chart drawn by the handler on a canvas, beside the same painted plainly.
class OnCanvas {
public:
    explicit OnCanvas(const Shape& shape) : m_app(shape)
    {
        m_app.m_cache.cores = {{.usage = 0.5, .history = uneven()}};
        EXPECT_TRUE(m_app.show());
        m_widget = m_app.core(0, 0).chart;
        m_w = gtk_widget_get_allocated_width(m_widget);
        m_h = gtk_widget_get_allocated_height(m_widget);
    }

    /// Whether the handler paints plainly with that shift and zoom, inside or outside the window's own painting.
    bool is_plain(double shift, double zoom, bool is_painting)
    {
        return picture(shift, zoom, [&](cairo_t* cr) {
                   m_app.m_paints_own_canvas = is_painting;
                   App::draw_chart(m_widget, cr, static_cast<App*>(&m_app));
                   m_app.m_paints_own_canvas = false;
               }) == picture(shift, zoom, [&](cairo_t* cr) {
                   App::paint_chart(cr, m_w, m_h, uneven(), App::group_color(0), Palette::light(), {}, -1.0);
               });
    }

private:
    Picture picture(double shift, double zoom, const std::function<void(cairo_t*)>& paint) const
    {
        Picture picture(m_w + 1, m_h + 1);
        cairo_translate(picture.cr(), shift, 0);
        cairo_scale(picture.cr(), zoom, zoom);
        paint(picture.cr());
        return picture;
    }

    IdleApp m_app;
    GtkWidget* m_widget = nullptr;
    int m_w = 0;
    int m_h = 0;
};

}  // namespace

TEST_F(Painting, ChartOnACanvasThatIsNotTheScreenIsPaintedPlainly)
{
    OnCanvas chart(SMALL_CARDS);
    EXPECT_TRUE(chart.is_plain(0, 1, false)) << "not the window's own painting";
    EXPECT_TRUE(chart.is_plain(0.5, 1, true)) << "no unit begins with a pixel";
    EXPECT_TRUE(chart.is_plain(0, 0.5, true)) << "units that are not whole pixels";
    EXPECT_FALSE(chart.is_plain(1, 1, true)) << "the window's own painting takes the plain way too";
}

TEST_F(Scaled, ChartIsPaintedInFullResolution)
{
    gtk_init(nullptr, nullptr);
    expect_charts_on_screen({uneven(), restless(7), flat(0.5), restless(8, 17)}, 2);
}
