/// The translation tables, the lookup in them, and the choice of the language.
#include "i18n.h"

#include <dlfcn.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <set>

#include "counted_new.h"
#include "fake_machine.h"
#include "i18n_data.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::vector<const char*>* g_names = nullptr;  ///< stands in for the list of GLib, if set
bool g_no_list = false;                             ///< as if GLib gave none

}  // namespace

/// Takes the place of GLib's function, for lists that no locale gives.
extern "C" const gchar* const* g_get_language_names()
{
    static const auto real = reinterpret_cast<const gchar* const* (*)()>(dlsym(RTLD_NEXT, "g_get_language_names"));
    return g_no_list ? nullptr : g_names != nullptr ? g_names->data() : real();
}

namespace {

struct Translation {
    const char* key;
    const char* english;
    const char* german;
};

struct CountRow {
    const char* code;
    const char* cores;
    const char* cores_and_threads;  ///< null if it is not of that kind
};

struct SampleRow {
    const char* code;
    const char* core;
    const char* cores_and_threads;
    const char* balanced_h;
    const char* settings;
};

// clang-format off

const std::vector<LanguageInfo> LANGUAGES = {
    {"ar", "العربية", true},
    {"bg", "Български", false},
    {"bn", "বাংলা", false},
    {"ca", "Català", false},
    {"cs", "Čeština", false},
    {"da", "Dansk", false},
    {"de", "Deutsch", false},
    {"el", "Ελληνικά", false},
    {"en", "English", false},
    {"es", "Español", false},
    {"fa", "فارسی", true},
    {"fi", "Suomi", false},
    {"fr", "Français", false},
    {"he", "עברית", true},
    {"hi", "हिन्दी", false},
    {"hr", "Hrvatski", false},
    {"hu", "Magyar", false},
    {"id", "Bahasa Indonesia", false},
    {"it", "Italiano", false},
    {"ja", "日本語", false},
    {"ko", "한국어", false},
    {"lt", "Lietuvių", false},
    {"lv", "Latviešu", false},
    {"ms", "Bahasa Melayu", false},
    {"nb", "Norsk bokmål", false},
    {"ne", "नेपाली", false},
    {"nl", "Nederlands", false},
    {"pl", "Polski", false},
    {"pt", "Português", false},
    {"ro", "Română", false},
    {"ru", "Русский", false},
    {"sk", "Slovenčina", false},
    {"sl", "Slovenščina", false},
    {"sr", "Српски", false},
    {"sv", "Svenska", false},
    {"sw", "Kiswahili", false},
    {"th", "ไทย", false},
    {"tl", "Tagalog", false},
    {"tr", "Türkçe", false},
    {"uk", "Українська", false},
    {"ur", "اردو", true},
    {"vi", "Tiếng Việt", false},
    {"zh", "中文", false},
    {"zh_TW", "繁體中文", false},
};

const Translation TRANSLATIONS[] = {
    {"%d Cores", "%d Cores", "%d Kerne"},
    {"%d Cores / %d Threads", "%d Cores / %d Threads", "%d Kerne / %d Threads"},
    {"Apply", "Apply", "Anwenden"},
    {"Automatic", "Automatic", "Automatisch"},
    {"Background", "Background", "Hintergrund"},
    {"Balanced", "Balanced", "Ausgewogen"},
    {"Balanced-H", "Balanced (H)", "Ausgewogen (H)"},
    {"Balanced-L", "Balanced (L)", "Ausgewogen (L)"},
    {"Cluster %d", "Cluster %d", "Cluster %d"},
    {"Colors", "Colors", "Farben"},
    {"Columns", "Columns", "Spalten"},
    {"Core %d", "Core %d", "Kern %d"},
    {"Dark", "Dark", "Dunkel"},
    {"Developed by", "Developed by", "Entwickelt von"},
    {"Disclaimer", "Disclaimer", "Haftungsausschluss"},
    {"Efficiency", "Efficiency", "Effizienz"},
    {"Gear", "Gear", "Zahnrad"},
    {"Horizontal", "Horizontal", "Horizontal"},
    {"Language", "Language", "Sprache"},
    {"Launch at Login", "Launch at Login", "Beim Anmelden starten"},
    {"Light", "Light", "Hell"},
    {"Orientation", "Orientation", "Ausrichtung"},
    {"Panels", "Panels", "Kästen"},
    {"Performance", "Performance", "Leistung"},
    {"RAM", "RAM", "RAM"},
    {"Reset colors", "Reset colors", "Farben zurücksetzen"},
    {"Settings", "Settings", "Einstellungen"},
    {"Super", "Super", "Super"},
    {"Text", "Text", "Text"},
    {"Theme", "Theme", "Erscheinungsbild"},
    {"This software is provided \"as is\", without warranty of any kind, express or implied. Use at your own risk. The author shall not be liable for any damages arising from the use of this software.", "This software is provided \"as is\", without warranty of any kind, express or implied. Use at your own risk. The author shall not be liable for any damages arising from the use of this software.", "Diese Software wird ohne jegliche Gewährleistung bereitgestellt, weder ausdrücklich noch stillschweigend. Die Nutzung erfolgt auf eigene Gefahr. Der Autor übernimmt keine Haftung für Schäden, die aus der Nutzung dieser Software entstehen."},
    {"Throttle", "Throttle", "Drosselung"},
    {"Total", "Total", "Gesamt"},
    {"Vertical", "Vertical", "Vertikal"},
};

/// Languages in which no form of the noun before which a number stands is right for every number, 1 among them.
const CountRow COUNT_ROWS[] = {
    {"bg", "Ядра: %d", "Ядра: %d / нишки: %d"},
    {"ca", "Nuclis: %d", "Nuclis: %d / fils: %d"},
    {"cs", "Jádra: %d", "Jádra: %d / vlákna: %d"},
    {"da", "Kerner: %d", "Kerner: %d / tråde: %d"},
    {"el", "Πυρήνες: %d", "Πυρήνες: %d / νήματα: %d"},
    {"es", "Núcleos: %d", "Núcleos: %d / hilos: %d"},
    {"fi", "Ytimiä: %d", "Ytimiä: %d / säikeitä: %d"},
    {"hr", "Jezgre: %d", "Jezgre: %d / niti: %d"},
    {"lt", "Branduoliai: %d", "Branduoliai: %d / gijos: %d"},
    {"lv", "Kodoli: %d", "Kodoli: %d / pavedieni: %d"},
    {"nb", "Kjerner: %d", "Kjerner: %d / tråder: %d"},
    {"nl", "Kernen: %d", "Kernen: %d / threads: %d"},
    {"pl", "Rdzenie: %d", "Rdzenie: %d / wątki: %d"},
    {"pt", "Núcleos: %d", "Núcleos: %d / threads: %d"},
    {"ro", "Nuclee: %d", "Nuclee: %d / fire: %d"},
    {"sk", "Jadrá: %d", "Jadrá: %d / vlákna: %d"},
    {"sl", "Jedra: %d", "Jedra: %d / niti: %d"},
    {"sr", "Језгра: %d", "Језгра: %d / нити: %d"},
    {"sv", "Kärnor: %d", "Kärnor: %d / trådar: %d"},
    {"sw", "Viini: %d", "Viini: %d / nyuzi: %d"},
    {"uk", "Ядра: %d", "Ядра: %d / потоки: %d"},
    // The longer text of these four is settled
    {"ar", "الأنوية: %d", nullptr},
    {"fr", "Cœurs\u00A0: %d", nullptr},
    {"he", "ליבות: %d", nullptr},
    {"ru", "Ядер: %d", nullptr},
};

const SampleRow SAMPLE_ROWS[] = {
    {"ar", "النواة %d", "%d نواة / %d خيط", "متوازن (H)", "الإعدادات"},
    {"he", "ליבה %d", "%d ליבות / %d תהליכונים", "מאוזן (H)", "הגדרות"},
    {"ja", "コア %d", "%d コア / %d スレッド", "バランス (H)", "設定"},
    {"ko", "코어 %d", "코어 %d개 / 스레드 %d개", "균형 (H)", "설정"},
    {"zh", "核心 %d", "%d 核心 / %d 线程", "均衡 (H)", "设置"},
    {"zh_TW", "核心 %d", "%d 核心 / %d 執行緒", "均衡 (H)", "設定"},
    {"fr", "Cœur %d", "%d cœurs / %d threads", "Équilibré (H)", "Réglages"},
    {"ru", "Ядро %d", "%d ядер / %d потоков", "Сбалансированные (H)", "Настройки"},
};

// clang-format on

/// Every text of the tables, with its language and its key.
template <typename Visitor>
void for_each_text(Visitor visit)
{
    for (const auto& language : i18n_data::LANGS) {
        for (std::size_t i = 0; i < std::size(i18n_data::KEYS); ++i) {
            SCOPED_TRACE(std::string(language.code) + ", " + i18n_data::KEYS[i]);
            visit(std::string(language.values[i]), std::string(i18n_data::KEYS[i]));
        }
    }
}

/// Every conversion of a format, such as "%d".
std::vector<std::string> conversions(const std::string& format)
{
    std::vector<std::string> list;
    for (std::size_t at = format.find('%'); at != std::string::npos; at = format.find('%', at + 1)) {
        list.push_back(format.substr(at, 2));
    }
    return list;
}

std::vector<gunichar> characters(const std::string& utf8)
{
    std::vector<gunichar> list;
    for (const char* c = utf8.c_str(); *c != '\0'; c = g_utf8_find_next_char(c, nullptr)) {
        list.push_back(g_utf8_get_char(c));
    }
    return list;
}

/// Marks, embeddings, overrides and isolates of the Unicode bidirectional algorithm.
bool is_direction_mark(gunichar c)
{
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

I18n& speaking(const std::string& code)
{
    I18n::instance().set_language(code);
    return I18n::instance();
}

/// The environment of a user whose LANGUAGE has that value.
struct Languages {
    explicit Languages(const std::optional<std::string>& value) : language("LANGUAGE", value) {}
    ScopedEnv language;
    ScopedEnv all{"LC_ALL", std::nullopt};
    ScopedEnv messages{"LC_MESSAGES", std::nullopt};
    ScopedEnv lang{"LANG", std::nullopt};
};

std::string detected(const std::string& language_variable)
{
    const Languages user(language_variable);
    return I18n::detect_system_language();
}

/// What is detected when GLib gives exactly that list.
std::string detected_in(std::vector<const char*> names)
{
    names.push_back(nullptr);
    g_names = &names;
    const std::string code = I18n::detect_system_language();
    g_names = nullptr;
    return code;
}

// --- the tables ---

TEST(Tables, KeysAreStrictlyAscendingInByteOrder)
{
    ASSERT_EQ(34, std::size(i18n_data::KEYS));
    for (std::size_t i = 1; i < std::size(i18n_data::KEYS); ++i) {
        EXPECT_LT(std::strcmp(i18n_data::KEYS[i - 1], i18n_data::KEYS[i]), 0) << i18n_data::KEYS[i];
    }
}

TEST(Tables, LanguagesHaveTheirCodesNamesAndDirections)
{
    const std::vector<LanguageInfo> list = I18n::available();
    ASSERT_THAT(list, SizeIs(44));
    ASSERT_THAT(LANGUAGES, SizeIs(44));
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(LANGUAGES[i].code, list[i].code);
        EXPECT_EQ(LANGUAGES[i].native_name, list[i].native_name);
        EXPECT_EQ(LANGUAGES[i].rtl, list[i].rtl) << list[i].code;
    }
    EXPECT_EQ("ar", list.front().code);
    EXPECT_EQ("zh_TW", list.back().code);
}

TEST(Tables, LanguagesAscendByCode)
{
    const auto before = [](const auto& a, const auto& b) { return std::strcmp(a.code, b.code) < 0; };
    EXPECT_TRUE(std::is_sorted(std::begin(i18n_data::LANGS), std::end(i18n_data::LANGS), before));
}

TEST(Tables, EachLanguageHasATableOfItsOwn)
{
    std::set<const void*> tables;
    for (const auto& language : i18n_data::LANGS) {
        tables.insert(language.values);
    }
    EXPECT_THAT(tables, SizeIs(44));
}

TEST(Tables, EnglishAndGermanAreExactlyThese)
{
    ASSERT_EQ(34, std::size(TRANSLATIONS));
    for (std::size_t i = 0; i < std::size(TRANSLATIONS); ++i) {
        EXPECT_STREQ(TRANSLATIONS[i].key, i18n_data::KEYS[i]);
        EXPECT_STREQ(TRANSLATIONS[i].english, speaking("en").tr(TRANSLATIONS[i].key));
        EXPECT_STREQ(TRANSLATIONS[i].german, speaking("de").tr(TRANSLATIONS[i].key));
    }
}

TEST(Tables, SomeRowsOfOtherLanguagesAreExactlyThese)
{
    for (const SampleRow& row : SAMPLE_ROWS) {
        const I18n& i18n = speaking(row.code);
        EXPECT_STREQ(row.core, i18n.tr("Core %d"));
        EXPECT_STREQ(row.cores_and_threads, i18n.tr("%d Cores / %d Threads"));
        EXPECT_STREQ(row.balanced_h, i18n.tr("Balanced-H"));
        EXPECT_STREQ(row.settings, i18n.tr("Settings"));
    }
}

TEST(Tables, CountsStandBehindNounsThatChangeWithThem)
{
    for (const CountRow& row : COUNT_ROWS) {
        const I18n& i18n = speaking(row.code);
        EXPECT_STREQ(row.cores, i18n.tr("%d Cores"));
        if (row.cores_and_threads != nullptr) {
            EXPECT_STREQ(row.cores_and_threads, i18n.tr("%d Cores / %d Threads"));
        }
    }
}

TEST(Tables, CountsStandBeforeNounsOnlyWhereThatIsRightForAllNumbersOrSettled)
{
    // Nouns that stay as they are after any number, or loanwords; German and English are settled
    const std::set<std::string> before = {"bn", "de", "en", "fa", "hi", "hu", "id", "it", "ja",
                                          "ms", "ne", "th", "tl", "tr", "ur", "vi", "zh", "zh_TW"};
    for (const auto& language : i18n_data::LANGS) {
        const std::string cores = speaking(language.code).tr("%d Cores");
        EXPECT_EQ(before.contains(language.code), cores.starts_with("%d")) << cores;
    }
}

TEST(Tables, EveryTextIsThereAndIsUtf8WithoutControlCharactersOrDirectionMarks)
{
    std::size_t texts = 0;
    for_each_text([&](const std::string& text, const std::string&) {
        ++texts;
        EXPECT_NE("", text);
        ASSERT_TRUE(g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr));
        for (const gunichar c : characters(text)) {
            EXPECT_FALSE(g_unichar_iscntrl(c)) << c;
            EXPECT_FALSE(is_direction_mark(c)) << c;
        }
        EXPECT_FALSE(g_unichar_isspace(characters(text).front()) || g_unichar_isspace(characters(text).back()));
    });
    EXPECT_EQ(44 * 34, texts);
}

