/// Current and highest clocks of the logical CPUs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "sensor_machine.h"
#include "system_metrics.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/// Gives CPUs 0, 1, 2... these current clocks in kHz.
void lay_clocks(FakeMachine& machine, const std::vector<std::string>& khz)
{
    for (std::size_t i = 0; i < khz.size(); ++i) {
        machine.file(current_freq_path(static_cast<int>(i)), khz[i] + "\n");
    }
}

std::vector<double> current_clocks(const std::vector<std::string>& khz)
{
    FakeMachine machine;
    lay_clocks(machine, khz);
    return SystemMetrics().read_frequencies();
}

// --- current clocks ---

TEST(CurrentClocks, AreThousandthsOfTheKernelsKilohertzWithFractions)
{
    EXPECT_THAT(current_clocks({"2400000", "800123", "1"}), ElementsAre(2400.0, 800.123, 0.001));
}

TEST(CurrentClocks, AreEmptyBeforeTheFirstPass)
{
    FakeMachine machine;
    lay_clocks(machine, {"2400000"});
    OpenLog log({current_freq_path(0)});
    const SystemMetrics metrics;
    EXPECT_THAT(metrics.get_frequencies(), IsEmpty());
    EXPECT_THAT(log.opened(), IsEmpty()) << "the constructor does not read them";
}

TEST(CurrentClocks, FollowTheFilesAtEachPassAndTheLastOnesAreNotKept)
{
    FakeMachine machine;
    machine.cpus(2);
    lay_clocks(machine, {"1000000", "2000000"});
    SystemMetrics metrics;
    metrics.sample();
    EXPECT_THAT(metrics.get_frequencies(), ElementsAre(1000.0, 2000.0));
    machine.file(current_freq_path(0), "1500000\n").remove(current_freq_path(1));
    metrics.sample();
    EXPECT_THAT(metrics.get_frequencies(), ElementsAre(1500.0)) << "fewer than CPUs";
    EXPECT_EQ(2, metrics.get_core_count());
    machine.remove(current_freq_path(0));
    metrics.sample();
    EXPECT_THAT(metrics.get_frequencies(), IsEmpty());
    lay_clocks(machine, {"1000000", "2000000"});
    metrics.sample();
    EXPECT_THAT(metrics.get_frequencies(), ElementsAre(1000.0, 2000.0));
}

TEST(CurrentClocks, AnOfflineCpuHidesThoseBehindIt)
{
    FakeMachine machine;
    machine.cpus(8);
    for (int cpu = 0; cpu < 8; ++cpu) {
        machine.file(current_freq_path(cpu), std::to_string(1000 + cpu) + "000\n").max_freq(static_cast<std::size_t>(cpu), "4000000\n");
    }
    machine.remove(cpu_path(3, "cpufreq"));
    SystemMetrics metrics;
    EXPECT_THAT(metrics.read_frequencies(), ElementsAre(1000.0, 1001.0, 1002.0));
    EXPECT_THAT(metrics.get_max_frequencies(), ElementsAre(4000.0, 4000.0, 4000.0, 0.0, 4000.0, 4000.0, 4000.0, 4000.0));
}

TEST(CurrentClocks, TheFirstCpuWithoutANumberEndsTheList)
{
    FakeMachine machine;
    lay_clocks(machine, {"1000000", "2000000", "3000000"});
    const SystemMetrics metrics;
    for_each_failure(machine, current_freq_path(1), "2000000\n",
                     [&](const std::string& fault) { EXPECT_THAT(metrics.read_frequencies(), ElementsAre(1000.0)) << fault; });
    machine.file(current_freq_path(1), "2000000\n");
    EXPECT_THAT(metrics.read_frequencies(), ElementsAre(1000.0, 2000.0, 3000.0)) << "and all come back with it";
}

TEST(CurrentClocks, WithoutANumberOfTheFirstCpuThereAreNone)
{
    FakeMachine machine;
    lay_clocks(machine, {"1000000", "2000000"});
    const SystemMetrics metrics;
    for_each_failure(machine, current_freq_path(0), "1000000\n",
                     [&](const std::string& fault) { EXPECT_THAT(metrics.read_frequencies(), IsEmpty()) << fault; });
}

