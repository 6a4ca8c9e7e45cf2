/// Used and total memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sensor_machine.h"
#include "system_metrics.h"

using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr double KB = 1.0 / 1024 / 1024;  // GiB

/// Used and total GiB that are read on the machine as it stands.
std::pair<double, double> read_memory(const SystemMetrics& metrics)
{
    std::pair<double, double> used_total = {12345.0, 12345.0};
    metrics.read_memory(used_total.first, used_total.second);
    return used_total;
}

/// Used and total kB of a machine whose kernel reports this.
std::pair<double, double> memory(const std::string& meminfo)
{
    FakeMachine machine;
    machine.file(MEMINFO, meminfo);
    const auto [used, total] = read_memory(SystemMetrics());
    return total == -1.0 ? std::pair(used, total) : std::pair(used / KB, total / KB);
}

const auto NO_READING = Pair(-1.0, -1.0);

TEST(Memory, UsedIsWhatIsNotAvailable)
{
    EXPECT_THAT(
        memory("MemTotal:       16000000 kB\nMemFree:         1000000 kB\nMemAvailable:    9000000 kB\nBuffers:          500000 kB\n"
               "Cached:          4000000 kB\n"),
        Pair(7000000.0, 16000000.0));
}

TEST(Memory, IsInUnitsOf1024CubedBytes)
{
    FakeMachine machine;
    machine.file(MEMINFO, "MemTotal: 16777216 kB\nMemAvailable: 4194305 kB\n");
    const auto [used, total] = read_memory(SystemMetrics());
    EXPECT_EQ(16.0, total);
    EXPECT_EQ(12.0 - KB, used);
}

TEST(Memory, KeysMayComeInAnyOrder)
{
    EXPECT_THAT(memory("MemAvailable: 3 kB\nMemFree: 1 kB\nMemTotal: 10 kB\n"), Pair(7.0, 10.0));
}

TEST(Memory, WithoutTotalThereIsNoReadingWhateverElseThereIs)
{
    EXPECT_THAT(memory("MemFree: 1 kB\nMemAvailable: 3 kB\nSwapTotal: 9 kB\n"), NO_READING);
    EXPECT_THAT(memory(""), NO_READING);
    EXPECT_THAT(memory("\n\n"), NO_READING);
}

TEST(Memory, ATotalOfZeroIsNoReading)
{
    EXPECT_THAT(memory("MemTotal: 0 kB\nMemAvailable: 3 kB\n"), NO_READING);
    EXPECT_THAT(memory("MemTotal: 0 kB\nMemFree: 3 kB\n"), NO_READING);
}

TEST(Memory, WithoutAvailableTheFreeOneTakesItsPlace)
{
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemFree: 4 kB\nCached: 3 kB\n"), Pair(6.0, 10.0));
    EXPECT_THAT(memory("MemFree: 4 kB\nMemTotal: 10 kB\n"), Pair(6.0, 10.0)) << "in front of the total too";
}

TEST(Memory, WithNeitherAvailableNorFreeAllIsUsed)
{
    EXPECT_THAT(memory("MemTotal: 10 kB\nCached: 3 kB\n"), Pair(10.0, 10.0));
}

TEST(Memory, AnAvailableOfZeroCountsAndTheFreeOneIsNotAsked)
{
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemAvailable: 0 kB\nMemFree: 4 kB\n"), Pair(10.0, 10.0));
}

TEST(Memory, MoreAvailableThanThereIsMeansNothingUsed)
{
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemAvailable: 11 kB\n"), Pair(0.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemAvailable: 18446744073709551615 kB\n"), Pair(0.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemFree: 11 kB\n"), Pair(0.0, 10.0)) << "likewise for the free one";
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemAvailable: 10 kB\n"), Pair(0.0, 10.0));
}

TEST(Memory, ALineWithoutANumberIsSkippedAndTheSearchForItsKeyGoesOn)
{
    EXPECT_THAT(memory("MemTotal:\nMemTotal: N/A\nMemTotal: 10 kB\nMemAvailable: kB\nMemAvailable: 3 kB\n"), Pair(7.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemFree:\nMemFree: x\nMemFree: 4 kB\n"), Pair(6.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemAvailable: kB\nMemFree: 4 kB\n"), Pair(6.0, 10.0));
    EXPECT_THAT(memory("MemTotal:\n10 kB\nMemAvailable: 3 kB\n"), NO_READING) << "the number must stand in the same line";
}

