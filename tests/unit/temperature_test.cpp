/// Which file is found to stand for the CPU's temperature, and what is read from it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "sensor_machine.h"
#include "system_metrics.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

namespace fs = std::filesystem;

/// The file that is chosen on the machine as it stands; empty if none is.
std::string chosen()
{
    const SystemMetrics metrics;
    EXPECT_EQ(!metrics.m_temp_path.empty(), metrics.m_has_temp);
    return metrics.m_temp_path;
}

/// What is read from a zone's temperature file with that text.
double reading(const std::string& text)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp");
    machine.file(zone_path(0, "temp"), text);
    return SystemMetrics().read_temperature();
}

// --- thermal zones ---

TEST(ThermalZone, IsTheCpusByItsType)
{
    FakeMachine machine;
    for (const char* type : {"x86_pkg_temp", "cpu-thermal", "cpu_thermal", "cpu", "soc_cpu0", "cpu0-thermal", "big-cpu", "acpu\t"}) {
        lay_zone(machine, 3, type);
        EXPECT_EQ(zone_path(3, "temp"), chosen()) << type;
    }
}

TEST(ThermalZone, IsNotTheCpusByAnyOtherType)
{
    FakeMachine machine;
    for (const char* type : {"acpitz", "CPU", "Cpu-thermal", "X86_PKG_TEMP", "x86_pkg_temp0", "x86_pkg_temp ", "x86_pkg", "coretemp",
                             "pch_skylake", "c-p-u", "cp", "", "acpitz\ncpu-thermal"}) {
        lay_zone(machine, 0, type);
        EXPECT_EQ("", chosen()) << type;
    }
}

TEST(ThermalZone, NeedsNoNewlineBehindItsType)
{
    FakeMachine machine;
    lay_zone(machine, 0, "");
    machine.file(zone_path(0, "type"), "x86_pkg_temp");
    EXPECT_EQ(zone_path(0, "temp"), chosen());
}

TEST(ThermalZone, MayHaveAnyName)
{
    FakeMachine machine;
    machine.file(THERMAL + "/cooling_device7/type", "cpu\n").file(THERMAL + "/cooling_device7/temp", "1\n");
    EXPECT_EQ(THERMAL + "/cooling_device7/temp", chosen());
}

TEST(ThermalZone, IsSkippedWithoutATemperatureFile)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    for (const std::string& zone : zones) {
        machine.file(zone + "/type", "cpu-thermal\n");
    }
    EXPECT_EQ("", chosen());
    machine.link(zones[0] + "/temp", "/sys/gone").file(zones.back() + "/temp", "1\n");
    EXPECT_EQ(zones.back() + "/temp", chosen());
}

TEST(ThermalZone, IsSkippedWithoutAType)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    for (const std::string& zone : zones) {
        machine.file(zone + "/temp", "1\n");
    }
    EXPECT_EQ("", chosen());
    machine.link(zones[0] + "/type", "/sys/gone").file(zones.back() + "/type", "cpu-thermal\n");
    EXPECT_EQ(zones.back() + "/temp", chosen());
}

TEST(ThermalZone, WithoutATemperatureFileIsNotEvenAskedForItsType)
{
    FakeMachine machine;
    machine.file(zone_path(0, "type"), "cpu-thermal\n");
    lay_zone(machine, 1, "acpitz");
    OpenLog log({zone_path(0, "type"), zone_path(1, "type")});
    EXPECT_EQ("", chosen());
    EXPECT_THAT(log.opened(), testing::Not(testing::Contains(zone_path(0, "type"))));
}

TEST(ThermalZone, TheFirstMatchInDirectoryOrderWins)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    machine.file(zones[0] + "/type", "acpitz\n").file(zones[0] + "/temp", "1\n");
    machine.file(zones[1] + "/type", "soc_cpu0\n").file(zones[1] + "/temp", "1\n");
    machine.file(zones[2] + "/type", "cpu-thermal\n").file(zones[2] + "/temp", "1\n");
    machine.file(zones[3] + "/type", "x86_pkg_temp\n").file(zones[3] + "/temp", "1\n");
    EXPECT_EQ(zones[1] + "/temp", chosen()) << "however good a later one is";
}

