/// The language of the interface: which one is in force, and its texts. The English text is the key. Main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// One language that can be chosen.
struct LanguageInfo {
    std::string code;         ///< such as "de" or "zh_TW"
    std::string native_name;  ///< the language's name in that language
    bool rtl = false;         ///< written right to left
};

class I18n {
public:
    /// Created at the first call, with the language that the user's locale asks for.
    static I18n& instance();

    /// Makes a language current: a code, or "auto" (or an empty text) for the locale's. An unknown code runs in English.
    /// Changes this object only; refreshing the interface is the caller's business.
    void set_language(const std::string& code);

    /// What was asked for: "auto" or a code, which may be unknown.
    const std::string& language() const { return m_setting; }
    /// The language in force, always a code of available().
    const std::string& effective_language() const { return m_code; }
    bool is_rtl() const { return m_rtl; }

    /// The text for a key in the current language. A key outside the tables, an empty one or null comes back as the same pointer.
    /// Allocates nothing; a text that was found is static.
    const char* tr(const char* key) const;

    /// Formats, in the manner of printf, the text for a key that is a format. A format that can't be expanded comes back as it is.
    std::string trf(const char* format_key, ...) const __attribute__((format(printf, 2, 3)));

    /// What stands before figures and their Latin units in a longer text; empty unless the language is written from right to left. There
    /// the pieces of "95°C / 100°C" would each find a place of their own behind a word, and a line that begins with "4C" would run left to
    /// right.
    const char* figure_marks() const;

    /// The font family of the interface in the current language, "monospace" or "sans-serif".
    const char* ui_font_family() const;

    /// All languages, ascending by code.
    static std::vector<LanguageInfo> available();

    /// The code of the first language of the user's locale (as GLib derives the list) that there is a table for; else "en".
    static std::string detect_system_language();

private:
    I18n();

    std::string m_setting = "auto";
    std::string m_code = "en";
    bool m_rtl = false;
    std::int32_t m_lang_index = 0;  ///< row of i18n_data::LANGS
};

/// The text for a key in the current language: I18n::tr() of the one instance.
inline const char* tr(const char* key)
{
    return I18n::instance().tr(key);
}
