/// Another language in the running interface: what changes, in which order, and what stays as it is.
#include <gdk/gdkx.h>
#include <malloc.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/settings_dialog.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;

namespace {

class Change : public DialogTest {
protected:
    explicit Change(const Shape& shape = {.clusters = {3, 2}}) : DialogTest(shape)
    {
        settings().language = "en";
        settings().theme = "light";
        app.apply_theme();
    }

    /// As the handler of the combo box does, but for the file.
    void change(const char* language)
    {
        I18n::instance().set_language(language);
        app.retranslate();
    }

    std::vector<std::string> section_titles() const
    {
        std::vector<std::string> titles;
        for (const auto& ui : app.m_clusters_ui) {
            titles.push_back(text_of(ui.name_label));
        }
        return titles;
    }

    std::vector<std::string> card_titles() const
    {
        std::vector<std::string> titles;
        for (const auto& ui : app.m_clusters_ui) {
            for (const auto& core : ui.cores) {
                titles.push_back(text_of(core.name_label));
            }
        }
        return titles;
    }

    GtkWidget* gear() const { return button_in(app.m_window, "⚙"); }

    std::string stylesheet() const
    {
        gchar* const text = gtk_css_provider_to_string(app.m_css);
        std::string css = text;
        g_free(text);
        return css;
    }

    /// Gives the window that width, without showing it.
    void allocate(int width)
    {
        gtk_widget_show_all(gtk_bin_get_child(GTK_BIN(app.m_window)));
        GtkAllocation place{.x = 0, .y = 0, .width = width, .height = 600};
        gtk_widget_size_allocate(app.m_window, &place);
    }

    /// Middle of the gear within the window, in pixels from the left.
    int gear_place() const
    {
        int x = 0;
        int y = 0;
        gtk_widget_translate_coordinates(gear(), app.m_window, gtk_widget_get_allocated_width(gear()) / 2, 0, &x, &y);
        return x;
    }
};

using Sections = Change;
using Cards = Change;
using ForScreenReaders = Change;

std::vector<std::string> g_accessibles;  // the kinds of what GTK has made for screen readers
using Direction = Change;
using Missing = Change;
using InTheDialog = Change;
using AllLanguages = Change;

struct OneCard : Change {
    OneCard() : Change({.clusters = {1}}) {}
};

struct TwoCardsInThreeColumns : Change {
    TwoCardsInThreeColumns() : Change({.clusters = {2}, .columns = 3})
    {
        app.m_cpu_reader->m_cores.resize(2);
        app.m_sys_metrics->m_mem_used_gb = 5.0;
        app.m_sys_metrics->m_mem_total_gb = 16.0;
    }

    void show_at(int width)
    {
        ASSERT_TRUE(app.show());
        gtk_window_resize(GTK_WINDOW(app.m_window), width, 400);
        ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_window) == width; })) << width;
        ASSERT_TRUE(settle(app.m_window));
    }

    /// By now every label knows its font, so measured again the same texts have to be chosen.
    void expect_texts_that_fit(const std::string& when)
    {
        ASSERT_TRUE(settle(app.m_window));
        const std::vector<std::string> titles = card_titles();
        const std::string info = text_of(app.m_info_label);
        app.fit_core_labels(gtk_widget_get_allocated_width(app.m_window));
        app.update_info_line();
        EXPECT_EQ(titles, card_titles()) << when;
        EXPECT_EQ(info, text_of(app.m_info_label)) << when;
    }
};

struct NarrowCards : Change {
    NarrowCards() : Change({.clusters = {9}, .columns = 3}) {}

    static constexpr int WIDE = 500;

    bool has_short_titles() const
    {
        const auto& cores = app.m_clusters_ui[0].cores;
        return std::any_of(cores.begin(), cores.end(), [](const App::CoreWidgets& core) { return core.short_label; });
    }

    /// The least width of the window at which all English titles are long.
    int english_width()
    {
        speak("en");
        int width = WIDE;
        while (!has_short_titles()) {
            app.fit_core_labels(--width);
        }
        return width + 1;
    }
};

/// The program itself, with its own main loop.
class Running : public DesktopTest {
protected:
    ~Running() override { g_overheard = {}; }

    void run(const std::function<void()>& test)
    {
        home.lay("settings.json", settings_file({{"language", "en"}, {"theme", "light"}}));
        machine.cpus(2).stat({{}, {}});
        run_app(app, test);
        if (app.m_settings_popover != nullptr) {
            gtk_widget_destroy(app.m_settings_popover);
        }
    }

