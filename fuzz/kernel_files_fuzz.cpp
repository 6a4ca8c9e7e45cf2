/// Any files below /proc and /sys, which change from pass to pass and may contradict each other: every figure of the machine, every
/// reading of its sensors and the clusters of its CPUs are what the files say, in the documented range, or the documented absence.
///
/// An input is a text. A line "== KIND PATH" begins a file: "file", whose text stands in the lines below; "folder"; "failing", which can be
/// opened but not read; "loop", a link to itself; "dangling", a link to nowhere; or "gone", which takes it away. A line "== next pass" ends
/// what is there for one pass of the sampler; what follows changes it. See corpus/kernel_files.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <iterator>
#include <map>

#include "cpu_topology.h"
#include "expected_machine.h"
#include "property.h"
#include "system_metrics.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using expected::NONE;

constexpr std::string_view NEXT_PASS = "== next pass\n";
constexpr std::string_view NEXT_FILE = "== ";
constexpr std::size_t MOST_PASSES = 6;
constexpr std::size_t MOST_FILES = 64;
constexpr std::size_t LONGEST_PATH = 160;
constexpr double ROUNDING = 1e-9;

// --- the machine of an input ---

bool is_file_name(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." && name.find('\0') == std::string_view::npos;
}

/// Whether something may be laid there: in one of the folders that the program looks into, with no way out of them.
bool is_usable(std::string_view path)
{
    if (path == "/proc/cpuinfo" || path == "/proc/meminfo") {
        return true;
    }
    const bool is_inside = path.starts_with("/sys/class/") || path.starts_with("/sys/devices/") || path.starts_with("/sys/bus/");
    const auto names = parts_of(path.substr(std::min(path.size(), std::size_t{1})), "/");
    return is_inside && path.size() <= LONGEST_PATH && std::all_of(names.begin(), names.end(), is_file_name);
}

void lay(const std::string& kind, const std::string& path, const std::string& text)
{
    FakeMachine& machine = fuzz_machine();
    if (kind == "gone") {
        machine.remove(path);
    } else if (kind == "folder") {
        machine.directory(path);
    } else if (kind == "failing") {
        machine.failing(path);
    } else if (kind == "loop") {
        machine.loop(path);
    } else if (kind == "dangling") {
        machine.link(path, "/sys/gone");
    } else {
        machine.file(path, text);
    }
}

/// Lays one "KIND PATH" with its text. What can't be laid is left out.
void lay_chunk(std::string_view chunk)
{
    const std::size_t end = std::min(chunk.find('\n'), chunk.size());
    const std::string_view header = chunk.substr(0, end);
    const std::string_view text = chunk.substr(std::min(end + 1, chunk.size()));
    const std::size_t blank = std::min(header.find(' '), header.size());
    const std::string path(header.substr(std::min(blank + 1, header.size())));
    if (!is_usable(path)) {
        return;
    }
    try {
        lay(std::string(header.substr(0, blank)), path, std::string(text));
    } catch (const fs::filesystem_error&) {
        fuzz_machine().remove(FakeMachine::staged(path));  // nothing can be laid below a file or a link
    }
}

void lay_pass(std::string_view text)
{
    std::vector<std::string_view> chunks = parts_of(text, NEXT_FILE);
    chunks.resize(std::min(chunks.size(), MOST_FILES));
    for (const std::string_view chunk : chunks) {
        lay_chunk(chunk);
    }
}

void take_all_away()
{
    for (const char* path : {"/sys/class", "/sys/devices", "/sys/bus", "/proc/cpuinfo", "/proc/meminfo"}) {
        fuzz_machine().remove(path);
    }
}

// --- what must hold ---

void require_list(const std::vector<double>& expected, const std::vector<double>& found, const char* what)
{
    require_equal(expected.size(), found.size(), what);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        require_equal(expected[i], found[i], what);
    }
}

std::vector<double> in_mhz(const std::vector<std::uint64_t>& khz)
{
    std::vector<double> mhz;
    std::transform(khz.begin(), khz.end(), std::back_inserter(mhz), [](std::uint64_t f) { return static_cast<double>(f) / 1000.0; });
    return mhz;
}

