// What readers and writers throw.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

namespace pipeline {

/// What the user could ask for instead. Texts do not say how: the command names its options, a
/// module the names of arguments.
struct Hint {
    enum class To {
        nothing,
        nameFormat,       ///< if the file is of one that can be read
        askNoAssembly,    ///< the file describes none
        askElsewhere,     ///< for assemblies: other formats have them
        readEarlierFrame, ///< `frame` or one before
        moveByVelocity,   ///< was asked for, in vain
        standStill,
        setRadius,
        setRange,
        nameElements,     ///< was asked for, in vain
        nameMoreElements, ///< than `count`
        renderTiles,      ///< which can be joined
    };
    To to = To::nothing;
    int frame = 0;
    std::size_t count = 0;
};

/// Something to tell the user, and what could be asked for instead.
struct Remark {
    std::string text;
    Hint hint;

    Remark(std::string told, Hint wayOn = {})
        : text(std::move(told)), hint(wayOn) {} // a text is one
};

/// Input that cannot be used: the text says which file, where, what was found and the way on.
class InputError : public std::runtime_error {
  public:
    explicit InputError(std::string const& text, Hint wayOn = {})
        : std::runtime_error(text), hint(wayOn) {}

    Hint const hint;
};

/// A frame that a file does not have.
class NoSuchFrame : public InputError {
  public:
    using InputError::InputError;
};

/// Output that cannot be written.
class OutputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace pipeline