    void open_and_expand()
    {
        App::on_settings_clicked(nullptr, &app);
        ASSERT_TRUE(settle(app.m_settings_popover));
        gtk_expander_set_expanded(GTK_EXPANDER(app.m_colors_expander), TRUE);
    }

    /// Chooses a language by the combo box, and waits for the dialog's new content.
    void choose_language(const char* language)
    {
        const Destroyed content(children_of(app.m_settings_box).front());
        choose(app, Row::LANGUAGE, language);
        ASSERT_TRUE(iterate_until([&] { return static_cast<bool>(content); }));
    }

    App app;
};

GtkTextDirection other(GtkTextDirection direction)
{
    return direction == GTK_TEXT_DIR_LTR ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR;
}

/// The types of all widgets in one.
std::vector<std::string> kinds_in(GtkWidget* root)
{
    std::vector<std::string> kinds;
    for (GtkWidget* const widget : all_in(root)) {
        kinds.emplace_back(G_OBJECT_TYPE_NAME(widget));
    }
    return kinds;
}

}  // namespace

void atk_object_initialize(AtkObject* object, gpointer widget)
{
    g_accessibles.emplace_back(G_OBJECT_TYPE_NAME(object));
    next<decltype(atk_object_initialize)>("atk_object_initialize")(object, widget);
}

// --- the order of the steps ---

TEST_F(OneCard, StepsComeInTheirOrder)
{
    allocate(300);
    open_and_listen();
    choose(app, Row::LANGUAGE, "ar");
    EXPECT_THAT(Listening::take(),
                ElementsAre("saves", "sets the default direction", "loads the stylesheet", "turns the window", "turns the dialog",
                            "titles a section", "titles a card", "measures cards", "ticks", "queues"));
    EXPECT_THAT(run_idles(), ElementsAre("content"));
}

TEST_F(OneCard, StepsWithoutADialogLeaveItOut)
{
    allocate(300);
    listen();
    change("ar");
    EXPECT_THAT(Listening::take(), ElementsAre("sets the default direction", "loads the stylesheet", "turns the window", "titles a section",
                                               "titles a card", "measures cards", "ticks"));
    EXPECT_EQ(app.m_settings_popover, nullptr);
}

// --- section headers and cards ---

TEST_F(Sections, AreRelabelledWithTheirCount)
{
    change("da");
    EXPECT_THAT(section_titles(), ElementsAre("Klynge 1 (3)", "Klynge 2 (2)"));
    change("de");
    EXPECT_THAT(section_titles(), ElementsAre("Cluster 1 (3)", "Cluster 2 (2)"));
}

TEST_F(Sections, WithAPlainNameAreTranslatedToo)
{
    app.m_clusters[0].name_key = "Performance";
    app.m_clusters[0].name_index = -1;
    app.m_clusters[1].name_key = "Balanced-H";
    app.m_clusters[1].name_index = -1;
    change("de");
    EXPECT_THAT(section_titles(), ElementsAre("Leistung (3)", "Ausgewogen (H) (2)"));
    change("ar");
    EXPECT_EQ(section_titles()[1], "متوازن (H) (2)");
}

TEST_F(Sections, CalledCpuKeepThatWordInEveryLanguage)
{
    app.m_clusters[0].name_key = "CPU";
    app.m_clusters[0].name_index = -1;
    for (const char* const language : {"de", "ar", "ja", "zh_TW", "en"}) {
        change(language);
        EXPECT_EQ(section_titles()[0], "CPU (3)") << language;
    }
}

TEST_F(Sections, TitlesAreCutAt95Bytes)
{
    app.m_clusters[0].name_index = -1;
    app.m_clusters[1].name_index = -1;
    app.m_clusters[0].name_key = std::string(92, 'x');
    app.m_clusters[1].name_key = std::string(91, 'y');
    change("de");
    EXPECT_THAT(section_titles(), ElementsAre(std::string(92, 'x') + " (3", std::string(91, 'y') + " (2)"));
}

TEST_F(Cards, AreRelabelled)
{
    change("de");
    EXPECT_THAT(card_titles(), ElementsAre("Kern 1", "Kern 2", "Kern 3", "Kern 4", "Kern 5"));
    change("ar");
    EXPECT_EQ(card_titles()[4], "النواة 5");
    change("hu");
    EXPECT_EQ(card_titles()[4], "5. mag");
}

