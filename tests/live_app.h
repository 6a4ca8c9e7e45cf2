/// The real App in a real window: what the desktop tests share. A test's base class gives it an empty made-up machine and home, and
/// fails it for any warning of GTK and its libraries. IdleApp is an App that stands still, for tests that call its operations
/// themselves; run_app() runs one as the program does, with the test's code inside its main loop.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "app.h"
#include "fake_machine.h"
#include "i18n.h"
#include "settings.h"

/// The warnings and criticals of GTK and its libraries, in the order in which they came.
class Messages {
public:
    static Messages& instance()
    {
        static Messages messages;
        return messages;
    }

    /// Those since the last call.
    std::vector<std::string> take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_texts, {});
    }

private:
    Messages() { g_log_set_writer_func(write, this, nullptr); }

    static GLogWriterOutput write(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer data)
    {
        if ((level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) == 0) {
            return g_log_writer_default(level, fields, count, nullptr);
        }
        gchar* const text = g_log_writer_format_fields(level, fields, count, FALSE);
        auto& messages = *static_cast<Messages*>(data);
        const std::lock_guard lock(messages.m_mutex);
        messages.m_texts.emplace_back(text);
        g_free(text);
        return G_LOG_WRITER_HANDLED;
    }

    std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

/// A text with decimal points as the locale in force writes it: the tests also run where decimals have commas.
inline std::string localized(std::string text)
{
    std::replace(text.begin(), text.end(), '.', *std::localeconv()->decimal_point);
    return text;
}

