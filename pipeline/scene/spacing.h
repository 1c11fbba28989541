// A radius from how close particles lie.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/files/progress.h"

#include <vector>

namespace pipeline {

/// Half the median distance from a particle to its sixth nearest neighbour, over a sample of the
/// finite particles: the radius for files that have none. 0 when all particles coincide or there is
/// only one.
float radiusFromSpacing(std::vector<Kelpa::Vector> const& positions, PhaseProgress const& progress);

} // namespace pipeline
