/// Labels that keep what they have found out, and boxes that keep changes to themselves: everything beside a plain GtkLabel in plain boxes.
#include "tick_label.h"

#include <string>

#include "desktop/alive.h"
#include "desktop/pictures.h"
#include "desktop/screenshot.h"
#include "layout_boundary.h"
#include "live_app.h"

namespace {

/// The title rows of cards, each a name that gives way and a label under test, below each other in one window.
class Row {
public:
    Row(GtkWidget* column, GtkWidget* label, bool is_boundary) : m_label(label)
    {
        gtk_label_set_ellipsize(GTK_LABEL(m_name), PANGO_ELLIPSIZE_END);
        gtk_box_pack_start(GTK_BOX(m_box), m_name, TRUE, TRUE, 0);
        gtk_box_pack_end(GTK_BOX(m_box), label, FALSE, FALSE, 0);
        gtk_box_pack_start(GTK_BOX(column), m_box, FALSE, FALSE, 0);
        if (is_boundary) {
            make_layout_boundary(m_box);
        }
    }

    void set(const char* markup) const { gtk_label_set_markup(GTK_LABEL(m_label), markup); }
    void measure() const
    {
        GtkRequisition minimum;
        gtk_widget_get_preferred_size(m_label, &minimum, nullptr);
    }
    GtkWidget* box() const { return m_box; }
    GtkWidget* label() const { return m_label; }

    /// Sizes asked for and allocations of both labels inside the row, as text.
    std::string layout() const
    {
        GtkAllocation row;
        gtk_widget_get_allocation(m_box, &row);
        std::string text;
        for (GtkWidget* widget : {m_name, m_label}) {
            GtkRequisition minimum;
            GtkRequisition natural;
            GtkAllocation allocation;
            gtk_widget_get_preferred_size(widget, &minimum, &natural);
            gtk_widget_get_allocation(widget, &allocation);
            for (const int number : {minimum.width, minimum.height, natural.width, natural.height, allocation.x - row.x,
                                     allocation.y - row.y, allocation.width, allocation.height}) {
                text += std::to_string(number) + " ";
            }
        }
        return text;
    }

    Picture picture() const
    {
        Picture picture(gtk_widget_get_allocated_width(m_box), gtk_widget_get_allocated_height(m_box));
        gtk_widget_draw(m_box, picture.cr());
        return picture;
    }

private:
    GtkWidget* const m_box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    GtkWidget* const m_name = gtk_label_new("Core 12");
    GtkWidget* const m_label;
};

/// A row with a TickLabel that is a boundary, and a plain one.
class Rows {
public:
    Rows(GtkWidget* tick_label, GtkWidget* plain_label) : ours(m_column, tick_label, true), plain(m_column, plain_label, false)
    {
        gtk_box_pack_start(GTK_BOX(m_column), gtk_label_new("wide enough"), FALSE, FALSE, 0);
        gtk_container_add(GTK_CONTAINER(m_window), m_column);
        gtk_widget_show_all(m_window);
        EXPECT_TRUE(settle(m_window));
    }
    ~Rows() { gtk_widget_destroy(m_window); }
    Rows(const Rows&) = delete;
    Rows& operator=(const Rows&) = delete;

    GtkWidget* window() const { return m_window; }

    void show(const char* markup) const
    {
        ours.set(markup);
        plain.set(markup);
        EXPECT_TRUE(settle(m_window));
    }
    void expect_alike(const std::string& when) const
    {
        EXPECT_EQ(ours.layout(), plain.layout()) << when;
        EXPECT_EQ(ours.picture(), plain.picture()) << when;
    }
    /// Shows each of the texts in both rows and compares them.
    void expect_alike_throughout(std::initializer_list<const char*> texts) const
    {
        for (const char* text : texts) {
            show(text);
            expect_alike(text);
        }
    }

private:
    GtkWidget* const m_window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    GtkWidget* const m_column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);

public:
    const Row ours;
    const Row plain;
};

GtkWidget* plain_label(const char* markup)
{
    GtkWidget* const label = gtk_label_new(nullptr);
    gtk_label_set_markup(GTK_LABEL(label), markup);
    return label;
}

class TickLabelTest : public IdleAppTest {
protected:
    TickLabelTest() { style(".pct { font-family: monospace; font-size: 9px; font-weight: bold; }"); }
    ~TickLabelTest() override
    {
        gtk_style_context_remove_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(m_provider));
        g_object_unref(m_provider);
    }
    void style(const char* css)
    {
        gtk_css_provider_load_from_data(m_provider, css, -1, nullptr);
        gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(m_provider),
                                                  GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    }
    static GtkWidget* with_class(GtkWidget* label)
    {
        gtk_style_context_add_class(gtk_widget_get_style_context(label), "pct");
        return label;
    }
    /// Both kinds of label, of the class that has the style.
    static Rows styled() { return {with_class(tick_label_new("0%")), with_class(plain_label("0%"))}; }

private:
    GtkCssProvider* const m_provider = gtk_css_provider_new();
};

