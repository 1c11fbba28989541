// Internal: a copy of every leaf's spheres in the order of the leaf, for tests of many at a time.
#pragma once

#include "kelpa/spheretree/spherearrays.h"

#include <cassert>
#include <cstdint>

namespace Kelpa {

/// Where in the tree's `packedLeaves` a leaf's copy lies, in the word beside its count.
///
/// First the radii, or a single one if they are all the same, then all x, all y and all z.
struct LeafPack {
    static constexpr std::uint32_t none = 0; ///< a leaf without a copy

    /// Copies begin at multiples of this many floats, so that 31 bits count 32 GiB of them.
    static constexpr std::uint64_t unit = 4;
    static constexpr std::uint64_t lastPosition = 0x7FFFFFFF * unit;

    static LeafPack at(std::uint64_t position, bool hasEqualRadii) {
        assert(position % unit == 0 && position <= lastPosition);
        return {static_cast<std::uint32_t>(2 * (position / unit) + (hasEqualRadii ? 1U : 0U))};
    }
    /// The first position from `position` on where a copy may begin.
    static constexpr std::uint64_t nextPosition(std::uint64_t position) {
        return (position + unit - 1) / unit * unit;
    }

    std::uint32_t word = none; ///< twice the units before the first float, plus 1 for equal radii

    bool hasEqualRadii() const { return (word & 1U) != 0; }
    std::uint64_t position() const { return unit * (word >> 1U); }
};

/// Opens a leaf's copy.
inline SphereArrays openPack(float const* packs, LeafPack pack, std::int32_t count) {
    float const* const radii = packs + pack.position();
    float const* const x = radii + (pack.hasEqualRadii() ? 1 : count);
    return {radii, pack.hasEqualRadii() ? 0 : 1, x, x + count, x + 2 * count};
}

} // namespace Kelpa
