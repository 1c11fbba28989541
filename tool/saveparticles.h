#pragma once

#include "tool/options.h"
#include "tool/particlefile.h"

namespace kelpatool {

/// Writes particles to the command's output as PLY, with progress, and says so.
void saveParticles(Options const& options, ParticleSet const& particles);

} // namespace kelpatool
