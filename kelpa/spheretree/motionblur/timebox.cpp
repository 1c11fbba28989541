// Costs, cuts and frames of boxes that move.
#include "kelpa/spheretree/motionblur/timebox.h"

#include "kelpa/spheretree/motionblur/timeboxkernels.h"

namespace Kelpa {

TimeBox changeFrame(TimeBox const& region, Vector const& velocity) {
    return inFrame(region, velocity);
}

double bboxSum(TimeBox const& region, int axis, float pos, int nBelow, int nAbove) {
    TimeBox above = region;
    above.lower(axis) = pos;
    TimeBox below = region;
    below.upper(axis) = pos;
    return static_cast<double>(measureOf(above)) * nAbove +
           static_cast<double>(measureOf(below)) * nBelow;
}

} // namespace Kelpa
