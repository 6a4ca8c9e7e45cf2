/// By the core types that the kernel names, else by rated clocks that are alike, else all in one group.
#include "cpu_topology.h"

#include <algorithm>
#include <functional>
#include <map>
#include <numeric>
#include <utility>

#include "i18n.h"
#include "kernel_file.h"
#include "theme.h"

namespace {

constexpr std::size_t GROUP_COLORS = ColorDefaults::GROUPS.size();
constexpr int TOLERANCE_DIVISOR = 5;  // 20 %: boost clocks of like cores differ by less, core types by more

/// Rated maximum clock of a CPU in kHz; 0 if unknown.
std::uint64_t read_max_freq_khz(int cpu)
{
    return read_number<std::uint64_t>(CpuFile(MAX_FREQ_FILE).of(cpu)).value_or(0);
}

/// |f - level| < level / 5 in signed arithmetic. The tolerance is the level's, so the test is not symmetric.
bool is_near_level(std::uint64_t f, std::uint64_t level)
{
    const auto difference = static_cast<std::int64_t>(f - level);
    const auto distance =
        difference < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(difference) : static_cast<std::uint64_t>(difference);
    const std::int64_t tolerance = static_cast<std::int64_t>(level) / TOLERANCE_DIVISOR;
    return tolerance > 0 && distance < static_cast<std::uint64_t>(tolerance);
}

std::vector<std::uint64_t> read_all_max_freqs(int cpu_count)
{
    std::vector<std::uint64_t> khz;
    khz.reserve(static_cast<std::size_t>(cpu_count));
    for (int cpu = 0; cpu < cpu_count; ++cpu) {
        khz.push_back(read_max_freq_khz(cpu));
    }
    return khz;
}

/// The distinct clocks, highest first. The first CPU of a group sets its level, so the result depends on the CPUs' order.
std::vector<std::uint64_t> find_levels(const std::vector<std::uint64_t>& khz)
{
    std::vector<std::uint64_t> levels;
    for (const std::uint64_t f : khz) {
        const bool known = std::any_of(levels.begin(), levels.end(), [f](std::uint64_t level) { return is_near_level(f, level); });
        if (f != 0 && !known) {
            levels.push_back(f);
        }
    }
    std::sort(levels.begin(), levels.end(), std::greater<>());
    return levels;
}

/// Everything in one group, which needs no name of its own.
CpuCluster single_cluster(const std::vector<std::uint64_t>& khz)
{
    CpuCluster cluster;
    cluster.name_key = "CPU";
    cluster.cpu_indices.resize(khz.size());
    std::iota(cluster.cpu_indices.begin(), cluster.cpu_indices.end(), 0);
    cluster.max_freq_mhz = static_cast<double>(*std::max_element(khz.begin(), khz.end())) / KHZ_PER_MHZ;
    return cluster;
}

void name_by_number(CpuCluster& cluster, std::size_t position)
{
    cluster.name_key = "Cluster %d";
    cluster.name_index = static_cast<std::int32_t>(position) + 1;
}

void name_by_level(CpuCluster& cluster, std::size_t position, std::size_t level_count)
{
    static const std::vector<const char*> NAMES_OF_TWO = {"Performance", "Efficiency"};
    static const std::vector<const char*> NAMES_OF_THREE = {"Performance", "Balanced", "Efficiency"};
    static const std::vector<const char*> NAMES_OF_FOUR = {"Performance", "Balanced-H", "Balanced-L", "Efficiency"};
    for (const auto* names : {&NAMES_OF_TWO, &NAMES_OF_THREE, &NAMES_OF_FOUR}) {
        if (names->size() == level_count) {
            cluster.name_key = (*names)[position];
            return;
        }
    }
    name_by_number(cluster, position);
}

/// Three and more core types get numbers, where as many levels would have names.
void name_core_type(CpuCluster& cluster, std::size_t position, std::size_t type_count)
{
    if (type_count == 2) {
        name_by_level(cluster, position, type_count);
    } else {
        name_by_number(cluster, position);
    }
}

std::vector<CpuCluster> clusters_of_levels(const std::vector<std::uint64_t>& levels)
{
    std::vector<CpuCluster> clusters(levels.size());
    for (std::size_t i = 0; i < levels.size(); ++i) {
        name_by_level(clusters[i], i, levels.size());
        clusters[i].color_index = static_cast<std::int32_t>(i % GROUP_COLORS);
        clusters[i].max_freq_mhz = static_cast<double>(levels[i]) / KHZ_PER_MHZ;
    }
    return clusters;
}

/// Puts each CPU into the first level that it is near to. One without a clock joins the slowest, so that it stays visible; one that is
/// near to none (below 5 kHz the tolerance is nil) is left out.
void assign_cpus(std::vector<CpuCluster>& clusters, const std::vector<std::uint64_t>& levels, const std::vector<std::uint64_t>& khz)
{
    for (std::size_t cpu = 0; cpu < khz.size(); ++cpu) {
        auto level = std::find_if(levels.begin(), levels.end(), [&](std::uint64_t l) { return is_near_level(khz[cpu], l); });
        if (khz[cpu] == 0) {
            level = std::prev(levels.end());
        }
        if (level != levels.end()) {
            clusters[static_cast<std::size_t>(level - levels.begin())].cpu_indices.push_back(static_cast<std::int32_t>(cpu));
        }
    }
}

/// Groups by rated maximum clock; everything in one group if that tells no difference. Never empty for a positive count.
std::vector<CpuCluster> detect_by_frequency(int cpu_count)
{
    const std::vector<std::uint64_t> khz = read_all_max_freqs(cpu_count);
    const std::vector<std::uint64_t> levels = find_levels(khz);
    if (levels.size() <= 1) {
        return {single_cluster(khz)};
    }
    std::vector<CpuCluster> clusters = clusters_of_levels(levels);
    assign_cpus(clusters, levels, khz);
    // A level can end up empty, as levels are found in CPU order and filled from the highest down. The others keep name and colour.
    std::erase_if(clusters, [](const CpuCluster& cluster) { return cluster.cpu_indices.empty(); });
    if (clusters.empty()) {
        return {single_cluster(khz)};
    }
    return clusters;
}

/// The kernel's word for the CPU's core type; empty if unknown. Source: cpu_type of drivers that tell core types apart.
std::string read_cpu_type(int cpu)
{
    std::string type = read_first_line("/sys/bus/cpu/devices/cpu" + std::to_string(cpu) + "/cpu_type");
    type.erase(type.find_last_not_of("\n\r ") + 1);
    return type;
}

/// The CPUs of each core type; empty if any CPU has none.
std::map<std::string, std::vector<std::int32_t>> group_by_cpu_type(int cpu_count)
{
    std::map<std::string, std::vector<std::int32_t>> groups;
    for (int cpu = 0; cpu < cpu_count; ++cpu) {
        const std::string type = read_cpu_type(cpu);
        if (type.empty()) {
            return {};
        }
        groups[type].push_back(cpu);
    }
    return groups;
}

std::uint64_t highest_freq_khz(const std::vector<std::int32_t>& cpus)
{
    std::uint64_t highest = 0;
    for (const std::int32_t cpu : cpus) {
        highest = std::max(highest, read_max_freq_khz(cpu));
    }
    return highest;
}

/// The core types and their highest clocks, fastest first; types of equal clock keep the order of their names.
std::vector<std::pair<std::uint64_t, std::string>> rank_types(const std::map<std::string, std::vector<std::int32_t>>& groups)
{
    std::vector<std::pair<std::uint64_t, std::string>> ranked;
    ranked.reserve(groups.size());
    for (const auto& [type, cpus] : groups) {
        ranked.emplace_back(highest_freq_khz(cpus), type);
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    return ranked;
}

/// Groups by the core types that the kernel names, fastest first; empty unless it names one for each CPU and at least two in all.
/// What a type is called plays no part: the faster one is the performance core.
std::vector<CpuCluster> detect_intel_hybrid(int cpu_count)
{
    auto groups = group_by_cpu_type(cpu_count);
    if (groups.size() < 2) {
        return {};
    }
    const auto ranked = rank_types(groups);
    std::vector<CpuCluster> clusters(ranked.size());
    for (std::size_t i = 0; i < ranked.size(); ++i) {
        const auto& [khz, type] = ranked[i];
        name_core_type(clusters[i], i, ranked.size());
        clusters[i].color_index = static_cast<std::int32_t>(i % GROUP_COLORS);
        clusters[i].max_freq_mhz = static_cast<double>(khz) / KHZ_PER_MHZ;
        clusters[i].cpu_indices = std::move(groups[type]);
    }
    return clusters;
}

}  // namespace

std::string CpuCluster::display_name() const
{
    const I18n& i18n = I18n::instance();
    return name_index < 0 ? i18n.tr(name_key.c_str()) : i18n.trf(name_key.c_str(), name_index);
}

std::vector<CpuCluster> CpuTopology::detect(int cpu_count)
{
    if (cpu_count <= 0) {
        return {};
    }
    std::vector<CpuCluster> clusters = detect_intel_hybrid(cpu_count);
    return clusters.empty() ? detect_by_frequency(cpu_count) : clusters;
}