void require_memory(const SystemMetrics& metrics)
{
    const double used = metrics.get_memory_used_gb();
    const double total = metrics.get_memory_total_gb();
    const bool is_unknown = used == NONE && total == NONE;
    require(is_unknown || (total > 0 && used >= 0 && used <= total), "memory is unknown, or used of a total that is more than nothing");
    const expected::Memory memory = expected::memory();
    require_equal(memory.used, used, "used memory is what is not available");
    require_equal(memory.total, total, "total memory is MemTotal");
}

void require_identity(const SystemMetrics& metrics)
{
    const std::size_t cpus = expected::cpu_entries().size();
    const int cores = metrics.get_physical_core_count();
    require_equal(expected::cpu_name(expected::text_of("/proc/cpuinfo")).value(), metrics.get_cpu_name(), "the name is the shortened one");
    require_equal(static_cast<int>(cpus), metrics.get_core_count(), "the logical CPUs are the entries with a number");
    require_equal(static_cast<int>(expected::physical_cores()), cores, "the physical cores are the pairs of package and core");
    require(cores >= 0 && cores <= metrics.get_core_count(), "there are no more cores than logical CPUs");
    require_list(in_mhz(expected::highest_clocks(cpus)), metrics.get_max_frequencies(), "every CPU has its highest clock, or 0.0");
}

void require_nothing_sampled(const SystemMetrics& metrics)
{
    require_equal(NONE, metrics.get_temperature(), "before the first pass there is no temperature");
    require_equal(NONE, metrics.get_power(), "before the first pass there is no power");
    require(metrics.get_frequencies().empty(), "before the first pass there are no clocks");
    require(!metrics.is_thermal_throttling(), "before the first pass nothing throttles");
}

/// A span of time in which something happened.
struct Span {
    Clock::time_point begin = Clock::now();
    Clock::time_point end = begin;
};

double seconds(Clock::duration time)
{
    return std::chrono::duration<double>(time).count();
}

/// The sampler's side of what changes from pass to pass.
class ExpectedPasses {
public:
    explicit ExpectedPasses(const Span& construction)
        : m_energy_read(construction), m_energy(expected::number_in<std::uint64_t>(expected::ENERGY).value_or(0))
    {
    }

    /// After the pass that took place in that span.
    void require_of(const SystemMetrics& metrics, const Span& pass)
    {
        require_memory(metrics);
        const double temperature = expected::temperature(m_temperature_file);
        require_equal(temperature, metrics.get_temperature(), "the temperature is the chosen file's, or -1.0");
        require_equal(m_limit, metrics.get_temp_limit(), "the limit is the machine's, or 95");
        require(m_limit > 40.0 && m_limit < 130.0, "a limit is above 40 and below 130 degrees");
        require_list(expected::current_clocks(m_has_clocks), metrics.get_frequencies(), "the clocks go up to the first CPU without one");
        require_equal(is_throttling(temperature), metrics.is_thermal_throttling(), "events decide over throttling, else the temperature");
        require_power(metrics.get_power(), pass);
    }

private:
    bool is_throttling(double temperature)
    {
        const std::int64_t before = m_throttle_events;
        m_throttle_events = expected::throttle_events(m_counts_throttling, m_cpus);
        return m_counts_throttling ? before >= 0 && m_throttle_events > before : temperature >= 0 && temperature >= m_limit - 3.0;
    }

    void require_power(double watts, const Span& pass)
    {
        const auto now = m_has_energy ? expected::number_in<std::uint64_t>(expected::ENERGY) : std::nullopt;
        if (!now || *now <= m_energy) {
            require_equal(NONE, watts, "without more energy than before there is no power");
        } else {
            const double joules = static_cast<double>(*now - m_energy) / 1000000.0;
            require(std::isfinite(watts) && watts > 0, "power is above 0 and finite");
            require(watts * seconds(pass.end - m_energy_read.begin) >= joules * (1 - ROUNDING), "power is all of the energy in its time");
            require(watts * seconds(pass.begin - m_energy_read.end) <= joules * (1 + ROUNDING), "power is no more than the energy");
        }
        if (now) {
            m_energy = *now;
            m_energy_read = pass;
        }
    }

    const std::size_t m_cpus = expected::cpu_entries().size();
    const std::string m_temperature_file = expected::temperature_file();
    const double m_limit = expected::temperature_limit(m_temperature_file);
    const bool m_has_clocks = fs::exists(expected::cpu_file(0, "cpufreq/scaling_cur_freq"));
    const bool m_counts_throttling = fs::exists(expected::cpu_file(0, "thermal_throttle/core_throttle_count"));
    const bool m_has_energy = fs::exists(expected::ENERGY);
    std::int64_t m_throttle_events = expected::throttle_events(m_counts_throttling, m_cpus);
    Span m_energy_read;
    std::uint64_t m_energy;
};

