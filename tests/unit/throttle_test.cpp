/// When the CPU counts as slowed down for its temperature: by the kernel's event counters, or else by the temperature.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "sensor_machine.h"
#include "system_metrics.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Sets the throttle events of CPUs 0, 1, 2...
void set_counts(FakeMachine& machine, const std::vector<std::int64_t>& counts)
{
    for (std::size_t i = 0; i < counts.size(); ++i) {
        machine.file(throttle_path(static_cast<int>(i)), std::to_string(counts[i]) + "\n");
    }
}

/// The verdict of one more pass.
bool pass(SystemMetrics& metrics)
{
    metrics.sample();
    return metrics.is_thermal_throttling();
}

/// The verdict of a machine without counters at that temperature.
bool throttling_at(double temperature, double limit)
{
    FakeMachine machine;
    SystemMetrics metrics;
    metrics.m_temp_limit = limit;
    return metrics.decide_throttling(temperature);
}

// --- the sum ---

TEST(ThrottleCount, IsTheSumOfAllLogicalCpus)
{
    FakeMachine machine;
    machine.cpus(4);
    set_counts(machine, {1, 20, 300, 4000});
    EXPECT_EQ(4321, SystemMetrics().read_throttle_count());
}

TEST(ThrottleCount, EndsAtTheNumberOfCpus)
{
    FakeMachine machine;
    machine.cpus(3);
    set_counts(machine, {1, 20, 300});
    SystemMetrics metrics;
    metrics.m_core_count = 2;
    EXPECT_EQ(21, metrics.read_throttle_count());
    metrics.m_core_count = 0;
    EXPECT_EQ(0, metrics.read_throttle_count()) << "no CPU";
}

TEST(ThrottleCount, IsMinusOneWithoutACounterAndNoFileIsTouched)
{
    FakeMachine machine;
    machine.cpus(2);
    SystemMetrics metrics;
    set_counts(machine, {1, 20});
    OpenLog log({throttle_path(0), throttle_path(1)});
    EXPECT_FALSE(metrics.m_has_throttle_counter);
    EXPECT_EQ(-1, metrics.m_prev_throttle_count);
    EXPECT_EQ(-1, metrics.read_throttle_count());
    pass(metrics);
    EXPECT_THAT(log.opened(), IsEmpty()) << "one that shows up later is never seen";
}

TEST(ThrottleCount, OnlyTheFirstCpusFileTellsWhetherThereAreCounters)
{
    FakeMachine machine;
    machine.cpus(2).file(throttle_path(1), "5\n");
    EXPECT_FALSE(SystemMetrics().m_has_throttle_counter);
    machine.directory(throttle_path(0));
    EXPECT_TRUE(SystemMetrics().m_has_throttle_counter) << "whatever stands there";
    EXPECT_EQ(5, SystemMetrics().m_prev_throttle_count);
    machine.link(throttle_path(0), "/sys/gone");
    EXPECT_FALSE(SystemMetrics().m_has_throttle_counter) << "a link to nowhere";
}

TEST(ThrottleCount, AFileThatGivesNoNumberAddsNothing)
{
    FakeMachine machine;
    machine.cpus(3);
    set_counts(machine, {1, 20, 300});
    const SystemMetrics metrics;
    for_each_failure(machine, throttle_path(1), "20\n",
                     [&](const std::string& fault) { EXPECT_EQ(301, metrics.read_throttle_count()) << fault; });
    set_counts(machine, {1, 20, 300});
    for_each_failure(machine, throttle_path(0), "1\n",
                     [&](const std::string& fault) { EXPECT_EQ(320, metrics.read_throttle_count()) << fault; });
}

TEST(ThrottleCount, Takes64BitsWithASign)
{
    FakeMachine machine;
    machine.cpus(3);
    set_counts(machine, {5000000000, -3, 7000000000});
    EXPECT_EQ(11999999997, SystemMetrics().read_throttle_count());
    machine.file(throttle_path(0), "9223372036854775808\n");
    EXPECT_EQ(6999999997, SystemMetrics().read_throttle_count()) << "too large a number adds nothing";
}

TEST(ThrottleCount, ASumBeyondItsTypeDoesNoHarm)
{
    FakeMachine machine;
    machine.cpus(2);
    set_counts(machine, {std::numeric_limits<std::int64_t>::max(), 1});
    SystemMetrics metrics;
    EXPECT_FALSE(pass(metrics));
}

