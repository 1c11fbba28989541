// What readers and writers throw.
#pragma once

#include <stdexcept>

namespace kelpatool {

/// Input that cannot be used: the text says which file, where, what was found and the way on.
class InputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
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

} // namespace kelpatool