TEST(CurrentClocks, ThoseBehindTheEndOfTheListAreNotRead)
{
    FakeMachine machine;
    lay_clocks(machine, {"1000000", "N/A", "3000000"});
    const SystemMetrics metrics;
    OpenLog log({current_freq_path(0), current_freq_path(1), current_freq_path(2)});
    metrics.read_frequencies();
    EXPECT_THAT(log.opened(), ElementsAre(current_freq_path(0), current_freq_path(1)));
}

TEST(CurrentClocks, AZeroIsAReading)
{
    EXPECT_THAT(current_clocks({"0", "2000000"}), ElementsAre(0.0, 2000.0));
}

TEST(CurrentClocks, TakeThe64BitsOfTheNumber)
{
    EXPECT_THAT(current_clocks({"5000000000", "18446744073709551615", "18446744073709551616"}),
                ElementsAre(5000000.0, 18446744073709551.615));
}

TEST(CurrentClocks, WhiteSpaceInFrontAndAMissingNewlineDoNoHarm)
{
    FakeMachine machine;
    machine.file(current_freq_path(0), "1000000").file(current_freq_path(1), " \t\n2000000 kHz\n");
    EXPECT_THAT(SystemMetrics().read_frequencies(), ElementsAre(1000.0, 2000.0));
}

TEST(CurrentClocks, DoNotEndAtTheNumberOfCpus)
{
    FakeMachine machine;
    lay_clocks(machine, {"1000000", "2000000", "3000000"});
    SystemMetrics metrics;
    metrics.m_core_count = 1;
    metrics.m_max_frequencies = {1.0};
    EXPECT_THAT(metrics.read_frequencies(), SizeIs(3));
}

TEST(CurrentClocks, OfHundredsOfCpusAreAllRead)
{
    EXPECT_THAT(current_clocks(std::vector<std::string>(300, "1200000")), testing::AllOf(SizeIs(300), Each(1200.0)));
}

TEST(CurrentClocks, AreNoneIfTheFirstCpuHasNoClockFileThoughOthersHave)
{
    FakeMachine machine;
    machine.cpus(3);
    lay_clocks(machine, {"", "2000000", "3000000"});
    machine.remove(current_freq_path(0)).max_freqs({1000000, 2000000, 3000000});
    SystemMetrics metrics;
    EXPECT_FALSE(metrics.m_has_cpufreq);
    machine.file(current_freq_path(0), "1000000\n");
    OpenLog log({current_freq_path(0), current_freq_path(1)});
    metrics.sample();
    EXPECT_THAT(metrics.get_frequencies(), IsEmpty()) << "one that shows up later is never seen";
    EXPECT_THAT(log.opened(), IsEmpty());
    EXPECT_THAT(metrics.get_max_frequencies(), ElementsAre(1000.0, 2000.0, 3000.0)) << "the highest clocks don't ask for that file";
}

TEST(CurrentClocks, TheFileOfTheFirstCpuNeedOnlyExist)
{
    FakeMachine machine;
    machine.directory(current_freq_path(0));
    EXPECT_TRUE(SystemMetrics().m_has_cpufreq) << "a folder";
    machine.link(current_freq_path(0), "/sys/gone");
    EXPECT_FALSE(SystemMetrics().m_has_cpufreq) << "a link to nowhere";
    machine.unreadable(current_freq_path(0), "1000000\n");
    const WithoutPrivileges ordinary;
    const SystemMetrics metrics;
    EXPECT_TRUE(metrics.m_has_cpufreq) << "no rights";
    EXPECT_THAT(metrics.read_frequencies(), IsEmpty());
}

TEST(CurrentClocks, AnErrorOfTheProbeLeavesTheConstructorOnPurpose)
{
    FakeMachine machine;
    machine.loop(current_freq_path(0));
    EXPECT_THROW(SystemMetrics(), std::filesystem::filesystem_error) << "a link to itself";
    machine.file(current_freq_path(0), "1000000\n");
    std::filesystem::permissions(cpu_path(0, "cpufreq"), std::filesystem::perms::none);
    const WithoutPrivileges ordinary;
    EXPECT_THROW(SystemMetrics(), std::filesystem::filesystem_error) << "no rights in the folder";
}

TEST(CurrentClocks, OnePassOpensEachFileOnce)
{
    FakeMachine machine;
    lay_clocks(machine, {"1000000", "2000000"});
    const SystemMetrics metrics;
    OpenLog log({current_freq_path(0), current_freq_path(1)});
    metrics.read_frequencies();
    EXPECT_THAT(log.opened(), ElementsAre(current_freq_path(0), current_freq_path(1)));
}