TEST(ThrottleCount, WhiteSpaceInFrontAndAMissingNewlineDoNoHarm)
{
    FakeMachine machine;
    machine.cpus(2).file(throttle_path(0), "4").file(throttle_path(1), " \t\n30 events\n");
    EXPECT_EQ(34, SystemMetrics().read_throttle_count());
}

TEST(ThrottleCount, IsReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    FakeMachine machine;
    machine.cpus(3).file(throttle_path(0), "4000\n").file(throttle_path(1), "1.000\n").file(throttle_path(2), "2,5\n");
    EXPECT_EQ(4003, SystemMetrics().read_throttle_count());
}

TEST(ThrottleCount, AnErrorOfTheProbeLeavesTheConstructorOnPurpose)
{
    FakeMachine machine;
    machine.cpus(1).loop(throttle_path(0));
    EXPECT_THROW(SystemMetrics(), std::filesystem::filesystem_error) << "a link to itself";
    machine.file(throttle_path(0), "1\n");
    std::filesystem::permissions(cpu_path(0, "thermal_throttle"), std::filesystem::perms::none);
    const WithoutPrivileges ordinary;
    EXPECT_THROW(SystemMetrics(), std::filesystem::filesystem_error) << "no rights in the folder";
}

// --- the verdict by events ---

TEST(ThrottlingByEvents, ANewEventRaisesTheFlagForOnePassOnly)
{
    FakeMachine machine;
    machine.cpus(2);
    set_counts(machine, {10, 10});
    SystemMetrics metrics;
    EXPECT_FALSE(metrics.is_thermal_throttling()) << "before the first pass";
    EXPECT_FALSE(pass(metrics)) << "no event yet";
    set_counts(machine, {10, 11});
    EXPECT_TRUE(pass(metrics));
    EXPECT_FALSE(pass(metrics));
    set_counts(machine, {12, 11});
    EXPECT_TRUE(pass(metrics));
    set_counts(machine, {12, 12});
    EXPECT_TRUE(pass(metrics)) << "one event after the other";
    EXPECT_FALSE(pass(metrics));
}

TEST(ThrottlingByEvents, OneBetweenConstructionAndTheFirstPassCounts)
{
    FakeMachine machine;
    machine.cpus(1);
    set_counts(machine, {0});
    SystemMetrics metrics;
    EXPECT_EQ(0, metrics.m_prev_throttle_count);
    set_counts(machine, {1});
    EXPECT_TRUE(pass(metrics));
}

TEST(ThrottlingByEvents, ASumThatShrinksLowersTheBaselineAndTheNextGrowthIsMeasuredFromThere)
{
    FakeMachine machine;
    machine.cpus(2);
    set_counts(machine, {10, 100});
    SystemMetrics metrics;
    machine.remove(throttle_path(1));
    EXPECT_FALSE(pass(metrics));
    EXPECT_EQ(10, metrics.m_prev_throttle_count);
    set_counts(machine, {11});
    EXPECT_TRUE(pass(metrics));
    set_counts(machine, {11, 100});
    EXPECT_TRUE(pass(metrics)) << "a CPU that comes back with its count is growth like any other";
    EXPECT_FALSE(pass(metrics));
}

TEST(ThrottlingByEvents, GrowthOfOneCpuThatAnothersShrinkingOutweighsIsNone)
{
    FakeMachine machine;
    machine.cpus(2);
    set_counts(machine, {10, 10});
    SystemMetrics metrics;
    set_counts(machine, {11, 9});
    EXPECT_FALSE(pass(metrics));
}

TEST(ThrottlingByEvents, WithAllFilesUnreadableTheFlagNeverRisesAndTheTemperatureIsNoReplacement)
{
    FakeMachine machine;
    machine.cpus(2);
    lay_zone(machine, 0, "x86_pkg_temp", "120000");
    machine.directory(throttle_path(0)).directory(throttle_path(1));
    SystemMetrics metrics;
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(pass(metrics));
        EXPECT_EQ(0, metrics.m_prev_throttle_count);
    }
    EXPECT_EQ(120.0, metrics.get_temperature());
    machine.remove(throttle_path(0)).remove(throttle_path(1));
    EXPECT_FALSE(pass(metrics)) << "gone";
}

TEST(ThrottlingByEvents, TheTemperaturePlaysNoPart)
{
    FakeMachine machine;
    machine.cpus(1);
    set_counts(machine, {5});
    lay_zone(machine, 0, "x86_pkg_temp", "129000");
    SystemMetrics metrics;
    EXPECT_FALSE(pass(metrics)) << "however high";
    machine.file(zone_path(0, "temp"), "20000\n");
    set_counts(machine, {6});
    EXPECT_TRUE(pass(metrics)) << "however low";
    machine.remove(zone_path(0, "temp"));
    set_counts(machine, {7});
    EXPECT_TRUE(pass(metrics)) << "or unknown";
}

