/// The settings dialog: the window, its content, and what each of its controls does.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "app.h"
#include "desktop/settings_dialog.h"
#include "desktop/widgets.h"
#include "live_app.h"

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

using Dialog = DialogTest;
using Content = DialogTest;
using Columns = DialogTest;
using Orientation = DialogTest;
using Theme = DialogTest;
using Language = DialogTest;
using Colors = DialogTest;
using Rebuild = DialogTest;
using Links = DesktopTest;

class ColumnsHorizontally : public DialogTest {
protected:
    explicit ColumnsHorizontally(int columns) : DialogTest({.clusters = {4, 2}, .horizontal = true, .columns = columns})
    {
        settings().orientation = "horizontal";
        open_and_listen();
    }

    /// Asks for another number of columns.
    void apply(int columns)
    {
        app.m_num_columns = columns;
        click(button_in(app.m_settings_box, "Apply"));
    }
};

struct OneColumn : ColumnsHorizontally {
    OneColumn() : ColumnsHorizontally(1) {}
};
struct TwoColumns : ColumnsHorizontally {
    TwoColumns() : ColumnsHorizontally(2) {}
};
struct FiveClusters : DialogTest {
    FiveClusters() : DialogTest({.clusters = {1, 1, 1, 1, 1}}) {}
};

/// A combo box that stands nowhere.
class LooseCombo {
public:
    explicit LooseCombo(std::initializer_list<const char*> ids) : m_combo(gtk_combo_box_text_new())
    {
        g_object_ref_sink(m_combo);
        for (const char* id : ids) {
            gtk_combo_box_text_append(GTK_COMBO_BOX_TEXT(m_combo), id, id);
        }
    }
    ~LooseCombo()
    {
        gtk_widget_destroy(m_combo);
        g_object_unref(m_combo);
    }
    LooseCombo(const LooseCombo&) = delete;
    LooseCombo& operator=(const LooseCombo&) = delete;

    GtkComboBox* with(const char* active_id)
    {
        gtk_combo_box_set_active_id(GTK_COMBO_BOX(m_combo), active_id);
        return GTK_COMBO_BOX(m_combo);
    }

private:
    GtkWidget* const m_combo;
};

gboolean press(GtkWidget* window, guint key)
{
    GdkEvent* const event = gdk_event_new(GDK_KEY_PRESS);
    event->key.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(window)));
    event->key.keyval = key;
    gdk_event_set_device(event, gdk_seat_get_keyboard(gdk_display_get_default_seat(gtk_widget_get_display(window))));
    const gboolean handled = gtk_widget_event(window, event);
    gdk_event_free(event);
    return handled;
}

std::string place_of(GtkWidget* window)
{
    const WindowRect rect = WindowRect::of(window);
    return std::to_string(rect.x) + "," + std::to_string(rect.y);
}

/// Counts changes of combo boxes that the App would hear of.
gboolean count_heard_changes(GSignalInvocationHint* hint, guint, const GValue* values, gpointer count)
{
    if (g_signal_has_handler_pending(g_value_get_object(values), hint->signal_id, 0, FALSE)) {
        ++*static_cast<int*>(count);
    }
    return TRUE;
}

/// A program that opens links: it notes the link, and its own state as the kernel tells it.
class Opener {
public:
    Opener()
    {
        const std::string applications = m_folder.path() + "/applications";
        std::filesystem::create_directories(applications);
        // No second process before the state is noted: shells change their signals for those
        write_text(path("opener"), "#!/bin/sh\necho \"$1\" > " + path("link") + "\nexec cp /proc/self/status " + path("status") + "\n");
        std::filesystem::permissions(path("opener"), std::filesystem::perms::owner_all);
        write_text(applications + "/opener.desktop", "[Desktop Entry]\nType=Application\nName=Opener\nExec=" + path("opener") + " %u\n");
        write_text(applications + "/mimeapps.list",
                   "[Default Applications]\nx-scheme-handler/https=opener.desktop\nx-scheme-handler/mailto=opener.desktop\n");
    }

    /// Runs the main loop until the program has noted everything.
    bool is_started() const
    {
        return iterate_until([this] { return status().find("nonvoluntary_ctxt_switches:") != std::string::npos; });
    }

    std::string link() const { return read_text(path("link")); }

    /// As in /proc.
    std::string status() const { return read_text(path("status")); }

private:
    std::string path(const std::string& name) const { return m_folder.path() + "/" + name; }

    TemporaryFolder m_folder;
    ScopedEnv m_data_home{"XDG_DATA_HOME", m_folder.path()};
};

/// One of the signal sets of a process's or thread's /proc status, such as "SigBlk".
unsigned long long signals_in(const std::string& status, const std::string& name)
{
    return std::stoull(status.substr(status.find(name + ":") + name.size() + 1), nullptr, 16);
}

constexpr unsigned long long INTERRUPT_AND_TERMINATE = (1ULL << (SIGINT - 1)) | (1ULL << (SIGTERM - 1));

const pthread_t g_main_thread = pthread_self();
std::atomic<bool> g_is_ended_by_main_thread{false};

}  // namespace

// The handler of both signals calls it
void gtk_main_quit()
{
    g_is_ended_by_main_thread = pthread_equal(pthread_self(), g_main_thread) != 0;
    next<decltype(gtk_main_quit)>("gtk_main_quit")();
}

// --- the window ---

TEST_F(Dialog, IsMadeByTheFirstClickAndKept)
{
    EXPECT_EQ(app.m_settings_popover, nullptr);
    EXPECT_EQ(app.m_settings_box, nullptr);
    open();
    GtkWidget* const dialog = app.m_settings_popover;
    GtkWidget* const box = app.m_settings_box;
    const std::vector<GtkWidget*> content = all_in(box);
    open();
    EXPECT_EQ(app.m_settings_popover, dialog);
    EXPECT_EQ(app.m_settings_box, box);
    EXPECT_EQ(all_in(box), content);
}

TEST_F(Dialog, GearOpensIt)
{
    click(button_in(app.m_window, "⚙"));
    ASSERT_NE(app.m_settings_popover, nullptr);
    EXPECT_TRUE(gtk_widget_get_visible(app.m_settings_popover));
}

