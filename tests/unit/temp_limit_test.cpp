/// How the temperature limit is found: beside the temperature input, among the trip points of the zones, or by default.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "sensor_machine.h"
#include "system_metrics.h"

using testing::IsEmpty;

namespace {

constexpr double DEFAULT_LIMIT = 95.0;

double limit()
{
    return SystemMetrics().get_temp_limit();
}

/// The limit of a machine whose chip has this text in temp1_max, and 77 degrees in temp1_crit.
double limit_with_max(const std::string& max)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp");
    machine.file(chip_path(0, "temp1_max"), max).file(chip_path(0, "temp1_crit"), "77000\n");
    return limit();
}

/// The limit of a machine whose first trip point has this text, and whose second one has 77 degrees.
double limit_with_trip(const std::string& millidegrees)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "passive", millidegrees);
    lay_trip(machine, 0, 1, "passive", "77000");
    return limit();
}

/// The limit that is found for a temperature input at this path on the machine as it stands.
double limit_for_input(const std::string& temp_path)
{
    SystemMetrics metrics;
    metrics.m_temp_path = temp_path;
    metrics.detect_temp_limit();
    return metrics.m_temp_limit;
}

// --- which values are believed ---

TEST(TempLimit, BothBoundsOfABelievableValueAreExclusive)
{
    for (const auto& limit_with : {limit_with_max, limit_with_trip}) {
        EXPECT_EQ(77.0, limit_with("40000"));
        EXPECT_EQ(40.001, limit_with("40001"));
        EXPECT_EQ(129.999, limit_with("129999"));
        EXPECT_EQ(77.0, limit_with("130000"));
        EXPECT_EQ(77.0, limit_with("130001"));
        EXPECT_EQ(77.0, limit_with("39999"));
    }
}

TEST(TempLimit, AValueOutsideTheBoundsIsSkippedNotClamped)
{
    for (const auto& limit_with : {limit_with_max, limit_with_trip}) {
        EXPECT_EQ(77.0, limit_with("25000"));
        EXPECT_EQ(77.0, limit_with("200000"));
        EXPECT_EQ(77.0, limit_with("0"));
        EXPECT_EQ(77.0, limit_with("-100000"));
        EXPECT_EQ(77.0, limit_with("9223372036854775807"));
        EXPECT_EQ(77.0, limit_with("-9223372036854775808"));
    }
}

TEST(TempLimit, AValueIsReadWithAll64Bits)
{
    EXPECT_EQ(77.0, limit_with_max("4295057296")) << "90000 more than 32 bits can tell";
    EXPECT_EQ(77.0, limit_with_trip("4295057296"));
}

TEST(TempLimit, WhiteSpaceInFrontAndAMissingNewlineDoNoHarm)
{
    EXPECT_EQ(100.0, limit_with_max("100000"));
    EXPECT_EQ(100.0, limit_with_max(" \n\t100000 mC\n50000\n"));
}

TEST(TempLimit, IsReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    for (const auto& limit_with : {limit_with_max, limit_with_trip}) {
        EXPECT_EQ(99.5, limit_with("99500"));
        EXPECT_EQ(77.0, limit_with("99.500")) << "99 thousandths";
        EXPECT_EQ(50.0, limit_with("50000,9"));
    }
}

// --- beside the temperature input ---

TEST(TempLimitBeside, MaxGoesBeforeCrit)
{
    EXPECT_EQ(100.0, limit_with_max("100000\n"));
    EXPECT_EQ(60.0, limit_with_max("60000\n")) << "though crit is higher";
}

TEST(TempLimitBeside, AMaxOfZeroLeadsToCrit)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp");
    machine.file(chip_path(0, "temp1_max"), "0\n").file(chip_path(0, "temp1_crit"), "100000\n");
    EXPECT_EQ(100.0, limit());
}

TEST(TempLimitBeside, AMaxThatGivesNoNumberLeadsToCrit)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp");
    machine.file(chip_path(0, "temp1_crit"), "104000\n");
    for_each_failure(machine, chip_path(0, "temp1_max"), "80000\n", [](const std::string& fault) { EXPECT_EQ(104.0, limit()) << fault; });
}

