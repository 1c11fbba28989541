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

/// Offers a packed leaf's spheres to the ray, last to first; true when one of them was hit.
///
/// Finds what `intersectLeaf` finds: the filter rules out only what `hitSphere` misses, and the
/// rest is asked in the same order.
template <class Tree>
bool intersectPackedLeaf(Tree const& tree, typename Tree::Node const& leaf, SphereFilter filter,
                         RayFilter& rayFilter, SDSphereRay& ray) {
    std::int32_t const count = leaf.numLeafSpheres;
    SphereArrays const packed = openPack(tree.packedLeaves, LeafPack{leaf.packWord}, count);
    rayFilter.setInterval(ray);
    bool found = false;
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
            SDSphere& sphere = tree.spheres[leaf.leafSpheres()[k].sphereIndex];
            auto const& system = tree.particleSystems.elements[sphere.systemIndex];
            if (skipNumber(tree.singleSystem, sphere.particleIndex, system.indexOffset) ==
                ray.skipIndex) {
                ray.tMax = tMax;
                if (hitSphere(center, packed.radius(k), ray, true) == 0)
                    continue;
            }
            ray.hit->normal = sphereNormal(ray, center, static_cast<float>(ray.tMax));
            ray.hit->t = ray.tMax;
            ray.hit->sphere = &sphere;
            rayFilter.setInterval(ray);
            found = true;
        }
    }
    return found;
}

/// Widens the interval in a leaf by what rounding may have taken from it on the way, but neither
/// before the ray's own start nor beyond the best hit.
void widenInterval(SDSphereRay& ray) {
    ray.tMin = std::max(0.99999 * ray.tMin - 1e-5, ray.tMinStart);
    ray.tMax = std::min(1.00001 * ray.tMax + 1e-5, ray.hit->t);
}

/// Visits the leaves that the ray passes, front to back, until none can hold a nearer hit.
template <int Capacity, class Tree> bool findClosest(Tree const& tree, SDSphereRay& ray) {
    using Node = typename Tree::Node;
    PostponedChildren<Node, Capacity> postponed;
    Node const* node = tree.root;
    SphereFilter const filter = chosenSphereFilter();
    RayFilter rayFilter(ray);
    bool found = false;
    for (;;) {
        while (!node->isLeaf()) {
            int const axis = node->kind();
            int const nearChild = ray.dirSign[axis];
            Node const* const children = node->children();
            double const tSplit = planeParameter(ray, axis, node->splitPos);
            double const fromStart = tSplit - ray.tMin;
            double const fromEnd = tSplit - ray.tMax;
            if (static_cast<float>(fromStart) * static_cast<float>(fromEnd) > 0.0F) {
                // The plane lies before or behind the interval: one side holds all of it.
                node = children + ((fromStart < 0.0 ? 1 : 0) ^ nearChild);
            } else {
                // Also where the product is not a number: then both sides are visited.
                postponed.push(children + (1 - nearChild), tSplit, ray.tMax);
                ray.tMax = tSplit;
                node = children + nearChild;
            }
        }
        widenInterval(ray);
        if (node->packWord != LeafPack::none
                ? intersectPackedLeaf(tree, *node, filter, rayFilter, ray)
                : intersectLeaf(tree, *node, ray))
            found = true;
        if (postponed.isEmpty())
            return found;
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        if (!(next.tMin <= ray.hit->t))
            return found;
        node = next.node;
        ray.tMin = next.tMin;
        ray.tMax = next.tMax;
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