TEST_F(Dialog, IsAFixedDialogAboveTheMainWindow)
{
    ASSERT_TRUE(app.show());
    open();
    ASSERT_TRUE(settle(app.m_settings_popover));
    GtkWindow* const dialog = GTK_WINDOW(app.m_settings_popover);
    EXPECT_EQ(gtk_window_get_window_type(dialog), GTK_WINDOW_TOPLEVEL);
    EXPECT_STREQ(gtk_window_get_title(dialog), "Settings");
    EXPECT_FALSE(gtk_window_get_resizable(dialog));
    EXPECT_FALSE(gtk_window_get_modal(dialog));
    EXPECT_EQ(gtk_window_get_type_hint(dialog), GDK_WINDOW_TYPE_HINT_DIALOG);
    EXPECT_EQ(gtk_window_get_transient_for(dialog), GTK_WINDOW(app.m_window));
    EXPECT_TRUE(iterate_until([&] { return gdk_window_get_state(gtk_widget_get_window(GTK_WIDGET(dialog))) & GDK_WINDOW_STATE_ABOVE; }));
}

TEST_F(Dialog, HoldsOneBox)
{
    open();
    EXPECT_THAT(children_of(app.m_settings_popover), ElementsAre(app.m_settings_box));
    EXPECT_EQ(describe_content(app.m_settings_box).front(), "box vertical spacing 6 request 280x-1 .popover-box");
}

TEST_F(Dialog, ShowsAllOfItsContent)
{
    ASSERT_TRUE(app.show());
    open();
    ASSERT_TRUE(settle(app.m_settings_popover));
    for (GtkWidget* const child : children_of(app.m_settings_box)) {
        EXPECT_TRUE(gtk_widget_is_drawable(child)) << G_OBJECT_TYPE_NAME(child);
    }
}

TEST_F(Dialog, TitleIsTranslated)
{
    speak("de");
    open();
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(app.m_settings_popover)), "Einstellungen");
}

TEST_F(Dialog, StandsInTheMiddleOfTheWindow)
{
    open();
    g_overheard = {};
    GtkWindow* const main = GTK_WINDOW(app.m_window);
    GtkWindow* const dialog = GTK_WINDOW(app.m_settings_popover);
    g_overheard.made_up[dialog] = {.x = 7, .y = 7, .width = 300, .height = 600};
    g_overheard.made_up[main] = {.x = 100, .y = 50, .width = 501, .height = 803};
    open();
    g_overheard.made_up[main] = {.x = -40, .y = -50, .width = 201, .height = 403};  // halves of odd negative numbers: towards zero
    open();
    EXPECT_THAT(g_overheard.moves, ElementsAre("200,151", "-89,-148"));
}

TEST_F(Dialog, GoesToTheMiddleAgainEachTime)
{
    ASSERT_TRUE(app.show());
    open();
    ASSERT_TRUE(settle(app.m_settings_popover));
    const WindowRect main = WindowRect::of(app.m_window);
    const WindowRect dialog = WindowRect::of(app.m_settings_popover);
    const std::string middle =
        std::to_string(main.x + (main.width - dialog.width) / 2) + "," + std::to_string(main.y + (main.height - dialog.height) / 2);
    EXPECT_TRUE(iterate_until([&] { return place_of(app.m_settings_popover) == middle; })) << middle;
    gtk_window_move(GTK_WINDOW(app.m_settings_popover), 3, 5);
    EXPECT_TRUE(iterate_until([&] { return place_of(app.m_settings_popover) == "3,5"; }));
    open();
    EXPECT_TRUE(iterate_until([&] { return place_of(app.m_settings_popover) == middle; })) << middle;
}

TEST_F(Dialog, ClosingHidesItAndTheGearShowsItAgain)
{
    ASSERT_TRUE(app.show());
    open();
    ASSERT_TRUE(settle(app.m_settings_popover));
    const Destroyed content(app.m_settings_box);
    gtk_window_close(GTK_WINDOW(app.m_settings_popover));
    EXPECT_TRUE(iterate_until([&] { return !gtk_widget_get_visible(app.m_settings_popover); }));
    EXPECT_FALSE(content);
    open();
    EXPECT_TRUE(settle(app.m_settings_popover));
}

TEST_F(Dialog, EscapeHidesItAndOtherKeysDoNot)
{
    open();
    press(app.m_settings_popover, GDK_KEY_F5);
    press(app.m_settings_popover, GDK_KEY_Tab);
    EXPECT_TRUE(gtk_widget_get_visible(app.m_settings_popover));
    EXPECT_TRUE(press(app.m_settings_popover, GDK_KEY_Escape));
    EXPECT_FALSE(gtk_widget_get_visible(app.m_settings_popover));
}

TEST_F(Dialog, OpeningSavesAndQueuesNothing)
{
    listen();
    open();
    EXPECT_FALSE(is_saved());
    EXPECT_THAT(g_overheard.idles, IsEmpty());
}

TEST_F(Dialog, ExpanderIsClosedAtFirstAndThenStaysAsItWasLeft)
{
    open();
    EXPECT_FALSE(gtk_expander_get_expanded(GTK_EXPANDER(app.m_colors_expander)));
    gtk_expander_set_expanded(GTK_EXPANDER(app.m_colors_expander), TRUE);
    gtk_widget_hide(app.m_settings_popover);
    open();
    EXPECT_TRUE(gtk_expander_get_expanded(GTK_EXPANDER(app.m_colors_expander)));
}

// --- the content ---

