/// What stands in a kernel file, read once more without streams: the targets compare the program's readers with this.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

inline constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";
inline constexpr std::string_view DIGITS = "0123456789";

/// The parts of a text between two occurrences of the separator. There is always one.
inline std::vector<std::string_view> parts_of(std::string_view text, std::string_view separator)
{
    std::vector<std::string_view> parts;
    for (std::size_t end; (end = text.find(separator)) != std::string_view::npos;) {
        parts.push_back(text.substr(0, end));
        text.remove_prefix(end + separator.size());
    }
    parts.push_back(text);
    return parts;
}

inline std::vector<std::string_view> lines_of(std::string_view text)
{
    return parts_of(text, "\n");
}

inline void skip_white_space(std::string_view& text)
{
    text.remove_prefix(std::min(text.find_first_not_of(WHITE_SPACE), text.size()));
}

/// Takes the next word away from the text; empty if there is none.
inline std::string_view take_word(std::string_view& text)
{
    skip_white_space(text);
    const std::string_view word = text.substr(0, text.find_first_of(WHITE_SPACE));
    text.remove_prefix(word.size());
    return word;
}

/// A number as it stands: a sign, and digits whose value may be too large for any type.
struct Numeral {
    bool is_negative = false;
    std::optional<std::uint64_t> magnitude;  ///< empty: above 64 bits
};

/// Takes the numeral away with which the text begins, white space before it not counted; empty if there is none.
inline std::optional<Numeral> take_numeral(std::string_view& text)
{
    skip_white_space(text);
    Numeral numeral;
    numeral.is_negative = text.starts_with('-');
    if (numeral.is_negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    const std::string_view digits = text.substr(0, text.find_first_not_of(DIGITS));
    if (digits.empty()) {
        return std::nullopt;
    }
    text.remove_prefix(digits.size());
    std::uint64_t magnitude = 0;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), magnitude).ec == std::errc()) {
        numeral.magnitude = magnitude;
    }
    return numeral;
}

/// The value of a numeral; empty if T can't hold it. An unsigned type takes a minus as arithmetic does, and so does a stream.
template <typename T>
std::optional<T> value_of(const Numeral& numeral)
{
    constexpr auto HIGHEST = static_cast<std::uint64_t>(std::numeric_limits<T>::max());
    const std::uint64_t limit = std::is_signed_v<T> && numeral.is_negative ? HIGHEST + 1 : HIGHEST;
    if (!numeral.magnitude || *numeral.magnitude > limit) {
        return std::nullopt;
    }
    return static_cast<T>(numeral.is_negative ? 0 - *numeral.magnitude : *numeral.magnitude);
}

/// Takes the number away with which the text begins; empty if there is none, or one that T can't hold.
template <typename T>
std::optional<T> take_number(std::string_view& text)
{
    const auto numeral = take_numeral(text);
    return numeral ? value_of<T>(*numeral) : std::nullopt;
}

template <typename T>
std::optional<T> number_at_front(std::string_view text)
{
    return take_number<T>(text);
}
