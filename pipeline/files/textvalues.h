// Words and numbers in texts.
#pragma once

#include "pipeline/files/printable.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>

namespace pipeline {

/// Cuts the next word, up to a blank, off the front of a line; empty when there is none.
inline std::string_view nextWord(std::string_view& line) {
    auto const isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
    auto const start = std::find_if_not(line.begin(), line.end(), isBlank);
    auto const end = std::find_if(start, line.end(), isBlank);
    std::string_view const word = line.substr(static_cast<std::size_t>(start - line.begin()),
                                              static_cast<std::size_t>(end - start));
    line.remove_prefix(static_cast<std::size_t>(end - line.begin()));
    return word;
}

/// Reads a word that is a number from its first character to its last; "nan", "inf" and a leading
/// '+' are fine. A number too large or too small for its floating-point type becomes infinite or 0.
template <class Number> bool parseNumber(std::string_view word, Number& number) {
    if (word.size() > 1 && word[0] == '+' && word[1] != '-')
        word.remove_prefix(1);
    char const* const end = word.data() + word.size();
    auto const [stop, error] = std::from_chars(word.data(), end, number);
    if (stop != end || word.empty())
        return false;
    if constexpr (std::is_floating_point_v<Number>) {
        // from_chars does not say at which end the number left the range; strtod does.
        if (error == std::errc::result_out_of_range) {
            number = static_cast<Number>(std::strtod(std::string(word).c_str(), nullptr));
            return true;
        }
    }
    return error == std::errc{};
}

} // namespace pipeline
