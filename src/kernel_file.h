/// Reading the small text files of /proc and /sys. Each call opens the file, reads one value and closes it. Any thread.
#pragma once

#include <fstream>
#include <optional>
#include <string>
#include <string_view>

/// The number that a kernel file begins with; empty if it can't be opened or read, holds none, or one too large for T.
/// A stream reads it, and streams keep the "C" locale, so a locale with decimal commas changes nothing.
template <typename T>
std::optional<T> read_number(const std::string& path)
{
    std::ifstream in(path);
    T value{};
    return in >> value ? std::optional<T>(value) : std::nullopt;
}

/// The first line of a kernel file without its line feed; empty if it can't be opened or read.
inline std::string read_first_line(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

/// The folder with an entry for each logical CPU: docs.kernel.org/admin-guide/cputopology.html
inline constexpr const char* CPU_DIRECTORY = "/sys/devices/system/cpu";

/// Whether a word begins with the kernel's name of one logical CPU, such as "cpu12". What is about all of them, such as "cpu" or "cpufreq",
/// does not.
inline bool begins_with_cpu_number(std::string_view word)
{
    return word.size() > 3 && word.starts_with("cpu") && word[3] >= '0' && word[3] <= '9';
}

/// The file below an entry that holds a CPU's rated maximum clock: docs.kernel.org/admin-guide/pm/cpufreq.html
inline constexpr const char* MAX_FREQ_FILE = "cpufreq/cpuinfo_max_freq";

/// The files of cpufreq hold kHz.
inline constexpr double KHZ_PER_MHZ = 1000.0;

/// A file that every logical CPU has below CPU_DIRECTORY, such as "cpufreq/cpuinfo_max_freq". One text serves all CPUs in turn, as a
/// pass over a large machine asks for hundreds.
class CpuFile {
public:
    explicit CpuFile(const char* name) : m_name(name) {}

    /// The path for that CPU number, valid until the next call.
    const std::string& of(int cpu) &
    {
        m_path.assign(CPU_DIRECTORY).append("/cpu").append(std::to_string(cpu)).append("/").append(m_name);
        return m_path;
    }

    /// Likewise of a CpuFile that is gone by then: so the path is the caller's own.
    std::string of(int cpu) && { return of(cpu); }

private:
    const char* m_name;
    std::string m_path;
};
