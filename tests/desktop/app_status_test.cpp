/// The throttle figure and its label, and the info line: their texts, and which form of the line fits which width.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <set>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::ElementsAre;

/// What stands before figures with Latin units in languages written from right to left: right-to-left mark, left-to-right mark.
#define MARKS "\u200F\u200E"

namespace {

/// Called each time before a certain mutex is locked.
struct LockWatch {
    std::atomic<pthread_mutex_t*> mutex = nullptr;
    std::function<void()> before;
};

LockWatch g_lock_watch;
int g_measured_texts = 0;
int g_searches_for_the_pointer = 0;  // by anybody

}  // namespace

extern "C" GdkWindow* gdk_device_get_window_at_position(GdkDevice* device, gint* x, gint* y)
{
    ++g_searches_for_the_pointer;
    return next<GdkWindow*(GdkDevice*, gint*, gint*)>("gdk_device_get_window_at_position")(device, x, y);
}

extern "C" PangoLayout* gtk_widget_create_pango_layout(GtkWidget* widget, const gchar* text)
{
    g_measured_texts += is_own_code(__builtin_return_address(0)) ? 1 : 0;
    return next<PangoLayout*(GtkWidget*, const gchar*)>("gtk_widget_create_pango_layout")(widget, text);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto real = next<int(pthread_mutex_t*)>("pthread_mutex_lock");
    if (mutex == g_lock_watch.mutex.load(std::memory_order_relaxed)) {
        g_lock_watch.before();
    }
    return real(mutex);
}

namespace {

/// One logical CPU in the eyes of the throttle figure.
struct Cpu {
    double load = 1.0;
    double mhz = 0.0;
    double max_mhz = 0.0;
};

void put(App& app, const std::vector<Cpu>& cpus)
{
    app.m_cache.cores.clear();
    app.m_cache.frequencies.clear();
    app.m_cache.max_frequencies.clear();
    for (const Cpu& cpu : cpus) {
        app.m_cache.cores.push_back({.usage = cpu.load, .history = {}});
        app.m_cache.frequencies.push_back(cpu.mhz);
        app.m_cache.max_frequencies.push_back(cpu.max_mhz);
    }
}

}  // namespace

// --- the throttle figure ---

class ThrottleFigure : public IdleAppTest {
protected:
    double of(const std::vector<Cpu>& cpus)
    {
        put(app, cpus);
        return app.compute_throttle();
    }

    IdleApp app;
};

TEST_F(ThrottleFigure, IsUnknownBeforeAnyReading)
{
    EXPECT_EQ(app.compute_throttle(), -1.0);
}

TEST_F(ThrottleFigure, IsUnknownWithoutCurrentClocks)
{
    of({{1.0, 500, 1000}});
    app.m_cache.frequencies.clear();
    EXPECT_EQ(app.compute_throttle(), -1.0);
}

TEST_F(ThrottleFigure, IsUnknownWithoutHighestClocks)
{
    of({{1.0, 500, 1000}});
    app.m_cache.max_frequencies.clear();
    EXPECT_EQ(app.compute_throttle(), -1.0);
}

TEST_F(ThrottleFigure, IsZeroBeforeTheFirstLoads)
{
    of({{1.0, 500, 1000}});
    app.m_cache.cores.clear();
    EXPECT_EQ(app.compute_throttle(), 0.0);
}

TEST_F(ThrottleFigure, IsHowFarABusyCpuRunsBelowItsHighestClock)
{
    EXPECT_EQ(of({{1.0, 750, 1000}}), 0.25);
    EXPECT_EQ(of({{0.8, 1000, 4000}}), 0.75);
}

TEST_F(ThrottleFigure, IsTheMeanOfTheBusyCpus)
{
    EXPECT_EQ(of({{1.0, 500, 1000}, {1.0, 3000, 4000}, {0.9, 1000, 1000}}), 0.25);
}

TEST_F(ThrottleFigure, LeavesIdleCpusOut)
{
    EXPECT_EQ(of({{1.0, 500, 1000}, {0.1, 100, 1000}, {0.0, 100, 1000}}), 0.5);
}

TEST_F(ThrottleFigure, CountsACpuThatIsHalfBusy)
{
    EXPECT_EQ(of({{0.5, 250, 1000}}), 0.75);
}

TEST_F(ThrottleFigure, DoesNotCountACpuThatIsLessThanHalfBusy)
{
    EXPECT_EQ(of({{std::nextafter(0.5, 0.0), 250, 1000}, {1.0, 500, 1000}}), 0.5);
}

TEST_F(ThrottleFigure, IsZeroIfNoCpuIsBusy)
{
    EXPECT_EQ(of({{0.4, 250, 1000}, {0.0, 800, 1000}}), 0.0);
}

TEST_F(ThrottleFigure, LeavesCpusWithoutAHighestClockOut)
{
    EXPECT_EQ(of({{1.0, 500, 0}, {1.0, 500, -1}, {1.0, 750, 1000}}), 0.25);
}

TEST_F(ThrottleFigure, LeavesCpusWithoutACurrentClockOut)
{
    EXPECT_EQ(of({{1.0, 0, 1000}, {1.0, -5, 1000}, {1.0, 750, 1000}}), 0.25);
}

TEST_F(ThrottleFigure, IsZeroIfNoHighestClockIsKnown)
{
    EXPECT_EQ(of({{1.0, 500, 0}, {1.0, 500, 0}}), 0.0);
}

TEST_F(ThrottleFigure, ClockAboveTheHighestCountsAsNone)
{
    EXPECT_EQ(of({{1.0, 1500, 1000}}), 0.0);
    EXPECT_EQ(of({{1.0, 1500, 1000}, {1.0, 500, 1000}}), 0.25);
}

TEST_F(ThrottleFigure, NeverExceedsOne)
{
    EXPECT_EQ(of({{1.0, 1e-300, 1e300}}), 1.0);
}

class ThrottleFigureOfUnequalLists : public ThrottleFigure {
protected:
    void SetUp() override { of({{1.0, 500, 1000}, {1.0, 0.0001, 1000}}); }
};

TEST_F(ThrottleFigureOfUnequalLists, StopsWhereTheLoadsEnd)
{
    app.m_cache.cores.pop_back();
    EXPECT_EQ(app.compute_throttle(), 0.5);
}

