// Sixteen boxes that a ray is asked of at once.
#pragma once

#include "kelpa/foundation/vector.h"

#include <cstdint>
#include <limits>
#include <span>

namespace pipeline {

/// What boxes need to know of a ray.
struct BoxRay {
    Kelpa::Vector origin;
    Kelpa::Vector inverse; ///< of the direction, bounded so that its products are finite
    float begin;           ///< ray parameter from which on it counts

    BoxRay() = default;
    BoxRay(double x, double y, double z, Kelpa::Vector const& dir, double tMin);
};

/// Boxes side by side; those that are not set are entered by no ray.
struct alignas(64) BoxGroup {
    static constexpr unsigned most = 16;

    float minX[most], minY[most], minZ[most];
    float maxX[most], maxY[most], maxZ[most];

    BoxGroup() {
        for (unsigned i = 0; i < most; ++i)
            set(i, {{nowhere, nowhere, nowhere}, {nowhere, nowhere, nowhere}});
    }
    void set(unsigned i, Kelpa::Box const& box) {
        minX[i] = box.min.x;
        minY[i] = box.min.y;
        minZ[i] = box.min.z;
        maxX[i] = box.max.x;
        maxY[i] = box.max.y;
        maxZ[i] = box.max.z;
    }

  private:
    static constexpr float nowhere = std::numeric_limits<float>::infinity();
};

/// Where a ray enters and leaves each box of a group.
struct alignas(64) GroupStretches {
    float enter[BoxGroup::most];
    float leave[BoxGroup::most]; ///< with room for rounding
};

/// Rays side by side, as many as a list has at most.
struct alignas(64) BoxRays {
    static constexpr unsigned most = 64;

    float originX[most], originY[most], originZ[most];
    float inverseX[most], inverseY[most], inverseZ[most]; ///< directions until `invert`
    float begin[most];
};

/// The loops over boxes and rays.
struct BoxKernels {
    /// Finds the boxes that a ray enters at `end` or before: a bit for each.
    std::uint32_t (*enterGroup)(BoxGroup const& boxes, BoxRay const& ray, float end,
                                GroupStretches& stretches);
    /// Makes inverses of directions, and finds between what values those of all rays lie.
    void (*invert)(BoxRays& rays, BoxRay& least, BoxRay& greatest);
    /// Finds the boxes that rays may enter whose values lie between those of two. None that one of
    /// them enters is left out: each operation, rounded, rises or falls with each of its operands,
    /// so what it comes to lies between what it comes to at the ends.
    std::uint32_t (*mayEnter)(BoxGroup const& boxes, BoxRay const& least, BoxRay const& greatest);
    /// Finds the rays that enter box `box` at `ends[k]` or before, a bit for each, and where.
    std::uint64_t (*enterBox)(BoxGroup const& boxes, unsigned box, BoxRays const& rays,
                              float const* ends, float* enter);
    /// Finds which of 64 numbers are at most those of `ends`.
    std::uint64_t (*areBefore)(float const* enter, float const* ends);
};

/// The kernels that run here: the plainest first, the fastest last. All give the same bits.
std::span<BoxKernels const> boxKernels();

} // namespace pipeline
