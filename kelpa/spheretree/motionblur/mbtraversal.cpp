#include "kelpa/foundation/hitkernels.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/quad.h"
#include "kelpa/spheretree/spherefilter.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/traversal.h"

#include <algorithm>
#include <bit>

namespace Kelpa {

namespace {

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
template <class Tree>
bool intersectLeaf(Tree const& tree, MBSphereNode const& leaf, MBSphereRay& ray) {
    MBLeafSphere const* const entries = leaf.leafSpheres();
    std::int32_t const count = leaf.numLeafSpheres();
    bool found = false;
    for (std::int32_t k = 0; k < count; ++k) {
        MBSphere& sphere = tree.spheres[entries[k].sphereIndex];
        auto const& system = tree.particleSystems.elements[sphere.systemIndex];
        if (!isCovered(system, ray.rayTime))
            continue;
        bool const isOrigin =
            skipNumber(tree.singleSystem, static_cast<std::int32_t>(sphere.particleIndex),
                       system.indexOffset) == ray.skipIndex;
        PlacedSphere const placed = placeAt(system, sphere.particleIndex, ray.rayTime);
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

/// Spheres of a leaf at one instant.
struct PlacedSpheres {
    alignas(64) float x[packWidth];
    alignas(64) float y[packWidth];
    alignas(64) float z[packWidth];
    alignas(64) float radii[packWidth];

    SphereArrays arrays() const { return {radii, 1, x, y, z}; }
};

/// Places `count` (1 to 16) of a leaf's spheres; the unused places become zero.
void placeSpheres(float const* packed, MBLeafSphere const* entries, std::int32_t count, float f,
                  PlacedSpheres& placed) {
    for (std::int32_t first = 0; first < packWidth; first += 4) {
        Quad now[4] = {};
        for (std::int32_t k = first; k < std::min(first + 4, count); ++k) {
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

/// `intersectLeaf` for packed spheres: the filter rules out only what `hitSphere` misses, and the
/// rest is asked in the same order.
template <class Tree>
bool intersectPackedLeaf(Tree const& tree, MBSphereNode const& leaf, SphereFilter filter, float f,
                         RayFilter& rayFilter, MBSphereRay& ray) {
    MBLeafSphere const* const entries = leaf.leafSpheres();
    std::int32_t const count = leaf.numLeafSpheres();
    PlacedSpheres placed;
    rayFilter.setInterval(ray);
    bool found = false;
    for (std::int32_t first = 0; first < count; first += packWidth) {
        std::int32_t const n = std::min(count - first, packWidth);
        placeSpheres(tree.packedSpheres, entries + first, n, f, placed);
        std::uint32_t possible = filter(rayFilter, placed.arrays(), 0, n);
        for (; possible != 0; possible &= possible - 1) {
            auto const k = static_cast<std::int32_t>(std::countr_zero(possible));
            Vector const center = placed.arrays().center(k);
            double const tMax = ray.tMax;
            if (hitSphere(center, placed.radii[k], ray, false) == 0)
                continue; // and starting on it would be a miss, too
            MBSphere& sphere = tree.spheres[entries[first + k].sphereIndex];
            auto const& system = tree.particleSystems.elements[sphere.systemIndex];
            if (skipNumber(tree.singleSystem, static_cast<std::int32_t>(sphere.particleIndex),
                           system.indexOffset) == ray.skipIndex) {
                ray.tMax = tMax;
                if (hitSphere(center, placed.radii[k], ray, true) == 0)
                    continue;
            }
            ray.hitRecord->hitVector = sphereNormal(ray, center, static_cast<float>(ray.tMax));
            ray.hitRecord->hitT = ray.tMax;
            ray.hitRecord->hitSphere = &sphere;
            rayFilter.setInterval(ray);
            found = true;
        }
    }
    return found;
}

/// Visits the leaves that the ray passes at its time, front to back, until none can hold a nearer
/// hit.
///
/// A node stands still in its own frame. There the ray's origin is where the world's would have
/// been at time 0; only its coordinate along the split axis is needed.
template <int Capacity, class Tree> bool findClosest(Tree const& tree, MBSphereRay& ray) {
    AxisRays const axes(ray);
    double const time = static_cast<double>(ray.rayTime);
    PostponedChildren<MBSphereNode, Capacity> postponed;
    MBSphereNode const* node = tree.root;
    double tMin = ray.tMin;
    double tMax = ray.tMax;
    // Packed systems share their times.
    auto const& firstSystem = tree.particleSystems.elements[0];
    bool const isPacked = tree.packedSpheres != nullptr && isCovered(firstSystem, ray.rayTime);
    float const f = fractionAt(firstSystem, ray.rayTime);
    SphereFilter const filter = chosenSphereFilter();
    RayFilter rayFilter(ray);
    bool found = false;
    for (;;) {
        while (!node->isLeaf()) {
            int const axis = node->kind();
            MBSphereNode const* const children = node->children();
            if (axis == MBSphereNode::timeKind) {
                node = children + (ray.rayTime > node->splitPos ? 1 : 0);
                continue;
            }
            int const nearChild = axes.nearChild(axis);
            double const shift = static_cast<double>(node->velocity[axis]) * time;
            double const tSplit = axes.planeParameter(axis, node->splitPos, shift);
            if (!((tSplit - tMin) * (tSplit - tMax) > 0.0)) {
                // The plane crosses the interval, or the product is not a number: both are visited.
                postponed.push(children + (1 - nearChild), tSplit, tMax);
                tMax = tSplit;
                node = children + nearChild;
            } else if (tSplit < tMin) {
                node = children + (1 - nearChild); // all of it lies behind the plane ...
                keepAsBranch();
            } else {
                node = children + nearChild; // ... or before it
            }
        }
        ray.tMin = tMin;
        ray.tMax = tMax;
        if (isPacked ? intersectPackedLeaf(tree, *node, filter, f, rayFilter, ray)
                     : intersectLeaf(tree, *node, ray))
            found = true;
        if (postponed.isEmpty())
            return found;
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        if (next.tMin > ray.hitRecord->hitT)
            return found;
        node = next.node;
        tMin = next.tMin;
        tMax = std::min(ray.hitRecord->hitT, next.tMax);
    }
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(MBSphereRay& ray) const {
    if (!clipToBox(ray, rootBox.box))
        return 0;
    bool const found = statMaxDepth <= usualInnerLevels ? findClosest<usualInnerLevels>(*this, ray)
                                                        : findClosest<levelLimit>(*this, ray);
    if (!found)
        return 0;
    auto const& system = particleSystems.elements[ray.hitRecord->hitSphere->systemIndex];
    return hitCode(system.particles0->particleType);
}

template int MBSphereTree<MBSphere, 20000, 20000>::intersectNode(MBSphereRay&) const;

} // namespace Kelpa
