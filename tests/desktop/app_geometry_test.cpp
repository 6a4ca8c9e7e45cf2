/// The window's geometry: what a start makes of the stored record, and which events write it, each in its own way.
#include <signal.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app.h"
#include "desktop/geometry.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr bool VERTICAL = false;
constexpr bool HORIZONTAL = true;

bool g_timers_wait = false;  // those that are added from now on, for ever

std::string default_size_of(const App& app)
{
    gint width = 0;
    gint height = 0;
    gtk_window_get_default_size(GTK_WINDOW(app.m_window), &width, &height);
    return size_text(width, height);
}

std::string file_of(const TemporaryHome& home)
{
    return home.config() + "/geometry.json";
}

gboolean configure(IdleApp& app, int width, int height)
{
    GdkEventConfigure event{};
    event.type = GDK_CONFIGURE;
    event.width = width;
    event.height = height;
    return App::on_configure(app.m_window, &event, static_cast<App*>(&app));
}

}  // namespace

extern "C" guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    return g_timers_wait ? 0 : next<decltype(g_timeout_add)>("g_timeout_add")(interval, function, data);
}

namespace {

class Start : public IdleAppTest {
protected:
    ~Start() override { g_overheard = {}; }
};

using StartColumns = DesktopTest;

/// An App whose window's place and size are made up.
class Tracking : public IdleAppTest {
protected:
    Tracking()
    {
        g_overheard.app = &app;
        g_overheard.made_up = REPORTED;
    }
    ~Tracking() override { g_overheard = {}; }

    static constexpr WindowRect REPORTED{.x = -30, .y = 40, .width = 711, .height = 822};

    IdleApp app{Shape{.clusters = {4}, .columns = 3}};
};

class Traces : public Tracking {
protected:
    std::string traced(int width, int height)
    {
        StandardError errors;
        configure(app, width, height);
        return errors.take();
    }

    ScopedEnv variable{"VANTRIC_TRACE", "1"};
};

using OnTheScreen = IdleAppTest;

class Closing : public DesktopTest {
protected:
    ~Closing() override { g_overheard = {}; }

    /// Runs an App until it ends by what `last` does to it.
    static int run(App& app, const std::function<void()>& last) { return run_app(app, last, End::BY_ITSELF); }
};

using Signals = Closing;

}  // namespace

// --- the start ---

TEST_F(Start, SizeAndPlaceAreThoseOfTheRecordOfTheOrientation)
{
    store(VERTICAL, {11, 22, 333, 444}, 2);
    store(HORIZONTAL, {55, 66, 777, 288}, 3);
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {4}})), "333x444");
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {4}, .horizontal = true})), "777x288");
    EXPECT_THAT(g_overheard.moves, ElementsAre("11,22", "55,66"));
}

TEST_F(Start, HeightCountsFrom101To2999AndTheWidthInAnyCase)
{
    for (const auto& [height, size] : std::vector<std::pair<int, std::string>>{
             {100, "333x700"}, {101, "333x101"}, {2999, "333x2999"}, {3000, "333x700"}, {0, "333x700"}, {-500, "333x700"}}) {
        store(VERTICAL, {11, 22, 333, height}, 2);
        EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {4}})), size);
    }
    store(HORIZONTAL, {11, 22, 1, 3000}, 2);
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {8, 4}, .horizontal = true})), "1x236");
}

TEST_F(Start, ValidRecordWithoutWidthKeepsItsHeight)
{
    const IdleApp app(Shape{.clusters = {4}, .columns = 2});
    int width = 0;
    int height = 0;
    app.initial_window_size({.width = 0, .height = 444, .valid = true}, width, height);
    EXPECT_EQ(size_text(width, height), "124x444");
}

TEST_F(Start, RecordThatIsNotValidCountsForNothing)
{
    store(VERTICAL, {11, 22, 0, 444}, 2);
    store(HORIZONTAL, {55, 66, 777, 288}, 3);
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {4}})), "66x700");
    EXPECT_THAT(g_overheard.moves, ElementsAre(place_text((1280 - 66) / 2, (1024 - 700) / 2)));
}

