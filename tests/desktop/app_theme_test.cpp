/// Light and dark: how the theme is decided, what applying it does, the portal's signal, and what the stylesheet makes of the widgets.
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <utility>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/widgets.h"
#include "live_app.h"
#include "session_bus.h"
#include "signal_gate.h"

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::IsSupersetOf;
using testing::Not;

namespace {

constexpr const char* PREFER_DARK = "gtk-application-prefer-dark-theme";

/// What the code under test has called, and what it is answered in a library's place.
struct Overheard {
    std::vector<std::string> calls;
    std::vector<std::string> sheets;         ///< what was loaded into a style provider
    std::vector<GtkWidget*> redrawn;         ///< in the order of the requests
    std::vector<std::string> questions;      ///< to services on the bus, in full
    std::vector<std::string> subscriptions;  ///< to signals on the bus, in full
    GVariant* answer = nullptr;              ///< of the next question, in place of the service's; belongs to whoever asks
    bool has_bus = true;
    int threads = 0;                                ///< that the program itself has started
    bool is_bus_late = false;                       ///< whether it may take longer to connect than the program waits
    std::function<void(GCancellable*)> at_connect;  ///< before a connection to the bus is made; on any thread
    std::set<std::string> bus_names;                ///< of the code under test, one for each connection that was made
    std::function<void()> at_gtk_init;
    bool has_settings = true;
};

Overheard g_overheard;
std::atomic<int> g_connections{0};  ///< how many the code under test was given, on any thread

/// Whether an argument that points to something was given.
std::string given(gconstpointer pointer)
{
    return pointer == nullptr ? "none" : "some";
}

}  // namespace

// --- calls that are overheard ---

extern "C" {

void gtk_init(int* argc, char*** argv)
{
    if (g_overheard.at_gtk_init) {
        g_overheard.at_gtk_init();
    }
    next<decltype(gtk_init)>("gtk_init")(argc, argv);
}

GtkCssProvider* gtk_css_provider_new()
{
    if (is_own_code(__builtin_return_address(0))) {
        g_overheard.calls.emplace_back("new provider");
    }
    return next<decltype(gtk_css_provider_new)>("gtk_css_provider_new")();
}

void gtk_style_context_add_provider_for_screen(GdkScreen* screen, GtkStyleProvider* provider, guint priority)
{
    if (is_own_code(__builtin_return_address(0))) {
        const bool is_default = screen == gdk_screen_get_default();
        g_overheard.calls.push_back("add to " + std::string(is_default ? "the screen" : "another screen") + " at " +
                                    std::to_string(priority));
    }
    next<decltype(gtk_style_context_add_provider_for_screen)>("gtk_style_context_add_provider_for_screen")(screen, provider, priority);
}

gboolean gtk_css_provider_load_from_data(GtkCssProvider* provider, const gchar* data, gssize length, GError** error)
{
    if (is_own_code(__builtin_return_address(0))) {
        g_overheard.calls.push_back("load, length " + std::to_string(length) + ", error " + given(error));
        g_overheard.sheets.emplace_back(data);
    }
    return next<decltype(gtk_css_provider_load_from_data)>("gtk_css_provider_load_from_data")(provider, data, length, error);
}

void gtk_widget_queue_draw(GtkWidget* widget)
{
    if (is_own_code(__builtin_return_address(0))) {
        g_overheard.calls.emplace_back("draw");
        g_overheard.redrawn.push_back(widget);
    }
    next<decltype(gtk_widget_queue_draw)>("gtk_widget_queue_draw")(widget);
}

GtkWidget* gtk_window_new(GtkWindowType type)
{
    if (is_own_code(__builtin_return_address(0))) {
        g_overheard.calls.emplace_back("window");
    }
    return next<decltype(gtk_window_new)>("gtk_window_new")(type);
}

void gtk_widget_show_all(GtkWidget* widget)
{
    if (is_own_code(__builtin_return_address(0))) {
        g_overheard.calls.emplace_back("show");
    }
    next<decltype(gtk_widget_show_all)>("gtk_widget_show_all")(widget);
}

GtkSettings* gtk_settings_get_default()
{
    const bool refused = is_own_code(__builtin_return_address(0)) && !g_overheard.has_settings;
    return refused ? nullptr : next<decltype(gtk_settings_get_default)>("gtk_settings_get_default")();
}

/// Has the program wait for the bus only once it is connected: on a busy computer its thread may start later than that wait ends.
GThread* g_thread_try_new(const gchar* name, GThreadFunc function, gpointer data, GError** error)
{
    GThread* const thread = next<decltype(g_thread_try_new)>("g_thread_try_new")(name, function, data, error);
    if (thread != nullptr && is_own_code(__builtin_return_address(0))) {
        ++g_overheard.threads;
        if (!g_overheard.is_bus_late) {
            g_thread_join(g_thread_ref(thread));
        }
    }
    return thread;
}

GDBusConnection* g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error)
{
    const bool is_own = is_own_code(__builtin_return_address(0));
    if (is_own && g_overheard.at_connect) {
        g_overheard.at_connect(cancellable);
    }
    if (is_own && !g_overheard.has_bus) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no bus");
        return nullptr;
    }
    GDBusConnection* const bus = next<decltype(g_bus_get_sync)>("g_bus_get_sync")(type, cancellable, error);
    if (is_own && bus != nullptr) {
        g_overheard.bus_names.insert(g_dbus_connection_get_unique_name(bus));
        ++g_connections;
    }
    return bus;
}

GVariant* g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* name, const gchar* path, const gchar* interface,
                                      const gchar* method, GVariant* parameters, const GVariantType* reply_type, GDBusCallFlags flags,
                                      gint timeout, GCancellable* cancellable, GError** error)
{
    if (!is_own_code(__builtin_return_address(0))) {
        return next<decltype(g_dbus_connection_call_sync)>("g_dbus_connection_call_sync")(
            connection, name, path, interface, method, parameters, reply_type, flags, timeout, cancellable, error);
    }
    gchar* const arguments = g_variant_print(parameters, FALSE);
    gchar* const type = g_variant_type_dup_string(reply_type);
    g_overheard.questions.push_back(std::string(name) + " " + path + " " + interface + "." + method + arguments + " " + type + " flags " +
                                    std::to_string(flags) + " timeout " + std::to_string(timeout) + " cancellable " + given(cancellable) +
                                    " error " + given(error));
    g_free(arguments);
    g_free(type);
    if (g_overheard.answer != nullptr) {
        g_variant_unref(g_variant_ref_sink(parameters));
        return std::exchange(g_overheard.answer, nullptr);
    }
    return next<decltype(g_dbus_connection_call_sync)>("g_dbus_connection_call_sync")(connection, name, path, interface, method, parameters,
                                                                                      reply_type, flags, timeout, cancellable, error);
}

