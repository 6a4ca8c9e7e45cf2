/// Package power from the energy counter. The test holds the clock that the readings are measured by.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "held_clock.h"
#include "sensor_machine.h"
#include "system_metrics.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t JOULE = 1000000;  // microjoules

class Power : public testing::Test {
protected:
    Power() { g_time = START; }
    ~Power() override { g_time.reset(); }

    /// The machine has an energy counter, and the sampler is built.
    void build(const std::string& energy)
    {
        m_machine.file(ENERGY, energy + "\n");
        m_metrics.emplace();
    }

    /// Watts that are read at that time after the construction from a counter with that text.
    double at(Clock::duration time, const std::string& energy)
    {
        m_machine.file(ENERGY, energy);
        return at(time);
    }
    double at(Clock::duration time, std::uint64_t energy) { return at(time, std::to_string(energy) + "\n"); }
    double at(Clock::duration time)
    {
        g_time = START + time;
        return m_metrics->read_power();
    }

    static constexpr Clock::time_point START = Clock::time_point(std::chrono::hours(5));
    FakeMachine m_machine;
    std::optional<SystemMetrics> m_metrics;
};

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

TEST_F(Power, TheFirstValueIsTheMeanSinceTheConstruction)
{
    build("7000000");
    EXPECT_EQ(5.0, at(seconds(10), 57 * JOULE));
}

TEST_F(Power, EachFurtherValueIsTheMeanSinceTheReadingBefore)
{
    build("0");
    EXPECT_EQ(10.0, at(seconds(2), 20 * JOULE));
    EXPECT_EQ(30.0, at(seconds(4), 80 * JOULE));
    EXPECT_EQ(0.5, at(seconds(6), 81 * JOULE));
}

TEST_F(Power, FractionsOfSecondsAndOfJoulesCount)
{
    build("0");
    EXPECT_DOUBLE_EQ(0.000001 / 0.25, at(milliseconds(250), 1));
    EXPECT_DOUBLE_EQ(1.5 / 0.75, at(milliseconds(1000), 1500001));
    EXPECT_DOUBLE_EQ(1.0 / 1e-9, at(milliseconds(1000) + nanoseconds(1), 2500001)) << "no value is too high";
}

TEST_F(Power, ACounterThatStandsStillGivesNoReadingRatherThanZero)
{
    build("5000000");
    EXPECT_EQ(-1.0, at(seconds(2)));
    EXPECT_EQ(-1.0, at(seconds(4)));
    EXPECT_EQ(3.0, at(seconds(6), 11 * JOULE)) << "measured from the reading before, not from the last growth";
}

TEST_F(Power, ACounterThatWrappedGivesNoReadingOnceAndThenANormalOne)
{
    build("262143000000");
    EXPECT_EQ(5.0, at(seconds(2), 262153 * JOULE));
    EXPECT_EQ(-1.0, at(seconds(4), 4 * JOULE));
    EXPECT_EQ(6.0, at(seconds(6), 16 * JOULE));
}

TEST_F(Power, TheRangeAtWhichTheCounterWrapsIsNeverRead)
{
    const std::string range = POWERCAP + "/intel-rapl:0/max_energy_range_uj";
    m_machine.file(range, "262143328850\n").file(POWERCAP + "/intel-rapl:0/name", "package-0\n");
    OpenLog log({range, POWERCAP + "/intel-rapl:0/name", POWERCAP, POWERCAP + "/intel-rapl:0"});
    build("262143000000");
    at(seconds(2), 1 * JOULE);
    EXPECT_THAT(log.opened(), IsEmpty());
}

TEST_F(Power, TwoReadingsWithinOneTickOfTheClockGiveNoneButMoveTheBaseline)
{
    build("0");
    EXPECT_EQ(-1.0, at(seconds(0), 8 * JOULE));
    EXPECT_EQ(8 * JOULE, m_metrics->m_prev_energy);
    EXPECT_EQ(1.0, at(seconds(2), 10 * JOULE));
    EXPECT_EQ(-1.0, at(seconds(2), 11 * JOULE));
    EXPECT_EQ(2.0, at(seconds(3), 13 * JOULE));
}

TEST_F(Power, AClockThatStepsBackGivesNoReadingButMovesTheBaseline)
{
    build("0");
    EXPECT_EQ(-1.0, at(seconds(-1), 8 * JOULE));
    EXPECT_EQ(4.0, at(seconds(0), 12 * JOULE));
}

TEST_F(Power, AReadingThatFailsGivesNoneAndLeavesTheBaseline)
{
    build("1000000");
    int second = 0;
    for_each_failure(m_machine, ENERGY, "3000000\n", [&](const std::string& fault) {
        EXPECT_EQ(-1.0, at(seconds(++second))) << fault;
        EXPECT_EQ(1 * JOULE, m_metrics->m_prev_energy) << fault;
        EXPECT_EQ(START, m_metrics->m_prev_energy_time) << fault;
    });
    EXPECT_EQ(0.5, at(seconds(100), 51 * JOULE)) << "the mean over the whole gap";
}

TEST_F(Power, ACounterThatCannotBeReadAtConstructionIsOneAllTheSame)
{
    for (const char* text : {"", "N/A\n", "99999999999999999999999\n"}) {
        g_time = START;
        m_machine.file(ENERGY, text);
        m_metrics.emplace();
        EXPECT_TRUE(m_metrics->m_has_rapl);
        EXPECT_EQ(ENERGY, m_metrics->m_rapl_path);
        EXPECT_EQ(0, m_metrics->m_prev_energy);
        EXPECT_EQ(START, m_metrics->m_prev_energy_time) << "the time is stored though";
        EXPECT_EQ(-1.0, at(seconds(5)));
        EXPECT_EQ(4.0, at(seconds(10), 40 * JOULE)) << "measured from nothing at the construction";
    }
}

