// The side of a program that reads a format for others: what it may use, and how it answers.
#pragma once

#include "pipeline/files/formats/programs/readermessages.h"
#include "pipeline/files/scalartype.h"

#include <cstdint>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pipeline {

/// A file that cannot be used, in words for the user.
class ReaderProblem : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A frame that a file does not have.
class NoSuchReaderFrame : public ReaderProblem {
  public:
    using ReaderProblem::ReaderProblem;
};

/// Sends messages; ends the program when nobody listens any more.
class ReaderSender {
  public:
    void note(std::string_view text) const { send(ReaderMessage::note, text); }
    /// A fact: "format", its name; "frames", how many; "step" and "time" of the frame; "particles",
    /// how many; "cell", 12 numbers (an origin and three edges) and three times 0 or 1 (whether it
    /// is periodic), or "lattice", the lengths of three edges and three angles; "angstrom", how
    /// long that is in the file's unit.
    void fact(std::string_view what, std::string_view value) const;
    void names(std::vector<std::pair<std::int64_t, std::string>> const& entries) const;
    void column(ScalarType type, std::string_view name, std::string_view typeName) const;
    void rows(std::string_view bytes) const { send(ReaderMessage::rows, bytes); }
    void send(ReaderMessage kind, std::string_view bytes) const;
};

/// The file that the program was started for, and what is wanted of it.
struct ReaderInput {
    std::string path;               ///< where it can be opened
    std::string namedPath;          ///< the same as the user calls it, with other files beside it
    std::uint64_t bytes = 0;        ///< its size
    int frame = 0;                  ///< negative: counted from the end
    bool findOnly = false;          ///< facts are enough
    std::vector<std::string> kinds; ///< of particles; none: all
    bool wantsAll = true;           ///< columns; else those named
    std::set<std::string, std::less<>> columns;

    bool wants(std::string_view column) const { return columns.contains(column); }
    /// Which of so many frames is wanted. Throws `NoSuchReaderFrame`.
    int frameOf(std::size_t count) const;
};

/// The whole life of a reading program, with what `main` is given: bounds its memory and its
/// processor time by the size of the file, lets `read` send columns and rows, and sends what that
/// throws as a problem. Returns what `main` does.
int runReader(
    int argc, char** argv,
    std::function<void(ReaderInput const& input, ReaderSender const& sender)> const& read);

} // namespace pipeline
