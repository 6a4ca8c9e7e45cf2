/// Changes of shape while the program runs: another number of columns, and the switch between the orientations with its timers.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <filesystem>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "app.h"
#include "desktop/geometry.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr bool VERTICAL = false;
constexpr bool HORIZONTAL = true;
constexpr guint MOVE_MS = 120;
constexpr guint SETTLE_MS = 450;

struct Timer {
    guint interval = 0;
    GSourceFunc function = nullptr;
    gpointer data = nullptr;
    guint source = 0;  ///< 0 if it is held back
};

/// What the App's timers are, and whether they run: held back, a test can have them fire at any moment.
struct Timers {
    std::vector<Timer> all;
    bool hold = false;

    std::vector<guint> intervals() const
    {
        std::vector<guint> list;
        std::transform(all.begin(), all.end(), std::back_inserter(list), [](const Timer& timer) { return timer.interval; });
        return list;
    }

    /// Fires the oldest timer of that interval, and says whether it was there and ended by that.
    bool fire(guint interval)
    {
        const auto timer = std::find_if(all.begin(), all.end(), [&](const Timer& candidate) { return candidate.interval == interval; });
        if (timer == all.end()) {
            return false;
        }
        const Timer due = *timer;
        all.erase(timer);
        return due.function(due.data) == G_SOURCE_REMOVE;
    }
};

Timers g_timers;

/// The monitor that the program finds, in place of the real one.
struct MadeUpMonitor {
    GdkRectangle area{};
    bool no_monitor = false;
};

std::optional<MadeUpMonitor> g_monitor;

bool is_monitor_made_up(void* return_address)
{
    return g_monitor && is_own_code(return_address);
}

GtkWidget* content_of(const App& app)
{
    return gtk_bin_get_child(GTK_BIN(app.m_window));
}

bool is_title(GtkWidget* label)
{
    for (const auto& ui : g_overheard.app->m_clusters_ui) {
        for (const auto& core : ui.cores) {
            if (core.name_label == label) {
                return true;
            }
        }
    }
    return false;
}

void note_content(GtkWidget* widget, const std::string& call)
{
    if (g_overheard.app != nullptr && g_overheard.app->m_window != nullptr && widget == content_of(*g_overheard.app)) {
        g_overheard.note(call);
    }
}

}  // namespace

// --- calls that are overheard or answered here ---

extern "C" {

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    const auto add = next<decltype(g_timeout_add)>("g_timeout_add");
    if (g_overheard.app == nullptr || data != g_overheard.app) {
        return add(interval, function, data);
    }
    g_overheard.note("adds a timer of " + std::to_string(interval) + " ms");
    const guint source = g_timers.hold ? 0 : add(interval, function, data);
    g_timers.all.push_back({.interval = interval, .function = function, .data = data, .source = source});
    return source;
}

void gtk_widget_destroy(GtkWidget* widget)
{
    note_content(widget, "destroys the content");
    next<decltype(gtk_widget_destroy)>("gtk_widget_destroy")(widget);
}

void gtk_container_add(GtkContainer* container, GtkWidget* widget)
{
    next<decltype(gtk_container_add)>("gtk_container_add")(container, widget);
    note_content(widget, "fills the window");
}

void gtk_widget_show_all(GtkWidget* widget)
{
    note_content(widget, "shows the content");
    if (g_overheard.app != nullptr && widget == g_overheard.app->m_core_grid && GTK_IS_GRID(widget)) {
        const std::vector<std::string> cells = cells_of(widget);
        g_overheard.calls.insert(g_overheard.calls.end(), cells.begin(), cells.end());
        g_overheard.note("shows these cards");
    }
    next<decltype(gtk_widget_show_all)>("gtk_widget_show_all")(widget);
}

void gtk_label_set_text(GtkLabel* label, const gchar* text)
{
    if (g_overheard.app != nullptr && is_title(GTK_WIDGET(label))) {
        g_overheard.note(std::string("title ") + text);
    }
    next<decltype(gtk_label_set_text)>("gtk_label_set_text")(label, text);
}

void gtk_widget_queue_draw(GtkWidget* widget)
{
    if (g_overheard.app != nullptr && widget == g_overheard.app->m_total_chart) {
        g_overheard.note("ticks");
    }
    next<decltype(gtk_widget_queue_draw)>("gtk_widget_queue_draw")(widget);
}

GdkMonitor* gdk_display_get_primary_monitor(GdkDisplay* display)
{
    const auto real = next<decltype(gdk_display_get_primary_monitor)>("gdk_display_get_primary_monitor");
    return is_monitor_made_up(__builtin_return_address(0)) && g_monitor->no_monitor ? nullptr : real(display);
}

GdkMonitor* gdk_display_get_monitor_at_window(GdkDisplay* display, GdkWindow* window)
{
    const auto real = next<decltype(gdk_display_get_monitor_at_window)>("gdk_display_get_monitor_at_window");
    return is_monitor_made_up(__builtin_return_address(0)) && g_monitor->no_monitor ? nullptr : real(display, window);
}

int gdk_display_get_n_monitors(GdkDisplay* display)
{
    const auto real = next<decltype(gdk_display_get_n_monitors)>("gdk_display_get_n_monitors");
    return is_monitor_made_up(__builtin_return_address(0)) && g_monitor->no_monitor ? 0 : real(display);
}

void gdk_monitor_get_geometry(GdkMonitor* monitor, GdkRectangle* geometry)
{
    if (is_monitor_made_up(__builtin_return_address(0))) {
        *geometry = g_monitor->area;
    } else {
        next<decltype(gdk_monitor_get_geometry)>("gdk_monitor_get_geometry")(monitor, geometry);
    }
}

}  // extern "C"

