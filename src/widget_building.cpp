/// Packing, styling and connecting, with the flags and lifetimes that this program wants everywhere.
#include "widget_building.h"

void pack_start(GtkWidget* box, GtkWidget* child, Fill fill, guint padding)
{
    const gboolean on = fill == Fill::YES;
    gtk_box_pack_start(GTK_BOX(box), child, on, on, padding);
    gtk_widget_show(child);
}

void pack_end(GtkWidget* box, GtkWidget* child, guint padding)
{
    gtk_box_pack_end(GTK_BOX(box), child, FALSE, FALSE, padding);
    gtk_widget_show(child);
}

void add_class(GtkWidget* widget, const char* css_class)
{
    gtk_style_context_add_class(gtk_widget_get_style_context(widget), css_class);
}

GtkWidget* create_label(const std::string& text, double xalign, const char* css_class)
{
    GtkWidget* label = gtk_label_new(text.c_str());
    gtk_label_set_xalign(GTK_LABEL(label), static_cast<float>(xalign));
    add_class(label, css_class);
    return label;
}

void Handlers::connect(GtkWidget* widget, const char* signal, GCallback handler, gpointer data) const
{
    GClosure* const closure = g_cclosure_new(handler, data, nullptr);
    g_object_watch_closure(m_lifetime, closure);
    g_signal_connect_closure(widget, signal, closure, FALSE);
}

void set_accessible_description(GtkWidget* widget, const std::string& description)
{
    atk_object_set_description(gtk_widget_get_accessible(widget), description.c_str());
}

void name_by_label(GtkWidget* control, GtkWidget* label)
{
    gtk_label_set_mnemonic_widget(GTK_LABEL(label), control);
    atk_object_set_name(gtk_widget_get_accessible(control), gtk_label_get_text(GTK_LABEL(label)));
}

void belong_to_title(GtkWidget* control, GtkWidget* title)
{
    atk_object_add_relationship(gtk_widget_get_accessible(control), ATK_RELATION_LABELLED_BY, gtk_widget_get_accessible(title));
}

void describe_by_label(GtkWidget* button, GtkWidget* label)
{
    const auto describe = +[](GtkLabel* changed, GParamSpec*, gpointer described) {
        set_accessible_description(GTK_WIDGET(described), gtk_label_get_text(changed));
    };
    describe(GTK_LABEL(label), nullptr, button);
    g_signal_connect_object(label, "notify::label", G_CALLBACK(describe), button, GConnectFlags{});
}

GtkWidget* widget_of(GtkWidget* owner, const char* key)
{
    return static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(owner), key));
}
