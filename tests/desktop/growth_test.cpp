/// The program never grows: whatever it holds, and whatever a tick costs, is the same after many samples, ticks, frames and changes as
/// before. Each test runs the real program on a machine whose readings move all the time, with samples and ticks as fast as they can be
/// made. VANTRIC_GROWTH_TICKS=86400 makes a whole day of each, VANTRIC_GROWTH_CHANGES=1000 so many of each change; that takes longer than
/// run-cases allows:
///     VANTRIC_GROWTH_TICKS=86400 VANTRIC_GROWTH_CHANGES=1000 tests/on-desktop build/test/desktop_growth_test
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "app.h"
#include "desktop/alive.h"
#include "desktop/settings_dialog.h"
#include "held_clock.h"
#include "i18n.h"
#include "live_app.h"
#include "sensor_machine.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Whether a thread of that name is there.
bool has_thread(const std::string& name)
{
    const std::vector<std::filesystem::path> threads(std::filesystem::directory_iterator("/proc/self/task"), {});
    return std::any_of(threads.begin(), threads.end(), [&](const auto& thread) { return read_text(thread / "comm") == name + "\n"; });
}

}  // namespace

/// Waits for the end of each thread in which Pango looks for fonts: on a busy computer it would still be there when threads are counted.
extern "C" GThread* g_thread_new(const gchar* name, GThreadFunc function, gpointer data)
{
    GThread* const thread = next<decltype(g_thread_new)>("g_thread_new")(name, function, data);
    if (name != nullptr && std::string(name).starts_with("[pango] FcFontSet")) {
        g_thread_join(g_thread_ref(thread));
        wait_until([] { return !has_thread("[pango] FcFontS"); });  // as the kernel shortens it; it lists some that have ended
    }
    return thread;
}

namespace {

constexpr unsigned FIRST_MHZ = 800;
constexpr unsigned CLOCKS = 4000;  // so many different ones, a MHz apart
constexpr int TICKS_PER_SAMPLE = 100;
constexpr unsigned long long JOULE = 1'000'000;  // microjoules

constexpr unsigned long long MANY = 1'000'000'000'000;  // where counters begin, so that a day makes them no longer

constexpr std::size_t MINUTE = CPUReader::HISTORY_SIZE;
constexpr std::size_t CLOCKS_PER_STEP = 16;  // rewritten at a time, as a made-up machine's driver does
constexpr std::size_t TICKS_COUNTED = 3;
constexpr int TICKS_PER_CHANGE = 1;
constexpr int TRIES = 2;
constexpr auto GRACE = std::chrono::seconds(5);  // what is still going on after it is no remains of a change

constexpr long PERCENT_MORE = 2;  // allocations of a frame

// Bytes of the heap
constexpr long TICKS_MAY_ADD = 1024;        // all together: a tick has no cache to fill
constexpr long FRAMES_MAY_ADD = 16 * 1024;  // each time: some texts in new sizes
constexpr long CACHES = 2 * 1024 * 1024;    // of letters above all: cairo keeps them in hundreds of sizes, and drops many at a time

/// A number that the environment may set, for a longer run.
int number_from(const char* variable, int usual)
{
    const char* const text = std::getenv(variable);
    return text != nullptr ? std::max(1, std::atoi(text)) : usual;
}

std::vector<std::string> all_languages()
{
    std::vector<std::string> codes;
    for (const LanguageInfo& language : I18n::available()) {
        codes.push_back(language.code);
    }
    return codes;
}

/// A machine all of whose readings move with each step, and come round.
class MovingMachine {
public:
    MovingMachine(FakeMachine& files, std::size_t cpus) : m_files(files), m_ticks(cpus, Ticks{.busy = MANY, .idle = MANY})
    {
        const int count = static_cast<int>(cpus);
        files.cpus(count);
        for (int cpu = 0; cpu < count; ++cpu) {  // the second half is slower, so that there are two sections
            files.max_freq(static_cast<std::size_t>(cpu), cpu < count / 2 ? "4800000\n" : "3600000\n");
            files.file(folder(cpu) + "thermal_throttle/core_throttle_count", "0\n");
            files.file(folder(cpu) + "thermal_throttle/package_throttle_count", "0\n");
        }
        files.file(ZONE + "type", "x86_pkg_temp\n");
        files.file(ZONE + "trip_point_0_type", "passive\n");
        files.file(ZONE + "trip_point_0_temp", "95000\n");
        files.file("/proc/cpuinfo", "processor\t: 0\nmodel name\t: Fast CPU 9000\n");
        for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
            m_clocks.push_back(folder(static_cast<int>(cpu)) + "cpufreq/scaling_cur_freq");
            write_clock(cpu, 0);
        }
        write(0, m_energy);
    }

