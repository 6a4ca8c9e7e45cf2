/// The way of the window onto the screen: painted in memory, and after a tick nothing of the cards but what the tick has changed. What
/// comes of it has to be what GTK paints by itself.
#include <sys/shm.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "app.h"
#include "chart_font.h"
#include "chart_look.h"
#include "damage.h"
#include "desktop/calls.h"
#include "desktop/pictures.h"
#include "desktop/screenshot.h"
#include "live_app.h"
#include "settings.h"

namespace {
int g_synchronisations = 0;    // by the program itself
std::optional<gint64> g_time;  // that the program is told, in microseconds; without it the true time
}  // namespace

struct _XDisplay;

// Declared here, as Xlib's headers have macros with the names of gtest
extern "C" _XDisplay* gdk_x11_display_get_xdisplay(GdkDisplay* display);
extern "C" unsigned long gdk_x11_window_get_xid(GdkWindow* window);

extern "C" int XSync(_XDisplay* display, int discard)
{
    g_synchronisations += is_own_code(__builtin_return_address(0)) ? 1 : 0;
    return next<int(_XDisplay*, int)>("XSync")(display, discard);
}

extern "C" gint64 g_get_monotonic_time()
{
    const bool is_held = is_own_code(__builtin_return_address(0)) && g_time;
    return is_held ? *g_time : next<decltype(g_get_monotonic_time)>("g_get_monotonic_time")();
}

using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr int ROUNDING = 3;  // levels of a channel, where translucent colours lie over each other
constexpr int CURVES = 16;   // likewise, between cairo's way of painting curves and the program's

const Shape SMALL_CARDS{.clusters = {10, 6}, .columns = 2};
const Shape LARGE_CARDS{.clusters = {1}};

using Draw = gboolean(GtkWidget*, cairo_t*, gpointer);

void forbid(GtkWidget* widget, Draw* handler)
{
    ASSERT_GE(
        g_signal_handlers_disconnect_matched(widget, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr, reinterpret_cast<gpointer>(handler), nullptr), 1U);
}

/// The window by GTK alone: without the program's own ways of painting.
Picture painted_by_gtk(App& app, int zoom)
{
    forbid(app.m_window, App::draw_window);
    Picture picture(gtk_widget_get_allocated_width(app.m_window), gtk_widget_get_allocated_height(app.m_window), zoom);
    take_font_options(app.m_window, picture.cr());
    gtk_widget_draw(app.m_window, picture.cr());
    return picture;
}

Picture painted_by_gtk(App& app)
{
    return painted_by_gtk(app, gtk_widget_get_scale_factor(app.m_window));
}

/// Repaints the window and compares what then stands on the screen with GTK's painting.
void expect_as_by_gtk(App& app)
{
    gtk_widget_queue_draw(app.m_window);
    ASSERT_TRUE(settle(app.m_window));
    const Screenshot screen(app.m_window);
    const Distance distance(screen, painted_by_gtk(app));
    EXPECT_LE(distance.largest, ROUNDING);
}

/// Gives each CPU another load and clock, and lets the tick show them.
void tick(App& app, int number)
{
    const int cpus = app.card_count();
    auto& reader = *app.m_cpu_reader;
    reader.m_cores.resize(static_cast<std::size_t>(cpus));
    for (int cpu = 0; cpu < cpus; ++cpu) {
        CoreStats& core = reader.m_cores[static_cast<std::size_t>(cpu)];
        core.usage = (7 * cpu + 31 * number) % 101 / 100.0;
        core.history.push_back(core.usage);
    }
    reader.m_total_history.push_back(number % 10 / 10.0);
    app.m_sys_metrics->m_frequencies.assign(static_cast<std::size_t>(cpus), 2000.0 + 100 * number);
    app.update();
}

/// A tick at which temperature, power and the throttle figure are others, and no load is.
void tick_of_status(App& app, int number)
{
    const auto cpus = static_cast<std::size_t>(app.card_count());
    SystemMetrics& metrics = *app.m_sys_metrics;
    metrics.m_temperature = 95.0 + number;
    metrics.m_power = 4.0 * number;
    metrics.m_frequencies.assign(cpus, 2000.0);
    metrics.m_max_frequencies.assign(cpus, 2000.0 + 200 * number);
    app.m_cpu_reader->m_cores.assign(cpus, {.usage = 1.0, .history = {}});
    app.update();
}

