/// How the window gets onto the screen. A tick changes charts and percentages and little else, so these have a short way of their own.
///
/// | Canvas                                       | Window                                        | Readings after a tick | Charts       |
/// |----------------------------------------------|-----------------------------------------------|-----------------------|--------------|
/// | X11 with memory that the server shares       | in a SharedImage, put up in one piece         | paint_readings        | ChartPainter |
/// | Wayland: an image already                    | on that                                       | paint_readings        | ChartPainter |
/// | X11 without such memory, as through ssh -X   | GTK: a picture each second is a lot to send   | GTK                   | paint_chart  |
/// | somebody else's: a picture, a file, a printer| GTK                                           | GTK                   | paint_chart  |
///
/// The first two are our own canvas, m_paints_own_canvas. All ways lead to the same picture.
#include <algorithm>
#include <utility>

#include "app.h"
#include "pixel_canvas.h"

namespace {

constexpr std::size_t MAX_TITLE_BACKDROPS = 8;  // cards of a window differ by a pixel; after that it is sizes that are no longer shown

GdkRectangle allocation_of(GtkWidget* widget)
{
    GtkAllocation allocation;
    gtk_widget_get_allocation(widget, &allocation);
    return allocation;
}

/// The allocation, with whatever ink of a text leaves it.
GdkRectangle clip_of(GtkWidget* widget)
{
    GtkAllocation clip;
    gtk_widget_get_clip(widget, &clip);
    return clip;
}

/// Paints a label where it stands in its window, without what gtk_widget_draw() does around that: nobody else draws on a label.
void draw_in_place(GtkWidget* label, cairo_t* cr)
{
    if (!gtk_widget_is_drawable(label)) {
        return;
    }
    const GdkRectangle place = allocation_of(label);
    cairo_save(cr);
    cairo_translate(cr, place.x, place.y);
    GTK_WIDGET_GET_CLASS(label)->draw(label, cr);
    cairo_restore(cr);
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

/// The box with a card's name and percentage.
GtkWidget* title_row_of(const auto& core)
{
    return gtk_widget_get_parent(core.pct_label);
}

/// Copies those units of a backdrop that stands at `place`.
void copy_pixels(const auto& backdrop, const GdkRectangle& place, const PixelCanvas& canvas, const GdkRectangle& part)
{
    const GdkRectangle pixels = canvas.pixels_of(part);
    const int left = canvas.x + place.x * canvas.scale;
    const int top = canvas.y + place.y * canvas.scale;
    const auto stride = static_cast<std::ptrdiff_t>(place.width) * canvas.scale;
    for (int y = pixels.y; y < pixels.y + pixels.height; ++y) {
        std::copy_n(backdrop.pixels.data() + (y - top) * stride + (pixels.x - left), pixels.width, canvas.row(y) + pixels.x);
    }
    canvas.mark_dirty();
}

/// Sets a flag for the time of its life.
class Flagged {
public:
    explicit Flagged(bool& flag) : m_flag(flag) { m_flag = true; }
    ~Flagged() { m_flag = false; }
    Flagged(const Flagged&) = delete;
    Flagged& operator=(const Flagged&) = delete;

private:
    bool& m_flag;
};

}  // namespace

/// GTK paints a window into a pixmap of the X server's, which is then copied onto the screen. What stands ready in one image needs neither.
void App::handle_event(GdkEvent* event, gpointer data)
{
    if (event->type != GDK_EXPOSE || !static_cast<App*>(data)->paint_exposed(event->expose)) {
        gtk_main_do_event(event);
    }
}

/// Paints into an image in memory which the X server can read, and lets the server copy that. Painted straight on a surface of the server,
/// each curve would travel there as a mask, and the server would do much of the work. False, with nothing painted, without such memory.
bool App::paint_exposed(const GdkEventExpose& event)
{
    if (m_window == nullptr || event.window != gtk_widget_get_window(m_window)) {
        return false;
    }
    Damage damage = Damage::of(event.region);
    if (!m_screen_image || !m_screen_image->fits(event.window)) {
        m_screen_image.reset();  // before the other one is made, so that there are never two
        m_screen_image = m_shares_memory ? SharedImage::of(event.window) : nullptr;
        m_shares_memory = m_screen_image != nullptr;
        damage = Damage::of({0, 0, gdk_window_get_width(event.window), gdk_window_get_height(event.window)});
    }
    if (!m_screen_image) {
        return false;
    }
    cairo_t* const cr = m_screen_image->begin();
    damage.clip(cr);
    paint_window(cr, damage);
    cairo_destroy(cr);
    m_screen_image->put_up(damage.bounds());
    return true;
}

gboolean App::draw_window(GtkWidget*, cairo_t* cr, gpointer data)
{
    App& app = *static_cast<App*>(data);
    const bool is_on_screen = gdk_cairo_get_drawing_context(cr) != nullptr;
    if (app.m_paints_own_canvas || !is_on_screen || cairo_surface_get_type(cairo_get_target(cr)) == CAIRO_SURFACE_TYPE_XLIB) {
        return FALSE;  // GTK's turn: asked for by ourselves, or for a canvas of somebody else's, or handle_event() can't help it
    }
    const std::optional<Damage> damage = Damage::of(cr);
    if (damage) {
        app.paint_window(cr, *damage);
    }
    return damage.has_value();
}

/// Paints that part of the window on an image. The context is clipped to it.
void App::paint_window(cairo_t* cr, const Damage& damage)
{
    const Flagged own(m_paints_own_canvas);
    const std::optional<PixelCanvas> canvas = PixelCanvas::of(cr);
    if (!canvas || !is_readings_alone(damage, *canvas)) {
        gtk_widget_draw(m_window, cr);
        return;
    }
    const GdkRectangle total = allocation_of(m_total_chart);
    const Damage rest = damage.without(allocation_of(m_core_grid)).without(total);
    if (!rest.is_empty()) {
        cairo_save(cr);
        rest.clip(cr);
        gtk_widget_draw(m_window, cr);
        cairo_restore(cr);
    }
    cairo_save(cr);
    cairo_reset_clip(cr);  // one of hundreds of rectangles would cost more than it saves; what is painted beside them is not put up
    if (damage.area_within(total) > 0) {
        m_chart_painter.paint(cr, *canvas, chart_of(m_total_chart, total), palette());
    }
    for (const ClusterUI& ui : m_clusters_ui) {
        for (const CoreWidgets& core : ui.cores) {
            paint_readings(cr, *canvas, core, damage);
        }
    }
    cairo_restore(cr);
}

/// Whether nothing of the cards is to be painted but charts and title rows. These can be painted with no regard to what lies under them.
bool App::is_readings_alone(const Damage& damage, const PixelCanvas& canvas)
{
    Damage::Area readings = 0;
    std::vector<const CoreWidgets*> titled;
    for (const ClusterUI& ui : m_clusters_ui) {
        for (const CoreWidgets& core : ui.cores) {
            const Damage::Area title = damage.area_within(clip_of(title_row_of(core)));
            readings += title + damage.area_within(allocation_of(core.chart));
            if (title > 0) {
                titled.push_back(&core);
            }
        }
    }
    return readings > 0 && readings == damage.area_within(allocation_of(m_core_grid)) &&
           std::all_of(titled.begin(), titled.end(),
                       [&](const CoreWidgets* core) { return title_backdrop(*core, canvas.scale).is_opaque; });
}

void App::paint_readings(cairo_t* cr, const PixelCanvas& canvas, const CoreWidgets& core, const Damage& damage)
{
    const GdkRectangle chart = allocation_of(core.chart);
    if (damage.area_within(chart) > 0) {
        m_chart_painter.paint(cr, canvas, chart_of(core.chart, chart), palette());
    }
    const GdkRectangle percentage = clip_of(core.pct_label);
    const GdkRectangle title = clip_of(title_row_of(core));
    const Damage::Area damaged = damage.area_within(title);
    if (damaged == 0) {
        return;
    }
    const bool is_name_damaged = damaged > damage.area_within(percentage);
    copy_pixels(title_backdrop(core, canvas.scale), title, canvas, is_name_damaged ? title : percentage);
    if (is_name_damaged) {
        draw_in_place(core.name_label, cr);
    }
    draw_in_place(core.pct_label, cr);
}

/// What lies under the labels of a card, the same for all cards of a size.
const App::TitleBackdrop& App::title_backdrop(const CoreWidgets& core, int scale)
{
    GtkWidget* const row = title_row_of(core);
    const GdkRectangle card = allocation_of(core.card);
    const GdkRectangle title = clip_of(row);
    const TitleBackdrop key{.card_width = card.width,
                            .card_height = card.height,
                            .area = {title.x - card.x, title.y - card.y, title.width, title.height},
                            .scale = scale,
                            .state = gtk_widget_get_state_flags(core.card),
                            .is_opaque = false,
                            .pixels = {}};
    const auto known = std::find(m_title_backdrops.begin(), m_title_backdrops.end(), key);
    if (known != m_title_backdrops.end()) {
        return *known;
    }
    if (m_title_backdrops.size() == MAX_TITLE_BACKDROPS) {
        m_title_backdrops.clear();
    }
    TitleBackdrop& backdrop = m_title_backdrops.emplace_back(key);
    GdkRectangle row_place = allocation_of(row);
    row_place.x -= card.x;
    row_place.y -= card.y;
    backdrop.paint([&](cairo_t* cr) {
        render_box(core.card, cr, {0, 0, card.width, card.height});
        render_box(row, cr, row_place);
    });
    return backdrop;
}

void App::forget_title_backdrops(GtkWidget*, gpointer data)
{
    static_cast<App*>(data)->m_title_backdrops.clear();
}

bool App::TitleBackdrop::operator==(const TitleBackdrop& other) const
{
    return card_width == other.card_width && card_height == other.card_height && gdk_rectangle_equal(&area, &other.area) &&
           scale == other.scale && state == other.state;
}

void App::TitleBackdrop::paint(const std::function<void(cairo_t*)>& paint_card)
{
    cairo_surface_t* const image = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, area.width * scale, area.height * scale);
    cairo_surface_set_device_scale(image, scale, scale);
    cairo_t* const cr = cairo_create(image);
    cairo_translate(cr, -area.x, -area.y);
    paint_card(cr);
    if (const std::optional<PixelCanvas> canvas = PixelCanvas::of(cr)) {
        for (int y = 0; y < canvas->clip.height; ++y) {
            pixels.insert(pixels.end(), canvas->row(y), canvas->row(y) + canvas->clip.width);
        }
    }
    cairo_destroy(cr);
    cairo_surface_destroy(image);
    constexpr std::uint32_t OPAQUE = 0xFF000000;
    is_opaque = !pixels.empty() && std::all_of(pixels.begin(), pixels.end(), [](std::uint32_t p) { return (p & OPAQUE) == OPAQUE; });
}
