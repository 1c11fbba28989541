#pragma once

#include "tool/process/interruptwatch.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kelpatool {

/// A file that appears under its name only when it is whole.
///
/// The bytes go to a temporary name in the same folder; `commit` gives it the right one. Destroyed
/// without that, it leaves nothing behind, and a file that was there before keeps its content. A
/// file that is replaced keeps its mode, its owner and its other names, and a link stays one, even
/// one to a file that is not there yet. What is no ordinary file, such as a pipe, is written to
/// directly. Every function throws `OutputError` naming the file and the reason, those that may
/// wait `Interrupted` after Ctrl-C.
class OutputFile {
  public:
    /// Opens the temporary file. A folder, a read-only file and a missing folder are refused.
    explicit OutputFile(std::string const& wantedPath);
    ~OutputFile();
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    void write(std::string_view bytes);

    /// Waits until the bytes are on the disk, which is when a full one is noticed, and renames.
    void commit();

    /// Throws when a file of this name could not be created. Changes nothing.
    static void check(std::string const& path);

  private:
    InterruptWatch::Hold const hold; // first, so that it goes when the file is gone
    void resolve();
    void open();
    void openTemporary();
    int openExisting() const;
    void resemble();
    void flush();
    void rename();
    void copyInto();
    [[noreturn]] void fail(int error) const;

    std::string path;          ///< as the user knows it
    std::string target;        ///< the same with links resolved
    std::string written;       ///< where the bytes go
    bool isTemporary = false;  ///< what is at `written` goes with this object
    bool isReplacing = false;  ///< there is an ordinary file at `target`
    bool keepsPlace = false;   ///< that file's bytes are replaced, not the file
    int descriptor = -1;       ///< -1: closed
    std::size_t unflushed = 0; ///< bytes since the last wait for the disk
};

} // namespace kelpatool
