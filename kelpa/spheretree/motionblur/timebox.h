// Boxes that move at constant velocity.
#pragma once

#include "kelpa/foundation/vector.h"

namespace Kelpa {

/// A box that moves at constant velocity during an interval of time.
///
/// At a time t it covers, axis by axis, [`box.min` + `velocity` * t, `box.max` + `velocity` * t]:
/// `box` is where it would be at time 0.
struct TimeBox {
    Vector velocity; ///< per unit of sample time
    Box box;         ///< at time 0
    float timeMin;   ///< start of the interval
    float timeMax;   ///< its end

    /// The box that holds nothing at no time: growing it by anything gives that thing.
    static constexpr TimeBox empty(Vector const& velocity) {
        return {velocity, Box::empty(), 1e20F, -1e20F};
    }

    // Axes 0, 1, 2 are x, y, z in the box's frame, axis 3 is time.
    /// Lower side on an axis.
    float& lower(int axis) { return axis < 3 ? box.min[axis] : timeMin; }
    /// Upper side on an axis.
    float& upper(int axis) { return axis < 3 ? box.max[axis] : timeMax; }
    /// Lower side on an axis.
    float const& lower(int axis) const { return axis < 3 ? box.min[axis] : timeMin; }
    /// Upper side on an axis.
    float const& upper(int axis) const { return axis < 3 ? box.max[axis] : timeMax; }

    /// Extends the box and its interval to hold another of the same velocity.
    void grow(TimeBox const& other) {
        box.grow(other.box);
        timeMin = other.timeMin < timeMin ? other.timeMin : timeMin;
        timeMax = other.timeMax > timeMax ? other.timeMax : timeMax;
    }
};
static_assert(sizeof(TimeBox) == 44);

/// The smallest box of another velocity that holds `region` throughout its interval.
TimeBox changeFrame(TimeBox const& region, Vector const& velocity);

/// The cost of splitting `region` across `axis` (0 to 2 in space, 3 in time) at `pos`: each side's
/// half surface times its duration, weighted with its number of records.
///
/// This is the surface area heuristic carried over to moving rays and boxes: the chance that a ray
/// meets a side grows with its surface and with the part of the shutter that it covers. `pos` is
/// not checked to lie inside.
double bboxSum(TimeBox const& region, int axis, float pos, int nBelow, int nAbove);

} // namespace Kelpa
