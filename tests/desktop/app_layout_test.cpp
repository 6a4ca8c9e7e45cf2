/// The tree under the window, the places of cards, default sizes, and card titles that fit.
#include <algorithm>
#include <string>
#include <vector>

#include "app.h"
#include "desktop/pictures.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

GtkWidget* outer_box(const App& app)
{
    return children_of(app.m_window).at(0);
}

/// Where a card stands now: its cell of the grid.
std::vector<int> grid_rows(const App& app)
{
    std::vector<int> rows;
    std::transform(app.m_clusters_ui.begin(), app.m_clusters_ui.end(), std::back_inserter(rows),
                   [](const auto& ui) { return ui.grid_row; });
    return rows;
}

std::vector<std::string> cells(const Shape& shape)
{
    return cells_of(IdleApp(shape).m_core_grid);
}

std::vector<std::string> rows(const Shape& shape)
{
    return rows_of(IdleApp(shape).m_core_grid);
}

using Tree = IdleAppTest;
using VerticalGrid = IdleAppTest;
using SingleRow = IdleAppTest;
using RowBoxes = IdleAppTest;
using Repopulating = IdleAppTest;
using DefaultSize = IdleAppTest;
using Titles = IdleAppTest;
using Allocation = IdleAppTest;
using OnScreen = IdleAppTest;

}  // namespace

// --- the tree ---

TEST_F(Tree, VerticalOrientationStacksHeaderPanelAndGrid)
{
    machine.file("/proc/cpuinfo", "model name\t: Test CPU\n");
    const IdleApp app(Shape{.clusters = {2}});
    EXPECT_THAT(
        describe(outer_box(app)),
        ElementsAre("box vertical spacing 0",                                      //
                    "- start: box vertical spacing 1 .header",                     //
                    "- - start: label \"Test CPU\" xalign 0 wrap word .cpu-name",  //
                    "- - start: box horizontal spacing 0 hexpand",                 //
                    "- - - start expand fill: label \"\" xalign 0 wrap word-char max-width-chars 1 .info-line",
                    "- start: box vertical spacing 3 hexpand .total-card",  //
                    "- start expand fill: grid spacing 3,2 homogeneous columns margin-start 6 margin-end 6 margin-bottom 2 vexpand"));
}

TEST_F(Tree, HorizontalOrientationPutsASidePanelBesideTheCards)
{
    const IdleApp app(Shape{.clusters = {2}, .horizontal = true});
    EXPECT_THAT(
        describe(outer_box(app)),
        ElementsAre("box horizontal spacing 0",  //
                    "- start: box vertical spacing 3 request 230x-1 .total-card",
                    "- start expand fill: grid spacing 3,2 homogeneous columns margin-start 6 margin-end 6 margin-bottom 2 vexpand"));
}

TEST_F(Tree, SidePanelHoldsTheHeaderOnTopOfItsOwnParts)
{
    const IdleApp app(Shape{.clusters = {2}, .horizontal = true});
    const std::vector<GtkWidget*> parts = children_of(app.m_total_panel);
    ASSERT_EQ(parts.size(), 3U);
    EXPECT_EQ(describe_widget(parts[0]), "box vertical spacing 1 .header");
    EXPECT_EQ(packing_of(parts[0]), "start");
    EXPECT_TRUE(gtk_widget_is_ancestor(app.m_cpu_label, parts[0]));
    EXPECT_EQ(parts[2], app.m_total_chart);
}

TEST_F(Tree, AppKnowsItsLabelsAndItsContainers)
{
    const IdleApp app(Shape{.clusters = {2}});
    const std::vector<GtkWidget*> parts = children_of(outer_box(app));
    const std::vector<GtkWidget*> header = children_of(parts.at(0));
    EXPECT_EQ(app.m_cpu_label, header.at(0));
    EXPECT_THAT(children_of(header.at(1)), ElementsAre(app.m_info_label));
    EXPECT_EQ(app.m_total_panel, parts.at(1));
    EXPECT_EQ(app.m_core_grid, parts.at(2));
}

TEST_F(Tree, CpuNameOfAnyBytesIsShownWithoutAComplaint)
{
    IdleApp app(Shape{.clusters = {2}});
    app.m_sys_metrics->m_cpu_name = "Virtual \xFF\xC3 CPU \xC2\xB5";
    gtk_widget_destroy(gtk_bin_get_child(GTK_BIN(app.m_window)));
    app.release_sections();
    app.build_layout();
    ASSERT_TRUE(app.show());
    EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(app.m_cpu_label)), "Virtual \xEF\xBF\xBD\xEF\xBF\xBD CPU \xC2\xB5");
}

