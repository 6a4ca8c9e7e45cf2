/// The settings dialog: each change takes effect and is saved at once.
#include <algorithm>
#include <charconv>
#include <string_view>

#include "about_text.h"
#include "app.h"
#include "dialog_rows.h"
#include "focus_keeper.h"
#include "gtk_workarounds.h"
#include "i18n.h"
#include "settings.h"
#include "widget_building.h"

namespace {

constexpr int CONTENT_WIDTH = 280;
constexpr int COLUMN_NUMBER_WIDTH = 28;
constexpr int LANGUAGES_PER_LINE = 3;
constexpr int COLOR_ROW_SPACING = 3;
constexpr int COLORS_MARGIN = 4;

/// A colour of the interface that can be chosen. Those of the scheme differ between light and dark.
struct ColorSlot {
    const char* slot;       // object data of the colour button
    const char* label_key;  // translated when shown
    std::string& (*field)(Settings&, bool dark);
};

constexpr ColorSlot COLOR_SLOTS[] = {
    {"bg", "Background", [](Settings& s, bool dark) -> std::string& { return s.background(dark); }},
    {"panel", "Panels", [](Settings& s, bool dark) -> std::string& { return s.panel(dark); }},
    {"text", "Text", [](Settings& s, bool dark) -> std::string& { return s.text(dark); }},
    {"gear", "Gear", [](Settings& s, bool dark) -> std::string& { return s.gear(dark); }},
    {"total", "Total", [](Settings& s, bool) -> std::string& { return s.total; }},
};

constexpr std::string_view GROUP_SLOT_PREFIX = "group";  // followed by the entry of Settings::groups

/// The setting behind a slot's name, or null if there is none of that name.
std::string* color_field(Settings& settings, std::string_view slot, bool dark)
{
    if (slot.starts_with(GROUP_SLOT_PREFIX)) {
        slot.remove_prefix(GROUP_SLOT_PREFIX.size());
        std::size_t group = 0;
        const char* const end = slot.data() + slot.size();
        const auto [stop, error] = std::from_chars(slot.data(), end, group);
        const bool is_group = error == std::errc() && stop == end && group < settings.groups.size();
        return is_group ? &settings.groups[group] : nullptr;
    }
    const auto* const found =
        std::find_if(std::begin(COLOR_SLOTS), std::end(COLOR_SLOTS), [&](const ColorSlot& s) { return s.slot == slot; });
    return found != std::end(COLOR_SLOTS) ? &found->field(settings, dark) : nullptr;
}

/// What the chooser of a colour is called: "Colors – Background (Dark)", or "Colors – Total" where both schemes have the same.
std::string color_title(const std::string& label, const std::string& slot, bool dark)
{
    Settings any;
    const bool is_of_scheme = color_field(any, slot, true) != color_field(any, slot, false);
    return tr("Colors") + (" – " + label) + (is_of_scheme ? std::string(" (") + tr(dark ? "Dark" : "Light") + ")" : "");
}

gboolean on_dialog_key(GtkWidget* dialog, GdkEventKey* event, gpointer)
{
    if (event->keyval != GDK_KEY_Escape) {
        return GDK_EVENT_PROPAGATE;
    }
    gtk_widget_hide(dialog);
    return GDK_EVENT_STOP;
}

}  // namespace

GtkWidget* App::create_settings_popover()
{
    GtkWidget* dialog = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(dialog), tr("Settings"));
    gtk_window_set_resizable(GTK_WINDOW(dialog), FALSE);
    gtk_window_set_type_hint(GTK_WINDOW(dialog), GDK_WINDOW_TYPE_HINT_DIALOG);
    gtk_window_set_transient_for(GTK_WINDOW(dialog), GTK_WINDOW(m_window));
    gtk_window_set_keep_above(GTK_WINDOW(dialog), TRUE);
    g_signal_connect(dialog, "delete-event", G_CALLBACK(gtk_widget_hide_on_delete), nullptr);
    g_signal_connect(dialog, "key-press-event", G_CALLBACK(on_dialog_key), nullptr);

    m_settings_box = gtk_box_new(GTK_ORIENTATION_VERTICAL, DIALOG_SPACING);
    add_class(m_settings_box, "popover-box");
    gtk_widget_set_size_request(m_settings_box, CONTENT_WIDTH, -1);
    build_settings_content(m_settings_box);
    gtk_container_add(GTK_CONTAINER(dialog), m_settings_box);
    gtk_widget_show_all(m_settings_box);
    if (m_colors_expander != nullptr) {
        gtk_expander_set_expanded(GTK_EXPANDER(m_colors_expander), FALSE);
    }
    return dialog;
}

