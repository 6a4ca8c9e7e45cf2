/// How long a pass over all sensors takes on the machine on which this runs, reader by reader, and beside it the floor: the same files
/// opened, read and closed by a plain C loop.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "counted_new.h"
#include "kernel_file.h"
#include "system_metrics.h"

namespace {

/// Runs `read` over and over; tells allocations and CPUs with the time.
template <typename Reader>
void measure(benchmark::State& state, Reader read)
{
    SystemMetrics metrics;
    const std::size_t before = g_allocations;
    for (auto _ : state) {
        read(metrics);
    }
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(g_allocations - before), benchmark::Counter::kAvgIterations);
    state.counters["CPUs"] = metrics.get_core_count();
}

/// Every file that a pass reads.
std::vector<std::string> files_of_a_pass(const SystemMetrics& metrics)
{
    std::vector<std::string> files = {"/proc/meminfo"};
    for (const std::string& path : {metrics.m_temp_path, metrics.m_rapl_path}) {
        if (!path.empty()) {
            files.push_back(path);
        }
    }
    for (int cpu = 0; cpu < metrics.get_core_count(); ++cpu) {
        if (metrics.m_has_cpufreq) {
            files.push_back(CpuFile("cpufreq/scaling_cur_freq").of(cpu));
        }
        if (metrics.m_has_throttle_counter) {
            files.push_back(CpuFile("thermal_throttle/core_throttle_count").of(cpu));
        }
    }
    return files;
}

void floor_of_a_pass(benchmark::State& state)
{
    const std::vector<std::string> files = files_of_a_pass(SystemMetrics());
    char text[4096];
    for (auto _ : state) {
        for (const std::string& file : files) {
            const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                benchmark::DoNotOptimize(read(fd, text, sizeof text));
                close(fd);
            }
        }
    }
}
BENCHMARK(floor_of_a_pass);

void whole_pass(benchmark::State& state)
{
    measure(state, [](SystemMetrics& metrics) { metrics.sample(); });
}
BENCHMARK(whole_pass);

void temperature(benchmark::State& state)
{
    measure(state, [](SystemMetrics& metrics) { benchmark::DoNotOptimize(metrics.read_temperature()); });
}
BENCHMARK(temperature);

void power(benchmark::State& state)
{
    measure(state, [](SystemMetrics& metrics) { benchmark::DoNotOptimize(metrics.read_power()); });
}
BENCHMARK(power);

void frequencies(benchmark::State& state)
{
    measure(state, [](SystemMetrics& metrics) { benchmark::DoNotOptimize(metrics.read_frequencies()); });
}
BENCHMARK(frequencies);

void memory(benchmark::State& state)
{
    measure(state, [](SystemMetrics& metrics) {
        double used = 0.0;
        double total = 0.0;
        metrics.read_memory(used, total);
        benchmark::DoNotOptimize(used + total);
    });
}
BENCHMARK(memory);

void throttle_count(benchmark::State& state)
{
    measure(state, [](SystemMetrics& metrics) { benchmark::DoNotOptimize(metrics.read_throttle_count()); });
}
BENCHMARK(throttle_count);

}  // namespace