TEST_F(ThrottleFigureOfUnequalLists, StopsWhereTheCurrentClocksEnd)
{
    app.m_cache.frequencies.pop_back();
    EXPECT_EQ(app.compute_throttle(), 0.5);
}

TEST_F(ThrottleFigureOfUnequalLists, StopsWhereTheHighestClocksEnd)
{
    app.m_cache.max_frequencies.pop_back();
    EXPECT_EQ(app.compute_throttle(), 0.5);
}

// --- texts from right to left ---

namespace {

/// Where a line of text comes to stand, with what a widget knows of its language.
class LaidOut {
public:
    LaidOut(GtkWidget* widget, const std::string& text) : m_text(text), m_layout(gtk_widget_create_pango_layout(widget, text.c_str())) {}
    ~LaidOut() { g_object_unref(m_layout); }
    LaidOut(const LaidOut&) = delete;
    LaidOut& operator=(const LaidOut&) = delete;

    /// Whether the part is read from left to right without a gap: each of its characters begins where the one before ends.
    testing::AssertionResult keeps_together(const std::string& part) const
    {
        const std::size_t begin = m_text.find(part);
        if (begin == std::string::npos) {
            return testing::AssertionFailure() << part << " is not in " << m_text;
        }
        int end_of_last = left_of(begin);
        for (std::size_t at = begin; at < begin + part.size(); at += next_character(at)) {
            const PangoRectangle place = position(at);
            if (place.x != end_of_last || place.width <= 0) {
                return testing::AssertionFailure() << part << " is torn in " << m_text << " at byte " << at - begin;
            }
            end_of_last = place.x + place.width;
        }
        return testing::AssertionSuccess();
    }

    /// Whether one part stands on the left of the other.
    bool left_to_right(const std::string& one, const std::string& other) const
    {
        return left_of(m_text.find(one)) < left_of(m_text.find(other));
    }

private:
    PangoRectangle position(std::size_t byte) const
    {
        PangoRectangle place{};
        pango_layout_index_to_pos(m_layout, static_cast<int>(byte), &place);
        return place;
    }

    int left_of(std::size_t byte) const
    {
        const PangoRectangle place = position(byte);
        return std::min(place.x, place.x + place.width);
    }

    std::size_t next_character(std::size_t byte) const
    {
        const char* const character = m_text.c_str() + byte;
        return static_cast<std::size_t>(g_utf8_find_next_char(character, nullptr) - character);
    }

    std::string m_text;
    PangoLayout* m_layout;
};

bool has_direction_mark(const std::string& text)
{
    return text.find("\u200E") != std::string::npos || text.find("\u200F") != std::string::npos;
}

constexpr const char* RIGHT_TO_LEFT_LANGUAGES[] = {"ar", "fa", "he", "ur"};

}  // namespace

// --- the throttle label ---

class ThrottleLabel : public IdleAppTest {
protected:
    static constexpr double NONE = -1.0;

    /// Shows a state in the label.
    void show(double t, bool thermal = false, double temperature = NONE, double limit = 100)
    {
        put(app, {{1.0, 1000 - 1000 * t, 1000}});
        update(thermal, temperature, limit);
    }

    void update(bool thermal, double temperature = NONE, double limit = 100)
    {
        metrics.m_thermal_throttling = thermal;
        metrics.m_temperature = temperature;
        metrics.m_temp_limit = limit;
        app.update_throttle_label();
    }

    std::string markup(double t, bool thermal = false)
    {
        show(t, thermal);
        return markup_of(app.m_throttle_label);
    }

    std::string tooltip(double t, bool thermal, double temperature, double limit)
    {
        show(t, thermal, temperature, limit);
        return tooltip_of(app.m_throttle_label);
    }

    IdleApp app{Shape{.clusters = {1}}};
    SystemMetrics& metrics = *app.m_sys_metrics;
};

TEST_F(ThrottleLabel, TakesTheColourOfTheFigureInTheLightTheme)
{
    EXPECT_EQ(markup(0.1), "<span color='#199933'>Throttle 10%</span>");
    EXPECT_EQ(markup(0.5), "<span color='#cc9900'>Throttle 50%</span>");
    EXPECT_EQ(markup(0.9), "<span color='#e53319'>Throttle 90%</span>");
}

TEST_F(ThrottleLabel, TakesTheColourOfTheFigureInTheDarkTheme)
{
    app.m_dark = true;
    EXPECT_EQ(markup(0.1), "<span color='#4cd866'>Throttle 10%</span>");
    EXPECT_EQ(markup(0.5), "<span color='#ffbf26'>Throttle 50%</span>");
    EXPECT_EQ(markup(0.9), "<span color='#ff593f'>Throttle 90%</span>");
}

TEST_F(ThrottleLabel, ThermalThrottlingIsHotInTheLightTheme)
{
    EXPECT_EQ(markup(0.1, true), "<span color='#d8190c'>🔥 Throttle 10%</span>");
    EXPECT_EQ(markup(0.9, true), "<span color='#d8190c'>🔥 Throttle 90%</span>");
}

TEST_F(ThrottleLabel, ThermalThrottlingIsHotInTheDarkTheme)
{
    app.m_dark = true;
    EXPECT_EQ(markup(0.1, true), "<span color='#ff593f'>🔥 Throttle 10%</span>");
}

TEST_F(ThrottleLabel, ThermalThrottlingIsHotEvenIfNoClockIsHeldBack)
{
    EXPECT_EQ(markup(0.0, true), "<span color='#d8190c'>🔥 Throttle 0%</span>");
    EXPECT_EQ(markup(0.0, false), "<span color='#199933'>Throttle 0%</span>");
}

TEST_F(ThrottleLabel, ExactlyThreeTenthsTakesTheColourOfTheMiddleBand)
{
    put(app, {{1.0, 800, 1000}, {1.0, 600, 1000}});
    ASSERT_EQ(app.compute_throttle(), 0.3);
    update(false);
    EXPECT_EQ(markup_of(app.m_throttle_label), "<span color='#cc9900'>Throttle 30%</span>");
    EXPECT_EQ(markup(0.2999), "<span color='#199933'>Throttle 30%</span>");
}