TEST_F(Cards, AndEverythingAroundThemStayTheSameWidgets)
{
    ASSERT_TRUE(app.show());
    GtkWidget* const window = app.m_window;
    GdkWindow* const on_screen = gtk_widget_get_window(window);
    const XID number = gdk_x11_window_get_xid(on_screen);
    const WindowRect before = WindowRect::of(window);
    const std::vector<GtkWidget*> widgets = all_in(window);
    const std::vector<std::string> cells = cells_of(app.m_core_grid);
    change("ar");
    ASSERT_TRUE(settle(window));
    EXPECT_EQ(all_in(app.m_window), widgets);
    EXPECT_EQ(cells_of(app.m_core_grid).size(), cells.size());
    EXPECT_EQ(gtk_widget_get_window(window), on_screen);
    EXPECT_EQ(gdk_x11_window_get_xid(gtk_widget_get_window(window)), number);
    EXPECT_EQ(WindowRect::of(window).x, before.x);
    EXPECT_EQ(WindowRect::of(window).y, before.y);
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(window)), "Vantric");
}

TEST_F(NarrowCards, GetTheShortTitleWhereTheNewOneDoesNotFit)
{
    allocate(english_width());
    change("en");
    EXPECT_THAT(card_titles(), Each(HasSubstr("Core ")));
    change("lt");
    EXPECT_THAT(card_titles(), ElementsAre("1", "2", "3", "4", "5", "6", "7", "8", "9"));
    change("en");
    EXPECT_THAT(card_titles(), Each(HasSubstr("Core ")));
}

TEST_F(TwoCardsInThreeColumns, HaveTheTitlesThatFitInTheNewFont)
{
    speak("ar");
    show_at(192);
    change("en");
    expect_texts_that_fit("Arabic to English");
    show_at(186);
    change("ja");
    expect_texts_that_fit("English to Japanese");
}

TEST_F(TwoCardsInThreeColumns, HaveTheTextsThatFitInTheNewFontAtAnyWidth)
{
    ASSERT_TRUE(app.show());
    for (int width = 160; width < 240; width += 4) {
        show_at(width);
        for (const char* const language : {"ja", "en"}) {
            change(language);
            expect_texts_that_fit(language + (" at " + std::to_string(width)));
        }
    }
}

TEST_F(TwoCardsInThreeColumns, FollowAFontThatTheDesktopChanges)
{
    GtkCssProvider* const desktop = gtk_css_provider_new();
    GdkScreen* const screen = gdk_screen_get_default();
    gtk_css_provider_load_from_data(desktop, ".core-label, .info-line { font-size: 14px; }", -1, nullptr);
    for (int width = 160; width < 240; width += 4) {
        show_at(width);
        gtk_style_context_add_provider_for_screen(screen, GTK_STYLE_PROVIDER(desktop), GTK_STYLE_PROVIDER_PRIORITY_USER);
        expect_texts_that_fit("a large font at " + std::to_string(width));
        gtk_style_context_remove_provider_for_screen(screen, GTK_STYLE_PROVIDER(desktop));
        expect_texts_that_fit("the usual font at " + std::to_string(width));
    }
    g_object_unref(desktop);
}

TEST_F(NarrowCards, KeepTheShortTitleWhereNoneFits)
{
    allocate(english_width() - 40);
    change("en");
    EXPECT_EQ(card_titles().front(), "1");
    EXPECT_TRUE(app.core(0, 0).short_label);
    change("de");
    EXPECT_EQ(card_titles().front(), "1");
    EXPECT_TRUE(app.core(0, 0).short_label);
}

// --- the other texts ---

TEST_F(Change, StatusIsRewrittenAtOnce)
{
    ASSERT_TRUE(app.show());
    app.m_cpu_reader->m_cores.resize(5);
    app.m_cpu_reader->m_cores[0].usage = 1.0;
    app.m_sys_metrics->m_frequencies = {500.0};
    app.m_sys_metrics->m_max_frequencies = {1000.0};
    change("de");
    EXPECT_THAT(text_of(app.m_info_label), HasSubstr("5 Kerne"));
    EXPECT_THAT(text_of(app.m_throttle_label), HasSubstr("Drosselung"));
    change("ja");
    EXPECT_THAT(text_of(app.m_info_label), HasSubstr("5 コア"));
    EXPECT_THAT(text_of(app.m_throttle_label), Not(HasSubstr("Drosselung")));
}