TEST(ThrottlingByEvents, WithoutABaselineThereIsNoVerdictButABaselineNext)
{
    FakeMachine machine;
    machine.cpus(1);
    set_counts(machine, {5});
    SystemMetrics metrics;
    metrics.m_prev_throttle_count = -1;
    EXPECT_FALSE(pass(metrics));
    EXPECT_EQ(5, metrics.m_prev_throttle_count);
    set_counts(machine, {6});
    EXPECT_TRUE(pass(metrics));
}

TEST(ThrottlingByEvents, ABaselineOfZeroIsOne)
{
    FakeMachine machine;
    machine.cpus(1);
    set_counts(machine, {0});
    SystemMetrics metrics;
    EXPECT_FALSE(pass(metrics));
    set_counts(machine, {1});
    EXPECT_TRUE(pass(metrics));
}

TEST(ThrottlingByEvents, OnePassOpensEachFileOnce)
{
    FakeMachine machine;
    machine.cpus(2);
    set_counts(machine, {1, 1});
    SystemMetrics metrics;
    OpenLog log({throttle_path(0), throttle_path(1)});
    pass(metrics);
    EXPECT_THAT(log.opened(), ElementsAre(throttle_path(0), throttle_path(1)));
}

// --- the verdict by temperature ---

TEST(ThrottlingByTemperature, BeginsThreeDegreesBelowTheLimitThatOneIncluded)
{
    EXPECT_TRUE(throttling_at(97.0, 100.0));
    EXPECT_FALSE(throttling_at(96.999, 100.0));
    EXPECT_TRUE(throttling_at(100.0, 100.0));
    EXPECT_TRUE(throttling_at(150.0, 100.0));
}

TEST(ThrottlingByTemperature, BeginsAtExactly92DegreesWithTheDefaultLimit)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp", "92000");
    SystemMetrics metrics;
    EXPECT_TRUE(pass(metrics));
    machine.file(zone_path(0, "temp"), "91999\n");
    EXPECT_FALSE(pass(metrics));
}

TEST(ThrottlingByTemperature, FollowsTheLimitOfTheMachine)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp", "77000");
    machine.file(chip_path(0, "temp1_max"), "80000\n");
    SystemMetrics metrics;
    EXPECT_TRUE(pass(metrics));
    machine.file(chip_path(0, "temp1_input"), "76999\n");
    EXPECT_FALSE(pass(metrics));
}

TEST(ThrottlingByTemperature, StaysUpAsLongAsItIsHotAndFallsAtOnce)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp", "95000");
    SystemMetrics metrics;
    EXPECT_TRUE(pass(metrics));
    EXPECT_TRUE(pass(metrics));
    machine.file(zone_path(0, "temp"), "91999\n");
    EXPECT_FALSE(pass(metrics)) << "no hysteresis";
    machine.file(zone_path(0, "temp"), "92000\n");
    EXPECT_TRUE(pass(metrics));
}

TEST(ThrottlingByTemperature, WithoutAReadingTheFlagStaysDown)
{
    EXPECT_FALSE(throttling_at(-1.0, 95.0));
    EXPECT_FALSE(throttling_at(-1.0, 1.0)) << "though that is less than three below the limit";
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp", "95000");
    SystemMetrics metrics;
    EXPECT_TRUE(pass(metrics));
    machine.remove(zone_path(0, "temp"));
    EXPECT_FALSE(pass(metrics));
}

TEST(ThrottlingByTemperature, ANegativeTemperatureNeverCountsButZeroDoes)
{
    EXPECT_FALSE(throttling_at(-0.001, 2.0));
    EXPECT_TRUE(throttling_at(0.0, 2.0));
}

TEST(ThrottlingByTemperature, NeedsALimitAboveZero)
{
    EXPECT_FALSE(throttling_at(100.0, -1.0));
    EXPECT_FALSE(throttling_at(100.0, 0.0));
    EXPECT_TRUE(throttling_at(100.0, 0.001));
}

TEST(ThrottlingByTemperature, IsDecidedByThePassAndNotByTheGetter)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp", "95000");
    SystemMetrics metrics;
    EXPECT_FALSE(metrics.is_thermal_throttling());
    pass(metrics);
    machine.file(zone_path(0, "temp"), "20000\n");
    EXPECT_TRUE(metrics.is_thermal_throttling());
}

}  // namespace
