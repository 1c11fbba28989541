// Internal: spheres coordinate by coordinate, for tests of many at a time.
#pragma once

#include "kelpa/foundation/vector.h"

#include <cstdint>

namespace Kelpa {

/// Spheres coordinate by coordinate.
struct SphereArrays {
    float const* radii;
    std::int32_t radiusStep; ///< 0: all have the radius `radii[0]`; else 1
    float const* x;
    float const* y;
    float const* z;

    [[gnu::always_inline]] Vector center(std::int32_t k) const { return {x[k], y[k], z[k]}; }
    [[gnu::always_inline]] float radius(std::int32_t k) const { return radii[k * radiusStep]; }
};

/// How many floats behind the end of an array a test of many may read.
inline constexpr std::int32_t packPadding = 16;

} // namespace Kelpa