guint g_dbus_connection_signal_subscribe(GDBusConnection* connection, const gchar* sender, const gchar* interface, const gchar* member,
                                         const gchar* path, const gchar* argument, GDBusSignalFlags flags, GDBusSignalCallback callback,
                                         gpointer data, GDestroyNotify free_data)
{
    if (is_own_code(__builtin_return_address(0))) {
        g_overheard.calls.emplace_back("subscribe");
        g_overheard.subscriptions.push_back(std::string(sender) + " " + path + " " + interface + "." + member + " argument " +
                                            (argument != nullptr ? argument : "any") + " flags " + std::to_string(flags) +
                                            (callback == App::on_portal_setting_changed ? "" : " another callback"));
    }
    return next<decltype(g_dbus_connection_signal_subscribe)>("g_dbus_connection_signal_subscribe")(
        connection, sender, interface, member, path, argument, flags, callback, data, free_data);
}

}  // extern "C"

namespace {

Settings& settings()
{
    return SettingsStore::instance().mutable_get();
}

bool gtk_prefers_dark()
{
    gboolean prefers_dark = FALSE;
    g_object_get(gtk_settings_get_default(), PREFER_DARK, &prefers_dark, nullptr);
    return prefers_dark;
}

/// The base of all tests. As the display has it, GTK's theme is Adwaita, and no portal is on the bus.
class AppTheme : public IdleAppTest {
protected:
    AppTheme() { g_overheard = {}; }

    /// Sets what GTK's own settings say. The theme is an empty one of that name: GTK loads it anew at each change, of the preference too.
    void gtk_says(bool prefers_dark, const std::string& theme_name = "Plain") const
    {
        const std::string theme = home.path() + "/.themes/" + theme_name + "/gtk-3.0";
        std::filesystem::create_directories(theme);
        write_text(theme + "/gtk.css", "");
        g_object_set(gtk_settings_get_default(), "gtk-theme-name", theme_name.c_str(), PREFER_DARK, static_cast<gboolean>(prefers_dark),
                     nullptr);
    }

    /// The decision when the portal gives that value, wrapped so many times.
    static bool decision_on(const char* value, int depth = 1)
    {
        GVariant* answer = g_variant_parse(nullptr, value, nullptr, nullptr, nullptr);
        for (int i = 0; i < depth; ++i) {
            answer = g_variant_new_variant(answer);
        }
        g_overheard.answer = g_variant_ref_sink(g_variant_new_tuple(&answer, 1));
        return App::system_prefers_dark();
    }

    // Everybody's from here on, so that the program need not connect, for which a busy computer can take longer than the program waits.
    SessionBus::Connection m_bus{next<decltype(g_bus_get_sync)>("g_bus_get_sync")(G_BUS_TYPE_SESSION, nullptr, nullptr)};
};

// --- the decision ---

TEST_F(AppTheme, LightAndDarkAreFixedAndAskNobody)
{
    const IdleApp app;
    gtk_says(true, "Adwaita-dark");
    settings().theme = "light";
    EXPECT_FALSE(app.resolve_dark());
    gtk_says(false);
    settings().theme = "dark";
    EXPECT_TRUE(app.resolve_dark());
    EXPECT_THAT(g_overheard.questions, IsEmpty());
}

TEST_F(AppTheme, AutoAndUnknownWordsAskTheDesktop)
{
    const IdleApp app;
    for (const bool gtk_dark : {false, true}) {
        gtk_says(gtk_dark);
        for (const char* word : {"auto", "", "Dark", "DARK", "Light", "dark ", "darker", "system"}) {
            settings().theme = word;
            EXPECT_EQ(app.resolve_dark(), gtk_dark) << word;
        }
    }
    EXPECT_EQ(g_overheard.questions.size(), 16U);
}

TEST_F(AppTheme, ConstructedAppIsLight)
{
    EXPECT_FALSE(IdleApp().m_dark);
}

// --- the portal ---

constexpr const char* QUESTION =
    "org.freedesktop.portal.Desktop /org/freedesktop/portal/desktop "
    "org.freedesktop.portal.Settings.Read('org.freedesktop.appearance', 'color-scheme') (v) flags 0 timeout 500 cancellable none error "
    "none";

TEST_F(AppTheme, PortalIsAskedForTheColorScheme)
{
    EXPECT_FALSE(App::system_prefers_dark());
    EXPECT_THAT(g_overheard.questions, ElementsAre(QUESTION));
}

TEST_F(AppTheme, OneIsDarkAndTwoIsLightHoweverDeepTheyAreWrapped)
{
    for (const bool gtk_dark : {false, true}) {
        gtk_says(gtk_dark, gtk_dark ? "Adwaita-dark" : "Plain");
        for (const int depth : {1, 2, 3, 20}) {
            EXPECT_TRUE(decision_on("uint32 1", depth)) << depth;
            EXPECT_FALSE(decision_on("uint32 2", depth)) << depth;
        }
    }
}

TEST_F(AppTheme, NoPreferenceAndUnknownNumbersLeaveItToGtk)
{
    for (const bool gtk_dark : {false, true}) {
        gtk_says(gtk_dark);
        for (const char* value : {"uint32 0", "uint32 3", "uint32 7", "uint32 4294967295", "uint32 257"}) {
            EXPECT_EQ(decision_on(value), gtk_dark) << value;
            EXPECT_EQ(decision_on(value, 2), gtk_dark) << value;
        }
    }
}

TEST_F(AppTheme, ValuesOfOtherTypesLeaveItToGtk)
{
    for (const bool gtk_dark : {false, true}) {
        gtk_says(gtk_dark);
        for (const char* value : {"1", "2", "'1'", "'dark'", "'light'", "true", "byte 1", "uint16 2", "int64 1", "uint64 2", "1.0",
                                  "(uint32 1,)", "[uint32 2]", "()", "@as []", "{'color-scheme': <uint32 1>}", "[<uint32 2>]", "@mu 1"}) {
            EXPECT_EQ(decision_on(value), gtk_dark) << value;
        }
    }
}

TEST_F(AppTheme, WithoutPortalGtkDecides)
{
    EXPECT_FALSE(App::system_prefers_dark());
    gtk_says(true);
    EXPECT_TRUE(App::system_prefers_dark());
}

TEST_F(AppTheme, WithoutBusGtkDecides)
{
    g_overheard.has_bus = false;
    EXPECT_FALSE(App::system_prefers_dark());
    gtk_says(true);
    EXPECT_TRUE(App::system_prefers_dark());
    EXPECT_THAT(g_overheard.questions, IsEmpty());
}

TEST_F(AppTheme, BusThatHasGoneAwayLeavesItToGtkAndIsNotWatched)
{
    IdleApp app;
    gtk_says(true);
    GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    ASSERT_NE(bus, nullptr);
    g_dbus_connection_set_exit_on_close(bus, FALSE);
    ASSERT_TRUE(g_dbus_connection_close_sync(bus, nullptr, nullptr));
    EXPECT_TRUE(App::system_prefers_dark());
    app.watch_system_theme();
    EXPECT_THAT(g_overheard.subscriptions, IsEmpty());
    g_object_unref(bus);
}

TEST_F(AppTheme, BusThatIsKeptIsTakenWithoutWaitingForAThread)
{
    const SessionBus::Connection kept = SessionBus::connect();
    ASSERT_NE(kept, nullptr);
    const int threads = g_overheard.threads;
    EXPECT_EQ(SessionBus::connect(), kept);
    EXPECT_EQ(g_overheard.threads, threads);
}

TEST_F(AppTheme, BusThatDoesNotConnectIsGivenUpOnceForAllButNotAtOnce)
{
    IdleApp app;
    gtk_says(true);
    g_overheard.has_bus = false;
    g_overheard.is_bus_late = true;
    std::atomic<int> attempts{0};
    std::atomic<bool> was_cancelled{false};
    g_overheard.at_connect = [&](GCancellable* cancellable) {
        ++attempts;
        was_cancelled = wait_until([&] { return g_cancellable_is_cancelled(cancellable) != FALSE; });
    };
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(App::system_prefers_dark());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3)) << "a session that begins is busy, and so is its bus";
    EXPECT_TRUE(App::system_prefers_dark());
    app.watch_system_theme();
    EXPECT_TRUE(wait_until([&] { return was_cancelled.load(); }));
    EXPECT_EQ(attempts, 1);
    EXPECT_THAT(g_overheard.questions, IsEmpty());
    EXPECT_THAT(g_overheard.subscriptions, IsEmpty());
}

