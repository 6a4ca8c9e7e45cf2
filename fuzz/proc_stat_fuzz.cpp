/// Any bytes as several readings of /proc/stat: every line gives the counters that stand in it, every pair of readings loads from 0 to 1.
#include <array>
#include <cmath>
#include <deque>
#include <vector>

#include "cpu_reader.h"
#include "kernel_text.h"
#include "property.h"

namespace {

constexpr std::string_view NEXT_READING = "== next reading\n";
constexpr std::size_t MOST_READINGS = 8;
constexpr std::size_t MOST_CPUS_FOR_A_LONG_RUN = 8;  // of more a full history would take too long
constexpr double ROUNDING = 1e-12;

/// user, nice, system, idle, iowait, irq, softirq, steal
using Counters = std::array<std::uint64_t, 8>;
constexpr std::array<std::size_t, 6> BUSY = {0, 1, 2, 5, 6, 7};

bool is_cpu_line(std::string_view line)
{
    return line.size() > 3 && line.starts_with("cpu") && DIGITS.find(line[3]) != std::string_view::npos;
}

Counters counters_in(std::string_view line)
{
    Counters counters = {};
    take_word(line);
    for (std::uint64_t& counter : counters) {
        const auto number = take_number<std::uint64_t>(line);
        if (!number) {
            break;
        }
        counter = *number;
    }
    return counters;
}

std::vector<Counters> cpus_in(std::string_view reading)
{
    std::vector<Counters> cpus;
    for (const std::string_view line : lines_of(reading)) {
        if (is_cpu_line(line)) {
            cpus.push_back(counters_in(line));
        }
    }
    return cpus;
}

/// The share of the busy counters in what all of them have advanced by. One that steps back advances by nearly 2^64.
double expected_load(const Counters& before, const Counters& now)
{
    std::uint64_t all = 0;
    for (std::size_t i = 0; i < now.size(); ++i) {
        all += now[i] - before[i];
    }
    std::uint64_t busy = 0;
    for (const std::size_t i : BUSY) {
        busy += now[i] - before[i];
    }
    if (all == 0) {
        return 0.0;
    }
    return busy >= all ? 1.0 : static_cast<double>(busy) / static_cast<double>(all);
}

/// What the reader has to publish, reading by reading.
class Expected {
public:
    explicit Expected(const std::vector<Counters>& first) : m_before(first), m_histories(first.size()) {}

    void add(const std::vector<Counters>& now)
    {
        m_histories.resize(std::min(m_before.size(), now.size()));
        double sum = 0.0;
        for (std::size_t cpu = 0; cpu < m_histories.size(); ++cpu) {
            const double load = expected_load(m_before[cpu], now[cpu]);
            remember(m_histories[cpu], load);
            sum += load;
        }
        remember(m_totals, m_histories.empty() ? 0.0 : sum / static_cast<double>(m_histories.size()));
        m_before = now;
    }

    void require_of(const CPUReader& reader) const
    {
        const std::vector<CoreStats> cores = reader.get_cores();
        require_equal(m_histories.size(), cores.size(), "there are as many CPUs as in the shorter one of two readings");
        require_equal(static_cast<int>(cores.size()), reader.core_count(), "the count is that of the CPUs");
        for (std::size_t cpu = 0; cpu < cores.size(); ++cpu) {
            require_same(m_histories[cpu], cores[cpu].history, "a CPU's history is that of its loads");
            require_equal(m_histories[cpu].empty() ? 0.0 : m_histories[cpu].back(), cores[cpu].usage, "a CPU's load is the latest one");
        }
        require_same(m_totals, reader.get_total_history(), "the total's history is that of the means");
        require_near(m_totals.empty() ? 0.0 : m_totals.back(), reader.get_total(), "the total is the mean of the CPUs");
    }

private:
    static void remember(std::deque<double>& history, double load)
    {
        history.push_back(load);
        if (history.size() > 60) {
            history.pop_front();
        }
    }

    static void require_near(double expected, double found, const char* what)
    {
        require(found >= 0.0 && found <= 1.0, "a load is 0.0 to 1.0");
        if (!(std::abs(expected - found) <= ROUNDING)) {
            require_equal(expected, found, what);
        }
    }

    static void require_same(const std::deque<double>& expected, const std::deque<double>& found, const char* what)
    {
        require_equal(expected.size(), found.size(), what);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            require_near(expected[i], found[i], what);
        }
    }

    std::vector<Counters> m_before;
    std::vector<std::deque<double>> m_histories;
    std::deque<double> m_totals;
};

/// Reads that text as /proc/stat.
std::vector<CPUReader::RawStat> read(CPUReader& reader, std::string_view text)
{
    fuzz_machine().file("/proc/stat", std::string(text));
    std::vector<CPUReader::RawStat> stats = reader.parse_proc_stat();
    const std::vector<Counters> expected = cpus_in(text);
    require_equal(expected.size(), stats.size(), "every per-CPU line is one CPU");
    for (std::size_t cpu = 0; cpu < stats.size(); ++cpu) {
        const CPUReader::RawStat& s = stats[cpu];
        require(expected[cpu] == Counters{s.user, s.nice, s.system, s.idle, s.iowait, s.irq, s.softirq, s.steal},
                "a line gives its numbers, and zeros from the first one on that is none");
    }
    return stats;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(data, data + size);
    std::vector<std::string_view> texts = parts_of(input, NEXT_READING);
    texts.resize(std::min(texts.size(), MOST_READINGS));

    CPUReader reader;
    std::vector<std::vector<CPUReader::RawStat>> readings;
    for (const std::string_view text : texts) {
        readings.push_back(read(reader, text));
    }
    reader.m_prev_stats = readings.front();  // as the sampling thread does before its first second
    reader.m_cores.resize(readings.front().size());
    Expected expected(cpus_in(texts.front()));
    expected.require_of(reader);

    const bool is_long = readings.front().size() <= MOST_CPUS_FOR_A_LONG_RUN;
    const std::size_t passes = is_long ? CPUReader::HISTORY_SIZE + 2 : texts.size() - 1;
    for (std::size_t pass = 1; pass <= passes; ++pass) {
        const std::size_t at = pass % texts.size();
        reader.publish(std::vector(readings[at]));
        expected.add(cpus_in(texts[at]));
        if (pass < texts.size() || pass == passes) {
            expected.require_of(reader);
        }
    }
    return 0;
}