TEST_F(Content, IsThisTree)
{
    const ScopedEnv outside_snap("SNAP_REVISION", std::nullopt);
    open();
    EXPECT_THAT(
        describe_content(app.m_settings_box),
        ElementsAre("box vertical spacing 6 request 280x-1 .popover-box",  //
                    "- start: box horizontal spacing 6",                   //
                    "- - start expand fill: label \"Orientation\" xalign 0 .settings-label",
                    "- - end: combo request 140x-1 .settings-combo",  //
                    "- start: frame \"Columns\" .settings-label",
                    "- - box horizontal spacing 6 margin-start 6 margin-end 6 margin-top 4 margin-bottom 6",
                    "- - - start: button \"−\" raised",                        //
                    "- - - start: label \"1\" request 28x-1 .settings-label",  //
                    "- - - start: button \"+\" raised",                        //
                    "- - - end: button \"Apply\" raised",                      //
                    "- start: box horizontal spacing 6",                       //
                    "- - start expand fill: label \"Language\" xalign 0 .settings-label",
                    "- - end: combo wrap-width 3 request 140x-1 .settings-combo",  //
                    "- start: box horizontal spacing 6",                           //
                    "- - start expand fill: label \"Theme\" xalign 0 .settings-label",
                    "- - end: combo request 140x-1 .settings-combo",    //
                    "- start: expander \"Colors\" .settings-expander",  //
                    "- - box vertical spacing 3 margin-start 4 margin-top 4",
                    "- - - start: box horizontal spacing 6",  //
                    "- - - - start expand fill: label \"Background\" xalign 0 ellipsize end .settings-label",
                    "- - - - end: color button .color .color-swatch",  //
                    "- - - start: box horizontal spacing 6",           //
                    "- - - - start expand fill: label \"Panels\" xalign 0 ellipsize end .settings-label",
                    "- - - - end: color button .color .color-swatch",  //
                    "- - - start: box horizontal spacing 6",           //
                    "- - - - start expand fill: label \"Text\" xalign 0 ellipsize end .settings-label",
                    "- - - - end: color button .color .color-swatch",  //
                    "- - - start: box horizontal spacing 6",           //
                    "- - - - start expand fill: label \"Gear\" xalign 0 ellipsize end .settings-label",
                    "- - - - end: color button .color .color-swatch",  //
                    "- - - start: box horizontal spacing 6",           //
                    "- - - - start expand fill: label \"Total\" xalign 0 ellipsize end .settings-label",
                    "- - - - end: color button .color .color-swatch",  //
                    "- - - start: box horizontal spacing 6",           //
                    "- - - - start expand fill: label \"Cluster 1\" xalign 0 ellipsize end .settings-label",
                    "- - - - end: color button .color .color-swatch",  //
                    "- - - start: box horizontal spacing 6",           //
                    "- - - - start expand fill: label \"Cluster 2\" xalign 0 ellipsize end .settings-label",
                    "- - - - end: color button .color .color-swatch",            //
                    "- - - start: button \"Reset colors\" raised margin-top 4",  //
                    "- start padding 2: separator horizontal",                   //
                    "- start: label \"Vantric\" .about-name",                    //
                    "- start: label \"v1.15\" .about-version",                   //
                    "- start: label \"Developed by\" .about-dim",                //
                    "- start: label \"Ilan Morvay\" .about-dev",                 //
                    "- start: label \"Fennmark Software\" .about-dim",           //
                    "- start: label \"2026\" .about-dim",                        //
                    "- start: link \"vantric.example\" to https://vantric.example/ .flat .link",
                    "- start: link \"contact@vantric.example\" to mailto:contact@vantric.example .flat .link",
                    "- start padding 2: separator horizontal",              //
                    "- start: box vertical spacing 4 .disclaimer-box",      //
                    "- - start: label \"Disclaimer\" xalign 0 .about-dim",  //
                    "- - start: label \"This software is provided \"as is\", without warranty of any kind, express or implied. Use at your "
                    "own risk. The author shall not be liable for any damages arising from the use of this software.\" xalign 0 wrap word "
                    "max-width-chars 38 .disclaimer-text"));
}

TEST_F(Content, IsTranslated)
{
    speak("de");
    open();
    std::vector<std::string> texts;
    for (GtkWidget* const widget : all_in(app.m_settings_box)) {
        if (GTK_IS_LABEL(widget)) {
            texts.push_back(text_of(widget));
        }
    }
    for (const char* const text : {"Ausrichtung", "Spalten", "Anwenden", "Sprache", "Erscheinungsbild", "Farben", "Hintergrund", "Kästen",
                                   "Text", "Zahnrad", "Gesamt", "Farben zurücksetzen", "Entwickelt von", "Haftungsausschluss"}) {
        EXPECT_THAT(texts, Contains(text));
    }
    EXPECT_THAT(texts, Contains(HasSubstr("Nutzung erfolgt auf eigene Gefahr")));
    EXPECT_THAT(texts, Not(Contains("Settings")));
    EXPECT_THAT(items_of(combo_of(app, Row::ORIENTATION)), ElementsAre("vertical: Vertikal", "horizontal: Horizontal"));
    EXPECT_THAT(items_of(combo_of(app, Row::THEME)), ElementsAre("auto: Automatisch", "light: Hell", "dark: Dunkel"));
    EXPECT_EQ(items_of(combo_of(app, Row::LANGUAGE)).front(), "auto: Automatisch");
}

TEST_F(Content, TitleOfTheColumnsIsInTheColorOfTheText)
{
    settings().text_light = "#AB54A9";
    dark(false);
    open();
    GtkWidget* const title = gtk_frame_get_label_widget(GTK_FRAME(children_of(app.m_settings_box).at(1)));
    GdkRGBA color;
    gtk_style_context_get_color(gtk_widget_get_style_context(title), GTK_STATE_FLAG_NORMAL, &color);
    EXPECT_EQ(rgb_to_hex({color.red, color.green, color.blue}), "#AB54A9");
}

TEST_F(Content, OrientationsAreTwo)
{
    open();
    EXPECT_THAT(items_of(combo_of(app, Row::ORIENTATION)), ElementsAre("vertical: Vertical", "horizontal: Horizontal"));
}

TEST_F(Content, ThemesAreThree)
{
    open();
    EXPECT_THAT(items_of(combo_of(app, Row::THEME)), ElementsAre("auto: Automatic", "light: Light", "dark: Dark"));
}

TEST_F(Content, LanguagesStandInByteOrderOfTheirOwnNames)
{
    open();
    EXPECT_THAT(items_of(combo_of(app, Row::LANGUAGE)),
                ElementsAre("auto: Automatic", "id: Bahasa Indonesia", "ms: Bahasa Melayu", "ca: Català", "da: Dansk", "de: Deutsch",
                            "en: English", "es: Español", "fr: Français", "hr: Hrvatski", "it: Italiano", "sw: Kiswahili", "lv: Latviešu",
                            "lt: Lietuvių", "hu: Magyar", "nl: Nederlands", "nb: Norsk bokmål", "pl: Polski", "pt: Português", "ro: Română",
                            "sk: Slovenčina", "sl: Slovenščina", "fi: Suomi", "sv: Svenska", "tl: Tagalog", "vi: Tiếng Việt", "tr: Türkçe",
                            "cs: Čeština", "el: Ελληνικά", "bg: Български", "ru: Русский", "sr: Српски", "uk: Українська", "he: עברית",
                            "ur: اردو", "ar: العربية", "fa: فارسی", "ne: नेपाली", "hi: हिन्दी", "bn: বাংলা", "th: ไทย", "zh: 中文",
                            "ja: 日本語", "zh_TW: 繁體中文", "ko: 한국어"));
}

