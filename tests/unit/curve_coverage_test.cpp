/// Curves by their opacity: areas that can be told without painting, and cairo's own picture of the rest. And what becomes of an image.
#include "curve_coverage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "counted_new.h"

namespace {

using History = std::deque<double>;

#ifdef SANITIZED
constexpr unsigned SLOWNESS = 50;  // so many times fewer charts
#else
constexpr unsigned SLOWNESS = 1;
#endif

constexpr int CAPACITY = 60;
constexpr double LINE_WIDTH = 1.2;
constexpr CurveLook AREA{.line_width = LINE_WIDTH, .line_alpha = 0.0, .fill_alpha_top = 1.0, .fill_alpha_bottom = 1.0};
constexpr CurveLook LINE{.line_width = LINE_WIDTH, .line_alpha = 1.0, .fill_alpha_top = 0.0, .fill_alpha_bottom = 0.0};
constexpr CurveLook BOTH{.line_width = LINE_WIDTH, .line_alpha = 0.85, .fill_alpha_top = 0.55, .fill_alpha_bottom = 0.04};
constexpr std::uint32_t BLACK = 0xFF000000;
constexpr Rgb WHITE{1, 1, 1};
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double INFINITE = std::numeric_limits<double>::infinity();

/// The opacity of each pixel of a chart, from 0 to 255.
class Mask {
public:
    /// That many pixels, each painted in white on black: row by row, so that any channel is the opacity.
    Mask(int w, int h, const std::vector<std::uint32_t>& pixels) : width(w), height(h)
    {
        for (const std::uint32_t pixel : pixels) {
            m_bytes.push_back(static_cast<int>(pixel & 0xFF));
        }
    }
    /// Of an image of the format A8.
    explicit Mask(cairo_surface_t* surface) : width(cairo_image_surface_get_width(surface)), height(cairo_image_surface_get_height(surface))
    {
        cairo_surface_flush(surface);
        for (int y = 0; y < height; ++y) {
            const unsigned char* const row = cairo_image_surface_get_data(surface) + y * cairo_image_surface_get_stride(surface);
            m_bytes.insert(m_bytes.end(), row, row + width);
        }
    }

    int at(int x, int y) const { return m_bytes.at(static_cast<std::size_t>(y * width + x)); }
    /// The area covered, in pixels.
    double sum() const
    {
        double total = 0.0;
        for (const int byte : m_bytes) {
            total += byte / 255.0;
        }
        return total;
    }
    bool is_clear() const { return sum() == 0.0; }
    /// An image of the format A8.
    cairo_surface_t* surface() const
    {
        cairo_surface_t* const image = cairo_image_surface_create(CAIRO_FORMAT_A8, width, height);
        for (int y = 0; y < height; ++y) {
            std::copy_n(m_bytes.begin() + y * width, width,
                        cairo_image_surface_get_data(image) + y * cairo_image_surface_get_stride(image));
        }
        cairo_surface_mark_dirty(image);
        return image;
    }
    friend bool operator==(const Mask&, const Mask&) = default;

    const int width;
    const int height;

private:
    std::vector<int> m_bytes;
};

/// An image that is all chart.
CurveCanvas canvas_of(std::vector<std::uint32_t>& pixels, const cairo_rectangle_int_t& chart, int scale)
{
    return {.data = reinterpret_cast<unsigned char*>(pixels.data()),
            .stride = chart.width * static_cast<int>(sizeof(std::uint32_t)),
            .chart = chart,
            .clip = chart,
            .scale = scale};
}

/// Of a chart of `w` by `h` units. The pixels are just those of the chart: whatever is written beside them is not the test's.
Mask mask_by(CurveCoverage& coverage, const History& history, int w, int h, const CurveLook& look, int scale)
{
    const cairo_rectangle_int_t chart{0, 0, w * scale, h * scale};
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(chart.width) * static_cast<std::size_t>(chart.height), BLACK);
    coverage.paint(history, CAPACITY, look, WHITE, canvas_of(pixels, chart, scale));
    return Mask(chart.width, chart.height, pixels);
}

