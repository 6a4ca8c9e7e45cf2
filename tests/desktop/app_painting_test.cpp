/// The way of the window onto the screen: painted in memory, with the frames of cards from shared pictures. What comes of it has to be
/// what GTK paints by itself.
#include <algorithm>
#include <string>
#include <vector>

#include "app.h"
#include "desktop/pictures.h"
#include "desktop/screenshot.h"
#include "live_app.h"
#include "settings.h"

using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr int ROUNDING = 3;  // levels of a channel, where translucent colours lie over each other

const Shape SMALL_CARDS{.clusters = {10, 6}, .columns = 2};
const Shape LARGE_CARDS{.clusters = {1}};

using Draw = gboolean(GtkWidget*, cairo_t*, gpointer);

void forbid(GtkWidget* widget, Draw* handler)
{
    ASSERT_GE(
        g_signal_handlers_disconnect_matched(widget, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr, reinterpret_cast<gpointer>(handler), nullptr), 1U);
}

/// The window on a canvas of the test's, by GTK alone: without the program's own ways of painting windows and cards.
Picture painted_by_gtk(App& app, int zoom)
{
    forbid(app.m_window, App::draw_window);
    for (const auto& ui : app.m_clusters_ui) {
        for (const auto& core : ui.cores) {
            forbid(core.card, App::draw_card);
        }
    }
    Picture picture(gtk_widget_get_allocated_width(app.m_window), gtk_widget_get_allocated_height(app.m_window), zoom);
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

class Frames : public IdleAppTest {
protected:
    static void apply(App& app, const char* theme)
    {
        SettingsStore::instance().mutable_get().theme = theme;
        app.apply_theme();
    }
};

class WindowOnScreen : public Frames {};

class ScaledWindowOnScreen : public DesktopTest {
protected:
    const ScopedEnv scale{"GDK_SCALE", "2"};
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
        EXPECT_FALSE(app.m_card_frames.empty());
    }
}

TEST_F(WindowOnScreen, IsWhatGtkPaintsWithLargeCards)
{
    IdleApp app(LARGE_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    expect_as_by_gtk(app);
    EXPECT_THAT(app.m_card_frames, IsEmpty()) << "a picture of a large card takes more memory than it saves time";
}

TEST_F(ScaledWindowOnScreen, IsWhatGtkPaintsInFullResolution)
{
    gtk_init(nullptr, nullptr);
    IdleApp app(SMALL_CARDS);
    app.apply_theme();
    ASSERT_TRUE(app.show());
    ASSERT_EQ(gtk_widget_get_scale_factor(app.m_window), 2);
    expect_as_by_gtk(app);
    EXPECT_FALSE(app.m_card_frames.empty());
}

TEST_F(WindowOnScreen, FollowsAChangeOfTheme)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    apply(app, "dark");
    expect_as_by_gtk(app);
}

TEST_F(WindowOnScreen, FollowsAColourOfThePanels)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    SettingsStore::instance().mutable_get().panel_light = "#3080D0";
    app.apply_theme();
    expect_as_by_gtk(app);
}

TEST_F(WindowOnScreen, FollowsAChangeOfThemeBehindASectionWithoutCards)
{
    IdleApp app(Shape{.clusters = {0, 6}, .columns = 2});
    apply(app, "light");
    ASSERT_TRUE(app.show());
    ASSERT_FALSE(app.m_card_frames.empty());
    apply(app, "dark");
    expect_as_by_gtk(app);
}

TEST_F(WindowOnScreen, IsWhatGtkPaintsFromRightToLeft)
{
    speak("ar");
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    expect_as_by_gtk(app);
}

TEST_F(WindowOnScreen, FollowsItsSize)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    const int width = gtk_widget_get_allocated_width(app.m_window);
    gtk_window_resize(GTK_WINDOW(app.m_window), width + 61, gtk_widget_get_allocated_height(app.m_window));
    ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_window) == width + 61; }));
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

TEST_F(Frames, AreSharedByCardsOfOneSize)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    std::vector<std::pair<int, int>> sizes;
    for (const auto& ui : app.m_clusters_ui) {
        for (const auto& core : ui.cores) {
            sizes.emplace_back(gtk_widget_get_allocated_width(core.card), gtk_widget_get_allocated_height(core.card));
        }
    }
    std::sort(sizes.begin(), sizes.end());
    sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
    ASSERT_LE(sizes.size(), 4U);
    app.m_card_frames.clear();
    gtk_widget_queue_draw(app.m_window);
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_THAT(app.m_card_frames, SizeIs(sizes.size()));
}

TEST_F(Frames, AreFewHoweverOftenTheSizeChanges)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    for (int step = 1; step <= 12; ++step) {
        const int width = gtk_widget_get_allocated_width(app.m_window) + 2;
        gtk_window_resize(GTK_WINDOW(app.m_window), width, gtk_widget_get_allocated_height(app.m_window));
        ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_window) == width; }));
        gtk_widget_queue_draw(app.m_window);
        ASSERT_TRUE(settle(app.m_window));
        ASSERT_LE(app.m_card_frames.size(), 8U);
    }
}

TEST_F(Frames, AreApartForEachState)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    GtkCssProvider* const provider = gtk_css_provider_new();
    gtk_css_provider_load_from_data(provider, ".core-card:hover { background-color: #FF0000; }", -1, nullptr);
    gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(provider), GTK_STYLE_PROVIDER_PRIORITY_USER);
    ASSERT_TRUE(app.show());
    gtk_widget_set_state_flags(app.core(0, 1).card, GTK_STATE_FLAG_PRELIGHT, FALSE);
    expect_as_by_gtk(app);
    gtk_style_context_remove_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(provider));
    g_object_unref(provider);
}

/// The window as it is drawn for somebody who asks for it in double size, against the same by GTK alone.
TEST_F(Frames, AreNotForAWindowOnACanvasOfOthers)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    app.m_card_frames.clear();
    Picture picture(gtk_widget_get_allocated_width(app.m_window), gtk_widget_get_allocated_height(app.m_window), 2);
    gtk_widget_draw(app.m_window, picture.cr());
    EXPECT_THAT(app.m_card_frames, IsEmpty());
    EXPECT_EQ(Distance(picture, painted_by_gtk(app, 2)).largest, 0);
}

TEST_F(Frames, AreNotForCanvasesOfOthers)
{
    IdleApp app(SMALL_CARDS);
    apply(app, "light");
    ASSERT_TRUE(app.show());
    app.m_card_frames.clear();
    GtkWidget* const card = app.core(0, 0).card;
    const Picture picture(gtk_widget_get_allocated_width(card), gtk_widget_get_allocated_height(card));
    gtk_widget_draw(card, picture.cr());
    EXPECT_THAT(app.m_card_frames, IsEmpty());
}