TEST_F(Content, CombosShowTheSettings)
{
    for (const auto& [orientation, language, theme] :
         std::vector<std::tuple<std::string, std::string, std::string>>{{"vertical", "auto", "auto"}, {"horizontal", "zh_TW", "dark"}}) {
        settings().orientation = orientation;
        settings().language = language;
        settings().theme = theme;
        open();
        EXPECT_EQ(gtk_combo_box_get_active_id(combo_of(app, Row::ORIENTATION)), orientation);
        EXPECT_EQ(gtk_combo_box_get_active_id(combo_of(app, Row::LANGUAGE)), language);
        EXPECT_EQ(gtk_combo_box_get_active_id(combo_of(app, Row::THEME)), theme);
        gtk_widget_destroy(app.m_settings_popover);
        app.m_settings_popover = nullptr;
    }
}

TEST_F(Content, HandlersAreConnectedAfterTheFirstChoice)
{
    g_type_class_unref(g_type_class_ref(GTK_TYPE_COMBO_BOX_TEXT));  // the signal exists from now on
    int heard = 0;
    g_signal_add_emission_hook(g_signal_lookup("changed", GTK_TYPE_COMBO_BOX), 0, count_heard_changes, &heard, nullptr);
    open();
    EXPECT_EQ(heard, 0);
    choose(app, Row::THEME, "dark");
    EXPECT_EQ(heard, 1);
}

TEST_F(Content, ShowsTheNumberOfColumns)
{
    app.m_num_columns = 12;
    open();
    EXPECT_EQ(text_of(app.m_col_label), "12");
}

TEST_F(Content, ControlsAreTiedToTheirLabels)
{
    open();
    std::vector<std::string> names;
    for (GtkWidget* const label : all_in(app.m_settings_box)) {
        GtkWidget* const control = GTK_IS_LABEL(label) ? gtk_label_get_mnemonic_widget(GTK_LABEL(label)) : nullptr;
        if (control != nullptr) {
            EXPECT_EQ(gtk_widget_get_parent(control), gtk_widget_get_parent(label));
            EXPECT_EQ(name_for_screen_readers(control), text_of(label));
            names.push_back(name_for_screen_readers(control));
        }
    }
    EXPECT_THAT(names,
                ElementsAre("Orientation", "Language", "Theme", "Background", "Panels", "Text", "Gear", "Total", "Cluster 1", "Cluster 2"));
}

TEST_F(Content, SnapRevisionStandsBehindTheVersion)
{
    const auto version = [this](const char* revision) {
        const ScopedEnv variable("SNAP_REVISION", revision);
        app.replace_settings_content();
        return text_of(children_of(app.m_settings_box).at(7));
    };
    open();
    EXPECT_EQ(version("x42"), "v1.15 (rev x42)");
    EXPECT_EQ(version(""), "v1.15 (rev )");
}

TEST_F(Content, ColorsUnfoldFromTheSideOfTheLanguage)
{
    open();
    for (const char* language : {"en", "he"}) {
        speak(language);
        app.replace_settings_content();
        ASSERT_TRUE(iterate_until([&] { return gtk_widget_get_allocated_width(app.m_colors_expander) > 1; }));
        GtkWidget* title = gtk_expander_get_label_widget(GTK_EXPANDER(app.m_colors_expander));
        int x = 0;
        gtk_widget_translate_coordinates(title, app.m_colors_expander, gtk_widget_get_allocated_width(title) / 2, 0, &x, nullptr);
        EXPECT_EQ(x > gtk_widget_get_allocated_width(app.m_colors_expander) / 2, I18n::instance().is_rtl()) << language << ' ' << x;
    }
}

TEST_F(Content, AboutTextIsWhatItIsInEveryLanguage)
{
    speak("ja");
    open();
    const std::vector<GtkWidget*> rows = children_of(app.m_settings_box);
    EXPECT_EQ(text_of(rows.at(6)), "Vantric");
    EXPECT_EQ(text_of(rows.at(9)), "Ilan Morvay");
    EXPECT_EQ(text_of(rows.at(10)), "Fennmark Software");
}

// --- links ---

TEST_F(Dialog, LinkThatNothingOpensIsQuiet)
{
    open();
    for (const char* const label : {"vantric.example", "contact@vantric.example"}) {
        GtkWidget* const link = button_in(app.m_settings_box, label);
        gboolean handled = FALSE;
        g_signal_emit_by_name(link, "activate-link", &handled);
        EXPECT_TRUE(handled) << "GTK would open it as well";
        click(link);
    }
}

TEST_F(Links, StartTheirProgramAsAnyOther)
{
    const Opener opener;
    App app;
    run_app(app, [&] {
        App::on_settings_clicked(nullptr, &app);
        click(button_in(app.m_settings_box, "vantric.example"));
        ASSERT_TRUE(opener.is_started());
        EXPECT_EQ(opener.link(), "https://vantric.example/\n");
        EXPECT_EQ(signals_in(opener.status(), "SigBlk") & INTERRUPT_AND_TERMINATE, 0U);
        EXPECT_EQ(signals_in(opener.status(), "SigIgn") & INTERRUPT_AND_TERMINATE, 0U);
    });
    gtk_widget_destroy(app.m_settings_popover);
}

TEST_F(Links, LeaveTheSignalsToTheMainThread)
{
    const Opener opener;
    App app;
    const auto end_while_busy = [&] {
        App::on_settings_clicked(nullptr, &app);
        click(button_in(app.m_settings_box, "contact@vantric.example"));
        ASSERT_TRUE(opener.is_started());
        EXPECT_EQ(opener.link(), "mailto:contact@vantric.example\n");
        // The libraries may have started threads by now, and the main thread does not wait in its poll
        kill(getpid(), SIGTERM);
    };
    run_app(app, end_while_busy, End::BY_ITSELF);
    EXPECT_TRUE(g_is_ended_by_main_thread);
    gtk_widget_destroy(app.m_settings_popover);
}

// --- columns ---

