/// Painting: charts with grid, ghost text, curve and overlay, the colour bar of a section, and the colours of load and group.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "app.h"
#include "settings.h"

namespace {

constexpr int MAX_POINTS = static_cast<int>(CPUReader::HISTORY_SIZE);  // a chart always spans a whole history
constexpr double GRID_LINE_WIDTH = 0.5;
constexpr CurveLook CURVE_LOOK{.line_width = 1.2, .line_alpha = 0.85, .fill_alpha_top = 0.55, .fill_alpha_bottom = 0.04};

constexpr int MAX_COVERAGE_PIXELS = 1 << 14;  // the masks of a larger chart would cost more memory than they save time

constexpr int OVERLAY_MIN_WIDTH = 40;  // the chart must be wider than this
constexpr double OVERLAY_FONT_SIZE = 12.0;
constexpr double OVERLAY_MARGIN = 4.0;
constexpr double OVERLAY_ALPHA = 0.9;

constexpr int GHOST_MIN_HEIGHT = 20;
constexpr double GHOST_MARGINS = 6.0;
constexpr double GHOST_MIN_WIDTH = 12.0;
constexpr double GHOST_MAX_SIZE = 18.0;
constexpr double GHOST_SIZE_BY_HEIGHT = 0.42;
constexpr double LEGIBLE = 9.0;   // a longer form of the clock must read without effort
constexpr double MIN_FONT = 7.0;  // the shortest form may go down to this before it is given up

constexpr double BAR_RADIUS = 1.5;

constexpr double HIGH_LOAD = 0.7;
constexpr double MEDIUM_LOAD = 0.3;

/// Restores the cairo state on every way out of the scope.
struct CairoState {
    cairo_t* const cr;
    explicit CairoState(cairo_t* context) : cr(context) { cairo_save(cr); }
    ~CairoState() { cairo_restore(cr); }
    CairoState(const CairoState&) = delete;
    CairoState& operator=(const CairoState&) = delete;
};

/// Where the values of a history stand in a chart: the newest at the right edge, a full load at the top.
struct CurveShape {
    const std::deque<double>& history;
    int w;
    int h;

    double x(std::size_t i) const
    {
        const int start = MAX_POINTS - static_cast<int>(history.size());
        return (start + static_cast<int>(i)) / (MAX_POINTS - 1.0) * w;
    }
    double y(std::size_t i) const { return (1.0 - history[i]) * h; }