/// Runs the main loop until the condition is true, and says whether it was before the deadline.
template <typename Condition>
bool iterate_until(Condition condition, std::chrono::milliseconds deadline = DEADLINE)
{
    // Wakes the loop up, so that a condition that no event announces is looked at, too
    const guint waker = g_timeout_add_full(
        G_PRIORITY_LOW, 5, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    const auto end = std::chrono::steady_clock::now() + deadline;
    bool is_true = condition();
    while (!is_true && std::chrono::steady_clock::now() < end) {
        g_main_context_iteration(nullptr, TRUE);
        is_true = condition();
    }
    g_source_remove(waker);
    return is_true;
}

/// Runs the main loop until a shown window has the focus, which the window manager gives it last, and has painted all that it was to
/// paint. Another frame follows, in case that painting asked for one.
inline bool settle(GtkWidget* window)
{
    if (!iterate_until([&] { return gtk_window_is_active(GTK_WINDOW(window)); })) {
        return false;
    }
    GdkFrameClock* const clock = gtk_widget_get_frame_clock(window);
    int frames = 0;
    const auto count = +[](GdkFrameClock*, gpointer counter) { ++*static_cast<int*>(counter); };
    const gulong handler = g_signal_connect(clock, "after-paint", G_CALLBACK(count), &frames);
    bool painted = true;
    for (int wanted = 1; wanted <= 2 && painted; ++wanted) {
        gdk_display_sync(gtk_widget_get_display(window));
        while (gtk_events_pending()) {
            gtk_main_iteration();
        }
        gdk_frame_clock_request_phase(clock, GDK_FRAME_CLOCK_PHASE_AFTER_PAINT);
        painted = iterate_until([&] { return frames >= wanted; });
    }
    g_signal_handler_disconnect(clock, handler);
    return painted;
}

/// Every desktop test's base: an empty machine and an empty home.
class DesktopTest : public ::testing::Test {
protected:
    DesktopTest() { Messages::instance(); }
    void TearDown() override { EXPECT_THAT(Messages::instance().take(), ::testing::IsEmpty()); }

    FakeMachine machine;
    TemporaryHome home;

private:
    const ScopedEnv m_locale{"LC_ALL", std::nullopt};
    const ScopedEnv m_languages{"LANGUAGE", std::nullopt};
};

/// The base of tests without a main loop of App's own: GTK is there, and all settings are at their defaults, in English.
class IdleAppTest : public DesktopTest {
protected:
    IdleAppTest()
    {
        gtk_init(nullptr, nullptr);
        SettingsStore::instance().mutable_get() = Settings();
        speak("en");
    }

    /// Makes a language current, as the start of the program does.
    static void speak(const char* language)
    {
        I18n::instance().set_language(language);
        gtk_widget_set_default_direction(I18n::instance().is_rtl() ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR);
    }
};

/// What decides a layout.
struct Shape {
    std::vector<int> clusters;  ///< number of CPUs of each
    bool horizontal = false;
    int columns = 1;
};

inline std::vector<CpuCluster> make_clusters(const std::vector<int>& sizes)
{
    std::vector<CpuCluster> clusters;
    std::int32_t cpu = 0;
    for (const int size : sizes) {
        CpuCluster& cluster = clusters.emplace_back();
        cluster.name_key = "Cluster %d";
        cluster.name_index = static_cast<std::int32_t>(clusters.size());
        cluster.color_index = (cluster.name_index - 1) % 4;
        for (int i = 0; i < size; ++i) {
            cluster.cpu_indices.push_back(cpu++);
        }
    }
    return clusters;
}

/// Takes an App's timers and idle callbacks out of the main loop, as the end of the process would.
inline void drop_sources(App& app)
{
    while (g_source_remove_by_user_data(&app)) {
    }
}

/// An App without main loop and sampling threads.
struct IdleApp : App {
    IdleApp() = default;
    explicit IdleApp(const Shape& shape)
    {
        take(shape);
        create_window();
    }
    ~IdleApp()
    {
        drop_sources(*this);
        if (m_window != nullptr) {
            // No main loop of App's own is there that the window's end could end
            g_signal_handlers_disconnect_by_func(m_window, reinterpret_cast<gpointer>(gtk_main_quit), nullptr);
            gtk_widget_destroy(m_window);
        }
    }
    IdleApp(const IdleApp&) = delete;
    IdleApp& operator=(const IdleApp&) = delete;

    /// Takes a shape over, without any widget as yet.
    void take(const Shape& shape)
    {
        m_clusters = make_clusters(shape.clusters);
        m_horizontal = shape.horizontal;
        m_num_columns = shape.columns;
    }

    /// Shows the window, and returns when it stands on the screen and is painted.
    bool show()
    {
        gtk_widget_show_all(m_window);
        return settle(m_window);
    }

    const CoreWidgets& core(std::size_t cluster, std::size_t position) const { return m_clusters_ui.at(cluster).cores.at(position); }
};

/// What ends the main loop of run_app().
enum class End { AFTER_TEST, BY_ITSELF };

/// Runs the App as main() does, and calls `test` once inside its main loop. That ends afterwards; or the test has done something
/// that ends it, and it is a failure if it goes on. Returns App::run's result.
inline int run_app(App& app, const std::function<void()>& test, End end = End::AFTER_TEST)
{
    struct Call {
        const std::function<void()>& test;
        End end;
    } call{test, end};
    const auto give_up = [](gpointer) -> gboolean {
        ADD_FAILURE() << "the main loop does not end";
        gtk_main_quit();
        return G_SOURCE_REMOVE;
    };
    static const auto WATCHDOG = +give_up;
    const auto run_test = [](gpointer data) -> gboolean {
        const auto& [body, wanted_end] = *static_cast<Call*>(data);
        body();
        if (wanted_end == End::AFTER_TEST) {
            gtk_main_quit();
        } else {
            g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(DEADLINE.count()), WATCHDOG, nullptr, nullptr);
        }
        return G_SOURCE_REMOVE;
    };
    g_idle_add_full(G_PRIORITY_LOW, run_test, &call, nullptr);
    std::string name = "vantric";
    char* argv[] = {name.data(), nullptr};
    const int status = app.run(1, argv);
    drop_sources(app);
    return status;
}
