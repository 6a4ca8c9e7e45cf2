/// The machine's identity (name, counts), the life cycle of the sampler, and what its getters say before the first pass.
#include "system_metrics.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <thread>
#include <vector>

#include "fake_machine.h"
#include "lasting_pauses.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

namespace {

constexpr const char* CPUINFO = "/proc/cpuinfo";
const std::string CPU_FOLDER = "/sys/devices/system/cpu";

constexpr int NEVER = -1;
int g_entries_until_failure = NEVER;  ///< how far the next walk of a directory gets

std::string cpu_name(const std::string& cpuinfo)
{
    FakeMachine machine;
    machine.file(CPUINFO, cpuinfo);
    return SystemMetrics().get_cpu_name();
}

/// The name shown for a model name as the kernel gives it.
std::string shown_as(const std::string& model_name)
{
    return cpu_name("processor\t: 0\nmodel name\t: " + model_name + "\nstepping\t: 3\n");
}

std::string topology_file(int cpu, const std::string& name)
{
    return CPU_FOLDER + "/cpu" + std::to_string(cpu) + "/topology/" + name;
}

/// The next entry by the C library's function of that name, or the failure of a walk that has got far enough.
template <typename Entry>
Entry* next_entry(DIR* folder, const char* function)
{
    const auto real = reinterpret_cast<Entry* (*)(DIR*)>(dlsym(RTLD_NEXT, function));
    if (g_entries_until_failure == 0) {
        errno = EIO;
        return nullptr;
    }
    if (g_entries_until_failure > 0) {
        --g_entries_until_failure;
    }
    return real(folder);
}

}  // namespace

/// These take the places of the C library's functions. Which of them a walk calls depends on the machine: where numbers of files have 32
/// bits, the second.
extern "C" dirent* readdir(DIR* folder)
{
    return next_entry<dirent>(folder, "readdir");
}

extern "C" dirent64* readdir64(DIR* folder)
{
    return next_entry<dirent64>(folder, "readdir64");
}

