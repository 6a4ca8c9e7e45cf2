/// The window's geometry, for each orientation, and its file "geometry.json" in good and in bad days.
#include "window_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <optional>
#include <type_traits>

#include "fake_machine.h"

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

constexpr const char* NO_FILE = "100 100 0 0 4 invalid";
constexpr const char* NO_KEYS = "0 0 0 0 4 invalid";

/// Every number differs from its default and from every other.
constexpr const char* WHOLE_FILE =
    R"({"x":-11,"y":12,"width":1300,"height":1400,"num_columns":5,"h_x":21,"h_y":-22,"h_width":2300,"h_height":2400,"h_num_columns":6})";
constexpr const char* WHOLE_VERTICAL = "-11 12 1300 1400 5 valid";
constexpr const char* WHOLE_HORIZONTAL = "21 -22 2300 2400 6 valid";

/// The keys of a set in the order of its fields, without their prefix.
constexpr std::array<const char*, 5> KEYS = {"x", "y", "width", "height", "num_columns"};
constexpr std::array<int, 5> DEFAULTS = {0, 0, 0, 0, 4};
constexpr std::size_t COLUMNS = 4;  ///< the one that is held between 1 and 16

std::array<int, 5> numbers(const WindowGeometry& g)
{
    return {g.x, g.y, g.width, g.height, g.num_columns};
}

std::string text_of(const WindowGeometry& geometry)
{
    std::string text;
    for (const int number : numbers(geometry)) {
        text += std::to_string(number) + ' ';
    }
    return text + (geometry.valid ? "valid" : "invalid");
}

std::string prefix(bool horizontal)
{
    return horizontal ? "h_" : "";
}

struct WindowManagerTest : testing::Test {
    /// The set of that orientation from a file with that text.
    WindowGeometry loaded(const std::string& text, bool horizontal = false)
    {
        home.lay("geometry.json", text);
        return manager.load(horizontal);
    }

    /// The file after a save of the vertical set 1 2 3 4 5 over that text.
    std::string resaved(const std::string& text)
    {
        home.lay("geometry.json", text);
        manager.save(1, 2, 3, 4, 5, false);
        return saved();
    }

    /// Expects for every key of both sets that a file whose `"key"` is followed by these bytes gives that number, or without one the
    /// default.
    void expect_number(std::optional<int> number, const std::string& behind_key)
    {
        for (const bool horizontal : {false, true}) {
            for (std::size_t i = 0; i < KEYS.size(); ++i) {
                const int wanted = number.value_or(DEFAULTS[i]);
                const std::string text = "{\"" + prefix(horizontal) + KEYS[i] + '"' + behind_key;
                EXPECT_EQ(i == COLUMNS ? std::clamp(wanted, 1, 16) : wanted, numbers(loaded(text, horizontal))[i]) << text;
            }
        }
    }

    std::string saved() const { return read_text(file); }

    TemporaryHome home;
    WindowManager manager;
    const std::string folder = home.config();
    const std::string file = folder + "/geometry.json";
};

using GeometryPlace = WindowManagerTest;
using GeometryNumber = WindowManagerTest;
using GeometrySet = WindowManagerTest;
using GeometryLoad = WindowManagerTest;
using GeometrySave = WindowManagerTest;

// --- the record and the object ---

TEST(GeometryRecord, StartsWithoutASize)
{
    EXPECT_EQ(NO_FILE, text_of(WindowGeometry()));
    static_assert(std::is_same_v<std::int32_t, decltype(WindowGeometry::x)> && std::is_same_v<std::int32_t, decltype(WindowGeometry::y)>);
    static_assert(std::is_same_v<std::int32_t, decltype(WindowGeometry::width)>);
    static_assert(std::is_same_v<std::int32_t, decltype(WindowGeometry::height)>);
    static_assert(std::is_same_v<std::int32_t, decltype(WindowGeometry::num_columns)>);
}

TEST_F(WindowManagerTest, TheInstanceIsOneAndHoldsNothing)
{
    EXPECT_EQ(&WindowManager::instance(), &WindowManager::instance());
    EXPECT_TRUE(std::is_empty_v<WindowManager>);
    WindowManager::instance().save(1, 2, 3, 4, 5, false);
    fs::remove(file);
    EXPECT_EQ(NO_FILE, text_of(WindowManager::instance().load(false)));
}

// --- where the file stands ---

TEST_F(GeometryPlace, IsBelowTheConfigFolderOfHome)
{
    EXPECT_EQ(home.path() + "/.config/Vantric/geometry.json", manager.get_config_path());
}