TEST_F(Change, TooltipOfTheGearStaysUntilTheLayoutIsRebuilt)
{
    open_and_listen();
    choose(app, Row::LANGUAGE, "de");
    run_idles();
    EXPECT_EQ(tooltip_of(gear()), "Settings");
    app.rebuild_layout();
    EXPECT_EQ(tooltip_of(gear()), "Einstellungen");
}

TEST_F(Change, FontFollowsTheLanguage)
{
    EXPECT_THAT(stylesheet(), Not(HasSubstr("sans-serif")));
    change("ja");
    EXPECT_THAT(stylesheet(), HasSubstr("sans-serif"));
    change("ru");
    EXPECT_THAT(stylesheet(), Not(HasSubstr("sans-serif")));
}

// --- for screen readers ---

TEST_F(ForScreenReaders, GearAndChartsAreNamedInTheLanguageInForce)
{
    EXPECT_EQ(name_for_screen_readers(gear()), "Settings");
    EXPECT_EQ(name_for_screen_readers(app.m_total_chart), "Total");
    EXPECT_EQ(name_for_screen_readers(app.core(1, 0).chart), "Core 4");
    change("de");
    EXPECT_EQ(name_for_screen_readers(gear()), "Einstellungen");
    EXPECT_EQ(name_for_screen_readers(app.m_total_chart), "Gesamt");
    EXPECT_EQ(name_for_screen_readers(app.core(1, 0).chart), "Kern 4");
    app.rebuild_layout();
    EXPECT_EQ(name_for_screen_readers(gear()), "Einstellungen");
    EXPECT_EQ(name_for_screen_readers(app.m_total_chart), "Gesamt");
    EXPECT_EQ(name_for_screen_readers(app.core(1, 0).chart), "Kern 4");
}

TEST_F(NarrowCards, HaveTheLongTitleForScreenReaders)
{
    allocate(english_width() - 40);
    change("de");
    EXPECT_EQ(card_titles().front(), "1");
    EXPECT_EQ(name_for_screen_readers(app.core(0, 0).chart), "Kern 1");
}

TEST_F(ForScreenReaders, NothingIsMadeAsLongAsNoneAsks)
{
    g_accessibles.clear();
    app.rebuild_layout();
    ASSERT_TRUE(app.show());
    app.update();
    change("de");
    app.relayout_cores(2);
    app.update();
    ASSERT_TRUE(settle(app.m_window));
    EXPECT_THAT(g_accessibles, IsSubsetOf({"GtkWindowAccessible", "VantricButtonAccessible"}));  // GTK's own, for window and focus
    g_accessibles.clear();
    EXPECT_EQ(name_for_screen_readers(app.core(0, 0).chart), "Kern 1");
    EXPECT_THAT(g_accessibles, ElementsAre("VantricChartAccessible"));
}

TEST_F(ForScreenReaders, NothingIsNamedAtATick)
{
    int names = 0;
    const auto count = +[](AtkObject*, GParamSpec*, gpointer counter) { ++*static_cast<int*>(counter); };
    for (GtkWidget* const widget : {gear(), app.m_total_chart, app.core(0, 0).chart, app.core(1, 1).chart}) {
        g_signal_connect(gtk_widget_get_accessible(widget), "notify::accessible-name", G_CALLBACK(count), &names);
    }
    app.update();
    app.update();
    EXPECT_EQ(names, 0);
    change("de");
    EXPECT_EQ(names, 4);
}

// --- the direction ---

TEST_F(Direction, IsThatOfTheLanguage)
{
    for (const auto& language : I18n::available()) {
        I18n::instance().set_language(language.code);
        gtk_widget_set_default_direction(other(language.rtl ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR));
        App::apply_text_direction();
        EXPECT_EQ(gtk_widget_get_default_direction(), language.rtl ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR) << language.code;
    }
}