namespace {

/// Lets the directory walks of one expression fail after that many entries.
template <typename Walk>
auto with_failing_walk(int entries, Walk walk)
{
    g_entries_until_failure = entries;
    const auto result = walk();
    g_entries_until_failure = NEVER;
    return result;
}

// --- name ---

TEST(CpuName, KeepsTheFirstFourCharactersOfAPrefixOnPurpose)
{
    EXPECT_EQ("Intei7-9700K CPU", shown_as("Intel(R) Core(TM) i7-9700K CPU"));
    EXPECT_EQ("InteGold 6248 CPU", shown_as("Intel(R) Xeon(R) Gold 6248 CPU"));
    EXPECT_EQ("IntePentium(R) Silver N6000", shown_as("Intel(R) Pentium(R) Silver N6000"));
    EXPECT_EQ("AMD 7 5800X 8-Core Processor", shown_as("AMD Ryzen 7 5800X 8-Core Processor"));
    EXPECT_EQ("AMD 7763 64-Core Processor", shown_as("AMD EPYC 7763 64-Core Processor"));
}

TEST(CpuName, KeepsEverythingBehindThePrefix)
{
    EXPECT_EQ("Intei7-9700K CPU @ 3.60GHz ", shown_as("Intel(R) Core(TM) i7-9700K CPU @ 3.60GHz "));
    EXPECT_EQ("Inte", shown_as("Intel(R) Core(TM) "));
}

TEST(CpuName, TriesTheFollowingPrefixesOnTheShortenedName)
{
    EXPECT_EQ("AMD 9654", shown_as("AMD Ryzen EPYC 9654"));
    EXPECT_EQ("AMD Ryzen 9", shown_as("AMD EPYC Ryzen 9")) << "a prefix that had its turn is not tried again";
}

TEST(CpuName, AnyOtherNamePassesUnchanged)
{
    for (const char* name : {"VIA Nano U3500@1000MHz", "QEMU Virtual CPU version 2.5+", "0", "AMD Athlon(tm) II", "AMD Ryzen"}) {
        EXPECT_EQ(name, shown_as(name));
    }
}

TEST(CpuName, APrefixMustMatchCharacterForCharacter)
{
    for (const char* name : {"Intel(r) Core(tm) i5", "Intel Core i5", " Intel(R) Core(TM) i5", "Intel(R)", "AMD  Ryzen 5", "amd ryzen 5"}) {
        EXPECT_EQ(name, shown_as(name));
    }
    EXPECT_EQ("Inte Core(TM) i5", shown_as("Intel(R)  Core(TM) i5")) << "two blanks: only the shorter prefix matches";
}

TEST(CpuName, DropsOneCharacterBehindTheColonWhateverItIsAndTrimsNothing)
{
    EXPECT_EQ("BC", cpu_name("model name:ABC\n"));
    EXPECT_EQ("  A \t", cpu_name("model name\t:   A \t\n"));
    EXPECT_EQ("A: B", cpu_name("model name : A: B\n")) << "the first colon counts";
}

TEST(CpuName, AnEmptyValueIsAnEmptyName)
{
    EXPECT_EQ("", cpu_name("model name\t: \nmodel name\t: B\n"));
}

TEST(CpuName, AColonAsLastCharacterOfTheLineEndsTheConstructionOnPurpose)
{
    EXPECT_THROW(cpu_name("model name\t:\nmodel name\t: B\n"), std::out_of_range);
}

TEST(CpuName, TheFirstMatchingLineCounts)
{
    EXPECT_EQ("A", cpu_name("model name\t: A\n\nmodel name\t: B\n"));
    EXPECT_EQ("B", cpu_name("model name\nmodel\t\t: 85\nvendor: model name: X\n model name: Y\nModel name: Z\nmodel name\t: B\n"));
    EXPECT_EQ("A", cpu_name("model names: A\nmodel name: B\n")) << "it need only begin so";
}

TEST(CpuName, NeedsNoLastNewlineAndCopesWithAnyLength)
{
    EXPECT_EQ("A", cpu_name("model name\t: A"));
    EXPECT_EQ(std::string(1000000, 'x'), shown_as(std::string(1000000, 'x')));
}

TEST(CpuName, IsUnknownCpuWithoutSuchALineAndNoOtherKeyIsTried)
{
    EXPECT_EQ("Unknown CPU", cpu_name("processor\t: 0\nBogoMIPS\t: 48.00\nHardware\t: BCM2835\nProcessor\t: ARMv7\ncpu model\t: X\n"));
    EXPECT_EQ("Unknown CPU", cpu_name("model name\n"));
    EXPECT_EQ("Unknown CPU", cpu_name(""));
}

TEST(CpuName, IsUnknownCpuWhereThereIsNothingToRead)
{
    FakeMachine machine;
    EXPECT_EQ("Unknown CPU", SystemMetrics().get_cpu_name()) << "no file";
    machine.directory(CPUINFO);
    EXPECT_EQ("Unknown CPU", SystemMetrics().get_cpu_name()) << "a folder in its place";
    machine.failing(CPUINFO);
    EXPECT_EQ("Unknown CPU", SystemMetrics().get_cpu_name()) << "opens, but can't be read";
    machine.loop(CPUINFO);
    EXPECT_EQ("Unknown CPU", SystemMetrics().get_cpu_name()) << "a link to itself";
    machine.unreadable(CPUINFO, "model name\t: A\n");
    const WithoutPrivileges ordinary;
    EXPECT_EQ("Unknown CPU", SystemMetrics().get_cpu_name()) << "no rights";
}

// --- number of logical CPUs ---

TEST(CoreCount, IsTheNumberOfCpuEntries)
{
    FakeMachine machine;
    machine.cpus(12);
    EXPECT_EQ(12, SystemMetrics().get_core_count());
}

TEST(CoreCount, OnlyADigitAsFourthCharacterMakesACpu)
{
    FakeMachine machine;
    for (const char* other : {"cpu", "cpufreq", "cpuidle", "cpu_capacity", "cpu:", "xcpu0", "CPU0", "cp00", "online", "vulnerabilities"}) {
        machine.file(CPU_FOLDER + "/" + other + "/file", "");
    }
    EXPECT_EQ(0, SystemMetrics().get_core_count());
    machine.directory(CPU_FOLDER + "/cpu0").directory(CPU_FOLDER + "/cpu9");
    EXPECT_EQ(2, SystemMetrics().get_core_count());
}

TEST(CoreCount, TakesEntriesOfAnyKindWithLettersBehindTheDigitOnPurpose)
{
    FakeMachine machine;
    machine.file(CPU_FOLDER + "/cpu3", "").directory(CPU_FOLDER + "/cpu0x").link(CPU_FOLDER + "/cpu7", "/sys/gone");
    EXPECT_EQ(3, SystemMetrics().get_core_count());
}

TEST(CoreCount, AsksNothingElse)
{
    FakeMachine machine;
    machine.stat({{1, 1}, {1, 1}}).file(CPUINFO, "processor\t: 0\nprocessor\t: 1\n").file(CPU_FOLDER + "/present", "0-1\n");
    EXPECT_EQ(0, SystemMetrics().get_core_count());
    machine.cpus(5);
    EXPECT_EQ(5, SystemMetrics().get_core_count());
}

TEST(CoreCount, IsZeroWhereTheFolderCannotBeRead)
{
    FakeMachine machine;
    EXPECT_EQ(0, SystemMetrics().get_core_count()) << "no folder";
    machine.file(CPU_FOLDER, "");
    EXPECT_EQ(0, SystemMetrics().get_core_count()) << "a file in its place";
    machine.remove(CPU_FOLDER).cpus(4);
    std::filesystem::permissions(CPU_FOLDER, std::filesystem::perms(0111));
    const WithoutPrivileges ordinary;
    const SystemMetrics metrics;
    EXPECT_EQ(0, metrics.get_core_count()) << "no right to list it";
    EXPECT_EQ(0, metrics.get_physical_core_count()) << "no right to list it";
}

TEST(CoreCount, SwallowsWhateverTheWalkThrows)
{
    FakeMachine machine;
    SystemMetrics metrics;
    machine.loop(CPU_FOLDER);
    EXPECT_EQ(0, metrics.read_core_count());
    EXPECT_EQ(0, metrics.read_physical_core_count());
}

TEST(CoreCount, StandsAsFarAsAFailingWalkGot)
{
    FakeMachine machine;
    machine.cpus(8);
    SystemMetrics metrics;
    const int count = with_failing_walk(7, [&] { return metrics.read_core_count(); });
    EXPECT_THAT(count, AllOf(Ge(5), Le(7))) << "the folder itself and the one above may be among the seven";
    EXPECT_EQ(count, with_failing_walk(7, [&] { return metrics.read_physical_core_count(); }));
    EXPECT_EQ(0, with_failing_walk(0, [&] { return metrics.read_core_count(); }));
}

// --- number of physical cores ---

TEST(PhysicalCoreCount, CountsThreadsOfOneCoreOnceAndEachPackageForItself)
{
    FakeMachine machine;
    for (int cpu = 0; cpu < 32; ++cpu) {
        machine.cpu(cpu, cpu / 8 % 2, cpu % 8);
    }
    const SystemMetrics metrics;
    EXPECT_EQ(32, metrics.get_core_count());
    EXPECT_EQ(16, metrics.get_physical_core_count());
}

TEST(PhysicalCoreCount, LeavesOutACpuWithoutOneOfTheFilesThoughItIsALogicalCpu)
{
    FakeMachine machine;
    machine.cpus(4).remove(topology_file(1, "core_id")).remove(topology_file(2, "physical_package_id"));
    const SystemMetrics metrics;
    EXPECT_EQ(4, metrics.get_core_count());
    EXPECT_EQ(2, metrics.get_physical_core_count());
}

TEST(PhysicalCoreCount, LeavesOutACpuWhoseFileMayNotBeOpened)
{
    FakeMachine machine;
    machine.cpus(3).unreadable(topology_file(1, "core_id"), "1\n").loop(topology_file(2, "core_id"));
    const WithoutPrivileges ordinary;
    EXPECT_EQ(1, SystemMetrics().get_physical_core_count());
}

TEST(PhysicalCoreCount, IsZeroWithoutTopologyAndNotTheLogicalCount)
{
    FakeMachine machine;
    machine.directory(CPU_FOLDER + "/cpu0").directory(CPU_FOLDER + "/cpu1");
    const SystemMetrics metrics;
    EXPECT_EQ(2, metrics.get_core_count());
    EXPECT_EQ(0, metrics.get_physical_core_count());
}

TEST(PhysicalCoreCount, AFileThatHoldsNoNumberCountsAsZero)
{
    FakeMachine machine;
    machine.cpus(4).file(topology_file(1, "core_id"), "").file(topology_file(2, "core_id"), "N/A\n").failing(topology_file(3, "core_id"));
    EXPECT_EQ(1, SystemMetrics().get_physical_core_count()) << "all are core 0 of package 0";
    machine.directory(topology_file(3, "core_id")).file(topology_file(3, "physical_package_id"), "1");
    EXPECT_EQ(2, SystemMetrics().get_physical_core_count());
}

TEST(PhysicalCoreCount, TakesNegativeNumbersAsTheyStand)
{
    FakeMachine machine;
    machine.cpu(0, -1, 0).cpu(1, 0, 0).cpu(2, -1, -1).cpu(3, -1, 0);
    EXPECT_EQ(3, SystemMetrics().get_physical_core_count());
}

TEST(PhysicalCoreCount, SelectsTheEntriesAsTheLogicalCountDoes)
{
    FakeMachine machine;
    machine.cpus(2);
    for (const char* entry : {"cpufreq", "cpu0x"}) {
        machine.file(CPU_FOLDER + "/" + entry + "/topology/physical_package_id", "7\n");
        machine.file(CPU_FOLDER + "/" + entry + "/topology/core_id", "7\n");
    }
    EXPECT_EQ(3, SystemMetrics().get_physical_core_count());
}

TEST(PhysicalCoreCount, ReadsPlainNumbersInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    FakeMachine machine;
    machine.cpu(0, 0, 1000)
        .cpu(1, 0, 1001)
        .file(topology_file(2, "core_id"), "1000.5\n")
        .file(topology_file(2, "physical_package_id"), "0,9\n");
    EXPECT_EQ(2, SystemMetrics().get_physical_core_count());
}

TEST(Facts, StayAsTheyWereAtConstruction)
{
    FakeMachine machine;
    machine.cpus(4).file(CPUINFO, "model name\t: A\n");
    SystemMetrics metrics;
    machine.remove(CPU_FOLDER).file(CPUINFO, "model name\t: B\n").cpu(0, 0, 0);
    metrics.start();
    metrics.stop();
    EXPECT_EQ("A", metrics.get_cpu_name());
    EXPECT_EQ(4, metrics.get_core_count());
    EXPECT_EQ(4, metrics.get_physical_core_count());
}

// --- getters and life cycle ---

TEST(Sampler, HasNoReadingsBeforeTheFirstPass)
{
    FakeMachine machine;
    const SystemMetrics metrics;
    EXPECT_EQ(-1.0, metrics.get_temperature());
    EXPECT_EQ(-1.0, metrics.get_power());
    EXPECT_THAT(metrics.get_frequencies(), IsEmpty());
    EXPECT_FALSE(metrics.is_thermal_throttling());
}

TEST(Sampler, HasNoReadingsOfAnEmptyMachineAfterAPassEither)
{
    FakeMachine machine;
    SystemMetrics metrics;
    metrics.start();
    metrics.stop();
    EXPECT_EQ(-1.0, metrics.get_temperature());
    EXPECT_EQ(-1.0, metrics.get_power());
    EXPECT_THAT(metrics.get_frequencies(), IsEmpty());
    EXPECT_FALSE(metrics.is_thermal_throttling());
    EXPECT_THAT(metrics.get_max_frequencies(), IsEmpty());
    EXPECT_EQ(-1.0, metrics.get_memory_used_gb());
    EXPECT_EQ(-1.0, metrics.get_memory_total_gb());
    EXPECT_EQ(0, metrics.get_core_count());
    EXPECT_EQ(0, metrics.get_physical_core_count());
}

TEST(Sampler, ReadsThePhysicalCoreCountWithoutTheLock)
{
    FakeMachine machine;
    machine.cpus(2);
    SystemMetrics metrics;
    std::unique_lock lock(metrics.m_mutex);
    auto answer = std::async(std::launch::async, [&] { return metrics.get_physical_core_count(); });
    EXPECT_EQ(std::future_status::ready, answer.wait_for(DEADLINE));
    lock.unlock();
    EXPECT_EQ(2, answer.get());
}

/// Whether every thread of this process but the main one sleeps, and there is one.
bool others_sleep()
{
    bool found = false;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string stat = read_text(task.path() / "stat");
        const std::size_t name_end = stat.rfind(')');
        if (task.path().filename() == std::to_string(getpid()) || name_end == std::string::npos) {
            continue;
        }
        if (stat[name_end + 2] != 'S') {
            return false;
        }
        found = true;
    }
    return found;
}