TEST_F(AppTheme, ConnectionThatComesTooLateIsDropped)
{
    gtk_says(true);
    GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    ASSERT_NE(bus, nullptr);
    const unsigned before = references_of(bus);
    g_connections = 0;
    std::promise<void> goes_on;
    g_overheard.is_bus_late = true;
    g_overheard.at_connect = [&](GCancellable* cancellable) {
        goes_on.get_future().wait();  // whether cancelled or not
        g_cancellable_reset(cancellable);
    };
    EXPECT_TRUE(App::system_prefers_dark());
    EXPECT_EQ(g_connections, 0);
    goes_on.set_value();
    EXPECT_TRUE(iterate_until([&] { return g_connections == 1 && references_of(bus) <= before; }));
    EXPECT_THAT(g_overheard.questions, IsEmpty());
    g_object_unref(bus);
}

TEST_F(AppTheme, ProgramsStartedForTheBusCanBeEnded)
{
    const auto has_both = [](const sigset_t& set) { return sigismember(&set, SIGINT) == 1 && sigismember(&set, SIGTERM) == 1; };
    sigset_t meanwhile{};
    g_overheard.at_connect = [&](GCancellable*) { pthread_sigmask(SIG_BLOCK, nullptr, &meanwhile); };
    SignalGate::close();
    App::system_prefers_dark();
    EXPECT_FALSE(sigismember(&meanwhile, SIGINT) == 1 || sigismember(&meanwhile, SIGTERM) == 1);
    sigset_t afterwards{};
    pthread_sigmask(SIG_BLOCK, nullptr, &afterwards);
    EXPECT_TRUE(has_both(afterwards));
}

TEST_F(AppTheme, QuestionKeepsNoReferenceOnTheBus)
{
    GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    ASSERT_NE(bus, nullptr);
    const unsigned before = references_of(bus);
    for (int i = 0; i < 10; ++i) {
        App::system_prefers_dark();
        decision_on("uint32 1");
    }
    EXPECT_TRUE(iterate_until([&] { return references_of(bus) <= before; })) << references_of(bus) << " instead of " << before;
    g_object_unref(bus);
}

// --- GTK's own settings ---

TEST_F(AppTheme, NameOfTheGtkThemeDecidesByThePartDark)
{
    for (const char* name : {"Adwaita-dark", "Adwaita-Dark", "Darkly", "DARK", "undArKened"}) {
        gtk_says(false, name);
        EXPECT_TRUE(App::system_prefers_dark()) << name;
    }
    for (const char* name : {"HighContrast", "Da-rk", "ark", "d\xD0\xB0rk"}) {
        gtk_says(false, name);
        EXPECT_FALSE(App::system_prefers_dark()) << name;
    }
    gtk_says(true, "Plain");
    EXPECT_TRUE(App::system_prefers_dark());
}

TEST_F(AppTheme, ThemeWithoutNameIsLightUnlessDarkIsPreferred)
{
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
        g_object_set(gtk_settings_get_default(), "gtk-theme-name", name, PREFER_DARK, FALSE, nullptr);
        EXPECT_FALSE(App::system_prefers_dark());
        g_object_set(gtk_settings_get_default(), PREFER_DARK, TRUE, nullptr);
        EXPECT_TRUE(App::system_prefers_dark());
    }
}

