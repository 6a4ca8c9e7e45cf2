/// The window: its hints, sizes and first place, the choice of the monitor, and the test for Wayland.
#include <optional>
#include <string>
#include <vector>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/renamed_display.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// What the library answers in place of the real monitors.
struct MadeUpMonitors {
    GdkMonitor* primary = nullptr;
    GdkMonitor* at_window = nullptr;
    std::vector<GdkMonitor*> all;
    GdkRectangle geometry{};
};

std::optional<MadeUpMonitors> g_monitors;  // none: the real ones
bool g_no_display = false;

/// Whether to answer a question that comes from there.
bool are_made_up(void* return_address)
{
    return g_monitors && is_own_code(return_address);
}

struct Overheard {
    std::vector<std::string> moves;
    std::vector<std::string> hints;
};

Overheard g_overheard;

std::string text_of(const GdkGeometry& limits, GdkWindowHints mask)
{
    std::string text;
    if (mask & GDK_HINT_MIN_SIZE) {
        text += "min " + std::to_string(limits.min_width) + "x" + std::to_string(limits.min_height);
    }
    if (mask & GDK_HINT_MAX_SIZE) {
        text += " max " + std::to_string(limits.max_width) + "x" + std::to_string(limits.max_height);
    }
    return text + ((mask & ~(GDK_HINT_MIN_SIZE | GDK_HINT_MAX_SIZE)) != 0 ? " and others" : "");
}

}  // namespace

// --- calls that are overheard or answered here ---

extern "C" {

void gtk_window_move(GtkWindow* window, gint x, gint y)
{
    g_overheard.moves.push_back(std::to_string(x) + "," + std::to_string(y));
    next<decltype(gtk_window_move)>("gtk_window_move")(window, x, y);
}

void gtk_window_set_geometry_hints(GtkWindow* window, GtkWidget* widget, GdkGeometry* geometry, GdkWindowHints mask)
{
    g_overheard.hints.push_back((widget == nullptr ? "" : "for a widget: ") + text_of(*geometry, mask));
    next<decltype(gtk_window_set_geometry_hints)>("gtk_window_set_geometry_hints")(window, widget, geometry, mask);
}

GdkDisplay* gdk_display_get_default()
{
    return g_no_display ? nullptr : next<decltype(gdk_display_get_default)>("gdk_display_get_default")();
}

GdkMonitor* gdk_display_get_primary_monitor(GdkDisplay* display)
{
    return are_made_up(__builtin_return_address(0))
               ? g_monitors->primary
               : next<decltype(gdk_display_get_primary_monitor)>("gdk_display_get_primary_monitor")(display);
}

GdkMonitor* gdk_display_get_monitor_at_window(GdkDisplay* display, GdkWindow* window)
{
    return are_made_up(__builtin_return_address(0))
               ? g_monitors->at_window
               : next<decltype(gdk_display_get_monitor_at_window)>("gdk_display_get_monitor_at_window")(display, window);
}

int gdk_display_get_n_monitors(GdkDisplay* display)
{
    return are_made_up(__builtin_return_address(0)) ? static_cast<int>(g_monitors->all.size())
                                                    : next<decltype(gdk_display_get_n_monitors)>("gdk_display_get_n_monitors")(display);
}

GdkMonitor* gdk_display_get_monitor(GdkDisplay* display, int number)
{
    return are_made_up(__builtin_return_address(0)) ? g_monitors->all.at(static_cast<std::size_t>(number))
                                                    : next<decltype(gdk_display_get_monitor)>("gdk_display_get_monitor")(display, number);
}

void gdk_monitor_get_geometry(GdkMonitor* monitor, GdkRectangle* geometry)
{
    if (are_made_up(__builtin_return_address(0))) {
        *geometry = g_monitors->geometry;
    } else {
        next<decltype(gdk_monitor_get_geometry)>("gdk_monitor_get_geometry")(monitor, geometry);
    }
}

}  // extern "C"

namespace {

class Window : public IdleAppTest {
protected:
    Window() { g_overheard = {}; }
    ~Window() override
    {
        g_monitors.reset();
        g_no_display = false;
    }

    /// Lets one monitor be there, the primary one.
    static void make_up_monitor(const GdkRectangle& geometry) { g_monitors = {.primary = a_monitor(0), .geometry = geometry}; }

    /// Something to tell monitors apart by. Nobody looks into it.
    static GdkMonitor* a_monitor(int number)
    {
        static char places[3];
        return reinterpret_cast<GdkMonitor*>(&places[number]);
    }

    static std::string default_size_of(const App& app)
    {
        gint width = 0;
        gint height = 0;
        gtk_window_get_default_size(GTK_WINDOW(app.m_window), &width, &height);
        return std::to_string(width) + "x" + std::to_string(height);
    }

    /// Asks the window manager for a size, and waits for the one that is to come of it.
    static bool resizes(const App& app, int width, int height, int new_width, int new_height)
    {
        gtk_window_resize(GTK_WINDOW(app.m_window), width, height);
        return iterate_until([&] {
            return gtk_widget_get_allocated_width(app.m_window) == new_width && gtk_widget_get_allocated_height(app.m_window) == new_height;
        });
    }
};

}  // namespace

