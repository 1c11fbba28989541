// What went wrong, as the command says it.
#pragma once

#include <exception>
#include <string>

namespace pipeline::tool {

enum ExitCode {
    done = 0,
    failed = 1,
    wrongUsage = 2,
    unusableInput = 3,
    unwritableOutput = 4,
    interrupted = 130
};

/// A failure in the user's words, and what the process returns for it.
struct Failure {
    ExitCode code;
    std::string text;
};

Failure failureOf(std::exception_ptr const& thrown);

} // namespace pipeline::tool
