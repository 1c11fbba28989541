// Elements for particles that a file only numbers.
#pragma once

#include "pipeline/files/particleset.h"

#include <cstdint>
#include <vector>

namespace pipeline {

/// Gives particles of types 1, 2 and so on the elements of these atomic numbers; none: leaves the
/// particles as they are. Throws `InputError` when there are no types, or more than elements.
void nameElements(ParticleSet& particles, std::vector<std::uint8_t> const& elements);

} // namespace pipeline
