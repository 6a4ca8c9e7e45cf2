/// "geometry.json": one line with both records, read by a scan of its own and overwritten in place.
#include "window_manager.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <string>

#include "saved_file.h"

namespace {

constexpr const char* GEOMETRY_FILE = "geometry.json";

/// What sets the keys of an orientation apart.
std::string prefix_for(bool horizontal)
{
    return horizontal ? "h_" : "";
}

/// The number behind the first "key": (the colon right behind the quotation mark), or `def` if there is none that fits in 32 bits.
/// A flat scan on purpose: whatever stands in the file must not keep the program from starting. The quotation mark in front keeps "x"
/// from being found in "h_x".
/// Not to be merged with read_string() of settings.cpp, which lets anything stand between key and colon and then wants a text in quotation
/// marks: here the colon follows at once, so that only a key is taken for one, and a number ends by itself, wherever the file was cut. Under
/// one rule for both, files that load today would load otherwise.
int parse_int(const std::string& json, const std::string& key, int def)
{
    const std::string needle = '"' + key + "\":";
    const auto found = json.find(needle);
    if (found == std::string::npos) {
        return def;
    }
    try {
        return std::stoi(json.substr(found + needle.size()));
    } catch (const std::exception&) {
        return def;
    }
}

WindowGeometry parse_set(const std::string& json, bool horizontal)
{
    const std::string prefix = prefix_for(horizontal);
    WindowGeometry geometry;
    geometry.x = parse_int(json, prefix + "x", 0);
    geometry.y = parse_int(json, prefix + "y", 0);
    geometry.width = parse_int(json, prefix + "width", 0);
    geometry.height = parse_int(json, prefix + "height", 0);
    const int columns = parse_int(json, prefix + "num_columns", geometry.num_columns);
    geometry.num_columns = std::clamp(columns, WindowGeometry::MIN_COLUMNS, WindowGeometry::MAX_COLUMNS);
    geometry.valid = geometry.width > 0;
    return geometry;
}

void write_set(std::ostream& out, const WindowGeometry& geometry, bool horizontal)
{
    const std::string prefix = prefix_for(horizontal);
    out << '"' << prefix << "x\":" << geometry.x << ",\"" << prefix << "y\":" << geometry.y << ",\"" << prefix
        << "width\":" << geometry.width << ",\"" << prefix << "height\":" << geometry.height << ",\"" << prefix
        << "num_columns\":" << geometry.num_columns;
}

}  // namespace

WindowManager& WindowManager::instance()
{
    static WindowManager manager;
    return manager;
}

void WindowManager::save(int x, int y, int width, int height, int num_columns, bool horizontal)
{
    const std::string path = get_config_path();
    const std::string content = read_file(path);
    const WindowGeometry other = parse_set(content, !horizontal);
    const WindowGeometry mine{.x = x, .y = y, .width = width, .height = height, .num_columns = num_columns};
    const WindowGeometry& v = horizontal ? other : mine;
    const WindowGeometry& h = horizontal ? mine : other;
    std::ofstream out(path);
    out << '{';
    write_set(out, v, false);
    out << ',';
    write_set(out, h, true);
    out << '}';
}

WindowGeometry WindowManager::load(bool horizontal) const
{
    const std::string text = read_file(get_config_path());
    return text.empty() ? WindowGeometry() : parse_set(text, horizontal);
}

std::string WindowManager::get_config_path() const
{
    return config_file_path(GEOMETRY_FILE);
}
