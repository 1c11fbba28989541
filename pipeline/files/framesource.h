// The frames of a file, or of a sequence of files.
#pragma once

#include "pipeline/files/particlefile.h"
#include "pipeline/files/topology.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pipeline {

/// Frames from `first` to `last`, both included, every `step`-th; negative: counted from the end.
struct FrameRange {
    int first = 0;
    int last = 0;
    int step = 1;
};

/// The numbers of some ranges in rising order, each once. They are never listed: there may be more
/// than memory holds.
class FrameNumbers {
  public:
    /// No range counts from the end.
    explicit FrameNumbers(std::vector<FrameRange> wanted) : ranges(std::move(wanted)) {}

    /// The least of them, beyond `frame` if there is one; nothing behind the last.
    std::optional<int> after(std::optional<int> frame) const;
    std::uint64_t count() const;

  private:
    std::vector<FrameRange> ranges;
};

/// The files that a path stands for, as `FrameSource` takes it: one, or those of a sequence.
std::vector<std::string> filesNamed(std::string const& path);

/// The frames of one file, or of a sequence: a path with `{}`, `####` or `%04d` in its file name,
/// unless a file has this very name, stands for all files that have a whole number there, and the
/// number is that of the frame.
class FrameSource {
  public:
    /// Throws `InputError` when no file is part of the sequence.
    explicit FrameSource(std::string const& path);
    /// The same for a snapshot that was written as many files, which `more` names besides the
    /// first: a frame is that frame of them all, their rows one behind the other.
    FrameSource(std::string const& path, std::vector<std::string> const& more);

    /// Reads a frame; without a number, the first. `ParticleSet::frame` tells which it was.
    /// Frames of a file read in rising order cost one way through it.
    ParticleSet read(std::optional<int> frame, ReadOptions const& options);
    /// Reads the frame that follows one; nothing behind the last. `ParticleSet::steps` tells how
    /// many frames' time later it was taken.
    std::optional<ParticleSet> readAfter(int frame, ReadOptions const& options);
    /// The numbers of the frames in ranges. Throws `NoSuchFrame` when there is none, when one was
    /// named by itself and is not there, or when a file, unless it is a pipe, ends before the last.
    FrameNumbers framesIn(std::vector<FrameRange> const& ranges, ReadOptions const& options) const;
    /// The first few numbers of ranges that no file of a sequence has, though files elsewhere lie
    /// so close together that one is expected there.
    std::vector<int> missingIn(std::vector<FrameRange> const& ranges) const;

  private:
    ParticleSet readPlaces(std::optional<int> frame, ReadOptions const& options);
    ParticleSet readOne(std::optional<int> frame, ReadOptions options);
    int resolve(std::optional<int> frame) const;
    std::vector<FrameRange> framesInSequence(std::vector<FrameRange> const& ranges) const;
    std::vector<FrameRange> framesInFile(std::vector<FrameRange> ranges, ReadOptions options) const;
    std::int64_t leastStride() const;
    FrameRange resolve(FrameRange const& range) const;

    std::string path;
    std::map<int, std::string> sequence; ///< files by number; empty: `file` holds all frames
    ParticleFile file;
    std::optional<Topology> topology;                 ///< read when a frame first needs it
    std::vector<std::unique_ptr<FrameSource>> others; ///< whose particles follow
};

} // namespace pipeline