constexpr std::initializer_list<const char*> TEXTS = {"0%",   "7%", "<span color='#199933'>12%</span>", "34%", "11%", "100%", "99%",
                                                      "100%", "1%", "<span color='#E53319'>34%</span>", "34%", ""};

}  // namespace

TEST_F(TickLabelTest, IsALabelWithItsText)
{
    const Rows rows(tick_label_new("0%"), plain_label("0%"));
    GtkWidget* const label = rows.ours.label();
    ASSERT_TRUE(GTK_IS_LABEL(label));
    rows.show("<span color='#199933'>43%</span>");
    EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(label)), "43%");
    EXPECT_STREQ(gtk_label_get_label(GTK_LABEL(label)), "<span color='#199933'>43%</span>");
}

TEST_F(TickLabelTest, AsksForAndShowsWhatAPlainLabelWould)
{
    const Rows rows = styled();
    rows.expect_alike_throughout(TEXTS);
    rows.expect_alike_throughout(TEXTS);
}

TEST_F(TickLabelTest, ShowsASharedTextWithoutShapingItAgain)
{
    const auto layouts_of = [](GtkWidget* one, GtkWidget* other) {
        const long before = all_that_is_held()["PangoLayout"];
        const Rows rows(one, other);
        rows.show("7%");
        return all_that_is_held()["PangoLayout"] - before;
    };
    const long plain = layouts_of(with_class(plain_label("0%")), with_class(plain_label("0%")));
    EXPECT_EQ(layouts_of(with_class(tick_label_new("0%")), with_class(tick_label_new("0%"))), plain) << "one for each text, not each label";
}

TEST_F(TickLabelTest, SharesNothingBetweenFonts)
{
    const Rows rows(with_class(tick_label_new("0%")), with_class(tick_label_new("0%")));
    const Rows unstyled(tick_label_new("0%"), plain_label("0%"));
    for (const char* text : {"43%", "7%", "43%"}) {
        rows.ours.set(text);
        rows.ours.measure();
        unstyled.show(text);
        unstyled.expect_alike(text);
    }
}

TEST_F(TickLabelTest, FollowsAnotherFont)
{
    const Rows rows = styled();
    rows.expect_alike_throughout({"43%", "7%"});
    style(".pct { font-family: sans; font-size: 17px; }");
    ASSERT_TRUE(settle(rows.window()));
    rows.expect_alike("in another font");
    rows.expect_alike_throughout({"7%", "43%", "7%"});
}

TEST_F(TickLabelTest, FollowsAnotherResolution)
{
    const Rows rows = styled();
    style(".pct { font-size: 9pt; }");
    rows.expect_alike_throughout({"43%", "7%"});
    g_object_set(gtk_settings_get_default(), "gtk-xft-dpi", 192 * 1024, nullptr);
    ASSERT_TRUE(settle(rows.window()));
    rows.expect_alike("twice as large");
    rows.expect_alike_throughout({"7%", "43%", "7%"});
    g_object_set(gtk_settings_get_default(), "gtk-xft-dpi", 96 * 1024, nullptr);
}

TEST_F(TickLabelTest, FollowsTheDirection)
{
    const Rows rows = styled();
    rows.expect_alike_throughout({"43%", "7%"});
    for (GtkWidget* label : {rows.ours.label(), rows.plain.label()}) {
        gtk_widget_set_direction(label, GTK_TEXT_DIR_RTL);
    }
    rows.expect_alike_throughout({"7%", "43%"});
}

TEST_F(TickLabelTest, LeavesAFrameToTheTheme)
{
    style(".pct { border: 2px solid red; padding: 3px; background-color: yellow; }");
    styled().expect_alike_throughout(TEXTS);
}

/// More texts than are kept.
TEST_F(TickLabelTest, ShowsAnyNumberOfTexts)
{
    const Rows rows = styled();
    for (int i = 0; i < 300; ++i) {
        rows.ours.set(std::to_string(i).c_str());
        rows.ours.measure();
    }
    rows.expect_alike_throughout({"0", "299"});
}

TEST_F(TickLabelTest, RowKeepsATextOfTheSameSizeToItself)
{
    const Rows rows = styled();
    int allocations = 0;
    const auto count = +[](GtkWidget*, GdkRectangle*, gpointer data) { ++*static_cast<int*>(data); };
    g_signal_connect(rows.window(), "size-allocate", G_CALLBACK(count), &allocations);
    for (const char* text : {"43%", "44%", "45%"}) {
        allocations = 0;
        rows.ours.set(text);
        ASSERT_TRUE(settle(rows.window()));
    }
    EXPECT_EQ(allocations, 0);
    rows.ours.set("100%");
    ASSERT_TRUE(settle(rows.window()));
    EXPECT_GT(allocations, 0) << "a wider one is the window's business";
}

TEST_F(TickLabelTest, RowPassesOnWhatOthersNoticeWhileHidden)
{
    const Rows rows = styled();
    for (const Row* row : {&rows.ours, &rows.plain}) {
        gtk_widget_hide(row->box());
        row->set("<big>100%</big>");
        gtk_widget_show(row->box());
    }
    ASSERT_TRUE(settle(rows.window()));
    rows.expect_alike("shown again");
    rows.expect_alike_throughout({"<big>100%</big>", "5%"});
}