TEST_F(GeometryPlace, IsBelowTheCommonFolderOfSnap)
{
    const TemporaryFolder snap;
    const ScopedEnv common("SNAP_USER_COMMON", snap.path());
    EXPECT_EQ(snap.path() + "/config/geometry.json", manager.get_config_path());
    manager.save(1, 2, 3, 4, 5, false);
    EXPECT_TRUE(fs::exists(snap.path() + "/config/geometry.json"));
    EXPECT_EQ("1 2 3 4 5 valid", text_of(manager.load(false)));
    EXPECT_FALSE(fs::exists(home.path() + "/.config"));
}

TEST_F(GeometryPlace, AnEmptySnapFolderCountsAsSetAndGivesSlashConfig)
{
    const ScopedEnv common("SNAP_USER_COMMON", "");
    const WithoutPrivileges ordinary;  // who can't make it
    EXPECT_EQ("/config/geometry.json", manager.get_config_path());
}

TEST_F(GeometryPlace, IsBelowTheWorkingDirectoryWithoutHome)
{
    const fs::path before = fs::current_path();
    fs::current_path(home.path());
    {
        const ScopedEnv homeless("HOME", std::nullopt);
        EXPECT_EQ("./.config/Vantric/geometry.json", manager.get_config_path());
        manager.save(1, 2, 3, 4, 5, false);
    }
    fs::current_path(before);
    EXPECT_EQ("1 2 3 4 5 valid", text_of(manager.load(false)));
}

TEST_F(GeometryPlace, AnEmptyHomeCountsAsSet)
{
    const ScopedEnv empty("HOME", "");
    const WithoutPrivileges ordinary;
    EXPECT_EQ("/.config/Vantric/geometry.json", manager.get_config_path());
}

TEST_F(GeometryPlace, LoadingMakesTheFoldersAtEveryCallAndNoFile)
{
    for (const bool horizontal : {false, true, false}) {
        ASSERT_FALSE(fs::exists(home.path() + "/.config"));
        manager.load(horizontal);
        EXPECT_TRUE(fs::is_directory(folder));
        EXPECT_TRUE(fs::is_empty(folder));
        remove_tree(home.path() + "/.config");
    }
}

TEST_F(GeometryPlace, SavingMakesTheFoldersAtEveryCall)
{
    for (const bool horizontal : {false, true, false}) {
        ASSERT_FALSE(fs::exists(home.path() + "/.config"));
        manager.save(1, 2, 3, 4, 5, horizontal);
        EXPECT_EQ("1 2 3 4 5 valid", text_of(manager.load(horizontal)));
        remove_tree(home.path() + "/.config");
    }
}

TEST_F(GeometryPlace, IsFoundAfreshAtEachCall)
{
    manager.save(1, 2, 3, 4, 5, false);
    const std::string first = saved();
    const TemporaryHome other;
    EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
    manager.save(6, 7, 8, 9, 10, false);
    EXPECT_EQ("6 7 8 9 10 valid", text_of(manager.load(false)));
    EXPECT_EQ(first, saved());
}

TEST_F(GeometryPlace, IsNamedAllTheSameWhereTheFoldersCannotBeMade)
{
    write_text(home.path() + "/.config", "a file in place of the folder");
    EXPECT_EQ(file, manager.get_config_path());
    const ScopedEnv nowhere("HOME", "/proc/self");
    EXPECT_EQ("/proc/self/.config/Vantric/geometry.json", manager.get_config_path()) << "not even root can make folders there";
}

// --- reading a number ---

TEST_F(GeometryNumber, IsDecimalWithAnOptionalSign)
{
    expect_number(12, ":12}");
    expect_number(-5, ":-5}");
    expect_number(5, ":+5}");
    expect_number(0, ":0}");
    expect_number(0, ":-0}");
    expect_number(7, ":007}");
    expect_number(0, ":0x10}");
    expect_number(8, ":" + std::string(100, '0') + "8}");
}

TEST_F(GeometryNumber, EndsAtTheFirstByteThatIsNoDigit)
{
    for (const std::string behind : {"abc", " 3", ",3", ".9", ".000.000", "e3", "-3", "\"", "}", "\n", "_000", "\xC3\xA9"}) {
        expect_number(12, ":12" + behind);
    }
    expect_number(12, ":12\0003"s);
}

TEST_F(GeometryNumber, MayStandAtTheVeryEndOfTheFile)
{
    expect_number(12, ":12");
    expect_number(-5, ": -5");
    expect_number(std::nullopt, ":");
    expect_number(std::nullopt, ": ");
    expect_number(std::nullopt, ":-");
    expect_number(std::nullopt, ":+");
    expect_number(std::nullopt, "");
}

