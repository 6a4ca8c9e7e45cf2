/// Life cycle of the application and its tick: start-up order, labels, draws, signals, and the end.
#include "app.h"

#include <signal.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <optional>
#include <thread>

#include "desktop/calls.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// What is overheard, from the main thread only.
struct Overheard {
    App* app = nullptr;  ///< the one that is listened to
    std::vector<std::string> calls;
    std::vector<std::string> tick;  ///< what a tick does to labels and charts, by their names
    const std::thread::id main_thread = std::this_thread::get_id();
    std::function<void()> before_show_all;
    std::function<void()> at_show_all;
    std::function<void()> at_quit;

    bool listens() const { return app != nullptr && std::this_thread::get_id() == main_thread; }
    void note(const std::string& call)
    {
        if (listens() && (calls.empty() || calls.back() != call)) {
            calls.push_back(call);
        }
    }
    std::string sampling() const
    {
        return std::string(app->m_cpu_reader && app->m_cpu_reader->m_running ? "reader " : "") +
               (app->m_sys_metrics && app->m_sys_metrics->m_running ? "metrics" : "");
    }
};

Overheard g_overheard;

std::string name_of(GtkWidget* widget)
{
    const App& app = *g_overheard.app;
    if (widget == app.m_right_info_label) {
        return "right label";
    }
    if (widget == app.m_total_chart) {
        return "total chart";
    }
    for (const auto& ui : app.m_clusters_ui) {
        for (const auto& core : ui.cores) {
            if (widget == core.pct_label || widget == core.chart) {
                return (widget == core.chart ? "chart " : "label ") + std::to_string(core.cpu_index);
            }
        }
    }
    return "";
}

void note_tick(GtkWidget* widget)
{
    if (g_overheard.listens() && !name_of(widget).empty()) {
        g_overheard.tick.push_back(name_of(widget));
    }
}

}  // namespace

// --- calls that are overheard ---

extern "C" {

sighandler_t signal(int number, sighandler_t handler) noexcept
{
    if (number == SIGINT || number == SIGTERM) {
        g_overheard.note(number == SIGINT ? "SIGINT" : "SIGTERM");
    }
    return next<sighandler_t(int, sighandler_t)>("signal")(number, handler);
}

void gtk_init(int* argc, char*** argv)
{
    g_overheard.note("gtk_init");
    next<decltype(gtk_init)>("gtk_init")(argc, argv);
}

void gtk_widget_set_default_direction(GtkTextDirection direction)
{
    g_overheard.note(direction == GTK_TEXT_DIR_RTL ? "direction rtl" : "direction ltr");
    next<decltype(gtk_widget_set_default_direction)>("gtk_widget_set_default_direction")(direction);
}

GtkWidget* gtk_window_new(GtkWindowType type)
{
    g_overheard.note("window");
    return next<decltype(gtk_window_new)>("gtk_window_new")(type);
}

void gtk_widget_show_all(GtkWidget* widget)
{
    g_overheard.note("show_all");
    if (g_overheard.before_show_all) {
        g_overheard.before_show_all();
    }
    next<decltype(gtk_widget_show_all)>("gtk_widget_show_all")(widget);
    if (g_overheard.at_show_all) {
        g_overheard.at_show_all();
    }
}

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    if (g_overheard.listens() && function == App::on_update && data == g_overheard.app) {
        g_overheard.note("tick every " + std::to_string(interval) + " ms");
    }
    return next<decltype(g_timeout_add)>("g_timeout_add")(interval, function, data);
}

void gtk_main()
{
    g_overheard.note("gtk_main");
    next<decltype(gtk_main)>("gtk_main")();
}

void gtk_main_quit()
{
    if (g_overheard.at_quit) {
        g_overheard.at_quit();
    }
    next<decltype(gtk_main_quit)>("gtk_main_quit")();
}

FILE* fopen64(const char* path, const char* mode)
{
    const std::string name = path;
    for (const char* file : {"settings.json", "cpuinfo_max_freq"}) {
        if (name.ends_with(file)) {
            g_overheard.note(file);
        }
    }
    return next<decltype(fopen64)>("fopen64")(path, mode);
}

#ifdef THREAD_SANITIZED
// The thread sanitizer's own, which has to know of every thread and stands in the program like those below
int __interceptor_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* data) noexcept;
int __interceptor_pthread_join(pthread_t thread, void** result);
#endif

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* data) noexcept
{
    if (g_overheard.listens() && !g_overheard.sampling().empty()) {
        g_overheard.note("thread, with these running: " + g_overheard.sampling());
    }
#ifdef THREAD_SANITIZED
    return __interceptor_pthread_create(thread, attributes, start, data);
#else
    return next<decltype(pthread_create)>("pthread_create")(thread, attributes, start, data);
#endif
}

int pthread_join(pthread_t thread, void** result)
{
    if (g_overheard.listens()) {
        g_overheard.note("join, with these running: " + g_overheard.sampling());
    }
#ifdef THREAD_SANITIZED
    return __interceptor_pthread_join(thread, result);
#else
    return next<decltype(pthread_join)>("pthread_join")(thread, result);
#endif
}

void gtk_label_set_markup(GtkLabel* label, const gchar* markup)
{
    note_tick(GTK_WIDGET(label));
    next<decltype(gtk_label_set_markup)>("gtk_label_set_markup")(label, markup);
}