TEST_F(Tree, ContainerIsAGridInVerticalOrientationAndForASingleRow)
{
    for (const Shape& shape : {Shape{.clusters = {4}, .columns = 3}, Shape{.clusters = {4}, .columns = 0},
                               Shape{.clusters = {4}, .horizontal = true, .columns = 1}}) {
        const IdleApp app(shape);
        EXPECT_TRUE(GTK_IS_GRID(app.m_core_grid)) << shape.columns;
    }
}

TEST_F(Tree, ContainerIsABoxForSeveralColumnsInHorizontalOrientation)
{
    for (const int columns : {2, 5, 0, -1}) {
        const IdleApp app(Shape{.clusters = {4}, .horizontal = true, .columns = columns});
        EXPECT_EQ(describe_widget(app.m_core_grid), "box vertical spacing 2 margin-start 6 margin-end 6 margin-bottom 2 vexpand");
        EXPECT_EQ(packing_of(app.m_core_grid), "start expand fill");
    }
}

TEST_F(Tree, EachClusterHasARecordOfItsSection)
{
    const IdleApp app(Shape{.clusters = {2, 3}});
    ASSERT_EQ(app.m_clusters_ui.size(), 2U);
    EXPECT_EQ(text_of(app.m_clusters_ui[0].name_label), "Cluster 1 (2)");
    EXPECT_EQ(text_of(app.m_clusters_ui[1].name_label), "Cluster 2 (3)");
    EXPECT_EQ(brief(app.m_clusters_ui[1].section_hdr), "header Cluster 2 (3)");
    EXPECT_EQ(app.m_clusters_ui[1].cores.size(), 3U);
}

TEST_F(Tree, EachCardHasARecordInTheOrderOfItsCluster)
{
    IdleApp app;
    app.take({.clusters = {3}});
    app.m_clusters[0].cpu_indices = {4, 0, 7};
    app.m_clusters[0].color_index = 2;
    app.create_window();
    const auto& cores = app.m_clusters_ui.at(0).cores;
    EXPECT_EQ(cores[0].cpu_index, 4);
    EXPECT_EQ(cores[1].cpu_index, 0);
    EXPECT_EQ(cores[2].cpu_index, 7);
    EXPECT_EQ(brief(cores[2].card), "card 7");
    EXPECT_EQ(text_of(cores[2].name_label), "Core 8");
    EXPECT_EQ(text_of(cores[2].pct_label), "0%");
    EXPECT_EQ(static_cast<ChartMeta*>(g_object_get_data(G_OBJECT(cores[2].chart), "meta"))->color_index, 2);
    EXPECT_FALSE(cores[2].short_label);
}

TEST_F(Tree, AppHoldsAReferenceOfItsOwnOnCardsAndHeaders)
{
    IdleApp app(Shape{.clusters = {1}});
    for (GtkWidget* widget : {app.m_clusters_ui[0].section_hdr, app.core(0, 0).card}) {
        gtk_container_remove(GTK_CONTAINER(app.m_core_grid), widget);
        EXPECT_EQ(G_OBJECT(widget)->ref_count, 1U);
        EXPECT_FALSE(g_object_is_floating(widget));
    }
}

TEST_F(Tree, MachineWithoutClustersHasAnEmptyGrid)
{
    EXPECT_THAT(cells(Shape{}), IsEmpty());
    EXPECT_THAT(cells(Shape{.horizontal = true}), IsEmpty());
    EXPECT_THAT(rows(Shape{.horizontal = true, .columns = 3}), IsEmpty());
}

TEST_F(Tree, ChartHeightsAreLeftToTheCards)
{
    IdleApp app(Shape{.clusters = {1}});
    app.adapt_chart_heights(5);
    EXPECT_EQ(describe_widget(app.core(0, 0).chart), "VantricChart request -1x1 hexpand vexpand");
}

// --- places in vertical orientation ---

TEST_F(VerticalGrid, SixCardsInFourColumnsTakeTwoRowsAndTheNextHeaderFollows)
{
    EXPECT_THAT(cells({.clusters = {6, 1}, .columns = 4}),
                ElementsAre("0,0 4x1 header Cluster 1 (6)", "0,1 1x1 card 0", "1,1 1x1 card 1", "2,1 1x1 card 2", "3,1 1x1 card 3",
                            "0,2 1x1 card 4", "1,2 1x1 card 5", "0,3 4x1 header Cluster 2 (1)", "0,4 1x1 card 6"));
}

TEST_F(VerticalGrid, FullLastRowLeavesNoEmptyOne)
{
    EXPECT_THAT(cells({.clusters = {4, 1}, .columns = 2}),
                ElementsAre("0,0 2x1 header Cluster 1 (4)", "0,1 1x1 card 0", "1,1 1x1 card 1", "0,2 1x1 card 2", "1,2 1x1 card 3",
                            "0,3 2x1 header Cluster 2 (1)", "0,4 1x1 card 4"));
}

