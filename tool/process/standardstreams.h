// Standard output and error, whatever they are.
#pragma once

#include "pipeline/files/printable.h"

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>

namespace pipeline::tool {

// Standard output and error as the shell hands them over: closed, full, or a pipe whose reader has
// left.

/// Takes the places of streams that are closed, so that no file that is opened later gets their
/// numbers, and the messages. A pipe without a reader is an error from then on, not a signal: it
/// would end the process before temporary files are removed.
void secureStandardStreams();

/// Tells the user. Names and words of files are in what is told, so nothing in it steers the
/// terminal. What cannot be told is no reason to fail.
template <class... Values> void say(fmt::format_string<Values...> text, Values&&... values) {
    std::string const told = fmt::format(text, std::forward<Values>(values)...);
    std::fputs(printable(told, true).c_str(), stderr);
}

/// Writes what standard output still buffers. Throws `OutputError` when not all that was printed
/// could be written; when a pipe's reader has seen enough, the process ends as usual in that case.
void finishStandardOutput();

} // namespace pipeline::tool
