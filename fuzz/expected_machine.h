/// What a made-up machine has to look like to the program, worked out from its kernel files anew and in the plainest way. Directories are
/// walked in the order in which the file system lists them, as the program does.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <set>
#include <utility>
#include <vector>

#include "kernel_text.h"

namespace expected {

namespace fs = std::filesystem;

inline const std::string CPUS = "/sys/devices/system/cpu";
inline const std::string THERMAL = "/sys/class/thermal";
inline const std::string HWMON = "/sys/class/hwmon";
inline const std::string ENERGY = "/sys/class/powercap/intel-rapl/intel-rapl:0/energy_uj";

constexpr double NONE = -1.0;

// --- files ---

inline int open_for_reading(const std::string& path)
{
    return open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

/// All that can be read of a file; empty if nothing can.
inline std::string text_of(const std::string& path)
{
    std::string text;
    const int file = open_for_reading(path);
    std::array<char, 4096> block;
    for (ssize_t size; file >= 0 && (size = read(file, block.data(), block.size())) > 0;) {
        text.append(block.data(), static_cast<std::size_t>(size));
    }
    close(file);
    return text;
}

inline bool can_be_opened(const std::string& path)
{
    const int file = open_for_reading(path);
    close(file);
    return file >= 0;
}

inline std::string first_line_of(const std::string& path)
{
    return std::string(lines_of(text_of(path)).front());
}

template <typename T>
std::optional<T> number_in(const std::string& path)
{
    return number_at_front<T>(text_of(path));
}

/// Whether not even the question whether the path exists can be answered.
inline bool defies_status(const std::string& path)
{
    std::error_code error;
    return fs::status(path, error).type() == fs::file_type::none;
}

// --- identity ---

inline bool is_cpu_name(const std::string& name)
{
    return name.size() > 3 && name.starts_with("cpu") && DIGITS.find(name[3]) != std::string_view::npos;
}

inline std::vector<std::string> cpu_entries()
{
    std::vector<std::string> paths;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(CPUS, error)) {
        if (is_cpu_name(entry.path().filename())) {
            paths.push_back(entry.path());
        }
    }
    return paths;
}

inline std::string cpu_file(std::size_t cpu, const std::string& name)
{
    return CPUS + "/cpu" + std::to_string(cpu) + "/" + name;
}

/// A number that nobody looks at twice: none is 0, and one that is too large is the largest.
inline std::int32_t careless_number_in(const std::string& path)
{
    const std::string text = text_of(path);
    std::string_view rest = text;
    const auto numeral = take_numeral(rest);
    if (!numeral) {
        return 0;
    }
    using Limits = std::numeric_limits<std::int32_t>;
    return value_of<std::int32_t>(*numeral).value_or(numeral->is_negative ? Limits::min() : Limits::max());
}

inline std::size_t physical_cores()
{
    std::set<std::pair<std::int32_t, std::int32_t>> cores;
    for (const std::string& entry : cpu_entries()) {
        const std::string package = entry + "/topology/physical_package_id";
        const std::string core = entry + "/topology/core_id";
        if (can_be_opened(package) && can_be_opened(core)) {
            cores.emplace(careless_number_in(package), careless_number_in(core));
        }
    }
    return cores.size();
}

/// The model name as it is shown. Empty, and not an empty text, if the line ends with its colon: then the program does not start.
inline std::optional<std::string> cpu_name(std::string_view cpuinfo)
{
    constexpr std::array<std::array<std::string_view, 2>, 5> SHORTER = {{{"Intel(R) Core(TM) ", "Inte"},
                                                                         {"Intel(R) Xeon(R) ", "Inte"},
                                                                         {"Intel(R) ", "Inte"},
                                                                         {"AMD Ryzen ", "AMD "},
                                                                         {"AMD EPYC ", "AMD "}}};
    for (const std::string_view line : lines_of(cpuinfo)) {
        const std::size_t colon = line.find(':');
        if (!line.starts_with("model name") || colon == std::string_view::npos) {
            continue;
        }
        if (colon + 1 == line.size()) {
            return std::nullopt;
        }
        std::string name(line.substr(colon + 2));
        for (const auto& [prefix, head] : SHORTER) {
            if (name.starts_with(prefix)) {
                name.replace(0, prefix.size(), head);
            }
        }
        return name;
    }
    return "Unknown CPU";
}

/// Whether the program refuses to start on this machine.
inline bool defies_construction()
{
    return !cpu_name(text_of("/proc/cpuinfo")) || defies_status(ENERGY) || defies_status(cpu_file(0, "cpufreq/scaling_cur_freq")) ||
           defies_status(cpu_file(0, "thermal_throttle/core_throttle_count"));
}

// --- temperature and its limit ---

inline bool is_cpu_zone(const fs::path& zone)
{
    const bool has_both = fs::exists(zone / "type") && fs::exists(zone / "temp");
    const std::string type = has_both ? first_line_of(zone / "type") : "";
    return type == "x86_pkg_temp" || type.find("cpu") != std::string::npos;
}

inline bool is_cpu_chip(const fs::path& chip)
{
    const std::string name = fs::exists(chip / "name") ? first_line_of(chip / "name") : "";
    return name == "coretemp" || name == "k10temp" || name == "cpu_thermal" || name == "acpitz";
}

inline std::string input_of(const fs::path& chip)
{
    if (fs::exists(chip / "temp1_input")) {
        return chip / "temp1_input";
    }
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(chip, error)) {
        const std::string name = entry.path().filename();
        if (name.starts_with("temp") && name.find("_input") != std::string::npos) {
            return entry.path();
        }
    }
    return {};
}