TEST_F(VerticalGrid, OneColumnPutsCardsBelowEachOther)
{
    EXPECT_THAT(cells({.clusters = {2}}), ElementsAre("0,0 1x1 header Cluster 1 (2)", "0,1 1x1 card 0", "0,2 1x1 card 1"));
}

TEST_F(VerticalGrid, ColumnCountThatIsNotPositiveCountsAsOne)
{
    for (const int columns : {0, -1, -100}) {
        IdleApp app(Shape{.clusters = {2}, .columns = 2});
        app.populate_core_grid(columns);
        EXPECT_EQ(cells_of(app.m_core_grid), cells({.clusters = {2}}));
    }
}

TEST_F(VerticalGrid, MoreColumnsThanCardsLeaveTheRestOfTheRowEmpty)
{
    EXPECT_THAT(cells({.clusters = {1, 2}, .columns = 5}), ElementsAre("0,0 5x1 header Cluster 1 (1)", "0,1 1x1 card 0",
                                                                       "0,2 5x1 header Cluster 2 (2)", "0,3 1x1 card 1", "1,3 1x1 card 2"));
}

TEST_F(VerticalGrid, ClusterWithoutCardsHasItsHeaderOnly)
{
    EXPECT_THAT(cells({.clusters = {0, 1}, .columns = 2}),
                ElementsAre("0,0 2x1 header Cluster 1 (0)", "0,1 2x1 header Cluster 2 (1)", "0,2 1x1 card 0"));
}

TEST_F(VerticalGrid, EachSectionKnowsTheRowOfItsFirstCards)
{
    EXPECT_THAT(grid_rows(IdleApp({.clusters = {6, 1, 3}, .columns = 4})), ElementsAre(1, 4, 6));
}

// --- places in the single-row layout ---

TEST_F(SingleRow, HeadersSpanTheCardsOfTheirClustersSideBySide)
{
    const std::vector<std::string> all = cells({.clusters = {8, 4}, .horizontal = true});
    ASSERT_EQ(all.size(), 14U);
    EXPECT_EQ(all[0], "0,0 8x1 header Cluster 1 (8)");
    EXPECT_EQ(all[1], "8,0 4x1 header Cluster 2 (4)");
    EXPECT_EQ(all[2], "0,1 1x1 card 0");
    EXPECT_EQ(all[9], "7,1 1x1 card 7");
    EXPECT_EQ(all[10], "8,1 1x1 card 8");
    EXPECT_EQ(all[13], "11,1 1x1 card 11");
}

TEST_F(SingleRow, ClusterWithoutCardsHasNoHeader)
{
    EXPECT_THAT(cells({.clusters = {1, 0, 1}, .horizontal = true}),
                ElementsAre("0,0 1x1 header Cluster 1 (1)", "1,0 1x1 header Cluster 3 (1)", "0,1 1x1 card 0", "1,1 1x1 card 1"));
}

TEST_F(SingleRow, CardsStandInRowOne)
{
    EXPECT_THAT(grid_rows(IdleApp({.clusters = {2, 3}, .horizontal = true})), Each(1));
}

TEST_F(SingleRow, IsChosenByTheAppsOwnColumnCount)
{
    IdleApp app(Shape{.clusters = {3}, .horizontal = true});
    const std::vector<std::string> before = cells_of(app.m_core_grid);
    app.populate_core_grid(7);
    EXPECT_EQ(cells_of(app.m_core_grid), before);
}

TEST_F(SingleRow, IsThatOfOneColumnInHorizontalOrientation)
{
    EXPECT_TRUE(IdleApp(Shape{.horizontal = true, .columns = 1}).single_core_row());
    EXPECT_FALSE(IdleApp(Shape{.horizontal = true, .columns = 2}).single_core_row());
    EXPECT_FALSE(IdleApp(Shape{.horizontal = true, .columns = 0}).single_core_row());
    EXPECT_FALSE(IdleApp(Shape{.columns = 1}).single_core_row());
}

TEST_F(SingleRow, IsTheDefaultOfHorizontalOrientation)
{
    EXPECT_EQ(IdleApp(Shape{}).default_horizontal_columns(), 1);
}

// --- places in row boxes ---

TEST_F(RowBoxes, SixCardsInFourColumnsFillTheSecondRowWithTwoEmptyBoxes)
{
    EXPECT_THAT(rows({.clusters = {6, 1}, .horizontal = true, .columns = 4}),
                ElementsAre("header Cluster 1 (6)", "card 0, card 1, card 2, card 3", "card 4, card 5, empty, empty",
                            "header Cluster 2 (1)", "card 6, empty, empty, empty"));
}

