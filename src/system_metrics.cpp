/// Which files of the kernel hold what, what is believed of them, and the thread that reads them.
#include "system_metrics.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "kernel_file.h"
#include "temperature_sensor.h"

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds PAUSE{2};  // between two passes
constexpr const char* CPUINFO_FILE = "/proc/cpuinfo";
constexpr const char* MEMINFO_FILE = "/proc/meminfo";
constexpr const char* ENERGY_FILE =
    "/sys/class/powercap/intel-rapl/intel-rapl:0/energy_uj";      // docs.kernel.org/power/powercap/powercap.html
constexpr const char* CURRENT_FREQ = "cpufreq/scaling_cur_freq";  // docs.kernel.org/admin-guide/pm/cpufreq.html
constexpr const char* THROTTLE_COUNT = "thermal_throttle/core_throttle_count";

constexpr double NO_READING = -1.0;
constexpr double MICROJOULES_PER_JOULE = 1000000.0;
constexpr double KB_PER_GIB = 1024.0 * 1024.0;

constexpr double DEFAULT_LIMIT = 95.0;
constexpr double LIMIT_MARGIN = 3.0;  // degrees below the limit from which the CPU counts as throttled

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

/// Calls `visit` with the path of each logical CPU's entry. If the walk fails, what was visited so far stands.
template <typename Visitor>
void for_each_cpu_entry(Visitor visit)
{
    try {
        for (const auto& entry : fs::directory_iterator(CPU_DIRECTORY)) {
            if (begins_with_cpu_number(entry.path().filename().native())) {
                visit(entry.path());
            }
        }
    } catch (...) {
        // no such folder, as in some containers: the counts stay what they are, 0 at worst
    }
}

/// Calls `visit` with key and number of each line of /proc/meminfo that has both, until it returns false.
template <typename Visitor>
void for_each_meminfo_value(Visitor visit)
{
    std::ifstream file(MEMINFO_FILE);
    std::string line;
    std::istringstream fields;
    while (std::getline(file, line)) {
        std::string key;
        std::uint64_t value = 0;
        fields.clear();
        fields.str(line);
        if (fields >> key >> value && !visit(key, value)) {
            return;
        }
    }
}

/// What a kernel without MemAvailable can say instead.
std::uint64_t read_free_memory_kb()
{
    std::uint64_t free_kb = 0;
    for_each_meminfo_value([&](const std::string& key, std::uint64_t value) {
        const bool found = key == "MemFree:";
        if (found) {
            free_kb = value;
        }
        return !found;
    });
    return free_kb;
}

}  // namespace

SystemMetrics::SystemMetrics()
{
    sem_init(&m_wake, 0, 0);
    m_cpu_name = read_cpu_name();
    m_core_count = read_core_count();
    m_physical_core_count = read_physical_core_count();
    m_max_frequencies = read_max_frequencies(m_core_count);
    detect_sensors();
    read_memory(m_mem_used_gb, m_mem_total_gb);
}

SystemMetrics::~SystemMetrics()
{
    stop();
    sem_destroy(&m_wake);
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
    sem_post(&m_wake);
    m_thread.join();
    sem_trywait(&m_wake);  // takes back what the thread has not waited for, so that one started again pauses again
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
        sample();
        wait_for_next_pass();
    }
}

/// One pass. All files are read before the lock is taken, so that a slow one never holds up a getter.
void SystemMetrics::sample()
{
    const double temp = read_temperature();
    const double power = read_power();
    std::vector<double> freqs = read_frequencies();
    double mem_used = NO_READING;
    double mem_total = NO_READING;
    read_memory(mem_used, mem_total);
    const bool thermal = decide_throttling(temp);

    const std::lock_guard lock(m_mutex);
    m_temperature = temp;
    m_power = power;
    m_frequencies = std::move(freqs);
    m_mem_used_gb = mem_used;
    m_mem_total_gb = mem_total;
    m_thermal_throttling = thermal;
}

/// Where the kernel counts throttle events, a new one decides, however hot it is; elsewhere the temperature does.
bool SystemMetrics::decide_throttling(double temperature)
{
    if (!m_has_throttle_counter) {
        return temperature >= 0 && m_temp_limit > 0 && temperature >= m_temp_limit - LIMIT_MARGIN;
    }
    const std::int64_t count = read_throttle_count();
    const bool more = m_prev_throttle_count >= 0 && count > m_prev_throttle_count;
    m_prev_throttle_count = count;
    return more;
}

