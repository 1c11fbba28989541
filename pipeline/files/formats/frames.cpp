// Goes to the frame that is asked for, and says when there are not so many.
#include "pipeline/files/formats/frames.h"

#include <limits>

namespace pipeline {

namespace {

constexpr int allFrames = std::numeric_limits<int>::max();

/// Passes over whole frames, up to number `end` or the file's end.
void skipFrames(InputFile& file, FrameFormat& format, int end) {
    while (file.frames < end && format.begin(file, file.frames)) {
        format.skip(file);
        ++file.frames;
    }
}

[[noreturn]] void failNoFrame(InputFile const& file, int wanted) {
    throw NoSuchFrame(fmt::format("{}: no frame {}; it has {} (the first is 0, the last -1)",
                                  file.path(), wanted, file.frames));
}

ParticleSet readFrame(InputFile& file, FrameFormat& format, int wanted,
                      ReadOptions const& options) {
    skipFrames(file, format, wanted);
    if (!format.begin(file, file.frames))
        failNoFrame(file, wanted);
    if (options.findOnly)
        return {};
    file.particles = 0;
    ParticleSet particles = format.read(file, options);
    particles.frameCount = ++file.frames;
    return particles;
}

} // namespace

ParticleSet readFrameOf(InputFile& file, FrameFormat& format, ReadOptions const& options) {
    if (options.frame < 0) {
        if (!file.canBeReadAgain())
            file.fail("frames are counted from the end in files only, not in a pipe");
        skipFrames(file, format, allFrames);
        if (options.frame < -file.frames)
            failNoFrame(file, options.frame);
        InputFile fromStart(file.path(), options.progress);
        ParticleSet particles = readFrame(fromStart, format, file.frames + options.frame, options);
        particles.frameCount = file.frames;
        return particles;
    }
    ParticleSet particles = readFrame(file, format, options.frame, options);
    if (options.summarise && options.countFrames) {
        // A summary tells about damage further on, but the frame it is about is good.
        try {
            skipFrames(file, format, allFrames);
        } catch (InputError const& error) {
            particles.notes.push_back({error.what(), error.hint});
        }
        particles.frameCount = file.frames;
    } else {
        file.peek(1); // at the end of gzipped data this compares the checksum
    }
    return particles;
}

void requireOnlyFrame(InputFile const& file, ReadOptions const& options, std::string_view what) {
    if (options.frame != 0 && options.frame != -1)
        throw NoSuchFrame(
            fmt::format("{}: no frame {}; {} holds one", file.path(), options.frame, what));
}

} // namespace pipeline
