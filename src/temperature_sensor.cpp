/// Folders are walked in the order in which the kernel lists them, and the first match wins. What can't be read is passed over.
#include "temperature_sensor.h"

#include <cstdint>
#include <filesystem>

#include "kernel_file.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* THERMAL_DIRECTORY = "/sys/class/thermal";  // docs.kernel.org/driver-api/thermal/sysfs-api.html
constexpr const char* HWMON_DIRECTORY = "/sys/class/hwmon";      // docs.kernel.org/hwmon/sysfs-interface.html

constexpr double LOWEST_LIMIT = 40.0;    // a limit must be above this to be believed
constexpr double HIGHEST_LIMIT = 130.0;  // and below this
constexpr int TRIP_POINTS = 16;          // looked at in each thermal zone

bool is_cpu_zone_type(const std::string& type)
{
    return type == "x86_pkg_temp" || type == "cpu-thermal" || type == "cpu_thermal" || type.find("cpu") != std::string::npos;
}

bool is_cpu_chip(const std::string& name)
{
    return name == "coretemp" || name == "k10temp" || name == "cpu_thermal" || name == "acpitz";
}

/// The temperature file of the first thermal zone that is about the CPU; empty if there is none.
std::string find_thermal_zone()
{
    try {
        for (const auto& zone : fs::directory_iterator(THERMAL_DIRECTORY)) {
            const fs::path type_path = zone.path() / "type";
            const fs::path temp_path = zone.path() / "temp";
            if (fs::exists(type_path) && fs::exists(temp_path) && is_cpu_zone_type(read_first_line(type_path))) {
                return temp_path;
            }
        }
    } catch (...) {
        // no thermal zones: usual in virtual machines and containers; the hwmon chips are next
    }
    return {};
}

/// A chip's temperature input: the first one by number, else the first that the directory lists; empty if there is none.
std::string find_chip_input(const fs::path& chip)
{
    const fs::path first = chip / "temp1_input";
    if (fs::exists(first)) {
        return first;
    }
    try {
        for (const auto& entry : fs::directory_iterator(chip)) {
            const std::string name = entry.path().filename();
            if (name.starts_with("temp") && name.find("_input") != std::string::npos) {
                return entry.path();
            }
        }
    } catch (...) {
        // this chip can't be listed; another one may do
    }
    return {};
}

/// The temperature file of the first hwmon chip that measures the CPU and has an input; empty if there is none.
std::string find_hwmon_input()
{
    try {
        for (const auto& hwmon : fs::directory_iterator(HWMON_DIRECTORY)) {
            const fs::path name_path = hwmon.path() / "name";
            if (!fs::exists(name_path) || !is_cpu_chip(read_first_line(name_path))) {
                continue;
            }
            std::string input = find_chip_input(hwmon.path());
            if (!input.empty()) {
                return input;
            }
        }
    } catch (...) {
        // no hwmon chips: the machine has no temperature to show
    }
    return {};
}

/// The limit in degrees that a file holds; empty if it holds none that can be believed.
std::optional<double> read_limit(const std::string& path)
{
    const auto milli = read_number<std::int64_t>(path);
    if (!milli) {
        return std::nullopt;
    }
    const double limit = static_cast<double>(*milli) / MILLIDEGREES_PER_DEGREE;
    return limit > LOWEST_LIMIT && limit < HIGHEST_LIMIT ? std::optional(limit) : std::nullopt;
}

/// The limit that the chip gives in a file beside its temperature input.
std::optional<double> find_limit_beside(const std::string& temp_path)
{
    if (temp_path.empty()) {
        return std::nullopt;
    }
    const std::string base = temp_path.substr(0, temp_path.rfind("_input"));
    for (const char* suffix : {"_max", "_crit"}) {
        if (const auto limit = read_limit(base + suffix)) {
            return limit;
        }
    }
    return std::nullopt;
}

/// The limit of a zone's first trip point at which the kernel begins to slow the machine down.
std::optional<double> find_trip_limit(const fs::path& zone)
{
    for (int i = 0; i < TRIP_POINTS; ++i) {
        const std::string trip = "trip_point_" + std::to_string(i);
        const fs::path type_path = zone / (trip + "_type");
        if (!fs::exists(type_path)) {
            continue;
        }
        const std::string type = read_first_line(type_path);
        if (type != "passive" && type != "hot") {
            continue;
        }
        if (const auto limit = read_limit(zone / (trip + "_temp"))) {
            return limit;
        }
    }
    return std::nullopt;
}

std::optional<double> find_zone_limit()
{
    try {
        for (const auto& zone : fs::directory_iterator(THERMAL_DIRECTORY)) {
            if (!zone.path().filename().string().starts_with("thermal_zone")) {
                continue;
            }
            if (const auto limit = find_trip_limit(zone.path())) {
                return limit;
            }
        }
    } catch (...) {
        // no thermal zones, or one that can't be looked at: the default applies
    }
    return std::nullopt;
}

}  // namespace

std::string find_temperature_input()
{
    std::string path = find_thermal_zone();
    return path.empty() ? find_hwmon_input() : path;
}

std::optional<double> find_temperature_limit(const std::string& temp_path)
{
    const auto limit = find_limit_beside(temp_path);
    return limit ? limit : find_zone_limit();
}