void gtk_widget_queue_draw(GtkWidget* widget)
{
    note_tick(widget);
    next<decltype(gtk_widget_queue_draw)>("gtk_widget_queue_draw")(widget);
}

}  // extern "C"

namespace {

/// Listens to the calls of an App as long as it stands.
struct Listening {
    explicit Listening(App& app)
    {
        g_overheard.app = &app;
        g_overheard.calls.clear();
        g_overheard.tick.clear();
    }
    ~Listening()
    {
        g_overheard.app = nullptr;
        g_overheard.before_show_all = nullptr;
        g_overheard.at_show_all = nullptr;
        g_overheard.at_quit = nullptr;
    }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;
};

constexpr double NAN_READING = std::numeric_limits<double>::quiet_NaN();

}  // namespace

// --- start-up ---

using StartUp = DesktopTest;

TEST_F(StartUp, AppStartsWithItsInitialValues)
{
    const App app;
    EXPECT_EQ(app.m_window, nullptr);
    EXPECT_EQ(app.m_total_chart, nullptr);
    EXPECT_EQ(app.m_css, nullptr);
    EXPECT_THAT(app.m_clusters, IsEmpty());
    EXPECT_THAT(app.m_clusters_ui, IsEmpty());
    EXPECT_EQ(app.m_num_columns, 4);
    EXPECT_FALSE(app.m_horizontal || app.m_freeze_geometry_save || app.m_dark);
    EXPECT_EQ(app.m_pending_move_x, 0);
    EXPECT_EQ(app.m_pending_move_y, 0);
    EXPECT_EQ(app.m_last_window_w, 0);
    EXPECT_EQ(app.m_last_window_h, 0);
    EXPECT_EQ(app.m_portal_sub, 0U);
}

TEST_F(StartUp, CacheStartsEmptyWithMemoryUnknownAndItsFieldsInOrder)
{
    const App::Cache cache;
    const auto& [cores, total, total_history, frequencies, max_frequencies, mem_used_gb, mem_total_gb] = cache;
    EXPECT_EQ(&mem_used_gb, &cache.mem_used_gb);
    EXPECT_THAT(cores, IsEmpty());
    EXPECT_EQ(total, 0.0);
    EXPECT_THAT(total_history, IsEmpty());
    EXPECT_THAT(frequencies, IsEmpty());
    EXPECT_THAT(max_frequencies, IsEmpty());
    EXPECT_EQ(mem_used_gb, -1.0);
    EXPECT_EQ(mem_total_gb, -1.0);
}

TEST_F(StartUp, ConstructorReadsTheMachineWithoutGtkAndStartsNoThread)
{
    machine.cpus(3).file("/proc/cpuinfo", "model name\t: Test CPU\n");
    const App app;
    EXPECT_EQ(app.m_sys_metrics->get_core_count(), 3);
    EXPECT_EQ(app.m_sys_metrics->get_cpu_name(), "Test CPU");
    EXPECT_FALSE(app.m_cpu_reader->m_thread.joinable());
    EXPECT_FALSE(app.m_sys_metrics->m_thread.joinable());
}

TEST_F(StartUp, MetricsAreMadeAfterTheReaderAndSoDestroyedBeforeIt)
{
    const App app;
    EXPECT_LT(static_cast<const void*>(&app.m_cpu_reader), static_cast<const void*>(&app.m_sys_metrics));
}

TEST_F(StartUp, FollowsItsFixedOrder)
{
    machine.cpus(2);
    home.lay("settings.json", R"({"language": "he"})");
    App app;
    const Listening listening(app);
    run_app(app, [] {});
    EXPECT_THAT(g_overheard.calls, ElementsAre("SIGINT", "SIGTERM", "gtk_init", "settings.json", "direction rtl", "cpuinfo_max_freq",
                                               "window", "show_all", "thread, with these running: reader ",
                                               "thread, with these running: reader metrics", "tick every 1000 ms", "gtk_main"));
}

TEST_F(StartUp, ThreadsStartOnlyAfterTheWindowIsShown)
{
    App app;
    const Listening listening(app);
    bool was_visible = false;
    std::string sampling = "unknown";
    g_overheard.at_show_all = [&] {
        was_visible = was_visible || gtk_widget_get_visible(app.m_window);
        sampling = g_overheard.sampling();
    };
    run_app(app, [] {});
    EXPECT_TRUE(was_visible);
    EXPECT_EQ(sampling, "");
}

TEST_F(StartUp, TitlesFitTheWindowBeforeItIsShown)
{
    machine.cpus(4);
    home.lay("geometry.json", R"({"x":0,"y":0,"width":240,"height":700,"num_columns":4})");
    App app;
    const Listening listening(app);
    const auto title = [&] { return std::string(text_of(app.m_clusters_ui.at(0).cores.at(3).name_label)); };
    std::string before;
    g_overheard.before_show_all = [&] { before = before.empty() ? title() : before; };
    run_app(app, [] {});
    EXPECT_EQ(before, "4");
    EXPECT_EQ(title(), "4");
}

TEST_F(StartUp, FirstStartHasOneColumnAndNotTheFourOfTheConstructor)
{
    App app;
    run_app(app, [] {});
    EXPECT_EQ(app.num_columns(), 1);
}