    /// Writes the readings of that step.
    void step_to(std::size_t step)
    {
        m_energy += (30 + step % 7) * JOULE;
        for (std::size_t cpu = 0; cpu < m_ticks.size(); ++cpu) {
            const unsigned long long busy = (step * 7 + cpu * 13) % (TICKS_PER_SAMPLE + 1);
            m_ticks[cpu].busy += busy;
            m_ticks[cpu].idle += TICKS_PER_SAMPLE - busy;
        }
        for (std::size_t i = 0; i < std::min(CLOCKS_PER_STEP, m_ticks.size()); ++i) {
            write_clock((step * CLOCKS_PER_STEP + i) % m_ticks.size(), step);
        }
        write(step, m_energy);
    }

private:
    static std::string folder(int cpu) { return "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/"; }

    void write_clock(std::size_t cpu, std::size_t step)
    {
        const std::size_t mhz = FIRST_MHZ + (step * 37 + cpu * 11) % CLOCKS;
        m_files.file(m_clocks[cpu], std::to_string(mhz) + "000\n");
    }

    void write(std::size_t step, unsigned long long energy)
    {
        m_files.stat(m_ticks);
        m_files.file(ZONE + "temp", std::to_string(40 + step % 55) + "000\n");
        m_files.file(ENERGY, std::to_string(energy) + "\n");
        m_files.file(folder(0) + "thermal_throttle/core_throttle_count", std::to_string(step / 5) + "\n");
        const std::string available = std::to_string((4 + step % 25) * 1024 * 1024);
        m_files.file("/proc/meminfo", "MemTotal: 33554432 kB\nMemFree: 0 kB\nMemAvailable: " + available + " kB\n");
    }

    inline static const std::string ZONE = "/sys/class/thermal/thermal_zone0/";

    FakeMachine& m_files;
    std::vector<Ticks> m_ticks;
    std::vector<std::string> m_clocks;  // their files
    unsigned long long m_energy = MANY;
};

/// A picture that a window can be painted into at any time.
class Canvas {
public:
    explicit Canvas(GtkWidget* window) : m_window(window) {}
    ~Canvas() { cairo_surface_destroy(m_surface); }
    Canvas(const Canvas&) = delete;
    Canvas& operator=(const Canvas&) = delete;

    void paint() const
    {
        gtk_container_check_resize(GTK_CONTAINER(m_window));  // which labels that change ask for
        cairo_t* const cr = cairo_create(m_surface);
        gtk_widget_draw(m_window, cr);
        cairo_destroy(cr);
    }

private:
    GtkWidget* m_window;
    cairo_surface_t* m_surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 1280, 1024);
};

}  // namespace

/// The running program on a machine with so many CPUs. Its samplers stand still, so that each sample is made where the test wants it.
class Growth : public DesktopTest, public testing::WithParamInterface<int> {
protected:
    template <typename Test>
    void run(Test test)
    {
        home.lay("settings.json", R"({"language": "en", "theme": "light"})");
        WindowManager::instance().save(20, 20, 600, 700, m_columns, false);
        WindowManager::instance().save(20, 20, 1200, 500, m_columns, true);
        MovingMachine moving(machine, static_cast<std::size_t>(GetParam()));
        const auto app = std::make_unique<App>();
        m_moving = &moving;
        m_app = app.get();
        EXPECT_EQ(run_app(*app,
                          [&] {
                              app->m_cpu_reader->stop();
                              app->m_sys_metrics->stop();
                              ASSERT_EQ(app->m_clusters_ui.size(), 2U);
                              ASSERT_TRUE(settle(app->m_window));
                              m_first_source = next_source_of_main_loop();
                              test();
                          }),
                  0);
    }

    /// What the samplers do in a second: a sample, and every other time the sensors. For them it is a second by the clock, too, so that
    /// equal steps show equal power.
    void sample()
    {
        m_app->m_cpu_reader->publish(m_app->m_cpu_reader->parse_proc_stat());
        m_time += std::chrono::seconds(1);
        if (m_step % 2 == 0) {
            g_time = m_time;
            m_app->m_sys_metrics->sample();
            g_time.reset();
        }
        ++m_step;
    }

    void tick()
    {
        sample();
        App::on_update(m_app);
    }

    /// As many seconds, and whatever the main loop has to do meanwhile, frames among it.
    void live(int ticks)
    {
        for (int i = 0; i < ticks; ++i) {
            m_moving->step_to(m_step);
            tick();
            while (gtk_events_pending()) {
                gtk_main_iteration();
            }
        }
    }

