// How rays that go together are led through a static tree on one walk. Compiled once for each kind
// of processor whose vectors hold 8 floats or more, with `KELPA_VARIANT` as its name.

#include "kelpa/spheretree/packetwalk.h"
#include "kelpa/spheretree/raybeam.h"
#include "kelpa/spheretree/raylanes.h"
#include "kelpa/spheretree/static/sdwalk.h"

#include <cstdint>

namespace Kelpa::KELPA_VARIANT {

namespace {

/// A group of rays on their walk. Every ray takes the steps that `visitLeaves` takes with it, on
/// the same numbers; the group passes each node once for all of them.
template <Goal goal> class Packet {
  public:
    Packet(Tree const& searchedTree, RayLanes& lanesOfRays, LaneHits& hitsOfRays)
        : tree(searchedTree), rays(lanesOfRays), hits(hitsOfRays) {}

    std::uint32_t loadFrom(RayRun const& run, unsigned at) { return rays.load(run, at); }

    [[gnu::always_inline]] void walk(LaneGroup const& group) {
        RayBeam const groupBeam(rays, group.lanes);
        beam = &groupBeam;
        backwards = group.backwards;
        mayStartOnSphere = tree.singleSystem != 1 || rays.mayStart;
        Part part = nodes.begin(tree.root, rays, group);
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
        } while (nodes.resume(part, [this](Doubles tMin) {
            return ~Doubles::isAtMost(tMin, Doubles::load(rays.nearest));
        }));
    }

  private:
    using Floats = Lanes::Floats;
    using Part = LanePart<Node>;
    static constexpr unsigned width = RayLanes::width;
    static constexpr std::int32_t mostGroups = 16; ///< of a leaf's spheres, for `visitSpheres`

    /// Goes down to a leaf, or to where one ray is left.
    [[gnu::always_inline]] void descend(Part& part) {
        while (!part.node->isLeaf() && !part.isAlone()) {
            int const axis = part.node->kind();
            std::uint32_t const nearChild = backwards >> axis & 1U;
            Doubles const tSplit = (Doubles::all(static_cast<double>(part.node->splitPos)) -
                                    Doubles::load(rays.wideOrigin[axis])) *
                                   Doubles::load(rays.invDir[axis]);
            // As `crossesPlane`, whose product says it all.
            Floats const fromStart = Doubles::rounded(tSplit - part.tMin);
            Floats const fromEnd = Doubles::rounded(tSplit - part.tMax);
            std::uint32_t const oneSided =
                part.lanes & Lanes::isGreater(fromStart * fromEnd, Lanes::all(0.0F));
            std::uint32_t const crossing = part.lanes & ~oneSided;
            std::uint32_t const passing = oneSided & Doubles::isLess(tSplit, part.tMin);
            nodes.goOn(part, part.node->children(), nearChild, crossing, passing, tSplit);
        }
    }

    [[gnu::always_inline]] void visitLeaf(Part const& part) {
        std::int32_t const count = part.node->numLeafSpheres;
        if (count == 0)
            return;
        // As `LeafInterval::widened`.
        Doubles const slack = Doubles::all(1e-5);
        Doubles const start = Doubles::load(rays.tMin);
        Doubles const nearest = Doubles::load(rays.nearest);
        Doubles from = Doubles::all(0.99999) * part.tMin - slack;
        Doubles to = Doubles::all(1.00001) * part.tMax + slack;
        from = Doubles::select(Doubles::isLess(from, start), start, from);
        to = Doubles::select(Doubles::isLess(to, nearest), to, nearest);

        SphereArrays const packed =
            openPack(tree.packedLeaves, LeafPack{part.node->packWord}, count);
        std::uint32_t asked[mostGroups];
        std::int32_t const groups = (count + Lanes::count - 1) / Lanes::count;
        if (groups > mostGroups) {
            visitRayByRay(part, packed, from, to);
            return;
        }
        std::int32_t const numAsked = chooseSpheres(packed, count, asked);
        // A ray that tests a group of spheres takes half as long again as a sphere that tests a
        // group of rays.
        if (2 * numAsked > 3 * __builtin_popcount(part.lanes) * groups)
            visitRayByRay(part, packed, from, to);
        else if (numAsked > 0)
            mayStartOnSphere ? visitSpheres<true>(part, packed, asked, groups, from, to)
                             : visitSpheres<false>(part, packed, asked, groups, from, to);
    }

    /// Tells, group by group, which spheres the rays may meet; returns how many.
    [[gnu::always_inline]] std::int32_t
    chooseSpheres(SphereArrays const& packed, std::int32_t count, std::uint32_t* asked) const {
        std::int32_t numAsked = 0;
        for (std::int32_t first = 0; first < count; first += Lanes::count) {
            std::uint32_t chosen = beam->isNarrow() ? beam->mayMeet(packed, first) : allLanes;
            if (count - first < Lanes::count)
                chosen &= allLanes >> (Lanes::count - (count - first));
            *asked++ = chosen;
            numAsked += __builtin_popcount(chosen);
        }
        return numAsked;
    }

