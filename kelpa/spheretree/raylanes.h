// Internal: as many rays of a bunch as a vector has lanes, on their way through a tree together.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"
#include "kelpa/spheretree/lanes.h"
#include "kelpa/spheretree/nearestsphere.h"
#include "kelpa/spheretree/rayrun.h"
#include "kelpa/spheretree/spherearrays.h"
#include "kelpa/spheretree/traversal.h"

#include <cstdint>

namespace Kelpa {

namespace {

/// Rays by lane, each as `IRay` and the queries prepare it when it is asked about alone.
struct RayLanes {
    static constexpr unsigned width = static_cast<unsigned>(Lanes::count);
    using Floats = Lanes::Floats;

    alignas(64) float origin[3][width];
    alignas(64) float dir[3][width];
    alignas(64) float squaredLength[width]; ///< of `dir`
    alignas(64) float time[width];
    alignas(64) std::int32_t skip[width]; ///< as `skipNumber` counts
    alignas(64) double wideOrigin[3][width];
    alignas(64) double invDir[3][width];
    alignas(64) double tMin[width];    ///< the interval as the caller set it
    alignas(64) double tMax[width];    ///< see `tMin`
    alignas(64) double nearest[width]; ///< the nearest hit so far, else the end of the search
    std::uint32_t backwards[3];        ///< lanes whose direction has its sign bit set, by axis
    bool mayStart; ///< whether a ray may start on a particle of a tree that numbers them from 0

    /// Takes up to `width` rays of a run from the `at`-th on and returns their lanes. The others
    /// repeat the last, so that nothing is computed with that no ray holds.
    [[gnu::always_inline]] std::uint32_t load(RayRun const& run, unsigned at) {
        unsigned const lane = run.first + at;
        RayBunchExtParams const& rays = run.rays;
        Source source{{rays.originX + lane, rays.originY + lane, rays.originZ + lane},
                      {rays.dirX + lane, rays.dirY + lane, rays.dirZ + lane},
                      rays.time + lane,
                      rays.skipIndex + lane,
                      run.tMins + lane,
                      run.tMaxs + at};
        unsigned const count = run.count - at;
        if (count >= width) {
            take(source, run.baseIndex);
            return allLanes;
        }
        Filled const filled(source, count);
        take(filled.source(), run.baseIndex);
        return allLanes >> (width - count);
    }

    TraceRay traceRay(unsigned i) const {
        return {{wideOrigin[0][i], wideOrigin[1][i], wideOrigin[2][i]},
                {dir[0][i], dir[1][i], dir[2][i]}};
    }

    SphereProbe probe(unsigned i) const {
        return SphereProbe({origin[0][i], origin[1][i], origin[2][i]},
                           {dir[0][i], dir[1][i], dir[2][i]}, squaredLength[i]);
    }

  private:
    /// Where a full vector of each value is read from.
    struct Source {
        double const* origin[3];
        float const* dir[3];
        float const* time;
        std::int64_t const* skip;
        double const* tMin;
        double const* tMax;
    };

    /// A copy of fewer rays than there are lanes, the last of them repeated.
    struct Filled {
        Filled(Source const& from, unsigned count) {
            for (unsigned k = 0; k < width; ++k) {
                unsigned const i = k < count ? k : count - 1;
                for (int axis = 0; axis < 3; ++axis) {
                    origin[axis][k] = from.origin[axis][i];
                    dir[axis][k] = from.dir[axis][i];
                }
                time[k] = from.time[i];
                skip[k] = from.skip[i];
                tMin[k] = from.tMin[i];
                tMax[k] = from.tMax[i];
            }
        }
        Source source() const {
            return {{origin[0], origin[1], origin[2]},
                    {dir[0], dir[1], dir[2]},
                    time,
                    skip,
                    tMin,
                    tMax};
        }

        double origin[3][width];
        float dir[3][width];
        float time[width];
        std::int64_t skip[width];
        double tMin[width];
        double tMax[width];
    };