TEST_F(Direction, OfWindowAndDialogTurnsAndTheWindowIsMirrored)
{
    ASSERT_TRUE(app.show());
    open();
    ASSERT_TRUE(settle(app.m_settings_popover));
    const int middle = gtk_widget_get_allocated_width(app.m_window) / 2;
    EXPECT_LT(gear_place(), middle);
    change("ar");
    EXPECT_EQ(gtk_widget_get_default_direction(), GTK_TEXT_DIR_RTL);
    EXPECT_EQ(gtk_widget_get_direction(app.m_window), GTK_TEXT_DIR_RTL);
    EXPECT_EQ(gtk_widget_get_direction(app.m_settings_popover), GTK_TEXT_DIR_RTL);
    EXPECT_TRUE(iterate_until([&] { return gear_place() > middle; }));
    change("en");
    EXPECT_EQ(gtk_widget_get_direction(app.m_window), GTK_TEXT_DIR_LTR);
    EXPECT_EQ(gtk_widget_get_direction(app.m_settings_popover), GTK_TEXT_DIR_LTR);
    EXPECT_TRUE(iterate_until([&] { return gear_place() < middle; }));
}

TEST_F(Direction, StaysBetweenTwoLanguagesOfTheSame)
{
    change("ar");
    const std::string css = stylesheet();
    EXPECT_THAT(css, HasSubstr("sans-serif"));
    change("he");
    EXPECT_EQ(gtk_widget_get_direction(app.m_window), GTK_TEXT_DIR_RTL);
    EXPECT_EQ(stylesheet(), css);
    EXPECT_EQ(card_titles().front(), "ליבה 1");
}

// --- what is missing ---

TEST_F(Missing, LabelsAreSkipped)
{
    app.m_clusters_ui[0].name_label = nullptr;
    app.m_clusters_ui[1].cores[0].name_label = nullptr;
    app.m_clusters_ui[1].cores[1].short_label = true;
    change("de");
    EXPECT_EQ(text_of(app.m_clusters_ui[1].name_label), "Cluster 2 (2)");
    EXPECT_EQ(text_of(app.core(0, 2).name_label), "Kern 3");
    EXPECT_EQ(text_of(app.core(1, 1).name_label), "Kern 5");
}

TEST_F(Missing, ClustersEndTheWalk)
{
    app.m_clusters.pop_back();
    change("da");
    EXPECT_THAT(section_titles(), ElementsAre("Klynge 1 (3)", "Cluster 2 (2)"));
}

TEST_F(Missing, SectionsEndTheWalk)
{
    app.m_clusters.emplace_back();
    change("da");
    EXPECT_THAT(section_titles(), ElementsAre("Klynge 1 (3)", "Klynge 2 (2)"));
}

TEST_F(Missing, WindowIsSkipped)
{
    GtkWidget* const window = std::exchange(app.m_window, nullptr);
    change("de");
    EXPECT_EQ(card_titles().front(), "Kern 1");
    EXPECT_THAT(gtk_widget_get_default_direction(), GTK_TEXT_DIR_LTR);
    app.m_window = window;
}

// --- the dialog ---

TEST_F(InTheDialog, OldTextsStandUntilTheMainLoopRunsAgain)
{
    open_and_listen();
    choose(app, Row::LANGUAGE, "de");
    EXPECT_NO_THROW(button_in(app.m_settings_box, "Apply"));
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(app.m_settings_popover)), "Settings");
    EXPECT_EQ(card_titles().front(), "Kern 1");
    EXPECT_THAT(run_idles(), ElementsAre("content"));
    EXPECT_NO_THROW(button_in(app.m_settings_box, "Anwenden"));
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(app.m_settings_popover)), "Einstellungen");
    EXPECT_TRUE(gtk_widget_get_visible(app.m_settings_popover));
    EXPECT_STREQ(gtk_combo_box_get_active_id(combo_of(app, Row::LANGUAGE)), "de");
}

TEST_F(InTheDialog, ExpanderStaysAsItIs)
{
    open_and_listen();
    choose(app, Row::LANGUAGE, "de");
    run_idles();
    EXPECT_FALSE(gtk_expander_get_expanded(GTK_EXPANDER(app.m_colors_expander)));
    gtk_expander_set_expanded(GTK_EXPANDER(app.m_colors_expander), TRUE);
    choose(app, Row::LANGUAGE, "ar");
    run_idles();
    EXPECT_TRUE(gtk_expander_get_expanded(GTK_EXPANDER(app.m_colors_expander)));
}

TEST_F(InTheDialog, TheSameChoiceAgainDoesNothing)
{
    open_and_listen();
    choose(app, Row::LANGUAGE, "de");
    run_idles();
    Listening::take();
    choose(app, Row::LANGUAGE, "de");
    EXPECT_THAT(Listening::take(), IsEmpty());
}

