// Internal: how one ray meets the leaves of a static tree and walks from node to node; part of the
// sources that are compiled once for each kind of processor, with `KELPA_VARIANT` as its name.
#pragma once

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/spheretree/nearestsphere.h"
#include "kelpa/spheretree/static/sdleafpacks.h"
#include "kelpa/spheretree/static/sdtraversal.h"
#include "kelpa/spheretree/traversal.h"

#include <cstdint>

namespace Kelpa::KELPA_VARIANT {

namespace {

using Tree = SDTree;
using Node = Tree::Node;

/// Offers a leaf's particles to the ray, last to first; true when one of them was hit.
///
/// Each hit lowers the ray's end, so later ones can only be nearer; of equally near ones the first
/// that is asked stays.
bool intersectLeaf(Tree const& tree, Node const& leaf, SDSphereRay& ray) {
    SDLeafSphere const* const entries = leaf.leafSpheres();
    bool found = false;
    for (std::int32_t k = leaf.numLeafSpheres; k-- > 0;) {
        SDSphere& sphere = tree.spheres[entries[k].sphereIndex];
        ParticleDataWithPrimitive const& system =
            tree.particleSystems.elements[tree.systemOf(sphere)];
        std::int32_t const particle = tree.particleOf(sphere);
        Vector const& center = system.positions[particle];
        float const radius = system.radii[particle];
        bool const isOrigin =
            skipNumber(tree.singleSystem, particle, system.indexOffset) == ray.skipIndex;
        switch (static_cast<ParticleType>(system.particles->particleType)) {
        case ParticleType::sphere:
            if (hitSphere(center, radius, ray, isOrigin) == 0)
                continue;
            ray.hit->normal = sphereNormal(ray, center, static_cast<float>(ray.tMax));
            break;
        case ParticleType::point:
            if (isOrigin || hitPoint(center, radius, ray) == 0)
                continue;
            ray.hit->normal = {-ray.dir.x, -ray.dir.y, -ray.dir.z};
            break;
        default:
            continue;
        }
        ray.hit->t = ray.tMax;
        ray.hit->sphere = &sphere;
        found = true;
    }
    return found;
}

/// The number under which a packed sphere is compared with a ray's skip index.
[[gnu::always_inline]] inline std::int32_t skipNumberOf(Tree const& tree,
                                                        SDLeafSphere const& entry) {
    SDSphere const& sphere = tree.spheres[entry.sphereIndex];
    return skipNumber(tree.singleSystem, tree.particleOf(sphere),
                      tree.particleSystems.elements[tree.systemOf(sphere)].indexOffset);
}

/// The ray parameters at which a leaf's spheres count.
struct LeafInterval {
    double tMin;
    double tMax;