Mask mask(const History& history, int w, int h, const CurveLook& look, int scale = 1)
{
    CurveCoverage coverage;
    return mask_by(coverage, history, w, h, look, scale);
}

/// What cairo makes of the same curve.
Mask cairo_mask(const History& history, int w, int h, bool is_line, int scale = 1)
{
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_A8, w * scale, h * scale);
    cairo_t* cr = cairo_create(surface);
    cairo_scale(cr, scale, scale);
    const auto first = CAPACITY - static_cast<int>(history.size());
    for (std::size_t i = 0; i < history.size(); ++i) {
        cairo_line_to(cr, (first + static_cast<int>(i)) / (CAPACITY - 1.0) * w, (1.0 - history[i]) * h);
    }
    if (is_line) {
        cairo_set_line_width(cr, LINE_WIDTH);
        cairo_stroke(cr);
    } else {
        cairo_line_to(cr, w, h);
        cairo_line_to(cr, first / (CAPACITY - 1.0) * w, h);
        cairo_fill(cr);
    }
    cairo_destroy(cr);
    Mask result(surface);
    cairo_surface_destroy(surface);
    return result;
}

/// The largest difference of two masks, and the mean of all.
struct Difference {
    int largest = 0;
    double mean = 0.0;

    Difference(const Mask& a, const Mask& b)
    {
        for (int y = 0; y < a.height; ++y) {
            for (int x = 0; x < a.width; ++x) {
                const int difference = std::abs(a.at(x, y) - b.at(x, y));
                largest = std::max(largest, difference);
                mean += difference / static_cast<double>(a.width * a.height);
            }
        }
    }
};

History flat(double value, std::size_t count = CAPACITY)
{
    return History(count, value);
}

History random_history(unsigned seed, std::size_t count = CAPACITY)
{
    std::mt19937 random(seed);
    History history;
    while (history.size() < count) {
        history.push_back(std::uniform_real_distribution<double>(0.0, 1.0)(random));
    }
    return history;
}

constexpr int LARGEST_DIFFERENCE = 18;  // of 255 levels

/// Cairo counts lines on a grid of 15 rows to a pixel, and so is off by a little itself.
void expect_as_cairo(const History& history, int w, int h, int scale, double mean = 1.0)
{
    for (const bool is_line : {false, true}) {
        const Difference difference(mask(history, w, h, is_line ? LINE : AREA, scale), cairo_mask(history, w, h, is_line, scale));
        EXPECT_LE(difference.largest, LARGEST_DIFFERENCE) << w << "x" << h << " at " << scale << " line " << is_line;
        EXPECT_LE(difference.mean, mean) << w << "x" << h << " at " << scale << " line " << is_line;
    }
}

}  // namespace

// --- the area under the curve ---

TEST(Area, UnderALevelLineIsExactAtAnyHeight)
{
    for (int part = 0; part <= 400; ++part) {
        const double load = part / 400.0;
        const Mask area = mask(flat(load), 52, 20, AREA);
        for (int y = 0; y < 20; ++y) {
            const double covered = std::clamp(y + 1 - (1 - load) * 20, 0.0, 1.0);
            for (const int x : {0, 25, 51}) {
                ASSERT_NEAR(area.at(x, y), covered * 255, 1) << load << " " << x << "," << y;
            }
        }
    }
}

TEST(Area, UnderASlopeIsExactInEveryPixel)
{
    History history;
    for (int i = 0; i < CAPACITY; ++i) {
        history.push_back(i / 59.0);
    }
    const Mask area = mask(history, 40, 40, AREA);
    for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 40; ++x) {
            const int wanted = x + y < 39 ? 0 : x + y == 39 ? 128 : 255;
            ASSERT_NEAR(area.at(x, y), wanted, 1) << x << "," << y;
        }
    }
}

