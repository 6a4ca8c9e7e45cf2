/// The user's choices: the record, and its file "settings.json" in good and in bad days.
#include "settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "fake_machine.h"
#include "i18n.h"
#include "saved_file.h"

using testing::Contains;
using testing::ElementsAre;

namespace fs = std::filesystem;

namespace {

constexpr const char* DEFAULT_FILE =
    "{\n"
    "  \"language\": \"auto\",\n"
    "  \"theme\": \"auto\",\n"
    "  \"orientation\": \"vertical\",\n"
    "  \"bg_light\": \"#D9D9D9\",\n"
    "  \"panel_light\": \"#EBEBEB\",\n"
    "  \"text_light\": \"#404040\",\n"
    "  \"gear_light\": \"#CC3326\",\n"
    "  \"bg_dark\": \"#1C1C1E\",\n"
    "  \"panel_dark\": \"#2C2C2E\",\n"
    "  \"text_dark\": \"#E5E5E7\",\n"
    "  \"gear_dark\": \"#FFFFFF\",\n"
    "  \"total\": \"#00A659\",\n"
    "  \"group0\": \"#CC3326\",\n"
    "  \"group1\": \"#0080D9\",\n"
    "  \"group2\": \"#00A659\",\n"
    "  \"group3\": \"#8066D9\"\n"
    "}\n";

/// Every value differs from its default and from every other, and all colours but the last two have the default's form.
constexpr const char* OTHER_FILE =
    "{\n"
    "  \"language\": \"zh_TW\",\n"
    "  \"theme\": \"dark\",\n"
    "  \"orientation\": \"horizontal\",\n"
    "  \"bg_light\": \"#000001\",\n"
    "  \"panel_light\": \"#000002\",\n"
    "  \"text_light\": \"#000003\",\n"
    "  \"gear_light\": \"#000004\",\n"
    "  \"bg_dark\": \"#000005\",\n"
    "  \"panel_dark\": \"#000006\",\n"
    "  \"text_dark\": \"#000007\",\n"
    "  \"gear_dark\": \"#000008\",\n"
    "  \"total\": \"#000009\",\n"
    "  \"group0\": \"#00000A\",\n"
    "  \"group1\": \"#00000b\",\n"
    "  \"group2\": \"00000C\",\n"
    "  \"group3\": \"00000d\"\n"
    "}\n";

const std::vector<std::string> KEYS = {"language",   "theme",   "orientation", "bg_light",  "panel_light", "text_light",
                                       "gear_light", "bg_dark", "panel_dark",  "text_dark", "gear_dark",   "total",
                                       "group0",     "group1",  "group2",      "group3"};

std::vector<std::string> values(const Settings& s)
{
    return {s.language,   s.theme,     s.orientation, s.bg_light, s.panel_light, s.text_light, s.gear_light, s.bg_dark,
            s.panel_dark, s.text_dark, s.gear_dark,   s.total,    s.groups[0],   s.groups[1],  s.groups[2],  s.groups[3]};
}

bool is_color(const std::string& text)
{
    Rgb ignored;
    return hex_to_rgb(text, ignored);
}

void expect_valid(const Settings& settings)
{
    std::vector<std::string> languages = {"auto"};
    for (const LanguageInfo& info : I18n::available()) {
        languages.push_back(info.code);
    }
    const std::vector<std::string> list = values(settings);
    EXPECT_THAT(languages, Contains(list[0]));
    EXPECT_THAT((std::vector<std::string>{"auto", "light", "dark"}), Contains(list[1]));
    EXPECT_THAT((std::vector<std::string>{"vertical", "horizontal"}), Contains(list[2]));
    for (std::size_t i = 3; i < list.size(); ++i) {
        EXPECT_TRUE(is_color(list[i])) << KEYS[i] << " is " << list[i];
    }
}

/// A store of a user's own, beside the program's one.
struct StoreTest : testing::Test {
    /// The record after a file with that text was loaded over the defaults.
    Settings loaded(const std::string& text)
    {
        home.lay("settings.json", text);
        SettingsStore fresh;
        fresh.load();
        return fresh.get();
    }

