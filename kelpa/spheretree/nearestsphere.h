#pragma once
// Internal: the nearest of many spheres, with the bits that asking them one by one would give.

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/foundation/iray.h"
#include "kelpa/spheretree/lanes.h"
#include "kelpa/spheretree/spherearrays.h"

#include <cstdint>

namespace Kelpa {

namespace {

/// The smallest single-precision number that is not below `value`. Without a branch: which way the
/// rounding goes is a coin's toss.
[[gnu::always_inline]] inline float roundedUp(double value) {
    float const nearest = static_cast<float>(value);
    // The bits of positive floats are in their order, those of negative ones against it.
    auto const bits = __builtin_bit_cast(std::int32_t, nearest);
    std::int32_t const sign = bits >> 31; // 0 or -1
    std::int32_t const isBelow = static_cast<double>(nearest) < value ? 1 : 0;
    return __builtin_bit_cast(float, bits + ((isBelow ^ sign) - sign));
}

[[gnu::always_inline]] inline float roundedDown(double value) {
    return -roundedUp(-value);
}

/// What sphere tests need of a ray, in the precision of particle arithmetic.
struct SphereProbe {
    [[gnu::always_inline]] explicit SphereProbe(IRay const& ray)
        : origin(singleOrigin(ray)), dir(ray.dir), squaredLength(dot(ray.dir, ray.dir)) {}

    Vector origin;
    Vector dir;
    float squaredLength; ///< of `dir`
};

/// The interval of a ray for single-precision hits: `t >= tMin` says the same of a float `t` as
/// `t >= entryFrom`, `t > tMin` as `t > exitAfter`, and `t >= tMax` as `t >= end`.
struct HitWindow {
    [[gnu::always_inline]] HitWindow(double tMin, double tMax)
        : entryFrom(roundedUp(tMin)), exitAfter(roundedDown(tMin)), end(roundedUp(tMax)) {}

    float entryFrom;
    float exitAfter;
    float end; ///< lowered to every hit
};

/// In which order spheres at the same distance are preferred.
enum class TieOrder { first, last };

/// The sphere among `spheres` 0 to `count` - 1, but for `excluded` (-1: none), that the ray hits
/// first, or -1. Lowers the window's end to the hit. With an end that is not a number it depends on
/// `Lanes` which hit that is.
///
/// Takes the steps of `hitSphere` for every sphere, in its order, so that it finds the same
/// numbers. There each hit lowers the ray's end and so must be nearer than those before it; that is
/// the nearest of all, and of equally near ones the first that is asked.
template <TieOrder order>
[[gnu::always_inline]] inline std::int32_t
nearestSphere(SphereProbe const& ray, SphereArrays const& spheres, std::int32_t count,
              std::int32_t excluded, HitWindow& window) {
    using Floats = Lanes::Floats;
    constexpr std::uint32_t allLanes = 0xFFFFU >> (16 - Lanes::count);
    Floats const dirX = Lanes::all(ray.dir.x);
    Floats const dirY = Lanes::all(ray.dir.y);
    Floats const dirZ = Lanes::all(ray.dir.z);
    Floats const squaredLength = Lanes::all(ray.squaredLength);
    Floats const none = Lanes::all(0.0F);
    std::int32_t nearest = -1;
    std::int32_t const packs = (count + Lanes::count - 1) / Lanes::count;
    for (std::int32_t asked = 0; asked < packs; ++asked) {
        std::int32_t const first =
            (order == TieOrder::first ? asked : packs - 1 - asked) * Lanes::count;
        Floats const x = Lanes::load(spheres.x + first) - Lanes::all(ray.origin.x);
        Floats const y = Lanes::load(spheres.y + first) - Lanes::all(ray.origin.y);
        Floats const z = Lanes::load(spheres.z + first) - Lanes::all(ray.origin.z);
        Floats const radius = spheres.radiusStep == 0 ? Lanes::all(spheres.radii[0])
                                                      : Lanes::load(spheres.radii + first);
        Floats const tClosest = ((x * dirX + y * dirY) + z * dirZ) / squaredLength;
        Floats const ex = dirX * tClosest - x;
        Floats const ey = dirY * tClosest - y;
        Floats const ez = dirZ * tClosest - z;
        Floats const h = ((ex * ex + ey * ey) + ez * ez) - radius * radius;
        std::uint32_t possible = allLanes & ~Lanes::isGreater(h, none);
        if (count - first < Lanes::count)
            possible &= allLanes >> (Lanes::count - (count - first));
        if (static_cast<std::uint32_t>(excluded - first) < Lanes::count)
            possible &= ~(1U << (excluded - first));
        if (possible == 0)
            continue;
        // No root is taken of what is passed: hosts may trap invalid operations.
        Floats const halfChord = Lanes::rootIn(possible, -h / squaredLength);
        Floats const entry = tClosest - halfChord;
        Floats const exit = tClosest + halfChord;
        Floats const end = Lanes::all(window.end);
        possible &= ~Lanes::isAtLeast(entry, end);
        std::uint32_t const entered =
            possible & Lanes::isAtLeast(entry, Lanes::all(window.entryFrom));
        std::uint32_t const left = possible & ~entered &
                                   Lanes::isGreater(exit, Lanes::all(window.exitAfter)) &
                                   Lanes::isGreater(end, exit);
        std::uint32_t const hits = entered | left;
        if (hits == 0)
            continue;
        Floats const t =
            Lanes::select(hits, Lanes::select(entered, entry, exit), Lanes::all(__builtin_inff()));
        std::uint32_t const best = hits & Lanes::isEqual(t, Lanes::all(Lanes::lowest(t)));
        std::int32_t const lane =
            order == TieOrder::first ? __builtin_ctz(best) : 31 - __builtin_clz(best);
        nearest = first + lane;
        window.end = Lanes::at(t, lane);
    }
    return nearest;
}

} // namespace

} // namespace Kelpa