TEST(Area, UnderOneSteepStepIsExactInEveryPixel)
{
    const Mask area = mask({0.0, 1.0}, 59, 40, AREA);  // over the last pixel's width it rises by 40
    for (int y = 0; y < 40; ++y) {
        ASSERT_NEAR(area.at(58, y), (y + 0.5) / 40 * 255, 1) << y;
        ASSERT_EQ(area.at(57, y), 0) << y;
    }
}

TEST(Area, BeginsInTheMiddleOfAPixelIfThePointDoes)
{
    const Mask area = mask(flat(0.5, 31), 59 * 3 / 2, 10, AREA);  // 30 steps of 88/59
    const double left = 88 - 30 * 88.0 / 59;
    EXPECT_NEAR(area.at(static_cast<int>(left), 9), (1 - (left - std::floor(left))) * 255, 1);
    EXPECT_EQ(area.at(static_cast<int>(left) - 1, 9), 0);
    EXPECT_EQ(area.at(static_cast<int>(left) + 1, 9), 255);
}

TEST(Area, OfFullAndOfNoLoadIsAllAndNothing)
{
    EXPECT_NEAR(mask(flat(1.0), 52, 60, AREA).sum(), 52 * 60, 1e-9);
    EXPECT_TRUE(mask(flat(0.0), 52, 60, AREA).is_clear());
}

TEST(Area, OfLoadsBeyondTheChartIsCutOff)
{
    EXPECT_EQ(mask(flat(3.0), 52, 60, AREA), mask(flat(1.0), 52, 60, AREA));
    EXPECT_TRUE(mask(flat(-3.0), 52, 60, AREA).is_clear());
    EXPECT_NEAR(mask({-1.0, 2.0}, 59, 60, AREA).sum(), 30, 0.2);
}

TEST(Area, FadesEvenlyFromTopToBottom)
{
    const CurveLook look{.line_width = LINE_WIDTH, .line_alpha = 0.0, .fill_alpha_top = 0.55, .fill_alpha_bottom = 0.04};
    const Mask area = mask(flat(1.0), 52, 60, look);
    for (int y = 0; y < 60; ++y) {
        EXPECT_NEAR(area.at(30, y), 255 * (0.55 - 0.51 * (y + 0.5) / 60), 1) << y;
    }
}

// --- the line ---

TEST(Line, LevelOneIsAsWideAsWantedAtAnyHeight)
{
    for (int part = 20; part <= 380; ++part) {
        const double load = part / 400.0;
        const Mask line = mask(flat(load), 52, 20, LINE);
        const double middle = (1 - load) * 20;
        for (int y = 0; y < 20; ++y) {
            const double covered = std::max(0.0, std::min(y + 1.0, middle + 0.6) - std::max(y + 0.0, middle - 0.6));
            for (const int x : {0, 25, 51}) {
                ASSERT_NEAR(line.at(x, y), covered * 255, 2) << load << " " << x << "," << y;
            }
        }
    }
}

TEST(Line, AtTheEdgesIsCutInHalf)
{
    EXPECT_NEAR(mask(flat(1.0), 52, 60, LINE).sum(), 52 * 0.6, 0.2);
    EXPECT_NEAR(mask(flat(0.0), 52, 60, LINE).sum(), 52 * 0.6, 0.2);
}

TEST(Line, StraightSlopeHasTheAreaOfLengthTimesWidth)
{
    History history;
    for (int i = 0; i < CAPACITY; ++i) {
        history.push_back(0.1 + 0.8 * i / 59.0);
    }
    const Mask line = mask(history, 60, 60, LINE);
    // What is cut off at one end of the stroke is as large as what its butt leaves free at the other
    EXPECT_NEAR(line.sum(), std::hypot(60, 48) * LINE_WIDTH, 0.5);
}