// --- clusters ---

constexpr const char* NUMBERED = "Cluster %d";

/// The place of a plain name among its like, from fast to slow; -1 for none of them.
int rank_of(const std::string& name)
{
    constexpr std::array FAST_TO_SLOW = {"Performance", "Balanced-H", "Balanced", "Balanced-L", "Efficiency"};
    const auto found = std::find(FAST_TO_SLOW.begin(), FAST_TO_SLOW.end(), name);
    return found != FAST_TO_SLOW.end() ? static_cast<int>(found - FAST_TO_SLOW.begin()) : -1;
}

/// The core type of each CPU; empty unless all have one and there are several.
std::vector<std::string> core_types(std::size_t cpus)
{
    std::vector<std::string> types;
    for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
        std::string type = expected::first_line_of("/sys/bus/cpu/devices/cpu" + std::to_string(cpu) + "/cpu_type");
        while (!type.empty() && std::string_view("\n\r ").find(type.back()) != std::string_view::npos) {
            type.pop_back();
        }
        types.push_back(type);
    }
    const std::set<std::string> distinct(types.begin(), types.end());
    return distinct.contains("") || distinct.size() < 2 ? std::vector<std::string>() : types;
}

void require_name(const CpuCluster& cluster, bool is_only_one)
{
    require(!cluster.display_name().empty(), "a cluster has a title");
    require(cluster.color_index >= 0 && cluster.color_index < 4, "a cluster's colour is one of four");
    if (cluster.name_key == NUMBERED) {
        require(cluster.name_index >= 1, "clusters are numbered from 1");
        require_equal((cluster.name_index - 1) % 4, cluster.color_index, "the colour follows from the number");
        return;
    }
    require_equal(-1, cluster.name_index, "a plain name has no number");
    require(rank_of(cluster.name_key) >= 0 || (cluster.name_key == "CPU" && is_only_one), "a plain name is one of the known");
    require(rank_of(cluster.name_key) > 0 || cluster.color_index == 0, "the fastest cluster has the first colour");
}

/// Two clusters that follow each other.
void require_order(const CpuCluster& faster, const CpuCluster& slower)
{
    require(faster.max_freq_mhz >= slower.max_freq_mhz, "clusters stand in the order of their clocks");
    require_equal(faster.name_key == NUMBERED, slower.name_key == NUMBERED, "either all clusters are numbered or none");
    require(faster.name_key == NUMBERED ? faster.name_index < slower.name_index : rank_of(faster.name_key) < rank_of(slower.name_key),
            "clusters stand in the order of their names");
}

/// The place of each CPU's cluster; -1 for a CPU that is in none.
std::vector<int> places(const std::vector<CpuCluster>& clusters, std::size_t cpus)
{
    std::vector<int> places(cpus, -1);
    for (std::size_t i = 0; i < clusters.size(); ++i) {
        const std::vector<std::int32_t>& members = clusters[i].cpu_indices;
        require(!members.empty(), "a cluster has CPUs");
        require(std::is_sorted(members.begin(), members.end()), "the CPUs of a cluster are in order");
        for (const std::int32_t cpu : members) {
            require(cpu >= 0 && static_cast<std::size_t>(cpu) < cpus, "a cluster's CPUs are there");
            require_equal(-1, std::exchange(places[static_cast<std::size_t>(cpu)], static_cast<int>(i)), "a CPU is in one cluster");
        }
    }
    return places;
}

void require_by_type(const std::vector<CpuCluster>& clusters, const std::vector<int>& places, const std::vector<std::string>& types,
                     const std::vector<std::uint64_t>& khz)
{
    std::map<std::string, int> place_of;
    for (std::size_t cpu = 0; cpu < types.size(); ++cpu) {
        require_equal(place_of.emplace(types[cpu], places[cpu]).first->second, places[cpu], "CPUs of one type are together");
    }
    require_equal(place_of.size(), clusters.size(), "every type has its own cluster");
    require_equal(clusters.size() > 2, clusters.front().name_key == NUMBERED, "three and more types have numbers");
    for (const CpuCluster& cluster : clusters) {
        std::uint64_t highest = 0;
        for (const std::int32_t cpu : cluster.cpu_indices) {
            highest = std::max(highest, khz[static_cast<std::size_t>(cpu)]);
        }
        require_equal(static_cast<double>(highest) / 1000.0, cluster.max_freq_mhz, "a type's clock is its highest");
    }
}

