#include "pipeline/scene/geometry.h"

#include "kelpa/particleprimitives/particleprimitives.h"

namespace kelpatool {

namespace {

/// The primitive of one tree behind the scene's interface.
template <class Primitive> class PrimitiveGeometry final : public Geometry {
  public:
    PrimitiveGeometry(Kelpa::ParticleData* first, Kelpa::ParticleData* second, bool movingBounds)
        : primitive(0, first, second, true), staticBounds(movingBounds ? 0 : 1) {}

    void build(Kelpa::ProgressCallback& progress, Kelpa::ThreadManager* manager,
               TreeOptions const& options) override {
        auto const& tree = *primitive.tree;
        primitive.build(&progress, manager, options.maxDepth.value_or(tree.maxDepth),
                        options.minNodeSize, options.leafSizeFactor.value_or(tree.leafSizeFactor),
                        staticBounds);
    }
    int intersect(Kelpa::RSRay& ray) override { return primitive.intersect(ray); }
    bool bunchIntersect(Kelpa::RayBunchExtParams const& rays, Kelpa::RayBunchCommonResult& hits,
                        double* tMins, double* tMaxs, unsigned char const* lanes,
                        unsigned long numLanes) override {
        return primitive.bunchIntersect(rays, hits, tMins, tMaxs, lanes, numLanes);
    }
    std::uint64_t memory() override {
        return primitive.getMemUsage() + primitive.tree->getPackedMemUsage();
    }
    std::int32_t sphereCount() const override { return primitive.tree->numSpheres; }
    Bounds bounds() override;
    std::optional<Bounds> motionBounds() override;

  private:
    Primitive primitive;
    int staticBounds;
};

template <> Bounds PrimitiveGeometry<Kelpa::StaticParticlePrimitive>::bounds() {
    Kelpa::StaticBox box;
    primitive.getBBox(box);
    return {wide(box.pmin), wide(box.pmax)};
}

template <>
std::optional<Bounds> PrimitiveGeometry<Kelpa::StaticParticlePrimitive>::motionBounds() {
    return std::nullopt;
}

template <> Bounds PrimitiveGeometry<Kelpa::MovingParticlePrimitive>::bounds() {
    Kelpa::MovingBox box;
    primitive.getBBox(box);
    return {wide(box.bounds.min), wide(box.bounds.max)};
}

template <>
std::optional<Bounds> PrimitiveGeometry<Kelpa::MovingParticlePrimitive>::motionBounds() {
    if (staticBounds != 0)
        return std::nullopt;
    Kelpa::MovingBox box;
    primitive.getBBox(box);
    return Bounds{wide(box.motion.min), wide(box.motion.max)};
}

} // namespace

std::unique_ptr<Geometry> makeGeometry(Kelpa::ParticleData* first, Kelpa::ParticleData* second,
                                       bool movingBounds) {
    if (second != nullptr)
        return std::make_unique<PrimitiveGeometry<Kelpa::MovingParticlePrimitive>>(first, second,
                                                                                   movingBounds);
    return std::make_unique<PrimitiveGeometry<Kelpa::StaticParticlePrimitive>>(first, nullptr,
                                                                               false);
}

} // namespace kelpatool
