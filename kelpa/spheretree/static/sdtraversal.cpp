#include "kelpa/foundation/hitkernels.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/static/sdleafpacks.h"
#include "kelpa/spheretree/static/sdspheretree.h"
#include "kelpa/spheretree/traversal.h"

#include <algorithm>
#include <bit>

namespace Kelpa {

namespace {

/// Offers a leaf's particles to the ray, last to first; true when one of them was hit.
///
/// Each hit lowers the ray's end, so later ones can only be nearer; of equally near ones the first
/// that is asked stays.
template <class Tree>
bool intersectLeaf(Tree const& tree, typename Tree::Node const& leaf, SDSphereRay& ray) {
    SDLeafSphere const* const entries = leaf.leafSpheres();
    bool found = false;
    for (std::int32_t k = leaf.numLeafSpheres; k-- > 0;) {
        SDSphere& sphere = tree.spheres[entries[k].sphereIndex];
        ParticleDataWithPrimitive const& system = tree.particleSystems.elements[sphere.systemIndex];
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

/// The closest hit among packed spheres so far; what it is on is looked up once, at the end.
struct PackedHit {
    SDLeafSphere const* entry = nullptr;
    Vector center;
};

/// Whether a packed sphere is the one that the ray starts on.
template <class Tree>
bool isRayOrigin(Tree const& tree, SDLeafSphere const& entry, SDSphereRay const& ray) {
    SDSphere const& sphere = tree.spheres[entry.sphereIndex];
    return skipNumber(tree.singleSystem, sphere.particleIndex,
                      tree.particleSystems.elements[sphere.systemIndex].indexOffset) ==
           ray.skipIndex;
}

/// Offers a packed leaf's spheres to the ray, last to first.
///
/// Finds what `intersectLeaf` finds: the filter rules out only what `hitSphere` misses, and the
/// rest is asked in the same order. `mayStartOnSphere`: the ray's skip index may name one.
template <class Tree>
void intersectPackedLeaf(Tree const& tree, typename Tree::Node const& leaf, SphereFilter filter,
                         RayFilter& rayFilter, bool mayStartOnSphere, SDSphereRay& ray,
                         PackedHit& closest) {
    std::int32_t const count = leaf.numLeafSpheres;
    SphereArrays const packed = openPack(tree.packedLeaves, LeafPack{leaf.packWord}, count);
    rayFilter.setInterval(ray);
    for (std::int32_t first = (count - 1) / packWidth * packWidth; first >= 0; first -= packWidth) {
        std::uint32_t possible =
            filter(rayFilter, packed, first, std::min(count - first, packWidth));
        while (possible != 0) {
            auto const highest = static_cast<std::int32_t>(std::bit_width(possible) - 1);
            possible ^= 1U << highest;
            std::int32_t const k = first + highest;
            Vector const center = packed.center(k);
            double const tMax = ray.tMax;
            if (hitSphere(center, packed.radius(k), ray, false) == 0)
                continue; // and starting on it would be a miss, too
            SDLeafSphere const& entry = leaf.leafSpheres()[k];
            if (mayStartOnSphere && isRayOrigin(tree, entry, ray)) {
                ray.tMax = tMax;
                if (hitSphere(center, packed.radius(k), ray, true) == 0)
                    continue;
            }
            closest = {&entry, center};
            ray.hit->t = ray.tMax;
            rayFilter.setInterval(ray);
        }
    }
}

/// Widens the interval in a leaf by what rounding may have taken from it on the way, but neither
/// before the ray's own start nor beyond the best hit.
void setWidenedInterval(SDSphereRay& ray, double tMin, double tMax) {
    ray.tMin = std::max(0.99999 * tMin - 1e-5, ray.tMinStart);
    ray.tMax = std::min(1.00001 * tMax + 1e-5, ray.hit->t);
}

/// Offers the ray to the leaves of a tree, packed or not.
template <class Tree> class LeafVisitor {
  public:
    LeafVisitor(Tree const& searchedTree, SDSphereRay& visitingRay)
        : tree(searchedTree), ray(visitingRay), filter(chosenSphereFilter()),
          rayFilter(visitingRay),
          // Alone in its tree, a system's particles are numbered from 0.
          mayStartOnSphere(tree.singleSystem != 1 || ray.skipIndex >= 0) {}

    void visit(typename Tree::Node const& leaf) {
        if (leaf.packWord != LeafPack::none)
            intersectPackedLeaf(tree, leaf, filter, rayFilter, mayStartOnSphere, ray, closest);
        else if (intersectLeaf(tree, leaf, ray))
            found = true;
    }

    /// Completes the ray's hit record; true when there was a hit.
    bool finish() {
        if (closest.entry == nullptr)
            return found;
        ray.hit->sphere = &tree.spheres[closest.entry->sphereIndex];
        ray.hit->normal = sphereNormal(ray, closest.center, static_cast<float>(ray.hit->t));
        return true;
    }

  private:
    Tree const& tree;
    SDSphereRay& ray;
    SphereFilter filter;
    RayFilter rayFilter;
    bool mayStartOnSphere;
    PackedHit closest;
    bool found = false;
};

/// Visits the leaves that the ray passes, front to back, until none can hold a nearer hit.
template <int Capacity, class Tree> bool findClosest(Tree const& tree, SDSphereRay& ray) {
    using Node = typename Tree::Node;
    AxisRays const axes(ray);
    LeafVisitor<Tree> leaves(tree, ray);
    PostponedChildren<Node, Capacity> postponed;
    Node const* node = tree.root;
    double tMin = ray.tMin;
    double tMax = ray.tMax;
    for (;;) {
        while (!node->isLeaf()) {
            int const axis = node->kind();
            int const nearChild = axes.nearChild(axis);
            Node const* const children = node->children();
            double const tSplit = axes.planeParameter(axis, node->splitPos);
            double const fromStart = tSplit - tMin;
            double const fromEnd = tSplit - tMax;
            if (!(static_cast<float>(fromStart) * static_cast<float>(fromEnd) > 0.0F)) {
                // The plane crosses the interval, or the product is not a number: both are visited.
                postponed.push(children + (1 - nearChild), tSplit, tMax);
                tMax = tSplit;
                node = children + nearChild;
            } else if (fromStart < 0.0) {
                node = children + (1 - nearChild); // all of it lies behind the plane ...
                keepAsBranch();
            } else {
                node = children + nearChild; // ... or before it
            }
        }
        setWidenedInterval(ray, tMin, tMax);
        leaves.visit(*node);
        if (postponed.isEmpty())
            return leaves.finish();
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        if (!(next.tMin <= ray.hit->t))
            return leaves.finish();
        node = next.node;
        tMin = next.tMin;
        tMax = next.tMax;
    }
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int SDSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(SDSphereRay& ray) const {
    if (!clipToBox(ray, bbox))
        return 0;
    bool const found = innerLevels <= usualInnerLevels ? findClosest<usualInnerLevels>(*this, ray)
                                                       : findClosest<levelLimit>(*this, ray);
    if (!found)
        return 0;
    auto const& system = particleSystems.elements[ray.hit->sphere->systemIndex];
    return hitCode(system.particles->particleType);
}

template int SDSphereTree<SDSphere, 20000, 20000>::intersectNode(SDSphereRay&) const;

} // namespace Kelpa