    /// Lives the first minute again, without frames and without the main loop, so that all readings are the same afterwards.
    void relive_a_minute()
    {
        for (m_step = 0; m_step < MINUTE;) {
            m_moving->step_to(m_step);
            sample();
        }
        App::on_update(m_app);
    }

    /// What some ticks with a frame each take. They are always the same ones, and gone through once before, so that all that is needed for
    /// painting them has been loaded.
    Cost cost_of_ticks()
    {
        const Canvas canvas(m_app->m_window);
        Cost cost;
        for (int round = 0; round < 2; ++round) {
            relive_a_minute();
            cost = Cost();
            for (m_step = 0; m_step < TICKS_COUNTED;) {
                m_moving->step_to(m_step);
                cost += Cost::of([&] {
                    tick();
                    canvas.paint();
                });
            }
        }
        return cost;
    }

    /// Out of all windows, where no tooltip comes up.
    void keep_pointer_away()
    {
        GdkScreen* const screen = gtk_widget_get_screen(m_app->m_window);
        GdkWindow* const root = gdk_screen_get_root_window(screen);
        GdkDevice* const pointer = gdk_seat_get_pointer(gdk_display_get_default_seat(gdk_screen_get_display(screen)));
        gdk_device_warp(pointer, screen, gdk_window_get_width(root) - 1, gdk_window_get_height(root) - 1);
    }

    /// Waits until nothing is on its way any more, frame or timer of a change. What the start has left for later does not count.
    void come_to_rest()
    {
        constexpr long OF_THE_WAIT = 1;
        ASSERT_TRUE(iterate_until([&] { return sources_of_main_loop(m_first_source) == OF_THE_WAIT; }))
            << sources_of_main_loop(m_first_source);
    }

    // --- changes, as the user makes them in the dialog ---

    void open() { App::on_settings_clicked(nullptr, m_app); }

    void change_columns(int columns)
    {
        while (m_app->m_num_columns != columns) {
            click(button_in(m_app->m_settings_box, m_app->m_num_columns < columns ? "+" : "−"));
        }
        click(button_in(m_app->m_settings_box, I18n::instance().tr("Apply")));
        live(TICKS_PER_CHANGE);
        open();
    }

    void choose_and_live(Row row, const char* id)
    {
        choose(*m_app, row, id);
        live(TICKS_PER_CHANGE);
    }

    /// Changes all that can be changed, to what that round has, and lives on a little after each.
    void change_everything(std::size_t round)
    {
        static constexpr std::array THEMES = {"dark", "light", "auto"};
        static constexpr std::array SLOTS = {"bg", "panel", "text", "gear", "total", "group0", "group1"};
        static constexpr std::array COLORS = {"#102030", "#D0C0B0"};
        choose_and_live(Row::LANGUAGE, m_languages[round % m_languages.size()].c_str());
        choose_and_live(Row::THEME, THEMES[round % THEMES.size()]);
        pick(swatch_of(*m_app, SLOTS[round % SLOTS.size()]), COLORS[round % COLORS.size()]);
        live(TICKS_PER_CHANGE);
        change_columns(m_columns - static_cast<int>(round % 3));
        choose_and_live(Row::ORIENTATION, m_app->m_horizontal ? "vertical" : "horizontal");
    }

    /// As many rounds, and back to where all was at the start.
    void change_everything_and_back(int rounds)
    {
        for (int round = 0; round < rounds; ++round) {
            change_everything(static_cast<std::size_t>(round));
        }
        choose_and_live(Row::LANGUAGE, "en");
        choose_and_live(Row::THEME, "light");
        click(button_in(colors_box_of(*m_app), "Reset colors"));
        choose_and_live(Row::ORIENTATION, "vertical");
        change_columns(m_columns);
        come_to_rest();
    }

    /// Each size has frames of its own cost. The window's depends on when the window manager answers: whoever changes columns before it has
    /// answered to an orientation begins with the height of the one before.
    void take_usual_size()
    {
        constexpr int WIDTH = 1000;
        constexpr int HEIGHT = 700;
        gtk_window_resize(GTK_WINDOW(m_app->m_window), WIDTH, HEIGHT);
        const auto has_it = [&] {
            const WindowRect rect = WindowRect::of(m_app->m_window);
            return rect.width == WIDTH && rect.height == HEIGHT;
        };
        ASSERT_TRUE(iterate_until(has_it));
    }

