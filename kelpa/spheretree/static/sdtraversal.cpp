// Compiled once for each kind of processor, with `KELPA_VARIANT` as its name.

#include "kelpa/spheretree/static/sdtraversal.h"

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/spheretree/nearestsphere.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/static/sdleafpacks.h"
#include "kelpa/spheretree/static/sdspheretree.h"
#include "kelpa/spheretree/travellers.h"
#include "kelpa/spheretree/traversal.h"

#include <cstddef>
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
        ParticleDataWithPrimitive const& system = tree.particleSystems.elements[sphere.system()];
        Vector const& center = system.positions[sphere.particleIndex];
        float const radius = system.radii[sphere.particleIndex];
        bool const isOrigin = skipNumber(tree.singleSystem, sphere.particleIndex,
                                         system.indexOffset) == ray.skipIndex;
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

/// Whether a packed sphere is the one that the ray starts on.
bool isRayOrigin(Tree const& tree, SDLeafSphere const& entry, SDSphereRay const& ray) {
    SDSphere const& sphere = tree.spheres[entry.sphereIndex];
    return skipNumber(tree.singleSystem, tree.particleOf(sphere),
                      tree.particleSystems.elements[tree.systemOf(sphere)].indexOffset) ==
           ray.skipIndex;
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
class LeafVisitor {
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

    /// Completes the ray's hit record; true when there was a hit.
    bool finish() {
        if (sphere == nullptr)
            return found;
        ray.hit->sphere = sphere;
        ray.hit->normal = sphereNormal(ray, center, static_cast<float>(ray.hit->t));
        return true;
    }

  private:
    /// Finds what `intersectLeaf` finds.
    [[gnu::always_inline]] void visitPacked(Node const& leaf, LeafInterval const& interval) {
        std::int32_t const count = leaf.numLeafSpheres;
        SphereArrays const packed = openPack(tree.packedLeaves, LeafPack{leaf.packWord}, count);
        HitWindow window(interval.tMin, interval.tMax);
        __builtin_prefetch(leaf.leafSpheres()); // asked for if there is a hit
        std::int32_t const k = nearestSphere<TieOrder::last>(probe, packed, count, -1, window);
        if (k < 0)
            return;
        if (mayStartOnSphere && isRayOrigin(tree, leaf.leafSpheres()[k], ray))
            visitOrigin(leaf, packed, interval, k);
        else
            keep(leaf, packed, k, static_cast<double>(window.end));
    }

    /// As far as the ray meets no other sphere first, a sphere on which it starts is only left.
    [[gnu::noinline]] void visitOrigin(Node const& leaf, SphereArrays const& packed,
                                       LeafInterval const& interval, std::int32_t origin) {
        HitWindow window(interval.tMin, interval.tMax);
        std::int32_t const other =
            nearestSphere<TieOrder::last>(probe, packed, leaf.numLeafSpheres, origin, window);
        if (other >= 0 && tree.singleSystem != 1 &&
            isRayOrigin(tree, leaf.leafSpheres()[other], ray))
            return visitOrigins(leaf, packed, interval);
        auto const t = static_cast<double>(window.end);
        ray.tMin = interval.tMin;
        ray.tMax = interval.tMax;
        bool const isLeft = hitSphere(packed.center(origin), packed.radius(origin), ray, true) != 0;
        if (isLeft && (other < 0 || ray.tMax < t || (ray.tMax == t && origin > other)))
            keep(leaf, packed, origin, ray.tMax);
        else if (other >= 0)
            keep(leaf, packed, other, t);
    }

    /// One by one: particles of different systems may have the number on which the ray starts.
    [[gnu::noinline]] void visitOrigins(Node const& leaf, SphereArrays const& packed,
                                        LeafInterval const& interval) {
        ray.tMin = interval.tMin;
        ray.tMax = interval.tMax;
        for (std::int32_t k = leaf.numLeafSpheres; k-- > 0;)
            if (hitSphere(packed.center(k), packed.radius(k), ray,
                          isRayOrigin(tree, leaf.leafSpheres()[k], ray)) != 0)
                keep(leaf, packed, k, ray.tMax);
    }

    void keep(Node const& leaf, SphereArrays const& packed, std::int32_t k, double t) {
        ray.hit->t = t;
        center = packed.center(k);
        sphere = &tree.spheres[leaf.leafSpheres()[k].sphereIndex];
    }

    Tree const& tree;
    SDSphereRay& ray;
    SphereProbe probe;
    bool mayStartOnSphere;
    bool found = false;         ///< in a leaf that is not packed
    SDSphere* sphere = nullptr; ///< the nearest packed one
    Vector center;              ///< its centre
};

/// The node of a pair that lies `offset` bytes behind the first.
[[gnu::always_inline]] inline Node const* nodeAt(std::uint64_t link, std::uint64_t offset) {
    return reinterpret_cast<Node const*>((link & ~std::uint64_t{3}) + offset);
}

template <int Capacity> bool findClosestWith(Tree const& tree, SDSphereRay& ray) {
    constexpr std::uint64_t otherChild = sizeof(Node); // what tells the two offsets apart
    AxisRays const axes(ray);
    LeafVisitor leaves(tree, ray);
    PostponedChildren<Node>::Room<Capacity> room;
    PostponedChildren<Node> postponed(room);
    Node const* node = tree.root;
    CrossedInterval interval(ray.tMin, ray.tMax);
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
            } else if (interval.isCrossedAt(tSplit)) {
                postponed.push(nodeAt(link, nearChild ^ otherChild), tSplit, interval.tMax);
                interval.endAt(tSplit);
                node = nodeAt(link, nearChild);
            } else {
                node = nodeAt(link, tSplit < interval.tMin ? nearChild ^ otherChild : nearChild);
            }
            link = node->link;
        }
        leaves.visit(*node, LeafInterval::widened(ray, interval.tMin, interval.tMax));
        if (postponed.isEmpty())
            return leaves.finish();
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        if (!(next.tMin <= ray.hit->t))
            return leaves.finish();
        node = next.node;
        interval = CrossedInterval(next.tMin, next.tMax);
    }
}