TEST(CurrentClocks, AreReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    EXPECT_THAT(current_clocks({"2400123", "2.400.123", "2,5"}), ElementsAre(2400.123, 0.002, 0.002));
}

// --- highest clocks ---

TEST(HighestClocks, AreThousandthsOfTheKernelsKilohertzWithFractions)
{
    FakeMachine machine;
    machine.cpus(3).max_freqs({5000000, 3800001, 1});
    EXPECT_THAT(SystemMetrics().get_max_frequencies(), ElementsAre(5000.0, 3800.001, 0.001));
}

TEST(HighestClocks, AFileThatGivesNoNumberLeavesAZeroInItsSlot)
{
    FakeMachine machine;
    machine.cpus(3).max_freqs({5000000, 4000000, 3000000});
    for_each_failure(machine, FakeMachine::max_freq_path(1), "4000000\n", [](const std::string& fault) {
        EXPECT_THAT(SystemMetrics().get_max_frequencies(), ElementsAre(5000.0, 0.0, 3000.0)) << fault;
    });
    machine.remove(FakeMachine::max_freq_path(0)).remove(FakeMachine::max_freq_path(2));
    EXPECT_THAT(SystemMetrics().get_max_frequencies(), ElementsAre(0.0, 0.0, 0.0)) << "none at all";
}

TEST(HighestClocks, ANegativeNumberSpoilsNoOtherSlot)
{
    FakeMachine machine;
    machine.cpus(3).max_freqs({5000000, 4000000, 3000000}).max_freq(1, "-4000000\n");
    EXPECT_THAT(SystemMetrics().get_max_frequencies(), ElementsAre(5000.0, testing::_, 3000.0));
}

TEST(HighestClocks, AreAsManyAsAskedForAndNoneIfThatIsNotPositive)
{
    FakeMachine machine;
    machine.max_freqs({5000000, 4000000, 3000000});
    SystemMetrics metrics;
    EXPECT_THAT(metrics.read_max_frequencies(2), ElementsAre(5000.0, 4000.0));
    EXPECT_THAT(metrics.read_max_frequencies(5), ElementsAre(5000.0, 4000.0, 3000.0, 0.0, 0.0));
    EXPECT_THAT(metrics.read_max_frequencies(0), IsEmpty());
    EXPECT_THAT(metrics.read_max_frequencies(-1), IsEmpty());
    EXPECT_THAT(metrics.read_max_frequencies(std::numeric_limits<int>::min()), IsEmpty());
}

TEST(HighestClocks, AreNumberedFromZeroToTheCountWhateverNumbersTheEntriesHave)
{
    FakeMachine machine;
    machine.cpu(0, 0, 0).cpu(2, 0, 2).cpu(5, 0, 5).max_freq(0, "1000000").max_freq(2, "2000000").max_freq(5, "5000000");
    EXPECT_THAT(SystemMetrics().get_max_frequencies(), ElementsAre(1000.0, 0.0, 2000.0));
}

TEST(HighestClocks, TakeThe64BitsOfTheNumber)
{
    FakeMachine machine;
    machine.cpus(2).max_freqs({5000000000, 18446744073709551615U});
    EXPECT_THAT(SystemMetrics().get_max_frequencies(), ElementsAre(5000000.0, 18446744073709551.615));
}

TEST(HighestClocks, AreReadAtConstructionAndNeverAgain)
{
    FakeMachine machine;
    machine.cpus(2).max_freqs({5000000, 4000000});
    lay_clocks(machine, {"1000000", "1000000"});
    SystemMetrics metrics;
    machine.max_freqs({1000000, 1000000});
    OpenLog log({FakeMachine::max_freq_path(0), FakeMachine::max_freq_path(1)});
    metrics.sample();
    metrics.sample();
    EXPECT_THAT(log.opened(), IsEmpty());
    EXPECT_THAT(metrics.get_max_frequencies(), ElementsAre(5000.0, 4000.0));
}

TEST(HighestClocks, AreReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    FakeMachine machine;
    machine.cpus(3).max_freq(0, "5000001\n").max_freq(1, "5.000.001\n").max_freq(2, " 4000000,5");
    EXPECT_THAT(SystemMetrics().get_max_frequencies(), ElementsAre(5000.001, 0.005, 4000.0));
}

}  // namespace