    void trace(cairo_t* cr) const
    {
        cairo_move_to(cr, x(0), y(0));
        for (std::size_t i = 1; i < history.size(); ++i) {
            cairo_line_to(cr, x(i), y(i));
        }
    }
};

void select_chart_font(cairo_t* cr)
{
    cairo_select_font_face(cr, "monospace", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
}

cairo_text_extents_t measure(cairo_t* cr, const std::string& text)
{
    cairo_text_extents_t extents;
    cairo_text_extents(cr, text.c_str(), &extents);
    return extents;
}

void paint_background(cairo_t* cr, const Palette& pal)
{
    Rgb background;
    hex_to_rgb(pal.chart_bg, background);
    cairo_set_source_rgb(cr, background.r, background.g, background.b);
    cairo_paint(cr);
}

void paint_grid(cairo_t* cr, int w, int h, const Palette& pal)
{
    cairo_set_line_width(cr, GRID_LINE_WIDTH);
    cairo_set_source_rgba(cr, pal.ink, pal.ink, pal.ink, pal.grid_alpha);
    for (const double pct : {0.25, 0.5, 0.75}) {
        const double y = (1.0 - pct) * h;
        cairo_move_to(cr, 0, y);
        cairo_line_to(cr, w, y);
        cairo_stroke(cr);
    }
}

void paint_fill(cairo_t* cr, const CurveShape& curve, const Rgb& accent)
{
    cairo_pattern_t* gradient = cairo_pattern_create_linear(0, 0, 0, curve.h);
    cairo_pattern_add_color_stop_rgba(gradient, 0.0, accent.r, accent.g, accent.b, CURVE_LOOK.fill_alpha_top);
    cairo_pattern_add_color_stop_rgba(gradient, 1.0, accent.r, accent.g, accent.b, CURVE_LOOK.fill_alpha_bottom);
    curve.trace(cr);
    cairo_line_to(cr, curve.w, curve.h);
    cairo_line_to(cr, curve.x(0), curve.h);
    cairo_close_path(cr);
    cairo_set_source(cr, gradient);
    cairo_fill(cr);
    cairo_pattern_destroy(gradient);
}

void paint_curve(cairo_t* cr, const CurveShape& curve, const Rgb& accent)
{
    cairo_set_source_rgba(cr, accent.r, accent.g, accent.b, CURVE_LOOK.line_alpha);
    cairo_set_line_width(cr, CURVE_LOOK.line_width);
    curve.trace(cr);
    cairo_stroke(cr);
}

/// How many pixels a unit has on a canvas where every unit begins with a pixel and is that many whole pixels wide and high; 0 on another.
int whole_scale(cairo_t* cr)
{
    const auto is_whole = [](double number) { return number == std::floor(number); };
    cairo_surface_t* surface = cairo_get_target(cr);
    double scale_x = 0.0;
    double scale_y = 0.0;
    cairo_surface_get_device_scale(surface, &scale_x, &scale_y);
    cairo_matrix_t m;
    cairo_get_matrix(cr, &m);
    const bool is_shift = m.xx == 1 && m.yy == 1 && m.xy == 0 && m.yx == 0 && is_whole(m.x0) && is_whole(m.y0);
    const bool is_aligned = cairo_surface_get_type(surface) == CAIRO_SURFACE_TYPE_IMAGE && is_shift && scale_x == scale_y;
    return is_aligned && is_whole(scale_x) ? static_cast<int>(scale_x) : 0;
}

/// The load in the top right corner, its ink OVERLAY_MARGIN away from both edges.
void paint_overlay(cairo_t* cr, int w, double load, const Rgb& color)
{
    char text[16];
    std::snprintf(text, sizeof text, "%.0f%%", load * 100);
    const CairoState state(cr);
    cairo_set_source_rgba(cr, color.r, color.g, color.b, OVERLAY_ALPHA);
    select_chart_font(cr);
    cairo_set_font_size(cr, OVERLAY_FONT_SIZE);
    const cairo_text_extents_t ext = measure(cr, text);
    cairo_move_to(cr, w - ext.width - ext.x_bearing - OVERLAY_MARGIN, OVERLAY_MARGIN - ext.y_bearing);
    cairo_show_text(cr, text);
}

/// The font size at which a text is no wider than `avail`, at most `base_size`.
double fitted_size(cairo_t* cr, const std::string& text, double base_size, double avail)
{
    cairo_set_font_size(cr, base_size);
    const double width = measure(cr, text).width;
    return width > avail && width > 0 ? base_size * avail / width : base_size;
}

std::string format_number(const char* format, double value)
{
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

}  // namespace

gboolean App::draw_chart(GtkWidget* w, cairo_t* cr, gpointer data)
{
    App& app = *static_cast<App*>(data);
    const auto* meta = static_cast<const ChartMeta*>(g_object_get_data(G_OBJECT(w), "meta"));
    if (meta == nullptr) {
        return FALSE;
    }
    const int width = gtk_widget_get_allocated_width(w);
    const int height = gtk_widget_get_allocated_height(w);
    const Rgb accent = group_color(meta->color_index);
    const Cache& cache = app.m_cache;
    if (meta->cpu_index == -1) {
        app.paint_chart_on_screen(cr, width, height, cache.total_history, accent, freq_texts(app.total_frequency()), cache.total);
        return FALSE;
    }
    static const std::deque<double> NO_HISTORY;
    const auto cpu = static_cast<std::size_t>(meta->cpu_index);
    const auto& history = cpu < cache.cores.size() ? cache.cores[cpu].history : NO_HISTORY;
    const double mhz = cpu < cache.frequencies.size() ? cache.frequencies[cpu] : 0.0;
    app.paint_chart_on_screen(cr, width, height, history, accent, freq_texts(mhz), -1.0);
    return FALSE;
}

/// The machine's peak clock in MHz, not its mean; 0.0 if no clock is known.
double App::total_frequency() const
{
    const auto highest = std::max_element(m_cache.frequencies.begin(), m_cache.frequencies.end());
    return highest != m_cache.frequencies.end() ? *highest : 0.0;
}

gboolean App::draw_color_bar(GtkWidget* w, cairo_t* cr, gpointer)
{
    const Rgb color = group_color(GPOINTER_TO_INT(g_object_get_data(G_OBJECT(w), "color_index")));
    const int h = gtk_widget_get_allocated_height(w);
    cairo_set_source_rgb(cr, color.r, color.g, color.b);
    cairo_arc(cr, BAR_RADIUS, BAR_RADIUS, BAR_RADIUS, M_PI, -M_PI / 2);
    cairo_arc(cr, BAR_RADIUS, h - BAR_RADIUS, BAR_RADIUS, M_PI / 2, M_PI);
    cairo_close_path(cr);
    cairo_fill(cr);
    return FALSE;
}

void App::paint_chart(cairo_t* cr, int w, int h, const std::deque<double>& history, const Rgb& accent, const Palette& pal,
                      const std::vector<std::string>& ghost, double pct_overlay)
{
    paint_chart_around(cr, w, h, pal, ghost, pct_overlay, [&] {
        if (!history.empty()) {
            const CurveShape curve{history, w, h};
            paint_fill(cr, curve, accent);
            paint_curve(cr, curve, accent);
        }
    });
}

void App::paint_chart_on_screen(cairo_t* cr, int w, int h, const std::deque<double>& history, const Rgb& accent,
                                const std::vector<std::string>& ghost, double pct_overlay)
{
    const int scale = m_painting ? whole_scale(cr) : 0;
    if (scale == 0 || w * h > MAX_COVERAGE_PIXELS / (scale * scale)) {
        paint_chart(cr, w, h, history, accent, palette(), ghost, pct_overlay);
        return;
    }
    paint_chart_around(cr, w, h, palette(), ghost, pct_overlay, [&] {
        if (cairo_surface_t* opacity = m_curve_coverage.opacity(history, MAX_POINTS, w, h, scale, CURVE_LOOK)) {
            cairo_set_source_rgb(cr, accent.r, accent.g, accent.b);
            cairo_mask_surface(cr, opacity, 0, 0);
        }
    });
}

void App::paint_chart_around(cairo_t* cr, int w, int h, const Palette& pal, const std::vector<std::string>& ghost, double pct_overlay,
                             const std::function<void()>& paint_curve)
{
    paint_background(cr, pal);
    paint_grid(cr, w, h, pal);
    draw_ghost(cr, w, h, ghost, pal);
    paint_curve();
    if (w > OVERLAY_MIN_WIDTH && pct_overlay >= 0) {
        Rgb color;
        usage_color(pct_overlay, pal.dark, color.r, color.g, color.b);
        paint_overlay(cr, w, pct_overlay, color);
    }
}

void App::draw_ghost(cairo_t* cr, int w, int h, const std::vector<std::string>& candidates, const Palette& pal)
{
    const double avail = w - GHOST_MARGINS;
    if (candidates.empty() || h < GHOST_MIN_HEIGHT || avail < GHOST_MIN_WIDTH) {
        return;
    }
    const CairoState state(cr);
    select_chart_font(cr);
    const double base_size = std::min(GHOST_MAX_SIZE, h * GHOST_SIZE_BY_HEIGHT);
    for (const std::string& text : candidates) {
        if (text.empty()) {
            continue;
        }
        const double size = fitted_size(cr, text, base_size, avail);
        if (size >= LEGIBLE) {
            draw_ghost_text(cr, w, h, text, size, pal);
            return;
        }
    }
    const std::string& shortest = candidates.back();
    const double size = fitted_size(cr, shortest, base_size, avail);
    if (size >= MIN_FONT) {
        draw_ghost_text(cr, w, h, shortest, size, pal);
    }
}

void App::draw_ghost_text(cairo_t* cr, int w, int h, const std::string& text, double size, const Palette& pal)
{
    cairo_set_font_size(cr, size);
    const cairo_text_extents_t ext = measure(cr, text);
    const double tx = (w - ext.width) * 0.5 - ext.x_bearing;
    const double ty = (h + ext.height) * 0.5 - ext.y_bearing;
    cairo_move_to(cr, tx, ty - ext.height);
    cairo_set_source_rgba(cr, pal.ink, pal.ink, pal.ink, pal.ghost_alpha);
    cairo_show_text(cr, text.c_str());
}

std::vector<std::string> App::freq_texts(double mhz)
{
    if (!(mhz > 0)) {
        return {};
    }
    if (mhz >= MHZ_PER_GHZ) {
        const double ghz = mhz / MHZ_PER_GHZ;
        return {format_number("%.3f GHz", ghz), format_number("%.1f GHz", ghz), format_number("%.1fG", ghz), format_number("%.1f", ghz)};
    }
    return {format_number("%.0f MHz", mhz), format_number("%.0fM", mhz), format_number("%.0f", mhz)};
}

void App::usage_color(double usage, bool dark, double& r, double& g, double& b)
{
    static constexpr Rgb HIGH[] = {{0.9, 0.2, 0.1}, {1.0, 0.35, 0.25}};  // light, dark
    static constexpr Rgb MEDIUM[] = {{0.8, 0.6, 0.0}, {1.0, 0.75, 0.15}};
    static constexpr Rgb LOW[] = {{0.1, 0.6, 0.2}, {0.3, 0.85, 0.4}};
    const Rgb* const band = usage >= HIGH_LOAD ? HIGH : usage >= MEDIUM_LOAD ? MEDIUM : LOW;
    r = band[dark].r;
    g = band[dark].g;
    b = band[dark].b;
}

Rgb App::group_color(int index)
{
    const Settings& settings = SettingsStore::instance().get();
    const auto slot = static_cast<std::size_t>(index);
    const bool is_group = slot < settings.groups.size();
    Rgb color;
    if (!hex_to_rgb(is_group ? settings.groups[slot] : settings.total, color)) {
        hex_to_rgb(is_group ? ColorDefaults::GROUPS[slot] : ColorDefaults::TOTAL, color);
    }
    return color;
}