TEST_F(Start, StoredPlaceIsNotCheckedAgainstTheMonitors)
{
    store(VERTICAL, {-3000, 9000, 333, 444}, 2);
    const IdleApp app(Shape{.clusters = {4}});
    EXPECT_THAT(g_overheard.moves, ElementsAre("-3000,9000"));
}

TEST_F(Start, OnWaylandTheSizeIsThatOfTheRecordAndNothingIsMoved)
{
    const RenamedDisplay wayland("GdkWaylandDisplayOfThisTest");
    store(VERTICAL, {11, 22, 333, 444}, 2);
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {4}})), "333x444");
    EXPECT_THAT(g_overheard.moves, IsEmpty());
}

TEST_F(StartColumns, ComeFromTheRecordInVerticalOrientation)
{
    store(VERTICAL, {11, 22, 333, 444}, 5);
    store(HORIZONTAL, {11, 22, 333, 444}, 7);
    App app;
    run_app(app, [] {});
    EXPECT_EQ(app.num_columns(), 5);
}

TEST_F(StartColumns, ComeFromTheRecordInHorizontalOrientation)
{
    home.lay("settings.json", R"({"orientation": "horizontal"})");
    store(VERTICAL, {11, 22, 333, 444}, 5);
    store(HORIZONTAL, {11, 22, 333, 444}, 7);
    machine.cpus(8);
    App app;
    run_app(app, [] {});
    EXPECT_EQ(app.num_columns(), 7);
    EXPECT_TRUE(GTK_IS_BOX(app.m_core_grid));
}

TEST_F(StartColumns, RecordThatIsNotValidLeavesOne)
{
    store(VERTICAL, {11, 22, 0, 444}, 5);
    App app;
    run_app(app, [] {});
    EXPECT_EQ(app.num_columns(), 1);
}

// --- each move and change of size ---

TEST_F(Tracking, EventsReachTheAppAndThenGtk)
{
    EXPECT_TRUE(is_connected(app.m_window, "configure-event", G_CALLBACK(App::on_configure), static_cast<const App*>(&app)));
    EXPECT_TRUE(is_connected(app.m_window, "delete-event", G_CALLBACK(App::on_delete), static_cast<const App*>(&app)));
    EXPECT_EQ(configure(app, 501, 602), FALSE);
    EXPECT_EQ(App::on_delete(app.m_window, nullptr, static_cast<App*>(&app)), FALSE);
    app.m_freeze_geometry_save = true;
    EXPECT_EQ(configure(app, 503, 604), FALSE);
    EXPECT_EQ(App::on_delete(app.m_window, nullptr, static_cast<App*>(&app)), FALSE);
}

TEST_F(Tracking, SavesTheSizeOfTheEventAndThePlaceOfTheWindow)
{
    configure(app, 501, 602);
    EXPECT_EQ(read_text(file_of(home)), R"({"x":-30,"y":40,"width":501,"height":602,"num_columns":3,)"
                                        R"("h_x":0,"h_y":0,"h_width":0,"h_height":0,"h_num_columns":4})");
}

TEST_F(Tracking, KeepsTheRecordOfTheOtherOrientation)
{
    store(HORIZONTAL, {1, 2, 303, 404}, 5);
    configure(app, 501, 602);
    EXPECT_EQ(stored(HORIZONTAL), "303x404 at 1,2, 5 columns");
    app.m_horizontal = true;
    configure(app, 503, 604);
    EXPECT_EQ(stored(VERTICAL), "501x602 at -30,40, 3 columns");
    EXPECT_EQ(stored(HORIZONTAL), "503x604 at -30,40, 3 columns");
}

TEST_F(Tracking, EveryEventIsSavedAtOnce)
{
    for (const int width : {501, 501, 502}) {
        g_overheard.calls.clear();
        configure(app, width, 602);
        EXPECT_THAT(g_overheard.calls, Contains("writes the file").Times(1));
        EXPECT_EQ(stored(VERTICAL), size_text(width, 602) + " at -30,40, 3 columns");
    }
}