bool is_woken(SystemMetrics& metrics)
{
    int posts = 0;
    sem_getvalue(&metrics.m_wake, &posts);
    return posts != 0;
}

std::size_t open_descriptors()
{
    const std::vector<std::filesystem::path> all(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return all.size();
}

/// A pause between two passes, taken by a thread of its own.
struct Pause {
    explicit Pause(SystemMetrics& metrics)
    {
        metrics.m_running = true;
        thread = std::thread([this, &metrics] {
            rusage before{};
            getrusage(RUSAGE_THREAD, &before);
            const auto begin = std::chrono::steady_clock::now();
            metrics.wait_for_next_pass();
            length = std::chrono::steady_clock::now() - begin;
            rusage after{};
            getrusage(RUSAGE_THREAD, &after);
            waits = after.ru_nvcsw - before.ru_nvcsw;
            is_over = true;
        });
    }
    ~Pause() { thread.join(); }
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

    std::thread thread;
    std::chrono::steady_clock::duration length{};  ///< once it is over
    long waits = 0;                                ///< how often the thread gave up its processor, likewise
    std::atomic<bool> is_over{false};
};

TEST(Sampler, RunsBetweenStartAndStop)
{
    FakeMachine machine;
    SystemMetrics metrics;
    EXPECT_FALSE(metrics.m_thread.joinable()) << "the constructor starts no thread";
    EXPECT_FALSE(metrics.m_running);
    metrics.start();
    EXPECT_TRUE(metrics.m_thread.joinable());
    EXPECT_TRUE(metrics.m_running);
    metrics.stop();
    EXPECT_FALSE(metrics.m_thread.joinable());
    EXPECT_FALSE(metrics.m_running);
}

TEST(Sampler, StopWithoutStartOrASecondTimeDoesNothing)
{
    FakeMachine machine;
    SystemMetrics metrics;
    metrics.stop();
    metrics.start();
    metrics.stop();
    metrics.stop();
    EXPECT_FALSE(metrics.m_running);
}

TEST(Sampler, StopEndsThePause)
{
    const LastingPauses lasting;
    FakeMachine machine;
    SystemMetrics metrics;
    for (int round = 0; round < 3; ++round) {
        metrics.start();
        ASSERT_TRUE(wait_until(others_sleep)) << "it never paused, round " << round;
        auto stopped = std::async(std::launch::async, [&] { metrics.stop(); });
        ASSERT_EQ(std::future_status::ready, stopped.wait_for(DEADLINE));
    }
}

TEST(Sampler, PausesAgainAfterARestart)
{
    FakeMachine machine;
    SystemMetrics metrics;
    metrics.start();
    metrics.stop();
    EXPECT_FALSE(is_woken(metrics)) << "the wake-up of the stop before would end every pause at once";
    metrics.start();
    EXPECT_TRUE(metrics.m_running);
    EXPECT_TRUE(wait_until(others_sleep));
    metrics.stop();
}

TEST(Sampler, AStopForWhichNoPauseHasWaitedEndsNoLaterOne)
{
    FakeMachine machine;
    SystemMetrics metrics;
    metrics.m_thread = std::thread([] {});  // a sampler that ends before it pauses
    metrics.stop();
    EXPECT_FALSE(is_woken(metrics));
}

TEST(Sampler, APauseIsTwoSecondsInOneWait)
{
    FakeMachine machine;
    SystemMetrics metrics;
    Pause pause(metrics);
    ASSERT_TRUE(wait_until([&] { return pause.is_over.load(); }));
    EXPECT_GE(pause.length, std::chrono::seconds(2));
    EXPECT_LE(pause.waits, 3);
}

TEST(Sampler, AnInterruptedPauseGoesOnWithWhatIsLeftOfIt)
{
    static std::atomic<int> interruptions{0};
    struct sigaction count {};
    count.sa_handler = [](int) { ++interruptions; };  // without SA_RESTART
    sigaction(SIGUSR1, &count, nullptr);
    FakeMachine machine;
    SystemMetrics metrics;
    Pause pause(metrics);
    // Without end, so a pause that begins anew each time never ends
    EXPECT_TRUE(wait_until([&] {
        pthread_kill(pause.thread.native_handle(), SIGUSR1);
        return pause.is_over.load();
    }));
    EXPECT_GE(pause.length, std::chrono::seconds(2));
#ifndef THREAD_SANITIZED  // which keeps them from the handler until the wait is over
    EXPECT_GE(interruptions.load(), 3);
#endif
}

TEST(Sampler, KeepsNoDescriptor)
{
    FakeMachine machine;
    const std::size_t before = open_descriptors();
    SystemMetrics metrics;
    EXPECT_EQ(before, open_descriptors());
    metrics.start();
    ASSERT_TRUE(wait_until(others_sleep));
    EXPECT_EQ(before, open_descriptors());
    metrics.stop();
}

TEST(Sampler, StopEndsThePauseThoughNoDescriptorWasToBeHad)
{
#ifdef SANITIZED
    GTEST_SKIP() << "the sanitizers look at objects by way of a pipe, and take one that they can't look at for a broken one";
#endif
    FakeMachine machine;
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{.rlim_cur = 0, .rlim_max = usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    SystemMetrics metrics;
    setrlimit(RLIMIT_NOFILE, &usual);
    metrics.start();
    const LastingPauses lasting;
    ASSERT_TRUE(wait_until(others_sleep));
    auto stopped = std::async(std::launch::async, [&] { metrics.stop(); });
    EXPECT_EQ(std::future_status::ready, stopped.wait_for(DEADLINE));
}

TEST(SamplerDeathTest, ASecondStartEndsTheProcess)
{
    FakeMachine machine;
    EXPECT_DEATH(
        {
            SystemMetrics metrics;
            metrics.start();
            metrics.start();
        },
        "terminate called");
}

TEST(SamplerDeathTest, TheDestructorStopsARunningSampler)
{
    FakeMachine machine;
    EXPECT_EXIT(
        {
            {
                SystemMetrics().start();
            }
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Sampler, EveryGetterAnswersInAThreadOfItsOwnMeanwhile)
{
    FakeMachine machine;
    machine.cpus(2).file(CPUINFO, "model name\t: A\n").file("/proc/meminfo", "MemTotal: 1048576 kB\nMemAvailable: 524288 kB\n");
    machine.file(CPU_FOLDER + "/cpu0/cpufreq/scaling_cur_freq", "2000000\n").max_freqs({3000000, 3000000});
    machine.file("/sys/class/thermal/thermal_zone0/type", "x86_pkg_temp\n").file("/sys/class/thermal/thermal_zone0/temp", "94000\n");
    SystemMetrics metrics;
    {
        const Asking name([&] { return metrics.get_cpu_name(); }, [](const auto& text) { EXPECT_EQ("A", text); });
        const Asking cores([&] { return metrics.get_core_count(); }, [](int n) { EXPECT_EQ(2, n); });
        const Asking physical([&] { return metrics.get_physical_core_count(); }, [](int n) { EXPECT_EQ(2, n); });
        const Asking limit([&] { return metrics.get_temp_limit(); }, [](double celsius) { EXPECT_EQ(95.0, celsius); });
        const Asking highest([&] { return metrics.get_max_frequencies(); },
                             [](const auto& mhz) { EXPECT_THAT(mhz, ElementsAre(3000, 3000)); });
        const Asking clocks([&] { return metrics.get_frequencies(); }, [](const auto& mhz) { EXPECT_LE(mhz.size(), 1); });
        const Asking temperature([&] { return metrics.get_temperature(); }, [](double t) { EXPECT_TRUE(t == -1.0 || t == 94.0); });
        const Asking power([&] { return metrics.get_power(); }, [](double watts) { EXPECT_EQ(-1.0, watts); });
        const Asking used([&] { return metrics.get_memory_used_gb(); }, [](double gb) { EXPECT_EQ(0.5, gb); });
        const Asking total([&] { return metrics.get_memory_total_gb(); }, [](double gb) { EXPECT_EQ(1.0, gb); });
        const Asking throttling([&] { return metrics.is_thermal_throttling(); }, [](bool) {});
        for (int round = 0; round < 20; ++round) {
            metrics.start();
            metrics.stop();
        }
        metrics.start();
        EXPECT_TRUE(wait_until([&] { return metrics.is_thermal_throttling(); })) << "no pass was made";
    }
    metrics.stop();
}

}  // namespace