TEST_F(ThrottleLabel, ExactlySevenTenthsTakesTheColourOfTheHighBand)
{
    put(app, {{1.0, 300, 1000}});
    ASSERT_EQ(app.compute_throttle(), 0.7);
    update(false);
    EXPECT_EQ(markup_of(app.m_throttle_label), "<span color='#e53319'>Throttle 70%</span>");
    EXPECT_EQ(markup(0.6999), "<span color='#cc9900'>Throttle 70%</span>");
}

TEST_F(ThrottleLabel, PercentageIsRounded)
{
    show(0.126);
    EXPECT_EQ(text_of(app.m_throttle_label), "Throttle 13%");
    show(0.124);
    EXPECT_EQ(text_of(app.m_throttle_label), "Throttle 12%");
    put(app, {{1.0, 1e-9, 1000}});
    update(false);
    EXPECT_EQ(text_of(app.m_throttle_label), "Throttle 100%");
}

TEST_F(ThrottleLabel, ShowsItsMarkupAsText)
{
    show(0.25, true);
    EXPECT_EQ(text_of(app.m_throttle_label), "🔥 Throttle 25%");
}

TEST_F(ThrottleLabel, UnknownFigureLeavesItEmptyWithoutATooltip)
{
    show(0.25, true, 90, 100);
    ASSERT_NE(tooltip_of(app.m_throttle_label), "");
    app.m_cache.frequencies.clear();
    app.update_throttle_label();
    EXPECT_EQ(text_of(app.m_throttle_label), "");
    EXPECT_FALSE(gtk_widget_get_has_tooltip(app.m_throttle_label));
}

TEST_F(ThrottleLabel, ComesBackWithTheClocks)
{
    show(0.25, false, 50, 100);
    app.m_cache.frequencies.clear();
    app.update_throttle_label();
    show(0.25, false, 50, 100);
    EXPECT_EQ(markup_of(app.m_throttle_label), "<span color='#199933'>Throttle 25%</span>");
    EXPECT_EQ(tooltip_of(app.m_throttle_label), "50°C / 100°C");
}

TEST_F(ThrottleLabel, MachineWithClocksButNoHighestOneShowsZero)
{
    put(app, {{1.0, 1200, 0}});
    update(false);
    EXPECT_EQ(text_of(app.m_throttle_label), "Throttle 0%");
}

TEST_F(ThrottleLabel, IsRewrittenWhateverItHeld)
{
    show(0.25, false, 50, 100);
    gtk_label_set_text(GTK_LABEL(app.m_throttle_label), "other");
    gtk_widget_set_tooltip_text(app.m_throttle_label, "other");
    app.update_throttle_label();
    EXPECT_EQ(text_of(app.m_throttle_label), "Throttle 25%");
    EXPECT_EQ(tooltip_of(app.m_throttle_label), "50°C / 100°C");
}

TEST_F(ThrottleLabel, MayBeMissing)
{
    GtkWidget* const label = std::exchange(app.m_throttle_label, nullptr);
    show(0.25, true, 50, 100);
    EXPECT_EQ(text_of(label), "");
    EXPECT_EQ(tooltip_of(label), "");
}

// --- its tooltip ---

TEST_F(ThrottleLabel, TooltipOfThermalThrottlingHasTemperatureLimitAndPercentage)
{
    EXPECT_EQ(tooltip(0.25, true, 97.4, 99.6), "Throttle: 97°C / 100°C\nThrottle 25%");
}

TEST_F(ThrottleLabel, TooltipWithoutThermalThrottlingHasTemperatureAndLimit)
{
    EXPECT_EQ(tooltip(0.25, false, 61.5001, 100), "62°C / 100°C");
}

TEST_F(ThrottleLabel, TooltipWithoutATemperatureHasThePercentage)
{
    EXPECT_EQ(tooltip(0.25, false, NONE, 100), "Throttle 25%");
    EXPECT_EQ(tooltip(0.126, true, NONE, 100), "Throttle 13%");
    EXPECT_EQ(tooltip(0.25, false, -0.5, 100), "Throttle 25%");
}

TEST_F(ThrottleLabel, TooltipTakesATemperatureOfZero)
{
    EXPECT_EQ(tooltip(0.25, false, 0, 100), "0°C / 100°C");
    EXPECT_EQ(tooltip(0.25, true, 0, 100), "Throttle: 0°C / 100°C\nThrottle 25%");
}

TEST_F(ThrottleLabel, TooltipTakesNoLimitOfZeroOrLess)
{
    EXPECT_EQ(tooltip(0.25, false, 50, 0), "Throttle 25%");
    EXPECT_EQ(tooltip(0.25, true, 50, -1), "Throttle 25%");
    EXPECT_EQ(tooltip(0.25, false, 50, 0.6), "50°C / 1°C");
}

TEST_F(ThrottleLabel, TooltipIsCutAtTwoHundredAndFiftyFiveBytes)
{
    char whole[512];
    std::snprintf(whole, sizeof whole, "%.0f", 1e300);
    EXPECT_EQ(tooltip(0.25, false, 1e300, 100), std::string(whole).substr(0, 255));
}

TEST_F(ThrottleLabel, AsksForTheThermalStateThenTheTemperatureThenTheLimit)
{
    put(app, {{1.0, 750, 1000}});
    int lock = 0;
    g_lock_watch.before = [&] {
        ++lock;
        metrics.m_thermal_throttling = lock == 1;
        metrics.m_temperature = 10 * lock;
        metrics.m_temp_limit = 100 * lock;
    };
    g_lock_watch.mutex = metrics.m_mutex.native_handle();
    app.update_throttle_label();
    g_lock_watch.mutex = nullptr;
    EXPECT_EQ(lock, 3);
    EXPECT_EQ(text_of(app.m_throttle_label), "🔥 Throttle 25%");
    EXPECT_EQ(tooltip_of(app.m_throttle_label), "Throttle: 20°C / 300°C\nThrottle 25%");
}

TEST_F(ThrottleLabel, UnknownFigureAsksForNothing)
{
    int locks = 0;
    g_lock_watch.before = [&] { ++locks; };
    g_lock_watch.mutex = metrics.m_mutex.native_handle();
    app.update_throttle_label();
    g_lock_watch.mutex = nullptr;
    EXPECT_EQ(locks, 0);
}

