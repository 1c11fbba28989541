// What is escaped, quoted and cut.
#include "pipeline/files/printable.h"

#include <fmt/format.h>

#include <algorithm>

namespace pipeline {

namespace {

/// The first bytes of a text, up to a character's end.
std::string_view cutAt(std::string_view text, std::size_t longest) {
    if (text.size() <= longest)
        return text;
    auto const continues = [&] {
        return (static_cast<unsigned char>(text[longest]) & 0xC0) == 0x80;
    };
    for (int step = 0; step < 3 && longest > 0 && continues(); ++step)
        --longest;
    return text.substr(0, longest);
}

} // namespace

std::uint32_t codePoint(std::string_view character) {
    if (character.size() == 1)
        return static_cast<unsigned char>(character[0]);
    std::uint32_t code = static_cast<unsigned char>(character[0]) & (0x7FU >> character.size());
    for (char const c : character.substr(1))
        code = (code << 6) | (static_cast<unsigned char>(c) & 0x3FU);
    return code;
}

bool isObeyed(std::uint32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069);
}

std::size_t characterLength(std::string_view text) {
    if (text.empty())
        return 0;
    auto const lead = static_cast<unsigned char>(text[0]);
    std::size_t const length = lead < 0x80   ? 1
                               : lead < 0xC2 ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length > text.size())
        return 0;
    for (char const c : text.substr(std::min<std::size_t>(1, length), length == 0 ? 0 : length - 1))
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80)
            return 0;
    // Not what a shorter form could say, no half of a pair, nothing beyond the last plane.
    std::uint32_t const code = length > 1 ? codePoint(text.substr(0, length)) : 0;
    bool const isTooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    bool const isHalf = code >= 0xD800 && code < 0xE000;
    return isTooLong || isHalf || code > 0x10FFFF ? 0 : length;
}

std::string printable(std::string_view text, bool keepLines) {
    std::string result;
    while (!text.empty()) {
        std::size_t const length = characterLength(text);
        std::string_view const character = text.substr(0, std::max<std::size_t>(1, length));
        bool const isKept =
            length > 0 && (!isObeyed(codePoint(character)) || (keepLines && character == "\n"));
        if (isKept)
            result += character;
        else
            for (char const c : character)
                result +=
                    fmt::format("\\x{:02x}", static_cast<unsigned>(static_cast<unsigned char>(c)));
        text.remove_prefix(character.size());
    }
    return result;
}

std::string quoted(std::string_view word) {
    constexpr std::size_t longest = 40;
    std::string_view const shown = cutAt(word, longest);
    return std::string("'")
        .append(printable(shown))
        .append(shown.size() < word.size() ? "...'" : "'");
}

std::string oneLine(std::string_view text) {
    constexpr std::size_t longest = 300;
    std::string line(cutAt(text, longest));
    std::replace(line.begin(), line.end(), '\n', ' ');
    return printable(line);
}

} // namespace pipeline