TEST(Tables, EveryTextHasThePlaceholdersOfItsKeyAndNoOtherConversion)
{
    for_each_text([](const std::string& text, const std::string& key) {
        EXPECT_EQ(conversions(key), conversions(text));
        EXPECT_THAT(conversions(text), Each("%d"));
    });
}

TEST(Tables, BalancedHAndLEndInLatinLettersEvenFromRightToLeft)
{
    for_each_text([](const std::string& text, const std::string& key) {
        if (key.starts_with("Balanced-")) {
            EXPECT_TRUE(text.ends_with(key == "Balanced-H" ? " (H)" : " (L)")) << text;
        }
    });
}

TEST(Tables, TheThrottleLabelHoldsNoCharacterThatMarkupWouldTake)
{
    for_each_text([](const std::string& text, const std::string& key) {
        if (key == "Throttle") {
            EXPECT_EQ(std::string::npos, text.find_first_of("<>&"));
        }
    });
}

TEST(Tables, RamStaysAsItIsIn25LanguagesAndSuperIn24)
{
    std::size_t ram = 0;
    std::size_t super = 0;
    for_each_text([&](const std::string& text, const std::string& key) {
        ram += key == "RAM" && text == "RAM";
        super += key == "Super" && text == "Super";
    });
    EXPECT_EQ(25, ram);
    EXPECT_EQ(24, super);
}

