/// What tests of the settings dialog and of the language change share: the dialog's parts, the settings file as it is to be, and the
/// calls by which a handler works. Defines functions of the libraries (see calls.h), so only one source of a test program can include it.
#pragma once

#include <gtk/gtk.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/widgets.h"
#include "fake_machine.h"
#include "live_app.h"

// --- what is overheard ---

struct Overheard {
    App* app = nullptr;                        ///< the one that is listened to
    std::vector<std::string> calls;            ///< one of several alike that follow each other
    bool holds_idles = false;                  ///< the App's idle callbacks wait for run_idles()
    std::vector<GSourceFunc> idles;            ///< those that wait
    int stylesheets = 0;                       ///< that were loaded
    std::vector<std::string> moves;            ///< places to which windows were moved
    std::map<GtkWindow*, WindowRect> made_up;  ///< what the program hears of a window in place of the truth

    void note(const std::string& call)
    {
        if (app != nullptr && (calls.empty() || calls.back() != call)) {
            calls.push_back(call);
        }
    }

    /// A window of the App as the notes name it.
    std::string name_of(GtkWidget* window) const
    {
        return window == app->m_window ? "window" : window == app->m_settings_popover ? "dialog" : "something else";
    }

    /// Which title a label is, such as "section", or the name of the card's part; empty for other labels.
    std::string part_of_section(GtkWidget* label) const
    {
        for (const auto& ui : app->m_clusters_ui) {
            if (label == ui.name_label) {
                return "section";
            }
            for (const auto& core : ui.cores) {
                if (label == core.name_label || label == core.pct_label) {
                    return "card";
                }
            }
        }
        return {};
    }
};

inline Overheard g_overheard;

/// Listens to an App until the end of the scope.
struct Listening {
    explicit Listening(App& app) { g_overheard.app = &app; }
    ~Listening() { g_overheard = {}; }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

    static std::vector<std::string> take() { return std::exchange(g_overheard.calls, {}); }
};

extern "C" {

guint g_idle_add(GSourceFunc function, gpointer data)
{
    if (g_overheard.app != nullptr && data == g_overheard.app) {
        g_overheard.note("queues");
        if (g_overheard.holds_idles) {
            g_overheard.idles.push_back(function);
            return 0;
        }
    }
    return next<decltype(g_idle_add)>("g_idle_add")(function, data);
}

int rename(const char* from, const char* to) noexcept
{
    if (std::string_view(to).ends_with("/settings.json")) {
        g_overheard.note("saves");
    }
    return next<int(const char*, const char*)>("rename")(from, to);
}

gboolean gtk_css_provider_load_from_data(GtkCssProvider* provider, const gchar* data, gssize length, GError** error)
{
    g_overheard.note("loads the stylesheet");
    ++g_overheard.stylesheets;
    return next<decltype(gtk_css_provider_load_from_data)>("gtk_css_provider_load_from_data")(provider, data, length, error);
}

void gtk_window_move(GtkWindow* window, gint x, gint y)
{
    g_overheard.moves.push_back(std::to_string(x) + "," + std::to_string(y));
    next<decltype(gtk_window_move)>("gtk_window_move")(window, x, y);
}

void gtk_window_get_position(GtkWindow* window, gint* x, gint* y)
{
    if (const auto found = g_overheard.made_up.find(window); found != g_overheard.made_up.end()) {
        *x = found->second.x;
        *y = found->second.y;
    } else {
        next<decltype(gtk_window_get_position)>("gtk_window_get_position")(window, x, y);
    }
}

void gtk_window_get_size(GtkWindow* window, gint* width, gint* height)
{
    if (const auto found = g_overheard.made_up.find(window); found != g_overheard.made_up.end()) {
        *width = found->second.width;
        *height = found->second.height;
    } else {
        next<decltype(gtk_window_get_size)>("gtk_window_get_size")(window, width, height);
    }
}

void gtk_widget_set_default_direction(GtkTextDirection direction)
{
    g_overheard.note("sets the default direction");
    next<decltype(gtk_widget_set_default_direction)>("gtk_widget_set_default_direction")(direction);
}

void gtk_widget_set_direction(GtkWidget* widget, GtkTextDirection direction)
{
    if (g_overheard.app != nullptr) {
        g_overheard.note("turns the " + g_overheard.name_of(widget));
    }
    next<decltype(gtk_widget_set_direction)>("gtk_widget_set_direction")(widget, direction);
}

void gtk_label_set_text(GtkLabel* label, const gchar* text)
{
    if (g_overheard.app != nullptr) {
        const std::string part = g_overheard.part_of_section(GTK_WIDGET(label));
        if (!part.empty()) {
            g_overheard.note("titles a " + part);
        }
    }
    next<decltype(gtk_label_set_text)>("gtk_label_set_text")(label, text);
}

PangoLayout* gtk_widget_create_pango_layout(GtkWidget* widget, const gchar* text)
{
    if (g_overheard.app != nullptr && g_overheard.part_of_section(widget) == "card") {
        g_overheard.note("measures cards");
    }
    return next<decltype(gtk_widget_create_pango_layout)>("gtk_widget_create_pango_layout")(widget, text);
}

void gtk_widget_queue_draw(GtkWidget* widget)
{
    if (g_overheard.app != nullptr && widget == g_overheard.app->m_total_chart) {
        g_overheard.note("ticks");
    }
    next<decltype(gtk_widget_queue_draw)>("gtk_widget_queue_draw")(widget);
}

}  // extern "C"