/// Puts the dialog in the middle of the main window each time, wherever it was left.
void App::on_settings_clicked(GtkWidget*, gpointer data)
{
    App& app = *static_cast<App*>(data);
    if (app.m_settings_popover == nullptr) {
        app.m_settings_popover = app.create_settings_popover();
    }
    GtkWindow* dialog = GTK_WINDOW(app.m_settings_popover);
    const WindowRect main = WindowRect::of(app.m_window);
    int width = 0;
    int height = 0;
    gtk_window_get_size(dialog, &width, &height);
    move_window(dialog, main.x + (main.width - width) / 2, main.y + (main.height - height) / 2);
    gtk_widget_show_all(app.m_settings_popover);
    gtk_window_present(dialog);
}

void App::build_settings_content(GtkWidget* box)
{
    for (GtkWidget* row :
         {create_orientation_row(), create_columns_frame(), create_language_row(), create_theme_row(), create_colors_expander()}) {
        pack_start(box, row, Fill::NO);
    }
    add_separator(box);
    add_about(box);
    add_separator(box);
    pack_start(box, create_disclaimer(), Fill::NO);
}

GtkWidget* App::create_orientation_row()
{
    return create_combo_row(tr("Orientation"), {{"vertical", tr("Vertical")}, {"horizontal", tr("Horizontal")}},
                            SettingsStore::instance().get().orientation, m_handlers, G_CALLBACK(on_orientation_changed));
}

GtkWidget* App::create_columns_frame()
{
    GtkWidget* frame = gtk_frame_new(tr("Columns"));
    GtkWidget* title = gtk_frame_get_label_widget(GTK_FRAME(frame));
    add_class(title, "settings-label");
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, DIALOG_SPACING);
    gtk_widget_set_margin_start(row, 6);
    gtk_widget_set_margin_end(row, 6);
    gtk_widget_set_margin_top(row, 4);
    gtk_widget_set_margin_bottom(row, 6);
    gtk_container_add(GTK_CONTAINER(frame), row);

    GtkWidget* fewer = create_button("−", m_handlers, G_CALLBACK(on_fewer_columns));
    pack_start(row, fewer, Fill::NO);
    m_col_label = gtk_label_new(std::to_string(m_num_columns).c_str());
    gtk_widget_set_size_request(m_col_label, COLUMN_NUMBER_WIDTH, -1);
    add_class(m_col_label, "settings-label");
    pack_start(row, m_col_label, Fill::NO);
    GtkWidget* more = create_button("+", m_handlers, G_CALLBACK(on_more_columns));
    pack_start(row, more, Fill::NO);
    pack_end(row, create_button(tr("Apply"), m_handlers, G_CALLBACK(on_apply_columns)));
    for (GtkWidget* control : {fewer, m_col_label, more}) {
        belong_to_title(control, title);
    }
    for (GtkWidget* button : {fewer, more}) {
        describe_by_label(button, m_col_label);
    }
    return frame;
}

GtkWidget* App::create_language_row()
{
    std::vector<LanguageInfo> languages = I18n::available();
    std::sort(languages.begin(), languages.end(),
              [](const LanguageInfo& a, const LanguageInfo& b) { return a.native_name < b.native_name; });
    std::vector<Choice> choices = {{"auto", tr("Automatic")}};
    for (const LanguageInfo& language : languages) {
        choices.push_back({language.code, language.native_name});
    }
    return create_combo_row(tr("Language"), choices, SettingsStore::instance().get().language, m_handlers, G_CALLBACK(on_language_changed),
                            LANGUAGES_PER_LINE);
}

