/// Where the window stood, how large it was and how many columns it showed, for each orientation: the file "geometry.json".
/// Main thread only, the handler of SIGINT and SIGTERM included.
#pragma once

#include <cstdint>
#include <string>

/// One orientation's record, in pixels. Only `valid` tells whether a size is stored; the member defaults stand for "no file".
struct WindowGeometry {
    static constexpr int MIN_COLUMNS = 1;  ///< of cards: what the file may say, and what the dialog offers
    static constexpr int MAX_COLUMNS = 16;

    std::int32_t x = 100;
    std::int32_t y = 100;
    std::int32_t width = 0;
    std::int32_t height = 0;
    std::int32_t num_columns = 4;  ///< columns of cards; MIN_COLUMNS to MAX_COLUMNS after a load
    bool valid = false;            ///< the stored width is above 0; not in the file
};

/// Holds nothing: every call goes to the file.
class WindowManager {
public:
    static WindowManager& instance();

    /// Stores the record of that orientation as given, unchecked, and rewrites the other as it was read. Overwrites the file in
    /// place, without a temporary one: it changes with every move of the window, and load() copes with whatever a cut leaves.
    /// A save that can't be done is dropped.
    void save(int x, int y, int width, int height, int num_columns, bool horizontal);

    /// The record of that orientation. Missing or unreadable numbers are 0, missing columns 4; a missing or empty file gives a
    /// WindowGeometry as it is made. Never fails.
    WindowGeometry load(bool horizontal) const;

private:
    WindowManager() = default;
    std::string get_config_path() const;
};
