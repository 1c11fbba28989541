// The box that particles repeat in, as something to be seen.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/scene/vec.h"

#include <array>
#include <vector>

namespace pipeline {

/// A straight line with round cross-section.
struct Rod {
    Vec from;
    Vec to;
    double radius;
};

/// The edges of a cell, all copies of it together.
std::vector<Rod> cellEdges(PeriodicCell const& cell, std::array<int, 3> const& copies);

/// Rods as they lie seen from `origin`.
std::vector<Rod> seenFrom(Vec const& origin, std::vector<Rod> rods);

} // namespace pipeline