TEST_F(RowBoxes, FullLastRowHasNoEmptyBoxes)
{
    EXPECT_THAT(rows({.clusters = {4}, .horizontal = true, .columns = 2}),
                ElementsAre("header Cluster 1 (4)", "card 0, card 1", "card 2, card 3"));
}

TEST_F(RowBoxes, FewerThanTwoColumnsPutAWholeClusterIntoOneRow)
{
    for (const int columns : {0, -3}) {
        EXPECT_THAT(rows({.clusters = {3, 1}, .horizontal = true, .columns = columns}),
                    ElementsAre("header Cluster 1 (3)", "card 0, card 1, card 2", "header Cluster 2 (1)", "card 3"));
    }
}

TEST_F(RowBoxes, OneColumnAskedForAfterSeveralPutsAWholeClusterIntoOneRow)
{
    IdleApp app(Shape{.clusters = {3}, .horizontal = true, .columns = 2});
    app.populate_core_grid(1);
    EXPECT_THAT(rows_of(app.m_core_grid), ElementsAre("header Cluster 1 (3)", "card 0, card 1, card 2"));
}

TEST_F(RowBoxes, ClusterWithoutCardsHasItsHeaderOnly)
{
    EXPECT_THAT(rows({.clusters = {0, 1}, .horizontal = true, .columns = 2}),
                ElementsAre("header Cluster 1 (0)", "header Cluster 2 (1)", "card 0, empty"));
    EXPECT_THAT(rows({.clusters = {0, 1}, .horizontal = true, .columns = 0}),
                ElementsAre("header Cluster 1 (0)", "header Cluster 2 (1)", "card 0"));
}

TEST_F(RowBoxes, EachSectionKnowsHowManyRowsStandBeforeIt)
{
    EXPECT_THAT(grid_rows(IdleApp({.clusters = {6, 1, 3}, .horizontal = true, .columns = 4})), ElementsAre(0, 2, 3));
}

TEST_F(RowBoxes, HeadersKeepTheirHeightAndRowsShareTheRest)
{
    const IdleApp app(Shape{.clusters = {1}, .horizontal = true, .columns = 2});
    const std::vector<GtkWidget*> children = children_of(app.m_core_grid);
    EXPECT_EQ(packing_of(children.at(0)), "start");
    EXPECT_EQ(packing_of(children.at(1)), "start expand fill");
    EXPECT_EQ(describe_widget(children.at(1)), "box horizontal spacing 3 homogeneous");
}

TEST_F(RowBoxes, CardsAndFillersShareTheirRow)
{
    const IdleApp app(Shape{.clusters = {1}, .horizontal = true, .columns = 2});
    const std::vector<GtkWidget*> cells = children_of(children_of(app.m_core_grid).at(1));
    EXPECT_EQ(packing_of(cells.at(0)), "start expand fill");
    EXPECT_EQ(packing_of(cells.at(1)), "start expand fill");
    EXPECT_EQ(describe_widget(cells.at(1)), "box horizontal spacing 0");
}

// --- placing anew ---

TEST_F(Repopulating, MovesTheSameCardsAndHeaders)
{
    IdleApp app(Shape{.clusters = {3}, .columns = 3});
    GtkWidget* const header = app.m_clusters_ui[0].section_hdr;
    GtkWidget* const card = app.core(0, 2).card;
    app.populate_core_grid(2);
    EXPECT_THAT(cells_of(app.m_core_grid),
                ElementsAre("0,0 2x1 header Cluster 1 (3)", "0,1 1x1 card 0", "1,1 1x1 card 1", "0,2 1x1 card 2"));
    EXPECT_EQ(app.m_clusters_ui[0].section_hdr, header);
    EXPECT_EQ(app.core(0, 2).card, card);
    EXPECT_EQ(cell_of(card), "0,2 1x1");
}

TEST_F(Repopulating, LeavesNothingOfMoreRowsBehind)
{
    IdleApp app(Shape{.clusters = {5, 2}, .columns = 1});
    app.populate_core_grid(5);
    EXPECT_THAT(grid_rows(app), ElementsAre(1, 3));
    app.populate_core_grid(1);
    EXPECT_THAT(grid_rows(app), ElementsAre(1, 7));
    EXPECT_EQ(children_of(app.m_core_grid).size(), 9U);
}

TEST_F(Repopulating, TimesWithoutNumberKeepTheReferences)
{
    IdleApp app(Shape{.clusters = {3, 2}, .horizontal = true, .columns = 2});
    const guint before = G_OBJECT(app.core(0, 0).card)->ref_count;
    for (int columns = 0; columns < 100; ++columns) {
        app.populate_core_grid(columns);
    }
    EXPECT_EQ(G_OBJECT(app.core(0, 0).card)->ref_count, before);
    EXPECT_EQ(G_OBJECT(app.m_clusters_ui[0].section_hdr)->ref_count, before);
}