GtkWidget* App::create_theme_row()
{
    return create_combo_row(tr("Theme"), {{"auto", tr("Automatic")}, {"light", tr("Light")}, {"dark", tr("Dark")}},
                            SettingsStore::instance().get().theme, m_handlers, G_CALLBACK(on_theme_changed));
}

GtkWidget* App::create_colors_expander()
{
    m_colors_expander = gtk_expander_new(tr("Colors"));
    add_class(m_colors_expander, "settings-expander");
    mirror_expander(m_colors_expander);
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, COLOR_ROW_SPACING);
    gtk_widget_set_margin_top(box, COLORS_MARGIN);
    gtk_widget_set_margin_start(box, COLORS_MARGIN);
    gtk_container_add(GTK_CONTAINER(m_colors_expander), box);
    close_to_keyboard(m_colors_expander);
    pass_left_key(m_colors_expander);

    for (const ColorSlot& slot : COLOR_SLOTS) {
        add_color_row(box, tr(slot.label_key), slot.slot);
    }
    add_cluster_color_rows(box);
    GtkWidget* reset = create_button(tr("Reset colors"), m_handlers, G_CALLBACK(on_reset_colors));
    gtk_widget_set_margin_top(reset, COLORS_MARGIN);
    pack_start(box, reset, Fill::NO);
    return m_colors_expander;
}

/// One row for each colour of clusters, under the name of the first that has it: a fifth cluster shares the first one's.
void App::add_cluster_color_rows(GtkWidget* box)
{
    std::array<bool, std::tuple_size_v<decltype(Settings::groups)>> has_row{};
    for (const CpuCluster& cluster : m_clusters) {
        const auto group = static_cast<std::size_t>(cluster.color_index);
        if (group < has_row.size() && !has_row[group]) {
            has_row[group] = true;
            add_color_row(box, cluster.display_name().c_str(), std::string(GROUP_SLOT_PREFIX) + std::to_string(group));
        }
    }
}

void App::add_color_row(GtkWidget* box, const char* label, const std::string& slot)
{
    const std::string* hex = color_field(SettingsStore::instance().mutable_get(), slot, m_dark);
    GtkWidget* row = color_row(label, hex->c_str(), G_CALLBACK(on_color_set), this);
    GObject* button = G_OBJECT(widget_of(row, "button"));
    g_object_set_data_full(button, "slot", g_strdup(slot.c_str()), g_free);
    g_object_set_data(button, "dark", GINT_TO_POINTER(static_cast<int>(m_dark)));  // the scheme that the row edits
    gtk_color_button_set_title(GTK_COLOR_BUTTON(button), color_title(label, slot, m_dark).c_str());
    pack_start(box, row, Fill::NO);
}

GtkWidget* App::color_row(const char* label, const char* hex, GCallback on_set, gpointer data)
{
    GtkWidget* button = create_color_button(hex);
    m_handlers.connect(button, "color-set", on_set, data);
    GtkWidget* name = create_label(label, 0.0, "settings-label");
    gtk_label_set_ellipsize(GTK_LABEL(name), PANGO_ELLIPSIZE_END);
    GtkWidget* row = create_row(name, button);
    g_object_set_data(G_OBJECT(row), "button", button);
    return row;
}

void App::rebuild_settings_content()
{
    if (m_settings_box == nullptr) {
        return;
    }
    const auto replace = [](gpointer data) -> gboolean {
        static_cast<App*>(data)->replace_settings_content();
        return G_SOURCE_REMOVE;
    };
    g_idle_add(replace, this);
}

void App::replace_settings_content()
{
    if (m_settings_box == nullptr) {
        return;
    }
    close_menu();
    close_color_choosers();
    const FocusKeeper focus(m_settings_box);
    const bool was_expanded = m_colors_expander != nullptr && gtk_expander_get_expanded(GTK_EXPANDER(m_colors_expander));
    GList* children = gtk_container_get_children(GTK_CONTAINER(m_settings_box));
    g_list_free_full(children, [](gpointer child) { gtk_widget_destroy(GTK_WIDGET(child)); });
    m_colors_expander = nullptr;

    build_settings_content(m_settings_box);
    gtk_widget_show_all(m_settings_box);
    if (m_colors_expander != nullptr) {
        gtk_expander_set_expanded(GTK_EXPANDER(m_colors_expander), was_expanded);
    }
    if (m_settings_popover != nullptr) {
        gtk_window_set_title(GTK_WINDOW(m_settings_popover), tr("Settings"));
    }
    focus.restore();
}

