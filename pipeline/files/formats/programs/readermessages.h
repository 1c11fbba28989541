// What a program that reads a format on its own says to the one that started it.
//
// Libraries that are heavy to load, or that believe what a damaged file says of itself, are linked
// to small programs only. Such a program gets the file as descriptor 3, its path as argument and
// behind it what is wanted, and writes messages to standard output: a kind, the length of what
// follows as 64 bits in the machine's own byte order, and so many bytes. The first says hello;
// facts and columns come before rows, and the last is the end or why there is none.
//
// What is wanted, each an argument: "frame=-1"; "find", for a frame that is only looked for, of
// which facts are enough; "kinds=gas,stars"; "columns=id,Density", those that are used, or
// "columns" for all.
#pragma once

#include <cstdint>
#include <string_view>

namespace pipeline {

enum class ReaderMessage : char {
    hello = 'h',   ///< `readerGreeting`
    note = 'n',    ///< a line for the user
    fact = 'f',    ///< what it is; LF; its value, numbers with blanks between; see readersender.h
    column = 'c',  ///< a digit, the number of its `ScalarType`; its name; LF; its type's name
    names = 'm',   ///< what the numbers of the last column stand for: lines of a number and a name
    absent = 'a',  ///< the name of a column that is there, and not sent as nobody wants it
    rows = 'r',    ///< rows, one behind the other, each with a value of every column in turn
    problem = 'p', ///< why the file cannot be used
    noFrame = 'x', ///< why there is no such frame
    memory = 'o',  ///< there is too little of it, which is not the file's fault
    end = 'e',     ///< all has been said
};

constexpr std::string_view readerGreeting = "kelpa-reader 2";
constexpr int readerFileDescriptor = 3;
constexpr std::uint64_t longestReaderMessage = 16 * 1024 * 1024;

} // namespace pipeline
