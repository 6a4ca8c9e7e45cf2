/// The keyboard focus across a change of widgets. Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <cstddef>

/// Remembers which widget of a box has the keyboard focus, by its place, so that the widget which stands there after the box was filled
/// anew can get it: whoever works without a mouse would have to start over.
class FocusKeeper {
public:
    explicit FocusKeeper(GtkWidget* box);

    /// Does nothing if no widget of the box had the focus, or the one that stands there now can't have it.
    void restore() const;

private:
    GtkWidget* m_box;
    std::size_t m_place = 0;
    bool m_had_focus = false;
};
