/// The user's locale is matched with the codes of i18n_data.h; texts are found by bisecting its keys.
#include "i18n.h"

#include <glib.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

#include "i18n_data.h"

namespace {

constexpr const char* FALLBACK_LANGUAGE = "en";

/// Scripts that a monospace font suits badly: these languages take a proportional one.
constexpr const char* NON_MONO[] = {"zh", "zh_TW", "ja", "ko", "ar", "fa", "ur", "he", "hi", "ne", "bn", "th"};

// Two invisible marks: a line that begins with the first runs from right to left, and what follows the second keeps its own order
constexpr const char* RIGHT_TO_LEFT_THEN_LEFT_TO_RIGHT = "\u200F\u200E";

/// The row of a language code, or -1.
int index_of_code(std::string_view code)
{
    const auto* const row = std::find_if(std::begin(i18n_data::LANGS), std::end(i18n_data::LANGS),
                                         [&](const i18n_data::LangEntry& entry) { return code == entry.code; });
    return row == std::end(i18n_data::LANGS) ? -1 : static_cast<int>(row - std::begin(i18n_data::LANGS));
}

std::string_view up_to(std::string_view text, char end)
{
    return text.substr(0, text.find(end));
}

/// The code that serves a locale name such as "de_AT.UTF-8@euro": the whole tag first, then its language alone; empty if neither.
std::string_view code_for_locale(std::string_view name)
{
    if (name.empty() || name == "C") {
        return {};
    }
    const std::string_view tag = up_to(up_to(name, '.'), '@');
    for (const std::string_view candidate : {tag, up_to(tag, '_')}) {
        if (index_of_code(candidate) >= 0) {
            return candidate;
        }
    }
    return {};
}

}  // namespace

I18n& I18n::instance()
{
    static I18n i18n;
    return i18n;
}

I18n::I18n()
{
    set_language("auto");
}

void I18n::set_language(const std::string& code)
{
    m_setting = code.empty() ? "auto" : code;
    std::string wanted = m_setting == "auto" ? detect_system_language() : m_setting;
    int index = index_of_code(wanted);
    if (index < 0) {
        wanted = FALLBACK_LANGUAGE;
        index = index_of_code(wanted);
    }
    m_lang_index = index;
    m_rtl = i18n_data::LANGS[index].rtl;
    m_code = std::move(wanted);
}

const char* I18n::tr(const char* key) const
{
    if (key == nullptr || *key == '\0') {
        return key;
    }
    const auto before = [](const char* a, const char* b) { return std::strcmp(a, b) < 0; };
    const auto* const found = std::lower_bound(std::begin(i18n_data::KEYS), std::end(i18n_data::KEYS), key, before);
    if (found == std::end(i18n_data::KEYS) || std::strcmp(*found, key) != 0) {
        return key;
    }
    return i18n_data::LANGS[m_lang_index].values[found - std::begin(i18n_data::KEYS)];
}

std::string I18n::trf(const char* format_key, ...) const
{
    const char* const format = tr(format_key);
    va_list arguments;
    va_start(arguments, format_key);
    va_list measuring;
    va_copy(measuring, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);

    std::string text = format;
    if (length >= 0) {
        text.resize(static_cast<std::size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    }
    va_end(arguments);
    return text;
}

const char* I18n::figure_marks() const
{
    return m_rtl ? RIGHT_TO_LEFT_THEN_LEFT_TO_RIGHT : "";
}

const char* I18n::ui_font_family() const
{
    const bool proportional = std::find(std::begin(NON_MONO), std::end(NON_MONO), m_code) != std::end(NON_MONO);
    return proportional ? "sans-serif" : "monospace";
}

std::vector<LanguageInfo> I18n::available()
{
    std::vector<LanguageInfo> list;
    list.reserve(std::size(i18n_data::LANGS));
    for (const auto& entry : i18n_data::LANGS) {
        list.push_back({entry.code, entry.native_name, entry.rtl});
    }
    return list;
}

std::string I18n::detect_system_language()
{
    const gchar* const* names = g_get_language_names();
    for (; names != nullptr && *names != nullptr; ++names) {
        const std::string_view code = code_for_locale(*names);
        if (!code.empty()) {
            return std::string(code);
        }
    }
    return FALLBACK_LANGUAGE;
}
