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

#include "app.h"
#include "pixel_canvas.h"

namespace {

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

/// The box with a card's name and percentage.
GtkWidget* title_row_of(const auto& core)
{
    return gtk_widget_get_parent(core.pct_label);
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
    if (!m_screen_image || !m_screen_image->fits(event.window)) {
        m_screen_image.reset();  // before the other one is made, so that there are never two
        m_screen_image = m_shares_memory ? SharedImage::of(event.window) : nullptr;
        m_shares_memory = m_screen_image != nullptr;
    }
    if (!m_screen_image) {
        return false;
    }
    const Damage damage = m_screen_image->take_damage();
    if (damage.is_empty()) {
        return true;  // all of it lies beside the screen
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
    const bool is_status_alone = !rest.is_empty() && rest.area_within(status_area()) == rest.area() && status_backdrop(*canvas).is_opaque();
    if (!rest.is_empty() && !is_status_alone) {
        cairo_save(cr);
        rest.clip(cr);
        gtk_widget_draw(m_window, cr);
        cairo_restore(cr);
    }
    cairo_save(cr);
    cairo_reset_clip(cr);  // one of hundreds of rectangles would cost more than it saves; what is painted beside them is right as well
    if (is_status_alone) {
        paint_status(cr, *canvas);
    }
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
           std::all_of(titled.begin(), titled.end(), [&](const CoreWidgets* core) { return title_backdrop(*core, canvas).is_opaque(); });
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
    title_backdrop(core, canvas).copy(canvas, title, is_name_damaged ? title : percentage);
    if (is_name_damaged) {
        draw_in_place(core.name_label, cr);
    }
    draw_in_place(core.pct_label, cr);
}

/// What lies under the labels of a card, the same for all cards of a size.
const CardBackdrop& App::title_backdrop(const CoreWidgets& core, const PixelCanvas& canvas)
{
    return m_title_backdrops.of(core.card, title_row_of(core), canvas.scale);
}

const CardBackdrop& App::status_backdrop(const PixelCanvas& canvas)
{
    return m_status_backdrops.of(m_total_panel, gtk_widget_get_parent(m_right_info_label), canvas.scale);
}

/// The part of the status row that its labels can take: on that side of the settings button.
GdkRectangle App::status_area() const
{
    GdkRectangle area = clip_of(gtk_widget_get_parent(m_right_info_label));
    const GdkRectangle gear = clip_of(widget_of(m_total_panel, "gear"));
    const int end = area.x + area.width;
    if (gtk_widget_get_direction(m_total_panel) == GTK_TEXT_DIR_RTL) {
        area.width = gear.x - area.x;
    } else {
        area.x = gear.x + gear.width;
        area.width = end - area.x;
    }
    return area;
}

void App::paint_status(cairo_t* cr, const PixelCanvas& canvas)
{
    status_backdrop(canvas).copy(canvas, clip_of(gtk_widget_get_parent(m_right_info_label)), status_area());
    draw_in_place(m_right_info_label, cr);
    draw_in_place(m_throttle_label, cr);
}

void App::forget_backdrops(GtkWidget*, gpointer data)
{
    App& app = *static_cast<App*>(data);
    app.m_title_backdrops.clear();
    app.m_status_backdrops.clear();
}
