// Particles as a PLY file.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"

#include <string>

namespace pipeline {

/// Writes positions and whatever else the set has as a PLY file, under a temporary name until it is
/// whole. Throws `OutputError`.
void writePly(std::string const& path, ParticleSet const& particles, bool ascii,
              PhaseProgress const& progress);

} // namespace pipeline
