/// The grouping of CPUs into clusters by their rated clocks, and the clusters' titles.
#include "cpu_topology.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <random>

#include "fake_machine.h"
#include "i18n.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// All of a cluster in one line: "Cluster %d 2 [1 3] slot 1 3800 MHz", the number left out if it is negative.
void PrintTo(const CpuCluster& cluster, std::ostream* out)
{
    *out << cluster.name_key;
    if (cluster.name_index >= 0) {
        *out << " " << cluster.name_index;
    } else if (cluster.name_index != -1) {
        *out << " name_index " << cluster.name_index;
    }
    *out << " [";
    for (const std::int32_t cpu : cluster.cpu_indices) {
        *out << (cpu == cluster.cpu_indices.front() ? "" : " ") << cpu;
    }
    *out << "] slot " << cluster.color_index << " " << cluster.max_freq_mhz << " MHz";
}

namespace {

using Groups = std::vector<std::string>;
using Clocks = std::vector<unsigned long long>;

/// What is detected for that many CPUs on the machine as it stands.
Groups detected(int cpu_count)
{
    Groups groups;
    for (const CpuCluster& cluster : CpuTopology::detect(cpu_count)) {
        groups.push_back(testing::PrintToString(cluster));
    }
    return groups;
}

/// What is detected for CPUs with these clocks in kHz.
Groups grouped(const Clocks& khz)
{
    FakeMachine machine;
    machine.max_freqs(khz);
    return detected(static_cast<int>(khz.size()));
}

// --- detect ---

TEST(Detect, ACountOfZeroOrBelowGivesNoClusterAndReadsNothing)
{
    FakeMachine machine;
    machine.hanging(FakeMachine::max_freq_path(0));  // whoever reads it never comes back
    EXPECT_THAT(detected(0), IsEmpty());
    EXPECT_THAT(detected(-1), IsEmpty());
    EXPECT_THAT(detected(std::numeric_limits<int>::min()), IsEmpty());
}

TEST(Detect, OneClusterCpuWithoutAnyClock)
{
    FakeMachine machine;
    EXPECT_THAT(detected(3), ElementsAre("CPU [0 1 2] slot 0 0 MHz")) << "no folder";
    machine.cpus(3);
    EXPECT_THAT(detected(3), ElementsAre("CPU [0 1 2] slot 0 0 MHz")) << "no file";
    machine.max_freqs({0, 0, 0});
    EXPECT_THAT(detected(3), ElementsAre("CPU [0 1 2] slot 0 0 MHz")) << "zeros";
}

TEST(Detect, OneClusterCpuWithTheClockThatAllShare)
{
    EXPECT_THAT(grouped({3600000, 3600000, 3600000}), ElementsAre("CPU [0 1 2] slot 0 3600 MHz"));
    EXPECT_THAT(grouped({2400123}), ElementsAre("CPU [0] slot 0 2400.12 MHz"));
}

TEST(Detect, MegahertzAreThousandsOfTheKernelsKilohertzUnrounded)
{
    FakeMachine machine;
    machine.max_freqs({5000001, 3799999});
    const auto clusters = CpuTopology::detect(2);
    ASSERT_THAT(clusters, SizeIs(2));
    EXPECT_EQ(5000.001, clusters[0].max_freq_mhz);
    EXPECT_EQ(3799.999, clusters[1].max_freq_mhz);
    EXPECT_EQ(5000.001, CpuTopology::detect(1).front().max_freq_mhz) << "the one cluster of all";
}

TEST(Detect, ADifferenceBelowAFifthOfTheFirstClockMakesNoLevel)
{
    EXPECT_THAT(grouped({4200000, 3500000}), ElementsAre("CPU [0 1] slot 0 4200 MHz"));
}

TEST(Detect, TheOneClusterTakesTheTrueMaximumAndNotTheLevel)
{
    EXPECT_THAT(grouped({4000000, 4500000, 3900000}), ElementsAre("CPU [0 1 2] slot 0 4500 MHz"));
}

TEST(Detect, ADifferenceOfExactlyAFifthMakesALevel)
{
    EXPECT_THAT(grouped({5000000, 4000000}), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 4000 MHz"));
    EXPECT_THAT(grouped({5000000, 4000001}), ElementsAre("CPU [0 1] slot 0 5000 MHz"));
}

TEST(Detect, TheToleranceIsCutToWholeKilohertz)
{
    EXPECT_THAT(grouped({5000004, 4000004}), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 4000 MHz"))
        << "a fifth is 1000000.8, of which 1000000 count";
}

TEST(Detect, LevelsAreFoundFromTheFirstCpuButFilledFromTheFastestOnPurpose)
{
    EXPECT_THAT(grouped({3500000, 4200000}), ElementsAre("Performance [0 1] slot 0 4200 MHz"));
    EXPECT_THAT(grouped({2500000, 3050000}), ElementsAre("Performance [0 1] slot 0 3050 MHz"));
}

TEST(Detect, ClustersThatRemainKeepNameAndSlotWhenOneBetweenThemEmpties)
{
    EXPECT_THAT(grouped({2500000, 3050000, 1000000}), ElementsAre("Performance [0 1] slot 0 3050 MHz", "Efficiency [2] slot 2 1000 MHz"));
}

TEST(Detect, NumberedClustersKeepTheirNumbersWhenOneBetweenThemEmpties)
{
    EXPECT_THAT(grouped({2500000, 3050000, 1600000, 1000000, 500000}),
                ElementsAre("Cluster %d 1 [0 1] slot 0 3050 MHz", "Cluster %d 3 [2] slot 2 1600 MHz", "Cluster %d 4 [3] slot 3 1000 MHz",
                            "Cluster %d 5 [4] slot 0 500 MHz"));
}

TEST(Detect, TwoLevelsArePerformanceAndEfficiency)
{
    EXPECT_THAT(grouped({5000000, 3800000}), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 3800 MHz"));
}

TEST(Detect, ThreeLevelsHaveABalancedOneBetween)
{
    EXPECT_THAT(grouped({1800000, 1800000, 2850000, 2400000, 1800000}), SizeIs(2)) << "2400000 is within a fifth of 2850000";
    EXPECT_THAT(grouped({1800000, 2400000, 3300000}),
                ElementsAre("Performance [2] slot 0 3300 MHz", "Balanced [1] slot 1 2400 MHz", "Efficiency [0] slot 2 1800 MHz"));
}

TEST(Detect, FourLevelsHaveTwoBalancedOnesBetween)
{
    EXPECT_THAT(grouped({1000000, 2000000, 3000000, 4000000}),
                ElementsAre("Performance [3] slot 0 4000 MHz", "Balanced-H [2] slot 1 3000 MHz", "Balanced-L [1] slot 2 2000 MHz",
                            "Efficiency [0] slot 3 1000 MHz"));
}

TEST(Detect, FiveLevelsAreNumberedAndTheFifthTakesTheFirstSlotAgain)
{
    EXPECT_THAT(grouped({5000000, 4000000, 3000000, 2000000, 1000000}),
                ElementsAre("Cluster %d 1 [0] slot 0 5000 MHz", "Cluster %d 2 [1] slot 1 4000 MHz", "Cluster %d 3 [2] slot 2 3000 MHz",
                            "Cluster %d 4 [3] slot 3 2000 MHz", "Cluster %d 5 [4] slot 0 1000 MHz"));
}

TEST(Detect, NineLevelsGoTwiceRoundTheSlots)
{
    FakeMachine machine;
    machine.max_freqs({9000000, 7000000, 5000000, 4000000, 3000000, 2000000, 1000000, 500000, 100000});
    const auto clusters = CpuTopology::detect(9);
    ASSERT_THAT(clusters, SizeIs(9));
    for (std::int32_t i = 0; i < 9; ++i) {
        EXPECT_EQ(i + 1, clusters[static_cast<std::size_t>(i)].name_index);
        EXPECT_EQ(i % 4, clusters[static_cast<std::size_t>(i)].color_index);
    }
}

TEST(Detect, CpusOfAClusterStandInAscendingOrder)
{
    EXPECT_THAT(grouped({3800000, 5000000, 3800000, 5100000, 3800000, 4900000}),
                ElementsAre("Performance [1 3 5] slot 0 5000 MHz", "Efficiency [0 2 4] slot 1 3800 MHz"));
}

TEST(Detect, ACpuJoinsTheFastestLevelThatItIsNearTo)
{
    EXPECT_THAT(grouped({5000000, 3900000, 4100000}), ElementsAre("Performance [0 2] slot 0 5000 MHz", "Efficiency [1] slot 1 3900 MHz"));
}

TEST(Detect, ACpuWithoutAClockJoinsTheSlowestSoThatItStaysVisible)
{
    EXPECT_THAT(grouped({5000000, 0, 3800000, 0}), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1 2 3] slot 1 3800 MHz"));
    EXPECT_THAT(grouped({0, 3600000}), ElementsAre("CPU [0 1] slot 0 3600 MHz")) << "one level is one cluster";
}

TEST(Detect, ACpuWithoutAClockKeepsTheSlowestLevelAliveThoughItsOwnCpusLeftIt)
{
    EXPECT_THAT(grouped({2500000, 3050000, 0}), ElementsAre("Performance [0 1] slot 0 3050 MHz", "Efficiency [2] slot 1 2500 MHz"));
}

TEST(Detect, AClockBelowFiveKilohertzIsNearToNothingAndItsCpuIsLeftOutOnPurpose)
{
    EXPECT_THAT(grouped({5000000, 4, 3000000}), ElementsAre("Performance [0] slot 0 5000 MHz", "Balanced [2] slot 1 3000 MHz"));
}

TEST(Detect, IfNoClusterRemainsAllCpusFormOne)
{
    EXPECT_THAT(grouped({4, 4}), ElementsAre("CPU [0 1] slot 0 0.004 MHz")) << "two levels, since the tolerance is nil";
    EXPECT_THAT(grouped({5, 5}), ElementsAre("CPU [0 1] slot 0 0.005 MHz")) << "one level";
}

TEST(Detect, AFileThatGivesNoNumberIsAnUnknownClock)
{
    FakeMachine machine;
    const std::string broken = FakeMachine::max_freq_path(2);
    const Groups unknown_is_slowest = {"Performance [0] slot 0 5000 MHz", "Efficiency [1 2] slot 1 3800 MHz"};
    machine.max_freqs({5000000, 3800000});
    for (const char* text : {"", "\n", "N/A\n", "<unknown>\n", "99999999999999999999999\n"}) {
        machine.file(broken, text);
        EXPECT_EQ(unknown_is_slowest, detected(3)) << text;
    }
    machine.directory(broken);
    EXPECT_EQ(unknown_is_slowest, detected(3)) << "a folder in its place";
    machine.failing(broken);
    EXPECT_EQ(unknown_is_slowest, detected(3)) << "opens, but can't be read";
    machine.loop(broken);
    EXPECT_EQ(unknown_is_slowest, detected(3)) << "a link to itself";
    machine.unreadable(broken, "5000000\n");
    const WithoutPrivileges ordinary;
    EXPECT_EQ(unknown_is_slowest, detected(3)) << "no rights";
}

TEST(Detect, AClockNeedsNoLastNewlineAndIgnoresWhatFollows)
{
    FakeMachine machine;
    machine.max_freq(0, "5000000").max_freq(1, " 3800000 kHz\n");
    EXPECT_THAT(detected(2), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 3800 MHz"));
}

TEST(Detect, ReadsPlainNumbersInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    EXPECT_THAT(grouped({5000000, 3800000}), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 3800 MHz"));
}

TEST(Detect, LooksOnlyAtTheCpusBelowTheCount)
{
    FakeMachine machine;
    machine.max_freqs({5000000, 3800000, 1000000});
    EXPECT_THAT(detected(2), ElementsAre("Performance [0] slot 0 5000 MHz", "Efficiency [1] slot 1 3800 MHz"));
}

TEST(Detect, ReadsTheFilesAgainAtEachCall)
{
    FakeMachine machine;
    machine.max_freqs({5000000, 3800000});
    ASSERT_THAT(detected(2), SizeIs(2));
    machine.max_freqs({5000000, 5000000});
    EXPECT_THAT(detected(2), SizeIs(1));
}

TEST(Detect, AnyClocksGiveClustersInDescendingOrderWithNoCpuTwice)
{
    FakeMachine machine;
    std::mt19937_64 random(1);
    constexpr int CPUS = 8;
    for (int round = 0; round < 300; ++round) {
        for (std::size_t cpu = 0; cpu < CPUS; ++cpu) {
            machine.max_freq(cpu, std::to_string(random() >> random() % 64));
        }
        const auto clusters = CpuTopology::detect(CPUS);
        ASSERT_FALSE(clusters.empty());
        std::vector<int> times_shown(CPUS);
        for (std::size_t i = 0; i < clusters.size(); ++i) {
            EXPECT_TRUE(i == 0 || clusters[i - 1].max_freq_mhz >= clusters[i].max_freq_mhz);
            EXPECT_TRUE(std::is_sorted(clusters[i].cpu_indices.begin(), clusters[i].cpu_indices.end()));
            for (const std::int32_t cpu : clusters[i].cpu_indices) {
                EXPECT_EQ(1, ++times_shown.at(static_cast<std::size_t>(cpu)));
            }
        }
    }
}

// --- CpuCluster ---

TEST(CpuCluster, StartsOutUnnamedAndEmpty)
{
    const CpuCluster cluster;
    EXPECT_EQ("", cluster.name_key);
    EXPECT_EQ(-1, cluster.name_index);
    EXPECT_EQ(0, cluster.color_index);
    EXPECT_THAT(cluster.cpu_indices, IsEmpty());
    EXPECT_EQ(0.0, cluster.max_freq_mhz);
}

std::string title(const std::string& language, const std::string& name_key, std::int32_t name_index = -1)
{
    I18n::instance().set_language(language);
    return CpuCluster{.name_key = name_key, .name_index = name_index}.display_name();
}

TEST(DisplayName, IsTheTranslationOfThePlainName)
{
    EXPECT_EQ("Performance", title("en", "Performance"));
    EXPECT_EQ("Leistung", title("de", "Performance"));
    EXPECT_EQ("Balanced (H)", title("en", "Balanced-H"));
    EXPECT_EQ("Ausgewogen (L)", title("de", "Balanced-L"));
}

TEST(DisplayName, CpuIsNoWordOfTheTablesAndStaysInEveryLanguage)
{
    for (const LanguageInfo& language : I18n::available()) {
        EXPECT_EQ("CPU", title(language.code, "CPU"));
    }
}

TEST(DisplayName, FillsTheNumberIntoTheTranslatedPattern)
{
    EXPECT_EQ("Cluster 2", title("en", "Cluster %d", 2));
    EXPECT_EQ("集群 2", title("zh", "Cluster %d", 2));
    EXPECT_EQ("Cluster 0", title("en", "Cluster %d", 0)) << "zero is a number too";
}

TEST(DisplayName, FollowsTheLanguageWithoutDetectingAgain)
{
    const CpuCluster cluster = {.name_key = "Efficiency"};
    I18n::instance().set_language("en");
    EXPECT_EQ("Efficiency", cluster.display_name());
    I18n::instance().set_language("de");
    EXPECT_EQ("Effizienz", cluster.display_name());
}

}  // namespace
