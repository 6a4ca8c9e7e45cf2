/// The load of every logical CPU and of the whole machine, sampled once a second on a thread of its own from /proc/stat.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

/// One logical CPU's load.
struct CoreStats {
    double usage = 0.0;          ///< latest load, 0.0 to 1.0
    std::deque<double> history;  ///< past loads, oldest first, at most CPUReader::HISTORY_SIZE
};

/// Samples the loads. The getters may be called from any thread and return copies; each takes the lock by itself, so two in a row can
/// straddle a sample. A CPU is named by its position among the per-CPU lines of /proc/stat, which is not the number in the line
/// once a CPU is offline.
class CPUReader {
public:
    static constexpr std::size_t HISTORY_SIZE = 60;  ///< samples, so one minute

    CPUReader() = default;
    ~CPUReader();
    CPUReader(const CPUReader&) = delete;
    CPUReader& operator=(const CPUReader&) = delete;

    /// Starts the sampling thread. Not while one runs: that ends the process.
    void start();

    /// Ends and joins the sampling thread, if there is one; takes up to about a second.
    void stop();

    /// All CPUs with their histories; empty before the first reading and while /proc/stat can't be read.
    std::vector<CoreStats> get_cores() const;

    /// Mean load of all CPUs, 0.0 to 1.0; 0.0 if there are none.
    double get_total() const;

    /// Past means, oldest first, at most HISTORY_SIZE.
    std::deque<double> get_total_history() const;

    /// Number of CPUs in the latest sample; 0 before the first reading.
    int core_count() const;

private:
    /// One per-CPU line of /proc/stat, in clock ticks: man 5 proc. The guest columns are left out, as user and nice contain them.
    struct RawStat {
        std::uint64_t user = 0;
        std::uint64_t nice = 0;
        std::uint64_t system = 0;
        std::uint64_t idle = 0;
        std::uint64_t iowait = 0;
        std::uint64_t irq = 0;
        std::uint64_t softirq = 0;
        std::uint64_t steal = 0;
    };

    void read_loop();

    /// The per-CPU lines in file order; empty if /proc/stat can't be read. What is missing or malformed in a line is 0.
    std::vector<RawStat> parse_proc_stat();

    /// Load between two readings, 0.0 to 1.0; 0.0 if no time passed. Where a counter stepped back it is still in that range.
    static double calc_usage(const RawStat& prev, const RawStat& curr);

    void publish(std::vector<RawStat>&& curr_stats);

    std::thread m_thread;
    std::atomic<bool> m_running{false};
    mutable std::mutex m_mutex;  ///< guards the next three
    std::vector<CoreStats> m_cores;
    double m_total = 0.0;
    std::deque<double> m_total_history;
    std::vector<RawStat> m_prev_stats;  ///< sampling thread only
};
