/// The grouping of CPUs by the core types that the kernel names.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "cpu_topology.h"
#include "sensor_machine.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Types = std::vector<std::string>;
using Clocks = std::vector<unsigned long long>;

std::string type_path(int cpu)
{
    return "/sys/bus/cpu/devices/cpu" + std::to_string(cpu) + "/cpu_type";
}

/// Gives CPUs 0, 1, 2... files with these texts.
void lay_types(FakeMachine& machine, const Types& texts)
{
    for (std::size_t i = 0; i < texts.size(); ++i) {
        machine.file(type_path(static_cast<int>(i)), texts[i]);
    }
}

/// All of a cluster in one line, such as "Cluster %d 2 [1 3] slot 1 3800 MHz".
std::string text_of(const CpuCluster& cluster)
{
    std::string text = cluster.name_key;
    if (cluster.name_index != -1) {
        text += " " + std::to_string(cluster.name_index);
    }
    text += " [";
    for (const std::int32_t cpu : cluster.cpu_indices) {
        text += (text.back() == '[' ? "" : " ") + std::to_string(cpu);
    }
    return text + "] slot " + std::to_string(cluster.color_index) + " " + std::to_string(static_cast<long>(cluster.max_freq_mhz)) + " MHz";
}

std::vector<std::string> detected(int cpu_count)
{
    std::vector<std::string> texts;
    for (const CpuCluster& cluster : CpuTopology::detect(cpu_count)) {
        texts.push_back(text_of(cluster));
    }
    return texts;
}

/// What is detected for CPUs with these types and these clocks in kHz.
std::vector<std::string> grouped(const Types& types, const Clocks& khz)
{
    FakeMachine machine;
    machine.max_freqs(khz);
    lay_types(machine, types);
    return detected(static_cast<int>(types.size()));
}

constexpr const char* ONE_CLUSTER = "CPU [0 1] slot 0 4000 MHz";

// --- the type of a CPU ---

TEST(CoreType, BlanksLineFeedsAndCarriageReturnsBehindItAreNoPartOfIt)
{
    for (const char* text : {"core", "core\n", "core\r\n", "core ", "core  \r\r\n", "core \r \n", "core\nother\n"}) {
        EXPECT_THAT(grouped({"core\n", text}, {4000000, 4000000}), ElementsAre(ONE_CLUSTER)) << text;
    }
}

TEST(CoreType, ATabBehindItStays)
{
    EXPECT_THAT(grouped({"core\n", "core\t\n"}, {4000000, 4000000}), SizeIs(2));
    EXPECT_THAT(grouped({"core\n", "core\t \n"}, {4000000, 4000000}), SizeIs(2));
    EXPECT_THAT(grouped({"core\t\n", "core\t \r\n"}, {4000000, 4000000}), SizeIs(1)) << "only the blank behind it goes";
}

TEST(CoreType, ATabAloneIsAType)
{
    EXPECT_THAT(grouped({"core\n", "\t\n"}, {4000000, 4000000}), SizeIs(2));
}

TEST(CoreType, NothingInFrontOfOrWithinItGoes)
{
    for (const char* other : {" core\n", "co re\n", "Core\n", "cor\n", "core0\n", "core\v\n"}) {
        EXPECT_THAT(grouped({"core\n", other}, {4000000, 4000000}), SizeIs(2)) << other;
    }
}

TEST(CoreType, OnlyTheFirstLineCounts)
{
    EXPECT_THAT(grouped({"core\nx\n", "core\ny\n"}, {4000000, 4000000}), ElementsAre(ONE_CLUSTER));
    EXPECT_THAT(grouped({"atom\n", "\ncore\n"}, {4000000, 4000000}), ElementsAre(ONE_CLUSTER)) << "an empty one is none";
}

// --- declining ---

