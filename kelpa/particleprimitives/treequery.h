// Internal: all that differs between registering with, bounding and asking the two trees.
#pragma once

#include "kelpa/foundation/fixedlist.h"
#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/table.h"
#include "kelpa/particleprimitives/bounds.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/motionblur/mbtraversal.h"
#include "kelpa/spheretree/rayrun.h"
#include "kelpa/spheretree/static/sdspheretree.h"
#include "kelpa/spheretree/static/sdtraversal.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

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

/// Rays that are asked about in one go, and what is found.
template <class Ray, class Hit> class AskedRays {
  public:
    bool isFull() const { return hits.isFull(); }
    /// What `isOccluded` returns for the ray that was added as number `i`.
    bool isOccluded(std::size_t i) const { return codes[i] != 0; }

  protected:
    /// Adds a ray; `time` is what moving spheres are asked with, too.
    template <class... Time>
    void addRay(TraceRay const& ray, double tMin, double tMax, std::int32_t skipIndex,
                Time... time) {
        Hit& hit = hits.add([&] { return Hit{searchEnd(tMax), nullptr, Vector{}}; });
        queries.add(
            [&] { return Ray{IRay(ray, tMin, tMax), skipIndex, tMin, tMax, &hit, time...}; });
    }

    FixedList<Hit, longestRun> hits;
    FixedList<Ray, longestRun> queries;
    int codes[longestRun] = {};
};

template <> struct TreeQuery<StaticSphereTree> {
    using Asked = SDTree; ///< what queries take the tree for
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
        if (tree.root == nullptr)
            return {};
        SDSphereHit hit{searchEnd(tMax), nullptr, {}};
        SDSphereRay query{IRay(ray, tMin, tMax), skipIndex, tMin, tMax, &hit};
        return described(tree, tree.intersectNode(query), hit);
    }

    static bool isOccluded(StaticSphereTree const& tree, TraceRay const& ray, double tMin,
                           double tMax, float, std::int32_t skipIndex) {
        if (tree.root == nullptr)
            return false;
        SDSphereHit hit{searchEnd(tMax), nullptr, {}};
        SDSphereRay query{IRay(ray, tMin, tMax), skipIndex, tMin, tMax, &hit};
        return tree.isOccluded(query);
    }

    /// Asks about all rays of a run on one walk if that pays, else asks nothing; see
    /// `findClosestTogether`.
    static std::optional<std::uint64_t> closestHits(StaticSphereTree const& tree, RayRun const& run,
                                                    PrimitiveIntersections& result) {
        return findClosestTogether(tree, run, result);
    }
    /// The same without the hits.
    static std::optional<std::uint64_t> occlusions(StaticSphereTree const& tree,
                                                   RayRun const& run) {
        return findAnyTogether(tree, run);
    }

    /// Rays that are asked about in one go.
    class List : public AskedRays<SDSphereRay, SDSphereHit> {
      public:
        void add(TraceRay const& ray, double tMin, double tMax, float, std::int32_t skipIndex) {
            addRay(ray, tMin, tMax, skipIndex);
        }
        void ask(StaticSphereTree const& tree) {
            if (tree.root != nullptr)
                tree.intersectMany(queries, codes);
        }
        void askWhetherOccluded(StaticSphereTree const& tree) {
            if (tree.root != nullptr)
                tree.areOccluded(queries, codes);
        }
        /// The same with a tree for each ray.
        void askApart(SDTree const* const* trees) { intersectApart(trees, queries, codes); }
        /// See `askApart`.
        void askApartWhetherOccluded(SDTree const* const* trees) {
            areOccludedApart(trees, queries, codes);
        }
        /// What `closestHit` returns for the ray that was added as number `i`.
        ClosestHit closestHit(StaticSphereTree const& tree, std::size_t i) {
            return described(tree, codes[i], hits[i]);
        }
    };

  private:
    static ClosestHit described(StaticSphereTree const& tree, int code, SDSphereHit const& hit) {
        if (code == 0)
            return {};
        ParticleDataWithPrimitive const& system =
            tree.particleSystems.elements[tree.systemOf(*hit.sphere)];
        return {
            code,      hit.t, system.primitive, tree.particleOf(*hit.sphere), system.indexOffset,
            hit.normal};
    }
};