TEST_F(Tracking, FileThatCannotBeWrittenIsPassedOverInSilence)
{
    std::filesystem::create_directories(file_of(home));
    StandardError errors;
    EXPECT_EQ(configure(app, 501, 602), FALSE);
    EXPECT_EQ(errors.take(), "");
}

TEST_F(OnTheScreen, WindowOpensWhereTheRecordSaysAndTheRecordStays)
{
    const WindowRect remembered{200, 150, 400, 500};
    store(VERTICAL, remembered, 1);
    IdleApp app(Shape{.clusters = {4}});
    ASSERT_TRUE(app.show());
    EXPECT_TRUE(comes_to(app, remembered));
    EXPECT_TRUE(iterate_until([] { return stored(VERTICAL) == "400x500 at 200,150, 1 columns"; })) << stored(VERTICAL);
}

TEST_F(OnTheScreen, MovesAndChangesOfSizeAreFollowed)
{
    IdleApp app(Shape{.clusters = {8, 4}, .horizontal = true});
    ASSERT_TRUE(app.show());
    ASSERT_TRUE(user_moves(app, {300, 250, 720, 300}));
    EXPECT_TRUE(iterate_until([] { return stored(HORIZONTAL) == "720x300 at 300,250, 1 columns"; })) << stored(HORIZONTAL);
    ASSERT_TRUE(user_moves(app, {310, 240, 720, 300}));
    EXPECT_TRUE(iterate_until([] { return stored(HORIZONTAL) == "720x300 at 310,240, 1 columns"; })) << stored(HORIZONTAL);
    ASSERT_TRUE(user_moves(app, {310, 240, 800, 310}));
    EXPECT_TRUE(iterate_until([] { return stored(HORIZONTAL) == "800x310 at 310,240, 1 columns"; })) << stored(HORIZONTAL);
    EXPECT_FALSE(WindowManager::instance().load(VERTICAL).valid);
}

// --- traces ---

TEST_F(Traces, TellWhatIsSaved)
{
    EXPECT_EQ(traced(501, 602), "[trace] configure(vert): 501x602 at -30,40\n");
    app.m_horizontal = true;
    EXPECT_EQ(traced(503, 604), "[trace] configure(horiz): 503x604 at -30,40\n");
}

TEST_F(Traces, TellThePlaceThatIsSavedOnWayland)
{
    store(VERTICAL, {70, 80, 303, 404}, 3);
    const RenamedDisplay wayland("GdkWaylandDisplayOfTheTrace");
    EXPECT_EQ(traced(501, 602), "[trace] configure(vert): 501x602 at 70,80\n");
}

TEST_F(Traces, DependOnTheVariableAtThatMoment)
{
    variable.set(std::nullopt);
    EXPECT_EQ(traced(501, 602), "");
    variable.set("");
    EXPECT_EQ(traced(501, 602), "[trace] configure(vert): 501x602 at -30,40\n");
    variable.set("0");
    EXPECT_EQ(traced(501, 602), "[trace] configure(vert): 501x602 at -30,40\n");
    variable.set(std::nullopt);
    EXPECT_EQ(traced(501, 602), "");
}

TEST_F(Traces, ChangeNothing)
{
    traced(501, 602);
    const std::string with = read_text(file_of(home));
    std::filesystem::remove(file_of(home));
    variable.set(std::nullopt);
    traced(501, 602);
    EXPECT_EQ(read_text(file_of(home)), with);
}

TEST_F(Traces, ComeBeforeTheSave)
{
    StandardError errors;
    std::string before_the_write;
    g_overheard.before_a_call = [&] { before_the_write += errors.take(); };
    configure(app, 501, 602);
    EXPECT_EQ(before_the_write, "[trace] configure(vert): 501x602 at -30,40\n");
}

TEST_F(Traces, AreNotWrittenWhenTheWindowIsClosed)
{
    StandardError errors;
    App::on_delete(app.m_window, nullptr, static_cast<App*>(&app));
    EXPECT_EQ(errors.take(), "");
}

TEST_F(Traces, FreezeHoldsThemBackAndTouchesNoFile)
{
    app.m_freeze_geometry_save = true;
    EXPECT_EQ(traced(501, 602), "");
    EXPECT_THAT(g_overheard.calls, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(file_of(home)));
    app.m_freeze_geometry_save = false;
    traced(503, 604);
    EXPECT_EQ(stored(VERTICAL), "503x604 at -30,40, 3 columns");
}

