// Boxes around points.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/scene/vec.h"

#include <span>

namespace kelpatool {

/// The smallest box around points, in double precision.
struct Bounds {
    Vec min;
    Vec max;

    Vec centre() const;
    double diagonal() const;
};

/// Bounds of points, of which there is at least one.
Bounds boundsOf(std::span<Kelpa::Vector const> points);

} // namespace kelpatool