namespace {

// --- what the tests share ---

class Reshaping : public IdleAppTest {
protected:
    ~Reshaping() override
    {
        g_overheard = {};
        g_timers = {};
        g_monitor.reset();
    }

    /// Listens to the App from now on, whose window gets that place and size.
    static void listen(const App& app, const WindowRect& rect = REPORTED)
    {
        g_overheard.forget();
        g_overheard.app = &app;
        g_overheard.made_up = rect;
    }

    static void choose(bool horizontal) { SettingsStore::instance().mutable_get().orientation = horizontal ? "horizontal" : "vertical"; }

    static void switch_to(App& app, bool horizontal)
    {
        choose(horizontal);
        app.rebuild_layout();
    }

    static constexpr WindowRect REPORTED{.x = 200, .y = 100, .width = 300, .height = 500};

    ScopedEnv traces{"VANTRIC_TRACE", "1"};
};

/// Puts down in the order of things, among the calls, what goes to standard error and how the App's state changes.
class Chronicle {
public:
    Chronicle()
    {
        m_state = state();
        g_overheard.before_a_call = [this] { catch_up(); };
    }
    ~Chronicle() { g_overheard.before_a_call = nullptr; }
    Chronicle(const Chronicle&) = delete;
    Chronicle& operator=(const Chronicle&) = delete;

private:
    static std::string state()
    {
        const App& app = *g_overheard.app;
        return std::string(app.m_freeze_geometry_save ? "frozen" : "free") + (app.m_horizontal ? " horiz " : " vert ") +
               std::to_string(app.m_num_columns) + " move " + place_text(app.m_pending_move_x, app.m_pending_move_y) + " last " +
               size_text(app.m_last_window_w, app.m_last_window_h);
    }

    void catch_up()
    {
        std::istringstream lines(m_errors.take());
        for (std::string line; std::getline(lines, line);) {
            g_overheard.calls.push_back(line);
        }
        if (state() != m_state) {
            m_state = state();
            g_overheard.calls.push_back("now " + m_state);
        }
    }

    StandardError m_errors;
    std::string m_state;
};

/// Has each card and header of the App say when its last reference goes.
void watch_references(const App& app)
{
    const auto gone = +[](gpointer name) {
        g_overheard.note(static_cast<const char*>(name) + std::string(" is released"));
        g_free(name);
    };
    const auto watch = [&](GtkWidget* widget) {
        g_object_set_data_full(G_OBJECT(widget), "watched", g_strdup(brief(widget).c_str()), gone);
    };
    for (const auto& ui : app.m_clusters_ui) {
        watch(ui.section_hdr);
        for (const auto& core : ui.cores) {
            watch(core.card);
        }
    }
}

/// Counts widgets that still hold memory.
class LiveWidgets {
public:
    /// Counts the widget and all below it from now on, each once.
    void watch(GtkWidget* widget)
    {
        ++m_count;
        g_object_set_data_full(G_OBJECT(widget), "live", &m_count, [](gpointer count) { --*static_cast<int*>(count); });
        if (GTK_IS_CONTAINER(widget)) {
            const auto each = +[](GtkWidget* child, gpointer data) { static_cast<LiveWidgets*>(data)->watch(child); };
            gtk_container_forall(GTK_CONTAINER(widget), each, this);
        }
    }

    int count() const { return m_count; }

private:
    int m_count = 0;
};

int widgets_below(GtkWidget* widget)
{
    int count = 1;
    if (GTK_IS_CONTAINER(widget)) {
        const auto each = +[](GtkWidget* child, gpointer data) { *static_cast<int*>(data) += widgets_below(child); };
        gtk_container_forall(GTK_CONTAINER(widget), each, &count);
    }
    return count;
}

std::vector<std::string> titles_of(const App& app)
{
    std::vector<std::string> titles;
    for (const auto& ui : app.m_clusters_ui) {
        std::transform(ui.cores.begin(), ui.cores.end(), std::back_inserter(titles),
                       [](const auto& core) { return text_of(core.name_label); });
    }
    return titles;
}

/// As the user closes it. No main loop of the App's own is there that the window's end could end.
void close_window(const App& app)
{
    g_signal_handlers_disconnect_by_func(app.m_window, reinterpret_cast<gpointer>(gtk_main_quit), nullptr);
    gtk_widget_destroy(app.m_window);
}

bool has_sources(App& app)
{
    return g_main_context_find_source_by_user_data(nullptr, &app) != nullptr;
}

using Columns = Reshaping;
using Rebuild = Reshaping;
using Target = Reshaping;
using TimersOfARebuild = Reshaping;
using Queue = Reshaping;

/// On the screen, with the App's timers in the hand of the test.
class Switching : public Reshaping {
protected:
    Switching() { g_timers.hold = true; }

    bool show(IdleApp& app, const WindowRect& rect) const
    {
        const bool stands = app.show() && user_moves(app, rect);
        g_overheard.app = &app;
        return stands && iterate_until([&] { return stored(app.m_horizontal).starts_with(rect_text(rect)); });
    }

    /// Fires the move of a rebuild when its change of size has been done, and waits until the window stands there.
    static bool arrives(const App& app, const WindowRect& rect)
    {
        return takes_size(app, rect) && g_timers.fire(MOVE_MS) && comes_to(app, rect);
    }
};

}  // namespace

// --- another number of columns ---

TEST_F(Columns, StepsComeInTheirOrder)
{
    IdleApp app(Shape{.clusters = {3}, .columns = 1});
    app.fit_core_labels(300);
    listen(app);
    app.relayout_cores(2);
    EXPECT_THAT(g_overheard.calls,
                ElementsAre("0,0 2x1 header Cluster 1 (3)", "0,1 1x1 card 0", "1,1 1x1 card 1", "0,2 1x1 card 2", "shows these cards",
                            "resizes to 124x500", "title 1", "title 2", "title 3", "reads the file", "writes the file"));
    EXPECT_FALSE(app.m_freeze_geometry_save);
}

