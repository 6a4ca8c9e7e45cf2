/// Each control gets its style class, its size and, for screen readers, its description here.
#include "dialog_rows.h"

#include "gtk_workarounds.h"
#include "theme.h"

namespace {

constexpr int COMBO_WIDTH = 140;
constexpr int SEPARATOR_PADDING = 2;

/// Lets a colour button tell its colour, as it is saved.
void describe_by_color(GtkWidget* button)
{
    const auto describe = +[](GtkColorChooser* changed, GParamSpec*, gpointer) {
        GdkRGBA color;
        gtk_color_chooser_get_rgba(changed, &color);
        set_accessible_description(GTK_WIDGET(changed), rgb_to_hex({color.red, color.green, color.blue}));
    };
    describe(GTK_COLOR_CHOOSER(button), nullptr, nullptr);
    g_signal_connect(button, "notify::rgba", G_CALLBACK(describe), nullptr);
}

}  // namespace

GtkWidget* create_row(GtkWidget* label, GtkWidget* control)
{
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, DIALOG_SPACING);
    pack_start(row, label, Fill::YES);
    pack_end(row, control);
    name_by_label(control, label);
    return row;
}

GtkWidget* create_combo_row(const char* label, const std::vector<Choice>& choices, const std::string& active, const Handlers& handlers,
                            GCallback on_changed, int wrap_width)
{
    GtkWidget* combo = gtk_combo_box_text_new();
    for (const Choice& choice : choices) {
        gtk_combo_box_text_append(GTK_COMBO_BOX_TEXT(combo), choice.id.c_str(), choice.text.c_str());
    }
    gtk_combo_box_set_wrap_width(GTK_COMBO_BOX(combo), wrap_width);
    gtk_combo_box_set_active_id(GTK_COMBO_BOX(combo), active.c_str());
    let_menu_fail(combo);
    handlers.connect(combo, "changed", on_changed);
    add_class(combo, "settings-combo");
    gtk_widget_set_size_request(combo, COMBO_WIDTH, -1);
    return create_row(create_label(label, 0.0, "settings-label"), combo);
}

GtkWidget* create_button(const char* label, const Handlers& handlers, GCallback on_clicked)
{
    GtkWidget* button = gtk_button_new_with_label(label);
    handlers.connect(button, "clicked", on_clicked);
    return button;
}

const char* new_choice(GtkComboBox* combo, const std::string& setting)
{
    const char* const id = gtk_combo_box_get_active_id(combo);
    return id != nullptr && setting != id ? id : nullptr;
}

GtkWidget* create_color_button(const char* hex)
{
    GdkRGBA color{};
    Rgb rgb;
    if (hex_to_rgb(hex, rgb)) {
        color = {rgb.r, rgb.g, rgb.b, 1.0};
    }
    GtkWidget* button = gtk_color_button_new_with_rgba(&color);
    gtk_color_chooser_set_use_alpha(GTK_COLOR_CHOOSER(button), FALSE);
    add_class(button, "color-swatch");
    describe_by_color(button);
    return button;
}

void add_separator(GtkWidget* box)
{
    pack_start(box, gtk_separator_new(GTK_ORIENTATION_HORIZONTAL), Fill::NO, SEPARATOR_PADDING);
}