TEST_F(StartUp, ClustersAreThoseOfTheMachine)
{
    machine.cpus(3).max_freqs({5'000'000, 5'000'000, 3'000'000});
    App app;
    run_app(app, [] {});
    ASSERT_EQ(app.m_clusters.size(), 2U);
    EXPECT_THAT(app.m_clusters[0].cpu_indices, ElementsAre(0, 1));
    EXPECT_THAT(app.m_clusters[1].cpu_indices, ElementsAre(2));
    EXPECT_EQ(app.m_clusters_ui[0].cores.size(), 2U);
}

TEST_F(StartUp, MachineWithoutCpusHasAWindowWithoutCards)
{
    App app;
    run_app(app, [&] { EXPECT_TRUE(iterate_until([&] { return gtk_widget_get_mapped(app.window()); })); });
    EXPECT_THAT(app.m_clusters_ui, IsEmpty());
}

TEST_F(StartUp, OrientationIsVerticalByDefault)
{
    App app;
    run_app(app, [] {});
    EXPECT_FALSE(app.is_horizontal());
}

TEST_F(StartUp, OrientationIsThatOfTheSettingsFile)
{
    home.lay("settings.json", R"({"orientation": "horizontal"})");
    App app;
    run_app(app, [] {});
    EXPECT_TRUE(app.is_horizontal());
}

TEST_F(StartUp, GtkTakesItsOptionsFromTheCommandLine)
{
    App app;
    g_idle_add([](gpointer) -> gboolean { return gtk_main_quit(), G_SOURCE_REMOVE; }, nullptr);
    std::string program = "vantric";
    std::string option = "--class=Marked";
    char* argv[] = {program.data(), option.data(), nullptr};
    EXPECT_EQ(app.run(2, argv), 0);
    EXPECT_STREQ(gdk_get_program_class(), "Marked");
}

/// The direction of text in the window of a program that starts with that language.
GtkTextDirection direction_at_start(const TemporaryHome& home, const std::string& language)
{
    home.lay("settings.json", R"({"language": ")" + language + "\"}");
    App app;
    GtkTextDirection direction = GTK_TEXT_DIR_NONE;
    run_app(app, [&] { direction = gtk_widget_get_direction(app.m_core_grid); });
    EXPECT_EQ(gtk_widget_get_default_direction(), direction);
    return direction;
}

TEST_F(StartUp, ArabicRunsFromRightToLeft)
{
    EXPECT_EQ(direction_at_start(home, "ar"), GTK_TEXT_DIR_RTL);
}

TEST_F(StartUp, HebrewRunsFromRightToLeft)
{
    EXPECT_EQ(direction_at_start(home, "he"), GTK_TEXT_DIR_RTL);
}

TEST_F(StartUp, EnglishRunsFromLeftToRight)
{
    EXPECT_EQ(direction_at_start(home, "en"), GTK_TEXT_DIR_LTR);
}

// --- the tick's readings ---

class Tick : public IdleAppTest {
protected:
    /// Lets the reader hold these loads as its latest sample.
    void sample(const std::vector<double>& loads)
    {
        std::vector<CoreStats>& cores = app.m_cpu_reader->m_cores;
        cores.clear();
        for (const double load : loads) {
            cores.push_back({.usage = load, .history = {load}});
        }
    }

    /// The markup of the only card after a tick with that load.
    std::string percentage(double load, bool dark)
    {
        sample({load});
        app.m_dark = dark;
        app.update();
        return markup_of(app.core(0, 0).pct_label);
    }

    /// The markup of the right status label after a tick with these readings.
    std::string status(double temperature, double power)
    {
        app.m_sys_metrics->m_temperature = temperature;
        app.m_sys_metrics->m_power = power;
        app.update();
        return markup_of(app.m_right_info_label);
    }

    IdleApp app{Shape{.clusters = {1}}};
};

TEST_F(Tick, CopiesEveryReadingIntoTheCache)
{
    app.m_cpu_reader->m_cores = {{.usage = 0.25, .history = {0.5, 0.25}}};
    app.m_cpu_reader->m_total = 0.75;
    app.m_cpu_reader->m_total_history = {0.1, 0.75};
    SystemMetrics& metrics = *app.m_sys_metrics;
    metrics.m_frequencies = {1200.0, 800.0};
    metrics.m_max_frequencies = {3000.0};
    metrics.m_mem_used_gb = 7.5;
    metrics.m_mem_total_gb = 15.5;
    app.update();
    ASSERT_EQ(app.m_cache.cores.size(), 1U);
    EXPECT_EQ(app.m_cache.cores[0].usage, 0.25);
    EXPECT_THAT(app.m_cache.cores[0].history, ElementsAre(0.5, 0.25));
    EXPECT_EQ(app.m_cache.total, 0.75);
    EXPECT_THAT(app.m_cache.total_history, ElementsAre(0.1, 0.75));
    EXPECT_THAT(app.m_cache.frequencies, ElementsAre(1200.0, 800.0));
    EXPECT_THAT(app.m_cache.max_frequencies, ElementsAre(3000.0));
    EXPECT_EQ(app.m_cache.mem_used_gb, 7.5);
    EXPECT_EQ(app.m_cache.mem_total_gb, 15.5);
}

