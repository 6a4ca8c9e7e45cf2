/// The loads of the CPUs: lines of /proc/stat, the load between two readings, histories, and the sampling thread.
#include "cpu_reader.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <limits>
#include <random>

#include "fake_machine.h"

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;
using testing::SizeIs;
using RawStat = CPUReader::RawStat;

namespace {

std::atomic<std::chrono::nanoseconds> g_longest_sleep;  // that a thread has asked for

constexpr const char* STAT = "/proc/stat";
constexpr std::uint64_t HUGE_NUMBER = std::numeric_limits<std::uint64_t>::max();

std::vector<std::uint64_t> columns(const RawStat& s)
{
    return {s.user, s.nice, s.system, s.idle, s.iowait, s.irq, s.softirq, s.steal};
}

/// The columns of each per-CPU line that the reader finds in a /proc/stat with that text.
std::vector<std::vector<std::uint64_t>> parse(const std::string& text)
{
    FakeMachine machine;
    machine.file(STAT, text);
    std::vector<std::vector<std::uint64_t>> lines;
    for (const RawStat& stat : CPUReader().parse_proc_stat()) {
        lines.push_back(columns(stat));
    }
    return lines;
}

/// One reading whose loads the next call compares with: what the sampling thread does once a second, without the second.
void sample(CPUReader& reader)
{
    reader.publish(reader.parse_proc_stat());
}

std::vector<double> usages(const CPUReader& reader)
{
    std::vector<double> list;
    for (const CoreStats& core : reader.get_cores()) {
        list.push_back(core.usage);
    }
    return list;
}

std::vector<std::size_t> history_sizes(const CPUReader& reader)
{
    std::vector<std::size_t> list;
    for (const CoreStats& core : reader.get_cores()) {
        list.push_back(core.history.size());
    }
    return list;
}

std::size_t samples(const CPUReader& reader)
{
    return reader.get_total_history().size();
}

// --- parse_proc_stat ---

TEST(ParseProcStat, TakesTheEightColumnsInTheirOrderAndLeavesTheGuestsOut)
{
    EXPECT_THAT(parse("cpu0 1 2 3 4 5 6 7 8 9 10\n"), ElementsAre(ElementsAre(1, 2, 3, 4, 5, 6, 7, 8)));
}

TEST(ParseProcStat, TheSummaryLineIsNoCpu)
{
    EXPECT_THAT(parse("cpu  9 9 9 9 9 9 9 9 0 0\ncpu0 1 0 0 0 0 0 0 0 0 0\n"), ElementsAre(ElementsAre(1, 0, 0, 0, 0, 0, 0, 0)));
}

TEST(ParseProcStat, OnlyADigitAsFourthCharacterMakesACpuLine)
{
    EXPECT_THAT(parse("cpu\ncpu \ncpux 1\ncpu/ 1\ncpu: 1\nCPU0 1\ncp0 1\n cpu0 1\nxcpu0 1\n\n"), IsEmpty());
    EXPECT_THAT(parse("cpu0 1\ncpu9 1\n"), SizeIs(2));
}

TEST(ParseProcStat, LettersBehindTheDigitBelongToTheLabel)
{
    EXPECT_THAT(parse("cpu0x3:y 1 2 3 4 5 6 7 8\n"), ElementsAre(ElementsAre(1, 2, 3, 4, 5, 6, 7, 8)));
}

TEST(ParseProcStat, TheOrderIsThatOfTheFileAndNotOfTheNumbers)
{
    EXPECT_THAT(
        parse("cpu7 70\ncpu2 20\ncpu11 110\n"),
        ElementsAre(ElementsAre(70, 0, 0, 0, 0, 0, 0, 0), ElementsAre(20, 0, 0, 0, 0, 0, 0, 0), ElementsAre(110, 0, 0, 0, 0, 0, 0, 0)));
}

TEST(ParseProcStat, LooksAtAllLinesAndNotOnlyAtTheFirstOnes)
{
    EXPECT_THAT(parse("cpu0 1\nintr 5 6 7\n\ncpu1 1\nsoftirq 8\ncpu2 1"), SizeIs(3));
}

TEST(ParseProcStat, AShortLineHasZerosBehindItsLastNumber)
{
    EXPECT_THAT(parse("cpu0 1 2 3\n"), ElementsAre(ElementsAre(1, 2, 3, 0, 0, 0, 0, 0)));
    EXPECT_THAT(parse("cpu0\ncpu1 \n"), SizeIs(2)) << "no number at all";
    EXPECT_THAT(parse("cpu0\n"), ElementsAre(Each(0)));
}

TEST(ParseProcStat, FromAMalformedColumnOnAllIsZero)
{
    EXPECT_THAT(parse("cpu0 1 2 x 4 5 6 7 8\n"), ElementsAre(ElementsAre(1, 2, 0, 0, 0, 0, 0, 0)));
    EXPECT_THAT(parse("cpu0 1 2 3x 4 5 6 7 8\n"), ElementsAre(ElementsAre(1, 2, 3, 0, 0, 0, 0, 0)));
    EXPECT_THAT(parse("cpu0 1 18446744073709551616 3\n"), ElementsAre(ElementsAre(1, 0, 0, 0, 0, 0, 0, 0))) << "too large";
    EXPECT_THAT(parse(std::string("cpu0 1 2\0 3 4\n", 14)), ElementsAre(ElementsAre(1, 2, 0, 0, 0, 0, 0, 0)));
}

TEST(ParseProcStat, AMalformedLineSpoilsNoOther)
{
    EXPECT_THAT(parse("cpu0 x\ncpu1 99999999999999999999999\ncpu2\ncpu3 7\n"),
                ElementsAre(Each(0), Each(0), Each(0), ElementsAre(7, 0, 0, 0, 0, 0, 0, 0)));
}

TEST(ParseProcStat, TakesTheLargestCounter)
{
    EXPECT_THAT(parse("cpu0 0 0 0 18446744073709551615\n"), ElementsAre(ElementsAre(0, 0, 0, HUGE_NUMBER, 0, 0, 0, 0)));
}

TEST(ParseProcStat, WhiteSpaceOfAnyKindAndAMissingLastNewlineChangeNothing)
{
    EXPECT_THAT(parse("cpu0\t1   2\v3 4\f5 6 7 8\r"), ElementsAre(ElementsAre(1, 2, 3, 4, 5, 6, 7, 8)));
}

TEST(ParseProcStat, ReadsAThousandCpus)
{
    EXPECT_THAT(parse(stat_text(std::vector<Ticks>(1024, {5, 7}))), AllOf(SizeIs(1024), Each(ElementsAre(5, 0, 0, 7, 0, 0, 0, 0))));
}

TEST(ParseProcStat, ReadsPlainNumbersInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    EXPECT_THAT(parse("cpu0 1234567 2.5 3,5\n"), ElementsAre(ElementsAre(1234567, 2, 0, 0, 0, 0, 0, 0)));
}

TEST(ParseProcStat, IsEmptyWhereThereIsNothingToRead)
{
    FakeMachine machine;
    CPUReader reader;
    EXPECT_THAT(reader.parse_proc_stat(), IsEmpty()) << "no file";
    machine.file(STAT, "");
    EXPECT_THAT(reader.parse_proc_stat(), IsEmpty()) << "an empty file";
    machine.directory(STAT);
    EXPECT_THAT(reader.parse_proc_stat(), IsEmpty()) << "a folder in its place";
    machine.failing(STAT);
    EXPECT_THAT(reader.parse_proc_stat(), IsEmpty()) << "opens, but can't be read";
    machine.loop(STAT);
    EXPECT_THAT(reader.parse_proc_stat(), IsEmpty()) << "a link to itself";
    machine.unreadable(STAT, stat_text({{1, 1}}));
    const WithoutPrivileges ordinary;
    EXPECT_THAT(reader.parse_proc_stat(), IsEmpty()) << "no rights";
}

TEST(ParseProcStat, EachCallReadsTheFileAnew)
{
    FakeMachine machine;
    CPUReader reader;
    machine.stat({{1, 1}, {1, 1}});
    EXPECT_THAT(reader.parse_proc_stat(), SizeIs(2));
    machine.stat({{1, 1}});
    EXPECT_THAT(reader.parse_proc_stat(), SizeIs(1));
}

// --- calc_usage ---

TEST(CalcUsage, IsZeroForIdenticalCountersAsThatOfACpuThatNoTickReached)
{
    const RawStat same = {.user = 10, .nice = 2, .system = 3, .idle = 400, .iowait = 5, .irq = 6, .softirq = 7, .steal = 8};
    EXPECT_EQ(0.0, CPUReader::calc_usage(same, same));
}

TEST(CalcUsage, IsTheBusyShareOfTheTimeThatPassed)
{
    EXPECT_EQ(0.25, CPUReader::calc_usage({.user = 1000, .idle = 5000}, {.user = 1025, .idle = 5075}));
}

TEST(CalcUsage, EveryColumnCountsAsBusyButIdleAndIowait)
{
    for (auto RawStat::*const busy :
         {&RawStat::user, &RawStat::nice, &RawStat::system, &RawStat::irq, &RawStat::softirq, &RawStat::steal}) {
        RawStat now = {.idle = 60};
        now.*busy = 40;
        EXPECT_EQ(0.4, CPUReader::calc_usage({}, now));
    }
    for (auto RawStat::*const idle : {&RawStat::idle, &RawStat::iowait}) {
        RawStat now = {.system = 25};
        now.*idle = 75;
        EXPECT_EQ(0.25, CPUReader::calc_usage({}, now));
    }
}

TEST(CalcUsage, PureWaitingForInputAndOutputIsNoLoad)
{
    EXPECT_EQ(0.0, CPUReader::calc_usage({.iowait = 100}, {.iowait = 200}));
}

TEST(CalcUsage, AnIowaitThatStepsBackShowsAsFullLoadOnPurpose)
{
    EXPECT_EQ(1.0, CPUReader::calc_usage({.user = 100, .iowait = 50}, {.user = 110, .iowait = 45}));
}

TEST(CalcUsage, AnIdleDifferenceLargerThanTheTotalOneShowsAsFullLoadOnPurpose)
{
    EXPECT_EQ(1.0, CPUReader::calc_usage({.user = 100, .idle = 100}, {.user = 95, .idle = 110}));
}

TEST(CalcUsage, NoTimePassedIsNoLoadEvenIfTimeMovedBetweenColumns)
{
    EXPECT_EQ(0.0, CPUReader::calc_usage({.user = 100, .idle = 100}, {.user = 110, .idle = 90}));
}

TEST(CalcUsage, CountersThatWrapRoundGiveTheTrueLoad)
{
    EXPECT_EQ(0.5, CPUReader::calc_usage({.user = HUGE_NUMBER - 9, .idle = HUGE_NUMBER - 19}, {.user = 10, .idle = 0}));
}

TEST(CalcUsage, NeverLeavesZeroToOneWhateverTheCounters)
{
    std::mt19937_64 random(1);
    const auto any = [&] { return RawStat{random(), random(), random(), random(), random(), random(), random(), random()}; };
    for (int i = 0; i < 10000; ++i) {
        ASSERT_THAT(CPUReader::calc_usage(any(), any()), AllOf(Ge(0.0), Le(1.0)));
    }
}

// --- what a sample does with cores, total and histories ---

TEST(LoadSample, GivesEachCpuItsLoadAndTheMachineTheirPlainMean)
{
    FakeMachine machine;
    CPUReader reader;
    machine.stat({{0, 0}, {0, 0}});
    sample(reader);
    machine.stat({{50, 50}, {1000, 0}});  // the second one has had ten times the ticks, and counts no more for that
    sample(reader);
    EXPECT_THAT(usages(reader), ElementsAre(0.5, 1.0));
    EXPECT_EQ(0.75, reader.get_total());
    EXPECT_THAT(reader.get_cores()[0].history, ElementsAre(0.5));
    EXPECT_EQ(0.75, reader.get_total_history().back());
}

TEST(LoadSample, TheSummaryLineHasNoSayInTheTotal)
{
    FakeMachine machine;
    CPUReader reader;
    machine.file(STAT, "cpu  0 0 0 0\ncpu0 0 0 0 0\n");
    sample(reader);
    machine.file(STAT, "cpu  100 0 0 0\ncpu0 0 0 0 100\n");
    sample(reader);
    EXPECT_EQ(0.0, reader.get_total());
}

TEST(LoadSample, ComparesEachReadingWithTheOneBefore)
{
    FakeMachine machine;
    CPUReader reader;
    for (const Ticks& ticks : {Ticks{0, 0}, Ticks{100, 0}, Ticks{100, 100}, Ticks{150, 150}}) {
        machine.stat({ticks});
        sample(reader);
    }
    EXPECT_THAT(reader.get_cores()[0].history, ElementsAre(1.0, 0.0, 0.5));
}

TEST(LoadSample, HistoriesKeepTheLastSixtyValuesAndTheSixtyFirstDropsTheFirst)
{
    CPUReader reader;
    RawStat now;
    reader.m_prev_stats = {now};
    const auto next = [&](unsigned busy) {
        now.user += busy;
        now.idle += 100 - busy;
        reader.publish({now});
    };
    for (unsigned i = 1; i <= 60; ++i) {
        next(i);
        ASSERT_THAT(history_sizes(reader), ElementsAre(i));
        ASSERT_EQ(i, samples(reader));
    }
    EXPECT_EQ(0.01, reader.get_cores()[0].history.front());
    EXPECT_EQ(0.01, reader.get_total_history().front());
    for (unsigned i = 61; i <= 75; ++i) {
        next(i);
        ASSERT_THAT(history_sizes(reader), ElementsAre(60));
        ASSERT_EQ(60, samples(reader));
        EXPECT_EQ((i - 59) / 100.0, reader.get_cores()[0].history.front());
        EXPECT_EQ((i - 59) / 100.0, reader.get_total_history().front());
        EXPECT_EQ(i / 100.0, reader.get_total_history().back());
    }
}

TEST(LoadSample, AFullHistoryStaysInOneBlockOfMemory)
{
    CPUReader reader;
    reader.m_prev_stats = {RawStat()};
    const auto sample = [&](int times) {
        for (int i = 0; i < times; ++i) {
            reader.publish({RawStat()});
        }
    };
    sample(60);
    const std::deque<double>& history = reader.m_cores.at(0).history;
    const double* const oldest = &history.front();
    sample(200);
    EXPECT_EQ(&history.front(), oldest);
    EXPECT_EQ(&history.back(), oldest + 59);
}

TEST(LoadSample, ACpuThatGoesAwayTakesItsHistoryWithIt)
{
    FakeMachine machine;
    CPUReader reader;
    for (unsigned i = 0; i < 4; ++i) {
        machine.stat({{i, 0}, {0, i}, {i, i}});
        sample(reader);
    }
    ASSERT_THAT(history_sizes(reader), ElementsAre(3, 3, 3));
    machine.stat({{4, 0}, {0, 4}});
    sample(reader);
    EXPECT_THAT(history_sizes(reader), ElementsAre(4, 4));
    EXPECT_EQ(2, reader.core_count());
    EXPECT_EQ(0.5, reader.get_total());
}

TEST(LoadSample, ACpuThatComesBackStartsWithoutHistoryAndOneSampleLate)
{
    FakeMachine machine;
    CPUReader reader;
    machine.stat({{0, 0}, {0, 0}});
    sample(reader);
    machine.stat({{1, 0}, {1, 0}});
    sample(reader);
    machine.stat({{2, 0}});
    sample(reader);
    machine.stat({{3, 0}, {50, 0}});
    sample(reader);
    EXPECT_THAT(history_sizes(reader), ElementsAre(3)) << "the reading before knew one CPU";
    machine.stat({{4, 0}, {50, 50}});
    sample(reader);
    EXPECT_THAT(history_sizes(reader), ElementsAre(4, 1));
    EXPECT_THAT(reader.get_cores()[1].history, ElementsAre(0.0));
}

TEST(LoadSample, TheLineInTheMiddleThatGoesAwayCostsTheLastOneItsPlaceOnPurpose)
{
    FakeMachine machine;
    CPUReader reader;
    machine.file(STAT, "cpu0 0 0 0 0\ncpu1 0 0 0 0\ncpu2 0 0 0 0\n");
    sample(reader);
    machine.file(STAT, "cpu0 0 0 0 10\ncpu2 10 0 0 0\n");
    sample(reader);
    EXPECT_THAT(usages(reader), ElementsAre(0.0, 1.0)) << "position counts, not number";
}

TEST(LoadSample, TheTotalHistoryGoesOnThroughAChangeOfTheCpuCount)
{
    FakeMachine machine;
    CPUReader reader;
    for (const auto& cpus : {std::vector<Ticks>{{0, 0}, {0, 0}}, {{1, 0}, {1, 0}}, {{1, 1}}, {{2, 1}, {0, 0}}, {{2, 2}, {1, 0}}}) {
        machine.stat(cpus);
        sample(reader);
    }
    EXPECT_THAT(reader.get_total_history(), ElementsAre(0.0, 1.0, 0.0, 1.0, 0.5));
}

TEST(LoadSample, WithoutTheFileThereAreNoCpusAndTheTotalIsZero)
{
    FakeMachine machine;
    CPUReader reader;
    machine.stat({{0, 0}});
    sample(reader);
    machine.stat({{1, 0}});
    sample(reader);
    machine.remove(STAT);
    sample(reader);
    EXPECT_EQ(0, reader.core_count());
    EXPECT_EQ(0.0, reader.get_total());
    EXPECT_THAT(reader.get_total_history(), ElementsAre(0.0, 1.0, 0.0));
}

TEST(LoadSample, AFileThatComesBackCostsOneFurtherSample)
{
    FakeMachine machine;
    CPUReader reader;
    sample(reader);
    machine.stat({{5, 0}});
    sample(reader);
    EXPECT_EQ(0, reader.core_count());
    machine.stat({{9, 0}});
    sample(reader);
    EXPECT_THAT(reader.get_cores(), SizeIs(1));
    EXPECT_THAT(reader.get_cores()[0].history, ElementsAre(1.0));
    EXPECT_THAT(reader.get_total_history(), ElementsAre(0.0, 0.0, 1.0));
}

TEST(CpuReader, ItsGettersReturnCopiesThatLaterSamplesLeaveAlone)
{
    FakeMachine machine;
    CPUReader reader;
    machine.stat({{0, 0}});
    sample(reader);
    const auto cores = reader.get_cores();
    const auto total_history = reader.get_total_history();
    machine.stat({{1, 0}});
    sample(reader);
    reader.get_cores()[0].history.clear();
    EXPECT_THAT(cores, IsEmpty());
    EXPECT_THAT(total_history, ElementsAre(0.0));
    EXPECT_THAT(history_sizes(reader), ElementsAre(1));
}

// --- life cycle ---

TEST(CpuReader, StartsOutEmptyAndReadsNothingBeforeStart)
{
    FakeMachine machine;
    machine.hanging(STAT);  // whoever reads it never comes back
    const CPUReader reader;
    EXPECT_FALSE(reader.m_thread.joinable());
    EXPECT_FALSE(reader.m_running);
    EXPECT_THAT(reader.get_cores(), IsEmpty());
    EXPECT_EQ(0.0, reader.get_total());
    EXPECT_THAT(reader.get_total_history(), IsEmpty());
    EXPECT_EQ(0, reader.core_count());
}

TEST(CpuReader, StopWithoutStartReturnsAtOnceAndCanBeRepeated)
{
    CPUReader reader;
    reader.stop();
    reader.stop();
    EXPECT_FALSE(reader.m_running);
}

TEST(CpuReaderDeathTest, ASecondStartEndsTheProcess)
{
    FakeMachine machine;
    EXPECT_DEATH(
        {
            CPUReader reader;
            reader.start();
            reader.start();
        },
        "terminate called");
}

/// A running reader whose /proc/stat is a pipe, so that each reading gets exactly the text that the test feeds, however slow the
/// machine is.
class FedReader {
public:
    FedReader()
    {
        m_machine.hanging(STAT);
        m_reader.start();
    }
    ~FedReader() { stop(); }