/// Whether a clock is less than a fifth of the other away from it, in the signed 64 bits that clocks are reckoned in.
bool is_near(std::uint64_t khz, std::uint64_t level)
{
    const auto difference = static_cast<std::int64_t>(khz - level);
    const auto tolerance = static_cast<std::int64_t>(level) / 5;
    return difference < tolerance && difference > -tolerance;
}

void require_by_clock(const std::vector<CpuCluster>& clusters, const std::vector<int>& places, const std::vector<std::uint64_t>& khz)
{
    if (clusters.size() == 1 && clusters.front().name_key == "CPU") {
        require_equal(khz.size(), clusters.front().cpu_indices.size(), "a single cluster has all CPUs");
        require_equal(static_cast<double>(*std::max_element(khz.begin(), khz.end())) / 1000.0, clusters.front().max_freq_mhz,
                      "a single cluster's clock is the highest");
        return;
    }
    for (std::size_t cpu = 0; cpu < khz.size(); ++cpu) {
        if (places[cpu] < 0) {
            require(khz[cpu] > 0 && !is_near(khz[cpu], khz[cpu]), "only a CPU that is not even near to its own clock is left out");
            continue;
        }
        if (khz[cpu] == 0) {
            require_equal(static_cast<int>(clusters.size()) - 1, places[cpu], "a CPU without a clock is among the slowest");
            continue;
        }
        const double level = clusters[static_cast<std::size_t>(places[cpu])].max_freq_mhz;
        const bool fits = std::any_of(khz.begin(), khz.end(), [&](std::uint64_t other) {
            return static_cast<double>(other) / 1000.0 == level && is_near(khz[cpu], other);
        });
        require(fits, "a CPU is near to its cluster's clock, which is some CPU's");
    }
}

void require_clusters(int cpu_count)
{
    const std::vector<CpuCluster> clusters = CpuTopology::detect(cpu_count);
    require_equal(cpu_count > 0, !clusters.empty(), "there are clusters exactly where there are CPUs");
    if (clusters.empty()) {
        return;
    }
    for (std::size_t i = 0; i < clusters.size(); ++i) {
        require_name(clusters[i], clusters.size() == 1);
        if (i > 0) {
            require_order(clusters[i - 1], clusters[i]);
        }
    }
    const auto cpus = static_cast<std::size_t>(cpu_count);
    const std::vector<int> place_of_cpu = places(clusters, cpus);
    const std::vector<std::string> types = core_types(cpus);
    const std::vector<std::uint64_t> khz = expected::highest_clocks(cpus);
    if (!types.empty()) {
        require_by_type(clusters, place_of_cpu, types, khz);
    } else {
        require_by_clock(clusters, place_of_cpu, khz);
    }
}

/// A machine on which the program refuses to start. The object that never came to be leaves a descriptor open, as the process is to end.
void require_refusal()
{
    const int next_descriptor = dup(STDERR_FILENO);
    close(next_descriptor);
    bool is_refused = false;
    try {
        const SystemMetrics metrics;
    } catch (const std::exception&) {
        is_refused = true;
        close(next_descriptor);
    }
    require(is_refused, "nothing is shown of a machine that can't be asked");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(data, data + size);
    std::vector<std::string_view> passes = parts_of(input, NEXT_PASS);
    passes.resize(std::min(passes.size(), MOST_PASSES));

    take_all_away();
    lay_pass(passes.front());
    if (expected::defies_construction()) {
        require_refusal();
        return 0;
    }
    Span construction;
    SystemMetrics metrics;
    construction.end = Clock::now();
    require_identity(metrics);
    require_memory(metrics);
    require_nothing_sampled(metrics);
    require_clusters(metrics.get_core_count());

    ExpectedPasses expected(construction);
    for (std::size_t i = 0; i < passes.size(); ++i) {
        if (i > 0) {
            lay_pass(passes[i]);
        }
        Span pass;
        metrics.sample();
        pass.end = Clock::now();
        expected.require_of(metrics, pass);
    }
    return 0;
}
