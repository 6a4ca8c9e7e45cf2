/// What lies under the texts of a card: rounded corners cost more to paint than the rest of it, so one picture serves all cards of a size.
/// Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "pixel_canvas.h"

/// A row of a card as it looks without its texts.
class CardBackdrop {
public:
    /// Of a row of labels in a card; both have their allocations. Empty until painted.
    CardBackdrop(GtkWidget* card, GtkWidget* row, int scale);

    /// Whether it is of the same row of such a card; the result of painting does not count.
    bool operator==(const CardBackdrop& other) const;
    /// Fills it with what is painted there of a card that begins at 0, 0.
    void paint(const std::function<void(cairo_t*)>& paint_card);

    /// A theme may let shine through what lies below the card.
    bool is_opaque() const { return m_is_opaque; }
    /// Copies those units of it onto a window in which the row stands at `place`.
    void copy(const PixelCanvas& canvas, const GdkRectangle& place, const GdkRectangle& part) const;

private:
    int m_card_width;  ///< in units of the interface, of which each is `m_scale` by `m_scale` pixels
    int m_card_height;
    GdkRectangle m_area;  ///< the row in the card, with whatever ink leaves it
    int m_scale;
    GtkStateFlags m_state;
    bool m_is_opaque = false;
    std::vector<std::uint32_t> m_pixels;  ///< ARGB32, row by row
};

/// Those of all cards of a kind, painted when first asked for.
class CardBackdrops {
public:
    /// Borrowed, until the next call.
    const CardBackdrop& of(GtkWidget* card, GtkWidget* row, int scale);
    void clear() { m_backdrops.clear(); }
    bool empty() const { return m_backdrops.empty(); }
    std::size_t size() const { return m_backdrops.size(); }

private:
    std::vector<CardBackdrop> m_backdrops;
};
