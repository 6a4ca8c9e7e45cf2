/// What one chart costs to paint, and one text to look up.
#include <benchmark/benchmark.h>

#include <cmath>

#include "app.h"
#include "chart_painter.h"
#include "i18n.h"
#include "pixel_canvas.h"

namespace {

std::deque<double> full_history()
{
    std::deque<double> history;
    for (std::size_t i = 0; i < CPUReader::HISTORY_SIZE; ++i) {
        history.push_back(0.5 + 0.4 * std::sin(static_cast<double>(i) / 3));
    }
    return history;
}

/// A chart of a card, or of the total panel.
struct Size {
    int width;
    int height;
    double overlay;
};
constexpr Size CARD{52, 60, -1.0};
constexpr Size TOTAL{230, 60, 0.5};

/// An image of the kind on which the window is painted, and its context.
struct Canvas {
    cairo_surface_t* const surface;
    cairo_t* const cr;
    explicit Canvas(const Size& size)
        : surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, size.width, size.height)), cr(cairo_create(surface))
    {
    }
    ~Canvas()
    {
        cairo_destroy(cr);
        cairo_surface_destroy(surface);
    }
    Canvas(const Canvas&) = delete;
    Canvas& operator=(const Canvas&) = delete;
};

void paint_plainly(benchmark::State& state, const Size& size)
{
    const Canvas canvas(size);
    const std::deque<double> history = full_history();
    const Palette palette = Palette::light();
    for (auto _ : state) {
        App::paint_chart(canvas.cr, size.width, size.height, history, App::group_color(0), palette, App::freq_texts(3600), size.overlay);
    }
}
BENCHMARK_CAPTURE(paint_plainly, card, CARD);
BENCHMARK_CAPTURE(paint_plainly, total, TOTAL);

/// As the window paints it.
void paint_on_screen(benchmark::State& state, const Size& size)
{
    const Canvas canvas(size);
    const std::deque<double> history = full_history();
    const Palette palette = Palette::light();
    ChartPainter painter;
    for (auto _ : state) {
        const ChartPainter::Chart chart{.area = {0, 0, size.width, size.height},
                                        .history = history,
                                        .accent = App::group_color(0),
                                        .mhz = 3600,
                                        .load = size.overlay,
                                        .load_color = {0.8, 0.6, 0.0}};
        painter.paint(canvas.cr, *PixelCanvas::of(canvas.cr), chart, palette);
    }
}
BENCHMARK_CAPTURE(paint_on_screen, card, CARD);
BENCHMARK_CAPTURE(paint_on_screen, total, TOTAL);

/// The curve alone, straight onto the pixels, moving and idle.
void paint_curve(benchmark::State& state, const Size& size, double amplitude)
{
    const Canvas canvas(size);
    std::deque<double> history = full_history();
    for (double& load : history) {
        load *= amplitude;
    }
    const CurveLook look{.line_width = 1.2, .line_alpha = 0.85, .fill_alpha_top = 0.55, .fill_alpha_bottom = 0.04};
    const cairo_rectangle_int_t all{0, 0, size.width, size.height};
    const CurveCanvas pixels{.data = cairo_image_surface_get_data(canvas.surface),
                             .stride = cairo_image_surface_get_stride(canvas.surface),
                             .chart = all,
                             .clip = all};
    CurveCoverage coverage;
    for (auto _ : state) {
        coverage.paint(history, static_cast<int>(CPUReader::HISTORY_SIZE), look, {0.8, 0.2, 0.1}, pixels);
    }
}
BENCHMARK_CAPTURE(paint_curve, card, CARD, 1.0);
BENCHMARK_CAPTURE(paint_curve, idle_card, CARD, 0.03);
BENCHMARK_CAPTURE(paint_curve, total, TOTAL, 1.0);
BENCHMARK_CAPTURE(paint_curve, large, (Size{700, 300, -1.0}), 1.0);

/// An empty chart: what is left when the curve costs nothing.
void paint_without_curve(benchmark::State& state, const Size& size)
{
    const Canvas canvas(size);
    const Palette palette = Palette::light();
    for (auto _ : state) {
        App::paint_chart(canvas.cr, size.width, size.height, {}, App::group_color(0), palette, App::freq_texts(3600), size.overlay);
    }
}
BENCHMARK_CAPTURE(paint_without_curve, card, CARD);
BENCHMARK_CAPTURE(paint_without_curve, total, TOTAL);

void translate(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(I18n::instance().tr("Throttle"));
    }
}
BENCHMARK(translate);

void translate_and_format(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(I18n::instance().trf("%d Cores / %d Threads", 8, 16));
    }
}
BENCHMARK(translate_and_format);

}  // namespace
