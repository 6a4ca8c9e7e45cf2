/// Any bytes as "geometry.json": loading gives usable records, and the next save makes a whole file of them.
#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <random>
#include <string_view>

#include "property.h"
#include "window_manager.h"

namespace {

constexpr int MIN_COLUMNS = 1;
constexpr int MAX_COLUMNS = 16;

std::string saved()
{
    return read_text(fuzz_home().config() + "/geometry.json");
}

/// The five numbers of a set as they stand in the file.
std::string set_text(const WindowGeometry& g, const std::string& prefix)
{
    std::string text;
    const auto add = [&](const char* key, int number) {
        text += (text.empty() ? "\"" : ",\"") + prefix + key + "\":" + std::to_string(number);
    };
    add("x", g.x);
    add("y", g.y);
    add("width", g.width);
    add("height", g.height);
    add("num_columns", g.num_columns);
    return text;
}

std::string file_text(const WindowGeometry& vertical, const WindowGeometry& horizontal)
{
    return '{' + set_text(vertical, "") + ',' + set_text(horizontal, "h_") + '}';
}

void require_same(const WindowGeometry& expected, const WindowGeometry& found, const char* what)
{
    require_equal(set_text(expected, ""), set_text(found, ""), what);
    require_equal(expected.valid, found.valid, what);
}

WindowGeometry load_usable(bool horizontal)
{
    const WindowGeometry loaded = WindowManager::instance().load(horizontal);
    require(loaded.num_columns >= MIN_COLUMNS && loaded.num_columns <= MAX_COLUMNS, "there are 1 to 16 columns");
    require_equal(loaded.width > 0, loaded.valid, "a set is valid exactly with a width above 0");
    return loaded;
}

/// Numbers for a save: the extreme ones often, the others at times. The same file always gets the same ones.
class Numbers {
public:
    explicit Numbers(std::string_view file) : m_random(static_cast<std::uint32_t>(std::hash<std::string_view>()(file))) {}

    bool coin() { return m_random() % 2 == 0; }

    int next()
    {
        using Limits = std::numeric_limits<int>;
        constexpr std::array EXTREMES = {Limits::min(), -1, 0, 1, MAX_COLUMNS, MAX_COLUMNS + 1, Limits::max()};
        return coin() ? EXTREMES[m_random() % EXTREMES.size()] : static_cast<int>(m_random());
    }

private:
    std::mt19937 m_random;
};

/// What a reader makes of a set that was saved.
WindowGeometry as_read(WindowGeometry geometry)
{
    geometry.num_columns = std::clamp(geometry.num_columns, MIN_COLUMNS, MAX_COLUMNS);
    geometry.valid = geometry.width > 0;
    return geometry;
}

void save(const WindowGeometry& g, bool horizontal)
{
    WindowManager::instance().save(g.x, g.y, g.width, g.height, g.num_columns, horizontal);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string file(data, data + size);
    fuzz_home().lay("geometry.json", file);

    Numbers numbers(file);
    const bool horizontal = numbers.coin();
    const WindowGeometry before = load_usable(horizontal);
    WindowGeometry other = load_usable(!horizontal);
    require_equal(file, saved(), "loading leaves the file as it is");
    if (file.empty()) {
        require_same(WindowGeometry(), before, "an empty file is like none");
        require_same(WindowGeometry(), other, "an empty file is like none");
        other.x = other.y = 0;  // which is what a save makes of it
    }

    const WindowGeometry mine = {
        .x = numbers.next(), .y = numbers.next(), .width = numbers.next(), .height = numbers.next(), .num_columns = numbers.next()};
    save(mine, horizontal);
    require_equal(horizontal ? file_text(other, mine) : file_text(mine, other), saved(), "a save writes its own set and keeps the other");
    require_same(as_read(mine), load_usable(horizontal), "what was saved comes back");
    require_same(other, load_usable(!horizontal), "what was kept comes back");

    save(other, !horizontal);
    const std::string settled = saved();
    require_equal(horizontal ? file_text(other, as_read(mine)) : file_text(as_read(mine), other), settled,
                  "a save of the other set brings the columns of this one into range");
    save(as_read(mine), horizontal);
    require_equal(settled, saved(), "saving what is stored changes nothing");
    return 0;
}
