// Internal: what both trees do alike with a group of rays on one walk.
#pragma once

#include "kelpa/spheretree/lanes.h"
#include "kelpa/spheretree/raylanes.h"
#include "kelpa/spheretree/traversal.h"

#include <cstdint>

namespace Kelpa {

namespace {

/// A node and the parts of some rays that are inside it.
template <class Node> struct LanePart {
    Node const* node;
    std::uint32_t lanes;
    std::uint32_t crossing; ///< those that have crossed the plane on its other side
    Doubles tMin, tMax;

    /// Whether a single ray is left: it is faster without the others' lanes.
    bool isAlone() const { return (lanes & (lanes - 1)) == 0; }
};

/// What waits for one ray.
template <class Node> struct WaitingSpan {
    Span<Node> span;
    bool isCrossing; ///< whether the ray has crossed a plane to it; else it had no choice
};

/// The state of a walk: which rays are finished, and the nodes that wait for the others.
///
/// As with `PostponedChildren`, those that wait belong to distinct inner nodes of one path.
template <class Node> class PacketWalk {
  public:
    using Part = LanePart<Node>;

    /// Begins a walk with all rays of a group at a tree's root.
    [[gnu::always_inline]] Part begin(Node const* root, RayLanes const& rays,
                                      LaneGroup const& group) {
        // The next group of a list goes as the last went. Rays from one point part later than those
        // that start behind one another, as shadow rays do; measured on a Plummer sphere.
        bool const fromOnePoint = startTogether(rays, group.lanes);
        enough = fromOnePoint ? 2 : 3;
        patience = haveParted() ? 0 : fromOnePoint ? 6 : 10;
        all = group.lanes;
        finished = 0;
        used = 0;
        return {root, group.lanes, 0, group.tMin, group.tMax};
    }

    void finish(std::uint32_t lanes) { finished |= lanes; }

    /// Counts a leaf or, where one ray is left, a subtree that `lanes` have visited on one way.
    [[gnu::always_inline]] void count(std::uint32_t lanes) {
        patience += __builtin_popcount(lanes) - enough;
        patience = patience < mostPatience ? patience : mostPatience;
    }

    /// Whether the rays have parted so much that each is faster alone. Only the speed depends on
    /// it.
    bool haveParted() const { return patience < 0; }

    /// Calls `lead(i, next)` for every ray i that is not finished; `next(waiting)` tells what waits
    /// for it, from the nearest on, and false at the end.
    template <class Lead> [[gnu::always_inline]] void leadRest(Lead const& lead) {
        for (std::uint32_t left = all & ~finished; left != 0; left &= left - 1) {
            auto const i = static_cast<unsigned>(__builtin_ctz(left));
            int at = used;
            lead(i, [this, i, &at](WaitingSpan<Node>& next) {
                while (at > 0) {
                    Waiting const& entry = waiting[--at];
                    if (((entry.crossing | entry.passing) >> i & 1U) == 0)
                        continue;
                    next = {{entry.node, entry.tMin[i], entry.tMax[i]},
                            (entry.crossing >> i & 1U) != 0};
                    return true;
                }
                return false;
            });
        }
    }

    /// Goes on from an inner node whose plane the rays reach at `tSplit`: with those that are
    /// `crossing` it or meet its near side alone, or with all where all are `passing` that side;
    /// the other child waits for those that meet it later.
    [[gnu::always_inline]] void goOn(Part& part, Node const* children, std::uint32_t nearChild,
                                     std::uint32_t crossing, std::uint32_t passing,
                                     Doubles tSplit) {
        if ((crossing | passing) == 0) {
            part.node = children + nearChild;
        } else if (passing == part.lanes) {
            part.node = children + (1 - nearChild);
        } else {
            postpone(children + (1 - nearChild), crossing, passing, tSplit, part);
            part.tMax = Doubles::select(crossing, tSplit, part.tMax);
            part.lanes &= ~passing;
            part.node = children + nearChild;
        }
    }

    /// Lets a node wait for the rays that are `crossing` the plane between it and the part's, at
    /// `tSplit`, and for those that are `passing` the part's node and meet only this one.
    [[gnu::always_inline]] void postpone(Node const* node, std::uint32_t crossing,
                                         std::uint32_t passing, Doubles tSplit, Part const& part) {
        Waiting& entry = waiting[used++];
        entry.node = node;
        entry.crossing = crossing;
        entry.passing = passing;
        Doubles::storeIn(allLanes, entry.tMin, Doubles::select(crossing, tSplit, part.tMin));
        Doubles::storeIn(allLanes, entry.tMax, part.tMax);
    }

    /// Takes what waits nearest for a ray that is not finished; false when there is nothing.
    /// `isOver` tells the lanes to which what begins at some parameters is of no use; what waits
    /// deeper in the stack starts even later. Rays that passed by the other side had no choice, and
    /// are not asked.
    template <class IsOver> [[gnu::always_inline]] bool resume(Part& part, IsOver const& isOver) {
        do {
            if (used == 0 || finished == all)
                return false;
            Waiting const& entry = waiting[--used];
            part.tMin = Doubles::load(entry.tMin);
            finished |= entry.crossing & ~finished & isOver(part.tMin);
            part.lanes = (entry.crossing | entry.passing) & ~finished;
            part.crossing = entry.crossing;
            part.tMax = Doubles::load(entry.tMax);
            part.node = entry.node;
        } while (part.lanes == 0);
        return true;
    }

  private:
    static bool startTogether(RayLanes const& rays, std::uint32_t lanes) {
        int const first = __builtin_ctz(lanes);
        std::uint32_t same = lanes;
        for (int axis = 0; axis < 3; ++axis)
            same &= Lanes::isEqual(Lanes::load(rays.origin[axis]),
                                   Lanes::all(rays.origin[axis][first]));
        return same == lanes;
    }

    struct alignas(64) Waiting {
        double tMin[RayLanes::width];
        double tMax[RayLanes::width];
        Node const* node;
        std::uint32_t crossing;
        std::uint32_t passing;
    };

    std::uint32_t all = 0;      ///< lanes of the group
    std::uint32_t finished = 0; ///< those of them that need not go on
    int used = 0;
    static constexpr int mostPatience = 16;
    int patience = 0; ///< negative: the last group has been given up
    int enough = 0;   ///< rays on one way that are as fast together as alone
    Waiting waiting[usualInnerLevels];
};

/// Leads all rays of a run through a tree, group by group, and returns a bit for each that hits
/// something. `report(rays, hits, firstLane)` is told what those of some lanes have hit.
template <class Packet, class Tree, class Report>
[[gnu::always_inline]] inline std::uint64_t walkAll(Tree const& tree, Box const& box,
                                                    RayRun const& run, Report const& report) {
    std::uint64_t found = 0;
    RayLanes rays;
    LaneHits hits;
    Packet packet(tree, rays, hits);
    for (unsigned at = 0; at < run.count; at += RayLanes::width) {
        hits.lanes = 0;
        for (std::uint32_t left = packet.loadFrom(run, at); left != 0;) {
            LaneGroup const group = LaneGroup::takeFrom(left, rays, box);
            if (group.lanes != 0)
                packet.walk(group);
        }
        found |= std::uint64_t{hits.lanes} << at;
        if (hits.lanes != 0)
            report(rays, hits, run.first + at);
    }
    return found;
}

} // namespace

} // namespace Kelpa
