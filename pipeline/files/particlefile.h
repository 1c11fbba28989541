// One frame of a particle file, whatever its format.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"

#include <memory>
#include <string>

namespace pipeline {

/// Reads one frame of a particle file, plain or gzipped. Throws `InputError`.
ParticleSet readParticleFile(std::string const& path, ReadOptions const& options);

/// A particle file that stays open, so that frames read in rising order cost one way through it.
class ParticleFile {
  public:
    explicit ParticleFile(std::string path);
    ~ParticleFile();
    ParticleFile(ParticleFile const&) = delete;
    ParticleFile& operator=(ParticleFile const&) = delete;

    /// Reads a frame as `readParticleFile` does.
    ParticleSet read(ReadOptions const& options);

  private:
    struct Open;

    std::string path;
    std::unique_ptr<Open> open; ///< null: not yet, or after a failure
};

} // namespace pipeline