TEST_F(ThrottleLabel, FollowsTheTick)
{
    app.m_cpu_reader->m_cores = {{.usage = 1.0, .history = {1.0}}};
    metrics.m_frequencies = {2500};
    metrics.m_max_frequencies = {5000};
    metrics.m_temperature = 71;
    metrics.m_temp_limit = 95;
    app.update();
    EXPECT_EQ(markup_of(app.m_throttle_label), "<span color='#cc9900'>Throttle 50%</span>");
    EXPECT_EQ(tooltip_of(app.m_throttle_label), "71°C / 95°C");
    metrics.m_frequencies.clear();
    app.update();
    EXPECT_EQ(text_of(app.m_throttle_label), "");
}

/// GTK looks for the pointer by way of the X server, which it keeps others off meanwhile.
TEST_F(ThrottleLabel, LooksForThePointerOnlyIfItsTooltipWasSeen)
{
    ASSERT_TRUE(app.show());
    GtkWidget* const label = app.m_throttle_label;
    const auto searches_after = [label](const char* text) {
        g_searches_for_the_pointer = 0;
        gtk_widget_set_tooltip_text(label, text);
        EXPECT_TRUE(settle(gtk_widget_get_toplevel(label)));
        iterate_until([] { return g_main_context_pending(nullptr) == FALSE; });
        return g_searches_for_the_pointer;
    };
    EXPECT_EQ(searches_after("50°C / 95°C"), 0);
    EXPECT_EQ(searches_after("51°C / 95°C"), 0);
    const auto tooltip = GTK_TOOLTIP(g_object_new(GTK_TYPE_TOOLTIP, nullptr));
    gboolean has_text = FALSE;
    g_signal_emit_by_name(label, "query-tooltip", 0, 0, FALSE, tooltip, &has_text);
    EXPECT_TRUE(has_text);
    EXPECT_EQ(searches_after("52°C / 95°C"), 1);
    EXPECT_EQ(searches_after("53°C / 95°C"), 0) << "the pointer is elsewhere";
    EXPECT_EQ(searches_after(nullptr), 0);
    EXPECT_FALSE(gtk_widget_get_has_tooltip(label));
    g_signal_emit_by_name(label, "query-tooltip", 0, 0, FALSE, tooltip, &has_text);
    EXPECT_FALSE(has_text);
    g_object_unref(tooltip);
}

TEST_F(ThrottleLabel, SpeaksGerman)
{
    speak("de");
    show(0.25, true, 90, 100);
    EXPECT_EQ(text_of(app.m_throttle_label), "🔥 Drosselung 25%");
    EXPECT_EQ(tooltip_of(app.m_throttle_label), "Drosselung: 90°C / 100°C\nDrosselung 25%");
}

TEST_F(ThrottleLabel, SpeaksArabic)
{
    speak("ar");
    show(0.25, true, 90, 100);
    EXPECT_EQ(text_of(app.m_throttle_label), "🔥 خفض السرعة 25%");
    EXPECT_EQ(tooltip_of(app.m_throttle_label), "خفض السرعة: " MARKS "90°C / 100°C\nخفض السرعة 25%");
}

TEST_F(ThrottleLabel, TooltipKeepsTheDegreesTogetherFromRightToLeft)
{
    for (const char* language : RIGHT_TO_LEFT_LANGUAGES) {
        speak(language);
        IdleApp turned(Shape{.clusters = {1}});
        const LaidOut plain(turned.m_throttle_label, turned.throttle_tooltip(0.25, false, 95, 100));
        EXPECT_TRUE(plain.keeps_together("95°C / 100°C")) << language;
        const LaidOut thermal(turned.m_throttle_label, turned.throttle_tooltip(0.25, true, 95, 100));
        EXPECT_TRUE(thermal.keeps_together("95°C / 100°C")) << language;
        EXPECT_TRUE(thermal.left_to_right("95°C", I18n::instance().tr("Throttle"))) << language;
    }
}

TEST_F(ThrottleLabel, OnlyTheThermalTooltipFromRightToLeftHasDirectionMarks)
{
    for (const LanguageInfo& language : I18n::available()) {
        speak(language.code.c_str());
        show(0.25, true, 90, 100);
        EXPECT_FALSE(has_direction_mark(markup_of(app.m_throttle_label))) << language.code;
        EXPECT_EQ(has_direction_mark(tooltip_of(app.m_throttle_label)), language.rtl) << language.code;
        EXPECT_FALSE(has_direction_mark(tooltip(0.25, false, 90, 100))) << language.code;
        EXPECT_FALSE(has_direction_mark(tooltip(0.25, true, NONE, 100))) << language.code;
    }
}

TEST_F(ThrottleLabel, SpeaksJapanese)
{
    speak("ja");
    show(0.25, false);
    EXPECT_EQ(text_of(app.m_throttle_label), "スロットリング 25%");
    EXPECT_EQ(tooltip_of(app.m_throttle_label), "スロットリング 25%");
}

// --- the info line ---

namespace {

/// What the info line tells of.
struct Facts {
    int logical = 0;
    int physical = 0;
    double used_gb = -1.0;
    double total_gb = -1.0;
};

constexpr Facts THREADED = {.logical = 16, .physical = 8, .used_gb = 5, .total_gb = 31};

/// So much memory that no form with it fits into the narrowest window.
constexpr Facts VAST = {.logical = 16, .physical = 8, .used_gb = 1e12, .total_gb = 4e12};
const std::vector<std::string> FORMS_OF_VAST = {
    "8 Cores / 16 Threads / RAM 1000000000000/4000000000000 GB",
    "8C/16T / RAM 1000000000000/4000000000000 GB",
    "8C/16T / 1000000000000/4000000000000 GB",
    "8C/16T",
};

int measured(GtkWidget* label, const std::string& text)
{
    PangoLayout* const layout = gtk_widget_create_pango_layout(label, text.c_str());
    PangoRectangle extents{};
    pango_layout_get_pixel_extents(layout, nullptr, &extents);
    g_object_unref(layout);
    return extents.width;
}

/// Lets the label take a width, as its container would.
void allocate(GtkWidget* label, int width)
{
    gtk_widget_show(label);
    int height = 0;
    gtk_widget_get_preferred_width(label, &height, nullptr);  // GTK wants to have been asked
    gtk_widget_get_preferred_height_for_width(label, width, &height, nullptr);
    GtkAllocation area{0, 0, width, height};
    gtk_widget_size_allocate(label, &area);
}

/// Finds a size of font in which the text is exactly so wide, and gives it to the label.
bool fit_font(GtkWidget* label, const std::string& text, int width)
{
    PangoContext* const context = gtk_widget_get_pango_context(label);
    pango_context_set_round_glyph_positions(context, FALSE);  // else the width grows by whole letters
    PangoFontDescription* const font = pango_font_description_from_string("sans");
    const auto width_at = [&](int size) {
        pango_font_description_set_absolute_size(font, size);
        pango_context_set_font_description(context, font);
        return measured(label, text);
    };
    int size = 0;
    for (int step = 32 * PANGO_SCALE; step > 0; step /= 2) {
        size += width_at(size + step) <= width ? step : 0;
    }
    const bool fits = width_at(size) == width;
    pango_font_description_free(font);
    return fits;
}

/// Lets a widget have that style.
void style(GtkWidget* widget, const char* css)
{
    GtkCssProvider* const provider = gtk_css_provider_new();
    gtk_css_provider_load_from_data(provider, css, -1, nullptr);
    gtk_style_context_add_provider(gtk_widget_get_style_context(widget), GTK_STYLE_PROVIDER(provider), GTK_STYLE_PROVIDER_PRIORITY_USER);
    g_object_unref(provider);
}

}  // namespace