// --- tr and trf ---

TEST(Tr, FindsEveryKeyInEveryLanguage)
{
    for (const auto& language : i18n_data::LANGS) {
        const I18n& i18n = speaking(language.code);
        for (std::size_t i = 0; i < std::size(i18n_data::KEYS); ++i) {
            EXPECT_EQ(language.values[i], i18n.tr(std::string(i18n_data::KEYS[i]).c_str())) << language.code << i18n_data::KEYS[i];
        }
    }
}

TEST(Tr, GivesTheSamePointerBackForATextOutsideTheTablesInEveryLanguage)
{
    for (const auto& language : i18n_data::LANGS) {
        for (const char* key : {"CPU", "apply", "APPLY", "Appl", "Apply ", " Apply", "%d", "\x01", "zzz", "\xFF\xFE", "Balanced (H)"}) {
            EXPECT_EQ(static_cast<const void*>(key), speaking(language.code).tr(key)) << key;
        }
    }
}

TEST(Tr, GivesAnEmptyKeyAndNullBackAsTheyAre)
{
    const char* const empty = "";
    EXPECT_EQ(static_cast<const void*>(empty), speaking("de").tr(empty));
    EXPECT_EQ(nullptr, speaking("de").tr(nullptr));
}

TEST(Tr, EnglishDiffersFromTheKeyInTheTwoBalancedOnesOnly)
{
    std::vector<std::string> different;
    for (const char* key : i18n_data::KEYS) {
        if (std::strcmp(key, speaking("en").tr(key)) != 0) {
            different.emplace_back(key);
        }
    }
    EXPECT_THAT(different, ElementsAre("Balanced-H", "Balanced-L"));
    EXPECT_STREQ("Balanced (H)", speaking("en").tr("Balanced-H"));
}