TEST(Line, MiterOfASharpBendIsThatOfCairo)
{
    // Points one unit apart: the angle at the tip falls below cairo's limit of about 11.5 degrees between rises of 9 and of 11
    for (const double rise : {1.0, 3.0, 6.0, 9.0, 9.8, 10.2, 11.0, 15.0, 40.0}) {
        for (const double sign : {1.0, -1.0}) {
            History history = flat(0.5);
            history[30] += sign * rise / 100;
            const Difference difference(mask(history, 59, 100, LINE), cairo_mask(history, 59, 100, true));
            EXPECT_LE(difference.largest, 12) << rise * sign;
        }
    }
}

TEST(Line, MiterIsChosenByPointsThatAreRoundedAsCairosAre)
{
    for (int i = 0; i < 2000; ++i) {  // around the limit, where rounding to 1/256 of a pixel decides
        History history = flat(0.5);
        history[30] += (9.9 + i * 1e-4) / 100;
        const Difference difference(mask(history, 59, 100, LINE), cairo_mask(history, 59, 100, true));
        ASSERT_LE(difference.largest, 12) << i;
    }
}

TEST(Line, OverlappingPartsCoverNoMoreThanOnce)
{
    History history;
    for (int i = 0; i < CAPACITY; ++i) {
        history.push_back(i % 2 == 0 ? 0.3 : 0.7);
    }
    for (const int w : {10, 52, 118, 300}) {
        const Difference difference(mask(history, w, 60, LINE), cairo_mask(history, w, 60, true));
        EXPECT_LE(difference.largest, 20) << w;
    }
}

TEST(Line, BeyondTheChartIsNotSeen)
{
    EXPECT_TRUE(mask(flat(3.0), 52, 60, LINE).is_clear());
    EXPECT_TRUE(mask(flat(-3.0), 52, 60, LINE).is_clear());
}

// --- both together ---

TEST(Opacity, LineLiesOverTheArea)
{
    const Mask both = mask(flat(0.5), 52, 60, BOTH);
    EXPECT_EQ(both.at(25, 10), 0);
    EXPECT_NEAR(both.at(25, 50), 255 * (0.55 - 0.51 * 50.5 / 60), 1);
    const double area = 0.55 - 0.51 * 30.5 / 60;
    EXPECT_NEAR(both.at(25, 30), 255 * (1 - (1 - area) * (1 - 0.85 * 0.6)), 1);
}

TEST(Opacity, IsFromNoneToAllWhateverTheLookSays)
{
    const CurveLook less{.line_width = LINE_WIDTH, .line_alpha = -1.0, .fill_alpha_top = -1.0, .fill_alpha_bottom = -1.0};
    EXPECT_TRUE(mask(flat(0.5), 40, 20, less).is_clear());
    const CurveLook more{.line_width = LINE_WIDTH, .line_alpha = 2.0, .fill_alpha_top = 2.0, .fill_alpha_bottom = 2.0};
    const CurveLook all{.line_width = LINE_WIDTH, .line_alpha = 1.0, .fill_alpha_top = 1.0, .fill_alpha_bottom = 1.0};
    EXPECT_EQ(mask(flat(0.5), 40, 20, more), mask(flat(0.5), 40, 20, all));
}

TEST(Opacity, NothingIsSeenOfFewerThanTwoPoints)
{
    EXPECT_TRUE(mask({}, 52, 60, BOTH).is_clear());
    EXPECT_TRUE(mask({0.7}, 52, 60, BOTH).is_clear());
    EXPECT_FALSE(mask({0.7, 0.7}, 52, 60, BOTH).is_clear());
}

TEST(Opacity, NothingIsSeenOfAChartWithoutSize)
{
    CurveCoverage coverage;
    const auto is_seen = [&](int w, int h, int scale) {
        std::vector<std::uint32_t> pixels(52 * 60, BLACK);
        coverage.paint(flat(0.5), CAPACITY, BOTH, WHITE,
                       {.data = reinterpret_cast<unsigned char*>(pixels.data()),
                        .stride = 52 * static_cast<int>(sizeof(std::uint32_t)),
                        .chart = {0, 0, w, h},
                        .clip = {0, 0, 52, 60},
                        .scale = scale});
        return !Mask(52, 60, pixels).is_clear();
    };
    EXPECT_TRUE(is_seen(52, 60, 1));
    EXPECT_FALSE(is_seen(0, 60, 1));
    EXPECT_FALSE(is_seen(52, -1, 1));
    EXPECT_FALSE(is_seen(52, 60, 0));
}