/// Has the server forget part of a window, and tell of it, as when another window has covered it.
void lose(GdkWindow* window, const GdkRectangle& part)
{
    _XDisplay* const display = gdk_x11_display_get_xdisplay(gdk_window_get_display(window));
    const unsigned long number = gdk_x11_window_get_xid(window);
    next<int(_XDisplay*, unsigned long, unsigned long)>("XSetWindowBackground")(display, number, 0);
    next<int(_XDisplay*, unsigned long, int, int, unsigned, unsigned, int)>("XClearArea")(
        display, number, part.x, part.y, static_cast<unsigned>(part.width), static_cast<unsigned>(part.height), TRUE);
}

/// How often GTK has asked any widget to paint itself, from now on to the end of its life.
class Draws {
public:
    Draws() : m_hook(g_signal_add_emission_hook(signal(), 0, count, &m_count, nullptr)) {}
    ~Draws() { g_signal_remove_emission_hook(signal(), m_hook); }
    Draws(const Draws&) = delete;
    Draws& operator=(const Draws&) = delete;
    int count() const { return m_count; }

private:
    static guint signal() { return g_signal_lookup("draw", GTK_TYPE_WIDGET); }
    static gboolean count(GSignalInvocationHint*, guint, const GValue*, gpointer count)
    {
        ++*static_cast<int*>(count);
        return TRUE;
    }

    int m_count = 0;
    gulong m_hook;
};

/// How many pieces of memory this process shares with others, and how many of them would outlive all who use them.
struct SharedMemory {
    int pieces = 0;
    int lasting = 0;

    static SharedMemory present()
    {
        SharedMemory memory;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.find("/SYSV") == std::string::npos) {
                continue;
            }
            std::istringstream fields(line);
            std::string skipped;
            int id = -1;  // in the place of a file's inode
            fields >> skipped >> skipped >> skipped >> skipped >> id;
            shmid_ds state{};
            ++memory.pieces;
            memory.lasting += shmctl(id, IPC_STAT, &state) == 0 && (state.shm_perm.mode & SHM_DEST) != 0 ? 0 : 1;
        }
        return memory;
    }
};

/// Lets some ticks pass, and compares what then stands on the screen with GTK's painting. Says how many of the ticks took the short way.
int expect_ticks_as_by_gtk(App& app, int ticks = 3)
{
    for (int i = 0; i < 20; ++i) {
        tick(app, i);  // all percentages of two digits by then, or nearly
    }
    gtk_widget_queue_draw(app.m_window);
    EXPECT_TRUE(settle(app.m_window));
    int short_ways = 0;
    for (int i = 0; i < ticks; ++i) {
        app.m_title_backdrops.clear();
        tick(app, 20 + i);
        EXPECT_TRUE(settle(app.m_window));
        short_ways += app.m_title_backdrops.empty() ? 0 : 1;
    }
    const Screenshot screen(app.m_window);
    const Distance distance(screen, painted_by_gtk(app));
    EXPECT_LE(distance.largest, CURVES);
    EXPECT_LE(distance.mean, 0.2);
    return short_ways;
}

GdkRectangle all_of(GtkWidget* window)
{
    return {0, 0, gtk_widget_get_allocated_width(window), gtk_widget_get_allocated_height(window)};
}

/// What of the window lies on the screen.
GdkRectangle part_on_screen(GtkWidget* window)
{
    GdkWindow* const root = gdk_screen_get_root_window(gtk_widget_get_screen(window));
    int x = 0;
    int y = 0;
    gdk_window_get_origin(gtk_widget_get_window(window), &x, &y);
    const GdkRectangle all = all_of(window);
    GdkRectangle part{-x, -y, gdk_window_get_width(root), gdk_window_get_height(root)};
    gdk_rectangle_intersect(&all, &part, &part);
    return part;
}

/// How many pixels of a part of the screenshot are not those of a picture or of another screenshot.
int count_differing(const Screenshot& screen, const auto& wanted, const GdkRectangle& part, int tolerance)
{
    int count = 0;
    for (int y = part.y; y < part.y + part.height; ++y) {
        for (int x = part.x; x < part.x + part.width; ++x) {
            count += is_about(screen.at(x, y), wanted.at(x, y), tolerance) ? 0 : 1;
        }
    }
    return count;
}