TEST_F(GeometryNumber, MayStandBehindWhiteSpace)
{
    expect_number(12, ": 12");
    expect_number(12, ": \t\n\v\f\r12");
    expect_number(12, ":" + std::string(10000, ' ') + "12");
    expect_number(std::nullopt, ":- 12");
    expect_number(std::nullopt, ":\xC2\xA0" + "12"s);  // a no-break space
}

TEST_F(GeometryNumber, NeedsTheColonRightBehindTheKey)
{
    for (const std::string between : {" ", "\n", "\t", "=", ",", "\"", "x"}) {
        expect_number(std::nullopt, between + ":12");
        expect_number(std::nullopt, between + ": 12");
    }
    expect_number(std::nullopt, " 12");
    expect_number(std::nullopt, "::12");
}

TEST_F(GeometryNumber, IsTheDefaultWhereThereAreNoDigits)
{
    for (const std::string none : {"\"12\"", "x", "null", "true", "[12]", "{\"z\":12}", "--5", "+-5", ".5", "#5", "\xEF\xBB\xBF 5"}) {
        expect_number(std::nullopt, ":" + none);
    }
    expect_number(std::nullopt, ":\00012"s);
}

TEST_F(GeometryNumber, IsTheDefaultWhereItDoesNotFitIn32Bits)
{
    expect_number(INT_MAX, ":2147483647}");
    expect_number(INT_MIN, ":-2147483648}");
    for (const char* too_large : {"2147483648", "-2147483649", "4294967296", "4294967308", "99999999999", "-99999999999",
                                  "9223372036854775808", "99999999999999999999999999"}) {
        expect_number(std::nullopt, ":" + std::string(too_large) + "}");
    }
}

TEST_F(GeometryNumber, EveryByteBehindTheColonCountsForWhatItIs)
{
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        int expected = 0;
        if (c >= '0' && c <= '9') {
            expected = 10 * (c - '0') + 7;
        } else if ("\t\n\v\f\r +"s.find(c) != std::string::npos) {
            expected = 7;
        } else if (c == '-') {
            expected = -7;
        }
        EXPECT_EQ(expected, loaded("{\"x\":"s + c + "7}").x) << "byte " << byte;
    }
}

TEST_F(GeometryNumber, IsFoundUnderExactlyItsKey)
{
    for (const std::string other : {R"("xx":1)", R"("_x":1)", R"("X":1)", R"("x ":1)", R"(" x":1)", R"('x':1)", "x:1", R"(x":1)", R"("x:1)",
                                    R"("h_x":1)", R"("max":1)", R"("\u0078":1)"}) {
        EXPECT_EQ(0, loaded("{" + other + "}").x) << other;
        EXPECT_EQ(5, loaded("{" + other + ",\"x\":5}").x) << other;
    }
    EXPECT_EQ(0, loaded(R"({"x":1,"H_x":2,"hx":3,"_h_x":4})", true).x);
}

TEST_F(GeometryNumber, TheFirstOccurrenceWinsEvenIfItHoldsNoNumber)
{
    expect_number(1, ":1,\"x\":2,\"y\":2,\"width\":2,\"height\":2,\"num_columns\":2}");
    EXPECT_EQ(1, loaded(R"({"x":1,"x":2})").x);
    EXPECT_EQ(1, loaded(R"({"h_x":1,"h_x":2})", true).x);
    EXPECT_EQ(0, loaded(R"({"x":"1","x":2})").x);
    EXPECT_EQ(0, loaded(R"({"x":,"x":2})").x);
}

TEST_F(GeometryNumber, AKeyThatStandsAsAValueIsNoKey)
{
    EXPECT_EQ(5, loaded(R"({"name":"x","x":5})").x);
    EXPECT_EQ(5, loaded(R"({"name":"x" ,"x" :4,"x":5})").x);
}

TEST_F(GeometryNumber, NeitherNestingNorStringsMeanAnything)
{
    EXPECT_EQ("1 2 3 4 5 valid", text_of(loaded(R"([{"old":{"x":1,"y":2}},"width":3,{{{"height":4}}"num_columns":5)")));
    EXPECT_EQ(1, loaded(R"({"note":'say "x":1',"x":2})").x);
}

// --- reading a set ---

TEST_F(GeometrySet, TakesEveryNumberOfItsOrientation)
{
    EXPECT_EQ(WHOLE_VERTICAL, text_of(loaded(WHOLE_FILE, false)));
    EXPECT_EQ(WHOLE_HORIZONTAL, text_of(loaded(WHOLE_FILE, true)));
}

