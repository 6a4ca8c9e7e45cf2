/// The picture is the one of data/icons/vantric.svg, painted by cairo.
#include "window_icon.h"

namespace {

constexpr double DRAWING_SIZE = 128.0;  // what the measures below refer to, as in data/icons/vantric.svg
constexpr int SIZES[] = {16, 32, 48};   // pixels
constexpr double QUARTER_TURN = 1.5707963267948966;

struct Box {
    double x, y, width, height, radius;
};

struct Meter {
    double x, top;
    double red, green, blue;
};

constexpr Box FRAME = {8, 8, 112, 112, 24};
constexpr Box CASE = {12, 12, 104, 104, 20};
constexpr double METER_TOP = 24;
constexpr double METER_BOTTOM = 104;
constexpr Meter METERS[] = {{24, 56, 0.973, 0.827, 0.235}, {56, 32, 1.0, 0.357, 0.290}, {88, 80, 0.2, 0.820, 0.478}};

void fill_box(cairo_t* cr, const Box& box)
{
    const double right = box.x + box.width - box.radius;
    const double bottom = box.y + box.height - box.radius;
    cairo_new_sub_path(cr);
    cairo_arc(cr, right, box.y + box.radius, box.radius, -QUARTER_TURN, 0);
    cairo_arc(cr, right, bottom, box.radius, 0, QUARTER_TURN);
    cairo_arc(cr, box.x + box.radius, bottom, box.radius, QUARTER_TURN, 2 * QUARTER_TURN);
    cairo_arc(cr, box.x + box.radius, box.y + box.radius, box.radius, 2 * QUARTER_TURN, 3 * QUARTER_TURN);
    cairo_close_path(cr);
    cairo_fill(cr);
}

/// Three meters, filled as far as their CPUs are busy.
void paint(cairo_t* cr)
{
    cairo_set_source_rgb(cr, 0.498, 0.576, 0.741);
    fill_box(cr, FRAME);
    cairo_set_source_rgb(cr, 0.188, 0.243, 0.365);
    fill_box(cr, CASE);
    for (const Meter& meter : METERS) {
        cairo_set_source_rgba(cr, 1, 1, 1, 0.14);
        fill_box(cr, {meter.x, METER_TOP, 16, METER_BOTTOM - METER_TOP, 4});
        cairo_set_source_rgb(cr, meter.red, meter.green, meter.blue);
        fill_box(cr, {meter.x, meter.top, 16, METER_BOTTOM - meter.top, 4});
    }
}

/// To be released by the caller.
GdkPixbuf* painted(int size)
{
    cairo_surface_t* image = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, size, size);
    cairo_t* cr = cairo_create(image);
    cairo_scale(cr, size / DRAWING_SIZE, size / DRAWING_SIZE);
    paint(cr);
    cairo_destroy(cr);
    GdkPixbuf* pixbuf = gdk_pixbuf_get_from_surface(image, 0, 0, size, size);
    cairo_surface_destroy(image);
    return pixbuf;
}

}  // namespace

void set_window_icon()
{
    GList* pictures = nullptr;
    for (const int size : SIZES) {
        pictures = g_list_append(pictures, painted(size));
    }
    gtk_window_set_default_icon_list(pictures);
    g_list_free_full(pictures, g_object_unref);
}