/// Whether a widget's place on the screen looks as GTK paints it.
bool is_as_by_gtk(App& app, GtkWidget* widget)
{
    GtkAllocation place;
    gtk_widget_get_clip(widget, &place);
    return count_differing(Screenshot(app.m_window), painted_by_gtk(app), place, ROUNDING) == 0;
}

/// Where the screen is not as GTK paints it, beside the charts; empty if nowhere.
std::string stray_pixels(App& app)
{
    const Screenshot screen(app.m_window);
    const Picture wanted = painted_by_gtk(app);
    std::vector<GtkAllocation> charts(1);
    gtk_widget_get_allocation(app.m_total_chart, &charts.front());
    for (const App::CoreWidgets& core : app.m_clusters_ui.front().cores) {
        gtk_widget_get_allocation(core.chart, &charts.emplace_back());
    }
    std::string places;
    for (int y = 0; y < gtk_widget_get_allocated_height(app.m_window); ++y) {
        for (int x = 0; x < gtk_widget_get_allocated_width(app.m_window); ++x) {
            const GdkRectangle pixel{x, y, 1, 1};
            const auto holds = [&](const GtkAllocation& chart) { return gdk_rectangle_intersect(&chart, &pixel, nullptr); };
            if (std::none_of(charts.begin(), charts.end(), holds) && !is_about(screen.at(x, y), wanted.at(x, y), ROUNDING)) {
                places += ' ' + std::to_string(x) + ',' + std::to_string(y);
            }
        }
    }
    return places;
}

class WindowOnScreen : public IdleAppTest {
protected:
    static void apply(App& app, const char* theme)
    {
        SettingsStore::instance().mutable_get().theme = theme;
        app.apply_theme();
    }
};

class TickOnScreen : public WindowOnScreen {
protected:
    /// Shows a window of that shape and lets it tick.
    static void expect_short_way(const Shape& shape, const char* theme = "light")
    {
        IdleApp app(shape);
        apply(app, theme);
        ASSERT_TRUE(app.show());
        EXPECT_EQ(expect_ticks_as_by_gtk(app), 3);
    }

    /// Shows those ticks of the status, in both directions of writing; `prepare` comes before each.
    static void expect_status_as_by_gtk(const char* theme, const std::vector<int>& numbers, const std::function<void(App&)>& prepare)
    {
        for (const char* language : {"en", "ar"}) {
            speak(language);
            App::apply_text_direction();
            IdleApp app({.clusters = {2}, .columns = 2});
            apply(app, theme);
            ASSERT_TRUE(app.show());
            for (const int number : numbers) {
                prepare(app);
                tick_of_status(app, number);
                ASSERT_TRUE(settle(app.m_window));
                EXPECT_TRUE(is_as_by_gtk(app, gtk_widget_get_parent(app.m_throttle_label))) << language << ' ' << number;
                g_signal_connect(app.m_window, "draw", G_CALLBACK(App::draw_window), static_cast<App*>(&app));
            }
        }
    }
};

class ScaledWindowOnScreen : public DesktopTest {
protected:
    const ScopedEnv scale{"GDK_SCALE", "2"};
};

/// GDK takes the server's news of a part for old if it has that part painted before it hears of it: it does not see that a tick paints less
/// of the window than it was asked for. The part is in pixels.
void expect_whole_after_a_loss_before_a_tick(const GdkRectangle& part)
{
    IdleApp app(SMALL_CARDS);
    app.apply_theme();
    ASSERT_TRUE(app.show());
    tick(app, 1);
    ASSERT_TRUE(settle(app.m_window));
    GdkWindow* const window = gtk_widget_get_window(app.m_window);
    tick(app, 2);
    lose(window, part);
    gdk_display_sync(gdk_display_get_default());  // the news is there, but not yet read
    for (const char* phase : {"layout", "paint"}) {
        g_signal_emit_by_name(gdk_window_get_frame_clock(window), phase);
    }
    ASSERT_TRUE(settle(app.m_window));
    const Screenshot shown(app.m_window);
    gtk_widget_queue_draw(app.m_window);
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_EQ(count_differing(shown, Screenshot(app.m_window), all_of(app.m_window), 0), 0);
}

GdkFilterReturn drop_exposures(GdkXEvent* event, GdkEvent*, gpointer)
{
    constexpr int EXPOSE = 12;  // Xlib's number
    return *static_cast<const int*>(event) == EXPOSE ? GDK_FILTER_REMOVE : GDK_FILTER_CONTINUE;
}

