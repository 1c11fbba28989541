// Compiled once for each kind of processor, with `KELPA_VARIANT` as its name.

#include "kelpa/spheretree/motionblur/mbtraversal.h"

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/nearestsphere.h"
#include "kelpa/spheretree/quad.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/travellers.h"
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
bool intersectLeaf(Tree const& tree, MBSphereNode const& leaf, MBSphereRay& ray) {
    MBLeafSphere const* const entries = leaf.leafSpheres();
    std::int32_t const count = leaf.numLeafSpheres();
    bool found = false;
    for (std::int32_t k = 0; k < count; ++k) {
        MBSphere& sphere = tree.spheres[entries[k].sphereIndex];
        auto const& system = tree.particleSystems.elements[sphere.system()];
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

inline constexpr std::int32_t placedAtATime = 16;

/// Spheres of a leaf at one instant.
struct PlacedSpheres {
    alignas(64) float x[placedAtATime];
    alignas(64) float y[placedAtATime];
    alignas(64) float z[placedAtATime];
    alignas(64) float radii[placedAtATime];

    SphereArrays arrays() const { return {radii, 1, x, y, z}; }
};

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

/// Offers the ray to the leaves of a tree, packed or not.
class LeafVisitor {
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

    [[gnu::always_inline]] void visit(MBSphereNode const& leaf, double tMin, double tMax) {
        if (isPacked) {
            visitPacked(leaf, tMin, tMax);
            return;
        }
        ray.tMin = tMin;
        ray.tMax = tMax;
        if (intersectLeaf(tree, leaf, ray))
            found = true;
    }

    void prefetch(MBSphereNode const& leaf) const {
        MBLeafSphere const* const entries = leaf.leafSpheres();
        if (!isPacked)
            return;
        for (std::int32_t k = 0; k < leaf.numLeafSpheres() && k < 32; ++k)
            __builtin_prefetch(stateOf(entries[k]));
    }

    /// Completes the ray's hit record; true when there was a hit.
    bool finish() {
        if (sphere == nullptr)
            return found;
        ray.hitRecord->hitSphere = sphere;
        ray.hitRecord->hitVector =
            sphereNormal(ray, center, static_cast<float>(ray.hitRecord->hitT));
        return true;
    }

  private:
    float const* stateOf(MBLeafSphere const& entry) const {
        return tree.packedSpheres + 8 * static_cast<std::size_t>(entry.sphereIndex);
    }

    bool isRayOrigin(MBLeafSphere const& entry) const {
        MBSphere const& candidate = tree.spheres[entry.sphereIndex];
        return skipNumber(tree.singleSystem, static_cast<std::int32_t>(tree.particleOf(candidate)),
                          tree.particleSystems.elements[tree.systemOf(candidate)].indexOffset) ==
               ray.skipIndex;
    }

    /// Finds what `intersectLeaf` finds.
    [[gnu::always_inline]] void visitPacked(MBSphereNode const& leaf, double tMin, double tMax) {
        MBLeafSphere const* const entries = leaf.leafSpheres();
        std::int32_t const count = leaf.numLeafSpheres();
        for (std::int32_t first = 0; first < count; first += placedAtATime) {
            std::int32_t const n = count - first < placedAtATime ? count - first : placedAtATime;
            PlacedSpheres placed;
            placeSpheres(tree.packedSpheres, entries + first, n, f, placed);
            HitWindow window(tMin, tMax);
            std::int32_t const k =
                nearestSphere<TieOrder::first>(probe, placed.arrays(), n, -1, window);
            if (k < 0)
                continue;
            if (mayStartOnSphere && isRayOrigin(entries[first + k]))
                tMax = visitOrigin(entries + first, placed, n, tMin, tMax, k);
            else
                tMax = keep(entries[first + k], placed, k, static_cast<double>(window.end));
        }
    }

    /// As far as the ray meets no other sphere first, a sphere on which it starts is only left.
    /// Returns the new end of the interval.
    [[gnu::noinline]] double visitOrigin(MBLeafSphere const* entries, PlacedSpheres const& placed,
                                         std::int32_t count, double tMin, double tMax,
                                         std::int32_t origin) {
        HitWindow window(tMin, tMax);
        std::int32_t const other =
            nearestSphere<TieOrder::first>(probe, placed.arrays(), count, origin, window);
        if (other >= 0 && tree.singleSystem != 1 && isRayOrigin(entries[other]))
            return visitOrigins(entries, placed, count, tMin, tMax);
        auto const t = static_cast<double>(window.end);
        ray.tMin = tMin;
        ray.tMax = tMax;
        bool const isLeft =
            hitSphere(placed.arrays().center(origin), placed.radii[origin], ray, true) != 0;
        if (isLeft && (other < 0 || ray.tMax < t || (ray.tMax == t && origin < other)))
            return keep(entries[origin], placed, origin, ray.tMax);
        return other >= 0 ? keep(entries[other], placed, other, t) : tMax;
    }

    /// One by one: particles of different systems may have the number on which the ray starts.
    [[gnu::noinline]] double visitOrigins(MBLeafSphere const* entries, PlacedSpheres const& placed,
                                          std::int32_t count, double tMin, double tMax) {
        ray.tMin = tMin;
        ray.tMax = tMax;
        for (std::int32_t k = 0; k < count; ++k)
            if (hitSphere(placed.arrays().center(k), placed.radii[k], ray,
                          isRayOrigin(entries[k])) != 0)
                keep(entries[k], placed, k, ray.tMax);
        return ray.tMax;
    }

    double keep(MBLeafSphere const& entry, PlacedSpheres const& placed, std::int32_t k, double t) {
        ray.hitRecord->hitT = t;
        center = placed.arrays().center(k);
        sphere = &tree.spheres[entry.sphereIndex];
        return t;
    }

    Tree const& tree;
    MBSphereRay& ray;
    SphereProbe probe;
    float f; ///< how far the packed spheres are on their way
    bool isPacked;
    bool mayStartOnSphere;
    bool found = false;
    MBSphere* sphere = nullptr; ///< the nearest packed one
    Vector center;              ///< its centre
};

/// The ray parameter at which a ray meets a node's plane.
///
/// A node stands still in its own frame. There the ray's origin is where the world's would have
/// been at time 0; only its coordinate along the split axis is needed.
[[gnu::always_inline]] inline double planeParameterOf(MBSphereNode const& node, int axis,
                                                      AxisRays const& axes, double time) {
    float const velocity = floatAt(&node.velocity, axis);
    return axes.planeParameter(axis, node.splitPos, static_cast<double>(velocity) * time);
}

/// Visits the leaves that the ray passes at its time, front to back, until none can hold a nearer
/// hit.
template <int Capacity> bool findClosestWith(Tree const& tree, MBSphereRay& ray) {
    AxisRays const axes(ray);
    LeafVisitor leaves(tree, ray);
    double const time = static_cast<double>(ray.rayTime);
    PostponedChildren<MBSphereNode>::Room<Capacity> room;
    PostponedChildren<MBSphereNode> postponed(room);
    MBSphereNode const* node = tree.root;
    double tMin = ray.tMin;
    double tMax = ray.tMax;
    for (;;) {
        while (!node->isLeaf()) {
            int const axis = node->kind();
            MBSphereNode const* const children = node->children();
            if (axis == MBSphereNode::timeKind) {
                node = children + (ray.rayTime > node->splitPos ? 1 : 0);
                continue;
            }
            int const nearChild = axes.nearChild(axis);
            double const tSplit = planeParameterOf(*node, axis, axes, time);
            if ((tMin < tSplit && tSplit < tMax) || !((tSplit - tMin) * (tSplit - tMax) > 0.0)) {
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
        leaves.visit(*node, tMin, tMax);
        if (postponed.isEmpty())
            return leaves.finish();
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        double const nearest = ray.hitRecord->hitT;
        if (next.tMin > nearest)
            return leaves.finish();
        node = next.node;
        tMin = next.tMin;
        tMax = next.tMax < nearest ? next.tMax : nearest;
    }
}

/// One of several rays that are on their way at the same time.
class Traveller {
  public:
    Traveller(Tree const& tree, MBSphereRay& travellingRay)
        : ray(travellingRay), axes(ray), node(tree.root), time(static_cast<double>(ray.rayTime)),
          tMin(ray.tMin), tMax(ray.tMax), leaves(tree, ray) {}

    /// Takes the steps of `findClosestWith` without a branch: the processor would guess it, and
    /// half of the time throw away what it has done for the other rays since.
    [[gnu::always_inline]] int step() {
        std::uint64_t const isInner = flag(!node->isLeaf());
        int const kind = node->kind();
        std::uint64_t const isTime = flag(kind == MBSphereNode::timeKind);
        int const axis = kind - static_cast<int>(isTime); // any, where time is split
        MBSphereNode const* const children = node->children();
        auto const nearChild = static_cast<std::uint64_t>(axes.nearChild(axis));
        double const tSplit = planeParameterOf(*node, axis, axes, time);
        std::uint64_t const isOneSided = isTime | flag((tSplit - tMin) * (tSplit - tMax) > 0.0);
        std::uint64_t const isBehind = flag(tSplit < tMin);
        std::uint64_t const isCut = isInner & ~isOneSided;
        std::uint64_t const isLater = flag(ray.rayTime > node->splitPos);
        postponed.pushIf(isCut, childAt(children, 1 - nearChild), tSplit, tMax);
        tMax = select(isCut, tSplit, tMax);
        std::uint64_t const child = select(isTime, isLater, nearChild ^ (isOneSided & isBehind));
        node = reinterpret_cast<MBSphereNode const*>(
            select(isInner, reinterpret_cast<std::uintptr_t>(childAt(children, child)),
                   reinterpret_cast<std::uintptr_t>(node)));
        __builtin_prefetch(node);
        return static_cast<int>(isInner);
    }

    void prefetchLeaf() const { leaves.prefetch(*node); }

    [[gnu::always_inline]] bool visitLeaf() {
        leaves.visit(*node, tMin, tMax);
        if (postponed.isEmpty())
            return false;
        auto const& next = postponed.pop();
        double const nearest = ray.hitRecord->hitT;
        if (next.tMin > nearest)
            return false;
        node = next.node;
        tMin = next.tMin;
        tMax = next.tMax < nearest ? next.tMax : nearest;
        return true;
    }

    bool finish() { return leaves.finish(); }

  private:
    MBSphereRay& ray;
    AxisRays axes;
    MBSphereNode const* node;
    double time;
    double tMin;
    double tMax;
    LeafVisitor leaves;
    PostponedChildren<MBSphereNode>::Room<usualInnerLevels> room;
    PostponedChildren<MBSphereNode> postponed{room};
};

/// Whether rays start so near each other that what one reads of a tree is at hand for the next. A
/// guess from three of them; only the speed depends on it.
bool startTogether(Tree const& tree, std::span<MBSphereRay*> rays) {
    Vector const& min = tree.rootBox.box.min;
    Vector const& max = tree.rootBox.box.max;
    double const size = static_cast<double>((max.x - min.x) + (max.y - min.y) + (max.z - min.z));
    double const* const first = rays[0]->origin;
    auto const isNearFirst = [&](double const* origin) {
        double const distance = std::abs(origin[0] - first[0]) + std::abs(origin[1] - first[1]) +
                                std::abs(origin[2] - first[2]);
        return distance < 0.1 * size;
    };
    return isNearFirst(rays[rays.size() / 2]->origin) && isNearFirst(rays[rays.size() - 1]->origin);
}

} // namespace

void findClosestOfMany(MBTree const& tree, std::span<MBSphereRay*> rays, bool* found) {
    if (tree.statMaxDepth > usualInnerLevels || areTogether(rays) || startTogether(tree, rays)) {
        for (std::size_t i = 0; i < rays.size(); ++i)
            found[i] = findClosest(tree, *rays[i]);
        return;
    }
    searchTogether<Traveller>(tree, rays, found);
}

bool findClosest(MBTree const& tree, MBSphereRay& ray) {
    return tree.statMaxDepth <= usualInnerLevels ? findClosestWith<usualInnerLevels>(tree, ray)
                                                 : findClosestWith<levelLimit>(tree, ray);
}

} // namespace Kelpa::KELPA_VARIANT