/// Walks a folder until `find` has a result; a question that can't be answered ends the walk without one.
template <typename Finder>
auto first_in(const std::string& folder, Finder find) -> decltype(find(fs::path()))
{
    try {
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (const auto found = find(entry.path())) {
                return found;
            }
        }
    } catch (const fs::filesystem_error&) {
        return std::nullopt;
    }
    return std::nullopt;
}

/// Empty if there is none.
inline std::string temperature_file()
{
    using File = std::optional<std::string>;
    const File zone = first_in(THERMAL, [](const fs::path& entry) { return is_cpu_zone(entry) ? File(entry / "temp") : std::nullopt; });
    if (zone) {
        return *zone;
    }
    return first_in(HWMON,
                    [](const fs::path& entry) {
                        const File input = is_cpu_chip(entry) ? input_of(entry) : "";
                        return input->empty() ? std::nullopt : input;
                    })
        .value_or("");
}

/// NONE for no reading.
inline double temperature(const std::string& file)
{
    const auto thousandths = number_in<std::int32_t>(file);
    return thousandths ? *thousandths / 1000.0 : NONE;
}

/// Only what lies between 40 and 130 degrees is believed.
inline std::optional<double> limit_in(const std::string& path)
{
    const auto thousandths = number_in<std::int64_t>(path);
    return thousandths > 40000 && thousandths < 130000 ? std::optional(static_cast<double>(*thousandths) / 1000.0) : std::nullopt;
}

inline std::optional<double> trip_limit_of(const fs::path& zone)
{
    for (int i = 0; zone.filename().string().starts_with("thermal_zone") && i < 16; ++i) {
        const std::string trip = zone / ("trip_point_" + std::to_string(i));
        const std::string type = fs::exists(trip + "_type") ? first_line_of(trip + "_type") : "";
        const auto limit = type == "passive" || type == "hot" ? limit_in(trip + "_temp") : std::nullopt;
        if (limit) {
            return limit;
        }
    }
    return std::nullopt;
}

inline double temperature_limit(const std::string& temperature_file)
{
    const std::string base = temperature_file.substr(0, temperature_file.rfind("_input"));
    for (const char* suffix : {"_max", "_crit"}) {
        if (const auto limit = base.empty() ? std::nullopt : limit_in(base + suffix)) {
            return *limit;
        }
    }
    return first_in(THERMAL, trip_limit_of).value_or(95.0);
}

// --- the readings of a pass ---

/// -1 where the machine does not count.
inline std::int64_t throttle_events(bool is_counted, std::size_t cpus)
{
    std::uint64_t sum = 0;
    for (std::size_t cpu = 0; is_counted && cpu < cpus; ++cpu) {
        sum += static_cast<std::uint64_t>(number_in<std::int64_t>(cpu_file(cpu, "thermal_throttle/core_throttle_count")).value_or(0));
    }
    return is_counted ? static_cast<std::int64_t>(sum) : -1;
}

inline std::vector<double> current_clocks(bool are_known)
{
    std::vector<double> clocks;
    while (are_known) {
        const auto khz = number_in<std::uint64_t>(cpu_file(clocks.size(), "cpufreq/scaling_cur_freq"));
        if (!khz) {
            break;
        }
        clocks.push_back(static_cast<double>(*khz) / 1000.0);
    }
    return clocks;
}

/// kHz; 0 where there is no reading.
inline std::vector<std::uint64_t> highest_clocks(std::size_t cpus)
{
    std::vector<std::uint64_t> clocks;
    for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
        clocks.push_back(number_in<std::uint64_t>(cpu_file(cpu, "cpufreq/cpuinfo_max_freq")).value_or(0));
    }
    return clocks;
}

/// GiB
struct Memory {
    double used = NONE;
    double total = NONE;
};

inline Memory memory()
{
    std::optional<std::uint64_t> total;
    std::optional<std::uint64_t> available;
    std::optional<std::uint64_t> free;
    const std::string text = text_of("/proc/meminfo");
    for (std::string_view line : lines_of(text)) {
        const std::string_view key = take_word(line);
        const auto number = take_number<std::uint64_t>(line);
        if (!number || (total && available)) {
            continue;
        }
        if (key == "MemTotal:") {
            total = number;
        } else if (key == "MemAvailable:") {
            available = number;
        } else if (key == "MemFree:" && !free) {
            free = number;
        }
    }
    if (total.value_or(0) == 0) {
        return {};
    }
    const std::uint64_t unused = std::min(*total, available ? *available : free.value_or(0));
    constexpr double KB_PER_GIB = 1048576.0;
    return {.used = static_cast<double>(*total - unused) / KB_PER_GIB, .total = static_cast<double>(*total) / KB_PER_GIB};
}

}  // namespace expected
