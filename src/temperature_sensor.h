/// Which of the kernel's files hold the CPU's temperature, and the temperature at which it slows down. Keeps nothing. Any thread.
#pragma once

#include <optional>
#include <string>

/// The kernel's files hold thousandths of a degree Celsius.
inline constexpr double MILLIDEGREES_PER_DEGREE = 1000.0;

/// The file with the CPU's temperature: that of a thermal zone, else of a hwmon chip; empty if there is none.
std::string find_temperature_input();

/// The limit in degrees Celsius that stands beside that file, which may be empty, or else among the trip points of the thermal zones; empty
/// if the machine names none that can be believed.
std::optional<double> find_temperature_limit(const std::string& temp_path);