TEST_F(Columns, MoveTheSameCards)
{
    IdleApp app(Shape{.clusters = {3}, .columns = 1});
    GtkWidget* const content = content_of(app);
    GtkWidget* const grid = app.m_core_grid;
    GtkWidget* const card = app.core(0, 2).card;
    app.relayout_cores(2);
    EXPECT_EQ(app.num_columns(), 2);
    EXPECT_EQ(content_of(app), content);
    EXPECT_EQ(app.m_core_grid, grid);
    EXPECT_EQ(app.core(0, 2).card, card);
    EXPECT_EQ(cell_of(card), "0,2 1x1");
}

TEST_F(Columns, WindowTakesTheirWidthAndKeepsItsHeightOrTakesTheHorizontalDefault)
{
    IdleApp vertical(Shape{.clusters = {8}});
    listen(vertical, {.x = 20, .y = 10, .width = 333, .height = 444});
    vertical.relayout_cores(4);
    IdleApp horizontal(Shape{.clusters = {8, 4}, .horizontal = true, .columns = 2});
    horizontal.relayout_cores(3);
    EXPECT_THAT(g_overheard.sizes, ElementsAre("240x444", size_text(3 * 58 + 238, (3 + 2) * 92 + 2 * 20 + 12)));
}

TEST_F(Columns, NewRowBoxesAreShown)
{
    IdleApp app(Shape{.clusters = {3}, .horizontal = true, .columns = 3});
    gtk_widget_show_all(content_of(app));
    app.relayout_cores(2);
    const std::vector<GtkWidget*> rows = children_of(app.m_core_grid);
    ASSERT_EQ(rows_of(app.m_core_grid), (std::vector<std::string>{"header Cluster 1 (3)", "card 0, card 1", "card 2, empty"}));
    for (GtkWidget* row : rows) {
        EXPECT_TRUE(gtk_widget_get_visible(row));
    }
    EXPECT_TRUE(gtk_widget_get_visible(children_of(rows[2]).at(1)));
}

TEST_F(Columns, TitlesFitTheNewWidthBeforeTheWindowHasIt)
{
    IdleApp app(Shape{.clusters = {2}, .horizontal = true, .columns = 2});
    listen(app);
    app.fit_core_labels(1000);
    EXPECT_THAT(titles_of(app), ElementsAre("Core 1", "Core 2"));
    app.relayout_cores(3);
    EXPECT_THAT(titles_of(app), ElementsAre("1", "2"));
}

TEST_F(Columns, PlaceAndSizeOfThatMomentAreSavedWithThemInTheRecordOfTheOrientation)
{
    {
        IdleApp vertical(Shape{.clusters = {8}});
        listen(vertical);
        vertical.relayout_cores(4);
        g_overheard.app = nullptr;
    }
    EXPECT_EQ(stored(VERTICAL), "300x500 at 200,100, 4 columns");
    EXPECT_EQ(stored(HORIZONTAL), "0x0 at 0,0, 4 columns");
    IdleApp horizontal(Shape{.clusters = {8}, .horizontal = true, .columns = 2});
    listen(horizontal, {1, 2, 503, 304});
    horizontal.relayout_cores(5);
    EXPECT_EQ(stored(HORIZONTAL), "503x304 at 1,2, 5 columns");
    EXPECT_EQ(stored(VERTICAL), "300x500 at 200,100, 4 columns");
}

TEST_F(Switching, WindowOnTheScreenFollowsTheColumns)
{
    IdleApp app(Shape{.clusters = {8}, .columns = 2});
    ASSERT_TRUE(show(app, {300, 200, 260, 700}));
    app.relayout_cores(5);
    EXPECT_TRUE(comes_to(app, {300, 200, 298, 700}));
    EXPECT_TRUE(iterate_until([] { return stored(VERTICAL) == "298x700 at 300,200, 5 columns"; })) << stored(VERTICAL);
}

// --- the other orientation, step by step ---

TEST_F(Rebuild, FromVerticalToHorizontalStepsComeInTheirOrder)
{
    store(HORIZONTAL, {400, 350, 420, 240}, 1);
    IdleApp app(Shape{.clusters = {2, 1}, .columns = 2});
    app.m_last_window_w = 300;
    app.m_last_window_h = 500;
    listen(app);
    watch_references(app);
    const Chronicle chronicle;
    switch_to(app, HORIZONTAL);
    EXPECT_THAT(
        g_overheard.calls,
        ElementsAre("[trace] rebuild: leave vert save 300x500 at 200,100", "reads the file", "writes the file",
                    "now frozen horiz 2 move 0,0 last 300x500", "reads the file", "now frozen horiz 1 move 0,0 last 300x500",
                    "destroys the content", "card 0 is released", "card 1 is released", "header Cluster 1 (2) is released",
                    "card 2 is released", "header Cluster 2 (1) is released", "fills the window",
                    "[trace] rebuild: enter horiz stored=1 420x240 at 400,350 -> move 400,350", "resizes to 420x240",
                    "now frozen horiz 1 move 400,350 last 300x500", "adds a timer of 120 ms", "shows the content",
                    "now frozen horiz 1 move 400,350 last 0x0", "title 1", "title 2", "title 3", "ticks", "adds a timer of 450 ms"));
}

