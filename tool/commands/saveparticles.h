// What convert and generate save.
#pragma once

#include "pipeline/files/particleset.h"

#include "tool/options/options.h"

namespace pipeline::tool {

/// Writes particles to the command's output as PLY, with progress, and says so.
void saveParticles(Options const& options, ParticleSet const& particles);

} // namespace pipeline::tool