TEST(ThermalZone, EndsTheSearchThatFoundIt)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    std::vector<std::string> types;
    for (const std::string& zone : zones) {
        types.push_back(zone + "/type");
        machine.file(types.back(), "cpu-thermal\n").file(zone + "/temp", "1\n");
    }
    OpenLog log(types);
    chosen();
    EXPECT_THAT(log.opened(), ElementsAre(types[0]));
}

TEST(ThermalZone, AnUnreadableTypeMatchesNothing)
{
    FakeMachine machine;
    lay_zone(machine, 0, "");
    machine.directory(zone_path(0, "type"));
    EXPECT_EQ("", chosen()) << "a folder in its place";
    machine.failing(zone_path(0, "type"));
    EXPECT_EQ("", chosen()) << "opens, but can't be read";
    machine.unreadable(zone_path(0, "type"), "cpu\n");
    const WithoutPrivileges ordinary;
    EXPECT_EQ("", chosen()) << "no rights";
}

TEST(ThermalZone, AnUnreadableTypeDoesNotKeepTheOthersOut)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    machine.failing(zones[0] + "/type").file(zones[0] + "/temp", "1\n");
    machine.directory(zones[1] + "/type").file(zones[1] + "/temp", "1\n");
    machine.file(zones[3] + "/type", "cpu\n").file(zones[3] + "/temp", "1\n");
    EXPECT_EQ(zones[3] + "/temp", chosen());
}

TEST(ThermalZone, ItsTemperatureFileNeedOnlyExist)
{
    FakeMachine machine;
    lay_zone(machine, 0, "cpu");
    lay_chip(machine, 0, "coretemp");
    machine.directory(zone_path(0, "temp"));
    EXPECT_EQ(zone_path(0, "temp"), chosen()) << "a folder";
    machine.file(zone_path(0, "temp"), "N/A\n");
    EXPECT_EQ(zone_path(0, "temp"), chosen()) << "no number in it";
    machine.unreadable(zone_path(0, "temp"), "1\n");
    const WithoutPrivileges ordinary;
    EXPECT_EQ(zone_path(0, "temp"), chosen()) << "no rights";
    EXPECT_EQ(-1.0, SystemMetrics().read_temperature()) << "and no chip stands in for it";
}

TEST(ThermalZone, MayBeALink)
{
    FakeMachine machine;
    machine.file("/sys/devices/virtual/thermal/thermal_zone0/type", "cpu\n").file("/sys/devices/virtual/thermal/thermal_zone0/temp", "1\n");
    machine.link(THERMAL + "/thermal_zone0", "/sys/devices/virtual/thermal/thermal_zone0");
    EXPECT_EQ(zone_path(0, "temp"), chosen()) << "the path goes through the link";
}

TEST(ThermalZone, AnErrorOfAStatusQueryEndsTheWholeScanAndTheChipsAreNext)
{
    for (const char* file : {"/type", "/temp"}) {
        FakeMachine machine;
        lay_chip(machine, 4, "k10temp");
        const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
        machine.file(zones[0] + "/type", "cpu\n").file(zones[0] + "/temp", "1\n").loop(zones[0] + file);
        machine.file(zones[1] + "/type", "x86_pkg_temp\n").file(zones[1] + "/temp", "1\n");
        EXPECT_EQ(chip_path(4, "temp1_input"), chosen()) << file;
    }
}

TEST(ThermalZone, AnErrorBehindTheMatchIsNeverMet)
{
    FakeMachine machine;
    const auto zones = lay_unsorted_folders(machine, THERMAL + "/thermal_zone");
    machine.file(zones[0] + "/type", "cpu\n").file(zones[0] + "/temp", "1\n").loop(zones[1] + "/type");
    EXPECT_EQ(zones[0] + "/temp", chosen());
}

