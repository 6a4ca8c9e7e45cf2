/// Which part of a window can get onto the screen, on a screen of 1280 by 1024.
#include "screen_reach.h"

#include <algorithm>
#include <array>
#include <memory>

#include "desktop/calls.h"
#include "live_app.h"

struct _XDisplay;

namespace {
int g_questions = 0;  // to the X server, where a window is
}

extern "C" int XTranslateCoordinates(_XDisplay* display, unsigned long from, unsigned long to, int x, int y, int* at_x, int* at_y,
                                     unsigned long* child)
{
    ++g_questions;
    return next<int(_XDisplay*, unsigned long, unsigned long, int, int, int*, int*, unsigned long*)>("XTranslateCoordinates")(
        display, from, to, x, y, at_x, at_y, child);
}

namespace {

constexpr int WIDTH = 300;
constexpr int TALL = 3000;
constexpr int SHORT = 200;

/// A window that no window manager cares for, with the X server's number of its own.
class BareWindow {
public:
    explicit BareWindow(int height, GdkWindow* parent = nullptr)
    {
        GdkWindowAttr attributes{};
        attributes.window_type = parent == nullptr ? GDK_WINDOW_TEMP : GDK_WINDOW_CHILD;
        attributes.wclass = GDK_INPUT_OUTPUT;
        attributes.width = WIDTH;
        attributes.height = height;
        attributes.event_mask = GDK_EXPOSURE_MASK;
        m_window = gdk_window_new(parent, &attributes, 0);
        gdk_window_ensure_native(m_window);
        gdk_window_show(m_window);
    }
    ~BareWindow() { gdk_window_destroy(m_window); }
    BareWindow(const BareWindow&) = delete;
    BareWindow& operator=(const BareWindow&) = delete;
    operator GdkWindow*() const { return m_window; }

private:
    GdkWindow* m_window;
};

/// For as long as it lives, the screen looks like one with a compositor, by the selection that this owns.
class Compositor {
public:
    Compositor() { own(m_window); }
    ~Compositor() { own(nullptr); }
    Compositor(const Compositor&) = delete;
    Compositor& operator=(const Compositor&) = delete;

private:
    static void own(GdkWindow* owner)
    {
        GdkDisplay* const display = gdk_display_get_default();
        gdk_selection_owner_set_for_display(display, owner, gdk_atom_intern("_NET_WM_CM_S0", FALSE), GDK_CURRENT_TIME, FALSE);
        EXPECT_TRUE(iterate_until([&] { return gdk_screen_is_composited(gdk_screen_get_default()) == (owner != nullptr); }));
    }

    const BareWindow m_window{1};
};

std::string text_of(const GdkRectangle& r)
{
    return std::to_string(r.width) + 'x' + std::to_string(r.height) + " at " + std::to_string(r.x) + ',' + std::to_string(r.y);
}

class ScreenReachTest : public DesktopTest {
protected:
    ScreenReachTest() { gtk_init(nullptr, nullptr); }

    /// Handles what the server has sent so far.
    static void catch_up()
    {
        gdk_display_sync(gdk_display_get_default());
        while (gtk_events_pending()) {
            gtk_main_iteration();
        }
    }
    static std::string part(ScreenReach& reach)
    {
        catch_up();
        return text_of(reach.part());
    }
};

}  // namespace

TEST_F(ScreenReachTest, IsAllOfAWindowThatIsNoLargerThanTheScreen)
{
    const BareWindow window(SHORT);
    ScreenReach reach(window);
    EXPECT_EQ(part(reach), "300x200 at 0,0");
    gdk_window_move(window, 0, -100);
    EXPECT_EQ(part(reach), "300x200 at 0,0") << "half of it above the screen";
}

TEST_F(ScreenReachTest, IsWhatOfALargerOneStandsOnTheScreen)
{
    const BareWindow window(TALL);
    ScreenReach reach(window);
    EXPECT_EQ(part(reach), "300x1025 at 0,0");
    gdk_window_move(window, 0, -1000);
    EXPECT_EQ(part(reach), "300x1026 at 0,999") << "with a unit on each side for rounding";
    gdk_window_move(window, 1180, -2900);
    EXPECT_EQ(part(reach), "101x101 at 0,2899");
}

TEST_F(ScreenReachTest, FollowsAMoveOfTheWindowAroundIt)
{
    const BareWindow outer(TALL);
    const BareWindow window(TALL, outer);
    ScreenReach reach(window);
    EXPECT_EQ(part(reach), "300x1025 at 0,0");
    gdk_window_move(outer, 0, -500);
    EXPECT_EQ(part(reach), "300x1026 at 0,499");
}

TEST_F(ScreenReachTest, IsAllOfItWithACompositor)
{
    const BareWindow window(TALL);
    ScreenReach reach(window);
    EXPECT_EQ(part(reach), "300x1025 at 0,0");
    {
        const Compositor compositor;
        EXPECT_EQ(part(reach), "300x3000 at 0,0");
    }
    EXPECT_EQ(part(reach), "300x1025 at 0,0");
}

TEST_F(ScreenReachTest, AsksTheServerOnlyWhenSomethingHasComeOntoTheScreen)
{
    const BareWindow window(TALL);
    ScreenReach reach(window);
    part(reach);
    g_questions = 0;
    part(reach);
    reach.part();
    EXPECT_EQ(g_questions, 0);
    gdk_window_move(window, 0, -1000);
    part(reach);
    EXPECT_EQ(g_questions, 1);
}

TEST_F(ScreenReachTest, WritesNothingAfterItsEnd)
{
    constexpr unsigned char MARK = 0xFF;
    const BareWindow window(TALL);
    alignas(ScreenReach) std::array<unsigned char, sizeof(ScreenReach)> memory;
    std::destroy_at(new (memory.data()) ScreenReach(window));
    memory.fill(MARK);
    gdk_window_move(window, 0, -1000);
    catch_up();  // with an event that it would have waited for
    EXPECT_TRUE(std::all_of(memory.begin(), memory.end(), [](unsigned char byte) { return byte == MARK; }));
}
