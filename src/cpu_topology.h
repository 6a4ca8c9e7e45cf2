/// The grouping of logical CPUs into clusters (performance, efficiency…), found out once at start-up from the machine itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// A group of logical CPUs that is shown as one section.
struct CpuCluster {
    std::string name_key;                   ///< translation key: a plain name, or a format with one %d
    std::int32_t name_index = -1;           ///< negative: name_key is a plain name; otherwise the number for its %d, from 1 up
    std::int32_t color_index = 0;           ///< entry of Settings::groups, 0 to 3
    std::vector<std::int32_t> cpu_indices;  ///< logical CPU numbers, ascending
    double max_freq_mhz = 0.0;              ///< highest rated clock of the group; 0.0 means unknown

    /// The title in the current language. Main thread only.
    std::string display_name() const;
};

class CpuTopology {
public:
    /// The clusters of CPUs 0 to cpu_count - 1, in display order, fastest first; empty only if cpu_count is not positive.
    /// Sources: cpu_type of each CPU below /sys/bus/cpu/devices, else its cpufreq/cpuinfo_max_freq. What can't be read is no error, but
    /// leads to a coarser grouping.
    static std::vector<CpuCluster> detect(int cpu_count);
};