// --- the window as it is made ---

TEST_F(Window, IsANamedResizableToplevelOfTheUtilityKind)
{
    const IdleApp app(Shape{.clusters = {2}});
    GtkWindow* const window = GTK_WINDOW(app.window());
    EXPECT_EQ(gtk_window_get_window_type(window), GTK_WINDOW_TOPLEVEL);
    EXPECT_STREQ(gtk_window_get_title(window), "Vantric");
    EXPECT_EQ(gtk_window_get_type_hint(window), GDK_WINDOW_TYPE_HINT_UTILITY);
    EXPECT_TRUE(gtk_window_get_resizable(window));
}

TEST_F(Window, IsKeptAboveOthers)
{
    IdleApp app(Shape{.clusters = {2}});
    ASSERT_TRUE(app.show());
    EXPECT_TRUE(gdk_window_get_state(gtk_widget_get_window(app.window())) & GDK_WINDOW_STATE_ABOVE);
}

TEST_F(Window, EndOfTheWindowEndsTheMainLoop)
{
    const IdleApp app(Shape{.clusters = {2}});
    EXPECT_TRUE(is_connected(app.window(), "destroy", G_CALLBACK(gtk_main_quit), nullptr));
}

TEST_F(Window, AllocationsReachTheApp)
{
    const IdleApp app(Shape{.clusters = {2}});
    EXPECT_TRUE(is_connected(app.window(), "size-allocate", G_CALLBACK(App::on_win_size_alloc), static_cast<const App*>(&app)));
}

TEST_F(Window, HoldsTheWholeLayout)
{
    const IdleApp app(Shape{.clusters = {2}});
    ASSERT_EQ(children_of(app.window()).size(), 1U);
    EXPECT_TRUE(gtk_widget_is_ancestor(app.m_core_grid, app.window()));
}

TEST_F(Window, IsNotShownYet)
{
    const IdleApp app(Shape{.clusters = {2}});
    EXPECT_FALSE(gtk_widget_get_visible(app.window()));
}

// --- default size ---

TEST_F(Window, WidthIsFiftyEightForEachColumnAndEight)
{
    EXPECT_EQ(App::calc_window_w(0), 8);
    EXPECT_EQ(App::calc_window_w(1), 66);
    EXPECT_EQ(App::calc_window_w(4), 240);
}

TEST_F(Window, FirstStartInVerticalOrientationAsksForSixtySixBySevenHundred)
{
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {8}})), "66x700");
}

TEST_F(Window, VerticalDefaultFollowsTheColumns)
{
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {8}, .columns = 4})), "240x700");
}

TEST_F(Window, HorizontalDefaultIsThatOfTheLayout)
{
    EXPECT_EQ(default_size_of(IdleApp(Shape{.clusters = {8, 4}, .horizontal = true})), "702x236");
}

TEST_F(Window, MinimumAppliesOnTopOfTheDefault)
{
    IdleApp app{Shape{}};
    gtk_widget_show_all(app.window());
    EXPECT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.window()) == 150; }));
}

// --- first place ---

TEST_F(Window, StandsInTheMiddleOfTheMonitor)
{
    make_up_monitor({0, 0, 1280, 1024});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.moves, ElementsAre("607,162"));
}

TEST_F(Window, MiddleCountsFromTheMonitorsOwnPlace)
{
    make_up_monitor({1280, 300, 1001, 901});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.moves, ElementsAre("1747,400"));
}

TEST_F(Window, MiddleIsThatOfTheDefaultSizeInHorizontalOrientation)
{
    make_up_monitor({0, 0, 1280, 1024});
    const IdleApp app(Shape{.clusters = {8, 4}, .horizontal = true});
    EXPECT_THAT(g_overheard.moves, ElementsAre("289,394"));
}

TEST_F(Window, MiddleOfASmallMonitorIsCutTowardsZero)
{
    make_up_monitor({10, 20, 61, 695});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.moves, ElementsAre("8,18"));
}

TEST_F(Window, IsNotMovedWithoutAMonitor)
{
    g_monitors = MadeUpMonitors{};
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.moves, IsEmpty());
}

TEST_F(Window, IsNeverMovedOnWayland)
{
    const RenamedDisplay wayland("GdkWaylandDisplayOfThisTest");
    make_up_monitor({0, 0, 1280, 1024});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.moves, IsEmpty());
}

TEST_F(Window, StandsOnTheRealScreenWhereItWasMoved)
{
    IdleApp app(Shape{.clusters = {8, 4}, .horizontal = true});
    ASSERT_TRUE(app.show());
    gint x = 0;
    gint y = 0;
    gtk_window_get_position(GTK_WINDOW(app.window()), &x, &y);
    EXPECT_EQ(x, (1280 - 702) / 2);
    EXPECT_EQ(y, (1024 - 236) / 2);
}

// --- limits of the size ---

