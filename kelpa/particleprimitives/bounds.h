// Bounds of primitives that stand still and that move.
#pragma once

#include "kelpa/foundation/vector.h"

namespace Kelpa {

/// The bounds of a primitive that stands still.
struct StaticBox {
    Vector pmin; ///< lowest corner
    Vector pmax; ///< highest corner
};
static_assert(sizeof(StaticBox) == 24);

/// The bounds of a primitive that moves: at a time t between `timeMin` and `timeMax` it lies within
/// `bounds` + t * `motion`, corner by corner and axis by axis.
struct MovingBox {
    float timeMin; ///< earliest time of all snapshots
    float timeMax; ///< latest time of all snapshots
    Box bounds;    ///< at time 0; with static bounds, around the particles of both snapshots
    Box motion;    ///< smallest and largest rate of change of `bounds`; zero with static bounds
};
static_assert(sizeof(MovingBox) == 56);

} // namespace Kelpa
