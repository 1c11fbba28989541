#pragma once
// Internal: a copy of every leaf's spheres in the order of the leaf, for tests of many at a time.

#include "kelpa/foundation/iray.h"

#include <cstdint>

namespace Kelpa {

/// Where in the tree's `packedLeaves` a leaf's copy lies, in the word beside its count.
///
/// First the radii, or a single one if they are all the same, then all x, all y and all z.
struct LeafPack {
    static constexpr std::uint32_t none = 0; ///< a leaf without a copy

    static constexpr std::uint64_t lastPosition = 0x7FFFFFFF;

    static LeafPack at(std::uint64_t position, bool hasEqualRadii) {
        return {static_cast<std::uint32_t>(2 * position + (hasEqualRadii ? 1U : 0U))};
    }

    std::uint32_t word = none; ///< twice the position of the first float, plus 1 for equal radii

    bool hasEqualRadii() const { return (word & 1U) != 0; }
    std::uint32_t position() const { return word >> 1; }
};

/// A leaf's copy, opened.
struct PackedSpheres {
    float const* radii;
    std::int32_t radiusStep; ///< 0: all have the same radius
    float const* x;
    float const* y;
    float const* z;

    PackedSpheres(float const* packs, LeafPack pack, std::int32_t count)
        : radii(packs + pack.position()), radiusStep(pack.hasEqualRadii() ? 0 : 1),
          x(radii + (pack.hasEqualRadii() ? 1 : count)), y(x + count), z(y + count) {}

    Vector center(std::int32_t k) const { return {x[k], y[k], z[k]}; }
    float radius(std::int32_t k) const { return radii[k * radiusStep]; }
};

/// Spheres that one call of a filter looks at.
inline constexpr std::int32_t packWidth = 16;

/// How far behind the last pack a filter may read.
inline constexpr std::int32_t packPadding = packWidth;

/// What a filter needs to know of a ray, in single precision.
struct RayFilter {
    explicit RayFilter(IRay const& ray);

    /// Takes over the ray's current interval, rounded outwards.
    void setInterval(IRay const& ray);

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
using SphereFilter = std::uint32_t (*)(RayFilter const& ray, PackedSpheres const& spheres,
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