TEST_F(Power, ACounterThatIsNeverReadableGivesNoneOnEveryPassAndTheBaselineNeverMoves)
{
    m_machine.unreadable(ENERGY, "5000000\n");
    const WithoutPrivileges ordinary;
    m_metrics.emplace();
    EXPECT_TRUE(m_metrics->m_has_rapl);
    for (int pass = 1; pass <= 3; ++pass) {
        EXPECT_EQ(-1.0, at(seconds(2 * pass)));
        EXPECT_EQ(0, m_metrics->m_prev_energy);
        EXPECT_EQ(START, m_metrics->m_prev_energy_time);
    }
}

TEST_F(Power, AFolderOrAFailingFileInTheCountersPlaceExistsToo)
{
    m_machine.directory(ENERGY);
    m_metrics.emplace();
    EXPECT_TRUE(m_metrics->m_has_rapl);
    EXPECT_EQ(-1.0, at(seconds(2)));
    m_machine.failing(ENERGY);
    m_metrics.emplace();
    EXPECT_TRUE(m_metrics->m_has_rapl);
    EXPECT_EQ(-1.0, at(seconds(4)));
}

TEST_F(Power, TheCounterHas64BitsWithoutASign)
{
    build("18446744073707551615");
    EXPECT_EQ(1.0, at(seconds(2), std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(-1.0, at(seconds(4), "18446744073709551616\n")) << "too large";
    EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), m_metrics->m_prev_energy);
}

TEST_F(Power, ANegativeNumberSpoilsTwoReadingsAtMost)
{
    build("1000000");
    at(seconds(2), "-5\n");
    at(seconds(4), 6 * JOULE);
    EXPECT_EQ(2.0, at(seconds(6), 10 * JOULE));
}

TEST_F(Power, WhiteSpaceInFrontAndAMissingNewlineDoNoHarm)
{
    build("0");
    EXPECT_EQ(2.0, at(seconds(1), "2000000"));
    EXPECT_EQ(3.0, at(seconds(2), " \t\n5000000 uJ\n"));
}

TEST_F(Power, WithoutACounterNoFileIsTouched)
{
    m_metrics.emplace();
    EXPECT_FALSE(m_metrics->m_has_rapl);
    EXPECT_EQ("", m_metrics->m_rapl_path);
    m_machine.file(ENERGY, "1\n");
    OpenLog log({ENERGY});
    m_metrics->m_rapl_path = ENERGY;
    EXPECT_EQ(-1.0, at(seconds(2)));
    EXPECT_THAT(log.opened(), IsEmpty());
}

TEST_F(Power, ACounterThatShowsUpLaterIsNeverSeen)
{
    m_metrics.emplace();
    EXPECT_EQ(-1.0, at(seconds(2), 1 * JOULE));
    EXPECT_EQ(-1.0, at(seconds(4), 2 * JOULE));
}

TEST_F(Power, OnlyPackage0IsConsidered)
{
    for (const char* other : {"intel-rapl:1", "intel-rapl:0:0", "intel-rapl:0/intel-rapl:0:0"}) {
        m_machine.file(POWERCAP + "/" + other + "/energy_uj", "1\n");
    }
    m_machine.file("/sys/class/powercap/intel-rapl:0/energy_uj", "1\n");
    m_metrics.emplace();
    EXPECT_FALSE(m_metrics->m_has_rapl);
}

TEST_F(Power, OneReadingOpensItsFileOnce)
{
    build("0");
    OpenLog log({ENERGY});
    at(seconds(2));
    EXPECT_THAT(log.opened(), ElementsAre(ENERGY));
}

TEST_F(Power, AnErrorOfTheProbeLeavesTheConstructorOnPurpose)
{
    m_machine.loop(ENERGY);
    EXPECT_THROW(m_metrics.emplace(), std::filesystem::filesystem_error) << "a link to itself";
    m_machine.file(ENERGY, "1\n");
    std::filesystem::permissions(POWERCAP + "/intel-rapl:0", std::filesystem::perms::none);
    const WithoutPrivileges ordinary;
    EXPECT_THROW(m_metrics.emplace(), std::filesystem::filesystem_error) << "no rights in the folder";
}

TEST_F(Power, AFileInPlaceOfAFolderOnTheWayIsNoError)
{
    m_machine.file(POWERCAP, "");
    m_metrics.emplace();
    EXPECT_FALSE(m_metrics->m_has_rapl);
}

TEST_F(Power, APassPublishesItAndOneWithoutAReadingDoesNotKeepTheLast)
{
    build("0");
    EXPECT_EQ(-1.0, m_metrics->get_power()) << "before the first pass";
    const auto pass_at = [&](int second, int joules) {
        m_machine.file(ENERGY, std::to_string(joules) + "000000\n");
        g_time = START + seconds(second);
        m_metrics->sample();
        return m_metrics->get_power();
    };
    EXPECT_EQ(4.0, pass_at(1, 4));
    EXPECT_EQ(-1.0, pass_at(2, 4));
    EXPECT_EQ(2.0, pass_at(3, 6));
}

TEST_F(Power, IsReadPlainlyInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    build("1000000");
    EXPECT_EQ(2.5, at(seconds(2), 6 * JOULE));
    EXPECT_EQ(-1.0, at(seconds(4), "9.000.000\n")) << "nine microjoules";
    EXPECT_EQ(9, m_metrics->m_prev_energy);
}

}  // namespace
