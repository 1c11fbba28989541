#pragma once
// Internal: which of many spheres a ray may hit, told for 16 at a time.

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/foundation/iray.h"

#include <bit>
#include <cstdint>

namespace Kelpa {

/// Spheres coordinate by coordinate, for tests of many at a time.
struct SphereArrays {
    float const* radii;
    std::int32_t radiusStep; ///< 0: all have the radius `radii[0]`; else 1
    float const* x;
    float const* y;
    float const* z;

    Vector center(std::int32_t k) const { return {x[k], y[k], z[k]}; }
    float radius(std::int32_t k) const { return radii[k * radiusStep]; }
};

/// Spheres that one call of a filter looks at.
inline constexpr std::int32_t packWidth = 16;

/// How many floats behind the end of an array a filter may read.
inline constexpr std::int32_t packPadding = packWidth;

/// The smallest single-precision number that is not below `value`.
inline float roundedUp(double value) {
    float const nearest = static_cast<float>(value);
    if (!(static_cast<double>(nearest) < value))
        return nearest;
    // The next one up: the bits of positive floats are in their order, those of negative ones
    // against it.
    auto const bits = std::bit_cast<std::int32_t>(nearest);
    return std::bit_cast<float>(bits >= 0 ? bits + 1 : bits - 1);
}

/// What a filter needs to know of a ray, in single precision.
struct RayFilter {
    explicit RayFilter(IRay const& ray)
        : origin(singleOrigin(ray)), dir(ray.dir), squaredLength(dot(ray.dir, ray.dir)) {
        setInterval(ray);
    }

    /// Takes over the ray's current interval, rounded outwards.
    void setInterval(IRay const& ray) {
        earliest = -roundedUp(-ray.tMin);
        latest = roundedUp(ray.tMax);
    }

    Vector origin;
    Vector dir;
    float squaredLength; ///< of `dir`
    float earliest;      ///< not above the interval's start
    float latest;        ///< not below its end
};

/// Tells which of the `count` (1 to 16) spheres from `first` on the ray may hit: bit k is clear
/// only if `hitSphere` misses sphere `first` + k in the ray's interval, starting on it or not.
///
/// The variants for different processors compute the same bits.
using SphereFilter = std::uint32_t (*)(RayFilter const& ray, SphereArrays const& spheres,
                                       std::int32_t first, std::int32_t count);

/// The variants of the filter, from the plainest to the widest.
enum class FilterVariant { scalar, sse2, avx2, avx512 };

/// The variant's filter, or null where the processor or the compiler has none.
SphereFilter sphereFilter(FilterVariant variant);

/// The filter that traversals use: the widest that the processor has, unless a test has set
/// another.
SphereFilter chosenSphereFilter();

/// For tests: the variant that all traversals use from now on; it must exist here.
void chooseSphereFilter(FilterVariant variant);

} // namespace Kelpa