TEST_F(Rebuild, FromHorizontalToVerticalStepsComeInTheirOrder)
{
    IdleApp app(Shape{.clusters = {2, 1}, .horizontal = true, .columns = 3});
    app.m_last_window_w = 300;
    app.m_last_window_h = 500;
    listen(app);
    watch_references(app);
    const Chronicle chronicle;
    switch_to(app, VERTICAL);
    EXPECT_THAT(
        g_overheard.calls,
        ElementsAre("[trace] rebuild: leave horiz save 300x500 at 200,100", "reads the file", "writes the file",
                    "now frozen vert 3 move 0,0 last 300x500", "reads the file", "destroys the content", "card 0 is released",
                    "card 1 is released", "header Cluster 1 (2) is released", "card 2 is released", "header Cluster 2 (1) is released",
                    "fills the window", "[trace] rebuild: enter vert stored=0 182x700 at 0,0 -> move 549,162", "resizes to 182x700",
                    "now frozen vert 3 move 549,162 last 300x500", "adds a timer of 120 ms", "shows the content",
                    "now frozen vert 3 move 549,162 last 0x0", "title 1", "title 2", "title 3", "ticks", "adds a timer of 450 ms"));
}

TEST_F(Rebuild, RectangleThatIsLeftIsSavedAndTheRecordThatIsEnteredStaysAsItIs)
{
    store(HORIZONTAL, {4000, 350, 420, 3000}, 2);
    IdleApp app(Shape{.clusters = {4}, .columns = 3});
    listen(app);
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(stored(VERTICAL), "300x500 at 200,100, 3 columns");
    EXPECT_EQ(stored(HORIZONTAL), "420x3000 at 4000,350, 2 columns");
}

TEST_F(Rebuild, OrientationIsHorizontalOnlyByThatVeryWord)
{
    IdleApp app(Shape{.clusters = {4}, .horizontal = true});
    listen(app);
    SettingsStore::instance().mutable_get().orientation = "Horizontal";
    app.rebuild_layout();
    EXPECT_FALSE(app.is_horizontal());
}

TEST_F(Rebuild, SameOrientationIsRebuiltWithTheColumnsInForce)
{
    store(HORIZONTAL, {400, 350, 420, 240}, 1);
    IdleApp app(Shape{.clusters = {4}, .horizontal = true});
    listen(app);
    app.m_num_columns = 3;
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(app.num_columns(), 3);
    EXPECT_THAT(rows_of(app.m_core_grid), ElementsAre("header Cluster 1 (4)", "card 0, card 1, card 2", "card 3, empty, empty"));
    EXPECT_THAT(g_overheard.sizes, ElementsAre("300x500"));
    EXPECT_EQ(stored(HORIZONTAL), "300x500 at 200,100, 3 columns");
}

TEST_F(Rebuild, TreeIsThatOfAWindowWhichStartsSo)
{
    for (const bool horizontal : {HORIZONTAL, VERTICAL}) {
        const Shape before{.clusters = {4, 2}, .horizontal = !horizontal, .columns = 2};
        const Shape after{.clusters = {4, 2}, .horizontal = horizontal, .columns = 3};
        store(horizontal, {400, 350, 420, 240}, 3);
        IdleApp app(before);
        GtkWidget* const panel = app.m_total_panel;
        switch_to(app, horizontal);
        IdleApp model(after);
        model.fit_core_labels(420);
        model.update();
        EXPECT_EQ(children_of(app.m_window).size(), 1U);
        EXPECT_EQ(describe(content_of(app)), describe(content_of(model)));
        EXPECT_EQ(describe(app.m_total_panel), describe(model.m_total_panel));
        EXPECT_NE(app.m_total_panel, panel);
        EXPECT_TRUE(gtk_widget_is_ancestor(app.m_total_panel, content_of(app)));
        EXPECT_EQ(app.m_clusters_ui.size(), 2U);
        EXPECT_EQ(horizontal ? rows_of(app.m_core_grid) : cells_of(app.m_core_grid),
                  horizontal ? rows_of(model.m_core_grid) : cells_of(model.m_core_grid));
    }
}

TEST_F(Rebuild, OldWidgetsAllGo)
{
    LiveWidgets old;  // which the widgets tell of their end
    IdleApp app(Shape{.clusters = {4, 2}, .columns = 2});
    ASSERT_TRUE(app.show());
    old.watch(content_of(app));
    ASSERT_GT(old.count(), 6 * 4);
    switch_to(app, HORIZONTAL);
    EXPECT_TRUE(iterate_until([&] { return old.count() == 0; })) << old.count() << " are left";
}

TEST_F(Rebuild, OldReferencesOfCardsAndHeadersAreGivenBack)
{
    IdleApp app(Shape{.clusters = {1}});
    GtkWidget* const card = app.core(0, 0).card;
    GtkWidget* const header = app.m_clusters_ui.at(0).section_hdr;
    g_object_ref(card);
    g_object_ref(header);
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(references_of(card), 1U);
    EXPECT_EQ(references_of(header), 1U);
    g_object_unref(card);
    g_object_unref(header);
}

TEST_F(Rebuild, WindowWithoutContentIsFilled)
{
    IdleApp app(Shape{.clusters = {2}});
    gtk_widget_destroy(content_of(app));
    switch_to(app, HORIZONTAL);
    EXPECT_TRUE(gtk_widget_is_ancestor(app.m_core_grid, app.m_window));
}

// --- columns and size after a switch ---

TEST_F(Rebuild, ValidRecordBringsItsColumns)
{
    store(VERTICAL, {1, 2, 303, 404}, 2);
    store(HORIZONTAL, {1, 2, 503, 304}, 5);
    IdleApp app(Shape{.clusters = {8}, .columns = 3});
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(app.num_columns(), 5);
    store(VERTICAL, {1, 2, 303, 404}, 2);
    switch_to(app, VERTICAL);
    EXPECT_EQ(app.num_columns(), 2);
}

