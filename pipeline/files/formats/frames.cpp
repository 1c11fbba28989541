// Goes to the frame that is asked for, and says when there are not so many.
#include "pipeline/files/formats/frames.h"

#include <limits>

namespace pipeline {

namespace {

constexpr int allFrames = std::numeric_limits<int>::max();

/// Passes over whole frames, up to number `end` or the file's end.
void skipFrames(ReadCursor& at, int end) {
    while (at.frames < end && at.format.begin(at.file, at.frames)) {
        at.format.skip(at.file);
        ++at.frames;
    }
}

[[noreturn]] void failNoFrame(ReadCursor const& at, int wanted) {
    throw NoSuchFrame(fmt::format("{}: no frame {}; it has {} (the first is 0, the last -1)",
                                  at.file.path(), wanted, at.frames));
}

ParticleSet readFrame(ReadCursor& at, int wanted, ReadOptions const& options) {
    skipFrames(at, wanted);
    if (!at.format.begin(at.file, at.frames))
        failNoFrame(at, wanted);
    if (options.findOnly)
        return {};
    at.file.particles = 0;
    ParticleSet particles = at.format.read(at.file, options);
    particles.frameCount = ++at.frames;
    return particles;
}

} // namespace

ParticleSet readFrameOf(ReadCursor& cursor, ReadOptions const& options) {
    InputFile& file = cursor.file;
    if (options.frame < 0) {
        if (!file.canBeReadAgain())
            file.fail("frames are counted from the end in files only, not in a pipe");
        skipFrames(cursor, allFrames);
        if (options.frame < -cursor.frames)
            failNoFrame(cursor, options.frame);
        InputFile again(file.path(), options.progress);
        ReadCursor fromStart{again, cursor.format};
        ParticleSet particles = readFrame(fromStart, cursor.frames + options.frame, options);
        particles.frameCount = cursor.frames;
        return particles;
    }
    ParticleSet particles = readFrame(cursor, options.frame, options);
    if (options.summarise && options.countFrames) {
        // A summary tells about damage further on, but the frame it is about is good.
        try {
            skipFrames(cursor, allFrames);
        } catch (InputError const& error) {
            particles.notes.push_back({error.what(), error.hint});
        }
        particles.frameCount = cursor.frames;
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