void App::save_settings() const
{
    SettingsStore::instance().save();
}

void App::step_columns(int step)
{
    if (step < 0 ? m_num_columns > WindowGeometry::MIN_COLUMNS : m_num_columns < WindowGeometry::MAX_COLUMNS) {
        m_num_columns += step;
    }
    gtk_label_set_text(GTK_LABEL(m_col_label), std::to_string(m_num_columns).c_str());
}

void App::on_fewer_columns(GtkWidget*, gpointer data)
{
    static_cast<App*>(data)->step_columns(-1);
}

void App::on_more_columns(GtkWidget*, gpointer data)
{
    static_cast<App*>(data)->step_columns(1);
}

/// The single row of the horizontal orientation needs a grid, several rows need boxes; between the two only a rebuild leads.
void App::on_apply_columns(GtkWidget*, gpointer data)
{
    App& app = *static_cast<App*>(data);
    const bool is_grid = GTK_IS_GRID(app.m_core_grid);
    if (app.m_horizontal && app.single_core_row() != is_grid) {
        app.queue_rebuild_layout();
    } else {
        app.relayout_cores(app.m_num_columns);
    }
    if (app.m_settings_popover != nullptr) {
        gtk_widget_hide(app.m_settings_popover);
    }
}

void App::on_orientation_changed(GtkComboBox* combo, gpointer data)
{
    App& app = *static_cast<App*>(data);
    std::string& orientation = SettingsStore::instance().mutable_get().orientation;
    if (const char* choice = new_choice(combo, orientation)) {
        orientation = choice;
        app.save_settings();
        app.queue_rebuild_layout();
        app.rebuild_settings_content();  // shows the number of columns of the other orientation
    }
}

void App::on_language_changed(GtkComboBox* combo, gpointer data)
{
    App& app = *static_cast<App*>(data);
    std::string& language = SettingsStore::instance().mutable_get().language;
    if (const char* choice = new_choice(combo, language)) {
        language = choice;
        I18n::instance().set_language(language);
        app.save_settings();
        app.retranslate();
    }
}

void App::on_theme_changed(GtkComboBox* combo, gpointer data)
{
    App& app = *static_cast<App*>(data);
    std::string& theme = SettingsStore::instance().mutable_get().theme;
    if (const char* choice = new_choice(combo, theme)) {
        theme = choice;
        app.save_settings();
        app.queue_apply_theme();
        if (app.resolve_dark() != app.m_dark) {
            app.rebuild_settings_content();  // with the colours of the other scheme
        }
    }
}

/// The rows stay as they are: the button shows its new colour by itself.
void App::on_color_set(GtkColorButton* button, gpointer data)
{
    App& app = *static_cast<App*>(data);
    const auto* const slot = static_cast<const char*>(g_object_get_data(G_OBJECT(button), "slot"));
    if (slot == nullptr) {
        return;
    }
    const bool dark = g_object_get_data(G_OBJECT(button), "dark") != nullptr;
    std::string* const field = color_field(SettingsStore::instance().mutable_get(), slot, dark);
    if (field == nullptr) {
        return;
    }
    GdkRGBA color;
    gtk_color_chooser_get_rgba(GTK_COLOR_CHOOSER(button), &color);
    *field = rgb_to_hex({color.red, color.green, color.blue});
    app.save_settings();
    app.queue_apply_theme();
}

void App::on_reset_colors(GtkWidget*, gpointer data)
{
    App& app = *static_cast<App*>(data);
    SettingsStore::instance().mutable_get().reset_colors();
    app.save_settings();
    app.queue_apply_theme();
    app.rebuild_settings_content();
}