TEST_F(Repopulating, DestroysTheRowBoxesOfThePlacementBefore)
{
    IdleApp app(Shape{.clusters = {3}, .horizontal = true, .columns = 2});
    std::vector<gpointer> row_boxes;
    for (GtkWidget* child : children_of(app.m_core_grid)) {
        if (child != app.m_clusters_ui[0].section_hdr) {
            row_boxes.push_back(child);
        }
    }
    ASSERT_EQ(row_boxes.size(), 2U);
    for (gpointer& box : row_boxes) {
        g_object_add_weak_pointer(G_OBJECT(box), &box);
    }
    app.populate_core_grid(3);
    EXPECT_THAT(row_boxes, Each(nullptr));
    EXPECT_THAT(rows_of(app.m_core_grid), ElementsAre("header Cluster 1 (3)", "card 0, card 1, card 2"));
}

TEST_F(Repopulating, DestroysWhateverElseIsInTheContainer)
{
    IdleApp app(Shape{.clusters = {1}});
    gpointer stranger = gtk_label_new("stranger");
    gtk_grid_attach(GTK_GRID(app.m_core_grid), GTK_WIDGET(stranger), 5, 5, 1, 1);
    g_object_add_weak_pointer(G_OBJECT(stranger), &stranger);
    app.populate_core_grid(1);
    EXPECT_EQ(stranger, nullptr);
}

TEST_F(Repopulating, FetchesCardsFromWhereverTheyStand)
{
    IdleApp app(Shape{.clusters = {2}});
    GtkWidget* const elsewhere = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    g_object_ref_sink(elsewhere);
    gtk_container_remove(GTK_CONTAINER(app.m_core_grid), app.core(0, 0).card);
    gtk_container_remove(GTK_CONTAINER(app.m_core_grid), app.m_clusters_ui[0].section_hdr);
    gtk_container_add(GTK_CONTAINER(elsewhere), app.core(0, 0).card);
    app.populate_core_grid(1);
    EXPECT_THAT(cells_of(app.m_core_grid), ElementsAre("0,0 1x1 header Cluster 1 (2)", "0,1 1x1 card 0", "0,2 1x1 card 1"));
    EXPECT_THAT(children_of(elsewhere), IsEmpty());
    g_object_unref(elsewhere);
}

// --- default size in horizontal orientation ---

namespace {

std::string default_size(const std::vector<int>& clusters, int columns)
{
    IdleApp app;
    app.take({.clusters = clusters, .horizontal = true, .columns = columns});
    int w = 0;
    int h = 0;
    app.default_horizontal_size(w, h);
    return std::to_string(w) + "x" + std::to_string(h);
}

}  // namespace

TEST_F(DefaultSize, OneColumnGivesEachClusterARow)
{
    EXPECT_EQ(default_size({8, 4}, 1), "702x236");
    EXPECT_EQ(default_size({4}, 1), "470x124");
    EXPECT_EQ(default_size({2, 3, 1}, 1), "412x348");
}

TEST_F(DefaultSize, ColumnCountThatIsNotPositiveCountsAsOne)
{
    EXPECT_EQ(default_size({8, 4}, 0), "702x236");
    EXPECT_EQ(default_size({8, 4}, -2), "702x236");
}

TEST_F(DefaultSize, SeveralColumnsCountTheRowsOfEachCluster)
{
    EXPECT_EQ(default_size({8, 4}, 4), "470x328");
    EXPECT_EQ(default_size({8, 4}, 2), "354x604");
    EXPECT_EQ(default_size({6}, 4), "470x216");
    EXPECT_EQ(default_size({9}, 4), "470x308");
}

TEST_F(DefaultSize, ColumnsCountEvenIfNoClusterFillsThem)
{
    EXPECT_EQ(default_size({2}, 6), "586x124");
}

TEST_F(DefaultSize, WithoutClustersOrCardsIsAFixedOne)
{
    EXPECT_EQ(default_size({}, 1), "470x124");
    EXPECT_EQ(default_size({}, 6), "470x124");
    EXPECT_EQ(default_size({0, 0}, 1), "470x124");
    EXPECT_EQ(default_size({0}, 6), "470x124");
}

TEST_F(DefaultSize, ClusterWithoutCardsAddsItsHeaderOnly)
{
    EXPECT_EQ(default_size({8, 0}, 1), "702x144");
}

// --- card titles ---

TEST_F(Titles, CardsWidthIsTheWindowsLessMarginsAndSidePanel)
{
    EXPECT_EQ(IdleApp(Shape{}).cards_width(500), 488);
    EXPECT_EQ(IdleApp(Shape{.horizontal = true}).cards_width(500), 258);
}

