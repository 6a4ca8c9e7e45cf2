/// What the monitor knows about the machine apart from the loads: the CPU's identity, and the readings of its sensors.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Reads the unchanging facts at construction, then samples on a thread of its own about every two seconds. The getters may be called
/// from any thread and return copies of the latest snapshot; they touch no file. A measurement that is not available is -1.0 or an
/// empty vector: no last good value is kept.
class SystemMetrics {
public:
    /// Reads the facts, on the calling thread. Throws on purpose, so that the program does not start, if it can't even be asked whether the
    /// energy counter, the clocks or the throttle counters exist (std::filesystem::filesystem_error), or if a line "model name" ends with
    /// its colon (std::out_of_range).
    SystemMetrics();
    ~SystemMetrics();
    SystemMetrics(const SystemMetrics&) = delete;
    SystemMetrics& operator=(const SystemMetrics&) = delete;

    /// Starts the sampling thread, whose first pass begins at once. Not while one runs: that ends the process.
    void start();

    /// Ends and joins the sampling thread, if there is one; takes no longer than the rest of a running pass.
    void stop();

    /// Degrees Celsius, or -1.0. Source: one thermal zone or hwmon chip, chosen at construction.
    double get_temperature() const;
    /// Package power in watts, or -1.0. Source: the energy counter below /sys/class/powercap.
    double get_power() const;
    /// Current clock of each logical CPU in MHz, by CPU number. May be shorter than get_core_count(), and is empty before the first pass.
    std::vector<double> get_frequencies() const;
    /// Shortened model name; "Unknown CPU" where the kernel gives none. Source: /proc/cpuinfo.
    std::string get_cpu_name() const;
    /// Number of logical CPUs, or 0. Source: the entries of /sys/devices/system/cpu.
    int get_core_count() const;
    /// Number of physical cores, or 0. Source: topology/ of each entry there. Fixed at construction, so read without the lock.
    int get_physical_core_count() const { return m_physical_core_count; }
    /// GiB (1024 cubed bytes), or -1.0. Used is what is not available. Source: /proc/meminfo.
    double get_memory_used_gb() const;
    double get_memory_total_gb() const;
    /// Highest clock of each logical CPU in MHz, by CPU number; 0.0 where it is unknown.
    std::vector<double> get_max_frequencies() const;
    /// Whether the CPU was slowed down for its temperature since the pass before; without event counters, whether it is near its limit.
    bool is_thermal_throttling() const;
    /// Degrees Celsius, always positive: a default stands in where the machine names no believable limit.
    double get_temp_limit() const;

private:
    void update_loop();
    void sample();
    bool decide_throttling(double temperature);
    void wait_for_next_pass();

    /// Finds out, once, which files stand for temperature, power, clocks and throttle events, and takes the first baselines.
    void detect_sensors();
    /// Degrees Celsius, or -1.0.
    double read_temperature() const;
    /// Mean package power in watts since the previous reading, or -1.0. Moves the baseline.
    double read_power();
    /// MHz, by CPU number, up to the first CPU that has no reading: an offline CPU hides those behind it.
    std::vector<double> read_frequencies() const;
    /// GiB; -1.0 in both if there is no reading. Source: /proc/meminfo.
    void read_memory(double& used_gb, double& total_gb) const;
    /// Throttle events of all CPUs since boot; -1 if the machine does not count them.
    std::int64_t read_throttle_count() const;
    /// Finds the limit: beside the temperature input, else among the trip points of the thermal zones, else a default.
    void detect_temp_limit();
    std::string read_cpu_name();
    int read_core_count();
    int read_physical_core_count();
    /// MHz, exactly `core_count` entries; 0.0 where there is no reading.
    std::vector<double> read_max_frequencies(int core_count);

    std::thread m_thread;
    std::atomic<bool> m_running{false};
    mutable std::mutex m_mutex;  ///< never held across file access

    // What each pass publishes is marked "snapshot"; the rest is settled by the constructor.
    double m_temperature = -1.0;        ///< snapshot
    double m_power = -1.0;              ///< snapshot
    std::vector<double> m_frequencies;  ///< snapshot
    std::vector<double> m_max_frequencies;
    double m_mem_used_gb = -1.0;   ///< snapshot
    double m_mem_total_gb = -1.0;  ///< snapshot
    std::string m_cpu_name;
    std::int32_t m_core_count = 0;
    std::int32_t m_physical_core_count = 0;
    std::string m_temp_path;  ///< the chosen temperature input; empty if there is none
    std::string m_rapl_path;  ///< the package's energy counter
    bool m_has_temp = false;
    bool m_has_rapl = false;
    bool m_has_cpufreq = false;
    bool m_thermal_throttling = false;  ///< snapshot
    double m_temp_limit = -1.0;         ///< degrees Celsius
    bool m_has_throttle_counter = false;

    // The baselines of the next reading; after start() the sampling thread's alone
    std::int64_t m_prev_throttle_count = -1;  ///< -1: none
    std::uint64_t m_prev_energy = 0;          ///< microjoules
    std::chrono::steady_clock::time_point m_prev_energy_time{};
    sem_t m_wake{};  ///< by which stop() ends the pause between two passes
};
