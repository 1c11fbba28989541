// Boxes around points.
#pragma once

#include "pipeline/scene/vec.h"

#include <limits>

namespace pipeline {

/// The smallest box around points, in double precision; at first around none.
struct Bounds {
    static constexpr double far = std::numeric_limits<double>::infinity();

    Vec min{far, far, far};
    Vec max{-far, -far, -far};

    Vec centre() const;
    double diagonal() const;
    /// Grows to hold another box.
    void add(Bounds const& other);
    void add(Vec const& point) { add(Bounds{point, point}); }
};

/// What to subtract from all centres within `bounds`: nothing, unless they lie far off compared
/// with their extent.
///
/// Decided axis by axis. Where it is not zero all coordinates are within a factor of two of it, so
/// that the differences are exact (P. Sterbenz, "Floating-Point Computation", 1974).
Vec originFor(Bounds const& bounds);

} // namespace pipeline