namespace {

int pixel_width(GtkWidget* label, const char* text)
{
    PangoLayout* const layout = gtk_widget_create_pango_layout(label, text);
    int width = 0;
    pango_layout_get_pixel_size(layout, &width, nullptr);
    g_object_unref(layout);
    return width;
}

/// The width that a card needs for its long title.
int needed_by(const App& app, const char* title = "Core 1")
{
    const auto& core = app.m_clusters_ui.at(0).cores.at(0);
    return pixel_width(core.name_label, title) + pixel_width(core.pct_label, "100%") + 10;
}

/// The title of the first card at that width of the window.
std::string title_at(App& app, int window_w)
{
    app.fit_core_labels(window_w);
    return text_of(app.m_clusters_ui.at(0).cores.at(0).name_label);
}

/// Looks whether the title is long at `window_w` and short at the pixel below.
void expect_threshold(App& app, int window_w)
{
    EXPECT_EQ(title_at(app, window_w), "Core 1");
    EXPECT_EQ(title_at(app, window_w - 1), "1");
    EXPECT_EQ(title_at(app, window_w), "Core 1");
}

}  // namespace

TEST_F(Titles, WidthOfATextIsThatOfItsLayout)
{
    const IdleApp app(Shape{.clusters = {1}});
    EXPECT_EQ(App::text_width(app.core(0, 0).name_label, "Core 128"), pixel_width(app.core(0, 0).name_label, "Core 128"));
    EXPECT_EQ(App::text_width(app.core(0, 0).name_label, ""), 0);
}

TEST_F(Titles, OneColumnHasTheWindowLessTheMargins)
{
    IdleApp app(Shape{.clusters = {8}});
    expect_threshold(app, needed_by(app) + 12);
}

TEST_F(Titles, SeveralColumnsShareTheWidthLessTheGaps)
{
    IdleApp app(Shape{.clusters = {8}, .columns = 4});
    expect_threshold(app, 4 * needed_by(app) + 3 * 3 + 12);
}

TEST_F(Titles, ColumnsCountEvenIfThereAreFewerCards)
{
    IdleApp app(Shape{.clusters = {1}, .columns = 5});
    expect_threshold(app, 5 * needed_by(app) + 4 * 3 + 12);
}

TEST_F(Titles, ColumnCountThatIsNotPositiveCountsAsOne)
{
    IdleApp app(Shape{.clusters = {2}});
    app.m_num_columns = -4;
    expect_threshold(app, needed_by(app) + 12);
}

TEST_F(Titles, SeveralColumnsInHorizontalOrientationShareWhatTheSidePanelLeaves)
{
    IdleApp app(Shape{.clusters = {8}, .horizontal = true, .columns = 3});
    expect_threshold(app, 3 * needed_by(app) + 2 * 3 + 12 + 230);
}

TEST_F(Titles, SingleRowIsSharedByAllCardsOfAllClusters)
{
    IdleApp app(Shape{.clusters = {3, 2}, .horizontal = true});
    expect_threshold(app, 5 * needed_by(app) + 4 * 3 + 12 + 230);
}

TEST_F(Titles, CardsWithoutRoomKeepTheirText)
{
    IdleApp app(Shape{.clusters = {2}, .columns = 2});
    EXPECT_EQ(title_at(app, 12 + 3 + 1), "Core 1");
    EXPECT_EQ(title_at(app, 0), "Core 1");
    EXPECT_EQ(title_at(app, -500), "Core 1");
    EXPECT_EQ(title_at(app, 12 + 3 + 2), "1");
}

TEST_F(Titles, NoCardsAreNoTrouble)
{
    IdleApp(Shape{.horizontal = true}).fit_core_labels(500);
    IdleApp(Shape{}).fit_core_labels(500);
}

TEST_F(Titles, CardWithoutALabelIsSkipped)
{
    IdleApp app(Shape{.clusters = {3}});
    app.m_clusters_ui[0].cores[0].name_label = nullptr;
    app.m_clusters_ui[0].cores[1].pct_label = nullptr;
    app.fit_core_labels(20);
    EXPECT_EQ(text_of(app.core(0, 1).name_label), "Core 2");
    EXPECT_EQ(text_of(app.core(0, 2).name_label), "3");
}

TEST_F(Titles, EachCardDecidesByItsOwnName)
{
    IdleApp app(Shape{.clusters = {10}});
    app.fit_core_labels(needed_by(app, "Core 10") - 1 + 12);
    EXPECT_EQ(text_of(app.core(0, 0).name_label), "Core 1");
    EXPECT_EQ(text_of(app.core(0, 9).name_label), "10");
}