TEST_F(Rebuild, InvalidRecordLeavesOneColumnInHorizontalOrientationAndKeepsThemInVertical)
{
    store(HORIZONTAL, {1, 2, 0, 304}, 5);
    IdleApp to_horizontal(Shape{.clusters = {8}, .columns = 3});
    switch_to(to_horizontal, HORIZONTAL);
    EXPECT_EQ(to_horizontal.num_columns(), 1);
    store(VERTICAL, {1, 2, 0, 304}, 5);
    IdleApp to_vertical(Shape{.clusters = {8}, .horizontal = true, .columns = 3});
    switch_to(to_vertical, VERTICAL);
    EXPECT_EQ(to_vertical.num_columns(), 3);
}

TEST_F(Rebuild, StoredHeightCountsFrom101To2999AndTheWidthInAnyCase)
{
    for (const auto& [height, size] : std::vector<std::pair<int, std::string>>{
             {100, "333x700"}, {101, "333x101"}, {2999, "333x2999"}, {3000, "333x700"}, {0, "333x700"}, {-500, "333x700"}}) {
        store(VERTICAL, {11, 22, 333, height}, 2);
        IdleApp app(Shape{.clusters = {4}, .horizontal = true});
        g_overheard.sizes.clear();
        switch_to(app, VERTICAL);
        EXPECT_THAT(g_overheard.sizes, ElementsAre(size));
    }
    store(HORIZONTAL, {1, 2, 1, 304}, 1);
    IdleApp app(Shape{.clusters = {8, 4}});
    g_overheard.sizes.clear();
    switch_to(app, HORIZONTAL);
    EXPECT_THAT(g_overheard.sizes, ElementsAre("1x304"));
}

TEST_F(Rebuild, DefaultSizeIsThatOfTheNewOrientationAndItsColumns)
{
    store(HORIZONTAL, {1, 2, 0, 304}, 5);  // not valid, so its height does not count either
    IdleApp app(Shape{.clusters = {8, 4}, .columns = 3});
    switch_to(app, HORIZONTAL);
    EXPECT_THAT(g_overheard.sizes, ElementsAre("702x236"));
    std::filesystem::remove(home.config() + "/geometry.json");
    app.m_num_columns = 4;
    switch_to(app, VERTICAL);
    EXPECT_THAT(g_overheard.sizes, ElementsAre("702x236", "240x700"));
}

// --- where it goes ---

/// Where a switch to the horizontal orientation sends the window, which stands at REPORTED.
static std::string target(const MadeUpMonitor& monitor, const WindowRect& record)
{
    g_monitor = monitor;
    store(HORIZONTAL, record, 1);
    IdleApp app(Shape{.clusters = {4, 2}});
    g_overheard.made_up = WindowRect{.x = 200, .y = 100, .width = 300, .height = 500};
    SettingsStore::instance().mutable_get().orientation = "horizontal";
    app.rebuild_layout();
    return place_text(app.m_pending_move_x, app.m_pending_move_y);
}

TEST_F(Target, StoredPlaceIsPulledIntoTheMonitor)
{
    const MadeUpMonitor monitor{{100, 50, 1280, 1024}};
    EXPECT_EQ(target(monitor, {500, 400, 400, 300}), "500,400");
    EXPECT_EQ(target(monitor, {1200, 400, 400, 300}), "980,400");
    EXPECT_EQ(target(monitor, {-50, 400, 400, 300}), "100,400");
    EXPECT_EQ(target(monitor, {500, 900, 400, 300}), "500,774");
    EXPECT_EQ(target(monitor, {500, -20, 400, 300}), "500,50");
    EXPECT_EQ(target(monitor, {980, 774, 400, 300}), "980,774");
    EXPECT_EQ(target(monitor, {981, 775, 400, 300}), "980,774");
    EXPECT_EQ(target(monitor, {99, 49, 400, 300}), "100,50");
    EXPECT_EQ(target(monitor, {INT_MAX, INT_MIN, 400, 300}), "980,50");
}

TEST_F(Target, WindowLargerThanTheMonitorStandsAtItsTopLeft)
{
    const MadeUpMonitor monitor{{100, 50, 1280, 1024}};
    EXPECT_EQ(target(monitor, {500, 400, 1281, 300}), "100,400");
    EXPECT_EQ(target(monitor, {500, 400, 400, 1025}), "500,50");
    EXPECT_EQ(target(monitor, {-500, 4000, INT_MAX, 2999}), "100,50");
    EXPECT_EQ(target({{100, 50, 300, 200}}, {}), "100,50");
    EXPECT_EQ(target({{100, 50, 300, 1024}}, {}), "100,444");
}

TEST_F(Target, WithoutARecordItIsTheMiddle)
{
    EXPECT_EQ(target({{100, 50, 1280, 1024}}, {}), place_text(100 + (1280 - 470) / 2, 50 + (1024 - 236) / 2));
    EXPECT_EQ(target({{100, 50, 1281, 1025}}, {.x = 7, .y = 8, .width = 0, .height = 300}), "505,444");
}

TEST_F(Target, WithoutAMonitorOrItsAreaItIsTheStoredPlaceElseThePresentOne)
{
    for (const MadeUpMonitor& none :
         {MadeUpMonitor{{100, 50, 1280, 1024}, true}, MadeUpMonitor{{100, 50, 0, 1024}}, MadeUpMonitor{{100, 50, 1280, 0}}}) {
        EXPECT_EQ(target(none, {5000, -20, 400, 300}), "5000,-20");
        EXPECT_EQ(target(none, {}), "200,100");
    }
    EXPECT_EQ(target({{100, 50, 1, 1}}, {5000, -20, 400, 300}), "100,50");
}

TEST_F(Target, IsTracedBesideTheStoredPlace)
{
    StandardError errors;
    target({{100, 50, 1280, 1024}}, {-3000, 900, 400, 300});
    EXPECT_THAT(errors.take(), HasSubstr("[trace] rebuild: enter horiz stored=1 400x300 at -3000,900 -> move 100,774\n"));
}

// --- what shows at once ---

