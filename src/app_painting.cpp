/// How the window gets onto the screen: painted in memory, and put up in one piece.
#include <algorithm>

#include "app.h"

namespace {

constexpr int MAX_CARD_FRAME_PIXELS = 1 << 14;  // pictures of larger cards would cost more memory than they save time
constexpr std::size_t MAX_CARD_FRAMES = 8;      // cards of a window differ by a pixel; after that it is sizes that are no longer shown

/// Limits painting on `cr` to what is to be painted anew on `screen`.
void take_clip(cairo_t* cr, cairo_t* screen)
{
    cairo_rectangle_list_t* list = cairo_copy_clip_rectangle_list(screen);
    for (int i = 0; i < list->num_rectangles; ++i) {
        const cairo_rectangle_t& part = list->rectangles[i];
        cairo_rectangle(cr, part.x, part.y, part.width, part.height);
    }
    cairo_rectangle_list_destroy(list);
    cairo_clip(cr);
}

/// Paints into an image in memory which the X server can read, and lets the server copy that. Painted straight on a surface of the server,
/// each curve would travel there as a mask, and the server would do much of the work.
void paint_through_image(GtkWidget* window, cairo_t* screen)
{
    GdkRectangle area;
    if (!gdk_cairo_get_clip_rectangle(screen, &area)) {
        return;
    }
    const bool is_opaque = cairo_surface_get_content(cairo_get_target(screen)) == CAIRO_CONTENT_COLOR;
    const int scale = gtk_widget_get_scale_factor(window);
    cairo_surface_t* image =
        gdk_window_create_similar_image_surface(gtk_widget_get_window(window), is_opaque ? CAIRO_FORMAT_RGB24 : CAIRO_FORMAT_ARGB32,
                                                area.width * scale, area.height * scale, scale);
    cairo_t* cr = cairo_create(image);
    cairo_translate(cr, -area.x, -area.y);
    take_clip(cr, screen);
    gtk_widget_draw(window, cr);
    cairo_destroy(cr);
    cairo_set_operator(screen, CAIRO_OPERATOR_SOURCE);
    cairo_set_source_surface(screen, image, area.x, area.y);
    cairo_paint(screen);
    cairo_surface_destroy(image);
}

/// Paints background and border of a card where GTK would: inside the margin.
void render_frame(GtkWidget* card, cairo_t* cr, int width, int height)
{
    GtkStyleContext* style = gtk_widget_get_style_context(card);
    GtkBorder margin;
    gtk_style_context_get_margin(style, gtk_style_context_get_state(style), &margin);
    const int inner_width = width - margin.left - margin.right;
    const int inner_height = height - margin.top - margin.bottom;
    gtk_render_background(style, cr, margin.left, margin.top, inner_width, inner_height);
    gtk_render_frame(style, cr, margin.left, margin.top, inner_width, inner_height);
}

}  // namespace

gboolean App::draw_window(GtkWidget* window, cairo_t* cr, gpointer data)
{
    App& app = *static_cast<App*>(data);
    const bool is_on_screen = gdk_cairo_get_drawing_context(cr) != nullptr;
    if (app.m_painting || !is_on_screen) {
        return FALSE;  // GTK's turn: asked for by ourselves, or for a canvas of somebody else's, of whatever scale
    }
    app.m_painting = true;
    if (cairo_surface_get_type(cairo_get_target(cr)) == CAIRO_SURFACE_TYPE_XLIB) {
        paint_through_image(window, cr);
    } else {
        gtk_widget_draw(window, cr);  // in memory already
    }
    app.m_painting = false;
    return TRUE;
}

gboolean App::draw_card(GtkWidget* card, cairo_t* cr, gpointer data)
{
    App& app = *static_cast<App*>(data);
    const int pixels = gtk_widget_get_allocated_width(card) * gtk_widget_get_allocated_height(card);
    if (!app.m_painting || pixels > MAX_CARD_FRAME_PIXELS) {
        return FALSE;  // GTK's turn: a canvas of somebody else's, or a window with few cards
    }
    cairo_set_source_surface(cr, app.card_frame(card, cr), 0, 0);
    cairo_paint(cr);
    const auto paint_child = [](GtkWidget* child, gpointer canvas) {
        gtk_container_propagate_draw(GTK_CONTAINER(gtk_widget_get_parent(child)), child, static_cast<cairo_t*>(canvas));
    };
    gtk_container_forall(GTK_CONTAINER(card), paint_child, cr);
    return TRUE;
}

void App::forget_card_frames(GtkWidget*, gpointer data)
{
    static_cast<App*>(data)->m_card_frames.clear();
}

cairo_surface_t* App::card_frame(GtkWidget* card, cairo_t* cr)
{
    const CardFrame key{.width = gtk_widget_get_allocated_width(card),
                        .height = gtk_widget_get_allocated_height(card),
                        .scale = gtk_widget_get_scale_factor(card),
                        .state = gtk_widget_get_state_flags(card),
                        .image = nullptr};
    const auto known = std::find(m_card_frames.begin(), m_card_frames.end(), key);
    if (known != m_card_frames.end()) {
        return known->image.get();
    }
    if (m_card_frames.size() == MAX_CARD_FRAMES) {
        m_card_frames.clear();
    }
    CardFrame& frame = m_card_frames.emplace_back(key);
    frame.image.reset(
        cairo_surface_create_similar_image(cairo_get_target(cr), CAIRO_FORMAT_ARGB32, key.width * key.scale, key.height * key.scale),
        cairo_surface_destroy);
    cairo_surface_set_device_scale(frame.image.get(), key.scale, key.scale);
    cairo_t* canvas = cairo_create(frame.image.get());
    render_frame(card, canvas, key.width, key.height);
    cairo_destroy(canvas);
    return frame.image.get();
}
