/// The course of the sampler's construction and of its passes: in which order files are read, that nothing is held meanwhile, how a pass
/// is published, and how it ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <list>

#include "cpu_reader.h"
#include "lasting_pauses.h"
#include "sensor_machine.h"
#include "system_metrics.h"

using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

const std::string CPUINFO = "/proc/cpuinfo";

constexpr double KB = 1.0 / 1024 / 1024;  // GiB

/// A machine on which everything can be measured; two CPUs.
class FullMachine : public FakeMachine {
public:
    FullMachine()
    {
        cpus(2).max_freqs({5000000, 4000000}).file(CPUINFO, "model name\t: A\n").file(ENERGY, "1\n");
        lay_zone(*this, 0, "x86_pkg_temp");
        file(zone_path(0, "temp_max"), "0\n").file(zone_path(0, "temp_crit"), "0\n");
        lay_trip(*this, 0, 0, "passive", "90000");
        generation(1);
        for (int cpu = 0; cpu < 2; ++cpu) {
            file(throttle_path(cpu), "0\n");
        }
    }

    /// Gives all that a pass measures, but power and events, one and the same value.
    FullMachine& generation(int n)
    {
        const std::string thousands = std::to_string(n) + "000\n";
        file(zone_path(0, "temp"), thousands);
        for (int cpu = 0; cpu < 2; ++cpu) {
            file(current_freq_path(cpu), thousands);
        }
        file(MEMINFO, "MemTotal: " + std::to_string(2 * n) + " kB\nMemAvailable: " + std::to_string(n) + " kB\n");
        return *this;
    }
};

/// All files that a pass reads, in the order of reading.
std::vector<std::string> pass_files()
{
    return {zone_path(0, "temp"), ENERGY, current_freq_path(0), current_freq_path(1), MEMINFO, throttle_path(0), throttle_path(1)};
}

/// All files with facts, in the order of reading at construction; the CPUs' topology comes in the order of their folder.
std::vector<std::string> fact_files()
{
    std::vector<std::string> files = {CPUINFO};
    for (const std::string& cpu : listed("/sys/devices/system/cpu")) {
        files.insert(files.end(), {cpu + "/topology/physical_package_id", cpu + "/topology/core_id"});
    }
    files.insert(files.end(), {FakeMachine::max_freq_path(0), FakeMachine::max_freq_path(1), zone_path(0, "type")});
    return files;
}