TEST_F(Rebuild, CurrentValuesShowAtOnce)
{
    IdleApp app(Shape{.clusters = {2}});
    app.m_cpu_reader->m_cores = {{.usage = 0.42, .history = {0.42}}, {.usage = 0.07, .history = {0.07}}};
    app.m_sys_metrics->m_temperature = 61.0;
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(text_of(app.core(0, 0).pct_label), "42%");
    EXPECT_EQ(text_of(app.core(0, 1).pct_label), "7%");
    EXPECT_EQ(text_of(app.m_right_info_label), "CPU 61°C");
}

TEST_F(Rebuild, TitlesAreDecidedAfreshForTheNewWidth)
{
    IdleApp app(Shape{.clusters = {2}});
    app.fit_core_labels(30);
    ASSERT_THAT(titles_of(app), ElementsAre("1", "2"));
    store(HORIZONTAL, {1, 2, 1000, 300}, 1);
    switch_to(app, HORIZONTAL);
    EXPECT_THAT(titles_of(app), ElementsAre("Core 1", "Core 2"));
    EXPECT_FALSE(app.core(0, 0).short_label);
    app.fit_core_labels(250);
    ASSERT_THAT(titles_of(app), ElementsAre("1", "2"));
    store(VERTICAL, {1, 2, 10, 300}, 1);  // no room for any card, so they keep the title that they are made with
    switch_to(app, VERTICAL);
    EXPECT_THAT(titles_of(app), ElementsAre("Core 1", "Core 2"));
}

TEST_F(Rebuild, NextAllocationCountsAsAChange)
{
    store(HORIZONTAL, {200, 150, 500, 300}, 1);
    IdleApp app(Shape{.clusters = {2}, .horizontal = true});
    ASSERT_TRUE(app.show());
    ASSERT_EQ(app.m_last_window_w, 500);
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(app.m_last_window_w, 0);
    EXPECT_EQ(app.m_last_window_h, 0);
    EXPECT_TRUE(iterate_until([&] { return app.m_last_window_w == 500 && app.m_last_window_h == 300; }));
}

// --- the timers ---

TEST_F(TimersOfARebuild, WindowIsMovedALittleLaterAndSavingResumesAfterThat)
{
    using std::chrono::milliseconds;
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    const auto begin = std::chrono::steady_clock::now();
    const auto elapsed = [&] { return std::chrono::steady_clock::now() - begin; };
    switch_to(app, HORIZONTAL);
    EXPECT_THAT(g_timers.intervals(), ElementsAre(MOVE_MS, SETTLE_MS));
    EXPECT_THAT(g_overheard.moves, IsEmpty());
    std::optional<bool> was_frozen;  // at the move; on a busy computer the same turn of the main loop ends the freeze behind it
    g_overheard.before_a_call = [&] { was_frozen = was_frozen.value_or(app.m_freeze_geometry_save); };
    ASSERT_TRUE(iterate_until([] { return !g_overheard.moves.empty(); }));
    EXPECT_EQ(was_frozen, true);
    EXPECT_GE(elapsed(), milliseconds(MOVE_MS - 10));
    ASSERT_TRUE(iterate_until([&] { return !app.m_freeze_geometry_save; }));
    EXPECT_GE(elapsed(), milliseconds(SETTLE_MS - 10));
    EXPECT_FALSE(has_sources(app));
    EXPECT_THAT(g_overheard.moves, ElementsAre(place_text(app.m_pending_move_x, app.m_pending_move_y)));
}

TEST_F(TimersOfARebuild, SettlingEndsTheFreezeSavesWhatTheWindowIsByThenAndTracesIt)
{
    g_timers.hold = true;
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    switch_to(app, HORIZONTAL);
    const std::string target = place_text(app.m_pending_move_x, app.m_pending_move_y);
    g_overheard.calls.clear();
    g_overheard.made_up = WindowRect{-5, 6, 711, 322};
    const Chronicle chronicle;
    EXPECT_TRUE(g_timers.fire(SETTLE_MS));
    g_overheard.note("ends");
    EXPECT_THAT(g_overheard.calls, ElementsAre("now free horiz 1 move " + target + " last 0x0", "reads the file", "writes the file",
                                               "[trace] settled(horiz): 711x322 at -5,6", "ends"));
    EXPECT_EQ(stored(HORIZONTAL), "711x322 at -5,6, 1 columns");
    EXPECT_EQ(stored(VERTICAL), "300x500 at 200,100, 1 columns");
}

TEST_F(TimersOfARebuild, SizeThatIsNotPositiveIsTracedAndNotSaved)
{
    g_timers.hold = true;
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    switch_to(app, HORIZONTAL);
    switch_to(app, HORIZONTAL);
    const std::string before = stored(HORIZONTAL);
    StandardError errors;
    g_overheard.made_up = WindowRect{-5, 6, 0, 322};
    EXPECT_TRUE(g_timers.fire(SETTLE_MS));
    g_overheard.made_up = WindowRect{-5, 6, 711, 0};
    EXPECT_TRUE(g_timers.fire(SETTLE_MS));
    EXPECT_EQ(errors.take(), "[trace] settled(horiz): 0x322 at -5,6\n[trace] settled(horiz): 711x0 at -5,6\n");
    EXPECT_FALSE(app.m_freeze_geometry_save);
    EXPECT_EQ(stored(HORIZONTAL), before);
}

TEST_F(TimersOfARebuild, TracesFollowTheVariable)
{
    g_timers.hold = true;
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    StandardError errors;
    traces.set(std::nullopt);
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(errors.take(), "");
    traces.set("");
    g_timers.fire(SETTLE_MS);
    EXPECT_EQ(errors.take(), "[trace] settled(horiz): 300x500 at 200,100\n");
    switch_to(app, VERTICAL);
    EXPECT_THAT(errors.take(), HasSubstr("[trace] rebuild: leave horiz save 300x500 at 200,100\n[trace] rebuild: enter vert stored=1 "));
    traces.set(std::nullopt);
    g_timers.fire(SETTLE_MS);
    EXPECT_EQ(errors.take(), "");
}

