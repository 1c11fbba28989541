// Sixteen boxes that a ray is asked of at once.
#pragma once

#include "kelpa/foundation/vector.h"

#include <cstdint>
#include <limits>

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

/// Finds the boxes that a ray enters at `end` or before: a bit for each.
using EnterGroup = std::uint32_t (*)(BoxGroup const& boxes, BoxRay const& ray, float end,
                                     GroupStretches& stretches);

/// The forms for the plainest processor and for this one; both give the same bits.
EnterGroup plainEnterGroup();
EnterGroup enterGroup();

} // namespace pipeline