#ifndef THREAD_SANITIZED

TEST(Tr, AllocatesNothing)
{
    const I18n& i18n = speaking("ko");
    const std::size_t before = g_allocations;
    i18n.tr("RAM");
    i18n.tr("%d Cores / %d Threads");
    i18n.tr("not a key, and too long for any buffer inside a string object");
    EXPECT_EQ(before, g_allocations.load());
    EXPECT_NE("", i18n.trf("%s", "what does allocate, to see that allocations are counted"));
    EXPECT_LT(before, g_allocations.load());
}

#endif

TEST(Tr, AFoundTextOutlivesAChangeOfTheLanguage)
{
    const char* const german = speaking("de").tr("Settings");
    speaking("ar");
    EXPECT_STREQ("Einstellungen", german);
}

TEST(Trf, FormatsTheTranslatedText)
{
    EXPECT_EQ("Kern 3", speaking("de").trf("Core %d", 3));
    EXPECT_EQ("Core -1", speaking("en").trf("Core %d", -1));
    EXPECT_EQ("코어 8개 / 스레드 16개", speaking("ko").trf("%d Cores / %d Threads", 8, 16));
}

TEST(Trf, KeepsTheOrderOfTheNumbersInEveryLanguage)
{
    for (const auto& language : i18n_data::LANGS) {
        const std::string text = speaking(language.code).trf("%d Cores / %d Threads", 4711, 815);
        EXPECT_LT(text.find("4711"), text.find("815")) << text;
        EXPECT_NE(std::string::npos, text.find("815")) << text;
    }
}

