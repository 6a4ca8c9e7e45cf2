/// Painting: charts with grid, ghost text, curve and overlay, the colour bar of a section, and the colours of load and group.
#include <algorithm>
#include <cmath>

#include "app.h"
#include "chart_look.h"
#include "settings.h"

namespace {

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
        const int start = ChartLook::MAX_POINTS - static_cast<int>(history.size());
        return (start + static_cast<int>(i)) / (ChartLook::MAX_POINTS - 1.0) * w;
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

cairo_text_extents_t measure(cairo_t* cr, const std::string& text)
{
    cairo_text_extents_t extents;
    cairo_text_extents(cr, text.c_str(), &extents);
    return extents;
}

void paint_fill(cairo_t* cr, const CurveShape& curve, const Rgb& accent)
{
    cairo_pattern_t* gradient = cairo_pattern_create_linear(0, 0, 0, curve.h);
    cairo_pattern_add_color_stop_rgba(gradient, 0.0, accent.r, accent.g, accent.b, ChartLook::CURVE.fill_alpha_top);
    cairo_pattern_add_color_stop_rgba(gradient, 1.0, accent.r, accent.g, accent.b, ChartLook::CURVE.fill_alpha_bottom);
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
    cairo_set_source_rgba(cr, accent.r, accent.g, accent.b, ChartLook::CURVE.line_alpha);
    cairo_set_line_width(cr, ChartLook::CURVE.line_width);
    curve.trace(cr);
    cairo_stroke(cr);
}

/// The load in the top right corner.
void paint_overlay(cairo_t* cr, int w, double load, const Rgb& color)
{
    const std::string text = ChartLook::load_text(load);
    const CairoState state(cr);
    cairo_set_source_rgba(cr, color.r, color.g, color.b, ChartLook::OVERLAY_ALPHA);
    select_chart_font(cr);
    cairo_set_font_size(cr, ChartLook::OVERLAY_FONT_SIZE);
    const ChartLook::Origin origin = ChartLook::overlay_origin(w, measure(cr, text));
    cairo_move_to(cr, origin.x, origin.y);
    cairo_show_text(cr, text.c_str());
}

}  // namespace

gboolean App::draw_chart(GtkWidget* w, cairo_t* cr, gpointer data)
{
    App& app = *static_cast<App*>(data);
    if (g_object_get_data(G_OBJECT(w), "meta") == nullptr) {
        return FALSE;
    }
    const int width = gtk_widget_get_allocated_width(w);
    const int height = gtk_widget_get_allocated_height(w);
    const ChartPainter::Chart chart = app.chart_of(w, {0, 0, width, height});
    const auto canvas = app.m_paints_own_canvas ? PixelCanvas::of(cr) : std::nullopt;
    if (canvas) {
        app.m_chart_painter.paint(cr, *canvas, chart, app.palette());
    } else {
        paint_chart(cr, width, height, chart.history, chart.accent, app.palette(), freq_texts(chart.mhz), chart.load);
    }
    return FALSE;
}

ChartPainter::Chart App::chart_of(GtkWidget* chart, const GdkRectangle& area) const
{
    static const std::deque<double> NO_HISTORY;
    const auto& meta = *static_cast<const ChartMeta*>(g_object_get_data(G_OBJECT(chart), "meta"));
    const Rgb accent = group_color(meta.color_index);
    if (meta.cpu_index == -1) {
        Rgb color;
        usage_color(m_cache.total, m_dark, color.r, color.g, color.b);
        return {.area = area,
                .history = m_cache.total_history,
                .accent = accent,
                .mhz = frequency_of(meta),
                .load = m_cache.total,
                .load_color = color};
    }
    const auto cpu = static_cast<std::size_t>(meta.cpu_index);
    return {.area = area,
            .history = cpu < m_cache.cores.size() ? m_cache.cores[cpu].history : NO_HISTORY,
            .accent = accent,
            .mhz = frequency_of(meta),
            .load = -1.0,
            .load_color = {}};
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
    ChartLook::paint_backdrop(cr, w, h, pal);
    draw_ghost(cr, w, h, ghost, pal);
    if (!history.empty()) {
        const CurveShape curve{history, w, h};
        paint_fill(cr, curve, accent);
        paint_curve(cr, curve, accent);
    }
    if (ChartLook::has_overlay(w, pct_overlay)) {
        Rgb color;
        usage_color(pct_overlay, pal.dark, color.r, color.g, color.b);
        paint_overlay(cr, w, pct_overlay, color);
    }
}

void App::draw_ghost(cairo_t* cr, int w, int h, const std::vector<std::string>& candidates, const Palette& pal)
{
    const CairoState state(cr);
    select_chart_font(cr);
    const auto ghost = ChartLook::choose_ghost(
        w, h, candidates.size(), [&](std::size_t i) { return candidates[i]; },
        [&](const std::string& text, double size) {
            cairo_set_font_size(cr, size);
            return measure(cr, text).width;
        });
    if (ghost) {
        draw_ghost_text(cr, w, h, ghost->text, ghost->size, pal);
    }
}

void App::draw_ghost_text(cairo_t* cr, int w, int h, const std::string& text, double size, const Palette& pal)
{
    cairo_set_font_size(cr, size);
    const ChartLook::Origin origin = ChartLook::ghost_origin(w, h, measure(cr, text));
    cairo_move_to(cr, origin.x, origin.y);
    cairo_set_source_rgba(cr, pal.ink, pal.ink, pal.ink, pal.ghost_alpha);
    cairo_show_text(cr, text.c_str());
}

std::vector<std::string> App::freq_texts(double mhz)
{
    const ChartLook::FrequencyForms forms(mhz);
    std::vector<std::string> texts;
    for (std::size_t form = 0; form < forms.count(); ++form) {
        texts.push_back(forms.text(form));
    }
    return texts;
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
