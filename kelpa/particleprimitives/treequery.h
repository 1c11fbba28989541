#pragma once
// Internal: all that differs between registering with, bounding and asking the two trees.

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/table.h"
#include "kelpa/particleprimitives/bounds.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/static/sdspheretree.h"

#include <algorithm>
#include <cstdint>

namespace Kelpa {

/// What the primitives need of a tree; one specialisation per tree.
template <class Tree> struct TreeQuery;

/// The closest hit of one ray, wherever it then is written.
struct ClosestHit {
    int code; ///< 0: no hit, and nothing below counts; 1: on a sphere; 2: on a point
    double t;
    GenericPrimitive* primitive;
    std::int32_t particleIndex;
    std::int32_t indexOffset; ///< of the hit particle's system
    Vector normal;
};

/// The end of a search that has found nothing yet.
inline double searchEnd(double tMax) {
    constexpr double farthest = static_cast<double>(1e30F);
    return tMax < farthest ? tMax : farthest;
}

inline bool hasParticles(ParticleData const* particles) {
    return particles != nullptr && particles->numParticles > 0 && particles->numRadii > 0;
}

template <> struct TreeQuery<StaticSphereTree> {
    static constexpr int primitiveType = 4914;

    static void registerSystem(StaticSphereTree& tree, ParticleData* particles0, ParticleData*,
                               GenericPrimitive* primitive) {
        if (!hasParticles(particles0))
            return;
        auto& systems = tree.particleSystems;
        systems.setCount(systems.count + 1, 0);
        systems.elements[systems.count - 1] = {particles0, primitive, -1, particles0->positions,
                                               particles0->radii};
    }

    static void build(StaticSphereTree& tree, ProgressCallback* progress, ThreadManager* manager,
                      int) {
        tree.build(progress, manager);
    }

    static void bounds(StaticSphereTree const& tree, StaticBox& box) {
        box = {tree.bbox.min, tree.bbox.max};
    }

    static void cut(int dim, float pos, StaticBox& lower, StaticBox& upper) {
        if (dim < 0 || dim > 2)
            return;
        lower.pmax[dim] = pos;
        upper.pmin[dim] = pos;
    }

    /// False when no ray can hit anything.
    static bool isWorthAsking(StaticSphereTree const& tree) { return tree.numSpheres != 0; }

    static ClosestHit closestHit(StaticSphereTree const& tree, TraceRay const& ray, double tMin,
                                 double tMax, float, std::int32_t skipIndex) {
        ClosestHit closest{};
        if (tree.root == nullptr)
            return closest;
        SDSphereHit hit{searchEnd(tMax), nullptr, {}};
        SDSphereRay query{IRay(ray, tMin, tMax), skipIndex, tMin, tMax, &hit};
        closest.code = tree.intersectNode(query);
        if (closest.code == 0)
            return closest;
        ParticleDataWithPrimitive const& system =
            tree.particleSystems.elements[hit.sphere->systemIndex];
        return {closest.code,       hit.t,     system.primitive, hit.sphere->particleIndex,
                system.indexOffset, hit.normal};
    }
};

template <> struct TreeQuery<MovingSphereTree> {
    static constexpr int primitiveType = 4915;

    static void registerSystem(MovingSphereTree& tree, ParticleData* particles0,
                               ParticleData* particles1, GenericPrimitive* primitive) {
        if (!hasParticles(particles0) || !hasParticles(particles1))
            return;
        auto& systems = tree.particleSystems;
        systems.setCount(systems.count + 1, 0);
        systems.elements[systems.count - 1] = {particles0,
                                               particles1,
                                               primitive,
                                               -1,
                                               particles0->positions,
                                               particles1->positions,
                                               particles0->radii,
                                               particles1->radii,
                                               static_cast<float>(particles0->sampleTime),
                                               static_cast<float>(particles1->sampleTime)};
    }

    static void build(MovingSphereTree& tree, ProgressCallback* progress, ThreadManager* manager,
                      int staticBounds) {
        tree.build(progress, manager, staticBounds);
    }

    static void bounds(MovingSphereTree const& tree, MovingBox& box) {
        box = {tree.boundsTimeMin, tree.boundsTimeMax, tree.boundsBox, tree.boundsMotion};
    }

    // Dimensions 0 to 2 cut where the bounds are, 4 to 6 how they move.
    static void cut(int dim, float pos, MovingBox& lower, MovingBox& upper) {
        int const axis = dim & 3;
        int const boxIndex = dim >> 2;
        if (axis == 3 || boxIndex < 0 || boxIndex > 1)
            return;
        (boxIndex == 0 ? lower.bounds : lower.motion).max[axis] = pos;
        (boxIndex == 0 ? upper.bounds : upper.motion).min[axis] = pos;
    }

    static bool isWorthAsking(MovingSphereTree const&) { return true; }

    static ClosestHit closestHit(MovingSphereTree const& tree, TraceRay const& ray, double tMin,
                                 double tMax, float time, std::int32_t skipIndex) {
        ClosestHit closest{};
        // Outside the time that the snapshots span there is nothing; a NaN is let through.
        if (tree.root == nullptr || (time - tree.shutterMax) * (time - tree.shutterMin) > 0.0F)
            return closest;
        MBSphereHit hit{searchEnd(tMax), nullptr, {}};
        MBSphereRay query{IRay(ray, tMin, tMax), skipIndex, tMin, tMax, &hit, time};
        closest.code = tree.intersectNode(query);
        if (closest.code == 0)
            return closest;
        auto const& system = tree.particleSystems.elements[hit.hitSphere->systemIndex];
        return {closest.code,       hit.hitT,
                system.primitive,   static_cast<std::int32_t>(hit.hitSphere->particleIndex),
                system.indexOffset, hit.hitVector};
    }
};

} // namespace Kelpa
