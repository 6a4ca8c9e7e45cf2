/// What a window is told to be invalid, against what GDK would keep of it.
#include "invalidations.h"

#include "live_app.h"

namespace {

constexpr int WIDTH = 300;
constexpr int HEIGHT = 200;
constexpr GdkRectangle ALL{0, 0, G_MAXINT, G_MAXINT};

/// An open window in which nothing is invalid.
class InvalidationsTest : public DesktopTest {
protected:
    InvalidationsTest()
    {
        gtk_init(nullptr, nullptr);
        m_widget = gtk_window_new(GTK_WINDOW_TOPLEVEL);
        gtk_window_set_default_size(GTK_WINDOW(m_widget), WIDTH, HEIGHT);
        gtk_widget_show(m_widget);
    }
    ~InvalidationsTest() override { gtk_widget_destroy(m_widget); }
    void SetUp() override { ASSERT_TRUE(settle(m_widget)); }

    GdkWindow* window() const { return gtk_widget_get_window(m_widget); }
    Damage whole() const { return Damage::of({0, 0, gdk_window_get_width(window()), gdk_window_get_height(window())}); }
    void invalidate(const GdkRectangle& part) const { gdk_window_invalidate_rect(window(), &part, TRUE); }
    /// What GDK would have painted now; it does not ask again for that.
    Damage taken_from_gdk() const
    {
        cairo_region_t* const region = gdk_window_get_update_area(window());
        const Damage damage = region != nullptr ? Damage::of(region) : Damage::of(std::vector<GdkRectangle>{});
        cairo_region_destroy(region);
        return damage;
    }

    GtkWidget* m_widget;
};

}  // namespace

TEST_F(InvalidationsTest, BeginWithAllOfTheWindow)
{
    Invalidations invalidations(window());
    EXPECT_EQ(invalidations.take(ALL).area(), whole().area());
    EXPECT_TRUE(invalidations.take(ALL).is_empty());
}

TEST_F(InvalidationsTest, AreTheRectanglesAndNothingElse)
{
    Invalidations invalidations(window());
    invalidations.take(ALL);
    invalidate({10, 10, 20, 20});
    invalidate({20, 20, 20, 20});
    invalidate({100, 150, 500, 500});  // most of it beside the window
    const Damage damage = invalidations.take(ALL);
    EXPECT_EQ(damage.area(), 2 * 20 * 20 - 10 * 10 + damage.area_within({100, 150, 500, 500})) << "overlaps once";
    EXPECT_EQ(damage.area_within({100, 150, 500, 500}), whole().area_within({100, 150, 500, 500}));
    EXPECT_TRUE(invalidations.take(ALL).is_empty());
}

TEST_F(InvalidationsTest, AreTakenWithinAPartAndForgottenOutside)
{
    Invalidations invalidations(window());
    invalidations.take(ALL);
    invalidate({0, 0, 20, 20});
    invalidate({100, 100, 20, 20});
    EXPECT_EQ(invalidations.take({10, 10, 20, 20}).area(), 10 * 10);
    EXPECT_TRUE(invalidations.take(ALL).is_empty());
    invalidate({100, 100, 20, 20});
    EXPECT_TRUE(invalidations.take({0, 0, 10, 10}).is_empty());
}

/// The X server ends a program that puts up more than there is.
TEST_F(InvalidationsTest, LieInTheWindowThoughItWasLargerMeanwhile)
{
    Invalidations invalidations(window());
    invalidations.take(ALL);
    const int width = gdk_window_get_width(window());
    const int height = gdk_window_get_height(window());
    gdk_window_resize(window(), 2 * width, 2 * height);
    ASSERT_TRUE(iterate_until([&] { return gdk_window_get_width(window()) == 2 * width; }));
    invalidations.take(ALL);
    invalidate({width - 10, height - 10, 30, 30});
    invalidate({width + 10, height + 10, 30, 30});
    gdk_window_resize(window(), width, height);
    ASSERT_TRUE(iterate_until([&] { return gdk_window_get_width(window()) == width; }));
    const GdkRectangle bounds = invalidations.take(ALL).bounds();
    EXPECT_EQ(bounds.x + bounds.width, width);
    EXPECT_EQ(bounds.y + bounds.height, height);
}

TEST_F(InvalidationsTest, AreOneRectangleForGdk)
{
    Invalidations invalidations(window());
    for (int y = 0; y < 100; y += 2) {
        invalidate({0, y, 10, 1});
    }
    EXPECT_EQ(taken_from_gdk().area(), whole().area());
}

/// As on a workspace that is not shown, for days.
TEST_F(InvalidationsTest, StayFewInAWindowThatNobodyPaints)
{
    Invalidations invalidations(window());
    invalidations.take(ALL);
    for (int i = 0; i < 20'000; ++i) {
        invalidate({2 * (i % 100), 2 * (i / 100 % 50), 1, 1});
    }
    EXPECT_LE(invalidations.m_parts.capacity(), 8192U);
    const Damage damage = invalidations.take(ALL);
    for (int i = 0; i < 5'000; ++i) {
        ASSERT_EQ(damage.area_within({2 * (i % 100), 2 * (i / 100 % 50), 1, 1}), 1) << i;
    }
    EXPECT_EQ(damage.area_within({200, 100, WIDTH, HEIGHT}), 0);
}

TEST_F(InvalidationsTest, AreGdksAloneAgainAfterwards)
{
    {
        Invalidations invalidations(window());
        invalidate({10, 10, 20, 20});
        taken_from_gdk();
    }
    invalidate({10, 10, 20, 20});
    EXPECT_EQ(taken_from_gdk().area(), 20 * 20);
}
