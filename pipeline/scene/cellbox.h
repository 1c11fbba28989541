// The box that particles repeat in, as something to be seen.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/scene/vec.h"

#include <vector>

namespace pipeline {

/// A straight line with round cross-section.
struct Rod {
    Vec from;
    Vec to;
    double radius;
};

/// The edges of the particles' cell, all copies of it together. Throws `InputError` where there is
/// no cell.
std::vector<Rod> cellEdges(ParticleSet const& particles);

} // namespace pipeline