/// One of several rays that are on their way at the same time.
class Traveller {
  public:
    Traveller(Tree const& tree, SDSphereRay& travellingRay)
        : ray(travellingRay), axes(ray), node(tree.root), tMin(ray.tMin), tMax(ray.tMax),
          leaves(tree, ray) {}

    /// Takes the steps of `findClosestWith` without a branch: the processor would guess it, and
    /// half of the time throw away what it has done for the other rays since.
    [[gnu::always_inline]] int step() {
        std::uint64_t const link = node->link;
        int const kind = linkKind(link);
        Node const* const children = linkTarget<Node>(link);
        auto const nearChild = static_cast<std::uint64_t>(axes.nearChild(kind));
        double const tSplit = axes.planeParameter(kind, node->splitPos);
        auto const fromStart = static_cast<float>(tSplit - tMin);
        auto const fromEnd = static_cast<float>(tSplit - tMax);
        std::uint64_t const isInner = flag(kind != Node::leafKind);
        std::uint64_t const isOneSided = flag(fromStart * fromEnd > 0.0F);
        std::uint64_t const isBehind = isOneSided & flag(tSplit < tMin);
        std::uint64_t const isCut = isInner & ~isOneSided;
        postponed.pushIf(isCut, childAt(children, 1 - nearChild), tSplit, tMax);
        tMax = select(isCut, tSplit, tMax);
        Node const* const next = childAt(children, nearChild ^ isBehind);
        node = reinterpret_cast<Node const*>(select(isInner, reinterpret_cast<std::uintptr_t>(next),
                                                    reinterpret_cast<std::uintptr_t>(node)));
        __builtin_prefetch(node);
        return static_cast<int>(isInner);
    }

    void prefetchLeaf() const { leaves.prefetch(*node); }

    [[gnu::always_inline]] bool visitLeaf() {
        leaves.visit(*node, LeafInterval::widened(ray, tMin, tMax));
        if (postponed.isEmpty())
            return false;
        auto const& next = postponed.pop();
        if (!(next.tMin <= ray.hit->t))
            return false;
        node = next.node;
        tMin = next.tMin;
        tMax = next.tMax;
        return true;
    }

    bool finish() { return leaves.finish(); }

  private:
    SDSphereRay& ray;
    AxisRays axes;
    Node const* node;
    double tMin;
    double tMax;
    LeafVisitor leaves;
    PostponedChildren<Node>::Room<usualInnerLevels> room;
    PostponedChildren<Node> postponed{room};
};

} // namespace

void findClosestOfMany(SDTree const& tree, std::span<SDSphereRay*> rays, bool* found) {
    if (tree.innerLevels > usualInnerLevels || areTogether(rays)) {
        for (std::size_t i = 0; i < rays.size(); ++i)
            found[i] = findClosest(tree, *rays[i]);
        return;
    }
    searchTogether<Traveller>(tree, rays, found);
}

bool findClosest(SDTree const& tree, SDSphereRay& ray) {
    return tree.innerLevels <= usualInnerLevels ? findClosestWith<usualInnerLevels>(tree, ray)
                                                : findClosestWith<levelLimit>(tree, ray);
}

} // namespace Kelpa::KELPA_VARIANT