/// Resources of the display, as a desktop sets them; gone at the end of the scope, as other cases share the display. They are told by
/// another client, because Xlib and cairo ask for them when GTK opens the display.
class DisplayResources {
public:
    explicit DisplayResources(const std::string& resources)
    {
        std::FILE* const xrdb = popen("xrdb -merge", "w");
        std::fputs(resources.c_str(), xrdb);
        EXPECT_EQ(pclose(xrdb), 0);
    }
    ~DisplayResources() { EXPECT_EQ(std::system("xrdb -remove"), 0); }
    DisplayResources(const DisplayResources&) = delete;
    DisplayResources& operator=(const DisplayResources&) = delete;
};

/// The texts of charts on a screen with font options of its own.
class TextsOnScreen : public DesktopTest {
protected:
    /// Starts GTK on such a screen, and shows charts without a history, in which a curve would lie over the texts.
    static void expect_texts_as_by_server(const std::string& font_options)
    {
        const DisplayResources resources(font_options);
        gtk_init(nullptr, nullptr);
        IdleApp app(SMALL_CARDS);
        app.apply_theme();
        ASSERT_TRUE(app.show());
        for (int tries = 0; !is_text_on_whole_pixels(app.core(0, 0).chart) || !is_text_on_whole_pixels(app.m_total_chart); ++tries) {
            ASSERT_LT(tries, 8) << "no width has both clocks on whole pixels";
            ASSERT_NO_FATAL_FAILURE(make_wider(app));
        }
        show_clock(app, CLOCK);
        gtk_widget_queue_draw(app.m_window);
        ASSERT_TRUE(settle(app.m_window));
        expect_charts_as_by_server(app);
        app.m_title_backdrops.clear();
        show_clock(app, CLOCK + 500);
        ASSERT_TRUE(settle(app.m_window));
        EXPECT_FALSE(app.m_title_backdrops.empty()) << "the long way";
        expect_charts_as_by_server(app);
    }

private:
    static constexpr double CLOCK = 2400.0;

    /// Whether the clock of that chart begins with a whole pixel. Half a pixel is rounded up or down, as it happens.
    static bool is_text_on_whole_pixels(GtkWidget* chart)
    {
        const int w = gtk_widget_get_allocated_width(chart);
        const int h = gtk_widget_get_allocated_height(chart);
        const ChartLook::FrequencyForms forms(CLOCK);
        double x = 0.5;
        painted_by_server(chart, 1, 1, 1, [&](cairo_t* cr) {
            const auto measure = [&](const std::string& text, double size) { return ChartFont(cr, size).measure(text); };
            const auto ghost = ChartLook::choose_ghost(
                w, h, forms.count(), [&](std::size_t form) { return forms.text(form); },
                [&](const std::string& text, double size) { return measure(text, size).width; });
            x = ghost ? ChartLook::ghost_origin(w, h, measure(ghost->text, ghost->size)).x : x;
        });
        return std::abs(x - std::round(x)) < 0.25;
    }

    static void make_wider(IdleApp& app)
    {
        const int width = gtk_widget_get_allocated_width(app.m_window) + 1;
        gtk_window_resize(GTK_WINDOW(app.m_window), width, gtk_widget_get_allocated_height(app.m_window));
        ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_window) == width; }));
    }

    static void show_clock(App& app, double mhz)
    {
        auto& reader = *app.m_cpu_reader;
        reader.m_cores.assign(16, {});
        for (CoreStats& core : reader.m_cores) {
            core.usage = mhz / 10'000;
        }
        app.m_sys_metrics->m_frequencies.assign(16, mhz);
        app.update();
    }

    static void expect_charts_as_by_server(IdleApp& app)
    {
        ASSERT_THAT(app.m_cache.total_history, IsEmpty());
        for (GtkWidget* const chart : {app.core(0, 0).chart, app.m_total_chart}) {
            const int width = gtk_widget_get_allocated_width(chart);
            const int height = gtk_widget_get_allocated_height(chart);
            const ChartPainter::Chart shown = app.chart_of(chart, {0, 0, width, height});
            const Picture picture = painted_by_server(chart, width, height, 1, [&](cairo_t* cr) {
                App::paint_chart(cr, width, height, {}, shown.accent, app.palette(), App::freq_texts(shown.mhz), shown.load);
            });
            EXPECT_LE(Distance(Screenshot(chart), picture).largest, ROUNDING) << width << "x" << height;
        }
    }
};