TEST(Trf, FormatsATextThatIsNoKeyAsItStands)
{
    EXPECT_EQ("CPU 7 of x at 50%", speaking("de").trf("CPU %d of %s at %.0f%%", 7, "x", 50.0));
    EXPECT_EQ("", speaking("de").trf("%s", ""));
}

TEST(Trf, HasNoLimitOfLength)
{
    const std::string longest(1'000'000, 'x');
    EXPECT_EQ("<" + longest + ">", speaking("en").trf("<%s>", longest.c_str()));
}

TEST(Trf, GivesAFormatThatCannotBeExpandedBackAsItIs)
{
    EXPECT_EQ("%d and %lc", speaking("en").trf("%d and %lc", 5, WEOF));
}

// --- set_language ---

TEST(SetLanguage, MakesACodeCurrent)
{
    for (const LanguageInfo& language : LANGUAGES) {
        const I18n& i18n = speaking(language.code);
        EXPECT_EQ(language.code, i18n.language());
        EXPECT_EQ(language.code, i18n.effective_language());
        EXPECT_EQ(language.rtl, i18n.is_rtl()) << language.code;
    }
}

TEST(SetLanguage, RightToLeftGoesAndComesWithTheLanguage)
{
    EXPECT_TRUE(speaking("he").is_rtl());
    EXPECT_FALSE(speaking("de").is_rtl());
}

