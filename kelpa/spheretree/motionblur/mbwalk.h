// Internal: how one ray meets the leaves of a moving tree and walks from node to node; part of the
// sources that are compiled once for each kind of processor, with `KELPA_VARIANT` as its name.
#pragma once

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/spheretree/motionblur/mbtraversal.h"
#include "kelpa/spheretree/nearestsphere.h"
#include "kelpa/spheretree/quad.h"
#include "kelpa/spheretree/traversal.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace Kelpa::KELPA_VARIANT {

namespace {

using Tree = MBTree;

/// A particle at one instant.
struct PlacedSphere {
    Vector center;
    float radius;
};

/// How far between its snapshots a system is at a time. One whose snapshots were taken at one time
/// stands where the first has it.
float fractionAt(MovingParticleDataWithPrimitive const& system, float time) {
    return system.time1 == system.time0 ? 0.0F
                                        : (time - system.time0) / (system.time1 - system.time0);
}

PlacedSphere placeAt(MovingParticleDataWithPrimitive const& system, std::uint32_t i, float time) {
    float const f = fractionAt(system, time);
    Vector const& p0 = system.positions0[i];
    Vector const& p1 = system.positions1[i];
    return {{p0.x + (p1.x - p0.x) * f, p0.y + (p1.y - p0.y) * f, p0.z + (p1.z - p0.z) * f},
            system.radii0[i] + (system.radii1[i] - system.radii0[i]) * f};
}

bool isCovered(MovingParticleDataWithPrimitive const& system, float time) {
    return !((time - system.time1) * (time - system.time0) > 0.0F);
}

/// Offers a leaf's particles to the ray, first to last; true when one of them was hit.
///
/// Each hit lowers the ray's end, so later ones can only be nearer; of equally near ones the first
/// that is asked stays.
bool intersectLeaf(Tree const& tree, MBLeafSphere const* entries, std::int32_t count,
                   MBSphereRay& ray) {
    bool found = false;
    for (std::int32_t k = 0; k < count; ++k) {
        MBSphere& sphere = tree.spheres[entries[k].sphereIndex];
        auto const& system = tree.particleSystems.elements[tree.systemOf(sphere)];
        std::uint32_t const particle = tree.particleOf(sphere);
        if (!isCovered(system, ray.rayTime))
            continue;
        bool const isOrigin = skipNumber(tree.singleSystem, static_cast<std::int32_t>(particle),
                                         system.indexOffset) == ray.skipIndex;
        PlacedSphere const placed = placeAt(system, particle, ray.rayTime);
        switch (static_cast<ParticleType>(system.particles0->particleType)) {
        case ParticleType::sphere:
            if (hitSphere(placed.center, placed.radius, ray, isOrigin) == 0)
                continue;
            ray.hitRecord->hitVector =
                sphereNormal(ray, placed.center, static_cast<float>(ray.tMax));
            break;
        case ParticleType::point:
            if (isOrigin || hitPoint(placed.center, placed.radius, ray) == 0)
                continue;
            ray.hitRecord->hitVector = {-ray.dir.x, -ray.dir.y, -ray.dir.z};
            break;
        default:
            continue;
        }
        ray.hitRecord->hitT = ray.tMax;
        ray.hitRecord->hitSphere = &sphere;
        found = true;
    }
    return found;
}

inline constexpr std::int32_t placedAtATime = 16;

/// Spheres of a leaf at one instant.
struct PlacedSpheres {
    alignas(64) float x[placedAtATime];
    alignas(64) float y[placedAtATime];
    alignas(64) float z[placedAtATime];
    alignas(64) float radii[placedAtATime];

