#include "settings.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <utility>
#include <vector>

#include "i18n.h"
#include "saved_file.h"

namespace {

constexpr const char* SETTINGS_FILE = "settings.json";

/// A key of the file and the field that it stands for. SettingsT is Settings or const Settings, so that saving and loading
/// walk one list.
template <typename SettingsT>
auto fields(SettingsT& s)
{
    using Field = std::pair<std::string, decltype(&s.language)>;
    std::vector<Field> list = {
        {"language", &s.language},       {"theme", &s.theme},           {"orientation", &s.orientation}, {"bg_light", &s.bg_light},
        {"panel_light", &s.panel_light}, {"text_light", &s.text_light}, {"gear_light", &s.gear_light},   {"bg_dark", &s.bg_dark},
        {"panel_dark", &s.panel_dark},   {"text_dark", &s.text_dark},   {"gear_dark", &s.gear_dark},     {"total", &s.total},
    };
    for (std::size_t i = 0; i < s.groups.size(); ++i) {
        list.emplace_back("group" + std::to_string(i), &s.groups[i]);
    }
    return list;
}

/// The first text in double quotation marks behind the first colon behind the first "key" (quotation marks included); empty if
/// there is none. A flat scan on purpose: it copes with any order, spacing, cut or unknown content.
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

bool is_one_of(const std::string& value, std::initializer_list<const char*> words)
{
    return std::find(words.begin(), words.end(), value) != words.end();
}

bool is_language(const std::string& value)
{
    const auto languages = I18n::available();
    return value == "auto" || std::any_of(languages.begin(), languages.end(), [&](const LanguageInfo& l) { return l.code == value; });
}

bool is_color(const std::string& value)
{
    Rgb ignored;
    return hex_to_rgb(value, ignored);
}

/// Whether the file may set that key to that value. Every key that is not a word of a list is a colour.
bool is_valid(const std::string& key, const std::string& value)
{
    if (value.empty()) {
        return false;
    }
    if (key == "language") {
        return is_language(value);
    }
    if (key == "theme") {
        return is_one_of(value, {"auto", "light", "dark"});
    }
    if (key == "orientation") {
        return is_one_of(value, {"vertical", "horizontal"});
    }
    return is_color(value);
}

void write_json(std::ostream& out, const Settings& settings)
{
    const char* separator = "{\n";
    for (const auto& [key, value] : fields(settings)) {
        out << separator << "  \"" << key << "\": \"" << *value << '"';
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
    const std::string text = read_file(path());
    for (const auto& [key, field] : fields(m_settings)) {
        const std::string value = read_string(text, key);
        if (is_valid(key, value)) {
            *field = value;
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