class InfoLine : public IdleAppTest {
protected:
    static constexpr int ROOMY = 2000;

    /// What the samplers and the cache hold.
    static void put_facts(IdleApp& app, const Facts& facts)
    {
        std::vector<CoreStats> cores(static_cast<std::size_t>(facts.logical));
        app.m_cpu_reader->m_cores = cores;
        app.m_cache.cores = cores;
        app.m_sys_metrics->m_core_count = 77;  // what the line must not take for the number of CPUs
        app.m_sys_metrics->m_physical_core_count = facts.physical;
        app.m_cache.mem_used_gb = app.m_sys_metrics->m_mem_used_gb = facts.used_gb;
        app.m_cache.mem_total_gb = app.m_sys_metrics->m_mem_total_gb = facts.total_gb;
    }

    /// The text at that width of the label.
    std::string text(const Facts& facts, int width)
    {
        IdleApp app(Shape{.clusters = {1}});
        put_facts(app, facts);
        allocate(app.m_info_label, width);
        EXPECT_EQ(gtk_widget_get_allocated_width(app.m_info_label), width);
        app.update_info_line();
        return text_of(app.m_info_label);
    }

    /// All forms, longest first, found by making the label narrower and narrower.
    std::vector<std::string> forms(const Facts& facts)
    {
        std::vector<std::string> found;
        for (int width = ROOMY; width > 20; width -= width > 600 ? 100 : 1) {
            const std::string shown = text(facts, width);
            if (found.empty() || found.back() != shown) {
                found.push_back(shown);
            }
        }
        return found;
    }

    /// Likewise, of one window whose label is made narrower.
    static std::vector<std::string> forms_in_one_app(const Facts& facts)
    {
        IdleApp app(Shape{.clusters = {1}});
        put_facts(app, facts);
        std::vector<std::string> found;
        for (int width = 600; width > 20; width -= 2) {
            allocate(app.m_info_label, width);
            app.update_info_line();
            if (found.empty() || found.back() != text_of(app.m_info_label)) {
                found.push_back(text_of(app.m_info_label));
            }
        }
        return found;
    }
};

TEST_F(InfoLine, WithMemoryThereAreFourForms)
{
    EXPECT_THAT(forms(THREADED), ElementsAre("8 Cores / 16 Threads / RAM 5/31 GB", "8C/16T / RAM 5/31 GB", "8C/16T / 5/31 GB", "8C/16T"));
}

TEST_F(InfoLine, WithoutMemoryThereAreTwoForms)
{
    EXPECT_THAT(forms({.logical = 16, .physical = 8}), ElementsAre("8 Cores / 16 Threads", "8C/16T"));
}

TEST_F(InfoLine, WithAsManyCoresAsCpusItGivesOnlyTheCores)
{
    EXPECT_THAT(forms({.logical = 8, .physical = 8, .used_gb = 5, .total_gb = 31}),
                ElementsAre("8 Cores / RAM 5/31 GB", "8C / RAM 5/31 GB", "8C / 5/31 GB", "8C"));
    EXPECT_THAT(forms({.logical = 8, .physical = 8}), ElementsAre("8 Cores", "8C"));
}

TEST_F(InfoLine, UnknownNumberOfCoresFallsBackToTheCpus)
{
    EXPECT_EQ(text({.logical = 6}, ROOMY), "6 Cores");
    EXPECT_EQ(text({.logical = 6}, 21), "6C");
}

TEST_F(InfoLine, MoreCoresThanCpusAreShownAsTheyAre)
{
    EXPECT_EQ(text({.logical = 5, .physical = 32}, ROOMY), "32 Cores / 5 Threads");
    EXPECT_EQ(text({.logical = 5, .physical = 32}, 21), "32C/5T");
}

TEST_F(InfoLine, BeforeTheFirstSampleItCountsNoCpu)
{
    EXPECT_EQ(text({.used_gb = 5, .total_gb = 31}, ROOMY), "0 Cores / RAM 5/31 GB");
    EXPECT_EQ(text({.physical = 8, .used_gb = 5, .total_gb = 31}, ROOMY), "8 Cores / 0 Threads / RAM 5/31 GB");
}

TEST_F(InfoLine, MemoryIsRounded)
{
    EXPECT_EQ(text({.logical = 1, .physical = 1, .used_gb = 4.51, .total_gb = 15.49}, ROOMY), "1 Cores / RAM 5/15 GB");
}

TEST_F(InfoLine, MemoryThatIsNotUsedIsShown)
{
    EXPECT_EQ(text({.logical = 1, .physical = 1, .used_gb = 0.0, .total_gb = 0.1}, ROOMY), "1 Cores / RAM 0/0 GB");
}

TEST_F(InfoLine, MemoryWithoutATotalIsUnknown)
{
    EXPECT_EQ(text({.logical = 1, .physical = 1, .used_gb = 1.0, .total_gb = 0.0}, ROOMY), "1 Cores");
    EXPECT_EQ(text({.logical = 1, .physical = 1, .used_gb = 1.0, .total_gb = -1.0}, ROOMY), "1 Cores");
}