TEST_F(GeometrySet, OrderAndLineEndsAndUnknownKeysDoNotMatter)
{
    const std::string text =
        "\xEF\xBB\xBF{\r\n \"h_num_columns\":\r\n6,\t\"width\": 1300, \"version\": 3, \"h_y\":-22,\"y\":12,\r\n\"h_width\":2300, "
        "\"x\":\n-11,"
        "\"h_height\":2400,\"num_columns\":5,\"h_x\":21,\"height\":1400}\r\n";
    EXPECT_EQ(WHOLE_VERTICAL, text_of(loaded(text, false)));
    EXPECT_EQ(WHOLE_HORIZONTAL, text_of(loaded(text, true)));
}

TEST_F(GeometrySet, IsAllZeroAndFourColumnsWithoutKeys)
{
    for (const std::string& text :
         {" "s, "\n"s, "{}"s, "[]"s, "{"s, "nonsense"s, "\0"s, "\xEF\xBB\xBF"s, "\xFF\xFE"s, std::string(1000, '"')}) {
        EXPECT_EQ(NO_KEYS, text_of(loaded(text, false))) << testing::PrintToString(text);
        EXPECT_EQ(NO_KEYS, text_of(loaded(text, true))) << testing::PrintToString(text);
    }
}

TEST_F(GeometrySet, EachMissingNumberHasItsOwnDefault)
{
    for (const bool horizontal : {false, true}) {
        for (std::size_t missing = 0; missing < KEYS.size(); ++missing) {
            std::array<int, 5> expected = {101, 102, 103, 104, 15};
            std::string text;
            for (std::size_t i = 0; i < KEYS.size(); ++i) {
                text += '"' + prefix(horizontal) + KEYS[i] + (i == missing ? "?" : "") + "\":" + std::to_string(expected[i]) + ',';
            }
            expected[missing] = DEFAULTS[missing];
            EXPECT_EQ(expected, numbers(loaded(text, horizontal))) << text;
        }
    }
}

TEST_F(GeometrySet, IsValidExactlyWithAWidthAboveZero)
{
    for (const bool horizontal : {false, true}) {
        const std::string p = prefix(horizontal);
        EXPECT_EQ("0 0 1 0 4 valid", text_of(loaded("{\"" + p + "width\":1}", horizontal)));
        EXPECT_EQ("0 0 2147483647 0 4 valid", text_of(loaded("{\"" + p + "width\":2147483647}", horizontal)));
        EXPECT_EQ("0 0 -1 0 4 invalid", text_of(loaded("{\"" + p + "width\":-1}", horizontal)));
        EXPECT_EQ("0 0 0 0 4 invalid", text_of(loaded("{\"" + p + "width\":0}", horizontal)));
        const std::string others = "\",\"" + p + "x\":-7,\"" + p + "y\":-8,\"" + p + "height\":-9,\"" + p + "num_columns\":3";
        EXPECT_EQ("-7 -8 1 -9 3 valid", text_of(loaded("{\"" + p + "width\":1" + others, horizontal)));
        EXPECT_EQ("7 8 0 9 3 invalid", text_of(loaded("{\"" + p + "x\":7,\"" + p + "y\":8,\"" + p + "height\":9,\"" + p +
                                                          "num_columns\":3,\"" + p + "valid\":true,\"valid\":true}",
                                                      horizontal)));
    }
}

TEST_F(GeometrySet, HasOneToSixteenColumns)
{
    const std::vector<std::pair<std::string, int>> table = {
        {"-2147483648", 1}, {"-3", 1},  {"0", 1},           {"1", 1},          {"2", 2}, {"15", 15}, {"16", 16},
        {"17", 16},         {"99", 16}, {"2147483647", 16}, {"2147483648", 4}, {"x", 4}, {"", 4},    {"\"8\"", 4},
    };
    for (const bool horizontal : {false, true}) {
        for (const auto& [written, columns] : table) {
            const std::string text = "{\"" + prefix(horizontal) + "num_columns\":" + written + "}";
            EXPECT_EQ(columns, loaded(text, horizontal).num_columns) << text;
        }
    }
}

TEST_F(GeometrySet, NulBytesAreBytesLikeAnyOther)
{
    EXPECT_EQ("0 0 3 0 4 valid", text_of(loaded("\0\0\"width\":3\0\0"s)));
    EXPECT_EQ("0 2 3 0 4 valid", text_of(loaded("\"x\0\":1\0\"y\":2\0\"width\":3"s)));
}