TEST_F(Tick, ReplacesWhatTheCacheHeldAndMergesNothing)
{
    app.m_cache = {.cores = {{.usage = 0.9, .history = {0.9}}, {.usage = 0.8, .history = {0.8, 0.8}}},
                   .total = 0.9,
                   .total_history = {0.9, 0.9},
                   .frequencies = {1000.0, 1000.0},
                   .max_frequencies = {2000.0, 2000.0},
                   .mem_used_gb = 1.0,
                   .mem_total_gb = 2.0};
    sample({0.1});
    app.update();
    ASSERT_EQ(app.m_cache.cores.size(), 1U);
    EXPECT_THAT(app.m_cache.cores[0].history, ElementsAre(0.1));
    EXPECT_EQ(app.m_cache.total, 0.0);
    EXPECT_THAT(app.m_cache.total_history, IsEmpty());
    EXPECT_THAT(app.m_cache.frequencies, ElementsAreArray(app.m_sys_metrics->m_frequencies));
    EXPECT_THAT(app.m_cache.max_frequencies, ElementsAreArray(app.m_sys_metrics->m_max_frequencies));
    EXPECT_EQ(app.m_cache.mem_used_gb, app.m_sys_metrics->m_mem_used_gb);
    EXPECT_EQ(app.m_cache.mem_total_gb, app.m_sys_metrics->m_mem_total_gb);
}

TEST_F(Tick, GoesThroughLabelsAndChartsInOrder)
{
    IdleApp other(Shape{.clusters = {2, 1}});
    other.m_cpu_reader->m_cores = {{.usage = 0.1, .history = {}}, {.usage = 0.2, .history = {}}, {.usage = 0.3, .history = {}}};
    other.m_sys_metrics->m_power = 5.0;
    const Listening listening(other);
    other.update();
    EXPECT_THAT(g_overheard.tick,
                ElementsAre("right label", "total chart", "label 0", "chart 0", "label 1", "chart 1", "label 2", "chart 2"));
}

TEST_F(Tick, SetsNoLabelToWhatItShowsAlready)
{
    IdleApp other(Shape{.clusters = {2}});
    other.m_cpu_reader->m_cores = {{.usage = 0.1, .history = {}}, {.usage = 0.2, .history = {}}};
    other.m_sys_metrics->m_power = 5.0;
    other.update();
    other.m_cpu_reader->m_cores[1].usage = 0.3;
    const Listening listening(other);
    other.update();
    EXPECT_THAT(g_overheard.tick, ElementsAre("total chart", "chart 0", "label 1", "chart 1"));
}

TEST_F(Tick, HoldsNoLockWhileItSetsALabel)
{
    struct Locks {
        App& app;
        int looks = 0;
        bool were_free = true;
    } locks{app};
    const auto look = +[](GObject*, GParamSpec*, gpointer data) {
        auto& [looked_at, looks, were_free] = *static_cast<Locks*>(data);
        const std::unique_lock reader(looked_at.m_cpu_reader->m_mutex, std::try_to_lock);
        const std::unique_lock metrics(looked_at.m_sys_metrics->m_mutex, std::try_to_lock);
        were_free = were_free && reader && metrics;
        ++looks;
    };
    g_signal_connect(app.m_right_info_label, "notify::label", G_CALLBACK(look), &locks);
    g_signal_connect(app.core(0, 0).pct_label, "notify::label", G_CALLBACK(look), &locks);
    app.m_sys_metrics->m_power = 5.0;
    percentage(0.5, false);
    EXPECT_EQ(locks.looks, 2);
    EXPECT_TRUE(locks.were_free);
}

TEST_F(Tick, TimerCallsItAndLivesOn)
{
    sample({1.0});
    EXPECT_EQ(App::on_update(static_cast<App*>(&app)), G_SOURCE_CONTINUE);
    EXPECT_EQ(text_of(app.core(0, 0).pct_label), "100%");
}

// --- percentages of the cards ---

TEST_F(Tick, BeforeTheFirstSampleEveryCardShowsZeroInTheColourOfLowLoad)
{
    IdleApp other(Shape{.clusters = {2, 3}});
    other.update();
    for (const auto& ui : other.m_clusters_ui) {
        for (const auto& core : ui.cores) {
            EXPECT_EQ(markup_of(core.pct_label), "<span color='#199933'>0%</span>");
        }
    }
}

TEST_F(Tick, CardBeyondTheSampledCpusShowsZero)
{
    IdleApp other(Shape{.clusters = {3}});
    other.m_cpu_reader->m_cores = {{.usage = 0.9, .history = {}}, {.usage = 0.9, .history = {}}};
    other.update();
    EXPECT_EQ(text_of(other.core(0, 1).pct_label), "90%");
    EXPECT_EQ(markup_of(other.core(0, 2).pct_label), "<span color='#199933'>0%</span>");
}

TEST_F(Tick, CardGoesBackToZeroWhenItsCpuGoesAway)
{
    EXPECT_EQ(percentage(0.9, false), "<span color='#e53319'>90%</span>");
    sample({});
    app.update();
    EXPECT_EQ(markup_of(app.core(0, 0).pct_label), "<span color='#199933'>0%</span>");
}

TEST_F(Tick, EachCardShowsTheLoadOfItsOwnCpu)
{
    IdleApp other(Shape{.clusters = {2, 1}});
    other.m_clusters_ui[1].cores[0].cpu_index = 0;
    other.m_clusters_ui[0].cores[0].cpu_index = 2;
    other.m_cpu_reader->m_cores = {{.usage = 0.1, .history = {}}, {.usage = 0.2, .history = {}}, {.usage = 0.3, .history = {}}};
    other.update();
    EXPECT_EQ(text_of(other.core(0, 0).pct_label), "30%");
    EXPECT_EQ(text_of(other.core(0, 1).pct_label), "20%");
    EXPECT_EQ(text_of(other.core(1, 0).pct_label), "10%");
}