// --- who writes what ---

struct Writers : Tracking {
    void expect_changes_of_shape_save_the_place_as_reported()
    {
        g_overheard.made_up = WindowRect{-31, 41, 712, 823};
        app.relayout_cores(2);
        EXPECT_EQ(stored(VERTICAL), "712x823 at -31,41, 2 columns");
        g_overheard.made_up = WindowRect{-32, 42, 713, 824};
        app.rebuild_layout();
        EXPECT_EQ(stored(VERTICAL), "713x824 at -32,42, 2 columns");
        g_overheard.made_up = WindowRect{-33, 43, 714, 825};
        EXPECT_TRUE(iterate_until([&] { return !app.m_freeze_geometry_save; }));
        EXPECT_EQ(stored(VERTICAL), "714x825 at -33,43, 2 columns");
    }
};

TEST_F(Writers, OnX11AllSaveThePlaceAsReportedAndOnlyTheEventKnowsABetterSize)
{
    configure(app, 501, 602);
    EXPECT_EQ(stored(VERTICAL), "501x602 at -30,40, 3 columns");
    App::on_delete(app.m_window, nullptr, static_cast<App*>(&app));
    EXPECT_EQ(stored(VERTICAL), "711x822 at -30,40, 3 columns");
    expect_changes_of_shape_save_the_place_as_reported();
}

TEST_F(Writers, OnWaylandTheEventHandlersKeepTheStoredPlaceAndTheOthersSaveItAsReported)
{
    const RenamedDisplay wayland("GdkWaylandDisplayOfTheWriters");
    store(VERTICAL, {70, 80, 303, 404}, 3);
    configure(app, 501, 602);
    EXPECT_EQ(stored(VERTICAL), "501x602 at 70,80, 3 columns");
    App::on_delete(app.m_window, nullptr, static_cast<App*>(&app));
    EXPECT_EQ(stored(VERTICAL), "711x822 at 70,80, 3 columns");
    expect_changes_of_shape_save_the_place_as_reported();
}

TEST_F(Tracking, OnWaylandWithoutARecordTheEventHandlersSaveThePlaceZero)
{
    const RenamedDisplay wayland("GdkWaylandDisplayWithoutRecord");
    configure(app, 501, 602);
    EXPECT_EQ(stored(VERTICAL), "501x602 at 0,0, 3 columns");
    store(VERTICAL, {70, 80, 0, 404}, 3);
    configure(app, 501, 602);
    EXPECT_EQ(stored(VERTICAL), "501x602 at 0,0, 3 columns");
    std::filesystem::remove(file_of(home));
    App::on_delete(app.m_window, nullptr, static_cast<App*>(&app));
    EXPECT_EQ(stored(VERTICAL), "711x822 at 0,0, 3 columns");
}

TEST_F(Tracking, OnWaylandTheStoredPlaceIsThatOfTheOrientation)
{
    app.m_horizontal = true;
    const RenamedDisplay wayland("GdkWaylandDisplayInHorizontalOrientation");
    store(VERTICAL, {70, 80, 303, 404}, 3);
    store(HORIZONTAL, {90, 100, 503, 604}, 3);
    configure(app, 501, 602);
    EXPECT_EQ(stored(HORIZONTAL), "501x602 at 90,100, 3 columns");
    App::on_delete(app.m_window, nullptr, static_cast<App*>(&app));
    EXPECT_EQ(stored(HORIZONTAL), "711x822 at 90,100, 3 columns");
    EXPECT_EQ(stored(VERTICAL), "303x404 at 70,80, 3 columns");
}

// --- the ends ---