/// A stylesheet that stands above the program's, as a user's own does.
class UserStyle {
public:
    explicit UserStyle(const char* css)
    {
        gtk_css_provider_load_from_data(m_provider, css, -1, nullptr);
        gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(m_provider),
                                                  GTK_STYLE_PROVIDER_PRIORITY_USER);
    }
    ~UserStyle()
    {
        gtk_style_context_remove_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(m_provider));
        g_object_unref(m_provider);
    }
    UserStyle(const UserStyle&) = delete;
    UserStyle& operator=(const UserStyle&) = delete;

private:
    GtkCssProvider* const m_provider = gtk_css_provider_new();
};

}  // namespace

TEST_F(WindowOnScreen, IsWhatGtkPaints)
{
    for (const char* theme : {"light", "dark"}) {
        SCOPED_TRACE(theme);
        IdleApp app(SMALL_CARDS);
        apply(app, theme);
        ASSERT_TRUE(app.show());
        expect_as_by_gtk(app);
    }
}

TEST_F(WindowOnScreen, IsWhatGtkPaintsWithLargeCards)
{
    IdleApp app(LARGE_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    expect_as_by_gtk(app);
}

TEST_F(WindowOnScreen, FollowsAChangeOfTheme)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    apply(app, "dark");
    expect_as_by_gtk(app);
}

TEST_F(WindowOnScreen, KeepsWhatIsNotPaintedAnew)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    gtk_widget_queue_draw(app.core(1, 3).chart);
    ASSERT_TRUE(settle(app.m_window));
    const Screenshot screen(app.m_window);
    EXPECT_LE(Distance(screen, painted_by_gtk(app)).largest, ROUNDING);
}

TEST_F(WindowOnScreen, IsPaintedAnewWhenItsSizeChanges)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "dark");
    ASSERT_TRUE(app.show());
    for (const int wider : {40, -20, 1}) {
        const int width = gtk_widget_get_allocated_width(app.m_window) + wider;
        gtk_window_resize(GTK_WINDOW(app.m_window), width, gtk_widget_get_allocated_height(app.m_window) + wider);
        ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_window) == width; }));
        ASSERT_TRUE(settle(app.m_window));
        const Screenshot screen(app.m_window);
        EXPECT_LE(Distance(screen, painted_by_gtk(app)).largest, ROUNDING) << wider;
        g_signal_connect(app.m_window, "draw", G_CALLBACK(App::draw_window), static_cast<App*>(&app));
    }
}

TEST_F(WindowOnScreen, LeavesNoMemoryBehind)
{
    IdleApp app(SMALL_CARDS);
    ASSERT_TRUE(app.show());
    ASSERT_NE(app.m_screen_image, nullptr);
    const SharedMemory open = SharedMemory::present();
    EXPECT_EQ(open.lasting, 0) << "after a crash";
    app.m_screen_image.reset();
    EXPECT_EQ(SharedMemory::present().pieces, open.pieces - 1);
}

/// Else the server would read a picture that is half painted.
TEST_F(WindowOnScreen, WaitsForTheServerToReadThePictureBefore)
{
    IdleApp app(SMALL_CARDS);
    ASSERT_TRUE(app.show());
    SharedImage& image = *app.m_screen_image;
    gdk_display_sync(gdk_display_get_default());
    g_synchronisations = 0;
    cairo_destroy(image.begin());
    EXPECT_EQ(g_synchronisations, 0) << "with nothing to wait for";
    g_time = 0;  // it waits only for a picture of the last quarter of a second
    image.put_up({0, 0, 10, 10});
    cairo_destroy(image.begin());
    EXPECT_EQ(g_synchronisations, 1);
    g_time.reset();
}

/// Texts that become longer, shorter and others of the same length.
TEST_F(TickOnScreen, ShowsTheStatusAsGtkPaintsIt)
{
    expect_status_as_by_gtk("dark", {0, 1, 2, 9, 8, 3, 4, 0}, [](App&) {});
}

/// The X server keeps nothing of what another window covers, and asks for it with an expose event alone.
TEST_F(TickOnScreen, IsWholeAgainAfterPartOfItWasLost)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    tick(app, 1);
    ASSERT_TRUE(settle(app.m_window));
    const Screenshot before(app.m_window);
    const GdkRectangle all = all_of(app.m_window);
    const auto differing = [&] { return count_differing(Screenshot(app.m_window), before, all, 0); };
    lose(gtk_widget_get_window(app.m_window), {10, 10, 100, 100});
    EXPECT_GT(differing(), 1000) << "lost";
    EXPECT_TRUE(iterate_until([&] { return differing() == 0; }));
}