TEST(TempLimitBeside, ACritThatGivesNoNumberLeadsToTheTrips)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp");
    lay_trip(machine, 0, 0, "passive", "88000");
    for_each_failure(machine, chip_path(0, "temp1_crit"), "104000\n", [](const std::string& fault) { EXPECT_EQ(88.0, limit()) << fault; });
}

TEST(TempLimitBeside, GoesBeforeTheTrips)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp");
    lay_trip(machine, 0, 0, "passive", "88000");
    machine.file(chip_path(0, "temp1_crit"), "110000\n");
    OpenLog log({THERMAL, zone_path(0, "trip_point_0_type")});
    EXPECT_EQ(110.0, limit());
    EXPECT_EQ(0, log.times_opened(zone_path(0, "trip_point_0_type")));
}

TEST(TempLimitBeside, IsThatOfTheChosenInputAndNoOther)
{
    FakeMachine machine;
    machine.file(chip_path(0, "name"), "k10temp\n").file(chip_path(0, "temp2_input"), "47000\n");
    machine.file(chip_path(0, "temp1_max"), "70000\n").file(chip_path(0, "temp2_crit"), "80000\n");
    EXPECT_EQ(80.0, limit());
}

TEST(TempLimitBeside, AZonesOwnFilesAreTriedToo)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp");
    machine.file(zone_path(0, "temp_crit"), "105000\n");
    EXPECT_EQ(105.0, limit());
    machine.file(zone_path(0, "temp_max"), "85000\n");
    EXPECT_EQ(85.0, limit());
}

TEST(TempLimitBeside, TheNameIsCutAtTheLastInputInIt)
{
    FakeMachine machine;
    machine.file("/sys/x/temp2_input_b_max", "61000\n").file("/sys/x/temp2_max", "62000\n");
    EXPECT_EQ(61.0, limit_for_input("/sys/x/temp2_input_b_input"));
    EXPECT_EQ(62.0, limit_for_input("/sys/x/temp2_input_old")) << "whatever stands behind it goes too";
    machine.file("/sys/x/temp2_label_max", "63000\n");
    EXPECT_EQ(63.0, limit_for_input("/sys/x/temp2_label")) << "the whole path if it has none";
}

TEST(TempLimitBeside, TheLastInputMayStandInTheFoldersName)
{
    FakeMachine machine;
    machine.file(THERMAL + "/a_input/type", "cpu\n").file(THERMAL + "/a_input/temp", "1\n");
    machine.file(THERMAL + "/a_input/temp_max", "61000\n").file(THERMAL + "/a_max", "62000\n");
    EXPECT_EQ(62.0, limit());
}

TEST(TempLimitBeside, WithoutATemperatureInputNothingIsTriedThere)
{
    FakeMachine machine;
    const TemporaryFolder folder;
    write_text(folder.path() + "/_max", "61000\n");
    write_text(folder.path() + "/_crit", "61000\n");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    EXPECT_EQ(DEFAULT_LIMIT, limit());
    std::filesystem::current_path(before);
}

TEST(TempLimitBeside, ThatOfAnInputThatDoesNotAnswerCountsAllTheSame)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp", "N/A");
    machine.file(chip_path(0, "temp1_max"), "84000\n");
    EXPECT_EQ(84.0, limit());
}

// --- trip points ---

TEST(TripPoint, ACriticalOneNeverCountsThoughItComesFirst)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "critical", "105000");
    EXPECT_EQ(DEFAULT_LIMIT, limit());
    lay_trip(machine, 0, 1, "passive", "90000");
    EXPECT_EQ(90.0, limit());
}

TEST(TripPoint, PassiveAndHotRankEquallyAndTheLowerNumberWins)
{
    FakeMachine machine;
    lay_trip(machine, 0, 3, "hot", "81000");
    lay_trip(machine, 0, 7, "passive", "82000");
    EXPECT_EQ(81.0, limit());
    lay_trip(machine, 0, 2, "passive", "83000");
    EXPECT_EQ(83.0, limit());
}

TEST(TripPoint, NumbersCountAsNumbers)
{
    FakeMachine machine;
    lay_trip(machine, 0, 10, "passive", "90000");
    lay_trip(machine, 0, 2, "passive", "70000");
    EXPECT_EQ(70.0, limit());
}