TEST(SetLanguage, AnUnknownCodeIsKeptWhileTheProgramSpeaksEnglish)
{
    speaking("he");
    for (const char* code : {"xx", "DE", "de_AT", "zh_CN", "Auto", " "}) {
        const I18n& i18n = speaking(code);
        EXPECT_EQ(code, i18n.language());
        EXPECT_EQ("en", i18n.effective_language());
        EXPECT_FALSE(i18n.is_rtl());
        EXPECT_STREQ("Settings", i18n.tr("Settings"));
    }
}

TEST(SetLanguage, AutoTakesTheLanguageOfTheLocaleAndAnEmptyTextIsAuto)
{
    for (const char* automatic : {"auto", ""}) {
        speaking("de");
        const Languages user("fa_IR.UTF-8");
        const I18n& i18n = speaking(automatic);
        EXPECT_EQ("auto", i18n.language());
        EXPECT_EQ("fa", i18n.effective_language());
        EXPECT_TRUE(i18n.is_rtl());
        EXPECT_STREQ("تنظیمات", i18n.tr("Settings"));
    }
}

TEST(SetLanguage, AutoAsksTheLocaleAnewEachTime)
{
    Languages user("de");
    EXPECT_EQ("de", speaking("auto").effective_language());
    user.language.set("fr");
    EXPECT_EQ("fr", speaking("auto").effective_language());
}

TEST(SetLanguage, ANewObjectSpeaksTheLanguageOfTheLocale)
{
    const Languages user("ur_PK");
    const I18n fresh;
    EXPECT_EQ("auto", fresh.language());
    EXPECT_EQ("ur", fresh.effective_language());
    EXPECT_TRUE(fresh.is_rtl());
}

TEST(SetLanguage, TheInstanceIsOne)
{
    EXPECT_EQ(&I18n::instance(), &I18n::instance());
}

TEST(UiFontFamily, IsMonospaceButForTwelveLanguages)
{
    const std::set<std::string> proportional = {"zh", "zh_TW", "ja", "ko", "ar", "fa", "ur", "he", "hi", "ne", "bn", "th"};
    for (const LanguageInfo& language : LANGUAGES) {
        EXPECT_STREQ(proportional.contains(language.code) ? "sans-serif" : "monospace", speaking(language.code).ui_font_family());
    }
    EXPECT_STREQ("monospace", speaking("xx").ui_font_family());
}

// --- detect_system_language ---

TEST(DetectSystemLanguage, TriesTheFullTagBeforeItsLanguageAlone)
{
    EXPECT_EQ("zh_TW", detected_in({"zh_TW.Big5"}));
    EXPECT_EQ("zh_TW", detected_in({"zh_TW", "zh"}));
    EXPECT_EQ("zh", detected_in({"zh_CN"}));
    EXPECT_EQ("zh", detected_in({"zh_HK.UTF-8"}));
    EXPECT_EQ("de", detected_in({"de_AT.UTF-8"}));
    EXPECT_EQ("pt", detected_in({"pt_BR"}));
}