TEST_F(Window, LimitsAreAHundredAndFiftyAndTheMonitor)
{
    make_up_monitor({100, 50, 1920, 1080});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.hints, ElementsAre("min 150x150 max 1920x1080"));
}

TEST_F(Window, WithoutAMonitorOnlyTheMinimumIsSet)
{
    g_monitors = MadeUpMonitors{};
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.hints, ElementsAre("min 150x150"));
}

TEST_F(Window, MonitorWithoutWidthSetsNoMaximum)
{
    make_up_monitor({0, 0, 0, 1024});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.hints, ElementsAre("min 150x150"));
}

TEST_F(Window, MonitorWithoutHeightSetsNoMaximum)
{
    make_up_monitor({0, 0, 1280, 0});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.hints, ElementsAre("min 150x150"));
}

TEST_F(Window, LimitsAreSetOnWaylandToo)
{
    const RenamedDisplay wayland("GdkWaylandDisplayWithLimits");
    make_up_monitor({0, 0, 1280, 1024});
    const IdleApp app(Shape{.clusters = {8}});
    EXPECT_THAT(g_overheard.hints, ElementsAre("min 150x150 max 1280x1024"));
}

TEST_F(Window, GrowsNoLargerThanTheScreen)
{
    IdleApp app(Shape{.clusters = {1}});
    ASSERT_TRUE(app.show());
    EXPECT_TRUE(resizes(app, 5000, 5000, 1280, 1024));
}

TEST_F(Window, ShrinksNoFurtherThanTheMinimumEvenIfItsContentWould)
{
    IdleApp app{Shape{}};
    ASSERT_TRUE(app.show());
    gtk_widget_hide(children_of(app.window()).at(0));
    EXPECT_TRUE(resizes(app, 10, 10, 150, 150));
}

// --- choice of the monitor ---

TEST_F(Window, NoDisplayHasNoMonitor)
{
    g_monitors = {.primary = a_monitor(0), .at_window = a_monitor(1), .all = {a_monitor(2)}};
    EXPECT_EQ(App::usable_monitor(nullptr, nullptr), nullptr);
}

TEST_F(Window, PrimaryMonitorComesFirst)
{
    IdleApp app{Shape{}};
    gtk_widget_realize(app.window());
    g_monitors = {.primary = a_monitor(0), .at_window = a_monitor(1), .all = {a_monitor(2)}};
    EXPECT_EQ(App::usable_monitor(gdk_display_get_default(), app.window()), a_monitor(0));
}

TEST_F(Window, WithoutAPrimaryMonitorThatOfTheWindowCounts)
{
    IdleApp app{Shape{}};
    gtk_widget_realize(app.window());
    g_monitors = {.at_window = a_monitor(1), .all = {a_monitor(2)}};
    EXPECT_EQ(App::usable_monitor(gdk_display_get_default(), app.window()), a_monitor(1));
}

TEST_F(Window, WindowThatStandsOnNoMonitorTakesTheFirst)
{
    IdleApp app{Shape{}};
    gtk_widget_realize(app.window());
    g_monitors = {.all = {a_monitor(2), a_monitor(1)}};
    EXPECT_EQ(App::usable_monitor(gdk_display_get_default(), app.window()), a_monitor(2));
}

TEST_F(Window, WindowWithoutAGdkWindowTakesTheFirstMonitor)
{
    IdleApp app{Shape{}};
    g_monitors = {.at_window = a_monitor(1), .all = {a_monitor(2), a_monitor(0)}};
    EXPECT_EQ(App::usable_monitor(gdk_display_get_default(), app.window()), a_monitor(2));
}

TEST_F(Window, NoWidgetTakesTheFirstMonitor)
{
    g_monitors = {.at_window = a_monitor(1), .all = {a_monitor(2)}};
    EXPECT_EQ(App::usable_monitor(gdk_display_get_default(), nullptr), a_monitor(2));
}

TEST_F(Window, DisplayWithoutMonitorsHasNone)
{
    g_monitors = MadeUpMonitors{};
    EXPECT_EQ(App::usable_monitor(gdk_display_get_default(), nullptr), nullptr);
}

TEST_F(Window, RealScreenHasAMonitor)
{
    GdkRectangle area{};
    gdk_monitor_get_geometry(App::usable_monitor(gdk_display_get_default(), nullptr), &area);
    EXPECT_EQ(area.width, 1280);
    EXPECT_EQ(area.height, 1024);
}

// --- the test for Wayland ---

TEST_F(Window, X11IsNotWayland)
{
    EXPECT_FALSE(App::running_on_wayland());
}

TEST_F(Window, DisplayWhoseTypeBeginsLikeWaylandsIsWayland)
{
    const RenamedDisplay wayland("GdkWaylandSomething");
    EXPECT_TRUE(App::running_on_wayland());
}

TEST_F(Window, DisplayThatOnlyMentionsWaylandIsNot)
{
    const RenamedDisplay other("MyGdkWaylandDisplay");
    EXPECT_FALSE(App::running_on_wayland());
}

TEST_F(Window, NoDisplayIsNotWayland)
{
    g_no_display = true;
    EXPECT_FALSE(App::running_on_wayland());
}