TEST_F(TickOnScreen, IsWholeAgainThoughATickIsPaintedBeforeTheLossIsKnown)
{
    expect_whole_after_a_loss_before_a_tick({10, 10, 100, 100});
}

/// The X server asks for what comes onto the screen from beside it.
TEST_F(TickOnScreen, IsWholeWhereverAWindowLargerThanTheScreenStands)
{
    IdleApp app({.clusters = {100}});
    apply(app, "light");
    ASSERT_TRUE(app.show());
    ASSERT_GT(all_of(app.m_window).height, 2 * 1024);
    for (const int top : {-300, -1500, -700, 0}) {
        tick(app, 1);  // while most of the window is beside the screen
        ASSERT_TRUE(settle(app.m_window));
        gtk_window_move(GTK_WINDOW(app.m_window), 100, top);
        ASSERT_TRUE(iterate_until([&] { return std::abs(part_on_screen(app.m_window).y + top) < 50; })) << "frame included";
        ASSERT_TRUE(settle(app.m_window));
        const GdkRectangle part = part_on_screen(app.m_window);
        EXPECT_EQ(count_differing(Screenshot(app.m_window), painted_by_gtk(app), part, CURVES), 0) << top;
        g_signal_connect(app.m_window, "draw", G_CALLBACK(App::draw_window), static_cast<App*>(&app));
    }
}

TEST_F(TickOnScreen, PaintsOfAWindowLargerThanTheScreenWhatIsOnIt)
{
    IdleApp app({.clusters = {100}});
    apply(app, "light");
    ASSERT_TRUE(app.show());
    ASSERT_TRUE(settle(app.m_window));
    tick(app, 1);
    const GdkRectangle painted = app.m_screen_image->take_damage().bounds();
    const GdkRectangle on_screen = part_on_screen(app.m_window);
    EXPECT_GT(painted.height, 500);
    EXPECT_LE(painted.y + painted.height, on_screen.y + on_screen.height + 1);
}

/// The server asks for what comes onto the screen, perhaps before it is known that it can be seen.
TEST_F(TickOnScreen, IsWholeThoughTheServerAskedTooEarly)
{
    IdleApp app({.clusters = {100}});
    apply(app, "light");
    ASSERT_TRUE(app.show());
    GdkWindow* const window = gtk_widget_get_window(app.m_window);
    gdk_window_add_filter(window, drop_exposures, nullptr);
    gtk_window_move(GTK_WINDOW(app.m_window), 100, -1500);
    ASSERT_TRUE(iterate_until([&] { return part_on_screen(app.m_window).y > 1000; }));
    ASSERT_TRUE(settle(app.m_window));
    gdk_window_remove_filter(window, drop_exposures, nullptr);
    tick(app, 1);
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_EQ(count_differing(Screenshot(app.m_window), painted_by_gtk(app), part_on_screen(app.m_window), CURVES), 0);
}

/// Texts of which some have ink far above or below their room.
TEST_F(TickOnScreen, LeavesNothingOfTheLanguageBefore)
{
    for (const char* theme : {"light", "dark"}) {
        IdleApp app({.clusters = {2}, .columns = 2});
        apply(app, theme);
        ASSERT_TRUE(app.show());
        int number = 0;
        for (const auto& language : I18n::available()) {
            I18n::instance().set_language(language.code);
            app.retranslate();
            ASSERT_TRUE(settle(app.m_window));
            tick_of_status(app, ++number % 7);
            ASSERT_TRUE(settle(app.m_window));
            EXPECT_EQ(stray_pixels(app), "") << language.code << ' ' << theme;
            g_signal_connect(app.m_window, "draw", G_CALLBACK(App::draw_window), static_cast<App*>(&app));
        }
    }
}

/// It stands in the row as well, and the labels' backdrop must not hide it.
TEST_F(TickOnScreen, LeavesADamagedButtonToGtk)
{
    expect_status_as_by_gtk("light", {5, 6}, [](App& app) { gtk_widget_queue_draw(widget_of(app.m_total_panel, "gear")); });
}