TEST(ThermalZone, WithoutReadableZonesTheChipsAreNext)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp");
    EXPECT_EQ(chip_path(0, "temp1_input"), chosen()) << "no folder";
    machine.directory(THERMAL);
    EXPECT_EQ(chip_path(0, "temp1_input"), chosen()) << "an empty folder";
    machine.file(THERMAL, "cpu\n");
    EXPECT_EQ(chip_path(0, "temp1_input"), chosen()) << "a file in its place";
    machine.loop(THERMAL);
    EXPECT_EQ(chip_path(0, "temp1_input"), chosen()) << "a link to itself";
    machine.remove(THERMAL);
    lay_zone(machine, 0, "cpu");
    fs::permissions(THERMAL, fs::perms::none);
    const WithoutPrivileges ordinary;
    EXPECT_EQ(chip_path(0, "temp1_input"), chosen()) << "no rights";
}

TEST(ThermalZone, BeatsEveryChipAndTheChipsAreNotEvenListed)
{
    FakeMachine machine;
    lay_zone(machine, 0, "soc_cpu0");
    lay_chip(machine, 0, "coretemp");
    OpenLog log({HWMON, chip_path(0, "name"), zone_path(0, "type")});
    EXPECT_EQ(zone_path(0, "temp"), chosen());
    EXPECT_THAT(log.opened(), ElementsAre(zone_path(0, "type")));
}

// --- hwmon chips ---

TEST(Chip, IsTheCpusByOneOfFourNames)
{
    FakeMachine machine;
    for (const char* name : {"coretemp", "k10temp", "cpu_thermal", "acpitz"}) {
        lay_chip(machine, 2, name);
        EXPECT_EQ(chip_path(2, "temp1_input"), chosen()) << name;
    }
}

TEST(Chip, IsNotTheCpusByAnyOtherName)
{
    FakeMachine machine;
    for (const char* name : {"cpu-thermal", "cpu", "soc_cpu0", "x86_pkg_temp", "Coretemp", "coretemp ", " coretemp", "coretemp0", "k10",
                             "nvme", "", "nvme\ncoretemp", "acpitz\r"}) {
        lay_chip(machine, 0, name);
        EXPECT_EQ("", chosen()) << name;
    }
}

TEST(Chip, AMachineWithOnlyAnAcpitzZoneGetsItsTemperatureThroughTheAcpitzChip)
{
    FakeMachine machine;
    lay_zone(machine, 0, "acpitz");
    lay_chip(machine, 0, "acpitz");
    EXPECT_EQ(chip_path(0, "temp1_input"), chosen());
}

TEST(Chip, TheFourNamesRankEquallyAndTheFirstInDirectoryOrderWins)
{
    const std::vector<std::string> names = {"coretemp", "k10temp", "cpu_thermal", "acpitz"};
    for (std::size_t turn = 0; turn < names.size(); ++turn) {
        FakeMachine machine;
        const auto chips = lay_unsorted_folders(machine, HWMON + "/hwmon");
        for (std::size_t i = 0; i < chips.size(); ++i) {
            machine.file(chips[i] + "/name", names[(i + turn) % names.size()] + "\n").file(chips[i] + "/temp1_input", "1\n");
        }
        EXPECT_EQ(chips[0] + "/temp1_input", chosen()) << names[turn];
    }
}

TEST(Chip, EndsTheSearchThatFoundIt)
{
    FakeMachine machine;
    const auto chips = lay_unsorted_folders(machine, HWMON + "/hwmon");
    std::vector<std::string> names;
    for (const std::string& chip : chips) {
        names.push_back(chip + "/name");
        machine.file(names.back(), "coretemp\n").file(chip + "/temp2_input", "1\n");
    }
    OpenLog log(names);
    EXPECT_EQ(chips[0] + "/temp2_input", chosen());
    EXPECT_THAT(log.opened(), ElementsAre(names[0]));
}