TEST_F(TimersOfARebuild, FirstSettlingEndsTheFreezeOfTheSecondRebuildToo)
{
    g_timers.hold = true;
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    switch_to(app, HORIZONTAL);
    switch_to(app, VERTICAL);
    EXPECT_THAT(g_timers.intervals(), ElementsAre(MOVE_MS, SETTLE_MS, MOVE_MS, SETTLE_MS));
    StandardError errors;
    EXPECT_TRUE(g_timers.fire(SETTLE_MS));
    EXPECT_FALSE(app.m_freeze_geometry_save);
    EXPECT_TRUE(g_timers.fire(SETTLE_MS));
    EXPECT_FALSE(app.m_freeze_geometry_save);
    EXPECT_EQ(errors.take(), "[trace] settled(vert): 300x500 at 200,100\n[trace] settled(vert): 300x500 at 200,100\n");
}

TEST_F(TimersOfARebuild, EachPendingMoveTakesTheLatestTarget)
{
    g_timers.hold = true;
    store(HORIZONTAL, {400, 350, 420, 240}, 1);
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    switch_to(app, HORIZONTAL);
    EXPECT_EQ(place_text(app.m_pending_move_x, app.m_pending_move_y), "400,350");
    switch_to(app, VERTICAL);
    EXPECT_TRUE(g_timers.fire(MOVE_MS));
    EXPECT_TRUE(g_timers.fire(MOVE_MS));
    EXPECT_THAT(g_overheard.moves, ElementsAre("200,100", "200,100"));
}

TEST_F(TimersOfARebuild, SecondRebuildLeavesThoseOfTheFirstAlone)
{
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    switch_to(app, HORIZONTAL);
    switch_to(app, VERTICAL);
    ASSERT_EQ(g_timers.all.size(), 4U);
    for (const Timer& timer : g_timers.all) {
        EXPECT_NE(g_main_context_find_source_by_id(nullptr, timer.source), nullptr);
    }
    EXPECT_TRUE(iterate_until([&] { return !has_sources(app); }));
    EXPECT_EQ(g_overheard.moves.size(), 2U);
}

TEST_F(TimersOfARebuild, WaylandHasNoMoveButSettlesWithThePlaceAsReported)
{
    g_timers.hold = true;
    const RenamedDisplay wayland("GdkWaylandDisplayOfThisRebuild");
    store(HORIZONTAL, {400, 350, 420, 240}, 1);
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    StandardError errors;
    switch_to(app, HORIZONTAL);
    EXPECT_THAT(g_overheard.sizes, ElementsAre("420x240"));
    EXPECT_THAT(g_timers.intervals(), ElementsAre(SETTLE_MS));
    EXPECT_EQ(errors.take(), "[trace] rebuild: leave vert save 300x500 at 200,100\n");
    EXPECT_EQ(place_text(app.m_pending_move_x, app.m_pending_move_y), "0,0");
    EXPECT_TRUE(g_timers.fire(SETTLE_MS));
    EXPECT_EQ(stored(HORIZONTAL), "300x500 at 200,100, 1 columns");
    EXPECT_THAT(g_overheard.moves, IsEmpty());
}

TEST_F(TimersOfARebuild, AfterTheWindowIsClosedTheyDoNothing)
{
    g_timers.hold = true;
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    switch_to(app, HORIZONTAL);
    close_window(app);
    ASSERT_EQ(app.m_window, nullptr);
    g_overheard.calls.clear();
    StandardError errors;
    EXPECT_TRUE(g_timers.fire(MOVE_MS));
    EXPECT_TRUE(g_timers.fire(SETTLE_MS));
    EXPECT_THAT(g_overheard.calls, IsEmpty());
    EXPECT_EQ(errors.take(), "");
}

// --- from the main loop ---

TEST_F(Queue, RebuildComesFromTheMainLoopAndOnce)
{
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    GtkWidget* const content = content_of(app);
    choose(HORIZONTAL);
    app.queue_rebuild_layout();
    EXPECT_EQ(content_of(app), content);
    EXPECT_FALSE(app.is_horizontal());
    GSource* const source = g_main_context_find_source_by_user_data(nullptr, static_cast<App*>(&app));
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(g_source_get_priority(source), G_PRIORITY_DEFAULT_IDLE);
    EXPECT_TRUE(iterate_until([&] { return !has_sources(app); }));
    EXPECT_TRUE(app.is_horizontal());
    EXPECT_THAT(g_overheard.calls, Contains("destroys the content").Times(1));
}

TEST_F(Queue, RequestsAreNotMerged)
{
    IdleApp app(Shape{.clusters = {2}});
    listen(app);
    app.queue_rebuild_layout();
    app.queue_rebuild_layout();
    EXPECT_TRUE(iterate_until([&] { return !has_sources(app); }));
    EXPECT_THAT(g_overheard.calls, Contains("destroys the content").Times(2));
}

TEST_F(Queue, RequestIsDroppedIfTheWindowIsClosedMeanwhile)
{
    IdleApp app(Shape{.clusters = {2}});
    app.queue_rebuild_layout();
    close_window(app);
    EXPECT_TRUE(iterate_until([&] { return !has_sources(app); }));
    EXPECT_EQ(app.m_window, nullptr);
}

// --- on the screen ---

