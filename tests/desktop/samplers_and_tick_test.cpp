/// The application with both samplers and its tick at work, on a machine whose files change and vanish all the time. Above all for the
/// thread sanitizer; besides, nothing may ever be shown that no file held.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <random>
#include <set>
#include <thread>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/widgets.h"
#include "live_app.h"
#include "sensor_machine.h"

using testing::IsSubsetOf;

namespace {

/// The texts that charts have painted, from the main thread only.
std::set<std::string> g_painted;

}  // namespace

extern "C" void cairo_show_text(cairo_t* cr, const char* text)
{
    static const auto real = next<void(cairo_t*, const char*)>("cairo_show_text");
    if (is_own_code(__builtin_return_address(0))) {
        g_painted.insert(text);
    }
    real(cr, text);
}

namespace {

constexpr std::size_t CPUS = 3;
constexpr std::array DEGREES = {41, 58, 73, 96};
constexpr std::array MHZ = {800, 1500, 2000, 3600};
constexpr int MAX_MHZ = 4000;
constexpr int TOTAL_GIB = 32;
constexpr std::array USED_GIB = {4, 7, 19, 31};

constexpr int LIMIT = 95;

constexpr auto PACE = std::chrono::milliseconds(3);  // at least so long from one change to the next
constexpr unsigned long long MICROJOULES = 30'000;   // of one change
constexpr double MAX_WATTS = 10.5;                   // what that makes at that pace, and one change more in the first tenth of a second
constexpr unsigned EVENTS_COUNTED = 50;              // so many changes to one that shows

constexpr const char* TEMPERATURE = "/sys/class/thermal/thermal_zone0/temp";
constexpr const char* THROTTLE_COUNT = "thermal_throttle/core_throttle_count";

std::string cpu_file(int cpu, const std::string& name)
{
    return "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/" + name;
}

/// A machine whose files hold, each by itself, now this value of a few, now that one, and now are gone. CPU 0 is always busy, CPU 1
/// idle, CPU 2 both by halves, between any two readings.
class RestlessMachine {
public:
    explicit RestlessMachine(FakeMachine& files) : m_files(files)
    {
        m_files.cpus(static_cast<int>(CPUS)).max_freqs(std::vector<unsigned long long>(CPUS, MAX_MHZ * 1000ULL));
        m_files.file("/sys/class/thermal/thermal_zone0/type", "x86_pkg_temp\n");
        m_files.file("/sys/class/thermal/thermal_zone0/trip_point_0_type", "passive\n");
        m_files.file("/sys/class/thermal/thermal_zone0/trip_point_0_temp", "95000\n");
        change(TEMPERATURE, std::to_string(DEGREES[0]) + "000\n");
        change(ENERGY, "0\n");
        for (int cpu = 0; cpu < static_cast<int>(CPUS); ++cpu) {
            change(clock_file(cpu), clock_text());
            change(cpu_file(cpu, THROTTLE_COUNT), "0\n");
        }
        change("/proc/meminfo", memory_text());
        change_loads(CPUS);
    }
    ~RestlessMachine() { stop(); }
    RestlessMachine(const RestlessMachine&) = delete;
    RestlessMachine& operator=(const RestlessMachine&) = delete;

    void start()
    {
        m_thread = std::thread([this] { run(); });
    }