TEST_F(AppTheme, WithoutGtkSettingsItIsLight)
{
    gtk_says(true, "Adwaita-dark");
    g_overheard.has_settings = false;
    EXPECT_FALSE(App::system_prefers_dark());
}

// --- apply_theme ---

/// Notes in the order of the calls when the program's preference is written.
void note_preference(GObject* gtk_settings, GParamSpec*, gpointer)
{
    gboolean dark = FALSE;
    g_object_get(gtk_settings, PREFER_DARK, &dark, nullptr);
    g_overheard.calls.emplace_back(dark ? "prefer dark" : "prefer light");
}

TEST_F(AppTheme, ApplyingMakesOneProviderLoadsItTellsGtkAndRedrawsInThisOrder)
{
    IdleApp app(Shape{{2}});
    g_signal_connect(gtk_settings_get_default(), (std::string("notify::") + PREFER_DARK).c_str(), G_CALLBACK(note_preference), nullptr);
    g_overheard.calls.clear();
    settings().theme = "dark";
    app.apply_theme();
    EXPECT_THAT(g_overheard.calls,
                ElementsAre("new provider", "add to the screen at 600", "load, length -1, error none", "prefer dark", "draw"));
    g_overheard.calls.clear();
    settings().theme = "light";
    app.apply_theme();
    EXPECT_THAT(g_overheard.calls, ElementsAre("load, length -1, error none", "prefer light", "draw"));
    g_overheard.calls.clear();
    app.apply_theme();
    EXPECT_THAT(g_overheard.calls, ElementsAre("load, length -1, error none", "draw")) << "what GTK prefers already makes it load nothing";
}

TEST_F(AppTheme, ApplyingLoadsTheSheetOfTheScheme)
{
    IdleApp app;
    settings().bg_dark = "#010203";
    settings().text_light = "405060";
    for (const char* theme : {"dark", "light"}) {
        settings().theme = theme;
        app.apply_theme();
        EXPECT_EQ(g_overheard.sheets.back(), build_css(settings(), Palette::for_theme(theme == std::string("dark"))));
    }
    speak("ja");
    app.apply_theme();
    EXPECT_THAT(g_overheard.sheets.back(), HasSubstr("sans-serif"));
}

TEST_F(AppTheme, ApplyingSetsTheSchemeOfThePalette)
{
    IdleApp app;
    for (const bool dark : {true, false, true}) {
        settings().theme = dark ? "dark" : "light";
        app.apply_theme();
        EXPECT_EQ(app.m_dark, dark);
        EXPECT_EQ(app.palette().background, Palette::for_theme(dark).background);
        EXPECT_EQ(gtk_prefers_dark(), dark);
    }
}

TEST_F(AppTheme, ThousandTimesMakeOneProvider)
{
    gtk_says(false);
    IdleApp app;
    app.apply_theme();
    GtkCssProvider* const provider = app.m_css;
    ASSERT_NE(provider, nullptr);
    const unsigned references = references_of(provider);
    for (int i = 0; i < 1000; ++i) {
        settings().theme = i % 2 == 0 ? "dark" : "light";
        app.apply_theme();
    }
    EXPECT_EQ(app.m_css, provider);
    EXPECT_EQ(references_of(provider), references);
    EXPECT_EQ(g_overheard.sheets.size(), 1001U);
    EXPECT_EQ(std::count(g_overheard.calls.begin(), g_overheard.calls.end(), "new provider"), 1);
    EXPECT_EQ(std::count(g_overheard.calls.begin(), g_overheard.calls.end(), "add to the screen at 600"), 1);
}

TEST_F(AppTheme, ApplyingRedrawsWindowAndDialogAsFarAsTheyExist)
{
    IdleApp app;
    app.apply_theme();
    EXPECT_THAT(g_overheard.redrawn, IsEmpty());

    app.take(Shape{{2}});
    app.create_window();
    g_overheard.redrawn.clear();
    app.apply_theme();
    EXPECT_THAT(g_overheard.redrawn, ElementsAre(app.m_window));

    app.m_settings_popover = app.create_settings_popover();
    g_overheard.redrawn.clear();
    app.apply_theme();
    EXPECT_THAT(g_overheard.redrawn, ElementsAre(app.m_window, app.m_settings_popover));
    gtk_widget_destroy(app.m_settings_popover);
}

TEST_F(AppTheme, ChartsArePaintedInTheNewScheme)
{
    IdleApp app(Shape{{2}});
    settings().theme = "light";
    app.apply_theme();
    ASSERT_TRUE(app.show());
    std::optional<bool> painted_dark;
    const auto note = +[](GtkWidget*, cairo_t*, gpointer data) -> gboolean {
        const auto& [painted, shown] = *static_cast<std::pair<std::optional<bool>*, App*>*>(data);
        *painted = shown->palette().dark;
        return FALSE;
    };
    std::pair<std::optional<bool>*, App*> data{&painted_dark, &app};
    g_signal_connect(app.core(0, 1).chart, "draw", G_CALLBACK(note), &data);
    settings().theme = "dark";
    app.apply_theme();
    EXPECT_TRUE(iterate_until([&] { return painted_dark == true; }));
}

TEST_F(AppTheme, WithoutGtkSettingsTheSheetIsLoadedAllTheSame)
{
    IdleApp app(Shape{{2}});
    g_overheard.has_settings = false;
    settings().theme = "dark";
    app.apply_theme();
    EXPECT_TRUE(app.m_dark);
    EXPECT_EQ(g_overheard.sheets.size(), 1U);
    EXPECT_THAT(g_overheard.redrawn, ElementsAre(app.m_window));
    g_overheard.has_settings = true;
    EXPECT_FALSE(gtk_prefers_dark());
}

TEST_F(AppTheme, WithoutPortalAutoStaysDarkOnceDarkWasAppliedAndLightOnceLightWas)
{
    IdleApp app;
    for (const bool dark : {true, false}) {
        settings().theme = dark ? "dark" : "light";
        app.apply_theme();
        settings().theme = "auto";
        app.apply_theme();
        app.apply_theme();
        EXPECT_EQ(app.m_dark, dark);
    }
}

