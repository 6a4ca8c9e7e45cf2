/// The maker's names stand here; version, year and addresses in build_config.h.
#include "about_text.h"

#include <cstdlib>
#include <string>
#include <string_view>

#include "build_config.h"
#include "gtk_workarounds.h"
#include "i18n.h"
#include "widget_building.h"

namespace {

constexpr int DISCLAIMER_SPACING = 4;
constexpr int DISCLAIMER_WIDTH_CHARS = 38;

constexpr const char* DEVELOPER = "Ilan Morvay";
constexpr const char* MAKER = "Fennmark Software";
constexpr std::string_view SCHEME_END = "://";
constexpr const char* DISCLAIMER_KEY =
    "This software is provided \"as is\", without warranty of any kind, express or implied. Use at your own risk. The author shall not "
    "be liable for any damages arising from the use of this software.";

std::string version_text()
{
    std::string text = std::string("v") + BuildConfig::APP_VERSION;
    if (const char* revision = std::getenv("SNAP_REVISION")) {
        text += std::string(" (rev ") + revision + ")";
    }
    return text;
}

/// The address without its scheme, and without the slash at its end.
std::string link_text(std::string_view uri)
{
    const std::size_t scheme = uri.find(SCHEME_END);
    uri.remove_prefix(scheme != std::string_view::npos ? scheme + SCHEME_END.size() : 0);
    uri.remove_suffix(uri.ends_with('/') ? 1 : 0);
    return std::string(uri);
}

void add_link(GtkWidget* box, const std::string& uri, const std::string& label)
{
    pack_start(box, create_link_button(uri.c_str(), label.c_str()), Fill::NO);
}

}  // namespace

void add_about(GtkWidget* box)
{
    const auto add_line = [box](const std::string& text, const char* css_class) {
        pack_start(box, create_label(text, 0.5, css_class), Fill::NO);
    };
    add_line(BuildConfig::APP_NAME, "about-name");
    add_line(version_text(), "about-version");
    add_line(tr("Developed by"), "about-dim");
    add_line(DEVELOPER, "about-dev");
    add_line(MAKER, "about-dim");
    add_line(BuildConfig::ABOUT_YEAR, "about-dim");
    add_link(box, BuildConfig::WEB_SITE, link_text(BuildConfig::WEB_SITE));
    add_link(box, std::string("mailto:") + BuildConfig::CONTACT_ADDRESS, BuildConfig::CONTACT_ADDRESS);
}

GtkWidget* create_disclaimer()
{
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, DISCLAIMER_SPACING);
    add_class(box, "disclaimer-box");
    pack_start(box, create_label(tr("Disclaimer"), 0.0, "about-dim"), Fill::NO);
    GtkWidget* text = create_label(tr(DISCLAIMER_KEY), 0.0, "disclaimer-text");
    gtk_label_set_line_wrap(GTK_LABEL(text), TRUE);
    gtk_label_set_max_width_chars(GTK_LABEL(text), DISCLAIMER_WIDTH_CHARS);
    pack_start(box, text, Fill::NO);
    return box;
}