TEST(Memory, ALineWhoseNumberIsTooLargeIsSkipped)
{
    EXPECT_THAT(memory("MemTotal: 18446744073709551616 kB\nMemTotal: 10 kB\nMemAvailable: 99999999999999999999 kB\nMemAvailable: 3 kB\n"),
                Pair(7.0, 10.0));
}

TEST(Memory, ANegativeNumberNeverMakesTheUsedOneNegativeOrMoreThanAll)
{
    for (const char* key : {"MemAvailable", "MemFree"}) {
        const auto [used, total] = memory(std::string("MemTotal: 10 kB\n") + key + ": -3 kB\n");
        EXPECT_EQ(10.0, total);
        EXPECT_GE(used, 0.0) << key;
        EXPECT_LE(used, 10.0) << key;
    }
}

TEST(Memory, OfAKeyThatComesTwiceTheLastCountsUntilBothAreKnown)
{
    EXPECT_THAT(memory("MemTotal: 99 kB\nMemTotal: 10 kB\nMemAvailable: 3 kB\n"), Pair(7.0, 10.0));
    EXPECT_THAT(memory("MemAvailable: 9 kB\nMemAvailable: 3 kB\nMemTotal: 10 kB\n"), Pair(7.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 0 kB\nMemTotal: 10 kB\nMemAvailable: 3 kB\n"), Pair(7.0, 10.0)) << "a zero does not stop the search";
}

TEST(Memory, ReadingStopsAtTheLineWhereBothAreKnown)
{
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemAvailable: 3 kB\nMemTotal: 99 kB\nMemAvailable: 9 kB\n"), Pair(7.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 0 kB\nMemAvailable: 3 kB\nMemTotal: 10 kB\n"), NO_READING) << "though that total is none";
}

TEST(Memory, OfSeveralFreeOnesTheFirstCounts)
{
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemFree: 4 kB\nMemFree: 9 kB\n"), Pair(6.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemFree: 0 kB\nMemFree: 9 kB\n"), Pair(10.0, 10.0)) << "a zero is a first one too";
}

TEST(Memory, KeysMustBeExact)
{
    EXPECT_THAT(memory("MemTotal 1 kB\nmemtotal: 2 kB\nXMemTotal: 3 kB\nMemTotalX: 4 kB\nMemTotal:5 kB\nMemTotal : 6 kB\n"), NO_READING);
    EXPECT_THAT(memory("MemTotal: 10 kB\nMemAvailable 9 kB\nMemFree:9 kB\nMEMFREE: 9 kB\n"), Pair(10.0, 10.0));
}

TEST(Memory, BlanksTabsUnitsAndAMissingNewlineDoNoHarm)
{
    EXPECT_THAT(memory("  MemTotal:\t10\n\t MemAvailable: \t 3"), Pair(7.0, 10.0));
    EXPECT_THAT(memory("MemTotal: 10 MB or so\r\nMemAvailable: 3kB\r\n"), Pair(7.0, 10.0)) << "the unit is not looked at";
}

TEST(Memory, OddLinesInBetweenDoNoHarm)
{
    EXPECT_THAT(memory("\n:\n   \n" + std::string(100000, 'x') + "\n" + std::string("a\0b 5\n", 6) +
                       "MemTotal: 10 kB\nPages\nMemAvailable: 3 kB\n"),
                Pair(7.0, 10.0));
}

TEST(Memory, AFileThatCannotBeReadIsNoReadingAndTheNextGoodOneIsOne)
{
    FakeMachine machine;
    const SystemMetrics metrics;
    for_each_failure(machine, MEMINFO, "MemTotal: 10 kB\nMemAvailable: 3 kB\n",
                     [&](const std::string& fault) { EXPECT_THAT(read_memory(metrics), NO_READING) << fault; });
    machine.file(MEMINFO, "MemTotal: 10 kB\nMemAvailable: 3 kB\n");
    EXPECT_THAT(read_memory(metrics), Pair(7.0 * KB, 10.0 * KB));
}

