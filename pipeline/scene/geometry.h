// What rays ask.
#pragma once

#include "kelpa/foundation/hosttypes.h"

#include "pipeline/scene/bounds.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace kelpatool {

struct TreeOptions {
    std::optional<int> maxDepth; ///< unset: the tree's own
    std::optional<float> leafSizeFactor;
    float minNodeSize = 0.0F;
};

/// What rays ask: the still or the moving primitive, whichever the scene has.
class Geometry {
  public:
    Geometry() = default;
    Geometry(Geometry const&) = delete;
    Geometry& operator=(Geometry const&) = delete;
    virtual ~Geometry() = default;

    virtual void build(Kelpa::ProgressCallback& progress, Kelpa::ThreadManager* manager,
                       TreeOptions const& options) = 0;
    virtual int intersect(Kelpa::RSRay& ray) = 0;
    virtual bool bunchIntersect(Kelpa::RayBunchExtParams const& rays,
                                Kelpa::RayBunchCommonResult& hits, double* tMins, double* tMaxs,
                                unsigned char const* lanes, unsigned long numLanes) = 0;
    virtual std::uint64_t memory() = 0;
    /// Spheres that the tree took.
    virtual std::int32_t sphereCount() const = 0;
    /// The primitive's bounds, in the scene's coordinates.
    virtual Bounds bounds() = 0;
    /// The box of the particles' motion, when the primitive was to report moving bounds.
    virtual std::optional<Bounds> motionBounds() = 0;
};

/// The primitive of one snapshot, or of two between which its particles move, once built.
/// `movingBounds` has it report the bounds of their motion as well. The snapshots must outlive it.
std::unique_ptr<Geometry> makeGeometry(Kelpa::ParticleData* first, Kelpa::ParticleData* second,
                                       bool movingBounds);

} // namespace kelpatool