TEST(TripPoint, NoOtherTypeCounts)
{
    FakeMachine machine;
    for (const char* type : {"active", "critical", "Passive", "HOT", "passive ", " hot", "passive0", "", "active\npassive"}) {
        lay_trip(machine, 0, 0, type, "90000");
        EXPECT_EQ(DEFAULT_LIMIT, limit()) << type;
    }
}

TEST(TripPoint, ItsTypeNeedsNoNewline)
{
    FakeMachine machine;
    machine.file(zone_path(0, "trip_point_0_type"), "hot").file(zone_path(0, "trip_point_0_temp"), "90000");
    EXPECT_EQ(90.0, limit());
}

TEST(TripPoint, AGapInTheNumberingEndsNothing)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "active", "50000");
    lay_trip(machine, 0, 15, "hot", "97000");
    EXPECT_EQ(97.0, limit()) << "number 15 is the last";
}

TEST(TripPoint, NumbersFrom16UpAreNeverLookedAt)
{
    FakeMachine machine;
    for (const int trip : {16, 17, 20, 100}) {
        lay_trip(machine, 0, trip, "passive", "90000");
    }
    machine.file(zone_path(0, "trip_point_00_type"), "hot\n").file(zone_path(0, "trip_point_00_temp"), "90000\n");
    EXPECT_EQ(DEFAULT_LIMIT, limit());
}

TEST(TripPoint, OneOfZeroDegreesIsSkipped)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "passive", "0");
    lay_trip(machine, 0, 1, "hot", "90000");
    EXPECT_EQ(90.0, limit());
}

TEST(TripPoint, OneWhoseTemperatureGivesNoNumberIsSkipped)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "passive", "0");
    lay_trip(machine, 0, 1, "passive", "87000");
    for_each_failure(machine, zone_path(0, "trip_point_0_temp"), "90000\n",
                     [](const std::string& fault) { EXPECT_EQ(87.0, limit()) << fault; });
}

TEST(TripPoint, OneWhoseTypeCannotBeReadIsSkipped)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "", "90000");
    lay_trip(machine, 0, 1, "passive", "87000");
    machine.directory(zone_path(0, "trip_point_0_type"));
    EXPECT_EQ(87.0, limit()) << "a folder in its place";
    machine.failing(zone_path(0, "trip_point_0_type"));
    EXPECT_EQ(87.0, limit()) << "opens, but can't be read";
    machine.link(zone_path(0, "trip_point_0_type"), "/sys/gone");
    EXPECT_EQ(87.0, limit()) << "a link to nowhere";
    machine.unreadable(zone_path(0, "trip_point_0_type"), "hot\n");
    const WithoutPrivileges ordinary;
    EXPECT_EQ(87.0, limit()) << "no rights";
}

TEST(TripPoint, ZonesComeInDirectoryOrder)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    for (std::size_t i = 1; i < zones.size(); ++i) {
        machine.file(zones[i] + "/trip_point_0_type", "passive\n");
        machine.file(zones[i] + "/trip_point_0_temp", std::to_string(80 + i) + "000\n");
    }
    EXPECT_EQ(81.0, limit());
    machine.file(zones[0] + "/trip_point_15_type", "hot\n").file(zones[0] + "/trip_point_15_temp", "99000\n");
    EXPECT_EQ(99.0, limit()) << "the last trip of the first zone goes before the first of the next";
}

TEST(TripPoint, OfAnyZoneCountsNotOnlyOfTheTemperaturesOwn)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    machine.file(zones[3] + "/type", "x86_pkg_temp\n").file(zones[3] + "/temp", "1\n");
    machine.file(zones[3] + "/trip_point_0_type", "passive\n").file(zones[3] + "/trip_point_0_temp", "100000\n");
    machine.file(zones[0] + "/type", "pch\n")
        .file(zones[0] + "/trip_point_4_type", "hot\n")
        .file(zones[0] + "/trip_point_4_temp", "71000\n");
    EXPECT_EQ(71.0, limit());
}

