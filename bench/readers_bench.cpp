/// How long a reading of the load takes on the machine on which this runs.
#include <benchmark/benchmark.h>

#include "cpu_reader.h"

namespace {

void read_all_loads(benchmark::State& state)
{
    CPUReader reader;
    reader.m_prev_stats = reader.parse_proc_stat();
    for (auto _ : state) {
        reader.publish(reader.parse_proc_stat());
    }
    state.counters["CPUs"] = static_cast<double>(reader.m_prev_stats.size());
}
BENCHMARK(read_all_loads);

void copy_all_loads(benchmark::State& state)
{
    CPUReader reader;
    reader.m_prev_stats = reader.parse_proc_stat();
    for (std::size_t i = 0; i < CPUReader::HISTORY_SIZE; ++i) {
        reader.publish(reader.parse_proc_stat());
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(reader.get_cores());
    }
}
BENCHMARK(copy_all_loads);

void calculate_one_load(benchmark::State& state)
{
    const CPUReader::RawStat before{.user = 100, .system = 20, .idle = 900};
    CPUReader::RawStat after{.user = 150, .system = 30, .idle = 940};
    for (auto _ : state) {
        benchmark::DoNotOptimize(after);
        benchmark::DoNotOptimize(CPUReader::calc_usage(before, after));
    }
}
BENCHMARK(calculate_one_load);

}  // namespace
