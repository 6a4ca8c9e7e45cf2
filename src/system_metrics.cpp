#include "system_metrics.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <utility>

#include "kernel_file.h"

namespace fs = std::filesystem;

namespace {

constexpr int PAUSE_MS = 2000;  // between two passes
constexpr const char* CPUINFO_FILE = "/proc/cpuinfo";

/// Maker's prefixes of a model name, tried in this order. Of each only the head of four characters is kept.
constexpr const char* NAME_PREFIXES[] = {"Intel(R) Core(TM) ", "Intel(R) Xeon(R) ", "Intel(R) ", "AMD Ryzen ", "AMD EPYC "};
constexpr std::size_t KEPT_HEAD = 4;

std::string shorten_cpu_name(std::string name)
{
    for (const std::string prefix : NAME_PREFIXES) {
        if (name.starts_with(prefix)) {
            name = prefix.substr(0, KEPT_HEAD) + name.substr(prefix.size());
        }
    }
    return name;
}

/// Whether an entry of CPU_DIRECTORY is a logical CPU ("cpu12") and not another folder ("cpufreq").
bool is_cpu_entry(const std::string& name)
{
    return name.size() > 3 && name.starts_with("cpu") && name[3] >= '0' && name[3] <= '9';
}

/// Calls `visit` with the path of each logical CPU's entry. If the walk fails, what was visited so far stands.
template <typename Visitor>
void for_each_cpu_entry(Visitor visit)
{
    try {
        for (const auto& entry : fs::directory_iterator(CPU_DIRECTORY)) {
            if (is_cpu_entry(entry.path().filename())) {
                visit(entry.path());
            }
        }
    } catch (...) {
        // no such folder, as in some containers: the counts stay what they are, 0 at worst
    }
}

}  // namespace

SystemMetrics::SystemMetrics() : m_wake_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    m_cpu_name = read_cpu_name();
    m_core_count = read_core_count();
    m_physical_core_count = read_physical_core_count();
}

SystemMetrics::~SystemMetrics()
{
    stop();
    close(m_wake_fd);
}

void SystemMetrics::start()
{
    m_running.exchange(true);
    m_thread = std::thread(&SystemMetrics::update_loop, this);
}

void SystemMetrics::stop()
{
    m_running.exchange(false);
    if (!m_thread.joinable()) {
        return;
    }
    eventfd_write(m_wake_fd, 1);
    m_thread.join();
    eventfd_t ignored = 0;
    eventfd_read(m_wake_fd, &ignored);  // so that a thread started again pauses again
}

double SystemMetrics::get_temperature() const
{
    const std::lock_guard lock(m_mutex);
    return m_temperature;
}

double SystemMetrics::get_power() const
{
    const std::lock_guard lock(m_mutex);
    return m_power;
}

std::vector<double> SystemMetrics::get_frequencies() const
{
    const std::lock_guard lock(m_mutex);
    return m_frequencies;
}

std::string SystemMetrics::get_cpu_name() const
{
    const std::lock_guard lock(m_mutex);
    return m_cpu_name;
}

int SystemMetrics::get_core_count() const
{
    const std::lock_guard lock(m_mutex);
    return m_core_count;
}

double SystemMetrics::get_memory_used_gb() const
{
    const std::lock_guard lock(m_mutex);
    return m_mem_used_gb;
}

double SystemMetrics::get_memory_total_gb() const
{
    const std::lock_guard lock(m_mutex);
    return m_mem_total_gb;
}

std::vector<double> SystemMetrics::get_max_frequencies() const
{
    const std::lock_guard lock(m_mutex);
    return m_max_frequencies;
}

bool SystemMetrics::is_thermal_throttling() const
{
    const std::lock_guard lock(m_mutex);
    return m_thermal_throttling;
}

double SystemMetrics::get_temp_limit() const
{
    const std::lock_guard lock(m_mutex);
    return m_temp_limit;
}

std::string SystemMetrics::read_cpu_name()
{
    std::ifstream file(CPUINFO_FILE);
    std::string line;
    while (std::getline(file, line)) {
        const auto colon = line.find(':');
        if (line.starts_with("model name") && colon != std::string::npos) {
            return shorten_cpu_name(line.substr(colon + 2));
        }
    }
    return "Unknown CPU";
}

int SystemMetrics::read_core_count()
{
    int count = 0;
    for_each_cpu_entry([&](const fs::path&) { ++count; });
    return count;
}

int SystemMetrics::read_physical_core_count()
{
    std::set<std::pair<std::int32_t, std::int32_t>> unique_cores;  // package, core: core numbers repeat in each package
    for_each_cpu_entry([&](const fs::path& entry) {
        std::ifstream pkg_f(entry / "topology/physical_package_id");
        std::ifstream core_f(entry / "topology/core_id");
        if (!pkg_f || !core_f) {
            return;
        }
        std::int32_t pkg = 0;
        std::int32_t core = 0;
        pkg_f >> pkg;
        core_f >> core;
        unique_cores.emplace(pkg, core);
    });
    return static_cast<int>(unique_cores.size());
}

void SystemMetrics::update_loop()
{
    while (m_running) {
        wait_for_next_pass();
    }
}

/// Waits for a descriptor rather than in short sleeps: one wake-up a pass, and stop() is heard at once.
void SystemMetrics::wait_for_next_pass() const
{
    pollfd wake{.fd = m_wake_fd, .events = POLLIN, .revents = 0};
    poll(&wake, 1, PAUSE_MS);
}