    /// Has every chosen sphere test all rays, in the order in which one ray asks them.
    template <bool mayStart>
    [[gnu::always_inline]] void visitSpheres(Part const& part, SphereArrays const& packed,
                                             std::uint32_t const* asked, std::int32_t groups,
                                             Doubles from, Doubles to) {
        LaneProbes const probes(rays);
        LaneWindows windows(from, to);
        std::uint32_t lanes = part.lanes;
        std::uint32_t hitHere = 0;
        for (std::int32_t group = groups; group-- > 0;)
            for (std::uint32_t left = asked[group]; left != 0;) {
                int const top = 31 - __builtin_clz(left);
                left ^= 1U << top;
                std::int32_t const k = Lanes::count * group + top;
                std::uint32_t starting = 0;
                if constexpr (mayStart)
                    starting = startingOn(part.node->leafSpheres()[k]);
                SphereLanes const sphere(packed.center(k), packed.radius(k));
                std::uint32_t const hit = windows.test(probes, sphere, lanes, starting);
                if (hit == 0)
                    continue;
                hitHere |= hit;
                if constexpr (goal == Goal::any) {
                    lanes &= ~hit;
                    if (lanes == 0)
                        return finishWithHit(hitHere);
                } else
                    hits.setAll(hit, part.node->leafSpheres()[k].sphereIndex, sphere);
            }
        if constexpr (goal == Goal::any)
            finishWithHit(hitHere);
        else
            Doubles::storeIn(hitHere, rays.nearest, Doubles::of(windows.end));
    }

    /// Lanes whose rays start on a sphere.
    [[gnu::always_inline]] std::uint32_t startingOn(SDLeafSphere const& entry) const {
        return Lanes::isEqual(rays.skip, skipNumberOf(tree, entry));
    }

    [[gnu::always_inline]] void visitRayByRay(Part const& part, SphereArrays const& packed,
                                              Doubles from, Doubles to) {
        alignas(64) double tMin[width];
        alignas(64) double tMax[width];
        Doubles::storeIn(allLanes, tMin, from);
        Doubles::storeIn(allLanes, tMax, to);
        for (std::uint32_t left = part.lanes; left != 0; left &= left - 1) {
            auto const i = static_cast<unsigned>(__builtin_ctz(left));
            visitWith(i, *part.node, packed, tMin[i], tMax[i]);
        }
    }

    [[gnu::always_inline]] void visitWith(unsigned i, Node const& leaf, SphereArrays const& packed,
                                          double tMin, double tMax) {
        LeafHit const hit = nearestInLeaf<TieOrder::last, UsualGroups::two>(
            rays.probe(i), packed, leaf.numLeafSpheres, tMin, tMax, [&](std::int32_t k) {
                return mayStartOnSphere &&
                       skipNumberOf(tree, leaf.leafSpheres()[k]) == rays.skip[i];
            });
        if (hit.k < 0)
            return;
        if constexpr (goal == Goal::any) {
            finishWithHit(1U << i);
        } else {
            rays.nearest[i] = hit.t;
            hits.set(i, leaf.leafSpheres()[hit.k].sphereIndex, packed.center(hit.k));
        }
    }

    /// Leads the only ray of a part through all of the subtree.
    [[gnu::noinline]] void visitAlone(Part const& part) {
        alignas(64) double tMin[width];
        alignas(64) double tMax[width];
        Doubles::storeIn(allLanes, tMin, part.tMin);
        Doubles::storeIn(allLanes, tMax, part.tMax);
        auto const i = static_cast<unsigned>(__builtin_ctz(part.lanes));
        withRay(i, [&](SDSphereRay& ray, LeafVisitor<goal>& leaves) {
            return visitLeaves<goal, usualInnerLevels>(ray, leaves, {part.node, tMin[i], tMax[i]});
        });
    }

    /// Leads every ray that is not finished alone through what waits for it.
    [[gnu::noinline]] void leadRestAlone() {
        nodes.leadRest([&](unsigned i, auto const& nextFor) {
            withRay(i, [&](SDSphereRay& ray, LeafVisitor<goal>& leaves) {
                for (WaitingSpan<Node> next; nextFor(next);) {
                    if (next.isCrossing && !(next.span.tMin <= ray.hit->t))
                        return true;
                    if (visitLeaves<goal, usualInnerLevels>(ray, leaves, next.span))
                        return true;
                }
                return true;
            });
        });
    }

    /// Has `search` do something with the ray of a lane alone, and keeps what it has hit and, if
    /// `search` says so, that it is finished.
    template <class Search> [[gnu::always_inline]] void withRay(unsigned i, Search const& search) {
        SDSphereHit hit{rays.nearest[i], nullptr, {}};
        SDSphereRay ray{IRay(rays.traceRay(i), rays.tMin[i], rays.tMax[i]), rays.skip[i],
                        rays.tMin[i], rays.tMax[i], &hit};
        LeafVisitor<goal> leaves(tree, ray);
        if (search(ray, leaves))
            nodes.finish(1U << i);
        if (!leaves.hasFound())
            return;
        if constexpr (goal == Goal::any) {
            finishWithHit(1U << i);
        } else {
            rays.nearest[i] = hit.t;
            hits.set(i, static_cast<std::uint32_t>(leaves.nearestSphere() - tree.spheres),
                     leaves.nearestCenter());
        }
    }

    void finishWithHit(std::uint32_t lanes) {
        hits.lanes |= lanes;
        nodes.finish(lanes);
    }

    Tree const& tree;
    RayLanes& rays;
    LaneHits& hits;
    RayBeam const* beam = nullptr;
    std::uint32_t backwards = 0; ///< bit per axis
    bool mayStartOnSphere = false;
    PacketWalk<Node> nodes;
};

} // namespace

std::uint64_t findClosestTogether(SDTree const& tree, RayRun const& run,
                                  PrimitiveIntersections& result) {
    return walkAll<Packet<Goal::closest>>(
        tree, tree.bbox, run, [&](RayLanes const& rays, LaneHits const& hits, unsigned firstLane) {
            hits.report(tree, rays, run.baseIndex, firstLane, result);
        });
}

std::uint64_t findAnyTogether(SDTree const& tree, RayRun const& run) {
    return walkAll<Packet<Goal::any>>(tree, tree.bbox, run,
                                      [](RayLanes const&, LaneHits const&, unsigned) {});
}

} // namespace Kelpa::KELPA_VARIANT