/// Becomes true when the widget is destroyed.
class Destroyed {
public:
    explicit Destroyed(GtkWidget* widget) : m_widget(widget) { watch(); }
    ~Destroyed()
    {
        if (m_widget != nullptr) {
            g_object_remove_weak_pointer(G_OBJECT(m_widget), &m_widget);
        }
    }
    Destroyed(const Destroyed& other) : m_widget(other.m_widget) { watch(); }
    Destroyed& operator=(const Destroyed&) = delete;

    explicit operator bool() const { return m_had_widget && m_widget == nullptr; }

private:
    void watch()
    {
        m_had_widget = m_widget != nullptr;
        if (m_had_widget) {
            g_object_add_weak_pointer(G_OBJECT(m_widget), &m_widget);
        }
    }

    gpointer m_widget;
    bool m_had_widget = false;
};

/// Runs the idle callbacks that have waited, in their order, and says what each did: "layout", "theme", "content".
inline std::vector<std::string> run_idles()
{
    std::vector<std::string> done;
    App& app = *g_overheard.app;
    for (const GSourceFunc idle : std::exchange(g_overheard.idles, {})) {
        const Destroyed layout(app.m_window != nullptr ? gtk_bin_get_child(GTK_BIN(app.m_window)) : nullptr);
        const Destroyed content(app.m_settings_box != nullptr ? children_of(app.m_settings_box).at(0) : nullptr);
        const int stylesheets = std::exchange(g_overheard.stylesheets, 0);
        EXPECT_FALSE(idle(&app)) << "it would run again";
        done.push_back(layout ? "layout" : content ? "content" : g_overheard.stylesheets > 0 ? "theme" : "nothing");
        g_overheard.stylesheets += stylesheets;
    }
    return done;
}

// --- the settings file ---

/// The file with the defaults but for these values.
inline std::string settings_file(const std::map<std::string, std::string>& changes = {})
{
    const std::vector<std::pair<std::string, std::string>> defaults = {
        {"language", "auto"},       {"theme", "auto"},         {"orientation", "vertical"}, {"bg_light", "#D9D9D9"},
        {"panel_light", "#EBEBEB"}, {"text_light", "#404040"}, {"gear_light", "#CC3326"},   {"bg_dark", "#1C1C1E"},
        {"panel_dark", "#2C2C2E"},  {"text_dark", "#E5E5E7"},  {"gear_dark", "#FFFFFF"},    {"total", "#00A659"},
        {"group0", "#CC3326"},      {"group1", "#0080D9"},     {"group2", "#00A659"},       {"group3", "#8066D9"}};
    std::string lines;
    for (const auto& [key, value] : defaults) {
        const auto change = changes.find(key);
        lines += (lines.empty() ? "" : ",\n") + ("  \"" + key + "\": \"") + (change != changes.end() ? change->second : value) + '"';
    }
    return "{\n" + lines + "\n}\n";
}

// --- the dialog's parts ---

