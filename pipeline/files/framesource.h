#pragma once

#include "pipeline/files/particlefile.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kelpatool {

/// Frames from `first` to `last`, both included, every `step`-th; negative: counted from the end.
struct FrameRange {
    int first = 0;
    int last = 0;
    int step = 1;
};

/// The frames of one file, or of a sequence: a path with `{}`, `####` or `%04d` in its file name,
/// unless a file has this very name, stands for all files that have a whole number there, and the
/// number is that of the frame.
class FrameSource {
  public:
    /// Throws `InputError` when no file is part of the sequence.
    explicit FrameSource(std::string const& path);

    /// Reads a frame; without a number, the first. `ParticleSet::frame` tells which it was.
    /// Frames of a file read in rising order cost one way through it.
    ParticleSet read(std::optional<int> frame, ReadOptions options);
    /// Reads the frame that follows one; nothing behind the last.
    std::optional<ParticleSet> readAfter(int frame, ReadOptions options);
    /// The numbers of the frames in a range. In a file their end is not looked for, unless the
    /// range counts from it.
    std::vector<int> framesIn(FrameRange range, ReadOptions options);
    /// The first few numbers of a range that lie between those of a sequence's files and have none,
    /// though files elsewhere lie so close together that one is expected there.
    std::vector<int> missingIn(FrameRange range) const;

  private:
    int resolve(std::optional<int> frame) const;
    FrameRange resolve(FrameRange const& range) const;

    std::string path;
    std::map<int, std::string> sequence; ///< files by number; empty: `file` holds all frames
    ParticleFile file;
};

} // namespace kelpatool
