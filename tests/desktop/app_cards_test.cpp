/// The widget groups: card of a CPU, header of a section, total panel.
#include <cmath>
#include <string>
#include <vector>

#include "app.h"
#include "counted_new.h"
#include "desktop/pictures.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::ElementsAre;

namespace {

GtkWidget* data_of(GtkWidget* owner, const char* key)
{
    return static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(owner), key));
}

ChartMeta& meta_of(GtkWidget* chart)
{
    return *static_cast<ChartMeta*>(g_object_get_data(G_OBJECT(chart), "meta"));
}

/// A widget that belongs to no container.
struct Owned {
    GtkWidget* const widget;
    explicit Owned(GtkWidget* floating) : widget(floating) { g_object_ref_sink(widget); }
    ~Owned()
    {
        gtk_widget_destroy(widget);
        g_object_unref(widget);
    }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
};

class Groups : public IdleAppTest {
protected:
    static CpuCluster cluster(const std::string& name, int cpus, double mhz = 0.0)
    {
        CpuCluster result = make_clusters({cpus}).at(0);
        result.name_key = name;
        result.name_index = -1;
        result.max_freq_mhz = mhz;
        return result;
    }

    std::string title(const std::string& name, int cpus)
    {
        const Owned header(app.create_section_header(cluster(name, cpus)));
        return text_of(data_of(header.widget, "name_label"));
    }

    /// Text of the caption behind the title.
    std::string caption(double mhz)
    {
        const Owned header(app.create_section_header(cluster("Performance", 1, mhz)));
        return text_of(children_of(header.widget).at(2));
    }

    IdleApp app;
};

using Card = Groups;
using SectionHeader = Groups;
using TotalPanel = Groups;

}  // namespace

// --- card ---

TEST_F(Card, IsATitleRowOverAChart)
{
    const Owned card(app.create_core_card(2, 1));
    EXPECT_THAT(describe(card.widget),
                ElementsAre("box vertical spacing 2 hexpand vexpand .core-card",  //
                            "- start: box horizontal spacing 0",                  //
                            "- - start expand fill: label \"Core 3\" xalign 0 ellipsize end .core-label",
                            "- - end: label \"0%\" markup .pct-label", "- start expand fill: VantricChart request -1x1 hexpand vexpand"));
}

TEST_F(Card, CountsCoresFromOneForTheUser)
{
    EXPECT_EQ(text_of(data_of(Owned(app.create_core_card(0, 0)).widget, "name_label")), "Core 1");
}

TEST_F(Card, NameIsTranslated)
{
    speak("de");
    EXPECT_EQ(text_of(data_of(Owned(app.create_core_card(2, 0)).widget, "name_label")), "Kern 3");
    speak("ar");
    EXPECT_EQ(text_of(data_of(Owned(app.create_core_card(2, 0)).widget, "name_label")), "النواة 3");
    speak("ja");
    EXPECT_EQ(text_of(data_of(Owned(app.create_core_card(2, 0)).widget, "name_label")), "コア 3");
}

TEST_F(Card, KnowsItsChartAndItsLabels)
{
    const Owned card(app.create_core_card(0, 0));
    const std::vector<GtkWidget*> parts = children_of(card.widget);
    EXPECT_EQ(data_of(card.widget, "chart"), parts[1]);
    EXPECT_THAT(children_of(parts[0]), ElementsAre(data_of(card.widget, "name_label"), data_of(card.widget, "pct_label")));
}

TEST_F(Card, ChartKnowsItsCpuAndItsColour)
{
    const Owned card(app.create_core_card(5, 3));
    const ChartMeta& meta = meta_of(data_of(card.widget, "chart"));
    EXPECT_EQ(meta.cpu_index, 5);
    EXPECT_EQ(meta.color_index, 3);
}

TEST_F(Card, ChartIsPaintedByTheApp)
{
    const Owned card(app.create_core_card(0, 0));
    EXPECT_TRUE(is_connected(data_of(card.widget, "chart"), "draw", G_CALLBACK(App::draw_chart), static_cast<App*>(&app)));
}

TEST_F(Card, ChartHasNoWindowOfItsOwn)
{
    const Owned card(app.create_core_card(0, 0));
    EXPECT_FALSE(gtk_widget_get_has_window(data_of(card.widget, "chart")));
}

#ifndef THREAD_SANITIZED

TEST_F(Card, ChartTakesItsMetaAlong)
{
    GtkWidget* const card = app.create_core_card(0, 0);
    g_object_ref_sink(card);
    g_watched = &meta_of(data_of(card, "chart"));
    EXPECT_FALSE(g_watched_is_freed);
    gtk_widget_destroy(card);
    g_object_unref(card);
    EXPECT_TRUE(g_watched_is_freed);
}

#endif