TEST(Opacity, CurveIsAsLargeAsTheChartInPixelsAndItsLineIsMeasuredInUnits)
{
    const Mask area = mask(flat(0.5), 52, 60, AREA, 3);
    EXPECT_EQ(area.at(155, 179), 255);
    EXPECT_NEAR(area.sum(), 156 * 90, 1e-9);
    const Mask line = mask(flat(0.5), 52, 60, LINE, 3);
    EXPECT_NEAR(line.sum(), 156 * LINE_WIDTH * 3, 1.0);
    EXPECT_EQ(line.at(155, 90), 255);
}

TEST(Opacity, ObjectThatIsUsedAgainRemembersNothing)
{
    CurveCoverage coverage;
    const auto both = [&](const History& history, int w, int h, int scale) { return mask_by(coverage, history, w, h, BOTH, scale); };
    for (const auto& [w, h, scale] : {std::tuple{52, 60, 1}, {230, 60, 1}, {52, 60, 1}, {53, 60, 2}, {1, 1, 1}, {230, 61, 1}}) {
        both(random_history(1), w, h, scale);
        ASSERT_EQ(both(random_history(2), w, h, scale), mask(random_history(2), w, h, BOTH, scale)) << w << "x" << h << " at " << scale;
        both(flat(5.0), w, h, scale);
        both(flat(0.0), w, h, scale);
    }
}

TEST(Opacity, NumbersThatAreNoneCountAsNoLoad)
{
    EXPECT_EQ(mask({0.5, NOT_A_NUMBER, 0.5, 0.2}, 52, 60, BOTH), mask({0.5, 0.0, 0.5, 0.2}, 52, 60, BOTH));
    EXPECT_EQ(mask(flat(NOT_A_NUMBER), 52, 60, BOTH), mask(flat(0.0), 52, 60, BOTH));
}

TEST(Opacity, AnyHistoryInAnyChartStaysInItsBuffers)  // for the address sanitizer, and for what the library itself checks
{
    std::mt19937 random(20240301);
    const double odd[] = {NOT_A_NUMBER, INFINITE, -INFINITE, 1e300, -1e300, -0.0, 1.0, 0.0, 1.0000001, -0.0000001, 100.0};
    CurveCoverage coverage;
    for (int i = 0; i < 400; ++i) {
        History history = random_history(static_cast<unsigned>(i), std::uniform_int_distribution<std::size_t>(2, 70)(random));
        for (int j = 0; j < 8; ++j) {
            history[random() % history.size()] = odd[random() % std::size(odd)];
        }
        const int w = static_cast<int>(random() % 70) + 1;
        const int h = static_cast<int>(random() % 70) + 1;
        mask_by(coverage, history, w, h, BOTH, i % 3 + 1);
    }
}

#ifndef THREAD_SANITIZED

TEST(Opacity, ChartsOfOneSizeAllocateOnce)
{
    std::vector<History> histories;
    for (unsigned seed = 0; seed < 20; ++seed) {
        histories.push_back(random_history(seed));
    }
    std::vector<std::uint32_t> pixels(52 * 60, BLACK);
    CurveCoverage coverage;
    const auto allocations = [&] {
        const std::size_t before = g_allocations;
        for (const History& history : histories) {
            coverage.paint(history, CAPACITY, BOTH, WHITE, canvas_of(pixels, {0, 0, 52, 60}, 1));
        }
        return g_allocations - before;
    };
    EXPECT_GT(allocations(), 0U);
    EXPECT_EQ(allocations(), 0U);
}

#endif

