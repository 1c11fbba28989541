// Internal: the arithmetic of moving boxes, inline for the builder's passes over its records.
#pragma once

#include "kelpa/spheretree/motionblur/timebox.h"
#include "kelpa/spheretree/quad.h"

#include <algorithm>
#include <cstddef>

namespace Kelpa {

/// `changeFrame`, inline. Relative motion is linear, so its extremes lie at the interval's ends.
inline TimeBox inFrame(TimeBox const& region, Vector const& velocity) {
    TimeBox moved{velocity, region.box, region.timeMin, region.timeMax};
    for (int axis = 0; axis < 3; ++axis) {
        float const drift = region.velocity[axis] - velocity[axis];
        float const atStart = drift * region.timeMin;
        float const atEnd = drift * region.timeMax;
        moved.box.min[axis] += std::min(atStart, atEnd);
        moved.box.max[axis] += std::max(atStart, atEnd);
    }
    return moved;
}

/// The bounds of a region in some frame: x, y, z and time.
struct FrameSpan {
    Quad lower;
    Quad upper;
};

/// `inFrame`, on all axes at once, with the velocity's three components in front of a zero.
inline FrameSpan spanInFrame(TimeBox const& region, Quad velocity) {
    auto const quadAt = [&region](std::size_t offset) {
        return loadQuad(reinterpret_cast<char const*>(&region) + offset);
    };
    Quad const drift = quadAt(offsetof(TimeBox, velocity)) - velocity;
    Quad const atStart = drift * region.timeMin;
    Quad const atEnd = drift * region.timeMax;
    return {
        withFourth(quadAt(offsetof(TimeBox, box.min)) + smaller(atEnd, atStart), region.timeMin),
        withFourth(quadAt(offsetof(TimeBox, box.max)) + larger(atEnd, atStart), region.timeMax)};
}

/// Half the surface times the duration.
inline float measureOf(TimeBox const& region) {
    float const dx = region.box.max.x - region.box.min.x;
    float const dy = region.box.max.y - region.box.min.y;
    float const dz = region.box.max.z - region.box.min.z;
    float const duration = region.timeMax - region.timeMin;
    return ((dx + dz) * dy + dx * dz) * duration;
}

} // namespace Kelpa