TEST_F(InfoLine, MemoryWithoutTheUsedPartIsUnknown)
{
    EXPECT_EQ(text({.logical = 1, .physical = 1, .used_gb = -1.0, .total_gb = 16.0}, ROOMY), "1 Cores");
}

TEST_F(InfoLine, MemoryTextIsCutAtSixtyThreeBytes)
{
    char whole[128];
    std::snprintf(whole, sizeof whole, "%.0f/%.0f GB", 1e40, 1e40);
    EXPECT_EQ(text({.logical = 1, .physical = 1, .used_gb = 1e40, .total_gb = 1e40}, ROOMY),
              "1 Cores / RAM " + std::string(whole).substr(0, 63));
}

TEST_F(InfoLine, SpeaksGermanInItsLongForm)
{
    speak("de");
    EXPECT_THAT(forms(THREADED), ElementsAre("8 Kerne / 16 Threads / RAM 5/31 GB", "8C/16T / RAM 5/31 GB", "8C/16T / 5/31 GB", "8C/16T"));
    EXPECT_EQ(text({.logical = 8, .physical = 8}, ROOMY), "8 Kerne");
}

TEST_F(InfoLine, SpeaksArabicWhereItHasWords)
{
    speak("ar");
    EXPECT_THAT(forms(THREADED), ElementsAre("8 نواة / 16 خيط / الذاكرة " MARKS "5/31 GB", MARKS "8C/16T / الذاكرة " MARKS "5/31 GB",
                                             MARKS "8C/16T / " MARKS "5/31 GB", MARKS "8C/16T"));
    EXPECT_EQ(text({.logical = 8, .physical = 8}, ROOMY), "الأنوية: 8");
}

TEST_F(InfoLine, EveryFormReadsInOrderFromRightToLeft)
{
    for (const char* language : RIGHT_TO_LEFT_LANGUAGES) {
        speak(language);
        const std::vector<std::string> all = forms_in_one_app(THREADED);
        ASSERT_EQ(all.size(), 4U) << language;
        IdleApp app(Shape{.clusters = {1}});
        for (std::size_t form = 0; form < 3; ++form) {
            SCOPED_TRACE(all[form]);
            const LaidOut line(app.m_info_label, all[form]);
            EXPECT_TRUE(line.keeps_together("5/31 GB"));
            EXPECT_TRUE(form == 0 || line.keeps_together("8C/16T"));
            const std::string first = form == 0 ? "16" : "8C";
            EXPECT_TRUE(line.left_to_right("5/31 GB", first)) << "the counts come first";
            const std::string ram = I18n::instance().tr("RAM");
            EXPECT_TRUE(form == 2 || (line.left_to_right("5/31 GB", ram) && line.left_to_right(ram, first)));
        }
    }
}

TEST_F(InfoLine, HasDirectionMarksFromRightToLeftOnly)
{
    for (const LanguageInfo& language : I18n::available()) {
        speak(language.code.c_str());
        for (const std::string& form : forms_in_one_app(THREADED)) {
            EXPECT_EQ(has_direction_mark(form), language.rtl) << form;
        }
        EXPECT_FALSE(has_direction_mark(text({.logical = 8, .physical = 8}, ROOMY))) << language.code;
    }
}

TEST_F(InfoLine, SpeaksJapaneseWhereItHasWords)
{
    speak("ja");
    EXPECT_THAT(forms(THREADED),
                ElementsAre("8 コア / 16 スレッド / メモリ 5/31 GB", "8C/16T / メモリ 5/31 GB", "8C/16T / 5/31 GB", "8C/16T"));
    EXPECT_EQ(text({.logical = 8, .physical = 8}, ROOMY), "8 コア");
}

TEST_F(InfoLine, IsPlainText)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, THREADED);
    gtk_label_set_markup(GTK_LABEL(app.m_info_label), "<b>other</b>");
    app.update_info_line();
    EXPECT_FALSE(gtk_label_get_use_markup(GTK_LABEL(app.m_info_label)));
    EXPECT_EQ(text_of(app.m_info_label), markup_of(app.m_info_label));
    EXPECT_EQ(gtk_label_get_attributes(GTK_LABEL(app.m_info_label)), nullptr);
}

TEST_F(InfoLine, IsRewrittenWhateverItHeld)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, {.logical = 2, .physical = 2});
    app.update_info_line();
    gtk_label_set_text(GTK_LABEL(app.m_info_label), "other");
    app.update_info_line();
    EXPECT_EQ(text_of(app.m_info_label), "2 Cores");
}

TEST_F(InfoLine, FollowsTheTick)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, {.logical = 4, .physical = 2, .used_gb = 1, .total_gb = 4});
    app.m_cache = {};
    allocate(app.m_info_label, ROOMY);
    app.update();
    EXPECT_EQ(text_of(app.m_info_label), "2 Cores / 4 Threads / RAM 1/4 GB");
    put_facts(app, {.logical = 3, .physical = 3});
    app.update();
    EXPECT_EQ(text_of(app.m_info_label), "3 Cores");
}

TEST_F(InfoLine, IsMeasuredAgainOnlyIfItsTextsItsRoomOrItsFontChange)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, VAST);
    ASSERT_TRUE(fit_font(app.m_info_label, FORMS_OF_VAST[0], 300));
    allocate(app.m_info_label, 300);
    app.update_info_line();
    EXPECT_EQ(text_of(app.m_info_label), FORMS_OF_VAST[0]);
    g_measured_texts = 0;
    app.update_info_line();
    EXPECT_EQ(g_measured_texts, 0);
    allocate(app.m_info_label, 299);
    app.update_info_line();
    EXPECT_EQ(text_of(app.m_info_label), FORMS_OF_VAST[1]);
    put_facts(app, {.logical = 16, .physical = 8});
    app.update_info_line();
    EXPECT_NE(text_of(app.m_info_label), FORMS_OF_VAST[1]);
    put_facts(app, VAST);
    app.update_info_line();
    ASSERT_TRUE(fit_font(app.m_info_label, FORMS_OF_VAST[0], 299));
    app.update_info_line();
    EXPECT_EQ(text_of(app.m_info_label), FORMS_OF_VAST[0]);
}

// --- the width that it reckons with ---

class InfoLineWidth : public InfoLine {
protected:
    static constexpr Facts MACHINE = {.logical = 16, .physical = 8};
    static inline const std::string LONG = "8 Cores / 16 Threads";
    static inline const std::string SHORT = "8C/16T";