TEST_F(Tick, LoadsInTheLightThemeTakeTheColourOfTheirBand)
{
    EXPECT_EQ(percentage(1.0, false), "<span color='#e53319'>100%</span>");
    EXPECT_EQ(percentage(0.5, false), "<span color='#cc9900'>50%</span>");
    EXPECT_EQ(percentage(0.0, false), "<span color='#199933'>0%</span>");
}

TEST_F(Tick, LoadsInTheDarkThemeTakeTheColourOfTheirBand)
{
    EXPECT_EQ(percentage(1.0, true), "<span color='#ff593f'>100%</span>");
    EXPECT_EQ(percentage(0.5, true), "<span color='#ffbf26'>50%</span>");
    EXPECT_EQ(percentage(0.0, true), "<span color='#4cd866'>0%</span>");
}

TEST_F(Tick, ThresholdsBelongToTheHigherBand)
{
    EXPECT_EQ(percentage(0.7, false), "<span color='#e53319'>70%</span>");
    EXPECT_EQ(percentage(std::nextafter(0.7, 0.0), false), "<span color='#cc9900'>70%</span>");
    EXPECT_EQ(percentage(0.3, false), "<span color='#cc9900'>30%</span>");
    EXPECT_EQ(percentage(std::nextafter(0.3, 0.0), false), "<span color='#199933'>30%</span>");
}

TEST_F(Tick, PercentagesAreRounded)
{
    EXPECT_EQ(percentage(0.126, false), "<span color='#199933'>13%</span>");
    EXPECT_EQ(percentage(0.124, false), "<span color='#199933'>12%</span>");
}

TEST_F(Tick, PercentageTextIsWhatTheLabelShows)
{
    percentage(0.42, true);
    EXPECT_EQ(text_of(app.core(0, 0).pct_label), "42%");
}

// --- temperature and power ---

TEST_F(Tick, StatusShowsTheTemperatureInTheTextColourAndThenThePower)
{
    EXPECT_EQ(status(47.4, 12.34), localized("<span color='#404040'>CPU 47°C</span>  12.3W"));
    EXPECT_EQ(text_of(app.m_right_info_label), localized("CPU 47°C  12.3W"));
}

TEST_F(Tick, StatusTakesTheTextColourOfTheTheme)
{
    app.m_dark = true;
    EXPECT_EQ(status(47.0, -1.0), "<span color='#E5E5E7'>CPU 47°C</span>");
}

TEST_F(Tick, StatusTakesTheUsersTextColour)
{
    SettingsStore::instance().mutable_get().text_light = "#123456";
    EXPECT_EQ(status(47.0, -1.0), "<span color='#123456'>CPU 47°C</span>");
}

TEST_F(Tick, TextColourStoredWithoutItsHashWorksInTheStatus)
{
    home.lay("settings.json", R"({"text_light": "abcdef"})");
    SettingsStore::instance().load();
    status(47.0, -1.0);
    EXPECT_EQ(text_of(app.m_right_info_label), "CPU 47°C");
    PangoAttrIterator* const iterator =
        pango_attr_list_get_iterator(pango_layout_get_attributes(gtk_label_get_layout(GTK_LABEL(app.m_right_info_label))));
    const auto* const color = reinterpret_cast<PangoAttrColor*>(pango_attr_iterator_get(iterator, PANGO_ATTR_FOREGROUND));
    ASSERT_NE(color, nullptr);
    EXPECT_EQ(color->color.red, 0xabab);
    EXPECT_EQ(color->color.green, 0xcdcd);
    EXPECT_EQ(color->color.blue, 0xefef);
    pango_attr_iterator_destroy(iterator);
}

TEST_F(Tick, TemperatureOfZeroIsShown)
{
    EXPECT_EQ(status(0.0, -1.0), "<span color='#404040'>CPU 0°C</span>");
}

TEST_F(Tick, PowerOfZeroIsShown)
{
    EXPECT_EQ(status(20.0, 0.0), localized("<span color='#404040'>CPU 20°C</span>  0.0W"));
}

TEST_F(Tick, PowerWithoutTemperatureStartsWithItsTwoBlanks)
{
    EXPECT_EQ(status(-1.0, 8.0), localized("  8.0W"));
}

TEST_F(Tick, NeitherTemperatureNorPowerEmptiesTheStatus)
{
    status(47.0, 8.0);
    EXPECT_EQ(status(-1.0, -1.0), "");
}

TEST_F(Tick, TemperatureThatIsNoNumberIsNotShown)
{
    EXPECT_EQ(status(NAN_READING, 8.0), localized("  8.0W"));
}

TEST_F(Tick, PowerThatIsNoNumberIsNotShown)
{
    EXPECT_EQ(status(20.0, NAN_READING), "<span color='#404040'>CPU 20°C</span>");
}

TEST_F(Tick, AnythingBelowZeroIsNoReading)
{
    EXPECT_EQ(status(-0.5, -0.5), "");
}

TEST_F(Tick, PowerTextIsCutAtThirtyOneBytes)
{
    EXPECT_EQ(status(-1.0, 1e35), localized("  99999999999999996863366107917975552.0W").substr(0, 31));
}

// --- draws ---

class Draws : public IdleAppTest {
protected:
    static gboolean count(GtkWidget*, cairo_t*, gpointer counter)
    {
        ++*static_cast<int*>(counter);
        return FALSE;
    }