TEST_F(Columns, CountUpTo16)
{
    open();
    for (int shown = 2; shown <= 16; ++shown) {
        click(button_in(app.m_settings_box, "+"));
        EXPECT_EQ(app.m_num_columns, shown);
        EXPECT_EQ(text_of(app.m_col_label), std::to_string(shown));
    }
    click(button_in(app.m_settings_box, "+"));
    EXPECT_EQ(app.m_num_columns, 16);
    EXPECT_EQ(text_of(app.m_col_label), "16");
}

TEST_F(Columns, CountDownTo1)
{
    app.m_num_columns = 16;
    open();
    for (int shown = 15; shown >= 1; --shown) {
        click(button_in(app.m_settings_box, "−"));
        EXPECT_EQ(app.m_num_columns, shown);
        EXPECT_EQ(text_of(app.m_col_label), std::to_string(shown));
    }
    click(button_in(app.m_settings_box, "−"));
    EXPECT_EQ(app.m_num_columns, 1);
    EXPECT_EQ(text_of(app.m_col_label), "1");
}

TEST_F(Columns, NumbersBeyondTheLimitsMoveTowardsThemOnly)
{
    open();
    for (const auto& [from, fewer, more] : {std::tuple{20, 19, 20}, {17, 16, 17}, {0, 0, 1}, {-3, -3, -2}}) {
        for (const auto& [button, to] : {std::pair{"−", fewer}, {"+", more}}) {
            app.m_num_columns = from;
            click(button_in(app.m_settings_box, button));
            EXPECT_EQ(app.m_num_columns, to) << from << button;
            EXPECT_EQ(text_of(app.m_col_label), std::to_string(to));
        }
    }
}

TEST_F(Columns, ApplyWorksWithoutTheDialog)
{
    app.m_num_columns = 3;
    App::on_apply_columns(nullptr, static_cast<App*>(&app));
    EXPECT_EQ(WindowManager::instance().load(false).num_columns, 3);
}

TEST_F(Columns, CountingChangesNothingElse)
{
    ASSERT_TRUE(app.show());
    open_and_listen();
    ASSERT_TRUE(settle(app.m_settings_popover));
    const std::vector<std::string> cells = cells_of(app.m_core_grid);
    const WindowRect before = WindowRect::of(app.m_window);
    const std::string geometry = read_text(home.config() + "/geometry.json");
    click(button_in(app.m_settings_box, "+"));
    click(button_in(app.m_settings_box, "+"));
    click(button_in(app.m_settings_box, "−"));
    EXPECT_EQ(cells_of(app.m_core_grid), cells);
    EXPECT_EQ(WindowRect::of(app.m_window).width, before.width);
    EXPECT_EQ(read_text(home.config() + "/geometry.json"), geometry);
    EXPECT_FALSE(is_saved());
    EXPECT_THAT(g_overheard.idles, IsEmpty());
    EXPECT_TRUE(gtk_widget_get_visible(app.m_settings_popover));
}

TEST_F(Columns, WithoutApplyOnlyTheNextSaveOfTheGeometryKnowsThem)
{
    open();
    const std::vector<std::string> cells = cells_of(app.m_core_grid);
    click(button_in(app.m_settings_box, "+"));
    gtk_window_close(GTK_WINDOW(app.m_settings_popover));
    App::on_delete(app.m_window, nullptr, static_cast<App*>(&app));
    EXPECT_EQ(cells_of(app.m_core_grid), cells);
    EXPECT_EQ(WindowManager::instance().load(false).num_columns, 2);
}

TEST_F(Columns, ApplyMovesTheCardsAtOnceAndHidesTheDialog)
{
    open_and_listen();
    const Destroyed grid(app.m_core_grid);
    for (int i = 0; i < 3; ++i) {
        click(button_in(app.m_settings_box, "+"));
    }
    click(button_in(app.m_settings_box, "Apply"));
    EXPECT_THAT(cells_of(app.m_core_grid),
                ElementsAre("0,0 4x1 header Cluster 1 (4)", "0,1 1x1 card 0", "1,1 1x1 card 1", "2,1 1x1 card 2", "3,1 1x1 card 3",
                            "0,2 4x1 header Cluster 2 (2)", "0,3 1x1 card 4", "1,3 1x1 card 5"));
    EXPECT_FALSE(grid);
    EXPECT_THAT(g_overheard.idles, IsEmpty());
    EXPECT_EQ(WindowManager::instance().load(false).num_columns, 4);
    EXPECT_FALSE(is_saved());
    EXPECT_FALSE(gtk_widget_get_visible(app.m_settings_popover));
}

TEST_F(Columns, ApplyInVerticalOrientationNeverRebuilds)
{
    open_and_listen();
    for (const int columns : {2, 1, 16, 1, 1}) {
        app.m_num_columns = columns;
        click(button_in(app.m_settings_box, "Apply"));
        EXPECT_THAT(g_overheard.idles, IsEmpty()) << columns;
        EXPECT_THAT(cells_of(app.m_core_grid), Contains("0,0 " + std::to_string(columns) + "x1 header Cluster 1 (4)"));
    }
}

TEST_F(OneColumn, BecomingTwoRebuildsTheLayout)
{
    const Destroyed grid(app.m_core_grid);
    apply(2);
    EXPECT_FALSE(gtk_widget_get_visible(app.m_settings_popover));
    EXPECT_FALSE(grid) << "must not happen within the handler";
    EXPECT_THAT(run_idles(), ElementsAre("layout"));
    EXPECT_TRUE(grid);
    EXPECT_EQ(app.m_num_columns, 2);
    EXPECT_THAT(rows_of(app.m_core_grid),
                ElementsAre("header Cluster 1 (4)", "card 0, card 1", "card 2, card 3", "header Cluster 2 (2)", "card 4, card 5"));
}

TEST_F(OneColumn, StayingOneOnlyLaysOutAgain)
{
    apply(1);
    EXPECT_THAT(g_overheard.idles, IsEmpty());
    EXPECT_FALSE(gtk_widget_get_visible(app.m_settings_popover));
    EXPECT_EQ(WindowManager::instance().load(true).num_columns, 1);
}

TEST_F(TwoColumns, BecomingThreeOnlyLaysOutAgain)
{
    const Destroyed box(app.m_core_grid);
    apply(3);
    EXPECT_THAT(g_overheard.idles, IsEmpty());
    EXPECT_FALSE(box);
    EXPECT_THAT(rows_of(app.m_core_grid), ElementsAre("header Cluster 1 (4)", "card 0, card 1, card 2", "card 3, empty, empty",
                                                      "header Cluster 2 (2)", "card 4, card 5, empty"));
    EXPECT_FALSE(gtk_widget_get_visible(app.m_settings_popover));
}

