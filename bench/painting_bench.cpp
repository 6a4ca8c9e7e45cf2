/// What one chart costs to paint, and one text to look up.
#include <benchmark/benchmark.h>

#include <cmath>

#include "app.h"
#include "i18n.h"

namespace {

std::deque<double> full_history()
{
    std::deque<double> history;
    for (std::size_t i = 0; i < CPUReader::HISTORY_SIZE; ++i) {
        history.push_back(0.5 + 0.4 * std::sin(static_cast<double>(i) / 3));
    }
    return history;
}

void paint(benchmark::State& state, int width, int height, double overlay)
{
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    cairo_t* cr = cairo_create(surface);
    const std::deque<double> history = full_history();
    const Palette palette = Palette::light();
    for (auto _ : state) {
        App::paint_chart(cr, width, height, history, App::group_color(0), palette, App::freq_texts(3600), overlay);
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
}

void paint_card(benchmark::State& state)
{
    paint(state, 52, 60, -1.0);
}
BENCHMARK(paint_card);

void paint_total(benchmark::State& state)
{
    paint(state, 230, 60, 0.5);
}
BENCHMARK(paint_total);

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
