// Boxes around points.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/scene/vec.h"

#include <span>

namespace pipeline {

/// The smallest box around points, in double precision.
struct Bounds {
    Vec min;
    Vec max;

    Vec centre() const;
    double diagonal() const;
    /// Grows to hold another box.
    void add(Bounds const& other);
};

/// Bounds of points, of which there is at least one.
Bounds boundsOf(std::span<Kelpa::Vector const> points);

/// What to subtract from all centres within `bounds`: nothing, unless they lie far off compared
/// with their extent.
///
/// Decided axis by axis. Where it is not zero all coordinates are within a factor of two of it, so
/// that the differences are exact (P. Sterbenz, "Floating-Point Computation", 1974).
Vec originFor(Bounds const& bounds);

} // namespace pipeline