TEST_F(TwoColumns, BecomingOneRebuildsTheLayout)
{
    apply(1);
    EXPECT_FALSE(gtk_widget_get_visible(app.m_settings_popover));
    EXPECT_THAT(run_idles(), ElementsAre("layout"));
    EXPECT_TRUE(GTK_IS_GRID(app.m_core_grid));
}

// --- orientation ---

TEST_F(Orientation, ChangeIsSavedAndTheLayoutComesBeforeTheContent)
{
    open_and_listen();
    choose(app, Row::ORIENTATION, "horizontal");
    EXPECT_EQ(saved(), settings_file({{"orientation", "horizontal"}}));
    EXPECT_THAT(Listening::take(), ElementsAre("saves", "queues"));
    EXPECT_FALSE(app.m_horizontal);
    EXPECT_THAT(run_idles(), ElementsAre("layout", "content"));
    EXPECT_TRUE(app.m_horizontal);
    choose(app, Row::ORIENTATION, "vertical");
    EXPECT_EQ(saved(), settings_file());
    EXPECT_THAT(run_idles(), ElementsAre("layout", "content"));
    EXPECT_FALSE(app.m_horizontal);
}

TEST_F(Orientation, ContentThenShowsTheColumnsOfTheOtherOne)
{
    WindowManager::instance().save(10, 20, 600, 300, 7, true);
    open_and_listen();
    EXPECT_EQ(text_of(app.m_col_label), "1");
    choose(app, Row::ORIENTATION, "horizontal");
    run_idles();
    EXPECT_EQ(text_of(app.m_col_label), "7");
    EXPECT_STREQ(gtk_combo_box_get_active_id(combo_of(app, Row::ORIENTATION)), "horizontal");
    EXPECT_TRUE(gtk_widget_get_visible(app.m_settings_popover));
}

TEST_F(Orientation, NoChoiceAndTheSameChoiceDoNothing)
{
    listen();
    LooseCombo combo({"vertical", "horizontal"});
    App::on_orientation_changed(combo.with(nullptr), static_cast<App*>(&app));
    App::on_orientation_changed(combo.with("vertical"), static_cast<App*>(&app));
    EXPECT_FALSE(is_saved());
    EXPECT_THAT(g_overheard.idles, IsEmpty());
    EXPECT_EQ(settings().orientation, "vertical");
}

TEST_F(Orientation, WithoutADialogOnlyTheLayoutIsRebuilt)
{
    listen();
    LooseCombo combo({"vertical", "horizontal"});
    App::on_orientation_changed(combo.with("horizontal"), static_cast<App*>(&app));
    EXPECT_THAT(run_idles(), ElementsAre("layout"));
}

// --- theme ---

TEST_F(Theme, ChangeOfDarknessAlsoRebuildsTheContent)
{
    dark(false);
    open_and_listen();
    choose(app, Row::THEME, "dark");
    EXPECT_EQ(saved(), settings_file({{"theme", "dark"}}));
    EXPECT_THAT(Listening::take(), ElementsAre("saves", "queues"));
    EXPECT_FALSE(app.m_dark) << "only the idle callback may change it";
    EXPECT_THAT(run_idles(), ElementsAre("theme", "content"));
    EXPECT_TRUE(app.m_dark);
    EXPECT_THAT(color_rows(app), Contains("bg dark Background #1C1C1E"));
    choose(app, Row::THEME, "light");
    EXPECT_EQ(saved(), settings_file({{"theme", "light"}}));
    EXPECT_THAT(run_idles(), ElementsAre("theme", "content"));
    EXPECT_THAT(color_rows(app), Contains("bg light Background #D9D9D9"));
}

TEST_F(Theme, ChangeToTheSchemeInForceLeavesTheContent)
{
    app.apply_theme();
    ASSERT_FALSE(app.m_dark);
    open_and_listen();
    choose(app, Row::THEME, "light");
    EXPECT_EQ(saved(), settings_file({{"theme", "light"}}));
    EXPECT_THAT(run_idles(), ElementsAre("theme"));
    choose(app, Row::THEME, "auto");
    EXPECT_EQ(saved(), settings_file());
    EXPECT_THAT(run_idles(), ElementsAre("theme"));
}

TEST_F(Theme, AutomaticFollowsTheDesktop)
{
    g_object_set(gtk_settings_get_default(), "gtk-theme-name", "Adwaita-dark", nullptr);
    dark(false);
    open_and_listen();
    choose(app, Row::THEME, "auto");
    EXPECT_THAT(run_idles(), ElementsAre("theme", "content"));
    EXPECT_TRUE(app.m_dark);
}

TEST_F(Theme, NoChoiceAndTheSameChoiceDoNothing)
{
    listen();
    LooseCombo combo({"auto", "light", "dark"});
    App::on_theme_changed(combo.with(nullptr), static_cast<App*>(&app));
    App::on_theme_changed(combo.with("auto"), static_cast<App*>(&app));
    EXPECT_FALSE(is_saved());
    EXPECT_THAT(g_overheard.idles, IsEmpty());
}

TEST_F(Theme, WithoutADialogOnlyTheThemeIsApplied)
{
    dark(false);
    listen();
    LooseCombo combo({"auto", "light", "dark"});
    App::on_theme_changed(combo.with("dark"), static_cast<App*>(&app));
    EXPECT_THAT(run_idles(), ElementsAre("theme"));
}

// --- language ---

TEST_F(Language, NoChoiceAndTheSameChoiceDoNothing)
{
    settings().language = "en";
    open_and_listen();
    LooseCombo combo({"auto", "en", "de"});
    App::on_language_changed(combo.with(nullptr), static_cast<App*>(&app));
    App::on_language_changed(combo.with("en"), static_cast<App*>(&app));
    EXPECT_FALSE(is_saved());
    EXPECT_THAT(Listening::take(), IsEmpty());
    EXPECT_EQ(I18n::instance().effective_language(), "en");
}

TEST_F(Language, ChangeIsSavedAndInForceAtOnce)
{
    settings().language = "en";
    open_and_listen();
    choose(app, Row::LANGUAGE, "zh_TW");
    EXPECT_EQ(saved(), settings_file({{"language", "zh_TW"}}));
    EXPECT_EQ(Listening::take().front(), "saves");
    EXPECT_EQ(text_of(app.core(0, 0).name_label), "核心 1");
    EXPECT_THAT(run_idles(), ElementsAre("content"));
}