/// A widget and all below it, parts of GTK's own making included.
inline void collect(GtkWidget* widget, gpointer list)
{
    static_cast<std::vector<GtkWidget*>*>(list)->push_back(widget);
    if (GTK_IS_CONTAINER(widget)) {
        gtk_container_forall(GTK_CONTAINER(widget), collect, list);
    }
}

inline std::vector<GtkWidget*> all_in(GtkWidget* root)
{
    std::vector<GtkWidget*> widgets;
    collect(root, &widgets);
    return widgets;
}

inline GtkWidget* button_in(GtkWidget* root, const std::string& label)
{
    for (GtkWidget* widget : all_in(root)) {
        if (GTK_IS_BUTTON(widget) && g_strcmp0(gtk_button_get_label(GTK_BUTTON(widget)), label.c_str()) == 0) {
            return widget;
        }
    }
    throw std::runtime_error("no button " + label);
}

inline void click(GtkWidget* button)
{
    gtk_button_clicked(GTK_BUTTON(button));
}

enum class Row : std::size_t { ORIENTATION = 0, LANGUAGE = 2, THEME = 3 };

inline GtkComboBox* combo_of(const App& app, Row row)
{
    return GTK_COMBO_BOX(children_of(children_of(app.m_settings_box).at(static_cast<std::size_t>(row))).at(1));
}

/// As the user does by the combo box.
inline void choose(const App& app, Row row, const char* id)
{
    gtk_combo_box_set_active_id(combo_of(app, row), id);
}

/// Id and text of each item, such as "dark: Dark".
inline std::vector<std::string> items_of(GtkComboBox* combo)
{
    std::vector<std::string> items;
    GtkTreeModel* const model = gtk_combo_box_get_model(combo);
    GtkTreeIter item;
    for (gboolean more = gtk_tree_model_get_iter_first(model, &item); more; more = gtk_tree_model_iter_next(model, &item)) {
        gchar* text = nullptr;
        gchar* id = nullptr;
        gtk_tree_model_get(model, &item, gtk_combo_box_get_entry_text_column(combo), &text, gtk_combo_box_get_id_column(combo), &id, -1);
        items.push_back(std::string(id) + ": " + text);
        g_free(text);
        g_free(id);
    }
    return items;
}

inline GtkWidget* colors_box_of(const App& app)
{
    return gtk_bin_get_child(GTK_BIN(app.m_colors_expander));
}

/// The colour button of that slot; null if there is none.
inline GtkWidget* swatch_of(const App& app, const std::string& slot)
{
    for (GtkWidget* row : children_of(colors_box_of(app))) {
        auto* const button = static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(row), "button"));
        if (button != nullptr && slot == static_cast<const char*>(g_object_get_data(G_OBJECT(button), "slot"))) {
            return button;
        }
    }
    return nullptr;
}

inline std::string color_of(GtkWidget* color_button)
{
    GdkRGBA color;
    gtk_color_chooser_get_rgba(GTK_COLOR_CHOOSER(color_button), &color);
    char text[16];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", static_cast<unsigned>(color.red * 255 + 0.5),
                  static_cast<unsigned>(color.green * 255 + 0.5), static_cast<unsigned>(color.blue * 255 + 0.5));
    return std::string(text) + (color.alpha < 1.0 ? " transparent" : "");
}

/// As the user does by the colour dialog.
inline void pick(GtkWidget* color_button, const char* color, double alpha = 1.0)
{
    GdkRGBA rgba;
    gdk_rgba_parse(&rgba, color);
    rgba.alpha = alpha;
    gtk_color_chooser_set_rgba(GTK_COLOR_CHOOSER(color_button), &rgba);
    g_signal_emit_by_name(color_button, "color-set");
}

/// Slot, scheme, title and colour of each row, such as "bg light Background #D9D9D9".
inline std::vector<std::string> color_rows(const App& app)
{
    std::vector<std::string> rows;
    for (GtkWidget* row : children_of(colors_box_of(app))) {
        if (GTK_IS_BOX(row)) {
            GObject* const button = G_OBJECT(g_object_get_data(G_OBJECT(row), "button"));
            rows.push_back(std::string(static_cast<const char*>(g_object_get_data(button, "slot"))) +
                           (GPOINTER_TO_INT(g_object_get_data(button, "dark")) == 1 ? " dark " : " light ") +
                           text_of(children_of(row).at(0)) + " " + color_of(GTK_WIDGET(button)));
        }
    }
    return rows;
}

