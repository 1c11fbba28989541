// Internal: the hit tests, written once for the public functions and for both trees' leaves.
#pragma once

#include "kelpa/foundation/iray.h"

#include <cmath>

namespace Kelpa {

[[gnu::always_inline]] inline float dot(Vector const& a, Vector const& b) {
    return (a.x * b.x + a.y * b.y) + a.z * b.z;
}

/// The ray's origin in the precision of particle arithmetic.
[[gnu::always_inline]] inline Vector singleOrigin(IRay const& ray) {
    return {static_cast<float>(ray.origin[0]), static_cast<float>(ray.origin[1]),
            static_cast<float>(ray.origin[2])};
}

[[gnu::always_inline]] inline Vector fromTo(Vector const& from, Vector const& to) {
    return {to.x - from.x, to.y - from.y, to.z - from.z};
}

/// `intersectSphere`, inline, on what it needs of a ray: its origin in the precision of particle
/// arithmetic, and its interval, whose end a hit lowers.
///
/// The centre is reduced to the closest approach first and the discriminant taken there, not as
/// b * b - a * c at the origin: far from small spheres that difference would cancel (E. Haines, J.
/// Guenther, T. Akenine-Moeller, "Precision Improvements for Ray/Sphere Intersection", Ray Tracing
/// Gems, 2019, ch. 7).
[[gnu::always_inline]] inline bool hitSphere(Vector const& center, float radius,
                                             Vector const& origin, Vector const& dir, double tMin,
                                             double& tMax, bool sameSphere) {
    Vector const toCenter = fromTo(origin, center);
    float const b = dot(toCenter, dir);
    // Not `b < 0`: a NaN must miss, too.
    if (sameSphere && !(b >= 0.0F))
        return false;

    float const a = dot(dir, dir);
    float const tClosest = b / a;
    Vector const offset = {dir.x * tClosest - toCenter.x, dir.y * tClosest - toCenter.y,
                           dir.z * tClosest - toCenter.z};
    float const h = dot(offset, offset) - radius * radius;
    if (h > 0.0F)
        return false;

    // A NaN that came this far fails every comparison below, and so misses.
    float const halfChord = std::sqrt(-h / a);
    double const entry = static_cast<double>(tClosest - halfChord);
    double const exit = static_cast<double>(tClosest + halfChord);
    if (!sameSphere) {
        if (entry >= tMax)
            return false;
        if (entry >= tMin) {
            tMax = entry;
            return true;
        }
    }
    if (!(tMin < exit && exit < tMax))
        return false;
    tMax = exit;
    return true;
}

/// `intersectSphere`, inline.
[[gnu::always_inline]] inline int hitSphere(Vector const& center, float radius, IRay& ray,
                                            bool sameSphere) {
    return hitSphere(center, radius, singleOrigin(ray), ray.dir, ray.tMin, ray.tMax, sameSphere)
               ? 1
               : 0;
}

/// `intersectPoint`, inline.
[[gnu::always_inline]] inline int hitPoint(Vector const& center, float radius, IRay& ray) {
    Vector const toCenter = fromTo(singleOrigin(ray), center);
    float const t = dot(toCenter, ray.dir) / dot(ray.dir, ray.dir);
    double const closest = static_cast<double>(t);
    if (!(ray.tMin < closest && closest < ray.tMax))
        return 0;

    // The foot of the perpendicular is found in double precision: near a distant origin its single
    // coordinates would be coarser than the radius.
    Vector const foot = {static_cast<float>(ray.origin[0] + static_cast<double>(ray.dir.x * t)),
                         static_cast<float>(ray.origin[1] + static_cast<double>(ray.dir.y * t)),
                         static_cast<float>(ray.origin[2] + static_cast<double>(ray.dir.z * t))};
    Vector const offset = fromTo(center, foot);
    if (!(radius * radius >= dot(offset, offset)))
        return 0;
    ray.tMax = closest;
    return 1;
}

} // namespace Kelpa