    /// Widens a node's interval by what rounding may have taken from it on the way, but neither
    /// before the ray's own start nor beyond the best hit, which also takes the place of an end
    /// that is not a number: up to such an end, hits would hang on the order of the spheres.
    static LeafInterval widened(SDSphereRay const& ray, double tMin, double tMax) {
        double const from = 0.99999 * tMin - 1e-5;
        double const to = 1.00001 * tMax + 1e-5;
        return {from < ray.tMinStart ? ray.tMinStart : from, to < ray.hit->t ? to : ray.hit->t};
    }
};

/// Offers the ray to the leaves of a tree, packed or not.
template <Goal goal> class LeafVisitor {
  public:
    LeafVisitor(Tree const& searchedTree, SDSphereRay& visitingRay)
        : tree(searchedTree), ray(visitingRay), probe(visitingRay),
          // Alone in its tree, a system's particles are numbered from 0.
          mayStartOnSphere(tree.singleSystem != 1 || ray.skipIndex >= 0) {}

    [[gnu::always_inline]] void visit(Node const& leaf, LeafInterval const& interval) {
        if (leaf.packWord != LeafPack::none) {
            visitPacked(leaf, interval);
            return;
        }
        ray.tMin = interval.tMin;
        ray.tMax = interval.tMax;
        if (intersectLeaf(tree, leaf, ray))
            found = true;
    }

    void prefetch(Node const& leaf) const {
        // By number: without packs there is nothing to point to. Fetching that is no error.
        auto const pack = reinterpret_cast<std::uintptr_t>(tree.packedLeaves +
                                                           LeafPack{leaf.packWord}.position());
        int const bytes = 12 * leaf.numLeafSpheres < 512 ? 12 * leaf.numLeafSpheres : 512;
        for (int at = 0; at < bytes; at += 64)
            __builtin_prefetch(reinterpret_cast<void const*>(pack + static_cast<unsigned>(at)));
    }

    bool hasFound() const { return found; }

    /// Completes the ray's hit record; true when there was a hit.
    bool finish() {
        if (sphere != nullptr) {
            ray.hit->sphere = sphere;
            ray.hit->normal = sphereNormal(ray, center, static_cast<float>(ray.hit->t));
        }
        return found;
    }

    /// The nearest packed sphere that was hit, or null, and its centre.
    SDSphere const* nearestSphere() const { return sphere; }
    Vector const& nearestCenter() const { return center; }

  private:
    /// Finds what `intersectLeaf` finds.
    [[gnu::always_inline]] void visitPacked(Node const& leaf, LeafInterval const& interval) {
        std::int32_t const count = leaf.numLeafSpheres;
        SphereArrays const packed = openPack(tree.packedLeaves, LeafPack{leaf.packWord}, count);
        __builtin_prefetch(leaf.leafSpheres()); // asked for if there is a hit
        LeafHit const hit = nearestInLeaf<TieOrder::last, UsualGroups::two>(
            probe, packed, count, interval.tMin, interval.tMax, [&](std::int32_t k) {
                return mayStartOnSphere &&
                       skipNumberOf(tree, leaf.leafSpheres()[k]) == ray.skipIndex;
            });
        if (hit.k < 0)
            return;
        found = true;
        if constexpr (goal == Goal::any)
            return;
        ray.hit->t = hit.t;
        center = packed.center(hit.k);
        sphere = &tree.spheres[leaf.leafSpheres()[hit.k].sphereIndex];
    }

    Tree const& tree;
    SDSphereRay& ray;
    SphereProbe probe;
    bool mayStartOnSphere;
    bool found = false;
    SDSphere* sphere = nullptr; ///< see `nearestSphere`
    Vector center;
};

/// The node of a pair that lies `offset` bytes behind the first.
[[gnu::always_inline]] inline Node const* nodeAt(std::uint64_t link, std::uint64_t offset) {
    return reinterpret_cast<Node const*>((link & ~std::uint64_t{3}) + offset);
}

/// Visits the leaves of a subtree that the ray passes, front to back, until it is known what the
/// ray finds in the whole tree, which is returned, or all are visited.
template <Goal goal, int Capacity>
[[gnu::always_inline]] inline bool visitLeaves(SDSphereRay& ray, LeafVisitor<goal>& leaves,
                                               Span<Node> const& from) {
    constexpr std::uint64_t otherChild = sizeof(Node); // what tells the two offsets apart
    AxisRays const axes(ray);
    PostponedChildren<Node>::Room<Capacity> room;
    PostponedChildren<Node> postponed(room);
    Node const* node = from.node;
    CrossedInterval interval(from.tMin, from.tMax);
    for (;;) {
        std::uint64_t link = node->link;
        while (linkKind(link) != Node::leafKind) {
            std::uint64_t const nearChild = axes.nearOffset(link);
            double const tSplit = axes.planeParameter(linkKind(link), node->splitPos);
            if (interval.isBehind(tSplit)) { // all of it lies behind the plane ...
                node = nodeAt(link, nearChild ^ otherChild);
                keepAsBranch();
            } else if (interval.isBefore(tSplit)) { // ... or before it
                node = nodeAt(link, nearChild);
                keepAsBranch();
            } else if (crossesPlane(tSplit, interval.tMin, interval.tMax)) {
                postponed.push(nodeAt(link, nearChild ^ otherChild), tSplit, interval.tMax);
                interval.endAt(tSplit);
                node = nodeAt(link, nearChild);
            } else {
                node = nodeAt(link, tSplit < interval.tMin ? nearChild ^ otherChild : nearChild);
            }
            link = node->link;
        }
        leaves.visit(*node, LeafInterval::widened(ray, interval.tMin, interval.tMax));
        if (goal == Goal::any && leaves.hasFound())
            return true;
        if (postponed.isEmpty())
            return false;
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        if (!(next.tMin <= ray.hit->t))
            return true;
        node = next.node;
        interval = CrossedInterval(next.tMin, next.tMax);
    }
}

} // namespace

} // namespace Kelpa::KELPA_VARIANT