    SphereArrays arrays() const { return {radii, 1, x, y, z}; }
};

#if defined(__AVX2__)

/// The spheres with every fourth of some indices, in quads of x, y, z and radius.
[[gnu::always_inline]] inline Lanes::Floats
placeQuads(float const* packed, std::uint32_t const* indices, Lanes::Floats f) {
    auto const states = [packed, indices](int i) {
        return packed + 8 * static_cast<std::size_t>(indices[i]);
    };
    Lanes::Floats const atFirst = Lanes::quads(states);
    Lanes::Floats const atSecond = Lanes::quads([&states](int i) { return states(i) + 4; });
    return atFirst + (atSecond - atFirst) * f; // the steps of `placeAt`
}

/// Places `count` (1 to 16) of a leaf's spheres. In the places behind them, up to the end of a
/// vector, is the first of it once more.
///
/// Whole vectors are written, since whole ones will be read: a processor waits long to read at once
/// what it has just written in parts.
[[gnu::always_inline]] inline void placeSpheres(float const* packed, MBLeafSphere const* entries,
                                                std::int32_t count, float f,
                                                PlacedSpheres& placed) {
    Lanes::Floats const fraction = Lanes::all(f);
    for (std::int32_t first = 0; first < count; first += Lanes::count) {
        std::uint32_t indices[Lanes::count];
        std::int32_t const left = count - first;
        Lanes::fill(indices, left < Lanes::count ? allLanes >> (Lanes::count - left) : allLanes,
                    &entries[first].sphereIndex);
        Lanes::Floats x = placeQuads(packed, indices, fraction);
        Lanes::Floats y = placeQuads(packed, indices + 1, fraction);
        Lanes::Floats z = placeQuads(packed, indices + 2, fraction);
        Lanes::Floats radii = placeQuads(packed, indices + 3, fraction);
        Lanes::transposeQuads(x, y, z, radii);
        Lanes::storeIn(allLanes, placed.x + first, x);
        Lanes::storeIn(allLanes, placed.y + first, y);
        Lanes::storeIn(allLanes, placed.z + first, z);
        Lanes::storeIn(allLanes, placed.radii + first, radii);
    }
}

#else

/// Places `count` (1 to 16) of a leaf's spheres; the unused places become zero.
void placeSpheres(float const* packed, MBLeafSphere const* entries, std::int32_t count, float f,
                  PlacedSpheres& placed) {
    for (std::int32_t first = 0; first < placedAtATime; first += 4) {
        Quad now[4] = {};
        for (std::int32_t k = first; k < (first + 4 < count ? first + 4 : count); ++k) {
            // x, y, z and radius in both snapshots; each takes the same steps as `placeAt`'s.
            float const* const states =
                packed + 8 * static_cast<std::size_t>(entries[k].sphereIndex);
            Quad const atFirst = loadQuad(states);
            now[k - first] = atFirst + (loadQuad(states + 4) - atFirst) * f;
        }
        transpose(now);
        storeQuad(placed.x + first, now[0]);
        storeQuad(placed.y + first, now[1]);
        storeQuad(placed.z + first, now[2]);
        storeQuad(placed.radii + first, now[3]);
    }
}

#endif

/// The number under which a packed sphere is compared with a ray's skip index.
[[gnu::always_inline]] inline std::int32_t skipNumberOf(Tree const& tree,
                                                        MBLeafSphere const& entry) {
    MBSphere const& sphere = tree.spheres[entry.sphereIndex];
    return skipNumber(tree.singleSystem, static_cast<std::int32_t>(tree.particleOf(sphere)),
                      tree.particleSystems.elements[tree.systemOf(sphere)].indexOffset);
}

/// Offers the ray to the leaves of a tree, packed or not.
template <Goal goal> class LeafVisitor {
  public:
    LeafVisitor(Tree const& searchedTree, MBSphereRay& visitingRay)
        : tree(searchedTree), ray(visitingRay), probe(visitingRay),
          // Packed systems share their times.
          f(fractionAt(tree.particleSystems.elements[0], ray.rayTime)),
          // Up to an end that is not a number, hits hang on the order of the spheres: one by one.
          isPacked(tree.packedSpheres != nullptr && !std::isnan(ray.tMax) &&
                   isCovered(tree.particleSystems.elements[0], ray.rayTime)),
          // Alone in its tree, a system's particles are numbered from 0.
          mayStartOnSphere(tree.singleSystem != 1 || ray.skipIndex >= 0) {}

    template <class Node>
    [[gnu::always_inline]] void visit(Node const& leaf, double tMin, double tMax) {
        if (isPacked) {
            visitPacked(leaf.leafSpheres(), leaf.numLeafSpheres(), tMin, tMax);
            return;
        }
        ray.tMin = tMin;
        ray.tMax = tMax;
        if (intersectLeaf(tree, leaf.leafSpheres(), leaf.numLeafSpheres(), ray))
            found = true;
    }

    template <class Node> void prefetch(Node const& leaf) const {
        MBLeafSphere const* const entries = leaf.leafSpheres();
        if (!isPacked)
            return;
        for (std::int32_t k = 0; k < leaf.numLeafSpheres() && k < 32; ++k)
            __builtin_prefetch(stateOf(entries[k]));
    }

    bool hasFound() const { return found; }

    /// Completes the ray's hit record; true when there was a hit.
    bool finish() {
        if (sphere != nullptr) {
            ray.hitRecord->hitSphere = sphere;
            ray.hitRecord->hitVector =
                sphereNormal(ray, center, static_cast<float>(ray.hitRecord->hitT));
        }
        return found;
    }

    /// The nearest packed sphere that was hit, or null, and its centre.
    MBSphere const* nearestSphere() const { return sphere; }
    Vector const& nearestCenter() const { return center; }

  private:
    float const* stateOf(MBLeafSphere const& entry) const {
        return tree.packedSpheres + 8 * static_cast<std::size_t>(entry.sphereIndex);
    }

    /// Finds what `intersectLeaf` finds.
    [[gnu::always_inline]] void visitPacked(MBLeafSphere const* entries, std::int32_t count,
                                            double tMin, double tMax) {
        for (std::int32_t first = 0; first < count; first += placedAtATime) {
            std::int32_t const n = count - first < placedAtATime ? count - first : placedAtATime;
            PlacedSpheres placed;
            placeSpheres(tree.packedSpheres, entries + first, n, f, placed);
            LeafHit const hit = nearestInLeaf<TieOrder::first, UsualGroups::one>(
                probe, placed.arrays(), n, tMin, tMax, [&](std::int32_t k) {
                    return mayStartOnSphere &&
                           skipNumberOf(tree, entries[first + k]) == ray.skipIndex;
                });
            if (hit.k < 0)
                continue;
            found = true;
            if constexpr (goal == Goal::any)
                return;
            tMax = hit.t;
            ray.hitRecord->hitT = hit.t;
            center = placed.arrays().center(hit.k);
            sphere = &tree.spheres[entries[first + hit.k].sphereIndex];
        }
    }

    Tree const& tree;
    MBSphereRay& ray;
    SphereProbe probe;
    float f; ///< how far the packed spheres are on their way
    bool isPacked;
    bool mayStartOnSphere;
    bool found = false;
    MBSphere* sphere = nullptr; ///< see `nearestSphere`
    Vector center;
};

/// Where a tree's nodes of a kind begin.
template <class Node> Node const* rootOf(Tree const& tree);
template <> inline MBSphereNode const* rootOf<MBSphereNode>(Tree const& tree) {
    return tree.root;
}
template <> inline MBWalkNode const* rootOf<MBWalkNode>(Tree const& tree) {
    return tree.walkNodes;
}

/// How fast a node's frame moves along the axis that the node splits.
[[gnu::always_inline]] inline float velocityAlong(MBSphereNode const& node, int axis) {
    return floatAt(&node.velocity, axis);
}
[[gnu::always_inline]] inline float velocityAlong(MBWalkNode const& node, int) {
    return node.velocity;
}

/// The ray parameter at which a ray meets a node's plane.
///
/// A node stands still in its own frame. There the ray's origin is where the world's would have
/// been at time 0; only its coordinate along the split axis is needed.
template <class Node>
[[gnu::always_inline]] inline double planeParameterOf(Node const& node, int axis,
                                                      AxisRays const& axes, double time) {
    double const velocity = static_cast<double>(velocityAlong(node, axis));
    return axes.planeParameter(axis, node.splitPos, velocity * time);
}

/// Whether both sides of a plane at `tSplit` are to be visited: it lies inside the interval, or the
/// product of its distances from the ends is not a number.
[[gnu::always_inline]] inline bool crossesMovingPlane(double tSplit, double tMin, double tMax) {
    return (tMin < tSplit && tSplit < tMax) || !((tSplit - tMin) * (tSplit - tMax) > 0.0);
}

/// Where in the pair of children of an inner node, in bytes, the one lies that a ray meets first.
template <class Node>
[[gnu::always_inline]] inline std::uint64_t nearOffset(AxisRays const& axes, std::uint64_t link) {
    if constexpr (sizeof(Node) == 16)
        return axes.nearOffset(link);
    else
        return axes.nearChildBy(link) * sizeof(Node);
}

/// The node of such a pair that lies `offset` bytes behind the first.
template <class Node>
[[gnu::always_inline]] inline Node const* nodeAt(std::uint64_t link, std::uint64_t offset) {
    return reinterpret_cast<Node const*>((link & ~std::uint64_t{3}) + offset);
}

/// Visits the leaves of a subtree that the ray passes at its time, front to back, until it is known
/// what the ray finds in the whole tree, which is returned, or all are visited.
template <Goal goal, int Capacity, class Node>
[[gnu::always_inline]] inline bool visitLeaves(MBSphereRay& ray, LeafVisitor<goal>& leaves,
                                               Span<Node> const& from) {
    constexpr std::uint64_t otherChild = sizeof(Node); // what tells the two offsets apart
    AxisRays const axes(ray);
    double const time = static_cast<double>(ray.rayTime);
    typename PostponedChildren<Node>::template Room<Capacity> room;
    PostponedChildren<Node> postponed(room);
    Node const* node = from.node;
    CrossedInterval interval(from.tMin, from.tMax);
    for (;;) {
        while (!node->isLeaf()) {
            std::uint64_t const link = node->link;
            int const kind = linkKind(link);
            if (kind == MBSphereNode::timeKind) {
                node = nodeAt<Node>(link, ray.rayTime > node->splitPos ? otherChild : 0);
                continue;
            }
            std::uint64_t const nearChild = nearOffset<Node>(axes, link);
            double const tSplit = planeParameterOf(*node, kind, axes, time);
            if (interval.isBehind(tSplit)) { // all of it lies behind the plane ...
                node = nodeAt<Node>(link, nearChild ^ otherChild);
                keepAsBranch();
            } else if (interval.isBefore(tSplit)) { // ... or before it
                node = nodeAt<Node>(link, nearChild);
                keepAsBranch();
            } else if (crossesMovingPlane(tSplit, interval.tMin, interval.tMax)) {
                auto const* const farChild = nodeAt<Node>(link, nearChild ^ otherChild);
                __builtin_prefetch(linkTarget<void>(farChild->link)); // is on its way meanwhile
                postponed.push(farChild, tSplit, interval.tMax);
                interval.endAt(tSplit);
                node = nodeAt<Node>(link, nearChild);
            } else {
                node =
                    nodeAt<Node>(link, tSplit < interval.tMin ? nearChild ^ otherChild : nearChild);
            }
        }
        leaves.visit(*node, interval.tMin, interval.tMax);
        if (goal == Goal::any && leaves.hasFound())
            return true;
        if (postponed.isEmpty())
            return false;
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        double const nearest = ray.hitRecord->hitT;
        if (next.tMin > nearest)
            return true;
        node = next.node;
        interval = CrossedInterval(next.tMin, next.tMax < nearest ? next.tMax : nearest);
    }
}

} // namespace

} // namespace Kelpa::KELPA_VARIANT