    /// Counts the draws of every chart from now on; the total chart is the first.
    void start_counting()
    {
        counters.assign(1 + app.m_clusters_ui[0].cores.size(), 0);
        g_signal_connect(app.m_total_chart, "draw", G_CALLBACK(count), counters.data());
        for (std::size_t i = 0; i < app.m_clusters_ui[0].cores.size(); ++i) {
            g_signal_connect(app.core(0, i).chart, "draw", G_CALLBACK(count), &counters[i + 1]);
        }
    }

    IdleApp app{Shape{.clusters = {3}}};
    std::vector<int> counters;
};

TEST_F(Draws, EveryChartIsDrawnOnceForEachTick)
{
    ASSERT_TRUE(app.show());
    start_counting();
    for (int tick = 1; tick <= 3; ++tick) {
        app.m_cpu_reader->m_cores = {{.usage = 0.3 * tick, .history = {}}};
        app.update();
        ASSERT_TRUE(settle(app.m_window));
        EXPECT_THAT(counters, testing::Each(tick));
    }
}

TEST_F(Draws, TickOnlyQueuesThem)
{
    ASSERT_TRUE(app.show());
    start_counting();
    app.update();
    EXPECT_THAT(counters, testing::Each(0));
}

TEST_F(Draws, PointerMotionCausesNone)
{
    gtk_widget_add_events(app.m_window, GDK_ENTER_NOTIFY_MASK);
    int entries = 0;
    const auto enter = +[](GtkWidget*, GdkEvent*, gpointer counter) -> gboolean { return ++*static_cast<int*>(counter), FALSE; };
    GdkDevice* const pointer = gdk_seat_get_pointer(gdk_display_get_default_seat(gdk_display_get_default()));
    gdk_device_warp(pointer, gdk_screen_get_default(), 0, 0);
    ASSERT_TRUE(app.show());
    g_signal_connect(app.m_window, "enter-notify-event", G_CALLBACK(enter), &entries);
    start_counting();
    gint x = 0;
    gint y = 0;
    gdk_window_get_origin(gtk_widget_get_window(app.m_window), &x, &y);
    for (int step = 0; step < 50; ++step) {
        gdk_device_warp(pointer, gdk_screen_get_default(), x + step, y + 10 * step);
    }
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_GT(entries, 0);
    EXPECT_THAT(counters, testing::Each(0));
}

// --- the running program ---

using Running = DesktopTest;

TEST_F(Running, LoadsOfTheMachineReachTheirCards)
{
    machine.cpus(2).stat({{100, 100}, {100, 100}});
    App app;
    run_app(app, [&] {
        const auto& cores = app.m_clusters_ui.at(0).cores;
        EXPECT_TRUE(iterate_until([&] { return app.m_cpu_reader->core_count() == 2; }));
        unsigned long long ticks = 100;  // of CPU time, going on, so that any two readings tell the same loads
        EXPECT_TRUE(iterate_until([&] {
            ticks += 4;
            machine.stat({{ticks, 100}, {ticks / 4, 100 + ticks - ticks / 4}});
            return text_of(cores[0].pct_label) == "100%" && text_of(cores[1].pct_label) == "25%";
        }));
        EXPECT_EQ(app.m_cache.total, 0.625);
    });
}

TEST_F(Running, TicksGoOn)
{
    machine.cpus(1).stat({{0, 0}});
    App app;
    run_app(app, [&] {
        const Listening listening(app);
        const auto ticks = [] { return std::count(g_overheard.tick.begin(), g_overheard.tick.end(), "chart 0"); };
        EXPECT_TRUE(iterate_until([&] { return ticks() >= 2; }));
    });
}

TEST_F(Running, DestroyedWindowEndsItWithStatusZero)
{
    App app;
    EXPECT_EQ(run_app(
                  app, [&] { gtk_widget_destroy(app.window()); }, End::BY_ITSELF),
              0);
}

TEST_F(Running, ClosedWindowEndsItWithStatusZero)
{
    machine.cpus(2);
    App app;
    EXPECT_EQ(run_app(
                  app, [&] { gtk_window_close(GTK_WINDOW(app.window())); }, End::BY_ITSELF),
              0);
}

// --- SIGINT and SIGTERM ---

using Signals = DesktopTest;

// Where the moment matters a signal is raised, for the main thread: one sent to the process can be taken by a library's thread, which
// passes it on as soon as it gets to run.

TEST_F(Signals, SigtermEndsTheMainLoopWithStatusZeroAndLeavesTheWindow)
{
    App app;
    EXPECT_EQ(run_app(
                  app, [] { kill(getpid(), SIGTERM); }, End::BY_ITSELF),
              0);
    EXPECT_TRUE(gtk_widget_get_visible(app.window()));
}

TEST_F(Signals, SigintEndsTheMainLoopWithStatusZero)
{
    App app;
    EXPECT_EQ(run_app(
                  app, [] { kill(getpid(), SIGINT); }, End::BY_ITSELF),
              0);
}

TEST_F(Signals, SigintBeforeTheMainLoopIsRefusedByGtkAndTheProgramGoesOn)
{
    App app;
    const Listening listening(app);
    g_overheard.at_show_all = [] { std::raise(SIGINT); };
    bool went_on = false;
    EXPECT_EQ(run_app(app, [&] { went_on = true; }), 0);
    EXPECT_TRUE(went_on);
    EXPECT_THAT(Messages::instance().take(), ElementsAre(HasSubstr("gtk_main_quit: assertion 'main_loops != NULL' failed")));
}