/// Waits for stop() rather than in short sleeps: one wake-up a pass, and it is heard at once. The end of the pause is fixed at its start,
/// so an interrupted wait goes on with what is left.
void SystemMetrics::wait_for_next_pass()
{
#ifdef __GLIBC__
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(PAUSE.count());
    while (sem_clockwait(&m_wake, CLOCK_MONOTONIC, &end) != 0 && errno == EINTR) {
    }
#else
    // Semaphores keep to the clock that can be set, by which a pause could last for hours
    constexpr std::chrono::milliseconds SLICE{100};
    for (std::chrono::milliseconds left = PAUSE; left.count() > 0 && m_running; left -= SLICE) {
        std::this_thread::sleep_for(SLICE);
    }
#endif
}

void SystemMetrics::detect_sensors()
{
    m_temp_path = find_temperature_input();
    m_has_temp = !m_temp_path.empty();

    if (fs::exists(ENERGY_FILE)) {
        m_rapl_path = ENERGY_FILE;
        m_has_rapl = true;
        m_prev_energy = read_number<std::uint64_t>(m_rapl_path).value_or(0);
        m_prev_energy_time = std::chrono::steady_clock::now();
    }
    m_has_cpufreq = fs::exists(CpuFile(CURRENT_FREQ).of(0));
    m_has_throttle_counter = fs::exists(CpuFile(THROTTLE_COUNT).of(0));
    m_prev_throttle_count = read_throttle_count();
    detect_temp_limit();
}

double SystemMetrics::read_temperature() const
{
    if (!m_has_temp) {
        return NO_READING;
    }
    const auto milli = read_number<std::int32_t>(m_temp_path);
    return milli ? *milli / MILLIDEGREES_PER_DEGREE : NO_READING;
}

double SystemMetrics::read_power()
{
    if (!m_has_rapl) {
        return NO_READING;
    }
    const auto curr = read_number<std::uint64_t>(m_rapl_path);
    if (!curr) {
        return NO_READING;
    }
    const auto now = std::chrono::steady_clock::now();
    const double dt = std::chrono::duration<double>(now - m_prev_energy_time).count();
    double power = NO_READING;
    if (dt > 0.0 && *curr > m_prev_energy) {  // a counter that wrapped gives no reading once
        const double energy_j = static_cast<double>(*curr - m_prev_energy) / MICROJOULES_PER_JOULE;
        power = energy_j / dt;
    }
    m_prev_energy = *curr;
    m_prev_energy_time = now;
    return power;
}

std::vector<double> SystemMetrics::read_frequencies() const
{
    std::vector<double> freqs;
    if (!m_has_cpufreq) {
        return freqs;
    }
    freqs.reserve(m_max_frequencies.size());
    CpuFile file(CURRENT_FREQ);
    for (int i = 0;; ++i) {
        const auto khz = read_number<std::uint64_t>(file.of(i));
        if (!khz) {
            return freqs;
        }
        freqs.push_back(static_cast<double>(*khz) / KHZ_PER_MHZ);
    }
}

std::vector<double> SystemMetrics::read_max_frequencies(int core_count)
{
    std::vector<double> out;
    out.reserve(static_cast<std::size_t>(std::max(core_count, 0)));
    CpuFile file(MAX_FREQ_FILE);
    for (int i = 0; i < core_count; ++i) {
        out.push_back(static_cast<double>(read_number<std::uint64_t>(file.of(i)).value_or(0)) / KHZ_PER_MHZ);
    }
    return out;
}

void SystemMetrics::read_memory(double& used_gb, double& total_gb) const
{
    used_gb = NO_READING;
    total_gb = NO_READING;
    std::optional<std::uint64_t> total_kb;
    std::optional<std::uint64_t> avail_kb;
    for_each_meminfo_value([&](const std::string& key, std::uint64_t value) {
        if (key == "MemTotal:") {
            total_kb = value;
        } else if (key == "MemAvailable:") {
            avail_kb = value;
        }
        return !total_kb || !avail_kb;
    });
    if (total_kb.value_or(0) == 0) {
        return;
    }
    if (!avail_kb) {
        avail_kb = read_free_memory_kb();
    }
    total_gb = static_cast<double>(*total_kb) / KB_PER_GIB;
    used_gb = static_cast<double>(*total_kb - std::min(*avail_kb, *total_kb)) / KB_PER_GIB;
}

std::int64_t SystemMetrics::read_throttle_count() const
{
    if (!m_has_throttle_counter) {
        return -1;
    }
    std::int64_t sum = 0;
    CpuFile file(THROTTLE_COUNT);
    for (int i = 0; i < m_core_count; ++i) {
        const auto count = read_number<std::int64_t>(file.of(i)).value_or(0);
        __builtin_add_overflow(sum, count, &sum);  // only growth matters, so a nonsensical sum may wrap
    }
    return sum;
}

void SystemMetrics::detect_temp_limit()
{
    m_temp_limit = find_temperature_limit(m_temp_path).value_or(DEFAULT_LIMIT);
}