TEST(Chip, IsSkippedWithoutAReadableName)
{
    FakeMachine machine;
    const auto chips = lay_unsorted_folders(machine, HWMON + "/hwmon");
    for (const std::string& chip : chips) {
        machine.file(chip + "/temp1_input", "1\n");
    }
    machine.failing(chips[0] + "/name").directory(chips[1] + "/name").link(chips[2] + "/name", "/sys/gone");
    EXPECT_EQ("", chosen());
    machine.file(chips[3] + "/name", "acpitz");
    EXPECT_EQ(chips[3] + "/temp1_input", chosen());
    machine.unreadable(chips[3] + "/name", "acpitz\n");
    const WithoutPrivileges ordinary;
    EXPECT_EQ("", chosen()) << "no rights";
}

TEST(Chip, ItsFirstInputByNumberGoesBeforeWhateverIsListedFirst)
{
    for (const bool last : {false, true}) {
        FakeMachine machine;
        machine.file(chip_path(0, "name"), "coretemp\n");
        for (const char* name : last ? std::vector{"temp2_input", "temp1_input"} : std::vector{"temp1_input", "temp2_input"}) {
            machine.file(chip_path(0, name), "1\n");
        }
        EXPECT_EQ(chip_path(0, "temp1_input"), chosen());
    }
}

TEST(Chip, WithoutAFirstInputUsesAnother)
{
    FakeMachine machine;
    machine.file(chip_path(0, "name"), "k10temp\n").file(chip_path(0, "temp2_input"), "1\n");
    EXPECT_EQ(chip_path(0, "temp2_input"), chosen());
}

TEST(Chip, OfSeveralOtherInputsTheFirstInDirectoryOrderCountsNotTheLowest)
{
    FakeMachine machine;
    for (const char* input : {"temp4_input", "temp2_input", "temp5_input", "temp3_input"}) {
        machine.file(chip_path(0, input), "1\n");
    }
    const std::string first = listed(HWMON + "/hwmon0")[0];
    machine.file(chip_path(0, "name"), "coretemp\n");
    EXPECT_EQ(first, chosen());
}

TEST(Chip, AnInputBeginsWithTempAndContainsInput)
{
    for (const char* name : {"temp2_input", "temp_input", "temp10_input", "temp2_input_old", "temperature_input", "temp_a_input_b"}) {
        FakeMachine machine;
        machine.file(chip_path(0, "name"), "coretemp\n").file(chip_path(0, name), "1\n");
        EXPECT_EQ(chip_path(0, name), chosen());
    }
}

TEST(Chip, AnyOtherFileIsNoInput)
{
    FakeMachine machine;
    machine.file(chip_path(0, "name"), "coretemp\n");
    for (const char* name : {"temp2_label", "temp2_max", "in0_input", "fan1_input", "xtemp2_input", "Temp2_input", "temp2input",
                             "temp2_Input", "temp2_inpu", "_input", "device"}) {
        machine.file(chip_path(0, name), "1\n");
        EXPECT_EQ("", chosen()) << name;
    }
}

TEST(Chip, WithoutAnInputDoesNotStopTheScan)
{
    FakeMachine machine;
    const auto chips = lay_unsorted_folders(machine, HWMON + "/hwmon");
    for (const std::string& chip : chips) {
        machine.file(chip + "/name", "coretemp\n").file(chip + "/temp2_label", "Core 0\n");
    }
    EXPECT_EQ("", chosen());
    machine.file(chips[3] + "/temp7_input", "1\n");
    EXPECT_EQ(chips[3] + "/temp7_input", chosen());
}

TEST(Chip, AnInputThatIsALinkToNowhereIsFoundByTheListOfFilesOnly)
{
    FakeMachine machine;
    machine.file(chip_path(0, "name"), "coretemp\n").link(chip_path(0, "temp1_input"), "/sys/gone");
    EXPECT_EQ(chip_path(0, "temp1_input"), chosen());
    EXPECT_EQ(-1.0, SystemMetrics().read_temperature());
}

TEST(Chip, ThatCannotBeListedDoesNotStopTheScan)
{
    FakeMachine machine;
    const auto chips = lay_unsorted_folders(machine, HWMON + "/hwmon");
    machine.file(chips[0] + "/name", "coretemp\n").file(chips[0] + "/temp2_input", "1\n");
    machine.file(chips[1] + "/name", "acpitz\n").file(chips[1] + "/temp3_input", "1\n");
    fs::permissions(chips[0],
                    fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec);  // its files open, but it can't be listed
    const WithoutPrivileges ordinary;
    EXPECT_EQ(chips[1] + "/temp3_input", chosen());
}