TEST_F(InTheDialog, AutomaticShowsTheDetectedLanguageAndGoesThroughAllSteps)
{
    const ScopedEnv german("LANGUAGE", "de");
    settings().language = "de";
    change("de");
    open_and_listen();
    const std::vector<std::string> titles = card_titles();
    for (const auto& [choice, file] : std::vector<std::pair<std::string, std::map<std::string, std::string>>>{
             {"auto", {{"theme", "light"}}}, {"de", {{"theme", "light"}, {"language", "de"}}}}) {
        choose(app, Row::LANGUAGE, choice.c_str());
        EXPECT_EQ(saved(), settings_file(file));
        EXPECT_THAT(Listening::take(), AllOf(Contains("loads the stylesheet"), Contains("ticks"), Contains("queues")));
        EXPECT_EQ(I18n::instance().effective_language(), "de");
        EXPECT_EQ(I18n::instance().language(), choice);
        EXPECT_EQ(card_titles(), titles);
        EXPECT_THAT(run_idles(), ElementsAre("content"));
        Listening::take();
    }
}

// --- in the running program ---

TEST_F(Running, ChoiceTakesEffectWithTheDialogOpen)
{
    run([&] {
        open_and_expand();
        GtkWidget* const dialog = app.m_settings_popover;
        const Destroyed layout(gtk_bin_get_child(GTK_BIN(app.m_window)));
        choose_language("ar");
        EXPECT_EQ(read_text(home.config() + "/settings.json"), settings_file({{"language", "ar"}, {"theme", "light"}}));
        EXPECT_FALSE(layout);
        EXPECT_EQ(app.m_settings_popover, dialog);
        EXPECT_TRUE(settle(dialog));
        EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(dialog)), "الإعدادات");
        EXPECT_TRUE(gtk_expander_get_expanded(GTK_EXPANDER(app.m_colors_expander)));
        EXPECT_EQ(gtk_widget_get_direction(dialog), GTK_TEXT_DIR_RTL);
        EXPECT_EQ(gtk_widget_get_direction(app.m_col_label), GTK_TEXT_DIR_RTL);
    });
}

TEST_F(Running, RebuiltComboBoxAsksForNothing)
{
    run([&] {
        open_and_expand();
        choose_language("de");
        const Destroyed content(children_of(app.m_settings_box).front());
        const Listening listening(app);
        bool idle = false;
        g_idle_add_full(
            G_PRIORITY_LOW, [](gpointer done) -> gboolean { return *static_cast<bool*>(done) = true, G_SOURCE_REMOVE; }, &idle, nullptr);
        ASSERT_TRUE(iterate_until([&] { return idle; }));
        EXPECT_FALSE(content);
        EXPECT_THAT(g_overheard.calls, Not(Contains("saves")));
    });
}

// --- all languages ---

TEST_F(AllLanguages, KeepTheNumberOfWidgetsAndNeedNoMoreMemoryThanBefore)
{
    constexpr double CACHES = 44 * 20'000.0;  // bytes by which those of the libraries may differ; a content left behind is far more
    open_and_listen();
    gtk_widget_hide(app.m_settings_popover);  // nothing is drawn
    const std::vector<std::string> in_window = kinds_in(app.m_window);
    const std::vector<std::string> in_dialog = kinds_in(app.m_settings_popover);
    double before = 0.0;
    for (int round = 1; round <= 3; ++round) {  // the first two load fonts and fill caches
        before = static_cast<double>(mallinfo2().uordblks);
        for (const auto& language : I18n::available()) {
            choose(app, Row::LANGUAGE, language.code.c_str());
            run_idles();
            EXPECT_EQ(kinds_in(app.m_window), in_window) << language.code;
            EXPECT_EQ(kinds_in(app.m_settings_popover), in_dialog) << language.code;
            EXPECT_EQ(gtk_window_get_title(GTK_WINDOW(app.m_settings_popover)), std::string(I18n::instance().tr("Settings")));
            EXPECT_EQ(card_titles().front(), I18n::instance().trf("Core %d", 1));
            Listening::take();
        }
    }
    const double growth = static_cast<double>(mallinfo2().uordblks) - before;
    EXPECT_LT(growth, CACHES);
}