inline std::string name_for_screen_readers(GtkWidget* widget)
{
    const gchar* const name = atk_object_get_name(gtk_widget_get_accessible(widget));
    return name != nullptr ? name : "";
}

// --- the dialog as text ---

namespace dialog_text {

inline std::string kind_of(GtkWidget* widget)
{
    if (GTK_IS_COMBO_BOX_TEXT(widget)) {
        const int wrap_width = gtk_combo_box_get_wrap_width(GTK_COMBO_BOX(widget));
        return "combo" + (wrap_width > 0 ? " wrap-width " + std::to_string(wrap_width) : std::string());
    }
    if (GTK_IS_COLOR_BUTTON(widget)) {
        return std::string("color button") + (gtk_color_chooser_get_use_alpha(GTK_COLOR_CHOOSER(widget)) ? " with alpha" : "");
    }
    if (GTK_IS_LINK_BUTTON(widget)) {
        return std::string("link \"") + gtk_button_get_label(GTK_BUTTON(widget)) + "\" to " +
               gtk_link_button_get_uri(GTK_LINK_BUTTON(widget));
    }
    if (GTK_IS_FRAME(widget)) {
        return std::string("frame \"") + gtk_frame_get_label(GTK_FRAME(widget)) + '"' +
               classes_of(gtk_frame_get_label_widget(GTK_FRAME(widget)));
    }
    if (GTK_IS_EXPANDER(widget)) {
        return std::string("expander \"") + gtk_expander_get_label(GTK_EXPANDER(widget)) + '"';
    }
    if (GTK_IS_SEPARATOR(widget)) {
        const bool vertical = gtk_orientable_get_orientation(GTK_ORIENTABLE(widget)) == GTK_ORIENTATION_VERTICAL;
        return vertical ? "separator vertical" : "separator horizontal";
    }
    return widget_text::kind_of(widget);
}

}  // namespace dialog_text

/// As describe(), for what stands in the dialog.
inline std::vector<std::string> describe_content(GtkWidget* widget, const std::string& indent = "")
{
    std::vector<std::string> lines = {dialog_text::kind_of(widget) + widget_text::properties_of(widget) + classes_of(widget)};
    if (!GTK_IS_BOX(widget) && !GTK_IS_FRAME(widget) && !GTK_IS_EXPANDER(widget)) {
        return lines;
    }
    const std::string lead = indent + "- ";
    // The label of a frame is its child as well, but no part of what it frames
    const bool is_box = GTK_IS_BOX(widget);
    for (GtkWidget* child : is_box ? children_of(widget) : std::vector<GtkWidget*>{gtk_bin_get_child(GTK_BIN(widget))}) {
        std::vector<std::string> below = describe_content(child, lead);
        below.front() = lead + (is_box ? packing_of(child) + ": " : "") + below.front();
        std::move(below.begin(), below.end(), std::back_inserter(lines));
    }
    return lines;
}

// --- the base of the tests ---

/// An App at rest, two sections of it, whose dialog is opened by open().
class DialogTest : public IdleAppTest {
protected:
    explicit DialogTest(const Shape& shape = {.clusters = {4, 2}}) : app(shape) {}
    ~DialogTest() override
    {
        g_overheard = {};
        if (app.m_settings_popover != nullptr) {
            gtk_widget_destroy(app.m_settings_popover);
        }
    }

    /// Opens the dialog as the gear does.
    void open() { App::on_settings_clicked(nullptr, static_cast<App*>(&app)); }

    /// Opens it, and from then on holds the App's idle callbacks back and notes its calls.
    void open_and_listen()
    {
        open();
        listen();
    }

    void listen()
    {
        g_overheard.app = &app;
        g_overheard.holds_idles = true;
    }

    static Settings& settings() { return SettingsStore::instance().mutable_get(); }

    std::string settings_path() const { return home.config() + "/settings.json"; }
    bool is_saved() const { return std::filesystem::exists(settings_path()); }
    std::string saved() const { return read_text(settings_path()); }

    void dark(bool is_dark)
    {
        settings().theme = is_dark ? "dark" : "light";
        app.apply_theme();
    }

    IdleApp app;
};
