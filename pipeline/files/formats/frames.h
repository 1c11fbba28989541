// Formats whose files hold frame after frame.
#pragma once

#include "pipeline/files/inputfile.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"

namespace pipeline {

/// The reader of a file that holds frame after frame, as `readFrameOf` asks for them. It keeps what
/// stands before the first frame and counts for all.
class FrameFormat {
  public:
    virtual ~FrameFormat() = default;

    /// Reads what stands before the rows of frame `index`; false at the end of the file.
    virtual bool begin(InputFile& file, int index) = 0;
    /// Passes over the rows of the frame that was begun last, and what stands behind them.
    virtual void skip(InputFile& file) = 0;
    /// Reads them instead.
    virtual ParticleSet read(InputFile& file, ReadOptions const& options) = 0;
};

/// Where a file of frames is read.
struct ReadCursor {
    InputFile& file;
    FrameFormat& format;
    int frames = 0; ///< whole ones behind
};

/// Reads the frame that `options` ask for, from where the file stands. To summarise (unless
/// `countFrames` says no) or to count from the end, all others are passed over as well.
ParticleSet readFrameOf(ReadCursor& cursor, ReadOptions const& options);

/// Refuses to read any frame but the only one, 0 or -1, of a file such as "a PLY file".
void requireOnlyFrame(InputFile const& file, ReadOptions const& options, std::string_view what);

} // namespace pipeline
