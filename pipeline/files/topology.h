// What a second file tells of the particles of a trajectory that names none.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/files/readoptions.h"

#include <string>

namespace pipeline {

/// Elements, types, ids, radii and columns of the particles that trajectories such as DCD only
/// place.
class Topology {
  public:
    /// Reads a file of any format. Throws `InputError`.
    Topology(std::string path, PhaseProgress const& progress);

    /// The options to read a frame of the trajectory with: without columns that are found here.
    ReadOptions forTrajectory(ReadOptions options) const;
    /// Gives a frame what it lacks, and the columns that `options` ask for. Refuses a frame with
    /// another number of particles.
    void giveTo(ParticleSet& frame, ReadOptions const& options) const;

  private:
    std::string path;
    ParticleSet known;
};

} // namespace pipeline
