// How rays that go together are led through a moving tree on one walk, each at its own time.
// Compiled once for each kind of processor whose vectors hold 8 floats or more, with
// `KELPA_VARIANT` as its name.

#include "kelpa/spheretree/motionblur/mbwalk.h"
#include "kelpa/spheretree/packetwalk.h"
#include "kelpa/spheretree/raylanes.h"

#include <cstdint>

namespace Kelpa::KELPA_VARIANT {

namespace {

using Node = MBWalkNode;

/// A group of rays on their walk. Every ray takes the steps that `visitLeaves` takes with it, on
/// the same numbers; the group passes each node once for all of them.
template <Goal goal> class Packet {
  public:
    Packet(Tree const& searchedTree, RayLanes& lanesOfRays, LaneHits& hitsOfRays)
        : tree(searchedTree), rays(lanesOfRays), hits(hitsOfRays) {}

    /// Loads rays, and returns the lanes of those that the snapshots span.
    std::uint32_t loadFrom(RayRun const& run, unsigned at) {
        std::uint32_t const lanes = rays.load(run, at);
        Floats const now = Lanes::load(rays.time);
        Doubles::storeIn(allLanes, time, Doubles::of(now));
        // Packed systems share their times. As `fractionAt` and `isCovered`.
        auto const& system = tree.particleSystems.elements[0];
        Floats const sinceFirst = now - Lanes::all(system.time0);
        Lanes::storeIn(allLanes, fraction,
                       system.time1 == system.time0
                           ? Lanes::all(0.0F)
                           : sinceFirst / Lanes::all(system.time1 - system.time0));
        return lanes &
               ~Lanes::isGreater((now - Lanes::all(system.time1)) * sinceFirst, Lanes::all(0.0F));
    }

    [[gnu::always_inline]] void walk(LaneGroup group) {
        backwards = group.backwards;
        Doubles::storeIn(allLanes, clippedMax, group.tMax);
        // Where an interval ends with what is not a number, hits hang on the order of the spheres.
        std::uint32_t const endless = group.lanes & ~Doubles::isAtMost(group.tMax, group.tMax);
        for (std::uint32_t left = endless; left != 0; left &= left - 1)
            visitAlone({tree.walkNodes, left & (0 - left), 0, group.tMin, group.tMax});
        group.lanes &= ~endless;
        if (group.lanes == 0)
            return;
        Part part = nodes.begin(tree.walkNodes, rays, group);
        do {
            descend(part);
            if (part.isAlone())
                visitAlone(part);
            else
                visitLeaf(part);
            nodes.count(part.lanes);
            if (nodes.haveParted()) {
                leadRestAlone();
                return;
            }
        } while (resume(part));
    }

  private:
    using Floats = Lanes::Floats;
    using Part = LanePart<Node>;
    static constexpr unsigned width = RayLanes::width;

    /// Goes down to a leaf, or to where one ray is left.
    [[gnu::always_inline]] void descend(Part& part) {
        while (!part.node->isLeaf() && !part.isAlone()) {
            std::uint64_t const link = part.node->link;
            int const kind = linkKind(link);
            if (kind == MBSphereNode::timeKind)
                chooseByTime(part, link);
            else
                passPlane(part, link, kind);
        }
    }

    static Node const* childOf(std::uint64_t link, std::uint32_t child) {
        return linkTarget<Node>(link) + child;
    }

    [[gnu::always_inline]] void chooseByTime(Part& part, std::uint64_t link) {
        std::uint32_t const later =
            part.lanes & Lanes::isGreater(Lanes::load(rays.time), Lanes::all(part.node->splitPos));
        if (later != 0 && later != part.lanes) {
            nodes.postpone(childOf(link, 1), 0, later, part.tMin, part);
            part.lanes &= ~later;
            part.node = childOf(link, 0);
        } else {
            part.node = childOf(link, later != 0 ? 1 : 0);
        }
    }

    [[gnu::always_inline]] void passPlane(Part& part, std::uint64_t link, int axis) {
        std::uint32_t const nearChild = backwards >> axis & 1U;
        // As `planeParameterOf`.
        auto const velocity = static_cast<double>(part.node->velocity);
        Doubles const origin =
            Doubles::load(rays.wideOrigin[axis]) - Doubles::all(velocity) * Doubles::load(time);
        Doubles const tSplit = (Doubles::all(static_cast<double>(part.node->splitPos)) - origin) *
                               Doubles::load(rays.invDir[axis]);
        // As `crossesMovingPlane`, whose product says it all.
        Doubles const product = (tSplit - part.tMin) * (tSplit - part.tMax);
        std::uint32_t const oneSided = part.lanes & Doubles::isLess(Doubles::all(0.0), product);
        std::uint32_t const crossing = part.lanes & ~oneSided;
        std::uint32_t const passing = oneSided & Doubles::isLess(tSplit, part.tMin);
        nodes.goOn(part, childOf(link, 0), nearChild, crossing, passing, tSplit);
    }

    /// What has crossed a plane is searched up to the nearest hit.
    [[gnu::always_inline]] bool resume(Part& part) {
        auto const startsBehindHit = [this](Doubles tMin) {
            return Doubles::isLess(Doubles::load(rays.nearest), tMin);
        };
        if (!nodes.resume(part, startsBehindHit))
            return false;
        Doubles const nearest = Doubles::load(rays.nearest);
        std::uint32_t const isNearer = Doubles::isLess(part.tMax, nearest);
        part.tMax = Doubles::select(part.crossing & ~isNearer, nearest, part.tMax);
        return true;
    }

    float const* statesOf(MBLeafSphere const& entry) const {
        return tree.packedSpheres + 8 * static_cast<std::size_t>(entry.sphereIndex);
    }

    [[gnu::always_inline]] void visitLeaf(Part const& part) {
        MBLeafSphere const* const entries = part.node->leafSpheres();
        std::int32_t const count = part.node->numLeafSpheres();
        for (std::int32_t k = 0; k < count && k < 32; ++k)
            __builtin_prefetch(statesOf(entries[k]));
        // A ray that has a group of spheres placed for it takes as long as four spheres take that
        // are placed for all rays.
        std::int32_t const groups = (count + placedAtATime - 1) / placedAtATime;
        if (count > 4 * __builtin_popcount(part.lanes) * groups)
            visitRayByRay(part);
        else
            visitSpheres(part, entries, count);
    }

    /// Has every sphere test all rays, each where the sphere is at the ray's time.
    [[gnu::always_inline]] void visitSpheres(Part const& part, MBLeafSphere const* entries,
                                             std::int32_t count) {
        LaneProbes const probes(rays);
        LaneWindows windows(part.tMin, part.tMax);
        Floats const f = Lanes::load(fraction);
        std::uint32_t lanes = part.lanes;
        std::uint32_t hitHere = 0;
        for (std::int32_t k = 0; k < count; ++k) {
            float const* const states = statesOf(entries[k]);
            auto const now = [states, f](int i) {
                return Lanes::all(states[i]) + Lanes::all(states[4 + i] - states[i]) * f;
            };
            SphereLanes const sphere(now(0), now(1), now(2), now(3));
            std::uint32_t const starting =
                mayStart() ? Lanes::isEqual(rays.skip, skipNumberOf(tree, entries[k])) : 0;
            std::uint32_t const hit = windows.test(probes, sphere, lanes, starting);
            if (hit == 0)
                continue;
            hitHere |= hit;
            if constexpr (goal == Goal::any) {
                lanes &= ~hit;
                if (lanes == 0)
                    return finishWithHit(hitHere);
            } else
                hits.setAll(hit, entries[k].sphereIndex, sphere);
        }
        if constexpr (goal == Goal::any)
            finishWithHit(hitHere);
        else
            Doubles::storeIn(hitHere, rays.nearest, Doubles::of(windows.end));
    }

    bool mayStart() const { return tree.singleSystem != 1 || rays.mayStart; }

    [[gnu::noinline]] void visitRayByRay(Part const& part) {
        alignas(64) double tMin[width];
        alignas(64) double tMax[width];
        Doubles::storeIn(allLanes, tMin, part.tMin);
        Doubles::storeIn(allLanes, tMax, part.tMax);
        for (std::uint32_t left = part.lanes; left != 0; left &= left - 1) {
            auto const i = static_cast<unsigned>(__builtin_ctz(left));
            withRay(i, [&](MBSphereRay&, LeafVisitor<goal>& leaves) {
                leaves.visit(*part.node, tMin[i], tMax[i]);
                return false;
            });
        }
    }

    /// Leads the only ray of a part through all of the subtree.
    [[gnu::noinline]] void visitAlone(Part const& part) {
        alignas(64) double tMin[width];
        alignas(64) double tMax[width];
        Doubles::storeIn(allLanes, tMin, part.tMin);
        Doubles::storeIn(allLanes, tMax, part.tMax);
        auto const i = static_cast<unsigned>(__builtin_ctz(part.lanes));
        withRay(i, [&](MBSphereRay& ray, LeafVisitor<goal>& leaves) {
            return visitLeaves<goal, usualInnerLevels, Node>(ray, leaves,
                                                             {part.node, tMin[i], tMax[i]});
        });
    }

    /// Leads every ray that is not finished alone through what waits for it.
    [[gnu::noinline]] void leadRestAlone() {
        nodes.leadRest([&](unsigned i, auto const& nextFor) {
            withRay(i, [&](MBSphereRay& ray, LeafVisitor<goal>& leaves) {
                for (WaitingSpan<Node> next; nextFor(next);) {
                    double const nearest = ray.hitRecord->hitT;
                    if (next.isCrossing && next.span.tMin > nearest)
                        return true;
                    if (next.isCrossing && !(next.span.tMax < nearest))
                        next.span.tMax = nearest;
                    if (visitLeaves<goal, usualInnerLevels, Node>(ray, leaves, next.span))
                        return true;
                }
                return true;
            });
        });
    }

    /// Has `search` do something with the ray of a lane alone, and keeps what it has hit and, if
    /// `search` says so, that it is finished.
    template <class Search> [[gnu::always_inline]] void withRay(unsigned i, Search const& search) {
        MBSphereHit hit{rays.nearest[i], nullptr, {}};
        MBSphereRay ray{IRay(rays.traceRay(i), rays.tMin[i], clippedMax[i]),
                        rays.skip[i],
                        rays.tMin[i],
                        rays.tMax[i],
                        &hit,
                        rays.time[i]};
        LeafVisitor<goal> leaves(tree, ray);
        if (search(ray, leaves))
            nodes.finish(1U << i);
        if (!leaves.hasFound())
            return;
        if constexpr (goal == Goal::any) {
            finishWithHit(1U << i);
        } else {
            rays.nearest[i] = hit.hitT;
            leaves.finish();
            bool const wasPacked = leaves.nearestSphere() != nullptr;
            hits.set(i, static_cast<std::uint32_t>(hit.hitSphere - tree.spheres),
                     wasPacked ? leaves.nearestCenter() : centerOf(*hit.hitSphere, rays.time[i]));
        }
    }

    Vector centerOf(MBSphere const& sphere, float when) const {
        auto const& system = tree.particleSystems.elements[tree.systemOf(sphere)];
        return placeAt(system, static_cast<std::uint32_t>(tree.particleOf(sphere)), when).center;
    }

    void finishWithHit(std::uint32_t lanes) {
        hits.lanes |= lanes;
        nodes.finish(lanes);
    }

    Tree const& tree;
    RayLanes& rays;
    LaneHits& hits;
    std::uint32_t backwards = 0; ///< bit per axis
    alignas(64) double time[width];
    alignas(64) float fraction[width];    ///< how far spheres are on their way at the rays' times
    alignas(64) double clippedMax[width]; ///< where the rays leave the tree's box
    PacketWalk<Node> nodes;
};

} // namespace

std::uint64_t findClosestTogether(MBTree const& tree, RayRun const& run,
                                  PrimitiveIntersections& result) {
    return walkAll<Packet<Goal::closest>>(
        tree, tree.rootBox.box, run,
        [&](RayLanes const& rays, LaneHits const& hits, unsigned firstLane) {
            hits.report(tree, rays, run.baseIndex, firstLane, result);
        });
}

std::uint64_t findAnyTogether(MBTree const& tree, RayRun const& run) {
    return walkAll<Packet<Goal::any>>(tree, tree.rootBox.box, run,
                                      [](RayLanes const&, LaneHits const&, unsigned) {});
}

} // namespace Kelpa::KELPA_VARIANT
