// What comes from files and their names, made fit for a terminal and for JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pipeline {

/// The length in bytes of the character that `text` starts with; 0 where that is no UTF-8.
std::size_t characterLength(std::string_view text);

/// The number of a character of one to four bytes.
std::uint32_t codePoint(std::string_view character);

/// Whether a terminal may obey the character, or write what follows from right to left.
bool isObeyed(std::uint32_t code);

/// The same text with everything that a terminal might obey, or that is no UTF-8, as \xNN.
/// `keepLines` leaves the ends of lines what they are.
std::string printable(std::string_view text, bool keepLines = false);

/// A word from a file as a message may show it: in quotes, printable, not too long.
std::string quoted(std::string_view word);

/// What somebody else says in a message of ours: one printable line, not too long.
std::string oneLine(std::string_view text);

} // namespace pipeline
