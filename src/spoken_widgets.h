/// Widgets of GTK's that tell screen readers more than GTK makes them tell, worked out when one asks: as long as none does, they cost
/// nothing. Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <string>

/// What is said of a widget. `data` is handed to both functions, and has to live as long as main loop and widget do.
struct SpokenWords {
    std::string (*name)(GtkWidget* widget, gpointer data) = nullptr;
    std::string (*description)(GtkWidget* widget, gpointer data) = nullptr;  ///< null if there is nothing more to say than the name
    gpointer data = nullptr;
};

/// A drawing area that is a chart.
GtkWidget* create_spoken_chart(const SpokenWords& words);

/// A label whose name need not be the text that it shows.
GtkWidget* create_spoken_label(const std::string& text, const SpokenWords& words);

/// A button, likewise.
GtkWidget* create_spoken_button(const std::string& label, const SpokenWords& words);

/// A drawing area that says nothing which does not stand beside it in words.
GtkWidget* create_decoration();

/// Tells a screen reader, if one has asked of this widget, that it has another name now. Null is passed over.
void tell_new_name(GtkWidget* widget);