    [[gnu::always_inline]] void take(Source const& from, std::int32_t baseIndex) {
        Floats components[3];
        Floats const largestReciprocal = Lanes::all(1e18F);
        for (int axis = 0; axis < 3; ++axis) {
            Floats const single = Doubles::rounded(Doubles::load(from.origin[axis]));
            store(origin[axis], single);
            store(wideOrigin[axis], Doubles::of(single));
            Floats const component = Lanes::load(from.dir[axis]);
            components[axis] = component;
            store(dir[axis], component);
            // As in `IRay`: what is not a number becomes the largest.
            Floats const reciprocal = Lanes::higher(
                Lanes::lower(Lanes::all(1.0F) / component, largestReciprocal), -largestReciprocal);
            store(invDir[axis], Doubles::of(reciprocal));
            backwards[axis] = Lanes::isNegative(component);
        }
        store(squaredLength, (components[0] * components[0] + components[1] * components[1]) +
                                 components[2] * components[2]);
        store(time, Lanes::load(from.time));
        std::int32_t allSkips = -1;
        for (unsigned k = 0; k < width; ++k) {
            skip[k] = static_cast<std::int32_t>(static_cast<std::uint32_t>(from.skip[k]) -
                                                static_cast<std::uint32_t>(baseIndex));
            allSkips &= skip[k];
        }
        mayStart = allSkips >= 0; // unless all are negative
        store(tMin, Doubles::load(from.tMin));
        Doubles const end = Doubles::load(from.tMax);
        store(tMax, end);
        Doubles const farthest = Doubles::all(static_cast<double>(1e30F));
        store(nearest, Doubles::select(Doubles::isLess(end, farthest), end, farthest));
    }

    KELPA_INLINE void store(float* to, Floats values) { Lanes::storeIn(allLanes, to, values); }
    KELPA_INLINE void store(double* to, Doubles values) { Doubles::storeIn(allLanes, to, values); }
};

/// What tests of one sphere need of all rays.
struct LaneProbes {
    using Floats = Lanes::Floats;

    [[gnu::always_inline]] explicit LaneProbes(RayLanes const& rays)
        : origin{Lanes::load(rays.origin[0]), Lanes::load(rays.origin[1]),
                 Lanes::load(rays.origin[2])},
          dir{Lanes::load(rays.dir[0]), Lanes::load(rays.dir[1]), Lanes::load(rays.dir[2])},
          squaredLength(Lanes::load(rays.squaredLength)) {}

    Floats origin[3];
    Floats dir[3];
    Floats squaredLength;
};

/// A sphere as each ray sees it.
struct SphereLanes {
    using Floats = Lanes::Floats;

    [[gnu::always_inline]] SphereLanes(Vector const& center, float radius)
        : x(Lanes::all(center.x)), y(Lanes::all(center.y)), z(Lanes::all(center.z)),
          squaredRadius(Lanes::all(radius * radius)) {}
    [[gnu::always_inline]] SphereLanes(Floats ofX, Floats ofY, Floats ofZ, Floats radius)
        : x(ofX), y(ofY), z(ofZ), squaredRadius(radius * radius) {}

    Floats x, y, z; ///< of its centre
    Floats squaredRadius;
};

/// `HitWindow` for all rays.
struct LaneWindows {
    using Floats = Lanes::Floats;

    [[gnu::always_inline]] LaneWindows(Doubles tMin, Doubles tMax)
        : entryFrom(Doubles::roundedUp(tMin)), exitAfter(-Doubles::roundedUp(-tMin)),
          end(Doubles::roundedUp(tMax)) {}

    /// Takes the steps of `hitSphere` for the rays of some lanes, of which those `starting` start
    /// on the sphere, and returns those that hit it. Their windows end there.
    [[gnu::always_inline]] std::uint32_t test(LaneProbes const& ray, SphereLanes const& sphere,
                                              std::uint32_t lanes, std::uint32_t starting) {
        Floats const none = Lanes::all(0.0F);
        Floats const x = sphere.x - ray.origin[0];
        Floats const y = sphere.y - ray.origin[1];
        Floats const z = sphere.z - ray.origin[2];
        Floats const b = (x * ray.dir[0] + y * ray.dir[1]) + z * ray.dir[2];
        Floats const tClosest = b / ray.squaredLength;
        Floats const ex = ray.dir[0] * tClosest - x;
        Floats const ey = ray.dir[1] * tClosest - y;
        Floats const ez = ray.dir[2] * tClosest - z;
        Floats const h = ((ex * ex + ey * ey) + ez * ez) - sphere.squaredRadius;
        std::uint32_t possible = lanes & ~Lanes::isGreater(h, none);
        if (starting != 0)
            possible &= ~starting | Lanes::isAtLeast(b, none);
        if (possible == 0)
            return 0;
        // No root is taken of what is passed: hosts may trap invalid operations.
        Floats const halfChord = Lanes::rootIn(possible, -h / ray.squaredLength);
        Floats const entry = tClosest - halfChord;
        Floats const exit = tClosest + halfChord;
        possible &= ~Lanes::isAtLeast(entry, end) | starting;
        std::uint32_t const entered = possible & ~starting & Lanes::isAtLeast(entry, entryFrom);
        std::uint32_t const left =
            possible & ~entered & Lanes::isGreater(exit, exitAfter) & Lanes::isGreater(end, exit);
        if ((entered | left) != 0)
            end = Lanes::select(entered, entry, Lanes::select(left, exit, end));
        return entered | left;
    }