    std::string saved() const { return read_text(file); }

    TemporaryHome home;
    SettingsStore store;
    const std::string folder = home.config();
    const std::string file = folder + "/settings.json";
    const std::string temporary = file + ".tmp";
};

using SettingsLoad = StoreTest;
using SettingsSave = StoreTest;
using SettingsPlace = StoreTest;

// --- the record ---

TEST(SettingsRecord, DefaultsAreThoseOfThePalettesAndTheChartColors)
{
    EXPECT_THAT(values(Settings()), ElementsAre("auto", "auto", "vertical", "#D9D9D9", "#EBEBEB", "#404040", "#CC3326", "#1C1C1E",
                                                "#2C2C2E", "#E5E5E7", "#FFFFFF", "#00A659", "#CC3326", "#0080D9", "#00A659", "#8066D9"));
}

TEST(SettingsRecord, IsHorizontalOnlyForExactlyThatWord)
{
    EXPECT_TRUE(Settings{.orientation = "horizontal"}.is_horizontal());
    for (const char* other : {"vertical", "", "Horizontal", "horizontal ", "horizontally"}) {
        EXPECT_FALSE(Settings{.orientation = other}.is_horizontal()) << other;
    }
}

TEST(SettingsRecord, AccessorsReferToTheFieldOfTheTheme)
{
    Settings s;
    const Settings& constant = s;
    EXPECT_EQ(&s.bg_light, &s.background(false));
    EXPECT_EQ(&s.bg_dark, &s.background(true));
    EXPECT_EQ(&s.panel_light, &s.panel(false));
    EXPECT_EQ(&s.panel_dark, &s.panel(true));
    EXPECT_EQ(&s.text_light, &s.text(false));
    EXPECT_EQ(&s.text_dark, &s.text(true));
    EXPECT_EQ(&s.gear_light, &s.gear(false));
    EXPECT_EQ(&s.gear_dark, &s.gear(true));
    for (const bool dark : {false, true}) {
        EXPECT_EQ(&s.background(dark), &constant.background(dark));
        EXPECT_EQ(&s.panel(dark), &constant.panel(dark));
        EXPECT_EQ(&s.text(dark), &constant.text(dark));
        EXPECT_EQ(&s.gear(dark), &constant.gear(dark));
    }
}

TEST_F(StoreTest, ResetColorsLeavesLanguageThemeAndOrientationAndSavesNothing)
{
    store.m_settings = loaded(OTHER_FILE);
    store.mutable_get().reset_colors();
    Settings expected;
    expected.language = "zh_TW";
    expected.theme = "dark";
    expected.orientation = "horizontal";
    EXPECT_EQ(values(expected), values(store.get()));
    EXPECT_EQ(OTHER_FILE, saved());
}

TEST_F(StoreTest, TheInstanceIsOneAndStartsWithTheDefaults)
{
    home.lay("settings.json", OTHER_FILE);
    EXPECT_EQ(&SettingsStore::instance(), &SettingsStore::instance());
    EXPECT_EQ(values(Settings()), values(SettingsStore::instance().get())) << "it reads nothing by itself";
}

TEST_F(StoreTest, MutableGetChangesWhatGetReturns)
{
    store.mutable_get().theme = "dark";
    EXPECT_EQ("dark", store.get().theme);
    EXPECT_EQ(&store.get(), &store.mutable_get());
}

TEST_F(StoreTest, DestructionSavesNothing)
{
    {
        SettingsStore other;
        other.load();
        other.mutable_get().theme = "dark";
    }
    EXPECT_FALSE(fs::exists(file));
}

// --- where the file stands ---

TEST_F(SettingsPlace, IsBelowTheConfigFolderOfHome)
{
    EXPECT_EQ(home.path() + "/.config/Vantric/settings.json", store.path());
    EXPECT_EQ(home.path() + "/.config/Vantric/geometry.json", config_file_path("geometry.json"));
}

TEST_F(SettingsPlace, IsBelowTheCommonFolderOfSnap)
{
    const TemporaryFolder snap;
    const ScopedEnv common("SNAP_USER_COMMON", snap.path());
    EXPECT_EQ(snap.path() + "/config/settings.json", store.path());
    EXPECT_TRUE(fs::is_directory(snap.path() + "/config"));
    EXPECT_FALSE(fs::exists(home.path() + "/.config"));
}

TEST_F(SettingsPlace, AnEmptySnapFolderCountsAsSetAndGivesSlashConfig)
{
    const ScopedEnv common("SNAP_USER_COMMON", "");
    const bool existed = fs::exists("/config");
    const WithoutPrivileges ordinary;  // who can't make it
    EXPECT_EQ("/config/settings.json", store.path());
    EXPECT_EQ(existed, fs::exists("/config"));
}

TEST_F(SettingsPlace, IsBelowTheWorkingDirectoryWithoutHome)
{
    const fs::path before = fs::current_path();
    fs::current_path(home.path());
    {
        const ScopedEnv homeless("HOME", std::nullopt);
        EXPECT_EQ("./.config/Vantric/settings.json", store.path());
        store.save();
    }
    fs::current_path(before);
    EXPECT_EQ(DEFAULT_FILE, saved());
}

TEST_F(SettingsPlace, AnEmptyHomeCountsAsSet)
{
    const ScopedEnv empty("HOME", "");
    const WithoutPrivileges ordinary;
    EXPECT_EQ("/.config/Vantric/settings.json", store.path());
}

TEST_F(SettingsPlace, AskingForItMakesTheFoldersEvenWithoutAFile)
{
    ASSERT_FALSE(fs::exists(home.path() + "/.config"));
    store.path();
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(SettingsPlace, IsFoundAfreshAtEachCall)
{
    store.save();
    const TemporaryHome other;
    store.mutable_get().theme = "dark";
    store.save();
    EXPECT_EQ(DEFAULT_FILE, saved());
    EXPECT_THAT(read_text(other.config() + "/settings.json"), testing::HasSubstr("\"theme\": \"dark\""));
}

TEST_F(SettingsPlace, IsNamedAllTheSameWhereTheFoldersCannotBeMade)
{
    write_text(home.path() + "/.config", "a file in place of the folder");
    EXPECT_EQ(file, store.path());
    const ScopedEnv nowhere("HOME", "/proc/self");
    EXPECT_EQ("/proc/self/.config/Vantric/settings.json", store.path()) << "not even root can make folders there";
}

// --- saving ---

TEST_F(SettingsSave, WritesTheDefaultsByteForByte)
{
    store.save();
    EXPECT_EQ(DEFAULT_FILE, saved());
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(SettingsSave, WritesEveryFieldUnderItsKey)
{
    store.m_settings = loaded(OTHER_FILE);
    store.save();
    EXPECT_EQ(OTHER_FILE, saved());
}

TEST_F(SettingsSave, NeitherEscapesNorChecksAValue)
{
    store.mutable_get().theme = "a\"b\\c\nd";
    store.mutable_get().total = "";
    store.save();
    EXPECT_THAT(saved(), testing::HasSubstr("  \"theme\": \"a\"b\\c\nd\",\n"));
    EXPECT_THAT(saved(), testing::HasSubstr("  \"total\": \"\",\n"));
}

TEST_F(SettingsSave, AReaderOfTheOldFileKeepsTheOldFile)
{
    home.lay("settings.json", OTHER_FILE);
    std::ifstream reader(file);
    store.save();
    EXPECT_EQ(OTHER_FILE, std::string(std::istreambuf_iterator<char>(reader), {}));
    EXPECT_EQ(DEFAULT_FILE, saved());
}

TEST_F(SettingsSave, AnotherProcessNeverSeesAPartOfAFile)
{
    std::atomic<bool> ended{false};
    std::thread writer([&] {
        SettingsStore other;
        for (int i = 0; i < 300; ++i) {
            other.m_settings.theme = i % 2 ? "dark" : "auto";
            other.save();
        }
        ended = true;
    });
    while (!ended) {
        const std::string text = saved();
        EXPECT_TRUE(text.empty() || (text.size() == std::string(DEFAULT_FILE).size() && text.ends_with("}\n"))) << text;
    }
    writer.join();
}

TEST_F(SettingsSave, TheModeOfTheFileFollowsTheUmask)
{
    for (const unsigned mask : {022U, 077U}) {
        const mode_t before = umask(mask);
        store.save();
        umask(before);
        EXPECT_EQ(0666U & ~mask, static_cast<unsigned>(fs::status(file).permissions()));
    }
}

TEST_F(SettingsSave, ReplacesATemporaryFileThatWasLeftBehind)
{
    home.lay("settings.json.tmp", std::string(100000, 'x'));
    store.save();
    EXPECT_EQ(DEFAULT_FILE, saved());
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(SettingsSave, ChangesAndSaysNothingInAReadOnlyFolder)
{
    home.lay("settings.json", OTHER_FILE);
    fs::permissions(home.path(), fs::perms(0755));
    fs::permissions(folder, fs::perms(0555));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        const WithoutPrivileges ordinary;
        store.save();
        EXPECT_EQ(OTHER_FILE, saved());
    }
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(SettingsSave, IsDroppedWhereTheFolderCannotBeMade)
{
    write_text(home.path() + "/.config", "a file in place of the folder");
    store.mutable_get().theme = "dark";
    store.save();
    EXPECT_EQ("dark", store.get().theme);
    EXPECT_EQ("a file in place of the folder", read_text(home.path() + "/.config"));
    const ScopedEnv nowhere("HOME", "/proc/self");
    store.save();
}

TEST_F(SettingsSave, IsDroppedWhereTheTemporaryFileIsAFolder)
{
    home.lay("settings.json", OTHER_FILE);
    fs::create_directory(temporary);
    store.save();
    EXPECT_EQ(OTHER_FILE, saved());
    EXPECT_TRUE(fs::is_directory(temporary));
}

TEST_F(SettingsSave, RemovesTheTemporaryFileWhereTheRenameFails)
{
    fs::create_directories(file);
    store.save();
    EXPECT_TRUE(fs::is_directory(file));
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(SettingsSave, OnAFullDiskTheOldFileStaysAndTheTemporaryFileRemains)
{
    home.lay("settings.json", OTHER_FILE);
    fs::create_symlink("/dev/full", temporary);
    store.save();
    ASSERT_TRUE(fs::is_symlink(temporary)) << "this path neither renames nor removes anything";
    EXPECT_EQ(OTHER_FILE, saved());
}

TEST_F(SettingsSave, AHalfWrittenTemporaryFileStaysAndTheNextSaveReusesIt)
{
    home.lay("settings.json", OTHER_FILE);
    {
        const ScopedFileSizeLimit disk(100);
        store.save();
    }
    EXPECT_EQ(OTHER_FILE, saved());
    EXPECT_EQ(std::string(DEFAULT_FILE).substr(0, 100), read_text(temporary));
    store.save();
    EXPECT_EQ(DEFAULT_FILE, saved());
    EXPECT_FALSE(fs::exists(temporary));
}

// --- loading ---

TEST_F(SettingsLoad, WithoutAFileAllStaysAndTheFolderExistsAfterwards)
{
    store.load();
    EXPECT_EQ(values(Settings()), values(store.get()));
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_TRUE(fs::is_empty(folder)) << "loading writes no file";
}

TEST_F(SettingsLoad, AnEmptyFileChangesNothing)
{
    EXPECT_EQ(values(Settings()), values(loaded("")));
}

TEST_F(SettingsLoad, TakesEveryValueOfAFile)
{
    EXPECT_THAT(values(loaded(OTHER_FILE)),
                ElementsAre("zh_TW", "dark", "horizontal", "#000001", "#000002", "#000003", "#000004", "#000005", "#000006", "#000007",
                            "#000008", "#000009", "#00000A", "#00000b", "00000C", "00000d"));
}

TEST_F(SettingsLoad, LeavesAsItWasWhatTheFileDoesNotGive)
{
    store.m_settings = loaded(OTHER_FILE);
    home.lay("settings.json", "{\"theme\": \"light\", \"total\": \"nonsense\"}");
    store.load();
    Settings expected = loaded(OTHER_FILE);
    expected.theme = "light";
    EXPECT_EQ(values(expected), values(store.get()));
}

TEST_F(SettingsLoad, NeverRewritesTheFile)
{
    const std::string damaged = "{\"theme\": \"nonsense\", \"total\": \"#123456\"";
    loaded(damaged);
    EXPECT_EQ(damaged, saved());
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(SettingsLoad, ARefusedValueStaysInTheFileUntilTheNextSave)
{
    home.lay("settings.json", "{\"theme\": \"nonsense\"}");
    store.load();
    store.save();
    EXPECT_EQ(DEFAULT_FILE, saved());
}

TEST_F(SettingsLoad, TakesAnyLayoutOfTheText)
{
    EXPECT_EQ("dark", loaded(R"({"language":"de","theme":"dark","total":"#123456"})").theme);
    EXPECT_EQ("dark", loaded(R"("theme" : "dark")").theme);
    EXPECT_EQ("dark", loaded("\xEF\xBB\xBF{\r\n\t\"theme\"\r\n\t:\r\n\t\"dark\"\r\n}").theme) << "byte order mark, carriage returns";
    EXPECT_EQ("dark", loaded(R"(so "theme" is, as I said: a "dark" one)").theme) << "any bytes may stand between";
}

TEST_F(SettingsLoad, TakesKeysInAnyOrderAndIgnoresUnknownOnes)
{
    const Settings s = loaded(R"({"group3": "#333333", "version": "7", "theme": "dark", "x": {"y": [1, 2]}, "language": "de"})");
    EXPECT_EQ("#333333", s.groups[3]);
    EXPECT_EQ("dark", s.theme);
    EXPECT_EQ("de", s.language);
}

TEST_F(SettingsLoad, TheFirstOfTwoOccurrencesWins)
{
    EXPECT_EQ("light", loaded(R"({"theme": "light", "theme": "dark"})").theme);
    EXPECT_EQ("auto", loaded(R"({"theme": "nonsense", "theme": "dark"})").theme) << "even if it is refused";
}

TEST_F(SettingsLoad, AKeyMatchesOnlyAsAWhole)
{
    EXPECT_EQ("dark", loaded(R"({"my_theme": "light", "theme2": "light", "Theme": "light", "theme": "dark"})").theme);
}

TEST_F(SettingsLoad, AKeyAlsoMatchesWhereItStandsAsAValueOnPurpose)
{
    EXPECT_EQ("#111111", loaded(R"({"first": "total", "second": "#111111", "total": "#222222"})").total);
    EXPECT_EQ(ColorDefaults::TOTAL, loaded(R"({"language": "total", "theme": "dark", "total": "#222222"})").total);
}

TEST_F(SettingsLoad, AValueThatIsNoTextDoesNotStopTheScanOnPurpose)
{
    store.m_settings.theme = "dark";
    store.m_settings.orientation = "horizontal";
    home.lay("settings.json", R"({"theme": 3, "orientation": "vertical"})");
    store.load();
    EXPECT_EQ("dark", store.get().theme) << "the next text is \"orientation\", which is no theme";
    EXPECT_EQ("vertical", store.get().orientation);
    EXPECT_EQ("dark", loaded(R"({"theme": null, "dark": 1})").theme);
}

TEST_F(SettingsLoad, AKeyWithoutColonOrTextBehindItHasNoValue)
{
    EXPECT_EQ("auto", loaded(R"(dark"theme)").theme);
    EXPECT_EQ("auto", loaded(R"(dark"theme" "dark")").theme);
    EXPECT_EQ("auto", loaded(R"(dark"theme":)").theme);
    EXPECT_EQ("auto", loaded(R"(dark"theme":"dark)").theme);
    EXPECT_EQ("auto", loaded(R"(:"dark" "theme")").theme);
}

TEST_F(SettingsLoad, AnEscapedQuotationMarkEndsTheValue)
{
    EXPECT_EQ("dark", loaded(R"({"theme": "dark"\"})").theme);
    EXPECT_EQ("auto", loaded(R"({"theme": "da\"rk"})").theme);
}

TEST_F(SettingsLoad, TakesAutoAndEachCodeOfALanguageAndNothingElse)
{
    for (const LanguageInfo& info : I18n::available()) {
        EXPECT_EQ(info.code, loaded("{\"language\": \"" + info.code + "\"}").language);
    }
    store.m_settings.language = "de";
    for (const char* refused : {"xx", "", "DE", "de_DE", "de ", "en.UTF-8", "C", "Deutsch", "zh_CN", "zh-TW"}) {
        home.lay("settings.json", std::string("{\"language\": \"") + refused + "\"}");
        store.load();
        EXPECT_EQ("de", store.get().language) << refused;
    }
    home.lay("settings.json", "{\"language\": \"auto\"}");
    store.load();
    EXPECT_EQ("auto", store.get().language);
}

TEST_F(SettingsLoad, TakesThreeThemesAndTwoOrientations)
{
    for (const char* theme : {"auto", "light", "dark"}) {
        store.m_settings.theme = "unset";
        home.lay("settings.json", std::string("{\"theme\": \"") + theme + "\"}");
        store.load();
        EXPECT_EQ(theme, store.get().theme);
    }
    for (const char* orientation : {"vertical", "horizontal"}) {
        store.m_settings.orientation = "unset";
        home.lay("settings.json", std::string("{\"orientation\": \"") + orientation + "\"}");
        store.load();
        EXPECT_EQ(orientation, store.get().orientation);
    }
    for (const std::string refused : {"Dark", "dark ", "black", "default", "#000000", "0", "true"}) {
        EXPECT_EQ(values(Settings()), values(loaded("{\"theme\": \"" + refused + "\", \"orientation\": \"" + refused + "\"}")));
    }
    EXPECT_EQ("vertical", loaded(R"({"orientation": "auto"})").orientation);
}

TEST_F(SettingsLoad, KeepsAColorExactlyAsWrittenAndRefusesWhatIsNone)
{
    for (std::size_t i = 3; i < KEYS.size(); ++i) {
        for (const char* color : {"#AbCdEf", "AbCdEf", "abcdef", "000000"}) {
            EXPECT_EQ(color, values(loaded("{\"" + KEYS[i] + "\": \"" + color + "\"}"))[i]);
        }
        for (const char* bad : {"#12345", "#1234567", "", "#", "#FFF", "red", "#GGGGGG", " #123456", "auto"}) {
            EXPECT_EQ(values(Settings()), values(loaded("{\"" + KEYS[i] + "\": \"" + bad + "\"}"))) << KEYS[i] << " " << bad;
        }
    }
}

TEST_F(SettingsLoad, AColorWithoutHashComesBackSoAtTheNextSave)
{
    home.lay("settings.json", "{\"total\": \"abcdef\"}");
    store.load();
    store.save();
    EXPECT_THAT(saved(), testing::HasSubstr("  \"total\": \"abcdef\",\n"));
    EXPECT_EQ("abcdef", loaded(saved()).total);
}

TEST_F(SettingsLoad, AFileThatIsCutAnywhereGivesTheValuesThatAreWhole)
{
    const std::string whole = OTHER_FILE;
    const std::vector<std::string> defaults = values(Settings());
    const std::vector<std::string> saved_values = values(loaded(whole));
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const std::vector<std::string> list = values(loaded(whole.substr(0, size)));
        for (std::size_t i = 0; i < KEYS.size(); ++i) {
            const std::string line = "\"" + KEYS[i] + "\": \"" + saved_values[i] + "\"";
            const bool complete = size >= whole.find(line) + line.size();
            ASSERT_EQ(complete ? saved_values[i] : defaults[i], list[i]) << KEYS[i] << " of a file cut to " << size << " bytes";
        }
    }
}

TEST_F(SettingsLoad, AFileWithoutItsBeginningGivesAValidRecord)
{
    const std::string whole = OTHER_FILE;
    for (std::size_t start = 0; start <= whole.size(); ++start) {
        expect_valid(loaded(whole.substr(start)));
    }
}

TEST_F(SettingsLoad, AnyBytesGiveAValidRecordThatSurvivesASave)
{
    std::mt19937 random(1);
    const std::vector<std::string> pieces = {"\"",      ":",      ": \"", "\", ", "dark", "horizontal", "de",
                                             "#12AB9f", "fedcba", "\\",   "{",    "}",    "\n"};
    for (int round = 0; round < 1000; ++round) {
        std::string text;
        for (auto left = random() % 60; left > 0; --left) {
            switch (random() % 3) {
                case 0:
                    text += '"' + KEYS[random() % KEYS.size()] + '"';
                    break;
                case 1:
                    text += pieces[random() % pieces.size()];
                    break;
                default:
                    text += static_cast<char>(random() % 256);
            }
        }
        store.m_settings = loaded(text);
        expect_valid(store.get());
        store.save();
        ASSERT_EQ(values(store.get()), values(loaded(saved())));
    }
}

TEST_F(SettingsLoad, NulBytesAreBytesLikeAnyOther)
{
    using namespace std::string_literals;
    EXPECT_EQ("dark", loaded("\0\0{\"theme\"\0: \0\"dark\"}"s).theme);
    EXPECT_EQ("auto", loaded("{\"theme\": \"dark\0\"}"s).theme);
    EXPECT_EQ(ColorDefaults::TOTAL, loaded("{\"total\": \"#12345\0\"}"s).total);
    EXPECT_EQ("auto", loaded("{\"language\": \"de\0\"}"s).language);
}

TEST_F(SettingsLoad, FindsTheValuesInAHugeFile)
{
    EXPECT_EQ(values(loaded(OTHER_FILE)), values(loaded(std::string(4'000'000, ' ') + OTHER_FILE)));
    EXPECT_EQ(values(Settings()), values(loaded(std::string(4'000'000, '"'))));
    EXPECT_EQ("auto", loaded("{\"theme\": \"" + std::string(4'000'000, 'x') + "\"}").theme);
}

TEST_F(SettingsLoad, WhatCannotBeReadChangesNothing)
{
    const auto load_again = [&] {
        SettingsStore fresh;
        fresh.load();
        return values(fresh.get());
    };
    fs::create_directories(file);
    EXPECT_EQ(values(Settings()), load_again()) << "a folder in its place";
    fs::remove(file);
    fs::create_symlink("/proc/self/mem", file);
    EXPECT_EQ(values(Settings()), load_again()) << "opens, but can't be read";
    fs::remove(file);
    fs::create_symlink(file, file);
    EXPECT_EQ(values(Settings()), load_again()) << "a link to itself";
    fs::remove(file);
    home.lay("settings.json", OTHER_FILE);
    fs::permissions(file, fs::perms::none);
    const WithoutPrivileges ordinary;
    EXPECT_EQ(values(Settings()), load_again()) << "no rights";
}

TEST_F(SettingsLoad, WhereTheFolderCannotBeMadeAllStays)
{
    const ScopedEnv nowhere("HOME", "/proc/self");
    store.load();
    EXPECT_EQ(values(Settings()), values(store.get()));
}

TEST_F(SettingsLoad, SavingAndLoadingInALocaleWithDecimalCommasChangesNothing)
{
    const DecimalCommaLocale locale;
    store.m_settings = loaded(OTHER_FILE);
    store.save();
    EXPECT_EQ(OTHER_FILE, saved());
}

}  // namespace
