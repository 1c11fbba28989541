// A file that appears when it is whole.
#pragma once

#include "pipeline/files/progress.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace pipeline {

/// A file that appears under its name only when it is whole.
///
/// The bytes go to a temporary name in the same folder; `commit` gives it the right one. Destroyed
/// without that, it leaves nothing behind, and a file that was there before keeps its content. A
/// file that is replaced keeps its mode, its owner and its other names, and a link stays one, even
/// one to a file that is not there yet. What is no ordinary file, such as a pipe, is written to
/// directly. Every function throws `OutputError` naming the file and the reason, those that may
/// wait what `stopCheck` throws.
class OutputFile {
  public:
    /// Opens the temporary file. A folder, a read-only file and a missing folder are refused.
    /// `stopCheck`, unless empty, is asked between waits for the disk and while a pipe's reader is
    /// slow or not there yet.
    explicit OutputFile(std::string wantedPath, StopCheck stopCheck = {});
    ~OutputFile();
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    void write(std::string_view bytes);

    /// Waits until the bytes are on the disk, which is when a full one is noticed, and renames.
    void commit();

    /// Throws when a file of this name could not be created. Changes nothing.
    static void check(std::string const& path);

    /// Where a path leads when all links are followed, whether or not there is a file.
    static std::string destinationOf(std::string const& path);

    /// Calls `end`, which may end the process, unless one of these exists: its temporary file
    /// would be left behind. None comes to be during the call.
    static void ifNoneExists(std::function<void()> const& end);

  private:
    /// Counts the files that exist, from any number of threads.
    struct Counted {
        Counted();
        ~Counted();
        Counted(Counted const&) = delete;
        Counted& operator=(Counted const&) = delete;
    };

    void mayGoOn() const;
    void resolve();
    void open();
    void openTemporary();
    int openExisting() const;
    void resemble();
    void flush();
    void rename();
    void copyInto();
    [[noreturn]] void fail(int error) const;

    Counted const counted; // first, so that it goes when the file is gone
    StopCheck stopCheck;
    std::string path;          ///< as the user knows it
    std::string target;        ///< the same with links resolved
    std::string written;       ///< where the bytes go
    bool isTemporary = false;  ///< what is at `written` goes with this object
    bool isReplacing = false;  ///< there is an ordinary file at `target`
    bool keepsPlace = false;   ///< that file's bytes are replaced, not the file
    int descriptor = -1;       ///< -1: closed
    std::size_t unflushed = 0; ///< bytes since the last wait for the disk
};

} // namespace pipeline
