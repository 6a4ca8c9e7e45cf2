/// The status readouts: temperature and power, the throttle label with its tooltip, and the info line that fits its width.
#include <algorithm>
#include <cstdio>

#include "app.h"
#include "i18n.h"
#include "settings.h"

namespace {

constexpr double BUSY_LOAD = 0.5;  // an idle CPU clocks down by design; only a busy one can be held back

constexpr int SIDE_PANEL_INFO_WIDTH = 218;  // what the info line has before its first allocation, horizontal orientation
constexpr int INFO_MARGINS = 12;            // likewise what it has less than the window, vertical orientation
constexpr int MEASURABLE_WIDTH = 20;        // the info line is not fitted to this or less

/// What stands before figures and their units in the current language.
std::string figure_marks()
{
    return I18n::instance().figure_marks();
}

/// How far a clock is below its maximum, 0.0 to 1.0.
double held_back(double current_mhz, double max_mhz)
{
    return std::clamp(1.0 - current_mhz / max_mhz, 0.0, 1.0);
}

/// "5/16 GB"; empty while the memory is unknown.
std::string memory_text(double used_gb, double total_gb)
{
    if (!(total_gb > 0 && used_gb >= 0)) {
        return {};
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.0f/%.0f GB", used_gb, total_gb);
    return figure_marks() + text;
}

/// The counts in words, and in the few letters that are the same in every language.
struct CoreCounts {
    std::string full;
    std::string compact;
};

CoreCounts core_counts(int logical, int physical)
{
    const I18n& i18n = I18n::instance();
    char compact[64];
    if (physical > 0 && physical != logical) {
        std::snprintf(compact, sizeof compact, "%dC/%dT", physical, logical);
        return {i18n.trf("%d Cores / %d Threads", physical, logical), figure_marks() + compact};
    }
    std::snprintf(compact, sizeof compact, "%dC", logical);
    return {i18n.trf("%d Cores", logical), figure_marks() + compact};
}

/// The forms of the info line, longest first.
std::vector<std::string> info_candidates(const CoreCounts& counts, const std::string& memory)
{
    if (memory.empty()) {
        return {counts.full, counts.compact};
    }
    const std::string labelled = std::string(" / ") + tr("RAM") + " " + memory;
    return {counts.full + labelled, counts.compact + labelled, counts.compact + " / " + memory, counts.compact};
}

}  // namespace

void App::update_right_info_label()
{
    std::string text;
    const double temperature = m_sys_metrics->get_temperature();
    if (temperature >= 0) {
        char markup[96];
        const std::string color = with_hash(SettingsStore::instance().get().text(m_dark));
        std::snprintf(markup, sizeof markup, "<span color='%s'>CPU %.0f°C</span>", color.c_str(), temperature);
        text = markup;
    }
    const double power = m_sys_metrics->get_power();
    if (power >= 0) {
        char watts[32];
        std::snprintf(watts, sizeof watts, "  %.1fW", power);
        text += watts;
    }
    set_markup(m_right_info_label, text.c_str());
}

double App::compute_throttle() const
{
    const auto& current = m_cache.frequencies;
    const auto& highest = m_cache.max_frequencies;
    if (current.empty() || highest.empty()) {
        return -1.0;
    }
    double sum = 0.0;
    int count = 0;
    const std::size_t cpus = std::min({m_cache.cores.size(), current.size(), highest.size()});
    for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
        if (highest[cpu] > 0 && current[cpu] > 0 && m_cache.cores[cpu].usage >= BUSY_LOAD) {
            sum += held_back(current[cpu], highest[cpu]);
            ++count;
        }
    }
    return count > 0 ? sum / count : 0.0;
}

void App::update_throttle_label()
{
    if (m_throttle_label == nullptr) {
        return;
    }
    const double t = compute_throttle();
    if (t < 0) {
        set_markup(m_throttle_label, "");
        set_tooltip(m_throttle_label, "");
        return;
    }
    const bool thermal = m_sys_metrics->is_thermal_throttling();
    const double temperature = m_sys_metrics->get_temperature();
    const double limit = m_sys_metrics->get_temp_limit();
    set_markup(m_throttle_label, throttle_markup(t, thermal).c_str());
    set_tooltip(m_throttle_label, throttle_tooltip(t, thermal, temperature, limit).c_str());
}

std::string App::throttle_markup(double t, bool thermal) const
{
    Rgb color;
    if (thermal) {
        color = m_dark ? Rgb{1.0, 0.35, 0.25} : Rgb{0.85, 0.1, 0.05};
    } else {
        usage_color(t, m_dark, color.r, color.g, color.b);
    }
    char markup[192];
    std::snprintf(markup, sizeof markup, "<span color='#%02x%02x%02x'>%s%s %.0f%%</span>", label_byte(color.r), label_byte(color.g),
                  label_byte(color.b), thermal ? "🔥 " : "", tr("Throttle"), t * 100);
    return markup;
}

/// The tables hold no word for temperature, so the word for throttling stands before both figures.
std::string App::throttle_tooltip(double t, bool thermal, double temperature, double limit)
{
    const char* const word = tr("Throttle");
    const double percentage = t * 100;
    char text[256];
    if (!(temperature >= 0 && limit > 0)) {
        std::snprintf(text, sizeof text, "%s %.0f%%", word, percentage);
    } else if (thermal) {
        std::snprintf(text, sizeof text, "%s: %s%.0f°C / %.0f°C\n%s %.0f%%", word, figure_marks().c_str(), temperature, limit, word,
                      percentage);
    } else {
        std::snprintf(text, sizeof text, "%.0f°C / %.0f°C", temperature, limit);
    }
    return text;
}

void App::update_info_line()
{
    const int logical = static_cast<int>(m_cache.cores.size());
    const CoreCounts counts = core_counts(logical, m_sys_metrics->get_physical_core_count());
    const auto candidates = info_candidates(counts, memory_text(m_cache.mem_used_gb, m_cache.mem_total_gb));
    const int width = info_line_width();
    const guint font = pango_context_get_serial(gtk_widget_get_pango_context(m_info_label));
    if (!m_info_choice.was_made_of(candidates, width, font)) {
        m_info_choice = {candidates, width, font, longest_fitting(candidates, width)};
    }
    set_text(m_info_label, m_info_choice.text.c_str());
}

/// The width that the info line has, or will have at its first allocation; before the window's own, a negative number.
int App::info_line_width() const
{
    const int width = gtk_widget_get_allocated_width(m_info_label);
    if (width > 1) {
        return width;
    }
    return m_horizontal ? SIDE_PANEL_INFO_WIDTH : m_last_window_w - INFO_MARGINS;
}

/// The first candidate no wider than `avail`, else the last one. With no room to speak of nothing is measured, and the first one stays.
std::string App::longest_fitting(const std::vector<std::string>& candidates, int avail) const
{
    if (avail <= MEASURABLE_WIDTH) {
        return candidates.front();
    }
    const auto fits = [&](const std::string& text) { return text_width(m_info_label, text) <= avail; };
    const auto pick = std::find_if(candidates.begin(), candidates.end(), fits);
    return pick != candidates.end() ? *pick : candidates.back();
}