TEST_F(Closing, SavesWhereTheWindowStoodAndEndsWithStatusZero)
{
    App app;
    EXPECT_EQ(run(app,
                  [&] {
                      ASSERT_TRUE(settle(app.m_window));
                      ASSERT_TRUE(user_moves(app, {300, 250, 400, 500}));
                      app.m_num_columns = 6;
                      app.m_freeze_geometry_save = true;
                      std::filesystem::remove(file_of(home));
                      gtk_window_close(GTK_WINDOW(app.m_window));
                  }),
              0);
    EXPECT_EQ(stored(VERTICAL), "400x500 at 300,250, 6 columns");
    EXPECT_EQ(app.m_window, nullptr);
}

TEST_F(Signals, SigtermSavesWhereTheWindowStands)
{
    App app;
    EXPECT_EQ(run(app,
                  [&] {
                      ASSERT_TRUE(settle(app.m_window));
                      ASSERT_TRUE(user_moves(app, {300, 250, 400, 500}));
                      app.m_num_columns = 6;
                      std::filesystem::remove(file_of(home));
                      kill(getpid(), SIGTERM);
                  }),
              0);
    EXPECT_EQ(stored(VERTICAL), "400x500 at 300,250, 6 columns");
}

TEST_F(Signals, SigintSavesTheOrientationInForceAndKeepsTheOther)
{
    home.lay("settings.json", R"({"orientation": "horizontal"})");
    store(VERTICAL, {1, 2, 303, 404}, 5);
    App app;
    EXPECT_EQ(run(app,
                  [&] {
                      ASSERT_TRUE(settle(app.m_window));  // the window manager's last word on the size would be saved after ours
                      g_overheard.made_up = WindowRect{-30, 40, 711, 822};
                      kill(getpid(), SIGINT);
                  }),
              0);
    EXPECT_EQ(stored(HORIZONTAL), "711x822 at -30,40, 1 columns");
    EXPECT_EQ(stored(VERTICAL), "303x404 at 1,2, 5 columns");
}

TEST_F(Signals, SaveInAFreezeToo)
{
    store(HORIZONTAL, {1, 2, 503, 304}, 4);
    App app;
    run(app, [&] {
        g_overheard.made_up = WindowRect{-30, 40, 711, 822};
        SettingsStore::instance().mutable_get().orientation = "horizontal";
        g_timers_wait = true;  // else a busy computer may end the freeze before the signal comes
        app.rebuild_layout();
        g_timers_wait = false;
        g_overheard.made_up = WindowRect{-31, 41, 712, 823};
        std::raise(SIGTERM);  // for this thread: another one would pass it on some time
    });
    EXPECT_TRUE(app.m_freeze_geometry_save);
    EXPECT_EQ(stored(VERTICAL), "711x822 at -30,40, 1 columns");
    EXPECT_EQ(stored(HORIZONTAL), "712x823 at -31,41, 4 columns");
}

TEST_F(Signals, SaveThePlaceAsReportedOnWaylandToo)
{
    App app;
    std::optional<RenamedDisplay> wayland;
    run(app, [&] {
        ASSERT_TRUE(settle(app.m_window));
        wayland.emplace("GdkWaylandDisplayOfTheSignal");
        store(VERTICAL, {70, 80, 303, 404}, 3);
        g_overheard.made_up = WindowRect{-30, 40, 711, 822};
        kill(getpid(), SIGTERM);
    });
    EXPECT_EQ(stored(VERTICAL), "711x822 at -30,40, 1 columns");
}

TEST_F(Signals, WithoutAWindowGtkComplainsAndTheSaveGoesOnWithWhatItGot)
{
    App app;
    run(app, [&] { gtk_widget_destroy(app.m_window); });
    app.m_is_window_closed = false;  // as if it had never been there
    store(VERTICAL, {70, 80, 303, 404}, 3);
    struct sigaction action = {};
    sigaction(SIGTERM, nullptr, &action);
    action.sa_handler(SIGTERM);
    EXPECT_EQ(stored(VERTICAL), "0x0 at 0,0, 1 columns");
    EXPECT_THAT(Messages::instance().take(),
                ElementsAre(AllOf(HasSubstr("gtk_window_get_position"), HasSubstr("GTK_IS_WINDOW (window)")),
                            AllOf(HasSubstr("gtk_window_get_size"), HasSubstr("GTK_IS_WINDOW (window)")), HasSubstr("gtk_main_quit")));
}