TEST_F(GeometrySet, IsFoundAmongBinaryBytes)
{
    std::string noise;
    for (int i = 0; i < 256 * 16; ++i) {
        noise += static_cast<char>(i * 7);
    }
    EXPECT_EQ(WHOLE_VERTICAL, text_of(loaded(noise + WHOLE_FILE + noise, false)));
    EXPECT_EQ(WHOLE_HORIZONTAL, text_of(loaded(noise + WHOLE_FILE + noise, true)));
}

TEST_F(GeometrySet, IsFoundInAHugeFile)
{
    const std::size_t huge = 4'000'000;
    EXPECT_EQ(WHOLE_VERTICAL, text_of(loaded(std::string(huge, '"') + WHOLE_FILE, false)));
    EXPECT_EQ(WHOLE_HORIZONTAL, text_of(manager.load(true)));
    EXPECT_EQ(WHOLE_HORIZONTAL, text_of(loaded(WHOLE_FILE + std::string(huge, '7'), true)));
    EXPECT_EQ(NO_KEYS, text_of(loaded("{\"width\":" + std::string(huge, '7') + "}")));
}

// --- loading ---

TEST_F(GeometryLoad, GivesTheMemberDefaultsWithoutAFile)
{
    EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
    EXPECT_EQ(NO_FILE, text_of(manager.load(true)));
}

TEST_F(GeometryLoad, AnEmptyFileIsLikeNoneAndABlankIsNot)
{
    EXPECT_EQ(NO_FILE, text_of(loaded("", false)));
    EXPECT_EQ(NO_FILE, text_of(loaded("", true)));
    EXPECT_EQ(NO_KEYS, text_of(loaded(" ", false)));
    EXPECT_EQ(NO_KEYS, text_of(loaded(" ", true)));
}

TEST_F(GeometryLoad, NeverRewritesTheFile)
{
    const std::string damaged = R"({"num_columns":99,"width" : 3)";
    loaded(damaged, false);
    const WindowManager& constant = manager;
    EXPECT_EQ(16, constant.load(false).num_columns);
    EXPECT_EQ(damaged, saved());
}

TEST_F(GeometryLoad, ReadsTheFileAtEachCall)
{
    EXPECT_EQ(WHOLE_VERTICAL, text_of(loaded(WHOLE_FILE)));
    EXPECT_EQ("0 0 3 0 4 valid", text_of(loaded("\"width\":3")));
    fs::remove(file);
    EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
}

TEST_F(GeometryLoad, WhatCannotBeReadIsLikeNoFile)
{
    const auto expect_no_file = [&](const char* reason) {
        EXPECT_EQ(NO_FILE, text_of(manager.load(false))) << reason;
        EXPECT_EQ(NO_FILE, text_of(manager.load(true))) << reason;
    };
    fs::create_directories(file);
    expect_no_file("a folder in its place");
    fs::remove(file);
    fs::create_symlink("/proc/self/mem", file);
    expect_no_file("opens, but can't be read");
    fs::remove(file);
    fs::create_symlink(file, file);
    expect_no_file("a link to itself");
    fs::remove(file);
    home.lay("geometry.json", WHOLE_FILE);
    fs::permissions(file, fs::perms::none);
    const WithoutPrivileges ordinary;
    expect_no_file("no rights");
}

TEST_F(GeometryLoad, WhereTheFolderCannotBeMadeThereIsNoFile)
{
    const ScopedEnv nowhere("HOME", "/proc/self");
    EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
}

TEST_F(GeometryLoad, AFileThatIsCutAnywhereGivesWhatIsLeft)
{
    const std::string whole = WHOLE_FILE;
    for (std::size_t size = 1; size <= whole.size(); ++size) {
        const std::string cut = whole.substr(0, size);
        home.lay("geometry.json", cut);
        for (const bool horizontal : {false, true}) {
            const std::array<int, 5> found = numbers(manager.load(horizontal));
            for (std::size_t i = 0; i < KEYS.size(); ++i) {
                const std::string key = '"' + prefix(horizontal) + KEYS[i] + "\":";
                const std::size_t begin = whole.find(key) + key.size();
                const std::string left = cut.substr(std::min(begin, size), whole.find_first_of(",}", begin) - begin);
                ASSERT_EQ(left.empty() || left == "-" ? DEFAULTS[i] : std::stoi(left), found[i]) << key << " of " << cut;
            }
        }
    }
}

// --- saving ---