/// Loads that leap up and down are the hardest: wherever two segments meet, there is a spike, mitred or bevelled.
TEST(Opacity, RandomHistoriesAreThoseOfCairo)
{
    struct Charts {
        int w;
        int h;
        int scale;
        unsigned count;
    };
    for (const auto& [w, h, scale, count] : {Charts{48, 40, 1, 1000},
                                             {52, 60, 1, 800},
                                             {52, 60, 2, 200},
                                             {52, 60, 3, 100},
                                             {7, 30, 1, 500},
                                             {20, 40, 1, 500},
                                             {33, 25, 2, 200},
                                             {71, 60, 1, 200},
                                             {230, 60, 1, 60},
                                             {700, 300, 1, 3}}) {
        for (unsigned seed = 0; seed < count / SLOWNESS + 1; ++seed) {
            SCOPED_TRACE(seed);
            expect_as_cairo(random_history(seed), w, h, scale);
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

TEST(Opacity, ShortHistoriesAreThoseOfCairo)
{
    for (const std::size_t count : {2U, 3U, 10U, 59U}) {
        expect_as_cairo(random_history(5, count), 52, 60, 1, 1.5);
        expect_as_cairo(random_history(6, count), 230, 60, 2);
    }
}

TEST(Opacity, WideChartsAreThoseOfCairo)
{
    expect_as_cairo(random_history(7), 1500, 60, 1);
    expect_as_cairo(random_history(8), 1500, 60, 2);
}

TEST(Opacity, TinyChartsAreCovered)
{
    EXPECT_EQ(mask(flat(1.0), 1, 1, AREA).at(0, 0), 255);
    EXPECT_NEAR(mask(flat(0.5), 1, 1, AREA).at(0, 0), 128, 1);
    EXPECT_NEAR(mask(flat(0.5), 1, 1, LINE).at(0, 0), 255, 1);
    EXPECT_NEAR(mask(flat(0.0), 1, 1, LINE).at(0, 0), 153, 1);
    expect_as_cairo(random_history(9), 3, 5, 1, 20.0);
}

// --- painted onto pixels ---

namespace {

constexpr Rgb GREEN{0.1, 0.6, 0.2};

/// An image full of random pixels, translucent ones if it is of that kind.
class Image {
public:
    Image(int width, int height, cairo_format_t format, unsigned seed) : surface(cairo_image_surface_create(format, width, height))
    {
        std::mt19937 random(seed);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const std::uint32_t alpha = format == CAIRO_FORMAT_ARGB32 ? random() % 256 : 255;
                const auto channel = [&] { return static_cast<std::uint32_t>(random() % (alpha + 1)); };
                *at(x, y) = alpha << 24 | channel() << 16 | channel() << 8 | channel();
            }
        }
        cairo_surface_mark_dirty(surface);
    }
    ~Image() { cairo_surface_destroy(surface); }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    std::uint32_t* at(int x, int y) const { return reinterpret_cast<std::uint32_t*>(data() + y * stride()) + x; }
    unsigned char* data() const { return cairo_image_surface_get_data(surface); }
    int stride() const { return cairo_image_surface_get_stride(surface); }
    CurveCanvas canvas(const cairo_rectangle_int_t& chart, const cairo_rectangle_int_t& clip, int scale = 1) const
    {
        return {.data = data(), .stride = stride(), .chart = chart, .clip = clip, .scale = scale};
    }

    cairo_surface_t* const surface;
};

/// How far two pixels are apart in their most different channel.
int distance(std::uint32_t a, std::uint32_t b, cairo_format_t format)
{
    int largest = 0;
    for (int shift = 0; shift < (format == CAIRO_FORMAT_ARGB32 ? 32 : 24); shift += 8) {
        largest = std::max(largest, std::abs(static_cast<int>(a >> shift & 0xFF) - static_cast<int>(b >> shift & 0xFF)));
    }
    return largest;
}

bool holds(const cairo_rectangle_int_t& area, int x, int y)
{
    return x >= area.x && x < area.x + area.width && y >= area.y && y < area.y + area.height;
}

}  // namespace

TEST(Paint, IsWhatCairoMakesOfTheMask)
{
    CurveCoverage coverage;
    for (const cairo_format_t format : {CAIRO_FORMAT_ARGB32, CAIRO_FORMAT_RGB24}) {
        for (const int scale : {1, 2, 3}) {
            const Image ours(52 * scale, 61 * scale, format, 1);
            const Image cairos(52 * scale, 61 * scale, format, 1);
            const cairo_rectangle_int_t all{0, 0, 52 * scale, 61 * scale};
            coverage.paint(random_history(3), CAPACITY, BOTH, GREEN, ours.canvas(all, all, scale));
            cairo_surface_set_device_scale(cairos.surface, scale, scale);
            cairo_t* const cr = cairo_create(cairos.surface);
            cairo_set_source_rgb(cr, GREEN.r, GREEN.g, GREEN.b);
            cairo_surface_t* const opacity = mask(random_history(3), 52, 61, BOTH, scale).surface();
            cairo_surface_set_device_scale(opacity, scale, scale);
            cairo_mask_surface(cr, opacity, 0, 0);
            cairo_surface_destroy(opacity);
            cairo_destroy(cr);
            for (int y = 0; y < all.height; ++y) {
                for (int x = 0; x < all.width; ++x) {
                    ASSERT_LE(distance(*ours.at(x, y), *cairos.at(x, y), format), 1) << x << "," << y << " at " << scale;
                }
            }
        }
    }
}

/// The chart stands anywhere on the image, and partly beyond it; of that, any part is painted.
TEST(Paint, IsTheSameWithinAnyClipAndNothingOutside)
{
    std::mt19937 random(20240302);
    const auto number = [&](int first, int last) { return std::uniform_int_distribution<int>(first, last)(random); };
    CurveCoverage coverage;
    for (int i = 0; i < 500; ++i) {
        const History history = random_history(static_cast<unsigned>(i), static_cast<std::size_t>(number(2, 60)));
        const cairo_rectangle_int_t chart{number(-20, 60), number(-90, 30), number(1, 70), number(1, 150)};
        const int left = number(0, 79);
        const int top = number(0, 69);
        const cairo_rectangle_int_t clip{left, top, number(0, 80 - left), number(0, 70 - top)};
        const Image before(80, 70, CAIRO_FORMAT_ARGB32, 5);
        const Image whole(80, 70, CAIRO_FORMAT_ARGB32, 5);
        const Image part(80, 70, CAIRO_FORMAT_ARGB32, 5);
        coverage.paint(history, CAPACITY, BOTH, GREEN, whole.canvas(chart, {0, 0, 80, 70}));
        coverage.paint(history, CAPACITY, BOTH, GREEN, part.canvas(chart, clip));
        for (int y = 0; y < 70; ++y) {
            for (int x = 0; x < 80; ++x) {
                const Image& wanted = holds(clip, x, y) && holds(chart, x, y) ? whole : before;
                ASSERT_EQ(*part.at(x, y), *wanted.at(x, y)) << "chart " << i << " at " << x << "," << y;
            }
        }
    }
}

TEST(Paint, IsWhereTheChartIs)
{
    CurveCoverage coverage;
    const Image image(100, 100, CAIRO_FORMAT_RGB24, 7);
    const Image alone(52, 60, CAIRO_FORMAT_RGB24, 7);
    for (int y = 0; y < 60; ++y) {
        for (int x = 0; x < 52; ++x) {
            *image.at(x + 31, y + 17) = *alone.at(x, y);
        }
    }
    coverage.paint(random_history(4), CAPACITY, BOTH, GREEN, image.canvas({31, 17, 52, 60}, {0, 0, 100, 100}));
    coverage.paint(random_history(4), CAPACITY, BOTH, GREEN, alone.canvas({0, 0, 52, 60}, {0, 0, 52, 60}));
    for (int y = 0; y < 60; ++y) {
        for (int x = 0; x < 52; ++x) {
            ASSERT_EQ(*image.at(x + 31, y + 17), *alone.at(x, y)) << x << "," << y;
        }
    }
}

/// Channels are worked on several at once; what stands in one must not change how another is rounded.
TEST(Paint, RoundsEachChannelByItself)
{
    const cairo_rectangle_int_t chart{0, 0, 256, 64};
    const CurveLook half{.line_width = LINE_WIDTH, .line_alpha = 0.0, .fill_alpha_top = 0.5, .fill_alpha_bottom = 0.5};
    const int opacity = mask(flat(1.0), chart.width, chart.height, half).at(0, 0);
    const int part = opacity + (opacity >> 7);  // of 256
    std::mt19937 random(1);
    std::vector<std::uint32_t> before(static_cast<std::size_t>(chart.width * chart.height));
    std::generate(before.begin(), before.end(), [&] { return BLACK | static_cast<std::uint32_t>(random()); });
    std::vector<std::uint32_t> pixels = before;
    CurveCoverage().paint(flat(1.0), CAPACITY, half, {0.2, 0.4, 0.8}, canvas_of(pixels, chart, 1));
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        for (const auto& [shift, color] : {std::pair(16U, 0x33), std::pair(8U, 0x66), std::pair(0U, 0xCC)}) {
            const int old = static_cast<int>(before[i] >> shift & 0xFF);
            ASSERT_EQ(((old << 8) + (color - old) * part + 128) >> 8, static_cast<int>(pixels[i] >> shift & 0xFF)) << i << ' ' << shift;
        }
    }
}