TEST_F(Signals, SigintAfterARefusedOneEndsTheMainLoop)
{
    App app;
    const Listening listening(app);
    g_overheard.at_show_all = [] { std::raise(SIGINT); };
    EXPECT_EQ(run_app(
                  app, [] { kill(getpid(), SIGINT); }, End::BY_ITSELF),
              0);
    Messages::instance().take();
}

TEST_F(Signals, OneThatComesWhileTheOtherIsHandledWaits)
{
    App app;
    const Listening listening(app);
    std::vector<std::string> steps;
    g_overheard.at_quit = [&] {
        steps.emplace_back("begins");
        if (steps.size() == 1) {
            std::raise(SIGTERM);
        }
        steps.emplace_back("ends");
    };
    EXPECT_EQ(run_app(
                  app, [] { std::raise(SIGINT); }, End::BY_ITSELF),
              0);
    EXPECT_THAT(steps, ElementsAre("begins", "ends", "begins", "ends"));
}

TEST_F(Signals, SigtermEndsTheMainLoopThoughALibraryPollsByItself)
{
    App app;
    const auto poll_and_signal = [] {
        g_main_context_set_poll_func(nullptr, g_poll);
        kill(getpid(), SIGTERM);
    };
    EXPECT_EQ(run_app(app, poll_and_signal, End::BY_ITSELF), 0);
}

std::string saved_geometry(const TemporaryHome& home)
{
    return read_text(home.config() + "/geometry.json");
}

/// A clipboard manager, on a connection of its own: is asked to keep what a program leaves behind, sends SIGTERM then, and answers when the
/// main loop that waits for it has taken the signal.
class SlowClipboardManager {
public:
    SlowClipboardManager()
    {
        gtk_widget_realize(m_owner);
        g_signal_connect(m_owner, "selection-request-event", G_CALLBACK(on_request), this);
        gtk_selection_owner_set_for_display(m_display, m_owner, gdk_atom_intern("CLIPBOARD_MANAGER", FALSE), GDK_CURRENT_TIME);
        gdk_display_sync(m_display);
    }

    bool was_asked() const { return m_was_asked; }

private:
    static gboolean on_request(GtkWidget*, GdkEventSelection* event, gpointer data)
    {
        auto& manager = *static_cast<SlowClipboardManager*>(data);
        manager.m_request = *event;
        manager.m_was_asked = true;
        std::raise(SIGTERM);  // delivered by the poll that follows
        g_timeout_add(10, answer, data);
        return GDK_EVENT_STOP;
    }

    static gboolean answer(gpointer data)
    {
        const auto& [display, owner, request, was_asked] = *static_cast<SlowClipboardManager*>(data);
        gdk_selection_send_notify_for_display(display, request.requestor, request.selection, request.target, request.property,
                                              request.time);
        gdk_display_flush(display);
        return G_SOURCE_REMOVE;
    }

    GdkDisplay* const m_display = gdk_display_open(nullptr);
    GtkWidget* const m_owner = gtk_invisible_new_for_screen(gdk_display_get_default_screen(m_display));
    GdkEventSelection m_request{};
    bool m_was_asked = false;
};

TEST_F(Signals, SigtermWhileGtkWaitsForAClipboardManagerLeavesTheSavedGeometry)
{
    gtk_init(nullptr, nullptr);
    SlowClipboardManager manager;
    machine.cpus(2);
    App app;
    std::string saved;
    const auto copy_and_close = [&] {
        ASSERT_TRUE(settle(app.window()));
        GtkClipboard* const clipboard = gtk_clipboard_get(GDK_SELECTION_CLIPBOARD);
        gtk_clipboard_set_text(clipboard, "#123456", -1);
        gtk_clipboard_set_can_store(clipboard, nullptr, 0);
        gtk_window_close(GTK_WINDOW(app.window()));
        ASSERT_TRUE(iterate_until([&] { return app.window() == nullptr; }));
        saved = saved_geometry(home);
    };
    EXPECT_EQ(run_app(app, copy_and_close, End::BY_ITSELF), 0);
    EXPECT_TRUE(manager.was_asked());
    EXPECT_THAT(saved, HasSubstr("\"width\":"));
    EXPECT_EQ(saved_geometry(home), saved);
    // The main loop had ended already
    EXPECT_THAT(Messages::instance().take(), ElementsAre(HasSubstr("gtk_main_quit: assertion 'main_loops != NULL' failed")));
}

TEST_F(Signals, BothHaveOneHandlerThatStaysInstalled)
{
    App app;
    run_app(
        app, [] { kill(getpid(), SIGTERM); }, End::BY_ITSELF);
    struct sigaction of_int = {};
    struct sigaction of_term = {};
    sigaction(SIGINT, nullptr, &of_int);
    sigaction(SIGTERM, nullptr, &of_term);
    EXPECT_NE(of_term.sa_handler, SIG_DFL);
    EXPECT_EQ(of_int.sa_handler, of_term.sa_handler);
}

// --- the end ---

using Ending = IdleAppTest;

