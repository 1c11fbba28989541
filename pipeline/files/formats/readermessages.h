// What a program that reads a format on its own says to the one that started it.
//
// Libraries that are heavy to load, or that believe what a damaged file says of itself, are linked
// to small programs only. Such a program gets the file as descriptor 3 and its path as argument,
// and writes messages to standard output: a kind, the length of what follows as 64 bits in the
// machine's own byte order, and so many bytes. The first says hello; columns come before rows, and
// the last is the end, a problem, or that the frame asked for does not exist.
#pragma once

#include <cstdint>
#include <string_view>

namespace pipeline {

enum class ReaderMessage : char {
    hello = 'h',   ///< `readerGreeting`
    note = 'n',    ///< a line for the user
    column = 'c',  ///< a digit, the number of its `ScalarType`; its name; LF; its type's name
    rows = 'r',    ///< rows, one behind the other, each with a value of every column in turn
    problem = 'p', ///< why the file cannot be used
    end = 'e',     ///< all has been said
};

constexpr std::string_view readerGreeting = "kelpa-reader 1";
constexpr int readerFileDescriptor = 3;
constexpr std::uint64_t longestReaderMessage = 16 * 1024 * 1024;

} // namespace pipeline
