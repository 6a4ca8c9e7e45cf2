/// "settings.json": what stands in it, the scan that reads it, and a save that replaces it as a whole.
#include "settings.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "i18n.h"
#include "saved_file.h"

namespace {

constexpr const char* SETTINGS_FILE = "settings.json";

bool is_one_of(const std::string& value, std::initializer_list<const char*> words)
{
    return std::find(words.begin(), words.end(), value) != words.end();
}

bool is_language(const std::string& value)
{
    const auto languages = I18n::available();
    return value == "auto" || std::any_of(languages.begin(), languages.end(), [&](const LanguageInfo& l) { return l.code == value; });
}

bool is_theme(const std::string& value)
{
    return is_one_of(value, {"auto", "light", "dark"});
}

bool is_orientation(const std::string& value)
{
    return is_one_of(value, {"vertical", "horizontal"});
}

bool is_color(const std::string& value)
{
    Rgb ignored;
    return hex_to_rgb(value, ignored);
}

/// A key of the file, the setting that it stands for, and whether the file may set it to a value. A row without a check does not compile.
template <typename TextPointer>
struct Field {
    std::string key;
    TextPointer text;
    bool (&is_valid)(const std::string& value);
};

/// In the order of the file. SettingsT is Settings or const Settings, so that saving and loading walk one list.
template <typename SettingsT>
auto fields(SettingsT& s)
{
    std::vector<Field<decltype(&s.language)>> list = {
        {"language", &s.language, is_language},          {"theme", &s.theme, is_theme},
        {"orientation", &s.orientation, is_orientation}, {"bg_light", &s.bg_light, is_color},
        {"panel_light", &s.panel_light, is_color},       {"text_light", &s.text_light, is_color},
        {"gear_light", &s.gear_light, is_color},         {"bg_dark", &s.bg_dark, is_color},
        {"panel_dark", &s.panel_dark, is_color},         {"text_dark", &s.text_dark, is_color},
        {"gear_dark", &s.gear_dark, is_color},           {"total", &s.total, is_color},
    };
    for (std::size_t i = 0; i < s.groups.size(); ++i) {
        list.push_back({"group" + std::to_string(i), &s.groups[i], is_color});
    }
    return list;
}

/// The first text in double quotation marks behind the first colon behind the first "key" (quotation marks included); empty if
/// there is none. A flat scan on purpose: it copes with any order, spacing, cut or unknown content.
/// Not to be merged with parse_int() of window_manager.cpp, which wants the colon right behind the key and then a number: here anything may
/// stand between key, colon and text, and a key counts also where it stands as a value. Under one rule for both, files that load today
/// would load otherwise.
std::string read_string(const std::string& text, const std::string& key)
{
    const std::string needle = '"' + key + '"';
    const auto found = text.find(needle);
    if (found == std::string::npos) {
        return {};
    }
    const auto colon = text.find(':', found + needle.size());
    if (colon == std::string::npos) {
        return {};
    }
    const auto open = text.find('"', colon);
    if (open == std::string::npos) {
        return {};
    }
    const auto close = text.find('"', open + 1);
    if (close == std::string::npos) {
        return {};
    }
    return text.substr(open + 1, close - open - 1);
}

void write_json(std::ostream& out, const Settings& settings)
{
    const char* separator = "{\n";
    for (const auto& [key, text, is_valid] : fields(settings)) {
        out << separator << "  \"" << key << "\": \"" << *text << '"';
        separator = ",\n";
    }
    out << "\n}\n";
}

}  // namespace

void Settings::reset_colors()
{
    for (const bool of_dark : {false, true}) {
        const Palette palette = Palette::for_theme(of_dark);
        background(of_dark) = palette.background;
        panel(of_dark) = palette.panel;
        text(of_dark) = palette.text;
        gear(of_dark) = palette.gear;
    }
    total = ColorDefaults::TOTAL;
    groups = ColorDefaults::GROUPS;
}

SettingsStore& SettingsStore::instance()
{
    static SettingsStore store;
    return store;
}

void SettingsStore::load()
{
    const std::string file = read_file(path());
    for (const auto& [key, text, is_valid] : fields(m_settings)) {
        const std::string value = read_string(file, key);
        if (is_valid(value)) {
            *text = value;
        }
    }
}

void SettingsStore::save() const
{
    const std::string final_path = path();
    const std::string temporary = final_path + ".tmp";
    std::ofstream out(temporary, std::ios::trunc);
    if (!out) {
        return;
    }
    write_json(out, m_settings);
    out.flush();
    if (!out) {
        return;  // a full disk: the old file stays, and the next save reuses the temporary one
    }
    out.close();
    std::error_code error;
    std::filesystem::rename(temporary, final_path, error);
    if (error) {
        std::filesystem::remove(temporary, error);
    }
}

std::string SettingsStore::path() const
{
    return config_file_path(SETTINGS_FILE);
}