TEST_F(Ending, GivesBackOneReferenceOfEachCardAndHeader)
{
    std::vector<gpointer> widgets;
    std::vector<unsigned> before;
    {
        IdleApp app(Shape{.clusters = {2, 1}});
        for (const auto& ui : app.m_clusters_ui) {
            widgets.push_back(ui.section_hdr);
            std::transform(ui.cores.begin(), ui.cores.end(), std::back_inserter(widgets), [](const auto& core) { return core.card; });
        }
        for (gpointer widget : widgets) {
            g_object_ref(widget);
        }
        gtk_widget_destroy(std::exchange(app.m_core_grid, nullptr));
        std::transform(widgets.begin(), widgets.end(), std::back_inserter(before), references_of);
    }
    ASSERT_EQ(widgets.size(), 5U);
    for (std::size_t i = 0; i < widgets.size(); ++i) {
        EXPECT_EQ(references_of(widgets[i]), before[i] - 1);
        g_object_unref(widgets[i]);
    }
}

TEST_F(Ending, GivesTheStyleProviderBack)
{
    gpointer provider = gtk_css_provider_new();
    g_object_add_weak_pointer(G_OBJECT(provider), &provider);
    {
        IdleApp app;
        app.m_css = GTK_CSS_PROVIDER(provider);
    }
    EXPECT_EQ(provider, nullptr);
}

TEST_F(Ending, LeavesTheWindowAlone)
{
    std::optional<App> app(std::in_place);
    app->m_clusters = make_clusters({2});
    app->create_window();
    GtkWidget* const window = app->m_window;
    GtkWidget* const card = app->m_clusters_ui[0].cores[0].card;
    gtk_widget_show_all(window);
    app.reset();
    EXPECT_TRUE(GTK_IS_WINDOW(window));
    EXPECT_TRUE(gtk_widget_get_visible(window));
    EXPECT_TRUE(gtk_widget_is_ancestor(card, window));
}

/// Calls `visit` with the widget and with all that it holds.
void for_each_widget(GtkWidget* top, const std::function<void(GtkWidget*)>& visit)
{
    visit(top);
    if (GTK_IS_CONTAINER(top)) {
        const auto descend = [](GtkWidget* child, gpointer data) {
            for_each_widget(child, *static_cast<const std::function<void(GtkWidget*)>*>(data));
        };
        gtk_container_forall(GTK_CONTAINER(top), descend, const_cast<std::function<void(GtkWidget*)>*>(&visit));
    }
}

/// How many widgets of a window call handlers that get this for their data.
int callers(GtkWidget* window, gpointer data)
{
    int count = 0;
    for_each_widget(
        window, [&](GtkWidget* widget) { count += g_signal_handler_find(widget, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr, data) != 0; });
    return count;
}

TEST_F(Ending, LeavesNoHandlerInTheWindowsThatOutliveIt)
{
    auto app = std::make_unique<App>();
    app->m_clusters = make_clusters({0, 2});
    app->create_window();
    GtkWidget* const window = app->m_window;
    App::on_settings_clicked(nullptr, app.get());
    GtkWidget* const dialog = app->m_settings_popover;
    void* const gone = app.get();
    EXPECT_EQ(callers(window, gone), 1 + 1 + 3 + 2 + 2 + 2)
        << "window, total panel, first card with its title, info line, charts, colour bars, total chart and gear";
    EXPECT_GE(callers(dialog, gone), 3 + 3 + 1) << "choices, buttons and colours";
    app.reset();
    EXPECT_EQ(callers(window, gone), 0);
    EXPECT_EQ(callers(dialog, gone), 0);
}

TEST_F(Ending, WindowThatOutlivesItCanBeUsedAndDestroyed)
{
    alignas(App) std::byte memory[sizeof(App)];
    auto* const app = new (memory) App;
    app->m_clusters = make_clusters({2});
    app->create_window();
    GtkWidget* const window = app->m_window;
    gtk_widget_show_all(window);
    ASSERT_TRUE(settle(window));
    app->~App();
    std::iota(reinterpret_cast<std::uint8_t*>(memory), reinterpret_cast<std::uint8_t*>(memory) + sizeof memory,
              std::uint8_t{1});  // so that whoever still looks there falls
    int width = 0;
    int height = 0;
    gtk_window_get_size(GTK_WINDOW(window), &width, &height);
    gtk_window_resize(GTK_WINDOW(window), width + 50, height + 50);
    EXPECT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(window) == width + 50; }));
    gtk_widget_queue_draw(window);
    EXPECT_TRUE(settle(window));
    gtk_widget_reset_style(window);
    GdkEvent* const close = gdk_event_new(GDK_DELETE);
    EXPECT_FALSE(gtk_widget_event(window, close));
    gdk_event_free(close);
    // No main loop of App's own is there that the window's end could end
    g_signal_handlers_disconnect_by_func(window, reinterpret_cast<gpointer>(gtk_main_quit), nullptr);
    gtk_widget_destroy(window);
}

TEST_F(Ending, CopesWithoutSamplingObjects)
{
    App app;
    app.m_cpu_reader.reset();
    app.m_sys_metrics.reset();
}

TEST_F(Ending, CopesWithUnsetRecords)
{
    App app;
    app.m_clusters_ui.emplace_back().cores.emplace_back();
}

TEST_F(Ending, StopsTheReaderAndThenTheMetrics)
{
    std::optional<App> app(std::in_place);
    app->m_cpu_reader->start();
    app->m_sys_metrics->start();
    const Listening listening(*app);
    app.reset();
    EXPECT_THAT(g_overheard.calls, ElementsAre("join, with these running: metrics", "join, with these running: "));
}