TEST_F(Card, ChartWithoutMetaEndsAsWell)
{
    const Owned card(app.create_core_card(0, 0));
    g_object_set_data(G_OBJECT(data_of(card.widget, "chart")), "meta", nullptr);
}

TEST_F(Card, IsNeverTheTotalCharts)
{
    IdleApp built(Shape{.clusters = {3, 2}});
    for (const auto& ui : built.m_clusters_ui) {
        for (const auto& core : ui.cores) {
            EXPECT_GE(meta_of(core.chart).cpu_index, 0);
            EXPECT_GE(meta_of(core.chart).color_index, 0);
        }
    }
}

TEST_F(Card, LongNameIsCutOffBeforeThePercentage)
{
    const Owned card(app.create_core_card(123456789, 0));
    GtkWidget* const percentage = data_of(card.widget, "pct_label");
    gtk_widget_show_all(card.widget);
    gint narrow = 0;
    gtk_widget_get_preferred_width(card.widget, &narrow, nullptr);
    GtkAllocation place{0, 0, narrow, 100};
    gtk_widget_size_allocate(card.widget, &place);
    gint wanted = 0;
    gtk_widget_get_preferred_width(percentage, nullptr, &wanted);
    EXPECT_EQ(gtk_widget_get_allocated_width(percentage), wanted);
    EXPECT_TRUE(pango_layout_is_ellipsized(gtk_label_get_layout(GTK_LABEL(data_of(card.widget, "name_label")))));
}

// --- section header ---

TEST_F(SectionHeader, IsAColourBarATitleAndACaption)
{
    const Owned header(app.create_section_header(cluster("Performance", 8, 5700.0)));
    EXPECT_THAT(describe(header.widget), ElementsAre("box horizontal spacing 5 hexpand .section-header",  //
                                                     "- start: VantricDecoration request 3x14",           //
                                                     "- start: label \"Performance (8)\" xalign 0 .group-name",
                                                     "- start: label \"" + localized("5.700 GHz") + "\" xalign 0 .group-freq"));
}

TEST_F(SectionHeader, UnknownFrequencyLeavesBarAndTitleOnly)
{
    const Owned header(app.create_section_header(cluster("Performance", 8, 0.0)));
    EXPECT_EQ(children_of(header.widget).size(), 2U);
}

TEST_F(SectionHeader, NegativeFrequencyIsUnknownToo)
{
    const Owned header(app.create_section_header(cluster("Performance", 8, -1.0)));
    EXPECT_EQ(children_of(header.widget).size(), 2U);
}

TEST_F(SectionHeader, BarKnowsItsColourAndIsPaintedByTheApp)
{
    CpuCluster coloured = cluster("Performance", 1);
    coloured.color_index = 3;
    const Owned header(app.create_section_header(coloured));
    GtkWidget* const bar = children_of(header.widget).at(0);
    EXPECT_EQ(GPOINTER_TO_INT(g_object_get_data(G_OBJECT(bar), "color_index")), 3);
    EXPECT_TRUE(is_connected(bar, "draw", G_CALLBACK(App::draw_color_bar), static_cast<App*>(&app)));
}

TEST_F(SectionHeader, KnowsItsTitle)
{
    const Owned header(app.create_section_header(cluster("Performance", 1)));
    EXPECT_EQ(data_of(header.widget, "name_label"), children_of(header.widget).at(1));
}

TEST_F(SectionHeader, TitleCountsTheCpusOfTheCluster)
{
    EXPECT_EQ(title("Efficiency", 16), "Efficiency (16)");
    EXPECT_EQ(title("Efficiency", 0), "Efficiency (0)");
}

TEST_F(SectionHeader, NumberedNameHasItsNumber)
{
    CpuCluster fifth = make_clusters({4}).at(0);
    fifth.name_index = 5;
    const Owned header(app.create_section_header(fifth));
    EXPECT_EQ(text_of(data_of(header.widget, "name_label")), "Cluster 5 (4)");
}

TEST_F(SectionHeader, TitleIsTranslated)
{
    speak("de");
    EXPECT_EQ(title("Performance", 8), "Leistung (8)");
    speak("ar");
    EXPECT_EQ(title("Balanced-H", 8), "متوازن (H) (8)");
    speak("ja");
    EXPECT_EQ(title("Balanced-H", 8), "バランス (H) (8)");
}

TEST_F(SectionHeader, TitleIsCutAtNinetyFiveBytes)
{
    EXPECT_EQ(title(std::string(91, 'x'), 8), std::string(91, 'x') + " (8)");
    EXPECT_EQ(title(std::string(92, 'x'), 8), std::string(92, 'x') + " (8");
    EXPECT_EQ(title(std::string(200, 'x'), 8), std::string(95, 'x'));
}