TEST_F(AppTheme, ThemeNamedDarkBringsAutoBackToDarkWithoutPortal)
{
    IdleApp app;
    gtk_says(false, "Adwaita-dark");
    settings().theme = "light";
    app.apply_theme();
    EXPECT_FALSE(app.m_dark);
    settings().theme = "auto";
    app.apply_theme();
    EXPECT_TRUE(app.m_dark);
}

TEST_F(AppTheme, ColorThatIsNoneIsLeftToGtkWhichMayComplain)
{
    IdleApp app(Shape{{2}});
    settings().text_light = "no colour";
    settings().theme = "light";
    app.apply_theme();
    EXPECT_THAT(Messages::instance().take(), Each(HasSubstr("Theme parsing error")));
    EXPECT_TRUE(app.show());
}

// --- queue_apply_theme ---

TEST_F(AppTheme, QueuedApplyingHappensOnceFromTheMainLoop)
{
    IdleApp app;
    settings().theme = "dark";
    app.queue_apply_theme();
    EXPECT_THAT(g_overheard.sheets, IsEmpty());
    EXPECT_FALSE(app.m_dark);
    EXPECT_TRUE(iterate_until([&] { return app.m_dark; }));
    EXPECT_EQ(g_main_context_find_source_by_user_data(nullptr, &app), nullptr);
    EXPECT_EQ(g_overheard.sheets.size(), 1U);
}

TEST_F(AppTheme, QueuedApplyingTakesTheSettingsOfItsMoment)
{
    IdleApp app;
    settings().theme = "light";
    app.queue_apply_theme();
    settings().theme = "dark";
    EXPECT_TRUE(iterate_until([&] { return !g_overheard.sheets.empty(); }));
    EXPECT_TRUE(app.m_dark);
}

// --- the portal's signal ---

TEST_F(AppTheme, WatchingSubscribesToThePortalAndKeepsTheBus)
{
    m_bus.reset();  // the program alone is to keep it
    IdleApp app;
    GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    ASSERT_NE(bus, nullptr);
    ASSERT_TRUE(iterate_until([&] { return references_of(bus) == 1; })) << "somebody else keeps the bus";
    app.watch_system_theme();
    EXPECT_NE(app.m_portal_sub, 0U);
    EXPECT_THAT(g_overheard.subscriptions, ElementsAre("org.freedesktop.portal.Desktop /org/freedesktop/portal/desktop "
                                                       "org.freedesktop.portal.Settings.SettingChanged argument any flags 0"));
    EXPECT_FALSE(g_dbus_connection_get_exit_on_close(bus));
    App::system_prefers_dark();  // gives its own reference back, and no more
    EXPECT_TRUE(iterate_until([&] { return references_of(bus) == 2; })) << references_of(bus);
    g_object_unref(bus);
}

TEST_F(AppTheme, WithoutBusNothingIsWatched)
{
    IdleApp app;
    g_overheard.has_bus = false;
    app.watch_system_theme();
    EXPECT_EQ(app.m_portal_sub, 0U);
    EXPECT_THAT(g_overheard.subscriptions, IsEmpty());
}

/// How often a signal with these parameters, in GVariant's text format, has the theme applied.
std::size_t applied_on(App& app, const std::string& parameters)
{
    const std::size_t before = g_overheard.sheets.size();
    GVariant* const value = g_variant_ref_sink(g_variant_parse(nullptr, parameters.c_str(), nullptr, nullptr, nullptr));
    App::on_portal_setting_changed(nullptr, ":1.7", "/org/freedesktop/portal/desktop", "org.freedesktop.portal.Settings", "SettingChanged",
                                   value, &app);
    g_variant_unref(value);
    return g_overheard.sheets.size() - before;
}

TEST_F(AppTheme, SignalAppliesTheThemeAtOnceWhateverValueItCarries)
{
    IdleApp app;
    for (const char* value : {"uint32 1", "uint32 2", "uint32 0", "'dark'", "<<uint32 2>>", "()", "@as []"}) {
        EXPECT_EQ(applied_on(app, std::string("('org.freedesktop.appearance', 'color-scheme', <") + value + ">)"), 1U) << value;
        EXPECT_FALSE(app.m_dark) << value;  // as GTK says: nobody looks at the value
    }
    gtk_says(true);
    EXPECT_EQ(applied_on(app, "('org.freedesktop.appearance', 'color-scheme', <uint32 2>)"), 1U);
    EXPECT_TRUE(app.m_dark);
    EXPECT_THAT(g_overheard.questions, Each(QUESTION));
}

TEST_F(AppTheme, SignalsOfOtherSettingsAreIgnored)
{
    IdleApp app;
    for (const char* setting :
         {"'org.freedesktop.appearance', 'accent-color'", "'org.freedesktop.appearance', 'contrast'", "'org.freedesktop.appearance', ''",
          "'org.freedesktop.appearance', 'color-schemes'", "'org.freedesktop.appearance', 'color-schem'",
          "'org.freedesktop.appearance', 'Color-Scheme'", "'org.gnome.desktop.interface', 'color-scheme'", "'', 'color-scheme'",
          "'org.freedesktop.appearance.x', 'color-scheme'", "'org.freedesktop', 'color-scheme'",
          "'color-scheme', 'org.freedesktop.appearance'", "'', ''"}) {
        EXPECT_EQ(applied_on(app, "(" + std::string(setting) + ", <uint32 1>)"), 0U) << setting;
    }
}

TEST_F(AppTheme, SignalsOfAnotherFormAreIgnored)
{
    IdleApp app;
    for (const char* parameters :
         {"()", "('org.freedesktop.appearance',)", "('org.freedesktop.appearance', 'color-scheme')",
          "('org.freedesktop.appearance', 'color-scheme', uint32 1)", "('org.freedesktop.appearance', 'color-scheme', <uint32 1>, <1>)",
          "(<'org.freedesktop.appearance'>, 'color-scheme', <uint32 1>)", "('org.freedesktop.appearance', objectpath '/a', <uint32 1>)",
          "(['org.freedesktop.appearance'], ['color-scheme'], <uint32 1>)", "(1, 2, <uint32 1>)", "(uint32 1,)"}) {
        EXPECT_EQ(applied_on(app, parameters), 0U) << parameters;
    }
}