std::vector<std::string> limit_files()
{
    return {zone_path(0, "temp_max"), zone_path(0, "temp_crit"), zone_path(0, "trip_point_0_type"), zone_path(0, "trip_point_0_temp")};
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// Whether that thread sleeps.
bool sleeps(const std::string& task)
{
    const std::string stat = read_text("/proc/self/task/" + task + "/stat");
    const std::size_t name_end = stat.rfind(')');
    return name_end != std::string::npos && stat[name_end + 2] == 'S';
}

/// Does something over and over in a thread of its own, until a test fails or the scope ends; at least once. The thread is no
/// std::async, whose way through the standard library keeps the thread sanitizer from seeing what happens in it.
class Repeated {
public:
    explicit Repeated(const std::function<void()>& action)
        : m_thread([this, action] {
              do {
                  action();
                  std::this_thread::yield();
              } while (!m_ended && !testing::Test::HasFailure());
          })
    {
    }
    ~Repeated()
    {
        m_ended = true;
        m_thread.join();
    }
    Repeated(const Repeated&) = delete;
    Repeated& operator=(const Repeated&) = delete;

private:
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};

// --- construction ---

TEST(Construction, ReadsTheFactsInTheirOrderAndMemoryLast)
{
    FullMachine machine;
    const auto expected = fact_files() + std::vector{ENERGY, throttle_path(0), throttle_path(1)} + limit_files() + std::vector{MEMINFO};
    OpenLog log(expected + std::vector{zone_path(0, "temp"), current_freq_path(0), current_freq_path(1)});
    const SystemMetrics metrics;
    EXPECT_THAT(log.opened(), ElementsAreArray(expected)) << "and neither temperature nor current clocks";
}

TEST(Construction, CountsLogicalCpusBeforePhysicalOnesAndListsZonesBeforeChips)
{
    FullMachine machine;
    machine.remove(zone_path(0, "type"));
    lay_chip(machine, 0, "coretemp");
    const std::string cpus = "/sys/devices/system/cpu";
    OpenLog log({CPUINFO, cpus, FakeMachine::max_freq_path(0), THERMAL, HWMON, ENERGY, MEMINFO});
    const SystemMetrics metrics;
    EXPECT_THAT(log.opened(), ElementsAre(CPUINFO, cpus, cpus, FakeMachine::max_freq_path(0), THERMAL, HWMON, ENERGY, THERMAL, MEMINFO));
}

TEST(Construction, LeavesEverythingMeasuredButMemoryWithoutAReading)
{
    FullMachine machine;
    const SystemMetrics metrics;
    EXPECT_EQ(-1.0, metrics.get_temperature());
    EXPECT_EQ(-1.0, metrics.get_power());
    EXPECT_THAT(metrics.get_frequencies(), IsEmpty());
    EXPECT_FALSE(metrics.is_thermal_throttling());
    EXPECT_EQ(1 * KB, metrics.get_memory_used_gb());
    EXPECT_EQ(2 * KB, metrics.get_memory_total_gb());
    EXPECT_EQ("A", metrics.get_cpu_name());
    EXPECT_EQ(2, metrics.get_core_count());
    EXPECT_EQ(2, metrics.get_physical_core_count());
    EXPECT_EQ(90.0, metrics.get_temp_limit());
    EXPECT_THAT(metrics.get_max_frequencies(), ElementsAre(5000.0, 4000.0));
}

TEST(Construction, FindsNothingWrongWithAMachineWithoutAnySensor)
{
    FakeMachine machine;
    const SystemMetrics metrics;
    EXPECT_FALSE(metrics.m_has_temp);
    EXPECT_FALSE(metrics.m_has_rapl);
    EXPECT_FALSE(metrics.m_has_cpufreq);
    EXPECT_FALSE(metrics.m_has_throttle_counter);
    EXPECT_EQ(95.0, metrics.get_temp_limit());
}

TEST(Construction, AProbeThatFailsKeepsThoseBehindItFromHappening)
{
    FullMachine machine;
    machine.loop(current_freq_path(0));
    OpenLog log({ENERGY, throttle_path(0), zone_path(0, "temp_max"), MEMINFO});
    EXPECT_THROW(SystemMetrics(), std::filesystem::filesystem_error);
    EXPECT_THAT(log.opened(), ElementsAre(ENERGY));
}

// --- one pass ---

TEST(Pass, ReadsTemperaturePowerClocksMemoryAndEventsInThisOrderAndNothingElse)
{
    FullMachine machine;
    SystemMetrics metrics;
    OpenLog log(pass_files() + fact_files() + limit_files() + std::vector{THERMAL});
    metrics.sample();
    EXPECT_THAT(log.opened(), ElementsAreArray(pass_files()));
    metrics.sample();
    EXPECT_THAT(log.opened(), ElementsAreArray(pass_files())) << "the same at every pass";
}

TEST(Pass, HangingInAFileHoldsNoGetterUp)
{
    FullMachine machine;
    SystemMetrics metrics;
    const auto files = pass_files();
    HangingTask pass(machine, files, [&] { metrics.sample(); });
    for (const std::string& file : files) {
        ASSERT_TRUE(pass.hangs_in(file)) << file;
        const bool is_free = metrics.m_mutex.try_lock();
        ASSERT_TRUE(is_free) << file;
        metrics.m_mutex.unlock();
        EXPECT_EQ(-1.0, metrics.get_temperature()) << file;
        EXPECT_EQ(-1.0, metrics.get_power()) << file;
        EXPECT_THAT(metrics.get_frequencies(), IsEmpty()) << file;
        EXPECT_FALSE(metrics.is_thermal_throttling()) << file;
        EXPECT_EQ(1 * KB, metrics.get_memory_used_gb()) << file;
        EXPECT_EQ(2 * KB, metrics.get_memory_total_gb()) << file;
        EXPECT_EQ("A", metrics.get_cpu_name()) << file;
        EXPECT_EQ(2, metrics.get_core_count()) << file;
        EXPECT_EQ(2, metrics.get_physical_core_count()) << file;
        EXPECT_EQ(90.0, metrics.get_temp_limit()) << file;
        EXPECT_THAT(metrics.get_max_frequencies(), ElementsAre(5000.0, 4000.0)) << file;
        machine.hanging(file);
        pass.let_go(file == MEMINFO ? "MemTotal: 10 kB\nMemAvailable: 3 kB\n" : "42000\n");
    }
    ASSERT_TRUE(pass.ends());
    EXPECT_EQ(42.0, metrics.get_temperature());
    EXPECT_GT(metrics.get_power(), 0.0);
    EXPECT_THAT(metrics.get_frequencies(), ElementsAre(42.0, 42.0));
    EXPECT_EQ(7 * KB, metrics.get_memory_used_gb());
    EXPECT_EQ(10 * KB, metrics.get_memory_total_gb());
    EXPECT_TRUE(metrics.is_thermal_throttling());
}

TEST(Pass, ReadsNoFileWhileItWaitsForTheLock)
{
    FullMachine machine;
    SystemMetrics metrics;
    OpenLog log(pass_files());
    std::unique_lock lock(metrics.m_mutex);
    std::promise<std::string> task;
    std::thread pass([&] {
        task.set_value(std::to_string(gettid()));
        metrics.sample();
    });
    const std::string id = task.get_future().get();
    std::vector<std::string> opened;
    EXPECT_TRUE(wait_until([&] {
        const auto more = log.opened();
        opened.insert(opened.end(), more.begin(), more.end());
        return opened.size() == pass_files().size() && sleeps(id);
    })) << "all files are read before the lock is needed";
    EXPECT_EQ(-1.0, metrics.m_temperature) << "and nothing is published without it";
    EXPECT_EQ(-1.0, metrics.m_power);
    EXPECT_THAT(metrics.m_frequencies, IsEmpty());
    lock.unlock();
    pass.join();
    EXPECT_EQ(1.0, metrics.get_temperature());
    EXPECT_THAT(log.opened(), IsEmpty());
}

TEST(Pass, IsPublishedAllAtOnce)
{
    FullMachine machine;
    machine.remove(throttle_path(0));  // so that the temperature decides
    SystemMetrics metrics;
    metrics.sample();
    std::atomic<int> changes{0};
    const auto watch = [&, last = 0.0]() mutable {
        const std::lock_guard lock(metrics.m_mutex);
        const double generation = metrics.m_temperature;
        EXPECT_THAT(metrics.m_frequencies, ElementsAre(generation, generation));
        EXPECT_EQ(generation * KB, metrics.m_mem_used_gb);
        EXPECT_EQ(2 * generation * KB, metrics.m_mem_total_gb);
        EXPECT_EQ(generation >= 87.0, metrics.m_thermal_throttling);
        changes += generation != last ? 1 : 0;
        last = generation;
    };
    {
        const Repeated first(watch);
        const Repeated second(watch);
        for (int pass = 0; pass < 1500; ++pass) {
            machine.generation(pass % 100 + 1);
            metrics.sample();
        }
    }
    EXPECT_GT(changes, 2);
}

TEST(Pass, ThatReadsNothingKeepsNoLastGoodValueAndTheNextGoodOneRestoresThem)
{
    FullMachine machine;
    SystemMetrics metrics;
    machine.file(throttle_path(0), "1\n").file(ENERGY, "1000001\n");
    metrics.sample();
    EXPECT_EQ(1.0, metrics.get_temperature());
    EXPECT_GT(metrics.get_power(), 0.0);
    EXPECT_TRUE(metrics.is_thermal_throttling());
    for (const std::string& file : pass_files()) {
        machine.remove(file);
    }
    metrics.sample();
    EXPECT_EQ(-1.0, metrics.get_temperature());
    EXPECT_EQ(-1.0, metrics.get_power());
    EXPECT_THAT(metrics.get_frequencies(), IsEmpty());
    EXPECT_EQ(-1.0, metrics.get_memory_used_gb());
    EXPECT_EQ(-1.0, metrics.get_memory_total_gb());
    EXPECT_FALSE(metrics.is_thermal_throttling());
    machine.generation(3).file(ENERGY, "2000001\n").file(throttle_path(0), "9\n");
    metrics.sample();
    EXPECT_EQ(3.0, metrics.get_temperature());
    EXPECT_GT(metrics.get_power(), 0.0);
    EXPECT_THAT(metrics.get_frequencies(), ElementsAre(3.0, 3.0));
    EXPECT_EQ(3 * KB, metrics.get_memory_used_gb());
    EXPECT_EQ(6 * KB, metrics.get_memory_total_gb());
    EXPECT_TRUE(metrics.is_thermal_throttling());
}

TEST(Pass, OneFailingQuantityLeavesTheOthersAlone)
{
    for (const std::string& failing : pass_files()) {
        FullMachine machine;
        SystemMetrics metrics;
        machine.failing(failing).file(throttle_path(1), "5\n");
        if (failing == throttle_path(1)) {
            machine.file(throttle_path(0), "5\n").failing(failing);
        }
        if (failing != ENERGY) {
            machine.file(ENERGY, "1000001\n");
        }
        metrics.sample();
        EXPECT_EQ(failing == zone_path(0, "temp") ? -1.0 : 1.0, metrics.get_temperature()) << failing;
        EXPECT_EQ(failing != ENERGY, metrics.get_power() > 0.0) << failing;
        const std::size_t clocks = failing == current_freq_path(0) ? 0 : failing == current_freq_path(1) ? 1 : 2;
        EXPECT_EQ(clocks, metrics.get_frequencies().size()) << failing;
        EXPECT_EQ(failing == MEMINFO ? -1.0 : 1 * KB, metrics.get_memory_used_gb()) << failing;
        EXPECT_TRUE(metrics.is_thermal_throttling()) << failing;
    }
}

TEST(Pass, NeverTouchesTheFacts)
{
    FullMachine machine;
    SystemMetrics metrics;
    machine.remove("/sys/devices").remove("/sys/class").remove(CPUINFO).remove(MEMINFO);
    metrics.sample();
    EXPECT_EQ("A", metrics.get_cpu_name());
    EXPECT_EQ(2, metrics.get_core_count());
    EXPECT_EQ(2, metrics.get_physical_core_count());
    EXPECT_EQ(90.0, metrics.get_temp_limit());
    EXPECT_THAT(metrics.get_max_frequencies(), ElementsAre(5000.0, 4000.0));
    EXPECT_EQ(zone_path(0, "temp"), metrics.m_temp_path);
    EXPECT_EQ(ENERGY, metrics.m_rapl_path);
    EXPECT_TRUE(metrics.m_has_temp && metrics.m_has_rapl && metrics.m_has_cpufreq && metrics.m_has_throttle_counter);
}

// --- the thread ---

TEST(SamplingThread, BeginsItsFirstPassAtOnceAndPausesBehindIt)
{
    const LastingPauses lasting;
    FullMachine machine;
    SystemMetrics metrics;
    OpenLog log({MEMINFO});
    metrics.start();
    EXPECT_TRUE(wait_until([&] { return metrics.get_temperature() == 1.0; }));
    metrics.stop();
    EXPECT_EQ(1, log.times_opened(MEMINFO)) << "one pass, and no other because of the stop";
}

TEST(SamplingThread, StopWaitsForARunningPassWhichIsPublishedAndTheLast)
{
    FullMachine machine;
    SystemMetrics metrics;
    OpenLog log({MEMINFO, throttle_path(1)});
    std::promise<void> pass_hangs;
    HangingTask life(machine, {zone_path(0, "temp")}, [&] {
        metrics.start();
        pass_hangs.get_future().wait();
        metrics.stop();
    });
    EXPECT_TRUE(life.hangs_in(zone_path(0, "temp")));
    pass_hangs.set_value();
    EXPECT_TRUE(wait_until([&] { return !metrics.m_running; }));
    EXPECT_FALSE(life.ended()) << "the pass hangs still";
    life.let_go("51000\n");
    EXPECT_TRUE(life.ends());
    EXPECT_EQ(51.0, metrics.get_temperature());
    EXPECT_THAT(log.opened(), ElementsAre(MEMINFO, throttle_path(1)));
}

TEST(SamplingThread, AStopDuringThePauseStartsNoOtherPass)
{
    const LastingPauses lasting;
    FullMachine machine;
    SystemMetrics metrics;
    for (int round = 0; round < 5; ++round) {
        machine.generation(round + 1);
        OpenLog log({zone_path(0, "temp"), MEMINFO});
        metrics.start();
        ASSERT_TRUE(wait_until([&] { return metrics.get_temperature() == round + 1.0; }));
        metrics.stop();
        EXPECT_THAT(log.opened(), ElementsAre(zone_path(0, "temp"), MEMINFO));
    }
}

TEST(SamplingThread, MakesOnePassAfterTheOther)
{
    FullMachine machine;
    SystemMetrics metrics;
    metrics.start();
    ASSERT_TRUE(wait_until([&] { return metrics.get_temperature() == 1.0; }));
    machine.generation(2);
    EXPECT_TRUE(wait_until([&] { return metrics.get_memory_used_gb() == 2 * KB; }));
    metrics.stop();
}

TEST(SamplingThread, GoesOnAfterARestartFromTheBaselinesAsTheyWere)
{
    const LastingPauses lasting;
    FullMachine machine;
    SystemMetrics metrics;
    const auto one_pass = [&](int generation) {
        machine.generation(generation);
        metrics.start();
        EXPECT_TRUE(wait_until([&] { return metrics.get_memory_used_gb() == generation * KB; }));
        metrics.stop();
        return metrics.is_thermal_throttling();
    };
    EXPECT_FALSE(one_pass(2));
    machine.file(throttle_path(1), "3\n").file(ENERGY, "2000000\n");
    EXPECT_TRUE(one_pass(3)) << "an event while it was stopped counts";
    EXPECT_GT(metrics.get_power(), 0.0);
    EXPECT_EQ(2000000, metrics.m_prev_energy);
    EXPECT_FALSE(one_pass(4));
    EXPECT_EQ(-1.0, metrics.get_power());
}

// --- many threads ---

/// Changes the files all the time, in the order of a pass and against it; some vanish and come back.
void stir(FakeMachine& machine, int round)
{
    const std::string number = std::to_string(1000 * (round % 200)) + "\n";
    const auto files = pass_files();
    const std::string& file = files[static_cast<std::size_t>(round) % files.size()];
    switch (round % 5) {
        case 0:
            machine.remove(file);
            break;
        case 1:
            machine.failing(file);
            break;
        default:
            machine.file(file, file == MEMINFO ? "MemTotal: 10 kB\nMemAvailable: 3 kB\n" : number);
    }
    machine.stat(std::vector<Ticks>(static_cast<std::size_t>(round % 9), {static_cast<unsigned long long>(round), 7}));
}

/// Asks everything once; what comes must make sense whatever the moment.
void ask(const SystemMetrics& metrics, const CPUReader& reader)
{
    EXPECT_THAT(metrics.get_temperature(), AnyOf(-1.0, testing::AllOf(testing::Ge(0.0), testing::Lt(200.0))));
    EXPECT_GE(metrics.get_power(), -1.0);
    EXPECT_LE(metrics.get_frequencies().size(), 2);
    EXPECT_THAT(metrics.get_memory_used_gb(), AnyOf(-1.0, 1 * KB, 7 * KB));
    EXPECT_THAT(metrics.get_memory_total_gb(), AnyOf(-1.0, 2 * KB, 10 * KB));
    EXPECT_EQ("A", metrics.get_cpu_name());
    EXPECT_EQ(2, metrics.get_core_count());
    EXPECT_EQ(2, metrics.get_physical_core_count());
    EXPECT_EQ(90.0, metrics.get_temp_limit());
    EXPECT_THAT(metrics.get_max_frequencies(), ElementsAre(5000.0, 4000.0));
    metrics.is_thermal_throttling();
    EXPECT_LT(reader.get_cores().size(), 9);
    EXPECT_THAT(reader.get_total(), testing::AllOf(testing::Ge(0.0), testing::Le(1.0)));
    EXPECT_LE(reader.get_total_history().size(), CPUReader::HISTORY_SIZE);
    EXPECT_LT(reader.core_count(), 9);
}

/// The getters of what changes, each for a thread of its own: if one thread took the lock for another getter, that would hide a getter
/// that takes none.
std::vector<std::function<void()>> single_questions(const SystemMetrics& metrics, const CPUReader& reader)
{
    return {
        [&] { EXPECT_LT(metrics.get_temperature(), 200.0); },
        [&] { EXPECT_GE(metrics.get_power(), -1.0); },
        [&] { EXPECT_LE(metrics.get_frequencies().size(), 2); },
        [&] { EXPECT_THAT(metrics.get_memory_used_gb(), AnyOf(-1.0, 1 * KB, 7 * KB)); },
        [&] { EXPECT_THAT(metrics.get_memory_total_gb(), AnyOf(-1.0, 2 * KB, 10 * KB)); },
        [&] { metrics.is_thermal_throttling(); },
        [&] { EXPECT_LT(reader.get_cores().size(), 9); },
        [&] { EXPECT_LE(reader.get_total(), 1.0); },
        [&] { EXPECT_LE(reader.get_total_history().size(), CPUReader::HISTORY_SIZE); },
        [&] { EXPECT_LT(reader.core_count(), 9); },
    };
}

TEST(ManyThreads, AskWhileBothSamplersPassAndFilesChangeAndVanish)
{
    FullMachine machine;
    SystemMetrics metrics;
    CPUReader reader;
    auto actions = single_questions(metrics, reader);
    actions.push_back([&] { metrics.sample(); });
    actions.push_back([&] { reader.publish(reader.parse_proc_stat()); });
    std::list<Repeated> threads;
    for (const auto& action : actions) {
        threads.emplace_back(action);
    }
    for (int round = 0; round < 1000; ++round) {
        stir(machine, round);
    }
}

TEST(ManyThreads, AskWhileBothSamplersStartAndStop)
{
    FullMachine machine;
    SystemMetrics metrics;
    CPUReader reader;
    reader.start();
    {
        const Repeated asking([&] { ask(metrics, reader); });
        for (int round = 0; round < 200; ++round) {
            metrics.start();
            stir(machine, round);
            metrics.stop();
        }
    }
    reader.stop();
}

}  // namespace