TEST_F(SectionHeader, CaptionBelowAThousandMegahertzIsInMegahertz)
{
    EXPECT_EQ(caption(999.9), "1000 MHz");
    EXPECT_EQ(caption(800.4), "800 MHz");
    EXPECT_EQ(caption(0.6), "1 MHz");
}

TEST_F(SectionHeader, CaptionFromAThousandMegahertzUpIsInGigahertz)
{
    EXPECT_EQ(caption(1000.0), localized("1.000 GHz"));
    EXPECT_EQ(caption(3600.0), localized("3.600 GHz"));
}

TEST_F(SectionHeader, CaptionIsCutAtThirtyOneBytes)
{
    EXPECT_EQ(caption(1000.0 * std::ldexp(1.0, 100)), "1267650600228229401496703205376");
}

// --- total panel ---

TEST_F(TotalPanel, InVerticalOrientationIsAStatusRowOverAChartOfFixedHeight)
{
    const Owned panel(app.create_total_panel(nullptr));
    EXPECT_THAT(describe(panel.widget),
                ElementsAre("box vertical spacing 3 hexpand .total-card",                         //
                            "- start: box horizontal spacing 4",                                  //
                            "- - start: button \"⚙\" flat tooltip \"Settings\" .flat .gear-btn",  //
                            "- - start padding 4: label \"\" markup xalign 0 .info-line",         //
                            "- - end padding 4: label \"\" markup xalign 1 .throttle-label",      //
                            "- start: VantricChart request -1x60 hexpand"));
}

TEST_F(TotalPanel, InHorizontalOrientationTheChartGrows)
{
    app.m_horizontal = true;
    const Owned panel(app.create_total_panel(nullptr));
    EXPECT_EQ(describe(panel.widget).back(), "- start expand fill: VantricChart request -1x60 hexpand vexpand");
}

TEST_F(TotalPanel, HasWhatItWasGivenOnTop)
{
    GtkWidget* const extra = gtk_label_new("extra");
    const Owned panel(app.create_total_panel(extra));
    EXPECT_EQ(children_of(panel.widget).at(0), extra);
    EXPECT_EQ(packing_of(extra), "start");
    EXPECT_EQ(children_of(panel.widget).size(), 3U);
}

TEST_F(TotalPanel, AppKnowsItsLabelsAndItsChart)
{
    const Owned panel(app.create_total_panel(nullptr));
    const std::vector<GtkWidget*> parts = children_of(panel.widget);
    EXPECT_EQ(app.m_total_chart, parts[1]);
    const std::vector<GtkWidget*> row = children_of(parts[0]);
    EXPECT_EQ(app.m_right_info_label, row[1]);
    EXPECT_EQ(app.m_throttle_label, row[2]);
}

TEST_F(TotalPanel, IsItselfStoredByTheCaller)
{
    const Owned panel(app.create_total_panel(nullptr));
    EXPECT_EQ(app.m_total_panel, nullptr);
}

TEST_F(TotalPanel, ChartStandsForNoCpuAndNoGroup)
{
    const Owned panel(app.create_total_panel(nullptr));
    EXPECT_EQ(meta_of(app.m_total_chart).cpu_index, -1);
    EXPECT_EQ(meta_of(app.m_total_chart).color_index, -1);
}

TEST_F(TotalPanel, ChartIsPaintedByTheApp)
{
    const Owned panel(app.create_total_panel(nullptr));
    EXPECT_TRUE(is_connected(app.m_total_chart, "draw", G_CALLBACK(App::draw_chart), static_cast<App*>(&app)));
}

TEST_F(TotalPanel, TooltipOfTheGearIsTranslated)
{
    const auto tooltip = [this](const char* language) {
        speak(language);
        const Owned panel(app.create_total_panel(nullptr));
        return tooltip_of(children_of(children_of(panel.widget).at(0)).at(0));
    };
    EXPECT_EQ(tooltip("de"), "Einstellungen");
    EXPECT_EQ(tooltip("ar"), "الإعدادات");
    EXPECT_EQ(tooltip("ja"), "設定");
}

// --- on the screen ---

TEST_F(Groups, ColourBarIsPaintedOnTheScreen)
{
    SettingsStore::instance().mutable_get().groups[0] = "#FF00FF";
    IdleApp built(Shape{.clusters = {1}});
    ASSERT_TRUE(built.show());
    GtkWidget* const bar = children_of(built.m_clusters_ui[0].section_hdr).at(0);
    EXPECT_EQ(gtk_widget_get_allocated_width(bar), 3);
    const Picture picture(3, gtk_widget_get_allocated_height(bar));
    gtk_widget_draw(bar, picture.cr());
    EXPECT_EQ(picture.at(0, picture.height() / 2), (Pixel{255, 0, 255}));
}
