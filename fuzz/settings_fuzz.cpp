/// Any bytes as "settings.json": loading gives a valid record, which survives saving and loading.
#include <algorithm>
#include <filesystem>
#include <utility>
#include <vector>

#include "i18n.h"
#include "property.h"
#include "settings.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

/// Keys and values in the order of the file.
Fields fields(const Settings& s)
{
    return {{"language", s.language},       {"theme", s.theme},           {"orientation", s.orientation}, {"bg_light", s.bg_light},
            {"panel_light", s.panel_light}, {"text_light", s.text_light}, {"gear_light", s.gear_light},   {"bg_dark", s.bg_dark},
            {"panel_dark", s.panel_dark},   {"text_dark", s.text_dark},   {"gear_dark", s.gear_dark},     {"total", s.total},
            {"group0", s.groups[0]},        {"group1", s.groups[1]},      {"group2", s.groups[2]},        {"group3", s.groups[3]}};
}

std::string file_text(const Settings& settings)
{
    std::string lines;
    for (const auto& [key, value] : fields(settings)) {
        lines += (lines.empty() ? "{\n  \"" : ",\n  \"") + key + "\": \"" + value + '"';
    }
    return lines + "\n}\n";
}

bool is_one_of(const std::string& value, const std::vector<std::string>& words)
{
    return std::find(words.begin(), words.end(), value) != words.end();
}

const std::vector<std::string>& languages()
{
    static const std::vector<std::string> list = [] {
        std::vector<std::string> codes = {"auto"};
        for (const LanguageInfo& language : I18n::available()) {
            codes.push_back(language.code);
        }
        return codes;
    }();
    return list;
}

/// Six hexadecimal digits behind an optional "#", for the reader of the files and for the users of the colour.
bool is_color(const std::string& value)
{
    const std::string digits = value.substr(value.starts_with('#') ? 1 : 0);
    Rgb ignored;
    return digits.size() == 6 && digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos && hex_to_rgb(value, ignored);
}

bool is_valid(const std::string& key, const std::string& value)
{
    if (key == "language") {
        return is_one_of(value, languages());
    }
    if (key == "theme") {
        return is_one_of(value, {"auto", "light", "dark"});
    }
    if (key == "orientation") {
        return is_one_of(value, {"vertical", "horizontal"});
    }
    return is_color(value);
}

/// The record after a load over this one.
Settings loaded_over(const Settings& before)
{
    SettingsStore::instance().mutable_get() = before;
    SettingsStore::instance().load();
    return SettingsStore::instance().get();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string file(data, data + size);
    const std::string path = fuzz_home().config() + "/settings.json";
    fuzz_home().lay("settings.json", file);

    const Settings settings = loaded_over(Settings());
    for (const auto& [key, value] : fields(settings)) {
        require(is_valid(key, value), ("every value is valid, that of " + key + " too").c_str());
    }
    require_equal(file_text(settings), file_text(loaded_over(settings)), "loading the same file again changes nothing");
    require_equal(file, read_text(path), "loading leaves the file as it is");

    SettingsStore::instance().save();
    require_equal(file_text(settings), read_text(path), "a save writes every value under its key");
    require(!std::filesystem::exists(path + ".tmp"), "a save leaves no temporary file");
    require_equal(file_text(settings), file_text(loaded_over(Settings())), "what was saved comes back");
    return 0;
}
