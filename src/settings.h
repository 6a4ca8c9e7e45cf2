/// The user's choices and their file, "settings.json". Main thread only.
#pragma once

#include <array>
#include <string>

#include "theme.h"

/// Everything the user can choose, as the text that stands in the file. Colours are "#RRGGBB" or, if the file had it so, "RRGGBB";
/// they are parsed where they are used.
struct Settings {
    std::string language = "auto";         ///< "auto" or a code of I18n::available()
    std::string theme = "auto";            ///< "auto", "light" or "dark"
    std::string orientation = "vertical";  ///< "vertical" or "horizontal"

    std::string bg_light = Palette::light().background;
    std::string panel_light = Palette::light().panel;
    std::string text_light = Palette::light().text;
    std::string gear_light = Palette::light().gear;
    std::string bg_dark = Palette::dark_().background;
    std::string panel_dark = Palette::dark_().panel;
    std::string text_dark = Palette::dark_().text;
    std::string gear_dark = Palette::dark_().gear;

    std::string total = ColorDefaults::TOTAL;  ///< chart of the whole machine
    std::array<std::string, ColorDefaults::GROUPS.size()> groups =
        ColorDefaults::GROUPS;  ///< charts of a cluster, by CpuCluster::color_index

    bool is_horizontal() const { return orientation == "horizontal"; }

    const std::string& background(bool dark) const { return dark ? bg_dark : bg_light; }
    std::string& background(bool dark) { return dark ? bg_dark : bg_light; }
    const std::string& panel(bool dark) const { return dark ? panel_dark : panel_light; }
    std::string& panel(bool dark) { return dark ? panel_dark : panel_light; }
    const std::string& text(bool dark) const { return dark ? text_dark : text_light; }
    std::string& text(bool dark) { return dark ? text_dark : text_light; }
    const std::string& gear(bool dark) const { return dark ? gear_dark : gear_light; }
    std::string& gear(bool dark) { return dark ? gear_dark : gear_light; }

    /// Puts every colour back to its default; language, theme and orientation stay. Does not save.
    void reset_colors();
};

/// The one live copy of the settings. It writes only when told to: whoever changes a setting calls save().
class SettingsStore {
public:
    /// Created with all defaults at the first call.
    static SettingsStore& instance();

    const Settings& get() const { return m_settings; }
    Settings& mutable_get() { return m_settings; }

    /// Takes over each value of the file that is valid; the others stay as they are. A missing or damaged file is no error.
    void load();

    /// Replaces the file as a whole: a reader sees the old one or the new one, never a part. A save that can't be done is dropped.
    void save() const;

private:
    SettingsStore() = default;
    std::string path() const;

    Settings m_settings;
};
