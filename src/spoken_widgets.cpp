/// Types derived from GTK's widgets, whose accessible objects ask SpokenWords each time that they are asked.
#include "spoken_widgets.h"

#include <gtk/gtk-a11y.h>

namespace {

constexpr const char* WORDS = "words";            // object data of the widget
constexpr const char* ACCESSIBLE = "accessible";  // likewise, once it has one

void delete_words(gpointer words)
{
    delete static_cast<SpokenWords*>(words);
}

/// Keeps a text where AtkObject frees it, and hands it out.
const gchar* keep(gchar*& place, const std::string& text)
{
    g_free(place);
    place = g_strdup(text.c_str());
    return place;
}

/// Null if the widget is gone.
const SpokenWords* words_of(AtkObject* object)
{
    GtkWidget* const widget = gtk_accessible_get_widget(GTK_ACCESSIBLE(object));
    return widget != nullptr ? static_cast<const SpokenWords*>(g_object_get_data(G_OBJECT(widget), WORDS)) : nullptr;
}

using Question = std::string (*SpokenWords::*)(GtkWidget*, gpointer);

/// What the widget's words say at this moment.
const gchar* ask(AtkObject* object, Question question, gchar*& last)
{
    const SpokenWords* const words = words_of(object);
    if (words == nullptr || words->*question == nullptr) {
        return last;
    }
    return keep(last, (words->*question)(gtk_accessible_get_widget(GTK_ACCESSIBLE(object)), words->data));
}

/// The class that GTK's own widget has.
const AtkObjectClass* base_of(AtkObject* object)
{
    return static_cast<const AtkObjectClass*>(g_type_class_peek(g_type_parent(G_OBJECT_TYPE(object))));
}

const gchar* get_name(AtkObject* object)
{
    return ask(object, &SpokenWords::name, object->name);
}

const gchar* get_description(AtkObject* object)
{
    return ask(object, &SpokenWords::description, object->description);
}

/// What can change without any news of it must not be remembered by whoever asks: the usual library does so, but for what is transient.
AtkStateSet* ref_state_set(AtkObject* object)
{
    AtkStateSet* const states = base_of(object)->ref_state_set(object);
    const SpokenWords* const words = words_of(object);
    if (words != nullptr && words->description != nullptr) {
        atk_state_set_add_state(states, ATK_STATE_TRANSIENT);
    }
    return states;
}

/// GTK makes it when it is asked for the first time, and keeps it as long as the widget.
void initialize(AtkObject* object, gpointer widget)
{
    base_of(object)->initialize(object, widget);
    g_object_set_data(G_OBJECT(widget), ACCESSIBLE, object);
}

void init_accessible_class(gpointer klass, gpointer)
{
    AtkObjectClass* const atk = ATK_OBJECT_CLASS(klass);
    atk->get_name = get_name;
    atk->get_description = get_description;
    atk->ref_state_set = ref_state_set;
    atk->initialize = initialize;
}

/// Registers a type that differs from its parent in its class alone.
GType derive(GType parent, const std::string& name, GClassInitFunc init_class, gconstpointer class_data)
{
    GTypeQuery sizes;
    g_type_query(parent, &sizes);
    GTypeInfo info{};
    info.class_size = static_cast<guint16>(sizes.class_size);
    info.instance_size = static_cast<guint16>(sizes.instance_size);
    info.class_init = init_class;
    info.class_data = class_data;
    return g_type_register_static(parent, name.c_str(), &info, GTypeFlags{});
}

/// A widget of GTK's as it is derived here.
struct Kind {
    const char* name;
    GType (*widget)();
    GType (*accessible)();  // null: as GTK makes it
    AtkRole role;           // ATK_ROLE_INVALID: likewise
};

void init_widget_class(gpointer klass, gpointer data)
{
    const Kind& kind = *static_cast<const Kind*>(data);
    if (kind.accessible != nullptr) {
        const GType type = derive(kind.accessible(), std::string(kind.name) + "Accessible", init_accessible_class, nullptr);
        gtk_widget_class_set_accessible_type(GTK_WIDGET_CLASS(klass), type);
    }
    if (kind.role != ATK_ROLE_INVALID) {
        gtk_widget_class_set_accessible_role(GTK_WIDGET_CLASS(klass), kind.role);
    }
}

constexpr Kind CHART = {"VantricChart", gtk_drawing_area_get_type, gtk_widget_accessible_get_type, ATK_ROLE_CHART};
constexpr Kind LABEL = {"VantricLabel", gtk_label_get_type, gtk_label_accessible_get_type, ATK_ROLE_INVALID};
constexpr Kind BUTTON = {"VantricButton", gtk_button_get_type, gtk_button_accessible_get_type, ATK_ROLE_INVALID};
constexpr Kind DECORATION = {"VantricDecoration", gtk_drawing_area_get_type, nullptr, ATK_ROLE_REDUNDANT_OBJECT};

template <const Kind& KIND>
GtkWidget* create()
{
    static const GType type = derive(KIND.widget(), KIND.name, init_widget_class, &KIND);
    return GTK_WIDGET(g_object_new(type, nullptr));
}

/// A drawing area without a GDK window of its own, which only one that takes part in events needs: memory and time for each chart.
template <const Kind& KIND>
GtkWidget* create_canvas()
{
    GtkWidget* canvas = create<KIND>();
    gtk_widget_set_has_window(canvas, FALSE);
    return canvas;
}

GtkWidget* with_words(GtkWidget* widget, const SpokenWords& words)
{
    g_object_set_data_full(G_OBJECT(widget), WORDS, new SpokenWords(words), delete_words);
    return widget;
}

}  // namespace

GtkWidget* create_spoken_chart(const SpokenWords& words)
{
    return with_words(create_canvas<CHART>(), words);
}

GtkWidget* create_spoken_label(const std::string& text, const SpokenWords& words)
{
    GtkWidget* label = create<LABEL>();
    gtk_label_set_text(GTK_LABEL(label), text.c_str());
    return with_words(label, words);
}

GtkWidget* create_spoken_button(const std::string& label, const SpokenWords& words)
{
    GtkWidget* button = create<BUTTON>();
    gtk_button_set_label(GTK_BUTTON(button), label.c_str());
    return with_words(button, words);
}

GtkWidget* create_decoration()
{
    return create_canvas<DECORATION>();
}

void tell_new_name(GtkWidget* widget)
{
    gpointer const accessible = widget != nullptr ? g_object_get_data(G_OBJECT(widget), ACCESSIBLE) : nullptr;
    if (accessible != nullptr) {
        g_object_notify(G_OBJECT(accessible), "accessible-name");
    }
}
