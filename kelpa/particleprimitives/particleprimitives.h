// Everything public: the particle primitives, the trees below them, and what they ask of a host.
#pragma once

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/iray.h"
#include "kelpa/foundation/platform.h"
#include "kelpa/particleprimitives/bounds.h"
#include "kelpa/particleprimitives/primitivechain.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/static/sdspheretree.h"
#include "kelpa/spheretree/treebytes.h"

#include <cstdint>

namespace Kelpa {

// As in `primitivechain.h`: no virtual destructor.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// A particle system as a primitive: it owns a sphere tree, has it built, and answers rays.
///
/// The host constructs it, builds it once, and then asks it from any number of threads; it keeps
/// the particle data alive and unchanged until the primitive is gone. Building again registers the
/// system a second time and stores every particle twice.
/// A primitive made without a tree cannot be built, bounded or asked for hits or memory; it stands
/// for a system in another's tree, whose hits it then names, colours and gives normals for.
template <class Base, class Tree, class B> class SphereTreePrimitiveTemplate : public Base {
  public:
    /// `first` is the particle system, for moving particles its first snapshot; `second` is the
    /// second snapshot, which must hold the same particles in the same order.
    /// Throws `ExceptionMsg` when memory runs out.
    SphereTreePrimitiveTemplate(int indexOfFirst, ParticleData* first, ParticleData* second,
                                bool createTree);
    SphereTreePrimitiveTemplate(SphereTreePrimitiveTemplate const&) = delete;
    SphereTreePrimitiveTemplate& operator=(SphereTreePrimitiveTemplate const&) = delete;
    ~SphereTreePrimitiveTemplate();

    /// Registers the particle system with the tree and builds the tree.
    ///
    /// A system without particles or radii is not registered; the tree is built all the same.
    /// `progress` and `threadManager` may be null. `maxDepth` limits the depth of the tree (60 is
    /// usual for still particles, 80 for moving ones; 1024 is the most that counts), nodes with a
    /// diagonal below `minNodeSize` become leaves (0.0), `leafSizeFactor` lets leaves grow with
    /// depth (2.0 and 1.0). With `staticBounds` a moving primitive reports bounds that do not move.
    /// Not to be called on a worker of `threadManager` unless another is free to take the job.
    /// Throws `ExceptionMsg` when memory runs out, on whichever thread; the tree is then empty and
    /// can be built again or destroyed.
    void build(ProgressCallback* progress, ThreadManager* threadManager, int maxDepth,
               float minNodeSize, float leafSizeFactor, int staticBounds);

    /// 0: it is asked as it is.
    int expandable() override { return 0; }

    /// Bytes held by the tree: nodes, leaf entries and sphere references.
    std::uint64_t getMemUsage() override;

    /// The hit's normal as the search left it, not normalised: for a sphere from its centre to the
    /// hit (its length is the radius), for a point against the ray.
    Vector getGNormal(RSRay const& ray) const override;
    /// The same for a lane of a bunch.
    Vector getGNormal(RayBunchParams const& params, PrimitiveIntersections const& intersections,
                      unsigned char lane) const override;
    /// The geometric normal: spheres are smooth.
    Vector getNormal(RSRay const& ray) const override;
    /// The same for a lane of a bunch.
    Vector getNormal(RayBunchParams const& params, PrimitiveIntersections const& intersections,
                     unsigned char lane) const override;

    /// Finds the closest hit: 1 on a sphere, 2 on a point, 0 for none.
    ///
    /// A moving primitive searches at the ray's `time` and misses outside the snapshots' range. A
    /// time exactly at the earliest snapshot may miss particles, since a plane in time at that
    /// instant has them all on its later side: draw times from the open interval.
    int intersect(RSRay& ray) override;

    /// 4914 for still particles, 4915 for moving ones.
    int type() const override;

    /// The bounds that the last build found; the empty box when it found no usable particle.
    void getBBox(B& box) override;
    /// 0: it is held whole.
    int splittable() override { return 0; }

    /// Cuts the bounds at a plane, without regard to whether it crosses them.
    ///
    /// `dim` is an axis; for moving bounds 0 to 2 cut `bounds` and 4 to 6 cut `motion`. Any other
    /// number cuts nothing.
    void split(int dim, float pos, B& lowerBox, B& upperBox) override;

    /// As `intersect`, ray after ray; origins are rounded to single precision.
    bool bunchIntersect(RayBunchExtParams const& params, RayBunchCommonResult& result,
                        double* tMins, double* tMaxs, unsigned char const* lanes,
                        unsigned long numLanes) override;

    // Beyond what the host's interface asks for: no entries of its tables.

    /// Whether anything is hit: true exactly when `intersect` would find a hit for this ray. It
    /// ends at the first one, whether or not that is the closest, which is all that a shadow ray
    /// needs.
    bool isOccluded(RSRay const& ray) const;

    /// `isOccluded` for a list of up to 64 rays: bit i of the answer tells about lane i. `tMins` is
    /// indexed by lane, `tMaxs` by position in `lanes`; no entry of a result ends a search, and
    /// origins are rounded to single precision, both as if `bunchIntersect` were asked with results
    /// that lie infinitely far away. A lane that is listed twice is occluded if either ray is.
    std::uint64_t bunchOccluded(RayBunchExtParams const& params, double const* tMins,
                                double const* tMaxs, unsigned char const* lanes,
                                unsigned long numLanes) const;

    /// `bunchIntersect` for up to 64 distinct lanes, each asked of a primitive of its own:
    /// `primitives[j]` for `lanes[j]`. Rays then wait for memory at the same time, which makes it
    /// faster than one after the other.
    static bool bunchIntersectApart(SphereTreePrimitiveTemplate* const* primitives,
                                    RayBunchExtParams const& params, RayBunchCommonResult& result,
                                    double const* tMins, double const* tMaxs,
                                    unsigned char const* lanes, unsigned long numLanes);

    /// `bunchOccluded`, likewise.
    static std::uint64_t bunchOccludedApart(SphereTreePrimitiveTemplate* const* primitives,
                                            RayBunchExtParams const& params, double const* tMins,
                                            double const* tMaxs, unsigned char const* lanes,
                                            unsigned long numLanes);

    /// The colour of particle `index` (of the first snapshot), or black when the system has not
    /// exactly one colour per particle. `index` must be below the number of particles.
    Vector getColor(int const& index) const;

    Tree* tree;             ///< owned; null when made without one
    std::int32_t baseIndex; ///< index reported for particle 0 when the system is alone in its tree
    ParticleData* particles0; ///< first snapshot; the host's
    ParticleData* particles1; ///< moving particles only
};

using StaticParticlePrimitive =
    SphereTreePrimitiveTemplate<BunchPrimitive<StaticBox>, StaticSphereTree, StaticBox>;
extern template class SphereTreePrimitiveTemplate<BunchPrimitive<StaticBox>, StaticSphereTree,
                                                  StaticBox>;

using MovingParticlePrimitive =
    SphereTreePrimitiveTemplate<BunchPrimitive<MovingBox>, MovingSphereTree, MovingBox>;
extern template class SphereTreePrimitiveTemplate<BunchPrimitive<MovingBox>, MovingSphereTree,
                                                  MovingBox>;

#pragma GCC diagnostic pop

} // namespace Kelpa

/// Registers a particle system with a tree that several primitives share, to be reported as
/// `primitive`, and builds the whole tree anew over all systems registered so far.
///
/// A null or empty `particles0` only rebuilds. The tree's parameters stay as they are. `particles1`
/// and `staticBounds` are read for moving particles only.
/// Failures as in `SphereTreePrimitiveTemplate::build`: they leave the shared tree empty, for all
/// its primitives, with the systems registered before still in its table; the next call that
/// succeeds brings those back.
void SphereTreePrimitiveTemplate_callBuild(Kelpa::StaticSphereTree* tree,
                                           Kelpa::ParticleData* particles0,
                                           Kelpa::ParticleData* particles1,
                                           Kelpa::ProgressCallback* progress,
                                           Kelpa::ThreadManager* threadManager, int staticBounds,
                                           Kelpa::GenericPrimitive* primitive);
void SphereTreePrimitiveTemplate_callBuild(Kelpa::MovingSphereTree* tree,
                                           Kelpa::ParticleData* particles0,
                                           Kelpa::ParticleData* particles1,
                                           Kelpa::ProgressCallback* progress,
                                           Kelpa::ThreadManager* threadManager, int staticBounds,
                                           Kelpa::GenericPrimitive* primitive);
