/// Keeps the text by itself, in the place of the property "tooltip-text", and hands it out when GTK is about to show it.
#include "tooltip_label.h"

namespace {

constexpr guint TOOLTIP_TEXT = 1;  // number of the property

struct TooltipLabel {
    GtkLabel parent;
    char* text;    ///< owned; null for none
    bool is_seen;  ///< GTK has shown it, or the one before
};
struct TooltipLabelClass {
    GtkLabelClass parent;
};

GtkWidgetClass* g_label_class = nullptr;  // what GtkLabel does

TooltipLabel& tooltip_label(gpointer object)
{
    return *static_cast<TooltipLabel*>(object);
}

void set_property(GObject* object, guint, const GValue* value, GParamSpec*)
{
    TooltipLabel& label = tooltip_label(object);
    const char* const text = g_value_get_string(value);
    g_free(label.text);
    label.text = text != nullptr && *text != '\0' ? g_strdup(text) : nullptr;
    gtk_widget_set_has_tooltip(GTK_WIDGET(object), label.text != nullptr);
    if (label.is_seen) {
        label.is_seen = false;
        gtk_widget_trigger_tooltip_query(GTK_WIDGET(object));  // which makes it seen again, if it still is
    }
}

void get_property(GObject* object, guint, GValue* value, GParamSpec*)
{
    g_value_set_string(value, tooltip_label(object).text);
}

gboolean query_tooltip(GtkWidget* widget, gint, gint, gboolean, GtkTooltip* tooltip)
{
    TooltipLabel& label = tooltip_label(widget);
    if (label.text == nullptr) {
        return FALSE;
    }
    label.is_seen = true;
    gtk_tooltip_set_text(tooltip, label.text);
    return TRUE;
}

void finalize_tooltip_label(GObject* object)
{
    g_free(tooltip_label(object).text);
    G_OBJECT_CLASS(g_label_class)->finalize(object);
}

void init_tooltip_label_class(gpointer type, gpointer)
{
    g_label_class = GTK_WIDGET_CLASS(g_type_class_peek_parent(type));
    GObjectClass* const object = G_OBJECT_CLASS(type);
    object->set_property = set_property;
    object->get_property = get_property;
    object->finalize = finalize_tooltip_label;
    g_object_class_override_property(object, TOOLTIP_TEXT, "tooltip-text");
    GTK_WIDGET_CLASS(type)->query_tooltip = query_tooltip;
}

void init_tooltip_label(GTypeInstance* label, gpointer)
{
    tooltip_label(label).text = nullptr;
    tooltip_label(label).is_seen = false;
}

GType tooltip_label_type()
{
    static const GType TYPE =
        g_type_register_static_simple(GTK_TYPE_LABEL, "VantricTooltipLabel", sizeof(TooltipLabelClass), init_tooltip_label_class,
                                      sizeof(TooltipLabel), init_tooltip_label, GTypeFlags{});
    return TYPE;
}

}  // namespace

GtkWidget* tooltip_label_new()
{
    return GTK_WIDGET(g_object_new(tooltip_label_type(), nullptr));
}