TEST_F(GeometrySave, WritesTheVerticalSetOnNoFileByteForByte)
{
    manager.save(10, 20, 300, 400, 2, false);
    EXPECT_EQ(R"({"x":10,"y":20,"width":300,"height":400,"num_columns":2,"h_x":0,"h_y":0,"h_width":0,"h_height":0,"h_num_columns":4})",
              saved());
    EXPECT_EQ("10 20 300 400 2 valid", text_of(manager.load(false)));
    EXPECT_EQ(NO_KEYS, text_of(manager.load(true)));
}

TEST_F(GeometrySave, WritesTheHorizontalSetOnNoFileByteForByte)
{
    manager.save(10, 20, 300, 400, 2, true);
    EXPECT_EQ(R"({"x":0,"y":0,"width":0,"height":0,"num_columns":4,"h_x":10,"h_y":20,"h_width":300,"h_height":400,"h_num_columns":2})",
              saved());
    EXPECT_EQ(NO_KEYS, text_of(manager.load(false)));
    EXPECT_EQ("10 20 300 400 2 valid", text_of(manager.load(true)));
}

TEST_F(GeometrySave, KeepsTheOtherSet)
{
    manager.save(10, 20, 300, 400, 2, false);
    manager.save(1, 2, 3, 4, 5, true);
    EXPECT_EQ(R"({"x":10,"y":20,"width":300,"height":400,"num_columns":2,"h_x":1,"h_y":2,"h_width":3,"h_height":4,"h_num_columns":5})",
              saved());
    manager.save(-6, -7, 8, 9, 10, false);
    EXPECT_EQ(R"({"x":-6,"y":-7,"width":8,"height":9,"num_columns":10,"h_x":1,"h_y":2,"h_width":3,"h_height":4,"h_num_columns":5})",
              saved());
}

TEST_F(GeometrySave, SavingWhatIsStoredChangesNoByte)
{
    home.lay("geometry.json", WHOLE_FILE);
    manager.save(-11, 12, 1300, 1400, 5, false);
    EXPECT_EQ(WHOLE_FILE, saved());
    manager.save(21, -22, 2300, 2400, 6, true);
    EXPECT_EQ(WHOLE_FILE, saved());
}

TEST_F(GeometrySave, NegativePositionsComeBackUnchanged)
{
    manager.save(-1920, -1, 300, 400, 2, false);
    manager.save(-3840, -1080, 500, 600, 3, true);
    EXPECT_EQ("-1920 -1 300 400 2 valid", text_of(manager.load(false)));
    EXPECT_EQ("-3840 -1080 500 600 3 valid", text_of(manager.load(true)));
}

TEST_F(GeometrySave, WritesItsNumbersUncheckedAndTheOthersAsRead)
{
    for (const bool horizontal : {false, true}) {
        const std::string key = "\"" + prefix(horizontal) + "num_columns\":";
        manager.save(1, 2, 3, 4, 99, horizontal);
        EXPECT_THAT(saved(), HasSubstr(key + "99"));
        EXPECT_EQ(16, manager.load(horizontal).num_columns);
        manager.save(1, 2, 3, 4, 5, !horizontal);
        EXPECT_THAT(saved(), HasSubstr(key + "16"));

        manager.save(1, 2, 3, 4, -7, horizontal);
        EXPECT_THAT(saved(), HasSubstr(key + "-7"));
        EXPECT_EQ(1, manager.load(horizontal).num_columns);
        manager.save(1, 2, 3, 4, 5, !horizontal);
        EXPECT_THAT(saved(), AllOf(HasSubstr(key + '1'), Not(HasSubstr(key + "16"))));
    }
}

TEST_F(GeometrySave, AnImpossibleSizeIsStoredToo)
{
    manager.save(INT_MIN, INT_MAX, INT_MIN, INT_MAX, INT_MIN, false);
    EXPECT_THAT(saved(), testing::StartsWith(R"({"x":-2147483648,"y":2147483647,"width":-2147483648,"height":2147483647,)"
                                             R"("num_columns":-2147483648,)"));
    EXPECT_EQ("-2147483648 2147483647 -2147483648 2147483647 1 invalid", text_of(manager.load(false)));
    manager.save(0, 0, 0, 0, 0, false);
    EXPECT_EQ("0 0 0 0 1 invalid", text_of(manager.load(false)));
    EXPECT_THAT(saved(), HasSubstr("\"num_columns\":0,\"h_x\""));
}

TEST_F(GeometrySave, CompletesAFileThatHoldsOneSetOnly)
{
    home.lay("geometry.json", R"({"x":10,"y":20,"width":300,"height":400,"num_columns":2})");
    EXPECT_EQ(NO_KEYS, text_of(manager.load(true)));
    manager.save(1, 2, 3, 4, 5, true);
    EXPECT_EQ(R"({"x":10,"y":20,"width":300,"height":400,"num_columns":2,"h_x":1,"h_y":2,"h_width":3,"h_height":4,"h_num_columns":5})",
              saved());
}

