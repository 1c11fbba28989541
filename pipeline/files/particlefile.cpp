// Opens a file, has its format's reader read a frame, and completes what it says.
#include "pipeline/files/particlefile.h"

#include "pipeline/files/formattable.h"
#include "pipeline/files/inputfile.h"

// From a path to a particle set: opened, told which format it is, and read.

namespace pipeline {

ParticleSet readParticleFile(std::string const& path, ReadOptions const& options) {
    return ParticleFile(path).read(options);
}

struct ParticleFile::Open {
    InputFile file;
    FileFormat const& format;

    Open(std::string const& path, ReadOptions const& options)
        : file(path, options.progress), format(findFormat(file, options.format)) {}
};

ParticleFile::ParticleFile(std::string filePath) : path(std::move(filePath)) {
}

ParticleFile::~ParticleFile() = default;

ParticleSet ParticleFile::read(ReadOptions const& options) {
    // Readers of many frames count those behind them, and can go on; others start again.
    bool const goesOn = open && options.assembly.empty() && open->file.frames > 0 &&
                        options.frame >= open->file.frames;
    std::unique_ptr<Open> current =
        goesOn ? std::move(open) : std::make_unique<Open>(path, options);
    InputFile& file = current->file;
    file.reportTo(options.progress);
    FileFormat const& format = current->format;
    if (format.read == nullptr)
        file.fail("this is {}; {}", format.title,
                  format.wayOn.empty() ? "it is not read. Export or convert it to PLY"
                                       : format.wayOn);
    if (!options.assembly.empty() && !format.hasAssemblies)
        file.fail({Hint::To::askElsewhere}, "{} has no assemblies", format.title);
    if (!options.kinds.empty() && !format.hasKinds)
        file.fail("{} does not keep kinds of particles apart; HDF5 does", format.title);
    try {
        ParticleSet particles = format.read(file, options);
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
        open = std::move(current);
        return particles;
    } catch (InputError const&) {
        file.verifyChecksum(); // damaged gzip data is the better reason for what looks odd
        throw;
    }
}

} // namespace pipeline