    /// The line in a font in which its long form has that width; `prepare` decides what width the line has for it.
    std::string with_long_form_of(int width, bool horizontal, const std::function<void(IdleApp&)>& prepare)
    {
        IdleApp app(Shape{.clusters = {1}, .horizontal = horizontal});
        put_facts(app, MACHINE);
        EXPECT_TRUE(fit_font(app.m_info_label, LONG, width)) << "no font makes it " << width << " pixels wide";
        prepare(app);
        app.update_info_line();
        return text_of(app.m_info_label);
    }
};

TEST_F(InfoLineWidth, IsThatOfTheLabel)
{
    const auto prepare = [](IdleApp& app) {
        app.m_last_window_w = 1000;
        allocate(app.m_info_label, 150);
    };
    for (const bool horizontal : {false, true}) {
        EXPECT_EQ(with_long_form_of(150, horizontal, prepare), LONG);
        EXPECT_EQ(with_long_form_of(151, horizontal, prepare), SHORT);
    }
}

TEST_F(InfoLineWidth, BeforeTheFirstAllocationIsThatOfTheSidePanelInHorizontalOrientation)
{
    const auto prepare = [](IdleApp& app) { app.m_last_window_w = 40; };
    EXPECT_EQ(with_long_form_of(218, true, prepare), LONG);
    EXPECT_EQ(with_long_form_of(219, true, prepare), SHORT);
}

TEST_F(InfoLineWidth, BeforeTheFirstAllocationIsTheWindowsLessTwelveInVerticalOrientation)
{
    const auto prepare = [](IdleApp& app) { app.m_last_window_w = 162; };
    EXPECT_EQ(with_long_form_of(150, false, prepare), LONG);
    EXPECT_EQ(with_long_form_of(151, false, prepare), SHORT);
}

TEST_F(InfoLineWidth, OfOnePixelCountsAsNone)
{
    const auto prepare = [](IdleApp& app) {
        app.m_last_window_w = 162;
        allocate(app.m_info_label, 1);
    };
    EXPECT_EQ(with_long_form_of(218, true, prepare), LONG);
    EXPECT_EQ(with_long_form_of(219, true, prepare), SHORT);
    EXPECT_EQ(with_long_form_of(150, false, prepare), LONG);
    EXPECT_EQ(with_long_form_of(151, false, prepare), SHORT);
}

TEST_F(InfoLineWidth, OfTwoPixelsCountsAsAWidth)
{
    const auto prepare = [](IdleApp& app) {
        app.m_last_window_w = 162;
        allocate(app.m_info_label, 2);
    };
    EXPECT_EQ(with_long_form_of(300, true, prepare), LONG);  // too narrow to be measured
    EXPECT_EQ(with_long_form_of(300, false, prepare), LONG);
}

TEST_F(InfoLineWidth, OfTwentyOrLessKeepsTheLongestForm)
{
    const Facts facts = {.logical = 16, .physical = 8, .used_gb = 5, .total_gb = 31};
    EXPECT_EQ(text(facts, 20), "8 Cores / 16 Threads / RAM 5/31 GB");
    EXPECT_EQ(text(facts, 2), "8 Cores / 16 Threads / RAM 5/31 GB");
}

TEST_F(InfoLineWidth, OfTwentyOneIsMeasuredAndTheShortestFormStaysIfNoneFits)
{
    const Facts facts = {.logical = 16, .physical = 8, .used_gb = 5, .total_gb = 31};
    EXPECT_EQ(text(facts, 21), "8C/16T");
    EXPECT_EQ(text(MACHINE, 21), "8C/16T");
}

TEST_F(InfoLineWidth, OfTheWindowBeforeItsFirstAllocationKeepsTheLongestForm)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, THREADED);
    for (const int window_w : {0, 12, 32}) {
        app.m_last_window_w = window_w;
        app.update_info_line();
        EXPECT_EQ(text_of(app.m_info_label), "8 Cores / 16 Threads / RAM 5/31 GB") << window_w;
    }
    app.m_last_window_w = 33;
    app.update_info_line();
    EXPECT_EQ(text_of(app.m_info_label), "8C/16T");
}

// --- the info line on the screen ---

class InfoLineOnScreen : public InfoLine {
protected:
    static int width_of(GtkWidget* widget) { return gtk_widget_get_allocated_width(widget); }

    /// Gives the info line that width by way of the window's, and waits until all that follows is painted.
    static bool widen(IdleApp& app, int width)
    {
        const int around = width_of(app.m_window) - width_of(app.m_info_label);
        gtk_window_resize(GTK_WINDOW(app.m_window), around + width, 500);
        return iterate_until([&] { return width_of(app.m_info_label) == width; }) && settle(app.m_window);
    }

    /// Whether a label has the room that its text needs.
    static testing::AssertionResult has_room(GtkWidget* label)
    {
        int width = 0;
        int height = 0;
        pango_layout_get_pixel_size(gtk_label_get_layout(GTK_LABEL(label)), &width, &height);
        const int room = width_of(label);
        const int depth = gtk_widget_get_allocated_height(label);
        auto result = width <= room && height <= depth ? testing::AssertionSuccess() : testing::AssertionFailure();
        return result << '"' << text_of(label) << "\" of " << width << " x " << height << " in " << room << " x " << depth;
    }
};

TEST_F(InfoLineOnScreen, EachFormStaysDownToItsOwnWidth)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, VAST);
    ASSERT_TRUE(app.show());
    for (std::size_t form = 0; form < 3; ++form) {
        const int width = measured(app.m_info_label, FORMS_OF_VAST[form]);
        ASSERT_TRUE(widen(app, width));
        EXPECT_EQ(text_of(app.m_info_label), FORMS_OF_VAST[form]);
        EXPECT_TRUE(has_room(app.m_info_label));
        ASSERT_TRUE(widen(app, width - 1));
        EXPECT_EQ(text_of(app.m_info_label), FORMS_OF_VAST[form + 1]);
        EXPECT_TRUE(has_room(app.m_info_label));
    }
}

