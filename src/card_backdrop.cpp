/// Has GTK paint card and row without their texts, and keeps the pixels.
#include "card_backdrop.h"

#include <algorithm>
#include <optional>

namespace {

constexpr std::size_t MOST = 8;  // cards of a window differ by a pixel; after that it is sizes that are no longer shown

/// Where a widget stands in a card.
GdkRectangle inside(GtkWidget* card, GdkRectangle place)
{
    GtkAllocation around;
    gtk_widget_get_allocation(card, &around);
    place.x -= around.x;
    place.y -= around.y;
    return place;
}

/// Paints background and border of a widget of that size where GTK would: inside the margin.
void render_box(GtkWidget* widget, cairo_t* cr, const GdkRectangle& place)
{
    GtkStyleContext* const style = gtk_widget_get_style_context(widget);
    GtkBorder margin;
    gtk_style_context_get_margin(style, gtk_style_context_get_state(style), &margin);
    const int x = place.x + margin.left;
    const int y = place.y + margin.top;
    const int width = place.width - margin.left - margin.right;
    const int height = place.height - margin.top - margin.bottom;
    gtk_render_background(style, cr, x, y, width, height);
    gtk_render_frame(style, cr, x, y, width, height);
}

}  // namespace

CardBackdrop::CardBackdrop(GtkWidget* card, GtkWidget* row, int scale)
    : m_card_width(gtk_widget_get_allocated_width(card)),
      m_card_height(gtk_widget_get_allocated_height(card)),
      m_scale(scale),
      m_state(gtk_widget_get_state_flags(card))
{
    GtkAllocation clip;
    gtk_widget_get_clip(row, &clip);
    m_area = inside(card, clip);
}

bool CardBackdrop::operator==(const CardBackdrop& other) const
{
    return m_card_width == other.m_card_width && m_card_height == other.m_card_height && gdk_rectangle_equal(&m_area, &other.m_area) &&
           m_scale == other.m_scale && m_state == other.m_state;
}

void CardBackdrop::paint(const std::function<void(cairo_t*)>& paint_card)
{
    cairo_surface_t* const image = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, m_area.width * m_scale, m_area.height * m_scale);
    cairo_surface_set_device_scale(image, m_scale, m_scale);
    cairo_t* const cr = cairo_create(image);
    cairo_translate(cr, -m_area.x, -m_area.y);
    paint_card(cr);
    if (const std::optional<PixelCanvas> canvas = PixelCanvas::of(cr)) {
        for (int y = 0; y < canvas->clip.height; ++y) {
            m_pixels.insert(m_pixels.end(), canvas->row(y), canvas->row(y) + canvas->clip.width);
        }
    }
    cairo_destroy(cr);
    cairo_surface_destroy(image);
    constexpr std::uint32_t OPAQUE = 0xFF000000;
    m_is_opaque =
        !m_pixels.empty() && std::all_of(m_pixels.begin(), m_pixels.end(), [](std::uint32_t p) { return (p & OPAQUE) == OPAQUE; });
}

void CardBackdrop::copy(const PixelCanvas& canvas, const GdkRectangle& place, const GdkRectangle& part) const
{
    const GdkRectangle pixels = canvas.pixels_of(part);
    const int left = canvas.x + place.x * canvas.scale;
    const int top = canvas.y + place.y * canvas.scale;
    const auto stride = static_cast<std::ptrdiff_t>(place.width) * canvas.scale;
    for (int y = pixels.y; y < pixels.y + pixels.height; ++y) {
        std::copy_n(m_pixels.data() + (y - top) * stride + (pixels.x - left), pixels.width, canvas.row(y) + pixels.x);
    }
    canvas.mark_dirty();
}

const CardBackdrop& CardBackdrops::of(GtkWidget* card, GtkWidget* row, int scale)
{
    const CardBackdrop wanted(card, row, scale);
    const auto known = std::find(m_backdrops.begin(), m_backdrops.end(), wanted);
    if (known != m_backdrops.end()) {
        return *known;
    }
    if (m_backdrops.size() == MOST) {
        m_backdrops.clear();
    }
    GtkAllocation place;
    gtk_widget_get_allocation(row, &place);
    m_backdrops.push_back(wanted);
    m_backdrops.back().paint([&](cairo_t* cr) {
        render_box(card, cr, {0, 0, gtk_widget_get_allocated_width(card), gtk_widget_get_allocated_height(card)});
        render_box(row, cr, inside(card, place));
    });
    return m_backdrops.back();
}