TEST(Paint, OfALargeChartTakesNoMoreMemoryThanOfASmallOne)
{
    CurveCoverage coverage;
    const Image image(3840, 2160, CAIRO_FORMAT_RGB24, 1);
    const cairo_rectangle_int_t all{0, 0, 3840, 2160};
    coverage.paint(random_history(1), CAPACITY, BOTH, GREEN, image.canvas(all, all, 2));
    std::size_t bytes = sizeof coverage;
    for (const auto* edges : {&coverage.m_curve, &coverage.m_upper, &coverage.m_lower}) {
        bytes += edges->in_block.capacity() * sizeof(CurveCoverage::Edge);
    }
    const CurveOutline& outline = coverage.m_outline;
    for (const auto* chain : {&outline.m_curve, &outline.m_upper, &outline.m_lower, &outline.m_known}) {
        bytes += chain->capacity() * sizeof(CurveOutline::Point);
    }
    bytes += outline.m_segments.capacity() * sizeof(CurveOutline::Segment) + outline.m_bends.capacity() * sizeof(CurveOutline::Bend);
    EXPECT_LE(bytes, 16384U);
}

TEST(Paint, OfNothingToSeeLeavesThePixels)
{
    CurveCoverage coverage;
    const Image before(8, 8, CAIRO_FORMAT_ARGB32, 1);
    const Image image(8, 8, CAIRO_FORMAT_ARGB32, 1);
    const cairo_rectangle_int_t all{0, 0, 8, 8};
    coverage.paint({}, CAPACITY, BOTH, GREEN, image.canvas(all, all));
    coverage.paint({1.0}, CAPACITY, BOTH, GREEN, image.canvas(all, all));
    coverage.paint(flat(1.0), 1, BOTH, GREEN, image.canvas(all, all));
    coverage.paint(flat(1.0), CAPACITY, BOTH, GREEN, image.canvas({0, 0, 0, 8}, all));
    coverage.paint(flat(1.0), CAPACITY, BOTH, GREEN, image.canvas({0, 0, 8, -8}, all));
    coverage.paint(flat(1.0), CAPACITY, BOTH, GREEN, image.canvas({8, 0, 8, 8}, all));
    coverage.paint(flat(1.0), CAPACITY, BOTH, GREEN, image.canvas(all, {0, 0, 0, 0}));
    coverage.paint(flat(1.0), CAPACITY, BOTH, GREEN, image.canvas(all, all, 0));
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 8; ++x) {
            ASSERT_EQ(*image.at(x, y), *before.at(x, y)) << x << "," << y;
        }
    }
}
