/// The readers of small kernel files.
#include "kernel_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

#include "fake_machine.h"

namespace {

constexpr const char* FILE_PATH = "/sys/class/hwmon/hwmon0/temp1_input";

/// The number read from a kernel file with that text.
template <typename T>
std::optional<T> number_in(const std::string& text)
{
    FakeMachine machine;
    machine.file(FILE_PATH, text);
    return read_number<T>(FILE_PATH);
}

std::string first_line_of(const std::string& text)
{
    FakeMachine machine;
    machine.file(FILE_PATH, text);
    return read_first_line(FILE_PATH);
}

void expect_nothing_read(const char* because)
{
    EXPECT_EQ(std::nullopt, read_number<int>(FILE_PATH)) << because;
    EXPECT_EQ(std::nullopt, read_number<double>(FILE_PATH)) << because;
    EXPECT_EQ("", read_first_line(FILE_PATH)) << because;
}

TEST(ReadNumber, GivesTheNumberOfAKernelFile)
{
    EXPECT_EQ(47000, number_in<std::int32_t>("47000\n"));
    EXPECT_EQ(-5, number_in<std::int32_t>("-5\n"));
    EXPECT_EQ(0U, number_in<std::uint64_t>("0\n"));
    EXPECT_EQ(2400.5, number_in<double>("2400.5\n"));
}

TEST(ReadNumber, NeedsNoFinalNewline)
{
    EXPECT_EQ(47000, number_in<std::int32_t>("47000"));
}

TEST(ReadNumber, SkipsWhiteSpaceInFrontAndIgnoresWhatFollows)
{
    EXPECT_EQ(12, number_in<std::int32_t>(" \t\n12abc 13\n14\n"));
    EXPECT_EQ(12, number_in<std::int32_t>(std::string("12\0003", 4)));
    EXPECT_EQ(0, number_in<std::int32_t>("0x10\n"));
}

TEST(ReadNumber, IsEmptyWithoutANumber)
{
    for (const char* text : {"", "\n", "   \n", "N/A\n", "-\n", "+\n", ".\n", "#5\n"}) {
        EXPECT_EQ(std::nullopt, number_in<std::int32_t>(text)) << text;
    }
    EXPECT_EQ(std::nullopt, number_in<std::int32_t>(std::string("\0005\n", 3)));
}

TEST(ReadNumber, TakesTheWholeRangeOfItsType)
{
    EXPECT_EQ(std::numeric_limits<std::int32_t>::max(), number_in<std::int32_t>("2147483647\n"));
    EXPECT_EQ(std::numeric_limits<std::int32_t>::min(), number_in<std::int32_t>("-2147483648\n"));
    EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), number_in<std::uint64_t>("18446744073709551615\n"));
}

TEST(ReadNumber, IsEmptyForANumberTooLargeForItsType)
{
    EXPECT_EQ(std::nullopt, number_in<std::int32_t>("2147483648\n"));
    EXPECT_EQ(std::nullopt, number_in<std::int32_t>("-2147483649\n"));
    EXPECT_EQ(std::nullopt, number_in<std::uint64_t>("18446744073709551616\n"));
    EXPECT_EQ(std::nullopt, number_in<std::uint64_t>(std::string(10000, '9')));
}

TEST(ReadNumber, ReadsADecimalPointInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    char text[8];
    std::snprintf(text, sizeof text, "%.1f", 1.5);
    ASSERT_STREQ("1,5", text);
    EXPECT_EQ(2400.5, number_in<double>("2400.5\n"));
    EXPECT_EQ(2400, number_in<int>("2400.500\n"));
}

TEST(ReadFirstLine, GivesTheLineWithoutItsLineFeed)
{
    EXPECT_EQ("x86_pkg_temp", first_line_of("x86_pkg_temp\n"));
    EXPECT_EQ("x86_pkg_temp", first_line_of("x86_pkg_temp\nacpitz\n"));
    EXPECT_EQ("x86_pkg_temp", first_line_of("x86_pkg_temp"));
}

TEST(ReadFirstLine, KeepsEveryOtherByte)
{
    EXPECT_EQ(" 0-3,5\t\r", first_line_of(" 0-3,5\t\r\n"));
    EXPECT_EQ(std::string("a\0b", 3), first_line_of(std::string("a\0b\n", 4)));
    EXPECT_EQ(std::string(1000000, 'x'), first_line_of(std::string(1000000, 'x') + "\n"));
}

TEST(ReadFirstLine, IsEmptyForAnEmptyFileOrLine)
{
    EXPECT_EQ("", first_line_of(""));
    EXPECT_EQ("", first_line_of("\nsecond\n"));
}

TEST(KernelFile, WhatCannotBeReadIsEmpty)
{
    FakeMachine machine;
    expect_nothing_read("no such folder");
    machine.file("/sys/class/hwmon/hwmon0/name", "coretemp\n");
    expect_nothing_read("no such file");
    machine.directory(FILE_PATH);
    expect_nothing_read("a folder in place of the file");
    machine.failing(FILE_PATH);
    expect_nothing_read("opens, but can't be read");
    machine.loop(FILE_PATH);
    expect_nothing_read("a link to itself");
    machine.link(FILE_PATH, "/sys/gone");
    expect_nothing_read("a link to nowhere");
    machine.unreadable(FILE_PATH, "47000\n");
    const WithoutPrivileges ordinary;
    expect_nothing_read("no rights");
}

TEST(KernelFile, EachCallReadsTheFileAsItStandsThen)
{
    FakeMachine machine;
    machine.file(FILE_PATH, "1\n");
    EXPECT_EQ(1, read_number<int>(FILE_PATH));
    machine.file(FILE_PATH, "2\n");
    EXPECT_EQ(2, read_number<int>(FILE_PATH));
    machine.remove(FILE_PATH);
    EXPECT_EQ(std::nullopt, read_number<int>(FILE_PATH));
    machine.file(FILE_PATH, "3\n");
    EXPECT_EQ(3, read_number<int>(FILE_PATH));
    EXPECT_EQ("3", read_first_line(FILE_PATH));
}

TEST(CpuFile, StandsInTheFolderOfTheCpuWithThatNumber)
{
    CpuFile file("cpufreq/cpuinfo_max_freq");
    EXPECT_EQ("/sys/devices/system/cpu/cpu1023/cpufreq/cpuinfo_max_freq", file.of(1023));
    EXPECT_EQ("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", file.of(0));
    EXPECT_EQ("/sys/devices/system/cpu", std::string(CPU_DIRECTORY));
}

TEST(CpuFile, PathOfATemporaryOutlivesIt)
{
    static_assert(std::is_same_v<decltype(std::declval<CpuFile&>().of(0)), const std::string&>, "one text serves all CPUs");
    static_assert(!std::is_reference_v<decltype(std::declval<CpuFile>().of(0))>, "into what is gone");
    const std::string& path = CpuFile("thermal_throttle/core_throttle_count").of(3);
    EXPECT_EQ("/sys/devices/system/cpu/cpu3/thermal_throttle/core_throttle_count", path);
}

}  // namespace
