// Internal: lanes of a ray bunch that a tree is asked about in one go.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/spheretree/traversal.h"

#include <cstdint>

namespace Kelpa {

/// The most rays that one call asks about.
inline constexpr unsigned longestRun = 64;

/// Consecutive lanes of a bunch, as a primitive hands them to its tree: ray k of the run has lane
/// `first` + k.
struct RayRun {
    RayBunchExtParams const& rays;
    double const* tMins; ///< by lane
    double const* tMaxs; ///< by number in the run
    unsigned first;
    unsigned count;         ///< 1 to `longestRun`
    std::int32_t baseIndex; ///< what the primitive adds to its particles' numbers

    Vector dir(unsigned k) const {
        unsigned const lane = first + k;
        return {rays.dirX[lane], rays.dirY[lane], rays.dirZ[lane]};
    }
};

/// Whether the rays of a run are likely to take the same way. Only the speed depends on it.
inline bool areTogether(RayRun const& run) {
    Vector const dir = run.dir(0);
    return areAlong(dir, run.dir(run.count / 2)) && areAlong(dir, run.dir(run.count - 1));
}

} // namespace Kelpa
