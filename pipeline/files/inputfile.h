// The bytes of a file, plain or packed.
#pragma once

#include "pipeline/files/errors.h"
#include "pipeline/files/progress.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pipeline {

/// The bytes of a file from front to back, plain or packed; which of the two, the content tells.
///
/// Memory grows with the longest line asked for, never with what a header claims. The progress is
/// polled with every fetch from the file, so no loop that reads can forget it.
/// Every operation throws `InputError` when the file cannot be read or its packed data is damaged.
class InputFile {
  public:
    /// Opens the file; a missing, unreadable or empty file and a folder are refused.
    InputFile(std::string path, PhaseProgress progress);
    ~InputFile();
    InputFile(InputFile const&) = delete;
    InputFile& operator=(InputFile const&) = delete;

    /// Another progress, from now on.
    void reportTo(PhaseProgress phase) { progress = std::move(phase); }
    std::string const& path() const { return filePath; }
    /// Its number with the system, for what reads it in ways of its own.
    int handle() const { return descriptor; }
    /// How its bytes are packed, such as "gzip"; empty: they are plain.
    std::string_view packing() const;
    /// Whether opening the same path gives the same bytes again; false for a pipe.
    bool canBeReadAgain() const { return regular; }
    /// How many bytes follow, where that is known without reading them: in a plain file.
    std::optional<std::uint64_t> bytesLeft() const;
    /// The size on disk; 0 for a pipe.
    std::uint64_t sizeOnDisk() const { return size; }
    /// The number of the line that `nextLine` gave last, counted from 1.
    std::uint64_t lineNumber() const { return linesTaken; }

    /// The bytes at hand, at least `wanted` of them unless the file ends before. They stay valid
    /// until the next call.
    std::string_view peek(std::size_t wanted);
    /// Moves on by `count` bytes, all of which `peek` has shown.
    void take(std::size_t count) { begin += count; }
    /// Moves on by `count` bytes, or to the end; returns by how many.
    std::uint64_t skip(std::uint64_t count);
    /// The next line without its LF or CR LF, valid until the next call; nothing at the end.
    std::optional<std::string_view> nextLine();
    /// The same line once more, before it is taken.
    std::optional<std::string_view> peekLine();
    /// Reads packed data to its end, where its checksum is.
    void verifyChecksum();

    /// Throws an `InputError` that starts with the file's name.
    template <class... Values>
    [[noreturn]] void fail(fmt::format_string<Values...> text, Values&&... values) const {
        fail(Hint{}, text, std::forward<Values>(values)...);
    }
    template <class... Values>
    [[noreturn]] void fail(Hint hint, fmt::format_string<Values...> text,
                           Values&&... values) const {
        throw InputError(filePath + ": " + fmt::format(text, std::forward<Values>(values)...),
                         hint);
    }
    /// The same with the number of the current line.
    template <class... Values>
    [[noreturn]] void failHere(fmt::format_string<Values...> text, Values&&... values) const {
        failHere(Hint{}, text, std::forward<Values>(values)...);
    }
    template <class... Values>
    [[noreturn]] void failHere(Hint hint, fmt::format_string<Values...> text,
                               Values&&... values) const {
        throw InputError(fmt::format("{}:{}: ", filePath, linesTaken) +
                             fmt::format(text, std::forward<Values>(values)...),
                         hint);
    }

    std::uint64_t particles = 0; ///< kept by the reader, told to the progress

  private:
    struct Packed;

    std::size_t lineLength();
    std::optional<std::string_view> firstLine(std::size_t length) const;
    bool fetch();
    std::size_t readRaw(char* to, std::size_t space);
    std::size_t unpackSome(char* to, std::size_t space);
    bool refill();
    bool beginsStream();
    void waitForBytes() const;
    void poll() const;

    std::string filePath;
    PhaseProgress progress;
    int descriptor = -1;
    bool regular = false;
    std::uint64_t size = 0;
    std::uint64_t rawBytesRead = 0;
    std::uint64_t linesTaken = 0;
    std::unique_ptr<Packed> packed; ///< null: the file is plain
    std::vector<char> buffer;       ///< bytes [begin, end) are at hand
    std::size_t begin = 0;
    std::size_t end = 0;
    bool ended = false;
};

} // namespace pipeline