TEST(CoreTypes, WithoutTheFilesTheClocksDecide)
{
    FakeMachine machine;
    machine.max_freqs({5000000, 3800000});
    EXPECT_THAT(detected(2), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 3800 MHz"));
    EXPECT_THAT(detected(1), ElementsAre("CPU [0] slot 0 5000 MHz"));
}

TEST(CoreTypes, WithoutATypeOfTheFirstCpuNoOtherIsRead)
{
    FakeMachine machine;
    lay_types(machine, {"", "atom\n", "core\n"});
    machine.remove(type_path(0));
    OpenLog log({type_path(1), type_path(2)});
    EXPECT_THAT(detected(3), SizeIs(1));
    EXPECT_THAT(log.opened(), IsEmpty());
}

TEST(CoreTypes, OneCpuWithoutATypeDisqualifiesTheMachineAndThoseBehindItAreNotRead)
{
    FakeMachine machine;
    lay_types(machine, {"core\n", "atom\n", "core\n", "atom\n", "", "core\n", "atom\n"});
    OpenLog log({type_path(0), type_path(3), type_path(4), type_path(5), type_path(6)});
    EXPECT_THAT(detected(7), ElementsAre("CPU [0 1 2 3 4 5 6] slot 0 0 MHz"));
    EXPECT_THAT(log.opened(), ElementsAre(type_path(0), type_path(3), type_path(4)));
}

TEST(CoreTypes, ATypeThatCannotBeReadIsNone)
{
    FakeMachine machine;
    machine.max_freqs({4000000, 4000000});
    lay_types(machine, {"core\n", "atom\n"});
    ASSERT_THAT(detected(2), SizeIs(2));
    machine.remove(type_path(1));
    EXPECT_THAT(detected(2), ElementsAre(ONE_CLUSTER)) << "no file";
    machine.directory(type_path(1));
    EXPECT_THAT(detected(2), ElementsAre(ONE_CLUSTER)) << "a folder in its place";
    machine.failing(type_path(1));
    EXPECT_THAT(detected(2), ElementsAre(ONE_CLUSTER)) << "opens, but can't be read";
    machine.loop(type_path(1));
    EXPECT_THAT(detected(2), ElementsAre(ONE_CLUSTER)) << "a link to itself";
    machine.link(type_path(1), "/sys/gone");
    EXPECT_THAT(detected(2), ElementsAre(ONE_CLUSTER)) << "a link to nowhere";
    machine.unreadable(type_path(1), "atom\n");
    {
        const WithoutPrivileges ordinary;
        EXPECT_THAT(detected(2), ElementsAre(ONE_CLUSTER)) << "no rights";
    }
    machine.file(type_path(1), "atom\n");
    EXPECT_THAT(detected(2), SizeIs(2)) << "each call reads the files again";
}

TEST(CoreTypes, AFileThatHoldsOnlyBlanksCountsAsEmpty)
{
    for (const char* text : {"", "\n", "   \n", " ", "\r\n", " \r \n"}) {
        EXPECT_THAT(grouped({"core\n", text}, {4000000, 4000000}), ElementsAre(ONE_CLUSTER)) << text;
    }
}

TEST(CoreTypes, OneTypeOnlyLeavesItToTheClocksThoughTheyDiffer)
{
    EXPECT_THAT(grouped({"core\n", "core\n"}, {4000000, 4000000}), ElementsAre(ONE_CLUSTER));
    EXPECT_THAT(grouped({"core\n", "core\n", "core\n"}, {5000000, 3800000, 5000000}),
                ElementsAre("Performance [0 2] slot 0 5000 MHz", "Efficiency [1] slot 1 3800 MHz"));
}

TEST(CoreTypes, OnlyTheCpusBelowTheCountAreAsked)
{
    FakeMachine machine;
    machine.max_freqs({4000000, 4000000, 2000000});
    lay_types(machine, {"core\n", "core\n", "atom\n"});
    EXPECT_THAT(detected(2), ElementsAre(ONE_CLUSTER));
    lay_types(machine, {"core\n", "atom\n", ""});
    EXPECT_THAT(detected(2), SizeIs(2));
}

// --- the groups ---

TEST(CoreTypes, WinOverWhatTheClocksWouldSuggest)
{
    EXPECT_THAT(grouped({"core\n", "core\n", "atom\n", "atom\n"}, {5000000, 1000000, 4000000, 500000}),
                ElementsAre("Performance [0 1] slot 0 5000 MHz", "Efficiency [2 3] slot 1 4000 MHz"));
    EXPECT_THAT(grouped({"core\n", "atom\n"}, {4000000, 3999999}),
                ElementsAre("Performance [0] slot 0 4000 MHz", "Efficiency [1] slot 1 3999 MHz"))
        << "clocks that are alike";
}

TEST(CoreTypes, OfTwoTheFasterIsPerformanceWhateverItIsCalled)
{
    EXPECT_THAT(grouped({"core\n", "atom\n"}, {5000000, 3800000}),
                ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 3800 MHz"));
    EXPECT_THAT(grouped({"core\n", "atom\n"}, {3800000, 5000000}),
                ElementsAre("Performance [1] slot 0 5000 MHz", "Efficiency [0] slot 1 3800 MHz"));
    EXPECT_THAT(grouped({"x\n", "y\n"}, {3800000, 5000000}),
                ElementsAre("Performance [1] slot 0 5000 MHz", "Efficiency [0] slot 1 3800 MHz"));
}

TEST(CoreTypes, TheFastestCpuOfAGroupSetsItsRank)
{
    EXPECT_THAT(grouped({"a\n", "b\n", "a\n", "b\n"}, {1000000, 4000000, 5000000, 4000000}),
                ElementsAre("Performance [0 2] slot 0 5000 MHz", "Efficiency [1 3] slot 1 4000 MHz"));
}

TEST(CoreTypes, OfEqualClocksTheTypeThatSortsFirstByItsBytesGoesFirst)
{
    EXPECT_THAT(grouped({"b\n", "a\n"}, {4000000, 4000000}),
                ElementsAre("Performance [1] slot 0 4000 MHz", "Efficiency [0] slot 1 4000 MHz"));
    EXPECT_THAT(grouped({"a\n", "Z\n"}, {4000000, 4000000}),
                ElementsAre("Performance [1] slot 0 4000 MHz", "Efficiency [0] slot 1 4000 MHz"))
        << "capitals come before small letters";
    EXPECT_THAT(grouped({"\xC3\xA9\n", "z\n"}, {4000000, 4000000}),
                ElementsAre("Performance [1] slot 0 4000 MHz", "Efficiency [0] slot 1 4000 MHz"))
        << "bytes have no sign";
    EXPECT_THAT(grouped({"d\n", "c\n", "b\n", "a\n"}, {1000000, 2000000, 1000000, 2000000}),
                ElementsAre("Cluster %d 1 [3] slot 0 2000 MHz", "Cluster %d 2 [1] slot 1 2000 MHz", "Cluster %d 3 [2] slot 2 1000 MHz",
                            "Cluster %d 4 [0] slot 3 1000 MHz"));
}

TEST(CoreTypes, WithoutAnyClockTheTypeThatSortsFirstIsPerformanceOnPurpose)
{
    EXPECT_THAT(grouped({"intel_core\n", "intel_atom\n"}, {}), ElementsAre("Performance [1] slot 0 0 MHz", "Efficiency [0] slot 1 0 MHz"));
}

TEST(CoreTypes, AGroupWithoutAClockRanksLast)
{
    EXPECT_THAT(grouped({"a\n", "b\n"}, {0, 1000000}), ElementsAre("Performance [1] slot 0 1000 MHz", "Efficiency [0] slot 1 0 MHz"));
}

TEST(CoreTypes, ACpuWhoseClockGivesNoNumberCountsAsZeroInItsGroup)
{
    FakeMachine machine;
    machine.max_freqs({5000000, 4000000, 3000000});
    lay_types(machine, {"a\n", "b\n", "a\n"});
    for_each_failure(machine, FakeMachine::max_freq_path(0), "5000000\n", [](const std::string& fault) {
        EXPECT_THAT(detected(3), ElementsAre("Performance [1] slot 0 4000 MHz", "Efficiency [0 2] slot 1 3000 MHz")) << fault;
    });
}

TEST(CoreTypes, ThreeAreNumberedInDescendingClock)
{
    EXPECT_THAT(grouped({"a\n", "b\n", "c\n"}, {2000000, 3000000, 1000000}),
                ElementsAre("Cluster %d 1 [1] slot 0 3000 MHz", "Cluster %d 2 [0] slot 1 2000 MHz", "Cluster %d 3 [2] slot 2 1000 MHz"));
}

TEST(CoreTypes, AFifthTakesTheFirstSlotAgain)
{
    EXPECT_THAT(grouped({"a\n", "b\n", "c\n", "d\n", "e\n"}, {5000000, 4000000, 3000000, 2000000, 1000000}),
                ElementsAre("Cluster %d 1 [0] slot 0 5000 MHz", "Cluster %d 2 [1] slot 1 4000 MHz", "Cluster %d 3 [2] slot 2 3000 MHz",
                            "Cluster %d 4 [3] slot 3 2000 MHz", "Cluster %d 5 [4] slot 0 1000 MHz"));
}

TEST(CoreTypes, CpusOfAGroupStandInAscendingOrderWithGaps)
{
    Types types(12, "atom\n");
    for (const std::size_t core : {0U, 2U, 10U, 11U}) {
        types[core] = "core\n";
    }
    Clocks khz(12, 3000000);
    khz[10] = 5000000;
    EXPECT_THAT(grouped(types, khz),
                ElementsAre("Performance [0 2 10 11] slot 0 5000 MHz", "Efficiency [1 3 4 5 6 7 8 9] slot 1 3000 MHz"));
}

TEST(CoreTypes, MegahertzAreThousandsOfTheKernelsKilohertzUnrounded)
{
    FakeMachine machine;
    machine.max_freqs({5000001, 3799999});
    lay_types(machine, {"core\n", "atom\n"});
    const auto clusters = CpuTopology::detect(2);
    ASSERT_THAT(clusters, SizeIs(2));
    EXPECT_EQ(5000.001, clusters[0].max_freq_mhz);
    EXPECT_EQ(3799.999, clusters[1].max_freq_mhz);
}

TEST(CoreTypes, TwoHaveNoNumberInTheirNames)
{
    FakeMachine machine;
    lay_types(machine, {"core\n", "atom\n"});
    EXPECT_THAT(CpuTopology::detect(2), testing::Each(Field(&CpuCluster::name_index, -1)));
}

TEST(CoreTypes, OfHundredsOfCpusAreAllGrouped)
{
    FakeMachine machine;
    Types types;
    for (int cpu = 0; cpu < 256; ++cpu) {
        types.push_back(cpu % 2 == 0 ? "core\n" : "atom\n");
    }
    lay_types(machine, types);
    machine.max_freqs(Clocks(256, 3000000));
    EXPECT_THAT(CpuTopology::detect(256), testing::Each(Field(&CpuCluster::cpu_indices, SizeIs(128))));
}

TEST(CoreTypes, ClocksAreReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    FakeMachine machine;
    machine.max_freq(0, "5.000.000\n").max_freq(1, "3800000,5\n");
    lay_types(machine, {"core\n", "atom\n"});
    EXPECT_THAT(detected(2), ElementsAre("Performance [1] slot 0 3800 MHz", "Efficiency [0] slot 1 0 MHz"));
}

}  // namespace
