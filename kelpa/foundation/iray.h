// A ray as trees see it, and its tests with boxes and particles.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"

#include <cstdint>

namespace Kelpa {

/// A ray prepared for traversal: the host's ray, an interval, and what every box test needs.
///
/// Parameters along the ray are in units of `dir`'s length. Private to the querying thread.
struct IRay {
    /// Takes `ray` and the interval as they are; nothing is normalised, ordered or clamped but
    /// `invDir`.
    IRay(TraceRay const& ray, double intervalMin, double intervalMax);

    double origin[3];        ///< where t is 0
    Vector dir;              ///< of any length but 0; t counts in its length
    Vector invDir;           ///< 1 / `dir`, clamped to [-1e18, 1e18]; 1e18 where `dir` is NaN
    std::int32_t dirSign[3]; ///< 1 where the sign bit of `dir` is set (-0.0 included), else 0
    double tMin;             ///< start of the interval
    double tMax;             ///< lowered to every accepted hit
};
static_assert(sizeof(IRay) == 80);

/// Tests a ray against a sphere and keeps the nearer hit.
///
/// The entry point counts on [tMin, tMax). From inside, or when the entry lies before tMin, the
/// exit point counts on (tMin, tMax). With `sameSphere` non-zero the ray starts on this very
/// sphere: only leaving it counts, and only when the centre is not behind the origin.
/// On a hit `ray.tMax` is lowered to it and 1 returned; on a miss the record is bit for bit
/// unchanged and 0 returned. Safe from any number of threads.
int intersectSphere(Vector const& center, float const& radius, IRay& ray, int sameSphere);

/// Tests a ray against a point with a radius: the hit is the ray's point of closest approach to the
/// centre, if it lies within the radius (a distance of exactly the radius counts) and strictly
/// inside the interval.
///
/// Same result contract as `intersectSphere`.
int intersectPoint(Vector const& center, float const& radius, IRay& ray);

} // namespace Kelpa