TEST_F(GeometrySave, RewritesTheOtherSetAsItWasRead)
{
    const std::string mine = R"({"x":1,"y":2,"width":3,"height":4,"num_columns":5,)";
    const std::string no_other = R"("h_x":0,"h_y":0,"h_width":0,"h_height":0,"h_num_columns":4})";
    EXPECT_EQ(mine + no_other, resaved("")) << "not the 100, 100 of a missing file";
    EXPECT_EQ(mine + no_other, resaved("nonsense\0nonsense\n"s));
    EXPECT_EQ(mine + no_other, resaved(R"({"h_x":"1","h_y" :2,"h_width":99999999999,"h_height":null,"h_num_columns":?})"));
    EXPECT_EQ(mine + R"("h_x":5,"h_y":-6,"h_width":-7,"h_height":0,"h_num_columns":16})",
              resaved("{\"h_y\": -6.5,\n\"h_x\":+0005,\"h_width\":-7x,\"h_height\":0x20,\"h_num_columns\":17}\n"));
}

TEST_F(GeometrySave, DropsWhateverElseTheFileHeld)
{
    const std::string result = resaved(R"({"version":3,"x":7,"x":8,"h_x":9,"h_x":10,"note":"something"})" + std::string(100000, '\n'));
    EXPECT_EQ(R"({"x":1,"y":2,"width":3,"height":4,"num_columns":5,"h_x":9,"h_y":0,"h_width":0,"h_height":0,"h_num_columns":4})", result);
}

TEST_F(GeometrySave, AFileThatIsCutAnywhereIsWholeAfterwards)
{
    const std::string whole = WHOLE_FILE;
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        home.lay("geometry.json", whole.substr(0, size));
        manager.save(1, 2, 3, 4, 5, false);
        const std::string first = saved();
        EXPECT_THAT(first, testing::MatchesRegex(
                               R"(\{"x":1,"y":2,"width":3,"height":4,"num_columns":5,"h_x":2?1?0?,"h_y":-?[0-9]+,"h_width":[0-9]+,)"
                               R"("h_height":[0-9]+,"h_num_columns":[46]\})"));
        manager.save(1, 2, 3, 4, 5, false);
        EXPECT_EQ(first, saved()) << "what was read once comes back";
    }
}

TEST_F(GeometrySave, OverwritesTheFileInPlace)
{
    home.lay("geometry.json", WHOLE_FILE + std::string(1000, ' '));
    fs::permissions(file, fs::perms(0640));
    const std::string other_name = home.path() + "/other-name";
    fs::create_hard_link(file, other_name);
    std::ifstream reader(file);
    manager.save(1, 2, 3, 4, 5, false);
    EXPECT_THAT(saved(), testing::EndsWith("\"h_num_columns\":6}"));
    EXPECT_EQ(saved(), read_text(other_name)) << "the same file, under both names";
    EXPECT_EQ(saved(), std::string(std::istreambuf_iterator<char>(reader), {})) << "who had it open sees the new text";
    EXPECT_EQ(fs::perms(0640), fs::status(file).permissions());
}

TEST_F(GeometrySave, WritesThroughASymbolicLink)
{
    const std::string elsewhere = home.path() + "/elsewhere.json";
    fs::create_directories(folder);
    fs::create_symlink(elsewhere, file);
    manager.save(1, 2, 3, 4, 5, false);
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_TRUE(fs::is_regular_file(elsewhere)) << "which the link named before it was there";
    manager.save(6, 7, 8, 9, 10, true);
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_EQ(R"({"x":1,"y":2,"width":3,"height":4,"num_columns":5,"h_x":6,"h_y":7,"h_width":8,"h_height":9,"h_num_columns":10})",
              read_text(elsewhere));
}

TEST_F(GeometrySave, NeedsNoRightToMakeFilesBesideIt)
{
    home.lay("geometry.json", WHOLE_FILE);
    fs::permissions(home.path(), fs::perms(0755));
    fs::permissions(folder, fs::perms(0555));
    fs::permissions(file, fs::perms(0666));
    const WithoutPrivileges ordinary;
    manager.save(1, 2, 3, 4, 5, false);
    EXPECT_EQ("1 2 3 4 5 valid", text_of(manager.load(false)));
}