    void stop()
    {
        m_running = false;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    void run()
    {
        while (m_running) {
            step();
            std::this_thread::sleep_for(PACE);
        }
    }

    void step()
    {
        switch (roll(6)) {
            case 0:
                return change_or_remove(TEMPERATURE, std::to_string(pick(DEGREES)) + "000\n");
            case 1:
                return change_energy();
            case 2:
                return change_or_remove(clock_file(static_cast<int>(roll(CPUS))), clock_text());
            case 3:
                return change_or_remove("/proc/meminfo", memory_text());
            case 4:
                return change(cpu_file(0, THROTTLE_COUNT), std::to_string(++m_events / EVENTS_COUNTED) + "\n");
            default:
                return change_loads(roll(10) == 0 ? roll(CPUS + 1) : CPUS);
        }
    }

    /// Wraps now and then.
    void change_energy()
    {
        m_energy = roll(50) == 0 ? 0 : m_energy + MICROJOULES;
        change_or_remove(ENERGY, std::to_string(m_energy) + "\n");
    }

    /// Goes on for as many CPUs; the others are offline.
    void change_loads(std::size_t online)
    {
        ++m_time;
        std::vector<Ticks> cpus = {{2 * m_time, 0}, {0, 2 * m_time}, {m_time, m_time}};
        cpus.resize(online);
        m_files.stat(cpus);
    }

    static std::string clock_file(int cpu) { return cpu_file(cpu, "cpufreq/scaling_cur_freq"); }
    std::string clock_text() { return std::to_string(pick(MHZ)) + "000\n"; }
    std::string memory_text()
    {
        const auto kib = [](int gib) { return std::to_string(gib * 1024 * 1024) + " kB\n"; };
        return "MemTotal: " + kib(TOTAL_GIB) + "MemFree: 0 kB\nMemAvailable: " + kib(TOTAL_GIB - pick(USED_GIB));
    }

    void change_or_remove(const std::string& path, const std::string& text)
    {
        if (roll(4) == 0) {
            m_files.remove(path);
        } else {
            change(path, text);
        }
    }

    void change(const std::string& path, const std::string& text) { m_files.file(path, text); }

    template <typename Values>
    int pick(const Values& values)
    {
        return values[roll(values.size())];
    }

    std::size_t roll(std::size_t sides) { return std::uniform_int_distribution<std::size_t>(0, sides - 1)(m_random); }

    FakeMachine& m_files;
    std::mt19937 m_random{std::random_device{}()};
    unsigned long long m_time = 0;
    unsigned long long m_energy = 0;
    unsigned long long m_events = 0;
    std::atomic<bool> m_running = true;
    std::thread m_thread;
};

using Texts = std::set<std::string>;

std::string formatted(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

/// What may stand behind the curves and in the corner of the total chart.
Texts painted_texts()
{
    Texts texts = {"0%", "50%", "100%"};
    for (const int mhz : MHZ) {
        if (mhz < 1000) {
            texts.merge(Texts{formatted("%.0f MHz", mhz), formatted("%.0fM", mhz), formatted("%.0f", mhz)});
            continue;
        }
        for (const char* format : {"%.3f GHz", "%.1f GHz", "%.1fG", "%.1f"}) {
            texts.insert(formatted(format, mhz / 1000.0));
        }
    }
    return texts;
}

/// Percentages by which CPUs 0 and 2, or one of them, can run below the highest clock.
Texts throttle_percentages()
{
    const auto held_back = [](int mhz) { return 1.0 - static_cast<double>(mhz) / MAX_MHZ; };
    Texts texts = {"0%"};
    for (const int one : MHZ) {
        texts.insert(formatted("%.0f%%", held_back(one) * 100));
        for (const int other : MHZ) {
            texts.insert(formatted("%.0f%%", (held_back(one) + held_back(other)) / 2 * 100));
        }
    }
    return texts;
}

Texts throttle_texts()
{
    Texts texts = {""};
    for (const std::string& percentage : throttle_percentages()) {
        texts.insert("Throttle " + percentage);
        texts.insert("🔥 Throttle " + percentage);
    }
    return texts;
}

Texts throttle_tooltips()
{
    Texts texts = {""};
    for (const std::string& percentage : throttle_percentages()) {
        texts.insert("Throttle " + percentage);
        for (const int celsius : DEGREES) {
            const std::string warmth = std::to_string(celsius) + "°C / " + std::to_string(LIMIT) + "°C";
            texts.insert(warmth);
            texts.insert("Throttle: " + warmth + "\nThrottle " + percentage);
        }
    }
    return texts;
}

Texts info_texts()
{
    Texts memories = {""};
    for (const int used : USED_GIB) {
        memories.insert(std::to_string(used) + "/" + std::to_string(TOTAL_GIB) + " GB");
    }
    Texts texts = {""};
    const auto insert = [&](const std::string& words, const std::string& letters) {
        for (const std::string& memory : memories) {
            const std::string labelled = memory.empty() ? "" : " / RAM " + memory;
            texts.merge(Texts{words + labelled, letters + labelled, letters + (memory.empty() ? "" : " / " + memory), letters});
        }
    };
    insert("3 Cores", "3C");
    for (const char* online : {"0", "1", "2"}) {
        insert(std::string("3 Cores / ") + online + " Threads", std::string("3C/") + online + "T");
    }
    return texts;
}

/// All that has ever been shown, and whether it can be.
class Seen {
public:
    explicit Seen(App& app) : m_app(app) {}

    void look()
    {
        m_status.insert(text_of(m_app.m_right_info_label));
        m_throttle.insert(text_of(m_app.m_throttle_label));
        m_tooltips.insert(tooltip_of(m_app.m_throttle_label));
        m_info.insert(text_of(m_app.m_info_label));
        for (const auto& core : m_app.m_clusters_ui.at(0).cores) {
            m_loads.at(static_cast<std::size_t>(core.cpu_index)).insert(text_of(core.pct_label));
        }
    }

    /// Whether enough has come and gone for a judgement.
    bool suffices() const
    {
        const bool has_power = std::any_of(m_status.begin(), m_status.end(), [](const auto& status) { return status.ends_with("W"); });
        return m_app.m_cache.total_history.size() >= 8 && m_status.size() >= 4 && has_power && m_throttle.size() >= 2 &&
               m_info.size() >= 3 && m_loads[0].size() == 2 && m_loads[2].size() == 2 && g_painted.size() >= 5;
    }

    void judge() const
    {
        EXPECT_THAT(m_throttle, IsSubsetOf(throttle_texts()));
        EXPECT_THAT(m_tooltips, IsSubsetOf(throttle_tooltips()));
        EXPECT_THAT(m_info, IsSubsetOf(info_texts()));
        EXPECT_THAT(m_loads[0], IsSubsetOf(Texts{"0%", "100%"}));
        EXPECT_THAT(m_loads[1], IsSubsetOf(Texts{"0%"}));
        EXPECT_THAT(m_loads[2], IsSubsetOf(Texts{"0%", "50%"}));
        EXPECT_THAT(g_painted, IsSubsetOf(painted_texts()));
        for (const std::string& status : m_status) {
            judge_status(status);
        }
    }

private:
    /// The status is what its figures make when they are formatted again, in whatever locale is in force.
    static void judge_status(const std::string& status)
    {
        int celsius = 0;
        const bool is_warm = std::sscanf(status.c_str(), "CPU %d", &celsius) == 1;
        const std::string warmth = is_warm ? formatted("CPU %.0f°C", celsius) : "";
        EXPECT_TRUE(!is_warm || std::find(DEGREES.begin(), DEGREES.end(), celsius) != DEGREES.end()) << status;
        ASSERT_TRUE(status.starts_with(warmth)) << status;
        const std::string power = status.substr(warmth.size());
        double watts = 0.0;
        if (!power.empty()) {
            ASSERT_EQ(std::sscanf(power.c_str(), "  %lfW", &watts), 1) << status;
            EXPECT_EQ(power, formatted("  %.1fW", watts));
        }
        EXPECT_TRUE(watts >= 0.0 && watts <= MAX_WATTS) << status;
    }

    App& m_app;
    Texts m_status;
    Texts m_throttle;
    Texts m_tooltips;
    Texts m_info;
    std::array<Texts, CPUS> m_loads;
};

}  // namespace

class SamplersAndTick : public DesktopTest {
protected:
    /// Runs the program on a restless machine, in a window that does not rest either.
    void run(const std::string& orientation)
    {
        home.lay("settings.json", R"({"language": "en", "orientation": ")" + orientation + "\"}");
        RestlessMachine restless(machine);
        App app;
        const int status = run_app(app, [&] {
            Seen seen(app);
            int looks = 0;
            restless.start();
            EXPECT_TRUE(iterate_until([&] {
                seen.look();
                if (++looks % 20 == 0) {
                    gtk_window_resize(GTK_WINDOW(app.window()), 300 + looks % 400, 500);
                }
                return seen.suffices();
            }));
            seen.judge();
        });
        EXPECT_EQ(status, 0);
    }
};

TEST_F(SamplersAndTick, ShowNothingThatNoFileHeldInVerticalOrientation)
{
    run("vertical");
}

TEST_F(SamplersAndTick, ShowNothingThatNoFileHeldInHorizontalOrientation)
{
    run("horizontal");
}