TEST_F(Titles, PercentageCountsAtItsWidestWhateverItShows)
{
    IdleApp app(Shape{.clusters = {1}});
    const int width = needed_by(app) + 12;
    gtk_label_set_text(GTK_LABEL(app.core(0, 0).pct_label), "1000000%");
    expect_threshold(app, width);
}

TEST_F(Titles, TextIsOnlySetWhenTheFormChanges)
{
    IdleApp app(Shape{.clusters = {1}});
    gtk_label_set_text(GTK_LABEL(app.core(0, 0).name_label), "mine");
    EXPECT_EQ(title_at(app, 500), "mine");
    EXPECT_FALSE(app.core(0, 0).short_label);
    EXPECT_EQ(title_at(app, 30), "1");
    EXPECT_TRUE(app.core(0, 0).short_label);
    gtk_label_set_text(GTK_LABEL(app.core(0, 0).name_label), "mine");
    EXPECT_EQ(title_at(app, 31), "mine");
}

TEST_F(Titles, LongFormIsTranslated)
{
    speak("de");
    IdleApp app(Shape{.clusters = {1}});
    const int width = needed_by(app, "Kern 1") + 12;
    EXPECT_EQ(title_at(app, width - 1), "1");
    EXPECT_EQ(title_at(app, width), "Kern 1");
}

// --- following the allocation ---

namespace {

void allocate(App& app, int width, int height)
{
    GtkAllocation place{0, 0, width, height};
    App::on_win_size_alloc(app.m_window, &place, &app);
}

}  // namespace

TEST_F(Allocation, IsRemembered)
{
    IdleApp app(Shape{.clusters = {1}});
    allocate(app, 321, 654);
    EXPECT_EQ(app.m_last_window_w, 321);
    EXPECT_EQ(app.m_last_window_h, 654);
}

TEST_F(Allocation, NewWidthFitsTheTitles)
{
    IdleApp app(Shape{.clusters = {1}});
    allocate(app, 30, 500);
    EXPECT_EQ(text_of(app.core(0, 0).name_label), "1");
    allocate(app, 300, 500);
    EXPECT_EQ(text_of(app.core(0, 0).name_label), "Core 1");
}

TEST_F(Allocation, NothingHappensWhenNothingChanged)
{
    IdleApp app(Shape{.clusters = {1}});
    app.m_last_window_w = 30;
    app.m_last_window_h = 500;
    gtk_label_set_text(GTK_LABEL(app.m_info_label), "mine");
    allocate(app, 30, 500);
    EXPECT_EQ(text_of(app.core(0, 0).name_label), "Core 1");
    EXPECT_EQ(text_of(app.m_info_label), "mine");
}

TEST_F(Allocation, NewHeightAloneIsOnlyRemembered)
{
    IdleApp app(Shape{.clusters = {1}});
    app.m_last_window_w = 30;
    gtk_label_set_text(GTK_LABEL(app.m_info_label), "mine");
    allocate(app, 30, 700);
    EXPECT_EQ(app.m_last_window_h, 700);
    EXPECT_EQ(text_of(app.core(0, 0).name_label), "Core 1");
    EXPECT_EQ(text_of(app.m_info_label), "mine");
}

TEST_F(Allocation, FitsTheTitlesAlsoWithoutAWindow)
{
    IdleApp app(Shape{.clusters = {1}});
    GtkWidget* const window = std::exchange(app.m_window, nullptr);
    allocate(app, 30, 500);
    EXPECT_EQ(text_of(app.core(0, 0).name_label), "1");
    app.m_window = window;
}

// --- on the screen ---

namespace {

GtkAllocation place_of(GtkWidget* widget)
{
    GtkAllocation place{};
    gtk_widget_get_allocation(widget, &place);
    return place;
}

bool is_left_of(GtkWidget* a, GtkWidget* b)
{
    return place_of(a).x + place_of(a).width <= place_of(b).x;
}

/// Shows the window with content of that size.
bool show(IdleApp& app, int width, int height)
{
    gtk_window_set_default_size(GTK_WINDOW(app.m_window), width, height);
    return app.show() && place_of(app.m_window).width == width && place_of(app.m_window).height == height;
}

}  // namespace

TEST_F(OnScreen, TitlesFollowTheWindow)
{
    IdleApp app(Shape{.clusters = {8}, .columns = 4});
    ASSERT_TRUE(show(app, 240, 400));
    EXPECT_EQ(text_of(app.core(0, 7).name_label), "8");
    gtk_window_resize(GTK_WINDOW(app.m_window), 600, 400);
    EXPECT_TRUE(iterate_until([&] { return text_of(app.core(0, 7).name_label) == "Core 8"; }));
    EXPECT_EQ(app.m_last_window_w, 600);
    EXPECT_EQ(app.m_last_window_h, 400);
}