// --- colours ---

TEST_F(Colors, RowsAreThoseOfTheLightScheme)
{
    dark(false);
    open();
    EXPECT_THAT(color_rows(app), ElementsAre("bg light Background #D9D9D9", "panel light Panels #EBEBEB", "text light Text #404040",
                                             "gear light Gear #CC3326", "total light Total #00A659", "group0 light Cluster 1 #CC3326",
                                             "group1 light Cluster 2 #0080D9"));
}

TEST_F(Colors, RowsAreThoseOfTheDarkScheme)
{
    dark(true);
    open();
    EXPECT_THAT(color_rows(app),
                ElementsAre("bg dark Background #1C1C1E", "panel dark Panels #2C2C2E", "text dark Text #E5E5E7", "gear dark Gear #FFFFFF",
                            "total dark Total #00A659", "group0 dark Cluster 1 #CC3326", "group1 dark Cluster 2 #0080D9"));
}

TEST_F(FiveClusters, ShareTheFirstColour)
{
    open();
    std::vector<std::string> rows = color_rows(app);
    rows.erase(rows.begin(), rows.begin() + 5);
    EXPECT_THAT(rows, ElementsAre("group0 light Cluster 1 #CC3326", "group1 light Cluster 2 #0080D9", "group2 light Cluster 3 #00A659",
                                  "group3 light Cluster 4 #8066D9"));
}

TEST_F(FiveClusters, RowsFollowTheClustersAndSkipWhatIsNoColour)
{
    const std::vector<int> indices = {3, -1, 4, 1, 3};
    for (std::size_t i = 0; i < indices.size(); ++i) {
        app.m_clusters[i].color_index = indices[i];
    }
    open();
    std::vector<std::string> rows = color_rows(app);
    rows.erase(rows.begin(), rows.begin() + 5);
    EXPECT_THAT(rows, ElementsAre("group3 light Cluster 1 #8066D9", "group1 light Cluster 4 #0080D9"));
}

TEST_F(Colors, TextThatIsNoColourShowsAsTransparentBlack)
{
    settings().bg_light = "#12345";
    settings().panel_light = "";
    settings().text_light = "aBcDeF";
    open();
    EXPECT_THAT(color_rows(app), AllOf(Contains("bg light Background #000000 transparent"),
                                       Contains("panel light Panels #000000 transparent"), Contains("text light Text #ABCDEF")));
}

TEST_F(Colors, EachPickChangesItsOwnSettingOfTheSchemeOnly)
{
    for (const bool is_dark : {false, true}) {
        dark(is_dark);
        const std::string scheme = is_dark ? "_dark" : "_light";
        open_and_listen();
        app.replace_settings_content();
        Listening::take();
        for (const auto& [slot, key] : std::vector<std::pair<std::string, std::string>>{{"bg", "bg" + scheme},
                                                                                        {"panel", "panel" + scheme},
                                                                                        {"text", "text" + scheme},
                                                                                        {"gear", "gear" + scheme},
                                                                                        {"total", "total"},
                                                                                        {"group0", "group0"},
                                                                                        {"group1", "group1"}}) {
            settings().reset_colors();
            const std::vector<GtkWidget*> rows = children_of(colors_box_of(app));
            pick(swatch_of(app, slot), "#123ABC");
            EXPECT_EQ(saved(), settings_file({{"theme", is_dark ? "dark" : "light"}, {key, "#123ABC"}})) << slot;
            EXPECT_THAT(Listening::take(), ElementsAre("saves", "queues"));
            EXPECT_THAT(run_idles(), ElementsAre("theme")) << slot;
            EXPECT_EQ(children_of(colors_box_of(app)), rows);
            Listening::take();
        }
    }
}

TEST_F(Colors, RowKeepsTheSchemeItWasBuiltIn)
{
    dark(true);
    open_and_listen();
    dark(false);  // as the desktop does, which rebuilds no rows
    pick(swatch_of(app, "bg"), "#123ABC");
    EXPECT_EQ(saved(), settings_file({{"theme", "light"}, {"bg_dark", "#123ABC"}}));
}

TEST_F(Colors, AlphaOfAPickIsIgnored)
{
    open_and_listen();
    pick(swatch_of(app, "total"), "#123ABC", 0.25);
    EXPECT_EQ(saved(), settings_file({{"total", "#123ABC"}}));
}

TEST_F(Colors, GroupOutsideTheFourIsNotSaved)
{
    open_and_listen();
    GtkWidget* const button = swatch_of(app, "group0");
    for (const char* const slot :
         {"group", "group4", "group-1", "group10", "groupx", "group 1", "group4294967296", "group99999999999999999999"}) {
        g_object_set_data_full(G_OBJECT(button), "slot", g_strdup(slot), g_free);
        pick(button, "#123ABC");
        EXPECT_FALSE(is_saved()) << slot;
        EXPECT_THAT(g_overheard.idles, IsEmpty()) << slot;
    }
    g_object_set_data_full(G_OBJECT(button), "slot", g_strdup("group3"), g_free);
    pick(button, "#123ABC");
    EXPECT_EQ(saved(), settings_file({{"group3", "#123ABC"}}));
}

TEST_F(Colors, ButtonWithoutASlotDoesNothing)
{
    open_and_listen();
    GtkWidget* const button = swatch_of(app, "bg");
    g_object_set_data(G_OBJECT(button), "slot", nullptr);
    pick(button, "#123ABC");
    EXPECT_FALSE(is_saved());
    EXPECT_THAT(g_overheard.idles, IsEmpty());
    EXPECT_EQ(settings().bg_light, "#D9D9D9");
}

TEST_F(Colors, ResetPutsAllColoursBackAndNothingElse)
{
    settings() = {.language = "en", .theme = "light", .orientation = "horizontal"};
    for (std::string* const color : {&settings().bg_light, &settings().panel_light, &settings().text_light, &settings().gear_light,
                                     &settings().bg_dark, &settings().panel_dark, &settings().text_dark, &settings().gear_dark,
                                     &settings().total, &settings().groups[0], &settings().groups[3]}) {
        *color = "#123ABC";
    }
    open_and_listen();
    EXPECT_EQ(color_of(swatch_of(app, "bg")), "#123ABC");
    click(button_in(app.m_settings_box, "Reset colors"));
    EXPECT_EQ(saved(), settings_file({{"language", "en"}, {"theme", "light"}, {"orientation", "horizontal"}}));
    EXPECT_THAT(Listening::take(), ElementsAre("saves", "queues"));
    EXPECT_THAT(run_idles(), ElementsAre("theme", "content"));
    EXPECT_EQ(color_of(swatch_of(app, "bg")), "#D9D9D9");
}