TEST_F(InfoLineOnScreen, FormsComeBackAsTheWindowWidens)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, VAST);
    ASSERT_TRUE(app.show());
    ASSERT_TRUE(widen(app, measured(app.m_info_label, FORMS_OF_VAST[2]) - 1));
    for (const std::size_t form : {3U, 2U, 1U, 0U}) {
        const int width = measured(app.m_info_label, FORMS_OF_VAST[form]);
        ASSERT_TRUE(form == 3 || widen(app, width));
        EXPECT_EQ(text_of(app.m_info_label), FORMS_OF_VAST[form]);
    }
}

TEST_F(InfoLineOnScreen, TickReckonsWithTheWidthOnTheScreen)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, {.logical = 1, .physical = 1});
    ASSERT_TRUE(app.show());
    ASSERT_TRUE(widen(app, measured(app.m_info_label, FORMS_OF_VAST[1])));
    put_facts(app, VAST);
    app.update();
    EXPECT_EQ(text_of(app.m_info_label), FORMS_OF_VAST[1]);
}

TEST_F(InfoLineOnScreen, SidePanelShowsEachFormThatFits)
{
    IdleApp app(Shape{.clusters = {4}, .horizontal = true});
    ASSERT_TRUE(app.show());
    const int width = width_of(app.m_info_label);
    std::set<std::size_t> reached;
    for (double total = 1; total < 1e15; total *= 10) {
        put_facts(app, {.logical = 16, .physical = 8, .used_gb = total, .total_gb = total});
        char memory[64];
        std::snprintf(memory, sizeof memory, "%.0f/%.0f GB", total, total);
        const std::string gb = memory;
        const std::vector<std::string> all = {"8 Cores / 16 Threads / RAM " + gb, "8C/16T / RAM " + gb, "8C/16T / " + gb, "8C/16T"};
        const auto fits = [&](const std::string& form) { return measured(app.m_info_label, form) <= width; };
        const auto expected = std::find_if(all.begin(), all.end(), fits);
        ASSERT_NE(expected, all.end());
        reached.insert(static_cast<std::size_t>(expected - all.begin()));
        app.update();
        EXPECT_EQ(text_of(app.m_info_label), *expected);
        ASSERT_TRUE(settle(app.m_window));
        EXPECT_TRUE(has_room(app.m_info_label));
        EXPECT_EQ(width_of(app.m_info_label), width);
    }
    EXPECT_THAT(reached, ElementsAre(0U, 1U, 2U, 3U));
}

TEST_F(InfoLineOnScreen, EveryLanguageKeepsToItsForms)
{
    for (const char* language : {"en", "de", "ar", "he", "ja"}) {
        for (const bool horizontal : {false, true}) {
            speak(language);
            IdleApp app(Shape{.clusters = {1}, .horizontal = horizontal});
            put_facts(app, THREADED);
            ASSERT_TRUE(app.show());
            app.update();
            ASSERT_TRUE(settle(app.m_window));
            const std::vector<std::string> all = forms(THREADED);
            const auto fits = [&](const std::string& form) { return measured(app.m_info_label, form) <= width_of(app.m_info_label); };
            const auto expected = std::find_if(all.begin(), all.end(), fits);
            ASSERT_NE(expected, all.end());
            EXPECT_EQ(text_of(app.m_info_label), *expected) << language;
            EXPECT_TRUE(has_room(app.m_info_label));
        }
    }
}

TEST_F(InfoLineOnScreen, FormThatIsStillTooWideTakesMoreLinesAndGetsThem)
{
    IdleApp app(Shape{.clusters = {1}});
    put_facts(app, {.logical = 16, .physical = 8});
    style(app.m_info_label, "* { font-size: 60px; }");
    ASSERT_TRUE(app.show());
    ASSERT_GT(measured(app.m_info_label, "8C/16T"), 160);
    ASSERT_TRUE(widen(app, 700));
    const int one_line = gtk_widget_get_allocated_height(app.m_info_label);
    ASSERT_TRUE(widen(app, 160));
    EXPECT_EQ(text_of(app.m_info_label), "8C/16T");
    EXPECT_TRUE(has_room(app.m_info_label));
    EXPECT_GT(gtk_widget_get_allocated_height(app.m_info_label), one_line);
}

TEST_F(InfoLineOnScreen, PercentagesThatGrowAfterANewWidthAreNotCutOff)
{
    for (const bool horizontal : {false, true}) {
        IdleApp app(Shape{.clusters = {4}, .horizontal = horizontal, .columns = 4});
        const auto tick = [&](double load) {
            put_facts(app, {.logical = 4, .physical = 2, .used_gb = 1, .total_gb = 4});
            for (CoreStats& core : app.m_cpu_reader->m_cores) {
                core.usage = load;
            }
            app.update();
        };
        ASSERT_TRUE(app.show());
        for (const int width : {700, 480, 900}) {
            tick(0.05);
            ASSERT_TRUE(settle(app.m_window));
            gtk_window_resize(GTK_WINDOW(app.m_window), width, 500);
            ASSERT_TRUE(iterate_until([&] { return width_of(app.m_window) == width; }));
            ASSERT_TRUE(settle(app.m_window));
            tick(1.0);
            ASSERT_TRUE(settle(app.m_window));
            for (const auto& core : app.m_clusters_ui[0].cores) {
                EXPECT_EQ(text_of(core.pct_label), "100%");
                EXPECT_TRUE(has_room(core.pct_label)) << "in a window " << width << " pixels wide";
            }
            EXPECT_TRUE(has_room(app.m_info_label));
        }
    }
}

TEST_F(InfoLineOnScreen, ThrottleAndStatusHaveTheirRoomAfterANewWidth)
{
    IdleApp app(Shape{.clusters = {4}, .columns = 4});
    ASSERT_TRUE(app.show());
    gtk_window_resize(GTK_WINDOW(app.m_window), 600, 500);
    ASSERT_TRUE(iterate_until([&] { return width_of(app.m_window) == 600; }));
    SystemMetrics& metrics = *app.m_sys_metrics;
    app.m_cpu_reader->m_cores = {{.usage = 1.0, .history = {1.0}}};
    metrics.m_frequencies = {2500};
    metrics.m_max_frequencies = {5000};
    metrics.m_temperature = 71;
    metrics.m_power = 123.4;
    metrics.m_thermal_throttling = true;
    app.update();
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_EQ(text_of(app.m_throttle_label), "🔥 Throttle 50%");
    EXPECT_TRUE(has_room(app.m_throttle_label));
    EXPECT_TRUE(has_room(app.m_right_info_label));
}