template <> struct TreeQuery<MovingSphereTree> {
    using Asked = MBTree; ///< what queries take the tree for
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
        if (tree.root == nullptr || !isCovered(tree, time))
            return {};
        MBSphereHit hit{searchEnd(tMax), nullptr, {}};
        MBSphereRay query{IRay(ray, tMin, tMax), skipIndex, tMin, tMax, &hit, time};
        return described(tree, tree.intersectNode(query), hit);
    }

    static bool isOccluded(MovingSphereTree const& tree, TraceRay const& ray, double tMin,
                           double tMax, float time, std::int32_t skipIndex) {
        if (tree.root == nullptr || !isCovered(tree, time))
            return false;
        MBSphereHit hit{searchEnd(tMax), nullptr, {}};
        MBSphereRay query{IRay(ray, tMin, tMax), skipIndex, tMin, tMax, &hit, time};
        return tree.isOccluded(query);
    }

    static std::optional<std::uint64_t> closestHits(MovingSphereTree const& tree, RayRun const& run,
                                                    PrimitiveIntersections& result) {
        return findClosestTogether(tree, run, result);
    }
    static std::optional<std::uint64_t> occlusions(MovingSphereTree const& tree,
                                                   RayRun const& run) {
        return findAnyTogether(tree, run);
    }

    /// Rays that are asked about in one go.
    class List : public AskedRays<MBSphereRay, MBSphereHit> {
      public:
        void add(TraceRay const& ray, double tMin, double tMax, float time,
                 std::int32_t skipIndex) {
            addRay(ray, tMin, tMax, skipIndex, time);
        }
        void ask(MovingSphereTree const& tree) {
            askCovered(tree, [&tree](std::span<MBSphereRay> rays, int* answers) {
                tree.intersectMany(rays, answers);
            });
        }
        void askWhetherOccluded(MovingSphereTree const& tree) {
            askCovered(tree, [&tree](std::span<MBSphereRay> rays, int* answers) {
                tree.areOccluded(rays, answers);
            });
        }
        /// The same with a tree for each ray.
        void askApart(MBTree const* const* trees) {
            intersectApart(trees, queries, codes);
            forgetUncovered(trees);
        }
        /// See `askApart`.
        void askApartWhetherOccluded(MBTree const* const* trees) {
            areOccludedApart(trees, queries, codes);
            forgetUncovered(trees);
        }
        /// What `closestHit` returns for the ray that was added as number `i`.
        ClosestHit closestHit(MovingSphereTree const& tree, std::size_t i) {
            return described(tree, codes[i], hits[i]);
        }

      private:
        void forgetUncovered(MBTree const* const* trees) {
            for (std::size_t i = 0; i < queries.size(); ++i)
                if (!isCovered(*trees[i], queries[i].rayTime))
                    codes[i] = 0;
        }
        /// Rays between others at times that the snapshots do not span are left out.
        template <class AskMany> void askCovered(MovingSphereTree const& tree, AskMany askMany) {
            if (tree.root == nullptr)
                return;
            for (std::size_t begin = 0; begin < queries.size();) {
                std::size_t end = begin;
                while (end < queries.size() && isCovered(tree, queries[end].rayTime))
                    ++end;
                askMany({&queries[begin], end - begin}, codes + begin);
                begin = end + 1;
            }
        }
    };

  private:
    /// Outside the time that the snapshots span there is nothing; a NaN is let through.
    static bool isCovered(MBTree const& tree, float time) {
        return !((time - tree.shutterMax) * (time - tree.shutterMin) > 0.0F);
    }

    static ClosestHit described(MovingSphereTree const& tree, int code, MBSphereHit const& hit) {
        if (code == 0)
            return {};
        auto const& system = tree.particleSystems.elements[tree.systemOf(*hit.hitSphere)];
        return {code,
                hit.hitT,
                system.primitive,
                static_cast<std::int32_t>(tree.particleOf(*hit.hitSphere)),
                system.indexOffset,
                hit.hitVector};
    }
};

} // namespace Kelpa