TEST_F(Switching, WindowGoesToTheRecordAndBackToWhereItWas)
{
    store(HORIZONTAL, {150, 120, 700, 260}, 1);
    IdleApp app(Shape{.clusters = {4, 2}, .columns = 2});
    ASSERT_TRUE(show(app, {300, 200, 320, 600}));
    StandardError errors;

    switch_to(app, HORIZONTAL);
    EXPECT_EQ(errors.take(),
              "[trace] rebuild: leave vert save 320x600 at 300,200\n"
              "[trace] rebuild: enter horiz stored=1 700x260 at 150,120 -> move 150,120\n");
    EXPECT_TRUE(arrives(app, {150, 120, 700, 260}));
    g_timers.fire(SETTLE_MS);
    EXPECT_EQ(errors.take(), "[trace] settled(horiz): 700x260 at 150,120\n");

    switch_to(app, VERTICAL);
    EXPECT_TRUE(arrives(app, {300, 200, 320, 600}));
    errors.take();
    g_timers.fire(SETTLE_MS);
    EXPECT_EQ(errors.take(), "[trace] settled(vert): 320x600 at 300,200\n");
    EXPECT_EQ(stored(VERTICAL), "320x600 at 300,200, 2 columns");
    EXPECT_EQ(stored(HORIZONTAL), "700x260 at 150,120, 1 columns");
}

TEST_F(Switching, FirstOneStandsInTheMiddleOfTheScreen)
{
    IdleApp app(Shape{.clusters = {4, 2}, .columns = 2});
    ASSERT_TRUE(show(app, {300, 200, 320, 600}));
    switch_to(app, HORIZONTAL);
    ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_height(app.m_window) == 236; }));
    g_timers.fire(MOVE_MS);
    EXPECT_TRUE(iterate_until([&] {
        const WindowRect rect = real_rect(app);
        return place_text(rect.x, rect.y) == place_text((1280 - 470) / 2, (1024 - 236) / 2);
    })) << rect_text(real_rect(app));
    g_timers.fire(SETTLE_MS);
    EXPECT_EQ(stored(HORIZONTAL), rect_text(real_rect(app)) + ", 1 columns");
}

TEST_F(Switching, ItsOwnResizeAndMoveLeaveTheRecordAlone)
{
    store(HORIZONTAL, {3000, 120, 100, 260}, 1);
    IdleApp app(Shape{.clusters = {2}});
    ASSERT_TRUE(show(app, {300, 200, 320, 600}));
    switch_to(app, HORIZONTAL);
    ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_height(app.m_window) == 260; }));
    g_timers.fire(MOVE_MS);
    ASSERT_TRUE(iterate_until([&] { return real_rect(app).y == 120; }));
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_EQ(stored(HORIZONTAL), "100x260 at 3000,120, 1 columns");
    g_timers.fire(SETTLE_MS);
    EXPECT_EQ(stored(HORIZONTAL), rect_text(real_rect(app)) + ", 1 columns");
}

TEST_F(Switching, UsersResizeInTheFreezeIsSavedBySettling)
{
    store(HORIZONTAL, {150, 120, 700, 260}, 1);
    IdleApp app(Shape{.clusters = {4, 2}});
    ASSERT_TRUE(show(app, {300, 200, 320, 600}));
    switch_to(app, HORIZONTAL);
    ASSERT_TRUE(arrives(app, {150, 120, 700, 260}));
    g_overheard.calls.clear();
    ASSERT_TRUE(user_moves(app, {170, 140, 800, 300}));
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_THAT(g_overheard.calls, Not(Contains("writes the file")));
    EXPECT_EQ(stored(HORIZONTAL), "700x260 at 150,120, 1 columns");
    g_timers.fire(SETTLE_MS);
    EXPECT_EQ(stored(HORIZONTAL), "800x300 at 170,140, 1 columns");
}

/// Two hundred switches, each with another number of columns. The place and size that the window reports are made up, since waiting for the
/// window manager each time would take long.
TEST_F(Switching, TwoHundredLeaveNothingBehindAndNeverMixTheRecords)
{
    constexpr int SWITCHES = 200;
    constexpr int WARM_UP = 40;
    constexpr int PAINTED = 20;                  // every so many
    constexpr std::size_t GENEROUS = 64 * 1024;  // bytes; less than half a kilobyte for each switch
    traces.set(std::nullopt);
    store(HORIZONTAL, {150, 120, 700, 460}, 2);
    LiveWidgets live;  // which the widgets tell of their end
    IdleApp app(Shape{.clusters = {4, 2}, .columns = 1});
    ASSERT_TRUE(app.show());
    listen(app, {300, 200, 320, 600});
    live.watch(content_of(app));
    std::string left = "320x600 at 300,200, 1 columns";
    std::size_t used_before = 0;
    for (int i = 1; i <= SWITCHES; ++i) {
        const bool horizontal = i % 2 == 1;
        const int columns = 2 + i % 4;
        switch_to(app, horizontal);
        g_overheard.made_up = horizontal ? WindowRect{150, 120, 700, 460} : WindowRect{300, 200, 320, 600};
        ASSERT_TRUE(g_timers.fire(MOVE_MS) && g_timers.fire(SETTLE_MS));
        live.watch(content_of(app));
        app.relayout_cores(columns);
        live.watch(content_of(app));
        ASSERT_EQ(stored(!horizontal), left);
        left = rect_text(*g_overheard.made_up) + ", " + std::to_string(columns) + " columns";
        ASSERT_EQ(stored(horizontal), left);
        if (i % PAINTED == 0) {
            ASSERT_TRUE(settle(app.m_window));
        }
        g_overheard.forget();
        if (i == WARM_UP) {
            used_before = mallinfo2().uordblks;
        }
    }
    EXPECT_TRUE(iterate_until([&] { return live.count() == widgets_below(content_of(app)); })) << live.count();
    EXPECT_LT(mallinfo2().uordblks, used_before + GENEROUS);
    EXPECT_THAT(g_timers.all, IsEmpty());
}
