// Opens a file, has its format's reader read a frame, and completes what it says.
#include "pipeline/files/particlefile.h"

#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formattable.h"
#include "pipeline/files/inputfile.h"

#include <utility>

namespace pipeline {

ParticleSet readParticleFile(std::string const& path, ReadOptions const& options) {
    return ParticleFile(path).read(options);
}

/// A file that is being read, and how.
struct ParticleFile::Open {
    Open(std::string const& path, ReadOptions const& options)
        : file(path, options.progress), format(findFormat(file, options.format)) {
        auto const* const makeFrames = std::get_if<FileFormat::MakeFrames>(&format.reader);
        if (makeFrames == nullptr)
            return;
        frames = (*makeFrames)(options);
        cursor.emplace(ReadCursor{file, *frames});
    }

    /// Whether a frame is ahead of where the file stands.
    bool isAhead(int frame) const {
        return cursor && cursor->frames > 0 && frame >= cursor->frames;
    }

    ParticleSet read(ReadOptions const& options) {
        return cursor ? readFrameOf(*cursor, options)
                      : std::get<FileFormat::ReadOne>(format.reader)(file, options);
    }

    InputFile file;
    FileFormat const& format;
    std::unique_ptr<FrameFormat> frames; ///< null: the file holds one
    std::optional<ReadCursor> cursor;    ///< if there are frames
};

ParticleFile::ParticleFile(std::string filePath) : path(std::move(filePath)) {
}

ParticleFile::~ParticleFile() = default;

ParticleSet ParticleFile::read(ReadOptions const& options) {
    // Readers of many frames can go on behind the last one; others start again.
    bool const goesOn = open && options.assembly.empty() && open->isAhead(options.frame);
    std::unique_ptr<Open> current =
        goesOn ? std::move(open) : std::make_unique<Open>(path, options);
    InputFile& file = current->file;
    file.reportTo(options.progress);
    FileFormat const& format = current->format;
    if (!format.isRead())
        file.fail("this is {}; {}", format.title,
                  format.wayOn.empty() ? "it is not read. Export or convert it to PLY"
                                       : format.wayOn);
    if (!options.assembly.empty() && !format.hasAssemblies)
        file.fail({Hint::To::askElsewhere}, "{} has no assemblies", format.title);
    if (!options.kinds.empty() && !format.hasKinds)
        file.fail("{} does not keep kinds of particles apart; HDF5 does", format.title);
    try {
        ParticleSet particles = current->read(options);
        if (!file.packing().empty())
            particles.format += fmt::format(", {}", file.packing());
        if (particles.unfitIds > 0)
            particles.notes.push_back(fmt::format(
                "{}: {} ids or types are no whole numbers of 64 bits; fractions are cut off, and "
                "what cannot be held is -1",
                path, particles.unfitIds));
        if (particles.wrappedIds > 0)
            particles.notes.push_back(
                fmt::format("{}: {} ids or types are 2^63 or more; they keep their 64 bits and "
                            "read as negative numbers",
                            path, particles.wrappedIds));
        if (options.assembly.empty() && !options.findOnly) // which leave the file elsewhere
            open = std::move(current);
        return particles;
    } catch (InputError const&) {
        file.verifyChecksum(); // damaged gzip data is the better reason for what looks odd
        throw;
    }
}

} // namespace pipeline
