// Boxes asked by many rays at once.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/scene/toptree.h"

#include <cstdint>

namespace pipeline {

/// Up to 64 rays side by side, as boxes see them.
struct alignas(64) LaneRays {
    static constexpr unsigned most = 64;

    float originX[most];
    float originY[most];
    float originZ[most];
    float inverseX[most];
    float inverseY[most];
    float inverseZ[most];
    float begin[most];
    double end[most]; ///< ray parameter beyond which nothing counts
    unsigned count = 0;

    void add(BoxRay const& ray, double tEnd) {
        originX[count] = ray.origin.x;
        originY[count] = ray.origin.y;
        originZ[count] = ray.origin.z;
        inverseX[count] = ray.inverse.x;
        inverseY[count] = ray.inverse.y;
        inverseZ[count] = ray.inverse.z;
        begin[count] = ray.begin;
        end[count++] = tEnd;
    }
    BoxRay ray(unsigned k) const {
        return {{originX[k], originY[k], originZ[k]},
                {inverseX[k], inverseY[k], inverseZ[k]},
                begin[k]};
    }
    /// Fills what is left of the last group of 16.
    void pad();
};

/// Writes where each ray enters a box, infinity where it does not before its end; returns whether
/// any does. The same bits as `TopTree::next` has, on every processor.
using EnterBox = bool (*)(LaneRays const& rays, Kelpa::Box const& box, float* enter);

/// The form for this processor.
EnterBox enterBoxKernel();

} // namespace pipeline
