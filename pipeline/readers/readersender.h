// The side of a program that reads a format for others: what it may use, and how it answers.
#pragma once

#include "pipeline/files/formats/readermessages.h"
#include "pipeline/files/scalartype.h"

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace pipeline {

/// A file that cannot be used, in words for the user.
class ReaderProblem : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Sends messages; ends the program when nobody listens any more.
class ReaderSender {
  public:
    void note(std::string_view text) const { send(ReaderMessage::note, text); }
    void column(ScalarType type, std::string_view name, std::string_view typeName) const;
    void rows(std::string_view bytes) const { send(ReaderMessage::rows, bytes); }
    void send(ReaderMessage kind, std::string_view bytes) const;
};

/// The file that the program was started for.
struct ReaderInput {
    std::string path;        ///< where it can be opened
    std::uint64_t bytes = 0; ///< its size
};

/// The whole life of a reading program: bounds its memory and its processor time by the size of the
/// file, lets `read` send columns and rows, and sends what that throws as a problem. Returns what
/// `main` does.
int runReader(
    std::function<void(ReaderInput const& input, ReaderSender const& sender)> const& read);

} // namespace pipeline