    Floats entryFrom;
    Floats exitAfter;
    Floats end;
};

/// Lanes whose rays meet the sides of every plane in the same order, with the parts of them that
/// are inside a box.
struct LaneGroup {
    std::uint32_t lanes;
    std::uint32_t backwards; ///< bit per axis
    Doubles tMin, tMax;

    /// Takes the first of `left` and those that go with it out of `left`, and clips them as
    /// `clipToBox` does.
    [[gnu::always_inline]] static LaneGroup takeFrom(std::uint32_t& left, RayLanes const& rays,
                                                     Box const& box) {
        LaneGroup group{left, 0, Doubles::load(rays.tMin), Doubles::load(rays.tMax)};
        int const first = __builtin_ctz(left);
        for (int axis = 0; axis < 3; ++axis) {
            bool const isBackwards = (rays.backwards[axis] >> first & 1U) != 0;
            group.lanes &= isBackwards ? rays.backwards[axis] : ~rays.backwards[axis];
            group.backwards |= (isBackwards ? 1U : 0U) << axis;
            Doubles const entry =
                group.planeParameter(rays, axis, isBackwards ? box.max[axis] : box.min[axis]);
            Doubles const exit =
                group.planeParameter(rays, axis, isBackwards ? box.min[axis] : box.max[axis]);
            group.tMin = Doubles::select(Doubles::isLess(group.tMin, entry), entry, group.tMin);
            group.tMax = Doubles::select(Doubles::isLess(exit, group.tMax), exit, group.tMax);
        }
        left &= ~group.lanes;
        group.lanes &= ~Doubles::isLess(group.tMax * Doubles::all(grazing), group.tMin);
        return group;
    }

  private:
    [[gnu::always_inline]] static Doubles planeParameter(RayLanes const& rays, int axis,
                                                         float position) {
        return (Doubles::all(static_cast<double>(position)) -
                Doubles::load(rays.wideOrigin[axis])) *
               Doubles::load(rays.invDir[axis]);
    }
};

/// What rays have hit, by lane; when, `RayLanes::nearest` tells.
struct LaneHits {
    std::uint32_t lanes = 0;
    alignas(64) float sphereBits[RayLanes::width]; ///< an index, as the bits of a float
    alignas(64) float center[3][RayLanes::width];

    void set(unsigned lane, std::uint32_t sphereIndex, Vector const& sphereCenter) {
        lanes |= 1U << lane;
        sphereBits[lane] = __builtin_bit_cast(float, sphereIndex);
        for (int axis = 0; axis < 3; ++axis)
            center[axis][lane] = sphereCenter[axis];
    }

    [[gnu::always_inline]] void setAll(std::uint32_t which, std::uint32_t sphereIndex,
                                       SphereLanes const& sphere) {
        lanes |= which;
        Lanes::storeIn(which, sphereBits, Lanes::all(__builtin_bit_cast(float, sphereIndex)));
        Lanes::storeIn(which, center[0], sphere.x);
        Lanes::storeIn(which, center[1], sphere.y);
        Lanes::storeIn(which, center[2], sphere.z);
    }

    /// Enters the hits into the lanes of `result` from `firstLane` on.
    template <class Tree>
    [[gnu::always_inline]] void report(Tree const& tree, RayLanes const& rays,
                                       std::int32_t baseIndex, unsigned firstLane,
                                       PrimitiveIntersections& result) const {
        Doubles const t = Doubles::load(rays.nearest);
        Lanes::Floats const single = Doubles::rounded(t);
        Doubles::storeIn(lanes, result.hitT + firstLane, t);
        float* const normals[3] = {result.hitNormalX, result.hitNormalY, result.hitNormalZ};
        for (int axis = 0; axis < 3; ++axis)
            Lanes::storeIn(lanes, normals[axis] + firstLane,
                           (Lanes::load(rays.origin[axis]) - Lanes::load(center[axis])) +
                               Lanes::load(rays.dir[axis]) * single);
        for (std::uint32_t left = lanes; left != 0; left &= left - 1) {
            int const i = __builtin_ctz(left);
            auto const& hit = tree.spheres[__builtin_bit_cast(std::uint32_t, sphereBits[i])];
            auto const& system = tree.particleSystems.elements[tree.systemOf(hit)];
            auto const particle = static_cast<std::int32_t>(tree.particleOf(hit));
            unsigned const lane = firstLane + static_cast<unsigned>(i);
            result.hit[lane] = 1; // only spheres are packed
            result.hitPrimitive[lane] = system.primitive;
            result.hitLocalIndex[lane] = particle;
            result.hitIndex[lane] =
                reportedNumber(tree.singleSystem, particle, system.indexOffset, baseIndex);
        }
    }
};

} // namespace

} // namespace Kelpa