TEST_F(TickOnScreen, NeedsNoWalkThroughTheWidgets)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    for (int i = 0; i < 20; ++i) {
        tick(app, i);
        ASSERT_TRUE(settle(app.m_window));
    }
    tick_of_status(app, 5);
    ASSERT_TRUE(settle(app.m_window));
    const Draws draws;
    tick(app, 20);
    ASSERT_TRUE(settle(app.m_window));
    tick_of_status(app, 6);
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_EQ(draws.count(), 0);
}

TEST_F(TickOnScreen, IsWhatGtkPaints)
{
    expect_short_way(SMALL_CARDS);
}

TEST_F(TickOnScreen, IsWhatGtkPaintsInTheDark)
{
    expect_short_way(SMALL_CARDS, "dark");
}

TEST_F(TickOnScreen, IsWhatGtkPaintsWithLargeCards)
{
    expect_short_way({.clusters = {2}});
}

TEST_F(TickOnScreen, IsWhatGtkPaintsInRowsOfCards)
{
    expect_short_way({.clusters = {10, 6}, .horizontal = true, .columns = 4});
}

TEST_F(TickOnScreen, IsWhatGtkPaintsInASingleRow)
{
    expect_short_way({.clusters = {10, 6}, .horizontal = true, .columns = 1});
}

TEST_F(TickOnScreen, IsWhatGtkPaintsOfManyCards)
{
    expect_short_way({.clusters = {64}, .columns = 8});
}

TEST_F(TickOnScreen, IsWhatGtkPaintsFromRightToLeft)
{
    speak("ar");
    expect_short_way(SMALL_CARDS);
}

TEST_F(TickOnScreen, FollowsAColourOfThePanels)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    tick(app, 1);
    ASSERT_TRUE(settle(app.m_window));
    SettingsStore::instance().mutable_get().panel_light = "#3080D0";
    app.apply_theme();
    EXPECT_EQ(expect_ticks_as_by_gtk(app), 3);
}

TEST_F(TickOnScreen, FollowsAChangeOfThemeBehindASectionWithoutCards)
{
    IdleApp app(Shape{.clusters = {0, 6}, .columns = 2});
    apply(app, "light");
    ASSERT_TRUE(app.show());
    tick(app, 11);
    ASSERT_TRUE(settle(app.m_window));
    ASSERT_FALSE(app.m_title_backdrops.empty());
    apply(app, "dark");
    tick(app, 12);
    ASSERT_TRUE(settle(app.m_window));
    tick(app, 13);
    ASSERT_TRUE(settle(app.m_window));
    const Screenshot screen(app.m_window);
    EXPECT_LE(Distance(screen, painted_by_gtk(app)).largest, CURVES);
}

TEST_F(TickOnScreen, FollowsTheSizeOfTheWindow)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    const int width = gtk_widget_get_allocated_width(app.m_window);
    gtk_window_resize(GTK_WINDOW(app.m_window), width + 61, gtk_widget_get_allocated_height(app.m_window));
    ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_window) == width + 61; }));
    EXPECT_EQ(expect_ticks_as_by_gtk(app), 3);
}

/// One digit more moves a title, one less lets the card show through where the digit was.
TEST_F(TickOnScreen, FollowsTheNumberOfDigits)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    auto& cores = app.m_cpu_reader->m_cores;
    cores.resize(16);
    for (const double usage : {0.05, 1.0, 0.5, 0.04}) {
        for (CoreStats& core : cores) {
            core.usage = usage;
        }
        app.m_title_backdrops.clear();
        app.update();
        ASSERT_TRUE(settle(app.m_window));
        EXPECT_FALSE(app.m_title_backdrops.empty()) << "the long way";
        const Screenshot screen(app.m_window);
        EXPECT_LE(Distance(screen, painted_by_gtk(app)).largest, CURVES) << usage;
        g_signal_connect(app.m_window, "draw", G_CALLBACK(App::draw_window), static_cast<App*>(&app));
    }
}

TEST_F(TickOnScreen, FollowsTheStateOfACard)
{
    const UserStyle style(".core-card:hover { background-color: #FF0000; }");
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    gtk_widget_set_state_flags(app.core(0, 1).card, GTK_STATE_FLAG_PRELIGHT, FALSE);
    EXPECT_EQ(expect_ticks_as_by_gtk(app), 3);
}