TEST_F(AppTheme, OnlyAutoReactsToTheSignalAndNoUnknownWordDoes)
{
    IdleApp app;
    for (const char* word : {"light", "dark", "", "Auto", "AUTO", "automatic", "system", "auto "}) {
        settings().theme = word;
        EXPECT_EQ(applied_on(app, "('org.freedesktop.appearance', 'color-scheme', <uint32 1>)"), 0U) << word;
    }
    settings().theme = "auto";
    EXPECT_EQ(applied_on(app, "('org.freedesktop.appearance', 'color-scheme', <uint32 1>)"), 1U);
}

// --- the start ---

TEST_F(AppTheme, StartAppliesTheThemeAndWatchesBetweenWindowAndShow)
{
    home.lay("settings.json", R"({"theme": "dark"})");
    App app;
    run_app(app, [&] {
        EXPECT_TRUE(app.m_dark);
        EXPECT_NE(app.m_portal_sub, 0U);
    });
    std::vector<std::string> calls = g_overheard.calls;
    std::erase(calls, "draw");
    calls.resize(std::min<std::size_t>(calls.size(), 6));  // the dialog can have more of the same
    EXPECT_THAT(calls,
                ElementsAre("window", "new provider", "add to the screen at 600", "load, length -1, error none", "subscribe", "show"));
}

constexpr const char* NO_BRIDGE = "NO_AT_BRIDGE";

TEST_F(AppTheme, BusIsConnectedToOnceAndBeforeAccessibilityDoes)
{
    const ScopedEnv accessible(NO_BRIDGE, std::nullopt);
    App app;
    int connections = 0;
    g_connections = 0;
    g_overheard.at_gtk_init = [&] {
        connections = g_connections;
        EXPECT_EQ(g_getenv(NO_BRIDGE), nullptr);
    };
    run_app(app, [&] { EXPECT_NE(app.m_portal_sub, 0U); });
    EXPECT_EQ(connections, 1);
    EXPECT_EQ(g_overheard.bus_names.size(), 1U);
}

TEST_F(AppTheme, BusThatHangsIsKeptFromAccessibilityAndFromNobodyElse)
{
    const ScopedEnv accessible(NO_BRIDGE, std::nullopt);
    App app;
    std::atomic<bool> was_cancelled{false};
    g_overheard.has_bus = false;
    g_overheard.is_bus_late = true;
    g_overheard.at_connect = [&](GCancellable* cancellable) {
        was_cancelled = wait_until([&] { return g_cancellable_is_cancelled(cancellable) != FALSE; });
    };
    std::string at_gtk_init;
    g_overheard.at_gtk_init = [&] { at_gtk_init = g_getenv(NO_BRIDGE) != nullptr ? g_getenv(NO_BRIDGE) : "unset"; };
    run_app(app, [] { EXPECT_EQ(g_getenv(NO_BRIDGE), nullptr); });  // else programs started by links would have it
    EXPECT_EQ(at_gtk_init, "1");
    EXPECT_TRUE(wait_until([&] { return was_cancelled.load(); }));
}

TEST_F(AppTheme, BusIsThereByItsAddressOrByItsSocket)
{
    const ScopedEnv no_address("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    {
        const ScopedEnv no_folder("XDG_RUNTIME_DIR", std::nullopt);
        EXPECT_FALSE(SessionBus::is_there());
        const ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere");
        EXPECT_TRUE(SessionBus::is_there());
    }
    const ScopedEnv folder("XDG_RUNTIME_DIR", home.path());
    EXPECT_FALSE(SessionBus::is_there());
    std::ofstream(home.path() + "/bus");
    EXPECT_TRUE(SessionBus::is_there());
}

TEST_F(AppTheme, NobodyConnectsBeforeGtkWithoutAccessibilityOrWithoutBus)
{
    const ScopedEnv no_place("XDG_RUNTIME_DIR", home.path());
    const std::vector<std::pair<const char*, std::optional<std::string>>> reasons = {{NO_BRIDGE, "1"},
                                                                                     {"DBUS_SESSION_BUS_ADDRESS", std::nullopt}};
    for (const auto& [name, value] : reasons) {
        const ScopedEnv accessible(NO_BRIDGE, std::nullopt);
        const ScopedEnv reason(name, value);
        App app;
        g_overheard.has_bus = false;
        int attempts = 0;
        int attempts_before_gtk = -1;
        g_overheard.at_connect = [&](GCancellable*) { ++attempts; };
        g_overheard.at_gtk_init = [&] { attempts_before_gtk = attempts; };
        run_app(app, [] {});
        EXPECT_EQ(attempts_before_gtk, 0) << name;
        EXPECT_GT(attempts, 0) << name;
    }
}

// --- what the sheet makes of the widgets ---

/// Whether GTK finds nothing wrong with the sheet.
bool parses(const std::string& css)
{
    bool is_fine = true;
    GtkCssProvider* const provider = gtk_css_provider_new();
    const auto note = +[](GtkCssProvider*, GtkCssSection*, GError*, gpointer fine) { *static_cast<bool*>(fine) = false; };
    g_signal_connect(provider, "parsing-error", G_CALLBACK(note), &is_fine);
    gtk_css_provider_load_from_data(provider, css.c_str(), -1, nullptr);
    g_object_unref(provider);
    return is_fine;
}

TEST_F(AppTheme, GtkUnderstandsTheSheetOfEachSchemeInEachFont)
{
    for (const char* language : {"en", "ja"}) {
        speak(language);
        for (const bool dark : {false, true}) {
            EXPECT_TRUE(parses(build_css(settings(), Palette::for_theme(dark))));
        }
    }
    settings().bg_light = settings().panel_light = settings().text_light = settings().gear_light = "1A2b3c";
    EXPECT_TRUE(parses(build_css(settings(), Palette::light())));
    settings().gear_light = "no colour";
    EXPECT_FALSE(parses(build_css(settings(), Palette::light())));
}

void collect(GtkWidget* widget, gpointer widgets)
{
    static_cast<std::vector<GtkWidget*>*>(widgets)->push_back(widget);
    if (GTK_IS_CONTAINER(widget)) {
        gtk_container_forall(GTK_CONTAINER(widget), collect, widgets);
    }
}