TEST_F(GeometrySave, LeavesNoOtherFileAndTouchesNone)
{
    home.lay("geometry.json.tmp", "somebody else's");
    manager.save(1, 2, 3, 4, 5, false);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("geometry.json", "geometry.json.tmp"));
    EXPECT_EQ("somebody else's", read_text(folder + "/geometry.json.tmp"));
}

TEST_F(GeometrySave, TheModeOfANewFileFollowsTheUmask)
{
    for (const unsigned mask : {022U, 077U}) {
        const mode_t before = umask(mask);
        manager.save(1, 2, 3, 4, 5, false);
        umask(before);
        EXPECT_EQ(0666U & ~mask, static_cast<unsigned>(fs::status(file).permissions()));
        fs::remove(file);
    }
}

TEST_F(GeometrySave, ChangesAndSaysNothingWhereItMayNotWrite)
{
    home.lay("geometry.json", WHOLE_FILE);
    fs::permissions(home.path(), fs::perms(0755));
    fs::permissions(file, fs::perms(0444));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        const WithoutPrivileges ordinary;
        manager.save(1, 2, 3, 4, 5, false);
        EXPECT_EQ(WHOLE_VERTICAL, text_of(manager.load(false)));
    }
    EXPECT_EQ(WHOLE_FILE, saved());
    fs::remove(file);
    fs::permissions(folder, fs::perms(0555));
    {
        const WithoutPrivileges ordinary;
        manager.save(1, 2, 3, 4, 5, false);
        EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
    }
    EXPECT_TRUE(fs::is_empty(folder));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(GeometrySave, IsDroppedWhereAFolderStandsInItsPlace)
{
    fs::create_directories(file);
    manager.save(1, 2, 3, 4, 5, false);
    EXPECT_TRUE(fs::is_directory(file));
    EXPECT_TRUE(fs::is_empty(file));
    EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
}

TEST_F(GeometrySave, IsDroppedWhereTheFolderCannotBeMade)
{
    write_text(home.path() + "/.config", "a file in place of the folder");
    manager.save(1, 2, 3, 4, 5, false);
    EXPECT_EQ("a file in place of the folder", read_text(home.path() + "/.config"));
    const ScopedEnv nowhere("HOME", "/proc/self");
    manager.save(1, 2, 3, 4, 5, false);
    EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
}

TEST_F(GeometrySave, OnAFullDiskAShortFileIsLeftAndTheNextSaveIsWhole)
{
    home.lay("geometry.json", WHOLE_FILE);
    {
        const ScopedFileSizeLimit disk(24);
        manager.save(10, 20, 300, 400, 2, false);
    }
    EXPECT_EQ(R"({"x":10,"y":20,"width":3)", saved());
    EXPECT_EQ("10 20 3 0 4 valid", text_of(manager.load(false)));
    EXPECT_EQ(NO_KEYS, text_of(manager.load(true)));
    manager.save(1, 2, 3, 4, 5, true);
    EXPECT_EQ(R"({"x":10,"y":20,"width":3,"height":0,"num_columns":4,"h_x":1,"h_y":2,"h_width":3,"h_height":4,"h_num_columns":5})",
              saved());
}

TEST_F(GeometrySave, WithNoRoomAtAllAnEmptyFileIsLeft)
{
    home.lay("geometry.json", WHOLE_FILE);
    {
        const ScopedFileSizeLimit disk(0);
        manager.save(10, 20, 300, 400, 2, false);
    }
    EXPECT_EQ("", saved());
    EXPECT_EQ(NO_FILE, text_of(manager.load(false)));
    EXPECT_EQ(NO_FILE, text_of(manager.load(true)));
}

TEST_F(GeometrySave, AHugeFileBecomesOneShortLine)
{
    EXPECT_EQ(R"({"x":1,"y":2,"width":3,"height":4,"num_columns":5,"h_x":0,"h_y":0,"h_width":7,"h_height":0,"h_num_columns":4})",
              resaved(std::string(4'000'000, '{') + "\"h_width\":7" + std::string(4'000'000, '}')));
}

TEST_F(GeometrySave, NumbersLookTheSameInALocaleWithDecimalCommas)
{
    const DecimalCommaLocale locale;
    manager.save(1234567, -1234567, 1000000, 4321, 2, true);
    EXPECT_EQ(R"({"x":0,"y":0,"width":0,"height":0,"num_columns":4,)"
              R"("h_x":1234567,"h_y":-1234567,"h_width":1000000,"h_height":4321,"h_num_columns":2})",
              saved());
    EXPECT_EQ("1234567 -1234567 1000000 4321 2 valid", text_of(manager.load(true)));
    EXPECT_EQ(1, loaded("{\"x\":1.000.000}").x);
}

}  // namespace