TEST(DetectSystemLanguage, DropsEncodingAndModifier)
{
    EXPECT_EQ("sr", detected_in({"sr@latin"}));
    EXPECT_EQ("sr", detected_in({"sr_RS@latin"}));
    EXPECT_EQ("ca", detected_in({"ca_ES.UTF-8@valencia"}));
    EXPECT_EQ("ca", detected_in({"ca_ES@valencia.UTF-8"}));
    EXPECT_EQ("zh_TW", detected_in({"zh_TW@x_y"}));
    EXPECT_EQ("de", detected_in({"de."}));
}

TEST(DetectSystemLanguage, CutsATagAtItsFirstUnderscore)
{
    EXPECT_EQ("zh", detected_in({"zh_TW_x"}));
    EXPECT_EQ("de", detected_in({"de_"}));
}

TEST(DetectSystemLanguage, SkipsEntriesThatAreEmptyOrC)
{
    EXPECT_EQ("fr", detected_in({"", "C", "fr"}));
}

TEST(DetectSystemLanguage, TheFirstEntryWithATableWins)
{
    EXPECT_EQ("nb", detected_in({"no_NO", "no", "nn_NO", "nn", "nb_NO", "de"}));
    EXPECT_EQ("de", detected_in({"xx", "_de", ".de", "@de", "DE", "deu", "d", "de", "fr"}));
}

TEST(DetectSystemLanguage, IsEnglishIfNoEntryHasATable)
{
    EXPECT_EQ("en", detected_in({"no_NO", "nn_NO"}));
    EXPECT_EQ("en", detected_in({"C"}));
    EXPECT_EQ("en", detected_in({"C.UTF-8", "POSIX"}));
    EXPECT_EQ("en", detected_in({}));
}

TEST(DetectSystemLanguage, IsEnglishIfThereIsNoList)
{
    g_no_list = true;
    EXPECT_EQ("en", I18n::detect_system_language());
    g_no_list = false;
}

TEST(DetectSystemLanguage, ReadsTheUsersLocaleThroughGlib)
{
    EXPECT_EQ("de", detected("de_AT.UTF-8"));
    EXPECT_EQ("sr", detected("sr@latin"));
    EXPECT_EQ("ca", detected("ca_ES.UTF-8@valencia"));
    EXPECT_EQ("zh_TW", detected("zh_TW.Big5"));
    EXPECT_EQ("zh", detected("zh_HK"));
    EXPECT_EQ("sv", detected("nn_NO.UTF-8:no_NO.UTF-8:sv_SE:de"));
    EXPECT_EQ("de", detected("::de"));
    EXPECT_EQ("en", detected("no_NO.UTF-8"));
    EXPECT_EQ("en", detected("C"));
}

TEST(DetectSystemLanguage, FollowsEachOfTheLocaleVariables)
{
    Languages user(std::nullopt);
    EXPECT_EQ("en", I18n::detect_system_language()) << "none is set";
    user.lang.set("it_IT.UTF-8");
    EXPECT_EQ("it", I18n::detect_system_language());
    user.messages.set("fi_FI.UTF-8");
    EXPECT_EQ("fi", I18n::detect_system_language());
    user.all.set("pl_PL.UTF-8");
    EXPECT_EQ("pl", I18n::detect_system_language());
    user.language.set("uk");
    EXPECT_EQ("uk", I18n::detect_system_language());
}

TEST(DetectSystemLanguage, FindsEveryLanguage)
{
    for (const LanguageInfo& language : LANGUAGES) {
        EXPECT_EQ(language.code, detected(language.code));
        EXPECT_EQ(language.code, detected(language.code + (language.code == "zh_TW" ? ".UTF-8" : "_XX.UTF-8")));
    }
}

}  // namespace