TEST_F(OnScreen, CardsShareTheWidthAsTheTitlesReckon)
{
    IdleApp app(Shape{.clusters = {4}, .columns = 4});
    ASSERT_TRUE(show(app, 600, 400));
    EXPECT_EQ(place_of(app.core(0, 0).card).width, (600 - 12 - 3 * 3 + 3) / 4);
    EXPECT_EQ(place_of(app.core(0, 3).card).width, (600 - 12 - 3 * 3) / 4);
}

TEST_F(OnScreen, CardsOfAShortRowKeepTheirWidth)
{
    IdleApp app(Shape{.clusters = {6}, .horizontal = true, .columns = 4});
    ASSERT_TRUE(show(app, 800, 400));
    EXPECT_EQ(place_of(app.core(0, 4).card).x, place_of(app.core(0, 0).card).x);
    EXPECT_EQ(place_of(app.core(0, 4).card).width, place_of(app.core(0, 0).card).width);
}

TEST_F(OnScreen, InVerticalOrientationTheCardsTakeAllTheHeightThatIsLeft)
{
    IdleApp app(Shape{.clusters = {2}});
    ASSERT_TRUE(show(app, 300, 700));
    EXPECT_EQ(place_of(app.m_total_chart).height, 60);
    const GtkAllocation last = place_of(app.core(0, 1).card);
    EXPECT_EQ(last.y + last.height, 700 - 2);
}

TEST_F(OnScreen, InHorizontalOrientationTheTotalChartGrowsInItsSidePanel)
{
    IdleApp app(Shape{.clusters = {8}, .horizontal = true});
    ASSERT_TRUE(show(app, 900, 400));
    EXPECT_EQ(place_of(app.m_total_panel).width, 230);
    EXPECT_GT(place_of(app.m_total_chart).height, 200);
    EXPECT_EQ(place_of(app.core(0, 0).card).x, 230 + 6);
}

TEST_F(OnScreen, LeftToRightRunsFromTheLeft)
{
    IdleApp app(Shape{.clusters = {2}, .horizontal = true});
    ASSERT_TRUE(show(app, 600, 300));
    EXPECT_TRUE(is_left_of(app.m_total_panel, app.m_core_grid));
    EXPECT_TRUE(is_left_of(app.core(0, 0).card, app.core(0, 1).card));
    EXPECT_TRUE(is_left_of(app.core(0, 0).name_label, app.core(0, 0).pct_label));
}

TEST_F(OnScreen, RightToLeftMirrorsTheSidePanelAndTheRowOfCards)
{
    speak("he");
    IdleApp app(Shape{.clusters = {2}, .horizontal = true});
    ASSERT_TRUE(show(app, 600, 300));
    EXPECT_TRUE(is_left_of(app.m_core_grid, app.m_total_panel));
    EXPECT_TRUE(is_left_of(app.core(0, 1).card, app.core(0, 0).card));
}

TEST_F(OnScreen, RightToLeftMirrorsTheGrid)
{
    speak("ar");
    IdleApp app(Shape{.clusters = {4}, .columns = 2});
    ASSERT_TRUE(show(app, 500, 500));
    EXPECT_TRUE(is_left_of(app.core(0, 1).card, app.core(0, 0).card));
    EXPECT_TRUE(is_left_of(app.core(0, 3).card, app.core(0, 2).card));
}

TEST_F(OnScreen, RightToLeftMirrorsCardHeaderAndStatusRow)
{
    speak("ar");
    IdleApp app(Shape{.clusters = {1}});
    ASSERT_TRUE(show(app, 400, 500));
    EXPECT_TRUE(is_left_of(app.core(0, 0).pct_label, app.core(0, 0).name_label));
    const auto& ui = app.m_clusters_ui[0];
    EXPECT_TRUE(is_left_of(ui.name_label, children_of(ui.section_hdr).at(0)));
    GtkWidget* const gear = children_of(gtk_widget_get_parent(app.m_throttle_label)).at(0);
    EXPECT_TRUE(is_left_of(app.m_throttle_label, gear));
}

TEST_F(OnScreen, RightToLeftLeavesTheChartsAsTheyAre)
{
    const auto paint = [](const char* language) {
        speak(language);
        IdleApp app(Shape{.clusters = {1}});
        app.m_cache.cores = {{.usage = 0.9, .history = {0.1, 0.9}}};
        EXPECT_TRUE(show(app, 400, 500));
        Picture picture(300, 100);
        gtk_widget_draw(app.core(0, 0).chart, picture.cr());
        return picture;
    };
    EXPECT_EQ(paint("he"), paint("en"));
}