std::string text_of_value(const GValue& value)
{
    if (G_VALUE_HOLDS(&value, GDK_TYPE_RGBA)) {
        const auto* const color = static_cast<const GdkRGBA*>(g_value_get_boxed(&value));
        return color->alpha == 1.0 ? rgb_to_hex({color->red, color->green, color->blue}) : "translucent";
    }
    if (G_VALUE_HOLDS(&value, PANGO_TYPE_FONT_DESCRIPTION)) {
        return pango_font_description_get_family(static_cast<const PangoFontDescription*>(g_value_get_boxed(&value)));
    }
    if (G_VALUE_HOLDS_ENUM(&value)) {
        return std::to_string(g_value_get_enum(&value));
    }
    return widget_text::number(G_VALUE_HOLDS_DOUBLE(&value) ? g_value_get_double(&value) : g_value_get_int(&value));
}

/// A style property of a widget as it is shown now; sizes in pixels.
std::string style_of(GtkWidget* widget, const std::string& property)
{
    GtkStyleContext* const context = gtk_widget_get_style_context(widget);
    GValue value = G_VALUE_INIT;
    const std::string asked = property == "font-family" ? "font" : property;  // GTK loses the list that it makes of the families alone
    gtk_style_context_get_property(context, asked.c_str(), gtk_style_context_get_state(context), &value);
    std::string text = text_of_value(value);
    g_value_unset(&value);
    return text;
}

using Style = std::map<std::string, std::string>;

Style operator|(Style a, const Style& b)
{
    a.insert(b.begin(), b.end());
    return a;
}

Style sides(const std::string& property, const std::array<int, 4>& pixels)
{
    Style style;
    const std::array<const char*, 4> names = {"-top", "-right", "-bottom", "-left"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        style[property + names[i]] = std::to_string(pixels[i]);
    }
    return style;
}

Style border(const std::string& color, int radius)
{
    Style style = {{"border-radius", std::to_string(radius)}};
    for (const char* side : {"top", "right", "bottom", "left"}) {
        style[std::string("border-") + side + "-width"] = "1";
        style[std::string("border-") + side + "-color"] = color;
        style[std::string("border-") + side + "-style"] = std::to_string(GTK_BORDER_STYLE_SOLID);
    }
    return style;
}

/// The whole window and the settings dialog, with every kind of widget that they can have.
class Styles : public AppTheme {
protected:
    Styles()
    {
        app.take(Shape{{3, 2}});
        app.m_clusters[0].max_freq_mhz = 3600.0;
        app.create_window();
    }
    ~Styles() override
    {
        if (app.m_settings_popover != nullptr) {
            gtk_widget_destroy(app.m_settings_popover);
        }
    }

    void apply(const char* theme)
    {
        settings().theme = theme;
        app.apply_theme();
    }

    bool show()
    {
        if (!app.show()) {
            return false;
        }
        App::on_settings_clicked(nullptr, &app);
        return settle(app.m_settings_popover);
    }

    std::vector<GtkWidget*> widgets() const
    {
        std::vector<GtkWidget*> all;
        collect(app.m_window, &all);
        collect(app.m_settings_popover, &all);
        return all;
    }

    /// The widgets for ".class" or, in one of those, ".class node".
    std::vector<GtkWidget*> find(const std::string& selector) const
    {
        const auto blank = selector.find(' ');
        const std::string name = selector.substr(1, blank - 1);
        std::vector<GtkWidget*> found;
        for (GtkWidget* widget : widgets()) {
            if (has_class(widget, name.c_str())) {
                found.push_back(widget);
            }
        }
        if (blank == std::string::npos) {
            return found;
        }
        std::vector<GtkWidget*> below;
        for (GtkWidget* widget : found) {
            collect(widget, &below);
        }
        std::erase_if(below,
                      [&](GtkWidget* w) { return selector.substr(blank + 1) != gtk_widget_class_get_css_name(GTK_WIDGET_GET_CLASS(w)); });
        return below;
    }

    void expect(const std::string& selector, const Style& style) const
    {
        const std::vector<GtkWidget*> found = find(selector);
        EXPECT_THAT(found, Not(IsEmpty())) << selector;
        for (GtkWidget* widget : found) {
            for (const auto& [property, value] : style) {
                EXPECT_EQ(style_of(widget, property), value) << selector << " " << property;
            }
        }
    }

    IdleApp app;
};

Style font(const std::string& size, const char* family = nullptr)
{
    return Style{{"font-size", size}} | (family != nullptr ? Style{{"font-family", family}} : Style{});
}

const Style BOLD = {{"font-weight", "700"}};
const Style NOT_BOLD = {{"font-weight", "400"}};

Style color(const std::string& value)
{
    return {{"color", value}};
}

Style fill(const std::string& value)
{
    return {{"background-color", value}};
}

TEST_F(Styles, WidgetsHaveTheColorsOfEachScheme)
{
    ASSERT_TRUE(show());
    struct Scheme {
        const char *theme, *bg, *panel, *border, *text, *gear, *dim, *soft, *well, *outline;
    };
    for (const Scheme& s :
         {Scheme{"dark", "#1C1C1E", "#2C2C2E", "#48484A", "#E5E5E7", "#FFFFFF", "#B1B1B3", "#C2C2C4", "#242426", "#8A8A8E"},
          Scheme{"light", "#D9D9D9", "#EBEBEB", "#B3B3B3", "#404040", "#CC3326", "#707070", "#606060", "#E2E2E2", "#909090"}}) {
        apply(s.theme);
        EXPECT_EQ(style_of(app.m_window, "background-color"), s.bg);
        EXPECT_EQ(style_of(app.m_settings_popover, "background-color"), s.bg);
        for (const char* selector : {".cpu-name", ".info-line", ".group-name", ".about-name", ".about-dev", ".settings-label",
                                     ".settings-expander", ".settings-expander label"}) {
            expect(selector, color(s.text));
        }
        for (const char* selector : {".group-freq", ".core-label", ".about-version", ".about-dim"}) {
            expect(selector, color(s.dim));
        }
        expect(".disclaimer-text", color(s.soft));
        expect(".disclaimer-box", fill(s.well));
        expect(".total-card", fill(s.panel) | border(s.border, 5));
        expect(".core-card", fill(s.panel) | border(s.border, 5));
        expect(".gear-btn", color(s.gear));
        expect(".gear-btn label", color(s.gear));
        expect(".color-swatch", border(s.outline, 3));
        expect(".color-swatch colorswatch", border(s.outline, 3));
    }
}