TEST(Chip, AnErrorOfAStatusQueryEndsTheWholeScan)
{
    for (const char* file : {"/name", "/temp1_input"}) {
        FakeMachine machine;
        machine.file(ENERGY, "1\n");
        const auto chips = lay_unsorted_folders(machine, HWMON + "/hwmon");
        machine.file(chips[0] + "/name", "coretemp\n").file(chips[0] + "/temp2_input", "1\n").loop(chips[0] + file);
        machine.file(chips[1] + "/name", "coretemp\n").file(chips[1] + "/temp1_input", "1\n");
        EXPECT_EQ("", chosen()) << file;
        EXPECT_TRUE(SystemMetrics().m_has_rapl) << "the search for the other sources goes on";
    }
}

TEST(Chip, AnErrorBehindTheMatchIsNeverMet)
{
    FakeMachine machine;
    const auto chips = lay_unsorted_folders(machine, HWMON + "/hwmon");
    machine.file(chips[0] + "/name", "coretemp\n").file(chips[0] + "/temp1_input", "1\n").loop(chips[1] + "/name");
    EXPECT_EQ(chips[0] + "/temp1_input", chosen());
}

TEST(Chip, MayBeALink)
{
    FakeMachine machine;
    machine.file("/sys/devices/platform/coretemp.0/hwmon/hwmon5/name", "coretemp\n");
    machine.file("/sys/devices/platform/coretemp.0/hwmon/hwmon5/temp2_input", "1\n");
    machine.directory(HWMON).link(HWMON + "/hwmon5", "/sys/devices/platform/coretemp.0/hwmon/hwmon5");
    EXPECT_EQ(chip_path(5, "temp2_input"), chosen()) << "the path goes through the link";
}

TEST(Chip, WithoutReadableChipsThereIsNoTemperature)
{
    FakeMachine machine;
    EXPECT_EQ("", chosen()) << "no folder";
    machine.directory(HWMON);
    EXPECT_EQ("", chosen()) << "an empty folder";
    machine.file(HWMON, "coretemp\n");
    EXPECT_EQ("", chosen()) << "a file in its place";
    machine.loop(HWMON);
    EXPECT_EQ("", chosen()) << "a link to itself";
    machine.remove(HWMON);
    lay_chip(machine, 0, "coretemp");
    fs::permissions(HWMON, fs::perms::none);
    const WithoutPrivileges ordinary;
    EXPECT_EQ("", chosen()) << "no rights";
    EXPECT_EQ(-1.0, SystemMetrics().read_temperature());
}

// --- the reading ---

TEST(Temperature, IsAThousandthOfWhatTheFileHolds)
{
    EXPECT_EQ(47.0, reading("47000\n"));
    EXPECT_EQ(47.123, reading("47123\n"));
    EXPECT_EQ(0.001, reading("1\n"));
}

TEST(Temperature, ANegativeNumberStaysNegative)
{
    EXPECT_EQ(-5.5, reading("-5500\n"));
    EXPECT_EQ(-1.0, reading("-1000\n")) << "not to be told from no reading";
}

TEST(Temperature, IsNeitherClampedNorTestedForPlausibility)
{
    EXPECT_EQ(0.0, reading("0\n"));
    EXPECT_EQ(1000.0, reading("1000000\n"));
    EXPECT_EQ(2147483.647, reading("2147483647\n"));
    EXPECT_EQ(-2147483.648, reading("-2147483648\n"));
}

TEST(Temperature, ANumberTooLargeFor32BitsIsNoReading)
{
    EXPECT_EQ(-1.0, reading("2147483648\n"));
    EXPECT_EQ(-1.0, reading("-2147483649\n"));
    EXPECT_EQ(-1.0, reading("4294967297\n"));
}