TEST(Memory, TheFileIsOpenedAgainOnlyForTheFreeOne)
{
    FakeMachine machine;
    machine.file(MEMINFO, "MemTotal: 10 kB\nMemFree: 1 kB\nMemAvailable: 3 kB\n");
    const SystemMetrics metrics;
    const auto times_opened = [&](const std::string& text) {
        machine.file(MEMINFO, text);
        OpenLog log({MEMINFO});
        read_memory(metrics);
        return log.times_opened(MEMINFO);
    };
    EXPECT_EQ(1, times_opened("MemTotal: 10 kB\nMemFree: 1 kB\nMemAvailable: 3 kB\n"));
    EXPECT_EQ(2, times_opened("MemTotal: 10 kB\nMemFree: 1 kB\n"));
    EXPECT_EQ(1, times_opened("MemFree: 1 kB\n"));
    EXPECT_EQ(1, times_opened("MemTotal: 0 kB\nMemFree: 1 kB\n"));
}

TEST(Memory, TheFreeOneIsThatOfTheSecondOpening)
{
    FakeMachine machine;
    const SystemMetrics metrics;
    for (const auto& [second, used] : std::vector<std::pair<std::string, double>>{
             {"MemFree: 4 kB\n", 6.0}, {"MemTotal: 99 kB\nMemAvailable: 9 kB\n", 10.0}, {"", 10.0}}) {
        std::pair<double, double> result;
        HangingTask task(machine, {MEMINFO}, [&] { result = read_memory(metrics); });
        ASSERT_TRUE(task.give(MEMINFO, "MemTotal: 10 kB\nMemFree: 1 kB\n"));
        ASSERT_TRUE(task.give(MEMINFO, second));
        ASSERT_TRUE(task.ends());
        EXPECT_THAT(result, Pair(used * KB, 10.0 * KB)) << second;
    }
}

TEST(Memory, IsKnownBeforeTheFirstPass)
{
    FakeMachine machine;
    machine.file(MEMINFO, "MemTotal: 10 kB\nMemAvailable: 3 kB\n");
    const SystemMetrics metrics;
    EXPECT_EQ(7.0 * KB, metrics.get_memory_used_gb());
    EXPECT_EQ(10.0 * KB, metrics.get_memory_total_gb());
}

TEST(Memory, APassPublishesItAndOneWithoutAReadingDoesNotKeepTheLast)
{
    FakeMachine machine;
    machine.file(MEMINFO, "MemTotal: 10 kB\nMemAvailable: 3 kB\n");
    SystemMetrics metrics;
    machine.file(MEMINFO, "MemTotal: 20 kB\nMemAvailable: 5 kB\n");
    EXPECT_EQ(7.0 * KB, metrics.get_memory_used_gb()) << "a getter reads no file";
    metrics.sample();
    EXPECT_EQ(15.0 * KB, metrics.get_memory_used_gb());
    EXPECT_EQ(20.0 * KB, metrics.get_memory_total_gb());
    machine.remove(MEMINFO);
    metrics.sample();
    EXPECT_EQ(-1.0, metrics.get_memory_used_gb());
    EXPECT_EQ(-1.0, metrics.get_memory_total_gb());
    machine.file(MEMINFO, "MemTotal: 30 kB\nMemAvailable: 5 kB\n");
    metrics.sample();
    EXPECT_EQ(25.0 * KB, metrics.get_memory_used_gb());
    EXPECT_EQ(30.0 * KB, metrics.get_memory_total_gb());
}

TEST(Memory, IsReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    EXPECT_THAT(memory("MemTotal: 16000000 kB\nMemAvailable: 9000000 kB\n"), Pair(7000000.0, 16000000.0));
    EXPECT_THAT(memory("MemTotal: 16.000.000 kB\nMemAvailable: 9,5 kB\n"), Pair(7.0, 16.0)) << "a point ends the number there too";
    EXPECT_THAT(memory("MemTotal: 16.000.000 kB\nMemFree: 9.000.000 kB\n"), Pair(7.0, 16.0));
}

}  // namespace
