// Rows of particle sets: some of them, or some again.
#pragma once

#include "pipeline/files/particleset.h"

#include <cstdint>
#include <vector>

namespace pipeline {

/// Keeps the particles of these rows, in their order; a row may come several times.
void takeRows(ParticleSet& particles, std::vector<std::uint32_t> const& rows);

} // namespace pipeline
