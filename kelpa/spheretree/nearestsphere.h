// Internal: the nearest of many spheres, with the bits that asking them one by one would give.
#pragma once

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
#if defined(__AVX512F__)
    return _mm_cvtss_f32(_mm_cvt_roundsd_ss(_mm_setzero_ps(), _mm_set_sd(value),
                                            _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC));
#else
    float const nearest = static_cast<float>(value);
    // The bits of positive floats are in their order, those of negative ones against it.
    auto const bits = __builtin_bit_cast(std::int32_t, nearest);
    std::int32_t const sign = bits >> 31; // 0 or -1
    std::int32_t const isBelow = static_cast<double>(nearest) < value ? 1 : 0;
    return __builtin_bit_cast(float, bits + ((isBelow ^ sign) - sign));
#endif
}

[[gnu::always_inline]] inline float roundedDown(double value) {
    return -roundedUp(-value);
}

/// What sphere tests need of a ray, in the precision of particle arithmetic.
struct SphereProbe {
    [[gnu::always_inline]] explicit SphereProbe(IRay const& ray)
        : SphereProbe(singleOrigin(ray), ray.dir, dot(ray.dir, ray.dir)) {}
    [[gnu::always_inline]] SphereProbe(Vector const& from, Vector const& along, float squared)
        : origin(from), dir(along), squaredLength(squared) {}

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

inline constexpr std::uint32_t allLanes = 0xFFFFU >> (16 - Lanes::count);

/// What the test of a group of spheres knows before the root.
struct FirstHalf {
    Lanes::Floats tClosest;
    Lanes::Floats h;        ///< squared distance of the ray from the centre, less squared radius
    std::uint32_t possible; ///< lanes that the ray's line hits
};

/// For some `lanes` of the group of spheres that begins with `first`.
[[gnu::always_inline]] inline FirstHalf firstHalf(SphereProbe const& ray,
                                                  SphereArrays const& spheres, std::int32_t first,
                                                  std::uint32_t lanes) {
    using Floats = Lanes::Floats;
    Floats const dirX = Lanes::all(ray.dir.x);
    Floats const dirY = Lanes::all(ray.dir.y);
    Floats const dirZ = Lanes::all(ray.dir.z);
    Floats const x = Lanes::load(spheres.x + first) - Lanes::all(ray.origin.x);
    Floats const y = Lanes::load(spheres.y + first) - Lanes::all(ray.origin.y);
    Floats const z = Lanes::load(spheres.z + first) - Lanes::all(ray.origin.z);
    Floats const radius =
        spheres.radiusStep == 0 ? Lanes::all(spheres.radii[0]) : Lanes::load(spheres.radii + first);
    Floats const tClosest = ((x * dirX + y * dirY) + z * dirZ) / Lanes::all(ray.squaredLength);
    Floats const ex = dirX * tClosest - x;
    Floats const ey = dirY * tClosest - y;
    Floats const ez = dirZ * tClosest - z;
    Floats const h = ((ex * ex + ey * ey) + ez * ez) - radius * radius;
    return {tClosest, h, lanes & ~Lanes::isGreater(h, Lanes::all(0.0F))};
}

/// Hits of a group: when, and which lanes those are.
struct GroupHits {
    Lanes::Floats t; ///< infinite where there is none
    std::uint32_t lanes;
};

/// What is left to do for the possible lanes, of which there must be one.
[[gnu::always_inline]] inline GroupHits secondHalf(SphereProbe const& ray, FirstHalf const& group,
                                                   HitWindow const& window) {
    using Floats = Lanes::Floats;
    std::uint32_t possible = group.possible;
    // No root is taken of what is passed: hosts may trap invalid operations.
    Floats const halfChord = Lanes::rootIn(possible, -group.h / Lanes::all(ray.squaredLength));
    Floats const entry = group.tClosest - halfChord;
    Floats const exit = group.tClosest + halfChord;
    Floats const end = Lanes::all(window.end);
    possible &= ~Lanes::isAtLeast(entry, end);
    std::uint32_t const entered = possible & Lanes::isAtLeast(entry, Lanes::all(window.entryFrom));
    std::uint32_t const left = possible & ~entered &
                               Lanes::isGreater(exit, Lanes::all(window.exitAfter)) &
                               Lanes::isGreater(end, exit);
    std::uint32_t const hits = entered | left;
    return {Lanes::select(hits, Lanes::select(entered, entry, exit), Lanes::all(__builtin_inff())),
            hits};
}

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
[[gnu::noinline]] inline std::int32_t
nearestInOrder(SphereProbe const& ray, SphereArrays const& spheres, std::int32_t count,
               std::int32_t excluded, HitWindow& window) {
    std::int32_t nearest = -1;
    std::int32_t const packs = (count + Lanes::count - 1) / Lanes::count;
    for (std::int32_t asked = 0; asked < packs; ++asked) {
        std::int32_t const first =
            (order == TieOrder::first ? asked : packs - 1 - asked) * Lanes::count;
        std::uint32_t lanes = allLanes;
        if (count - first < Lanes::count)
            lanes >>= Lanes::count - (count - first);
        if (static_cast<std::uint32_t>(excluded - first) < Lanes::count)
            lanes &= ~(1U << (excluded - first));
        FirstHalf const group = firstHalf(ray, spheres, first, lanes);
        if (group.possible == 0)
            continue;
        GroupHits const hits = secondHalf(ray, group, window);
        if (hits.lanes == 0)
            continue;
        std::uint32_t const best =
            hits.lanes & Lanes::isEqual(hits.t, Lanes::all(Lanes::lowest(hits.t)));
        std::int32_t const lane =
            order == TieOrder::first ? __builtin_ctz(best) : 31 - __builtin_clz(best);
        nearest = first + lane;
        window.end = Lanes::at(hits.t, lane);
    }
    return nearest;
}

/// How many groups of spheres most leaves of a tree have where vectors are longest.
enum class UsualGroups { one, two };

/// `nearestInOrder` without an excluded sphere, faster for leaves as most are: both groups side by
/// side, and one second half for both where no two of the possible spheres are on the same lane.
template <TieOrder order, UsualGroups usual>
[[gnu::always_inline]] inline std::int32_t nearestSphere(SphereProbe const& ray,
                                                         SphereArrays const& spheres,
                                                         std::int32_t count, HitWindow& window) {
    constexpr std::int32_t excluded = -1;
    if (count > 2 * Lanes::count || (count <= Lanes::count && usual == UsualGroups::two))
        return nearestInOrder<order>(ray, spheres, count, excluded, window);
    std::int32_t const inHigh = count - Lanes::count; // spheres of the second group
    FirstHalf const low = firstHalf(ray, spheres, 0, inHigh < 0 ? allLanes >> -inHigh : allLanes);
    FirstHalf const high =
        inHigh > 0 ? firstHalf(ray, spheres, Lanes::count, allLanes >> (Lanes::count - inHigh))
                   : FirstHalf{low.tClosest, low.h, 0};
    std::uint32_t const possible = low.possible | high.possible;
    if (possible == 0)
        return -1;
    if ((low.possible & high.possible) != 0) [[unlikely]]
        return nearestInOrder<order>(ray, spheres, count, excluded, window);
    FirstHalf const both{Lanes::select(high.possible, high.tClosest, low.tClosest),
                         Lanes::select(high.possible, high.h, low.h), possible};
    GroupHits const hits = secondHalf(ray, both, window);
    if (hits.lanes == 0)
        return -1;
    float const t = Lanes::lowest(hits.t);
    std::uint32_t const best = hits.lanes & Lanes::isEqual(hits.t, Lanes::all(t));
    if ((best & (best - 1)) != 0) [[unlikely]] // then the order decides
        return nearestInOrder<order>(ray, spheres, count, excluded, window);
    window.end = t;
    return __builtin_ctz(best) + ((best & high.possible) != 0 ? Lanes::count : 0);
}

/// The nearest hit in a leaf: of which of its spheres, or -1, and when.
struct LeafHit {
    std::int32_t k;
    double t;
};

/// `nearestInLeaf` for a ray that meets the sphere `origin` first, on which it starts. As far as it
/// meets no other before, it leaves that sphere.
template <TieOrder order, class IsOrigin>
[[gnu::noinline]] inline LeafHit
nearestBesideOrigin(SphereProbe const& ray, SphereArrays const& spheres, std::int32_t count,
                    double tMin, double tMax, std::int32_t origin, IsOrigin const& isOrigin) {
    HitWindow window(tMin, tMax);
    std::int32_t const other = nearestInOrder<order>(ray, spheres, count, origin, window);
    auto const isHit = [&](std::int32_t k, bool isLeft) {
        return hitSphere(spheres.center(k), spheres.radius(k), ray.origin, ray.dir, tMin, tMax,
                         isLeft);
    };
    if (other < 0 || !isOrigin(other)) {
        auto const t = static_cast<double>(window.end);
        bool const comesFirst = order == TieOrder::first ? origin < other : origin > other;
        if (isHit(origin, true) && (other < 0 || tMax < t || (tMax == t && comesFirst)))
            return {origin, tMax};
        return {other, t};
    }
    // One by one: particles of different systems may have the number on which the ray starts.
    std::int32_t nearest = -1;
    for (std::int32_t asked = 0; asked < count; ++asked) {
        std::int32_t const k = order == TieOrder::first ? asked : count - 1 - asked;
        if (isHit(k, isOrigin(k)))
            nearest = k;
    }
    return {nearest, tMax};
}

/// The hit that asking a leaf's spheres one by one finds, where of equally near ones the first that
/// is asked stays; `isOrigin(k)` tells whether the ray starts on sphere `k`.
template <TieOrder order, UsualGroups usual, class IsOrigin>
[[gnu::always_inline]] inline LeafHit
nearestInLeaf(SphereProbe const& ray, SphereArrays const& spheres, std::int32_t count, double tMin,
              double tMax, IsOrigin const& isOrigin) {
    HitWindow window(tMin, tMax);
    std::int32_t const k = nearestSphere<order, usual>(ray, spheres, count, window);
    if (k < 0 || !isOrigin(k)) [[likely]]
        return {k, static_cast<double>(window.end)};
    return nearestBesideOrigin<order>(ray, spheres, count, tMin, tMax, k, isOrigin);
}

} // namespace

} // namespace Kelpa
