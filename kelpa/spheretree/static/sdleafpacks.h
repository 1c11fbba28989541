#pragma once
// Internal: a copy of every leaf's spheres in the order of the leaf, for tests of many at a time.

#include "kelpa/spheretree/spherearrays.h"

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

/// Opens a leaf's copy.
inline SphereArrays openPack(float const* packs, LeafPack pack, std::int32_t count) {
    float const* const radii = packs + pack.position();
    float const* const x = radii + (pack.hasEqualRadii() ? 1 : count);
    return {radii, pack.hasEqualRadii() ? 0 : 1, x, x + count, x + 2 * count};
}

} // namespace Kelpa
