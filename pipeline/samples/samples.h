// Particles of the project's own: no file is needed to try it.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"

#include <cstdint>
#include <string>
#include <vector>

namespace pipeline {

/// One of the project's own samples: "galaxy", "splash", "crystal" or "cloud". The same kind, count
/// and seed give the same bits on every machine. Throws `std::invalid_argument` for another kind.
ParticleSet generateParticles(std::string const& kind, std::uint64_t count, std::uint64_t seed,
                              PhaseProgress const& progress);

/// The kinds that `generateParticles` knows.
std::vector<std::string> const& sampleKinds();

} // namespace pipeline