TEST(Temperature, WhiteSpaceInFrontAndAMissingNewlineDoNoHarm)
{
    EXPECT_EQ(47.0, reading("47000"));
    EXPECT_EQ(47.0, reading(" \t\n 47000"));
    EXPECT_EQ(47.0, reading("47000 mC\n12000\n"));
}

TEST(Temperature, AFileThatGivesNoNumberIsNoReadingAndTheNextGoodOneIsOne)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp");
    const SystemMetrics metrics;
    for_each_failure(machine, zone_path(0, "temp"), "47000\n",
                     [&](const std::string& fault) { EXPECT_EQ(-1.0, metrics.read_temperature()) << fault; });
    machine.file(zone_path(0, "temp"), "51000\n");
    EXPECT_EQ(51.0, metrics.read_temperature());
}

TEST(Temperature, FollowsTheFileAtEachReading)
{
    FakeMachine machine;
    lay_chip(machine, 0, "coretemp", "40000");
    const SystemMetrics metrics;
    EXPECT_EQ(40.0, metrics.read_temperature());
    machine.file(chip_path(0, "temp1_input"), "90000\n");
    EXPECT_EQ(90.0, metrics.read_temperature());
}

TEST(Temperature, ASensorThatShowsUpLaterIsNeverSeen)
{
    FakeMachine machine;
    const SystemMetrics metrics;
    lay_zone(machine, 0, "x86_pkg_temp");
    EXPECT_EQ(-1.0, metrics.read_temperature());
}

TEST(Temperature, ASensorThatGoesAwayIsNeverReplaced)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp");
    lay_zone(machine, 1, "cpu-thermal");
    lay_chip(machine, 0, "coretemp");
    const SystemMetrics metrics;
    const std::string source = metrics.m_temp_path;
    machine.remove(fs::path(source).parent_path());
    EXPECT_EQ(-1.0, metrics.read_temperature());
    EXPECT_EQ(source, metrics.m_temp_path);
    machine.file(source, "33000\n");
    EXPECT_EQ(33.0, metrics.read_temperature()) << "the same path is tried on and on";
}

TEST(Temperature, WithoutASensorNoFileIsTouched)
{
    FakeMachine machine;
    SystemMetrics metrics;
    machine.file("/sys/elsewhere", "47000\n");
    OpenLog log({"/sys/elsewhere"});
    metrics.m_temp_path = "/sys/elsewhere";
    EXPECT_EQ(-1.0, metrics.read_temperature());
    EXPECT_THAT(log.opened(), IsEmpty());
}

TEST(Temperature, OneReadingOpensItsFileOnceAndNoOther)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp");
    lay_chip(machine, 0, "coretemp");
    const SystemMetrics metrics;
    OpenLog log({THERMAL, HWMON, zone_path(0, "type"), zone_path(0, "temp"), chip_path(0, "name"), chip_path(0, "temp1_input")});
    metrics.read_temperature();
    EXPECT_THAT(log.opened(), ElementsAre(zone_path(0, "temp")));
}

TEST(Temperature, TheConstructorDoesNotReadIt)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp");
    OpenLog log({zone_path(0, "temp")});
    const SystemMetrics metrics;
    EXPECT_THAT(log.opened(), IsEmpty());
    EXPECT_EQ(-1.0, metrics.get_temperature());
}

TEST(Temperature, APassPublishesItAndOneWithoutAReadingDoesNotKeepTheLast)
{
    FakeMachine machine;
    lay_zone(machine, 0, "x86_pkg_temp");
    SystemMetrics metrics;
    metrics.sample();
    EXPECT_EQ(47.0, metrics.get_temperature());
    machine.remove(zone_path(0, "temp"));
    metrics.sample();
    EXPECT_EQ(-1.0, metrics.get_temperature());
    machine.file(zone_path(0, "temp"), "48000\n");
    metrics.sample();
    EXPECT_EQ(48.0, metrics.get_temperature());
}

TEST(Temperature, IsReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    EXPECT_EQ(47.123, reading("47123\n"));
    EXPECT_EQ(0.047, reading("47.123\n")) << "a point ends the number there too";
    EXPECT_EQ(0.047, reading("47,123\n"));
}

}  // namespace