TEST_F(Colors, ResetWithoutADialogOnlyAppliesTheTheme)
{
    listen();
    App::on_reset_colors(nullptr, static_cast<App*>(&app));
    EXPECT_EQ(saved(), settings_file());
    EXPECT_THAT(run_idles(), ElementsAre("theme"));
}

TEST_F(Colors, ChoosersTellWhichColorOfWhat)
{
    const auto title = [&](const char* slot) { return std::string(gtk_color_button_get_title(GTK_COLOR_BUTTON(swatch_of(app, slot)))); };
    dark(false);
    open_and_listen();
    EXPECT_EQ(title("bg"), "Colors – Background (Light)");
    EXPECT_EQ(title("gear"), "Colors – Gear (Light)");
    EXPECT_EQ(title("total"), "Colors – Total");
    EXPECT_EQ(title("group1"), "Colors – Cluster 2");
    choose(app, Row::THEME, "dark");
    run_idles();
    choose(app, Row::LANGUAGE, "de");
    run_idles();
    EXPECT_EQ(title("bg"), "Farben – Hintergrund (Dunkel)");
    EXPECT_EQ(title("total"), "Farben – Gesamt");
}

// --- the content built afresh ---

TEST_F(Rebuild, ReplacesTheWholeContentAndNothingAroundIt)
{
    open_and_listen();
    const Destroyed box(app.m_settings_box);
    std::vector<Destroyed> old;
    for (GtkWidget* const widget : children_of(app.m_settings_box)) {
        old.emplace_back(widget);
    }
    const std::vector<std::string> tree = describe_content(app.m_settings_box);
    app.rebuild_settings_content();
    EXPECT_FALSE(old.front()) << "must not happen at once";
    EXPECT_THAT(run_idles(), ElementsAre("content"));
    EXPECT_TRUE(std::all_of(old.begin(), old.end(), [](const Destroyed& destroyed) { return static_cast<bool>(destroyed); }));
    EXPECT_FALSE(box);
    EXPECT_EQ(describe_content(app.m_settings_box), tree);
    EXPECT_FALSE(is_saved());
}

TEST_F(Rebuild, TitleFollowsTheLanguage)
{
    open_and_listen();
    speak("fr");
    app.rebuild_settings_content();
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(app.m_settings_popover)), "Settings");
    run_idles();
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(app.m_settings_popover)), "Réglages");
}

TEST_F(Rebuild, KeepsTheExpanderAsItIs)
{
    open_and_listen();
    for (const bool expanded : {true, false, true}) {
        gtk_expander_set_expanded(GTK_EXPANDER(app.m_colors_expander), expanded);
        app.rebuild_settings_content();
        run_idles();
        EXPECT_EQ(gtk_expander_get_expanded(GTK_EXPANDER(app.m_colors_expander)) != FALSE, expanded);
    }
}

TEST_F(Rebuild, NeedsADialogAndNothingElse)
{
    listen();
    app.rebuild_settings_content();
    EXPECT_THAT(g_overheard.idles, IsEmpty());
    open();
    app.rebuild_settings_content();
    GtkWidget* const dialog = std::exchange(app.m_settings_popover, nullptr);
    app.m_colors_expander = nullptr;
    EXPECT_THAT(run_idles(), ElementsAre("content"));
    EXPECT_FALSE(gtk_expander_get_expanded(GTK_EXPANDER(app.m_colors_expander)));
    app.rebuild_settings_content();
    app.m_settings_box = nullptr;
    EXPECT_THAT(run_idles(), ElementsAre("nothing"));
    app.m_settings_popover = dialog;
}

TEST_F(Rebuild, KeyboardFocusStaysInItsPlace)
{
    open_and_listen();
    gtk_widget_grab_focus(button_in(app.m_settings_box, "+"));
    app.rebuild_settings_content();
    run_idles();
    EXPECT_EQ(gtk_window_get_focus(GTK_WINDOW(app.m_settings_popover)), button_in(app.m_settings_box, "+"));
    gtk_widget_grab_focus(GTK_WIDGET(combo_of(app, Row::THEME)));
    app.rebuild_settings_content();
    run_idles();
    EXPECT_TRUE(gtk_widget_is_ancestor(gtk_window_get_focus(GTK_WINDOW(app.m_settings_popover)), GTK_WIDGET(combo_of(app, Row::THEME))));
    gtk_window_set_focus(GTK_WINDOW(app.m_settings_popover), nullptr);
    app.rebuild_settings_content();
    run_idles();
    EXPECT_EQ(gtk_window_get_focus(GTK_WINDOW(app.m_settings_popover)), nullptr);
}

TEST_F(Rebuild, ShowsTheNewContentInTheOpenDialog)
{
    ASSERT_TRUE(app.show());
    open();
    ASSERT_TRUE(settle(app.m_settings_popover));
    const Destroyed old(children_of(app.m_settings_box).front());
    choose(app, Row::THEME, "dark");
    EXPECT_FALSE(old);
    ASSERT_TRUE(iterate_until([&] { return static_cast<bool>(old); }));
    ASSERT_TRUE(settle(app.m_settings_popover));
    for (GtkWidget* const child : children_of(app.m_settings_box)) {
        EXPECT_TRUE(gtk_widget_is_drawable(child)) << G_OBJECT_TYPE_NAME(child);
    }
}

TEST_F(Rebuild, HappensOnceForEachRequest)
{
    open();
    Listening listening(app);
    app.rebuild_settings_content();
    Destroyed first(children_of(app.m_settings_box).front());
    ASSERT_TRUE(iterate_until([&] { return static_cast<bool>(first); }));
    const Destroyed second(children_of(app.m_settings_box).front());
    bool idle = false;
    g_idle_add_full(
        G_PRIORITY_LOW, [](gpointer done) -> gboolean { return *static_cast<bool*>(done) = true, G_SOURCE_REMOVE; }, &idle, nullptr);
    ASSERT_TRUE(iterate_until([&] { return idle; }));
    EXPECT_FALSE(second);
}