    /// Lets the labels of percentages begin anew. Which texts they share, and which labels keep one of their own, comes from the frames
    /// that were painted, and a busy computer leaves some out.
    void forget_shaped_texts()
    {
        for (const App::ClusterUI& ui : m_app->m_clusters_ui) {
            for (const App::CoreWidgets& core : ui.cores) {
                const std::string markup = gtk_label_get_label(GTK_LABEL(core.pct_label));
                gtk_label_set_markup(GTK_LABEL(core.pct_label), "");  // with its text a label lets go of what it has shaped
                gtk_label_set_markup(GTK_LABEL(core.pct_label), markup.c_str());
                g_signal_emit_by_name(core.pct_label, "style-updated");  // and with its style of what it shares and has found out
            }
        }
    }

    // --- what is compared ---

    struct Measure {
        Cost cost;
        std::map<std::string, long> held;
        long heap = 0;
    };

    Measure measure()
    {
        Measure result;
        take_usual_size();
        come_to_rest();
        forget_shaped_texts();
        result.cost = cost_of_ticks();
        result.heap = heap_in_use();
        come_to_rest();
        result.held = held();
        return result;
    }

    /// All that is held when each label has just been painted for the first time: until then it depends on the frames that there were.
    std::map<std::string, long> held()
    {
        forget_shaped_texts();
        Canvas(m_app->m_window).paint();
        return all_that_is_held();
    }

    /// Bytes of the heap after so many ticks without a frame, and another minute that is always the same.
    long heap_after_ticks(std::size_t ticks)
    {
        for (std::size_t i = 0; i < ticks; ++i) {
            m_moving->step_to(m_step);
            tick();
        }
        relive_a_minute();
        return heap_in_use();
    }

    /// Bytes that the heap gains by so many ticks, after a minute of them: whatever ticks without a frame make once has then been made.
    long growth_by_ticks(int ticks)
    {
        if (!HEAP_IS_OURS) {
            return 0;
        }
        const long before = heap_after_ticks(MINUTE);
        return heap_after_ticks(static_cast<std::size_t>(ticks)) - before;
    }

    /// Bytes that the heap gains by the same frames as before. Now and then a cache grows just then, so it is the best of some tries.
    long growth_by_frames()
    {
        if (!HEAP_IS_OURS) {
            return 0;
        }
        long least = std::numeric_limits<long>::max();
        for (int i = 0; i < TRIES; ++i) {
            const long before = heap_in_use();
            cost_of_ticks();
            least = std::min(least, heap_in_use() - before);
        }
        return least;
    }

    /// What goes away a moment later is given the time to do so.
    void expect_no_growth(const Measure& before, const Measure& after)
    {
        std::cout << GetParam() << " CPUs: " << TICKS_COUNTED << " ticks and frames took " << before.cost.text() << ", then "
                  << after.cost.text() << "; the heap of " << before.heap << " bytes changed by " << after.heap - before.heap << '\n';
        std::string differing;
        iterate_until([&] { return (differing = differences(before.held, held())).empty(); }, GRACE);
        EXPECT_EQ(differing, "");
        EXPECT_LE(after.cost.allocations, before.cost.allocations * (100 + PERCENT_MORE) / 100);
        EXPECT_EQ(after.cost.reads, before.cost.reads);
        EXPECT_LE(after.heap - before.heap, CACHES);
    }

    App* m_app = nullptr;
    MovingMachine* m_moving = nullptr;
    std::size_t m_step = 0;
    Clock::time_point m_time = Clock::now();  ///< of the samplers
    guint m_first_source = 0;                 ///< that did not come from the start
    int m_columns = GetParam() > 64 ? 16 : 4;
    std::vector<std::string> m_languages = {"de", "ar", "ja"};
};

TEST_P(Growth, DoesNotComeFromTicksFramesAndChanges)
{
    const int ticks = number_from("VANTRIC_GROWTH_TICKS", 4000 / GetParam());
    const int rounds = number_from("VANTRIC_GROWTH_CHANGES", GetParam() > 64 ? 1 : GetParam() > 2 ? 2 : 3);
    run([&] {
        keep_pointer_away();
        open();
        if (rounds >= static_cast<int>(I18n::available().size())) {
            m_languages = all_languages();
        }
        change_everything_and_back(std::min(rounds, static_cast<int>(m_languages.size())));
        const Measure before = measure();
        EXPECT_GT(m_app->m_sys_metrics->get_power(), 0.0) << "else it would go unseen what its text costs";
        EXPECT_LE(growth_by_ticks(ticks), TICKS_MAY_ADD) << "by " << ticks << " ticks";
        EXPECT_LE(growth_by_frames(), FRAMES_MAY_ADD) << "by " << 2 * TICKS_COUNTED << " frames";
        change_everything_and_back(rounds);
        expect_no_growth(before, measure());
    });
}

INSTANTIATE_TEST_SUITE_P(Cpus, Growth, testing::Values(2, 64, 256), testing::PrintToStringParamName());
