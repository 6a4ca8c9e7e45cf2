/// Loads are differences between two readings of /proc/stat. Files are read without the lock, and what comes of them is published under it.
#include "cpu_reader.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>

#include "kernel_file.h"

namespace {

constexpr const char* STAT_FILE = "/proc/stat";
constexpr std::chrono::seconds SAMPLE_PERIOD{1};

/// A full history moves up in its place: as a queue that wanders it would hold two blocks of memory nearly all the time.
void append_bounded(std::deque<double>& history, double value)
{
    if (history.size() < CPUReader::HISTORY_SIZE) {
        history.push_back(value);
        return;
    }
    std::move(std::next(history.begin()), history.end(), history.begin());
    history.back() = value;
}

}  // namespace

CPUReader::~CPUReader()
{
    stop();
}

void CPUReader::start()
{
    m_running = true;
    m_thread = std::thread(&CPUReader::read_loop, this);
}

void CPUReader::stop()
{
    m_running = false;
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

std::vector<CoreStats> CPUReader::get_cores() const
{
    const std::lock_guard lock(m_mutex);
    return m_cores;
}

double CPUReader::get_total() const
{
    const std::lock_guard lock(m_mutex);
    return m_total;
}

std::deque<double> CPUReader::get_total_history() const
{
    const std::lock_guard lock(m_mutex);
    return m_total_history;
}

int CPUReader::core_count() const
{
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(m_cores.size());
}

void CPUReader::read_loop()
{
    m_prev_stats = parse_proc_stat();
    {
        const std::lock_guard lock(m_mutex);
        m_cores.resize(m_prev_stats.size());
    }
    while (m_running) {
        std::this_thread::sleep_for(SAMPLE_PERIOD);
        if (!m_running) {
            break;
        }
        publish(parse_proc_stat());  // the file is read before the lock is taken: the main thread never waits for the kernel
    }
}

std::vector<CPUReader::RawStat> CPUReader::parse_proc_stat()
{
    std::vector<RawStat> stats;
    std::ifstream file(STAT_FILE);
    std::istringstream fields;
    std::string line;
    std::string label;
    while (std::getline(file, line)) {
        if (!begins_with_cpu_number(line)) {  // as the summary line, which has a blank there
            continue;
        }
        fields.clear();
        fields.str(line);
        fields >> label;
        RawStat stat;
        for (auto* field : {&stat.user, &stat.nice, &stat.system, &stat.idle, &stat.iowait, &stat.irq, &stat.softirq, &stat.steal}) {
            if (!(fields >> *field)) {
                *field = 0;  // a number too large for the field was cut to the largest one, which is no reading
                break;
            }
        }
        stats.push_back(stat);
    }
    return stats;
}

double CPUReader::calc_usage(const RawStat& prev, const RawStat& curr)
{
    const auto idle = [](const RawStat& s) { return s.idle + s.iowait; };
    const auto total = [&](const RawStat& s) { return s.user + s.nice + s.system + idle(s) + s.irq + s.softirq + s.steal; };
    const std::uint64_t total_diff = total(curr) - total(prev);
    const std::uint64_t idle_diff = idle(curr) - idle(prev);
    if (total_diff == 0) {
        return 0.0;
    }
    // Unsigned throughout: iowait can step back, and where it takes the idle time with it, the huge difference is clamped for one sample.
    const std::uint64_t busy_diff = total_diff - idle_diff;
    return std::clamp(static_cast<double>(busy_diff) / static_cast<double>(total_diff), 0.0, 1.0);
}

/// Takes over one reading: the loads since the one before, the mean, and both histories, as one critical section.
void CPUReader::publish(std::vector<RawStat>&& curr_stats)
{
    const int n = static_cast<int>(std::min(curr_stats.size(), m_prev_stats.size()));
    const std::lock_guard lock(m_mutex);
    m_cores.resize(static_cast<std::size_t>(n));
    double total_sum = 0.0;
    for (std::size_t i = 0; i < m_cores.size(); ++i) {
        const double u = calc_usage(m_prev_stats[i], curr_stats[i]);
        m_cores[i].usage = u;
        append_bounded(m_cores[i].history, u);
        total_sum += u;
    }
    m_total = n > 0 ? total_sum / n : 0.0;
    append_bounded(m_total_history, m_total);
    m_prev_stats = std::move(curr_stats);
}