TEST_F(TickOnScreen, GoesTheLongWayWhereACardLetsShineThrough)
{
    const UserStyle style(".core-card { background-color: rgba(255, 0, 0, 0.3); } grid { background-color: #0000FF; }");
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    expect_ticks_as_by_gtk(app);
}

TEST_F(TickOnScreen, LeavesFramedLabelsToTheirTheme)
{
    const UserStyle style(".pct-label { border: 1px solid #FF0000; background-color: #00FF00; margin: 1px; }");
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    expect_ticks_as_by_gtk(app);
}

TEST_F(ScaledWindowOnScreen, IsWholeAgainThoughATickIsPaintedBeforeTheLossIsKnown)
{
    gtk_init(nullptr, nullptr);
    expect_whole_after_a_loss_before_a_tick({11, 11, 100, 100});  // which begins and ends within a unit
}

TEST_F(ScaledWindowOnScreen, IsWhatGtkPaintsInFullResolution)
{
    gtk_init(nullptr, nullptr);
    IdleApp app(SMALL_CARDS);
    app.apply_theme();
    ASSERT_TRUE(app.show());
    ASSERT_EQ(gtk_widget_get_scale_factor(app.m_window), 2);
    EXPECT_EQ(expect_ticks_as_by_gtk(app), 3);
}

TEST_F(TextsOnScreen, HaveHardEdgesWhereTheScreenHasThem)
{
    expect_texts_as_by_server("Xft.antialias: 0\n");
}

TEST_F(TextsOnScreen, AreSmoothedBySubpixelsWhereTheScreenIs)
{
    expect_texts_as_by_server("Xft.antialias: 1\nXft.rgba: rgb\n");
}

TEST_F(TickOnScreen, BackdropsAreSharedByCardsOfOneSize)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    expect_ticks_as_by_gtk(app);
    EXPECT_LE(app.m_title_backdrops.size(), 6U) << "heights that differ by a pixel, digits that reach out of their label";
}

TEST_F(TickOnScreen, BackdropsAreFewHoweverOftenTheSizeChanges)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    for (int step = 1; step <= 12; ++step) {
        const int width = gtk_widget_get_allocated_width(app.m_window) + 2;
        gtk_window_resize(GTK_WINDOW(app.m_window), width, gtk_widget_get_allocated_height(app.m_window));
        ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_window) == width; }));
        ASSERT_TRUE(settle(app.m_window));
        tick(app, step);
        ASSERT_TRUE(settle(app.m_window));
        ASSERT_FALSE(app.m_title_backdrops.empty());
        ASSERT_LE(app.m_title_backdrops.size(), 8U);
    }
}

/// On Wayland the context is GTK's, which goes on with it.
TEST_F(TickOnScreen, LeavesTheContextAsItWas)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    tick(app, 1);
    ASSERT_TRUE(settle(app.m_window));
    Picture picture(gtk_widget_get_allocated_width(app.m_window), gtk_widget_get_allocated_height(app.m_window), 1);
    GdkRectangle title;
    gtk_widget_get_allocation(gtk_widget_get_parent(app.m_clusters_ui[0].cores[0].pct_label), &title);
    gdk_cairo_rectangle(picture.cr(), &title);
    cairo_clip(picture.cr());
    app.m_title_backdrops.clear();
    const std::optional<Damage> damage = Damage::of(picture.cr());
    ASSERT_TRUE(damage);
    app.paint_window(picture.cr(), *damage);
    ASSERT_THAT(app.m_title_backdrops, SizeIs(1)) << "it took the long way";
    EXPECT_EQ(cairo_status(picture.cr()), CAIRO_STATUS_SUCCESS);
    GdkRectangle clip;
    ASSERT_TRUE(gdk_cairo_get_clip_rectangle(picture.cr(), &clip));
    EXPECT_TRUE(gdk_rectangle_equal(&clip, &title));
}

/// The window as it is drawn for somebody who asks for it in double size, against the same by GTK alone.
TEST_F(WindowOnScreen, OnACanvasOfOthersIsPaintedByGtk)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    tick(app, 1);
    ASSERT_TRUE(settle(app.m_window));
    Picture picture(gtk_widget_get_allocated_width(app.m_window), gtk_widget_get_allocated_height(app.m_window), 2);
    take_font_options(app.m_window, picture.cr());
    gtk_widget_draw(app.m_window, picture.cr());
    EXPECT_EQ(Distance(picture, painted_by_gtk(app, 2)).largest, 0);
}
