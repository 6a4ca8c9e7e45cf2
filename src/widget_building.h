/// Helpers for putting widgets together. Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <string>

/// Whether a packed widget takes up, and fills, whatever room its box has left.
enum class Fill : bool { NO, YES };

/// Both show the child as well: what of its style depends on its neighbours is then settled before its window is shown.
void pack_start(GtkWidget* box, GtkWidget* child, Fill fill, guint padding = 0);
void pack_end(GtkWidget* box, GtkWidget* child, guint padding = 0);

/// Gives the widget a class of the stylesheet.
void add_class(GtkWidget* widget, const char* css_class);

/// `xalign` is 0.0 (at the start, which is the right-hand side in right-to-left languages) to 1.0.
GtkWidget* create_label(const std::string& text, double xalign, const char* css_class);

/// Signal handlers on widgets that serve one object. They go when that object does, of which this is a member: widgets can outlive it.
class Handlers {
public:
    /// `object` is what the handlers get for their data.
    explicit Handlers(gpointer object) : m_object(object) {}
    ~Handlers() { g_object_unref(m_lifetime); }
    Handlers(const Handlers&) = delete;
    Handlers& operator=(const Handlers&) = delete;

    /// As g_signal_connect().
    void connect(GtkWidget* widget, const char* signal, GCallback handler) const { connect(widget, signal, handler, m_object); }
    void connect(GtkWidget* widget, const char* signal, GCallback handler, gpointer data) const;

private:
    const gpointer m_object;
    GObject* const m_lifetime = static_cast<GObject*>(g_object_new(G_TYPE_OBJECT, nullptr));  ///< watched by all of them
};

/// What a screen reader says of a widget beyond its name.
void set_accessible_description(GtkWidget* widget, const std::string& description);

/// Ties a control to the label beside it, for screen readers.
void name_by_label(GtkWidget* control, GtkWidget* label);

/// Ties a control to a title that it shares with others, for screen readers.
void belong_to_title(GtkWidget* control, GtkWidget* title);

/// Lets a button tell what a label says, also when that changes: whoever has pressed it hears what came of it.
void describe_by_label(GtkWidget* button, GtkWidget* label);

/// The object data of that key, as a widget; null if there is none.
GtkWidget* widget_of(GtkWidget* owner, const char* key);