TEST_F(Styles, TextsHaveTheirFonts)
{
    ASSERT_TRUE(show());
    for (const auto& [language, family] : std::map<const char*, const char*>{{"en", "monospace"}, {"he", "sans-serif"}}) {
        speak(language);
        apply("light");
        expect(".cpu-name", font("10", "monospace") | BOLD);
        expect(".info-line", font("9", family) | NOT_BOLD);
        expect(".group-name", font("10", family) | BOLD);
        expect(".group-freq", font("9", "monospace") | NOT_BOLD);
        expect(".core-label", font("9", family) | BOLD);
        expect(".pct-label", font("9", "monospace") | BOLD);
        expect(".throttle-label", font("9", family) | BOLD);
        expect(".about-name", font("14") | BOLD);
        expect(".about-version", font("10") | NOT_BOLD);
        expect(".about-dev", font("10") | NOT_BOLD);
        expect(".about-dim", font("9") | NOT_BOLD);
        expect(".disclaimer-text", font("9") | NOT_BOLD);
        expect(".settings-label", font("11"));
        expect(".settings-expander label", font("11") | BOLD);
        expect(".gear-btn", font("13") | BOLD);
        expect(".gear-btn label", font("13") | BOLD);
        expect(".settings-combo", font("11"));
        expect(".settings-combo button", font("11"));
    }
}

TEST_F(Styles, BoxesHaveTheirSpaces)
{
    ASSERT_TRUE(show());
    apply("dark");
    expect(".header", sides("padding", {6, 8, 4, 8}));
    expect(".total-card", sides("margin", {2, 6, 2, 6}) | sides("padding", {4, 4, 4, 4}));
    expect(".section-header", sides("margin", {5, 6, 1, 6}));
    expect(".core-card", sides("padding", {3, 3, 2, 3}));
    expect(".popover-box", sides("padding", {12, 12, 12, 12}));
    expect(".disclaimer-box", sides("padding", {8, 8, 8, 8}) | Style{{"border-radius", "5"}});
    expect(".gear-btn", sides("padding", {0, 0, 0, 0}) | sides("margin", {0, 0, 0, 0}) |
                            Style{{"min-width", "0"}, {"min-height", "0"}, {"border-top-style", std::to_string(GTK_BORDER_STYLE_NONE)}});
    expect(".color-swatch", Style{{"min-width", "34"}, {"min-height", "18"}});
    expect(".color-swatch colorswatch", Style{{"min-width", "34"}, {"min-height", "18"}});
    const Style combo = {{"min-height", "22"}, {"padding-top", "1"}, {"padding-bottom", "1"}};
    expect(".settings-combo", combo);
    expect(".settings-combo button", combo);
}

TEST_F(Styles, ColorsOfTheUserReachTheWidgets)
{
    ASSERT_TRUE(show());
    settings().bg_light = "#102030";
    settings().panel_light = "F0A050";
    settings().text_light = "#0000FF";
    settings().gear_light = "#ABCDEF";
    apply("light");
    EXPECT_EQ(style_of(app.m_window, "background-color"), "#102030");
    EXPECT_EQ(style_of(app.m_settings_popover, "background-color"), "#102030");
    expect(".core-card", fill("#F0A050"));
    expect(".cpu-name", color("#0000FF"));
    expect(".core-label", color("#432DCE"));
    expect(".gear-btn label", color("#ABCDEF"));
}

TEST_F(Styles, GearKeepsItsColorUnderThePointerAndInTheBackground)
{
    ASSERT_TRUE(show());
    apply("light");
    for (const GtkStateFlags state : {GTK_STATE_FLAG_NORMAL, GTK_STATE_FLAG_PRELIGHT, GTK_STATE_FLAG_ACTIVE, GTK_STATE_FLAG_BACKDROP}) {
        gtk_widget_set_state_flags(find(".gear-btn").at(0), state, TRUE);
        expect(".gear-btn", color("#CC3326"));
        expect(".gear-btn label", color("#CC3326"));
    }
}

/// All classes that a sheet speaks of.
std::set<std::string> classes_in(const std::string& css)
{
    static const std::regex CLASS("\\.([a-z][a-z-]*)");
    std::set<std::string> classes;
    for (auto match = std::sregex_iterator(css.begin(), css.end(), CLASS); match != std::sregex_iterator(); ++match) {
        classes.insert((*match)[1]);
    }
    return classes;
}

std::set<std::string> classes_on(const std::vector<GtkWidget*>& widgets)
{
    std::set<std::string> classes;
    for (GtkWidget* widget : widgets) {
        GList* const list = gtk_style_context_list_classes(gtk_widget_get_style_context(widget));
        for (const GList* item = list; item != nullptr; item = item->next) {
            classes.insert(static_cast<const char*>(item->data));
        }
        g_list_free(list);
    }
    return classes;
}

TEST_F(Styles, SheetSpeaksOfExactlyTheClassesThatWidgetsHave)
{
    ASSERT_TRUE(show());
    std::set<std::string> classes = classes_on(widgets());
    const std::set<std::string> spoken_of = classes_in(build_css(settings(), Palette::light()));
    EXPECT_THAT(classes, IsSupersetOf(spoken_of));
    for (const std::string& name : spoken_of) {
        classes.erase(name);
    }
    // What is left comes from GTK, or is meant for its themes
    EXPECT_THAT(classes, IsSubsetOf({"activatable", "background", "color", "combo", "dark", "flat", "horizontal", "light", "link", "linked",
                                     "text-button", "toggle", "vertical"}));
}

TEST_F(Styles, NewLayoutHasTheStylesToo)
{
    ASSERT_TRUE(show());
    apply("dark");
    settings().orientation = "horizontal";
    app.rebuild_layout();
    expect(".core-card", fill("#2C2C2E") | sides("padding", {3, 3, 2, 3}));
    expect(".gear-btn label", color("#FFFFFF"));
    expect(".header", sides("padding", {6, 8, 4, 8}));
}

}  // namespace