    /// Feeds one reading. The first makes the CPUs known, each further one makes a sample, for which this waits.
    void feed(const std::string& text)
    {
        const std::size_t before = samples(m_reader);
        if (!wait_until([&] { return m_machine.hand_over(STAT, text); })) {
            throw std::runtime_error("no reading came");
        }
        if (m_fed && !wait_until([&] { return samples(m_reader) > before; })) {
            throw std::runtime_error("no sample came");
        }
        m_fed = true;
    }

    void stop()
    {
        auto stopped = std::async(std::launch::async, [&] { m_reader.stop(); });
        let_go_until(stopped);
    }

    /// Ends readings that hang until the stop is done.
    void let_go_until(const std::future<void>& stopped)
    {
        wait_until([&] {
            m_machine.hand_over(STAT, "");
            return stopped.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
    }

    CPUReader& operator*() { return m_reader; }
    CPUReader* operator->() { return &m_reader; }

private:
    FakeMachine m_machine;
    CPUReader m_reader;
    bool m_fed = false;
};

TEST(RunningReader, KnowsTheCpusAfterTheFirstReadingButNoLoadYet)
{
    FedReader reader;
    reader.feed(stat_text({{1, 2}, {3, 4}}));
    ASSERT_TRUE(wait_until([&] { return reader->core_count() == 2; }));
    EXPECT_THAT(usages(*reader), ElementsAre(0.0, 0.0));
    EXPECT_THAT(history_sizes(*reader), ElementsAre(0, 0));
    EXPECT_EQ(0.0, reader->get_total());
    EXPECT_EQ(0, samples(*reader));
}

TEST(RunningReader, TheSecondReadingGivesTheFirstLoads)
{
    FedReader reader;
    reader.feed(stat_text({{0, 0}, {0, 0}}));
    reader.feed(stat_text({{50, 50}, {100, 0}}));
    EXPECT_THAT(usages(*reader), ElementsAre(0.5, 1.0));
    EXPECT_THAT(reader->get_total_history(), ElementsAre(0.75));
}

TEST(RunningReader, FollowsCpusThatGoAwayAndComeBack)
{
    FedReader reader;
    reader.feed(stat_text({{0, 0}, {0, 0}}));
    reader.feed(stat_text({{1, 0}, {1, 0}}));
    reader.feed(stat_text({{2, 0}}));
    EXPECT_THAT(history_sizes(*reader), ElementsAre(2));
    reader.feed(stat_text({{3, 0}, {1, 0}}));
    EXPECT_THAT(history_sizes(*reader), ElementsAre(3));
    reader.feed(stat_text({{4, 0}, {1, 1}}));
    EXPECT_THAT(history_sizes(*reader), ElementsAre(4, 1));
    EXPECT_THAT(reader->get_total_history(), ElementsAre(1.0, 1.0, 1.0, 0.5));
}

TEST(RunningReader, OutlivesAFileThatGoesAndComesBack)
{
    FakeMachine machine;
    CPUReader reader;
    machine.stat({{1, 0}});
    reader.start();
    ASSERT_TRUE(wait_until([&] { return samples(reader) >= 1; }));
    machine.remove(STAT);
    ASSERT_TRUE(wait_until([&] { return reader.core_count() == 0; }));
    EXPECT_EQ(0.0, reader.get_total());
    const std::size_t without_cpus = samples(reader);
    machine.stat({{1, 0}});
    ASSERT_TRUE(wait_until([&] { return reader.core_count() == 1; }));
    EXPECT_GE(samples(reader), without_cpus + 2) << "one reading to compare with, one to compare";
    reader.stop();
}

TEST(RunningReader, PausesOneSecondBeforeASampleEvenWhenSignalsInterruptIt)
{
    struct sigaction ignoring = {};
    struct sigaction before = {};
    ignoring.sa_handler = [](int) {};  // without SA_RESTART, so that it ends a plain sleep
    sigaction(SIGUSR1, &ignoring, &before);
    FakeMachine machine;
    machine.stat({{1, 0}});
    CPUReader reader;
    const auto started = std::chrono::steady_clock::now();
    reader.start();
    ASSERT_TRUE(wait_until([&] {
        pthread_kill(reader.m_thread.native_handle(), SIGUSR1);
        return samples(reader) > 0;
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
    reader.stop();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(RunningReader, PausesNoLongerThanOneSecond)
{
    FakeMachine machine;
    machine.stat({{1, 0}});
    CPUReader reader;
    g_longest_sleep = std::chrono::nanoseconds(0);
    reader.start();
    ASSERT_TRUE(wait_until([&] { return samples(reader) > 0; }));
    EXPECT_EQ(std::chrono::seconds(1), g_longest_sleep.load()) << "asked for: how long a sleep lasts is the computer's affair";
    reader.stop();
}

TEST(RunningReader, StopDuringThePauseReadsNothingMore)
{
    FedReader reader;
    reader.feed(stat_text({{0, 0}}));
    ASSERT_TRUE(wait_until([&] { return reader->core_count() == 1; }));
    const auto stopped = std::async(std::launch::async, [&] { reader->stop(); });  // a further reading would hang
    EXPECT_EQ(std::future_status::ready, stopped.wait_for(DEADLINE));
    reader.let_go_until(stopped);
}

TEST(RunningReader, HasEndedOnceStopReturns)
{
    FakeMachine machine;
    machine.stat({{0, 0}});
    CPUReader reader;
    reader.start();
    EXPECT_TRUE(reader.m_running);
    reader.stop();
    EXPECT_FALSE(reader.m_thread.joinable());
    EXPECT_FALSE(reader.m_running);
    reader.stop();
}

TEST(CpuReaderDeathTest, TheDestructorStopsARunningReader)
{
    FakeMachine machine;
    machine.stat({{0, 0}});
    EXPECT_EXIT(
        {
            {
                CPUReader().start();
            }
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(RunningReader, NeverMakesAGetterWaitForTheKernel)
{
    FedReader reader;
    reader.feed(stat_text({{0, 0}}));
    reader.feed(stat_text({{1, 0}}));
    int pipe = -1;
    ASSERT_TRUE(wait_until([&] { return (pipe = open(STAT, O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }));  // it reads, and hangs
    auto answer = std::async(std::launch::async, [&] { return reader->get_cores().size() + reader->get_total_history().size(); });
    ASSERT_EQ(std::future_status::ready, answer.wait_for(DEADLINE));
    EXPECT_EQ(2, answer.get());
    close(pipe);
}

TEST(RunningReader, EveryGetterAnswersInAThreadOfItsOwnMeanwhile)
{
    FakeMachine machine;
    machine.stat({{0, 0}, {0, 0}});
    CPUReader reader;
    {
        const Asking cores([&] { return reader.get_cores(); },
                           [](const auto& list) {
                               for (const CoreStats& core : list) {
                                   EXPECT_LE(core.history.size(), 60);
                                   EXPECT_THAT(core.usage, AllOf(Ge(0.0), Le(1.0)));
                               }
                           });
        const Asking total([&] { return reader.get_total(); }, [](double load) { EXPECT_THAT(load, AllOf(Ge(0.0), Le(1.0))); });
        const Asking history([&] { return reader.get_total_history(); }, [](const auto& loads) { EXPECT_LE(loads.size(), 60); });
        const Asking count([&] { return reader.core_count(); }, [](int n) { EXPECT_LE(n, 2); });
        reader.start();
        unsigned long long ticks = 0;
        EXPECT_TRUE(wait_until([&] {
            ++ticks;
            machine.stat(ticks % 100 < 50 ? std::vector<Ticks>{{ticks, ticks}, {ticks, 0}} : std::vector<Ticks>{{ticks, ticks}});
            return samples(reader) >= 3;
        }));
    }
    reader.stop();
}

}  // namespace

/// Takes the place of the C library's, for the whole test program.
extern "C" int nanosleep(const timespec* length, timespec* rest)
{
    static const auto real = reinterpret_cast<decltype(&nanosleep)>(dlsym(RTLD_NEXT, "nanosleep"));
    const std::chrono::nanoseconds asked = std::chrono::seconds(length->tv_sec) + std::chrono::nanoseconds(length->tv_nsec);
    g_longest_sleep = std::max(g_longest_sleep.load(), asked);
    return real(length, rest);
}