TEST(TripPoint, CountsOnlyInAFolderWhoseNameBeginsWithThermalZone)
{
    FakeMachine machine;
    for (const char* folder : {"cooling_device0", "Thermal_zone0", "xthermal_zone0", "thermal-zone0", "thermal_zon"}) {
        machine.file(THERMAL + "/" + folder + "/trip_point_0_type", "passive\n");
        machine.file(THERMAL + "/" + folder + "/trip_point_0_temp", "90000\n");
    }
    EXPECT_EQ(DEFAULT_LIMIT, limit());
    machine.file(THERMAL + "/thermal_zone_b/trip_point_0_type", "passive\n");
    machine.file(THERMAL + "/thermal_zone_b/trip_point_0_temp", "91000\n");
    EXPECT_EQ(91.0, limit());
}

TEST(TripPoint, AnErrorOfAStatusQueryEndsTheSearchAndTheDefaultApplies)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    machine.loop(zones[0] + "/trip_point_0_type");
    machine.file(zones[0] + "/trip_point_1_type", "passive\n").file(zones[0] + "/trip_point_1_temp", "81000\n");
    machine.file(zones[1] + "/trip_point_0_type", "passive\n").file(zones[1] + "/trip_point_0_temp", "82000\n");
    EXPECT_EQ(DEFAULT_LIMIT, limit());
}

TEST(TripPoint, AnErrorBehindTheOneThatIsFoundIsNeverMet)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "passive", "81000");
    machine.loop(zone_path(0, "trip_point_1_type"));
    EXPECT_EQ(81.0, limit());
}

// --- default ---

TEST(TempLimit, Is95DegreesWhereNothingIsBelievable)
{
    FakeMachine machine;
    EXPECT_EQ(DEFAULT_LIMIT, limit()) << "no folder";
    lay_chip(machine, 0, "coretemp");
    lay_zone(machine, 0, "acpitz");
    EXPECT_EQ(DEFAULT_LIMIT, limit()) << "no limit in any file";
    machine.file(chip_path(0, "temp1_max"), "25000\n").file(chip_path(0, "temp1_crit"), "130000\n");
    lay_trip(machine, 0, 0, "passive", "0");
    EXPECT_EQ(DEFAULT_LIMIT, limit()) << "none that can be believed";
}

TEST(TempLimit, Is95DegreesWhereTheZonesCannotBeListed)
{
    FakeMachine machine;
    machine.file(THERMAL, "");
    EXPECT_EQ(DEFAULT_LIMIT, limit()) << "a file in place of the folder";
    machine.loop(THERMAL);
    EXPECT_EQ(DEFAULT_LIMIT, limit()) << "a link to itself";
    machine.remove(THERMAL);
    lay_trip(machine, 0, 0, "passive", "81000");
    EXPECT_EQ(81.0, limit());
    std::filesystem::permissions(THERMAL, std::filesystem::perms::none);
    const WithoutPrivileges ordinary;
    EXPECT_EQ(DEFAULT_LIMIT, limit()) << "no rights";
}

TEST(TempLimit, NoTemperatureSourceAtAllStillGivesTheTrips)
{
    FakeMachine machine;
    lay_trip(machine, 0, 0, "passive", "81000");
    const SystemMetrics metrics;
    EXPECT_FALSE(metrics.m_has_temp);
    EXPECT_EQ(81.0, metrics.get_temp_limit());
}

TEST(TempLimit, IsSettledAtConstructionAndNeverReadAgain)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp");
    lay_trip(machine, 0, 0, "passive", "81000");
    machine.file(chip_path(0, "temp1_max"), "85000\n");
    SystemMetrics metrics;
    machine.file(chip_path(0, "temp1_max"), "60000\n").file(zone_path(0, "trip_point_0_temp"), "60000\n");
    OpenLog log({chip_path(0, "temp1_max"), zone_path(0, "trip_point_0_type"), zone_path(0, "trip_point_0_temp"), THERMAL, HWMON});
    metrics.sample();
    metrics.sample();
    EXPECT_EQ(85.0, metrics.get_temp_limit());
    EXPECT_THAT(log.opened(), IsEmpty());
    machine.remove(THERMAL).remove(HWMON);
    metrics.sample();
    EXPECT_EQ(85.0, metrics.get_temp_limit()) << "it outlives its file";
}

}  // namespace
