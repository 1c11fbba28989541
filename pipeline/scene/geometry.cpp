// Still or moving trees behind one interface, their builds and their figures.
#include "pipeline/scene/geometry.h"

#include "kelpa/particleprimitives/particleprimitives.h"

#include <algorithm>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace pipeline {

namespace {

Kelpa::ParticleDataWithPrimitive recordOf(Kelpa::StaticSphereTree const&, System& system,
                                          Kelpa::GenericPrimitive* primitive, std::int32_t offset) {
    return {&system.first, primitive, offset, system.first.positions, system.first.radii};
}
Kelpa::MovingParticleDataWithPrimitive recordOf(Kelpa::MovingSphereTree const&, System& system,
                                                Kelpa::GenericPrimitive* primitive,
                                                std::int32_t offset) {
    return {&system.first,
            &*system.second,
            primitive,
            offset,
            system.first.positions,
            system.second->positions,
            system.first.radii,
            system.second->radii,
            static_cast<float>(system.first.sampleTime),
            static_cast<float>(system.second->sampleTime)};
}

void usePacks(Kelpa::StaticSphereTree& tree, bool isPacked) {
    tree.packLeaves = isPacked ? 1 : 0;
}
void usePacks(Kelpa::MovingSphereTree& tree, bool isPacked) {
    tree.packSpheres = isPacked ? 1 : 0;
}

void growAround(Kelpa::Box& box, Kelpa::ParticleData const& particles, std::int32_t i) {
    Kelpa::Vector const& c = particles.positions[i];
    float const r = particles.radii[i];
    box.grow({{c.x - r, c.y - r, c.z - r}, {c.x + r, c.y + r, c.z + r}});
}

Bounds wideBox(Kelpa::Vector const& min, Kelpa::Vector const& max) {
    return {wide(min), wide(max)};
}

Bounds boxOf(Kelpa::StaticParticlePrimitive& primitive) {
    Kelpa::StaticBox box;
    primitive.getBBox(box);
    return wideBox(box.pmin, box.pmax);
}
Bounds boxOf(Kelpa::MovingParticlePrimitive& primitive) {
    Kelpa::MovingBox box;
    primitive.getBBox(box);
    return wideBox(box.bounds.min, box.bounds.max);
}

std::optional<Bounds> motionOf(Kelpa::StaticParticlePrimitive&) {
    return std::nullopt;
}
std::optional<Bounds> motionOf(Kelpa::MovingParticlePrimitive& primitive) {
    Kelpa::MovingBox box;
    primitive.getBBox(box);
    return wideBox(box.motion.min, box.motion.max);
}

std::optional<TreeStatistics::Leaves> leavesOf(Kelpa::StaticSphereTree const& tree) {
    auto const perLeaf = [&tree](std::int64_t total) {
        return tree.statNumLeaves > 0
                   ? static_cast<double>(total) / static_cast<double>(tree.statNumLeaves)
                   : 0.0;
    };
    return TreeStatistics::Leaves{tree.statNumLeaves, perLeaf(tree.statDepthSum),
                                  perLeaf(tree.leafSpheres.getCount()),
                                  wideBox(tree.bbox.min, tree.bbox.max)};
}
std::optional<TreeStatistics::Leaves> leavesOf(Kelpa::MovingSphereTree const&) {
    return std::nullopt;
}

template <class Primitive> class PrimitiveGeometry final : public TreeGeometry {
  public:
    explicit PrimitiveGeometry(std::vector<System> theSystems)
        : systems(std::move(theSystems)), primitive(0, nullptr, nullptr, true) {}

    void build(BuildRun const& run, TreeOptions const& options) override;
    int intersect(Kelpa::RSRay& ray) override { return primitive.intersect(ray); }
    bool bunchIntersect(Kelpa::RayBunchExtParams const& rays, Kelpa::RayBunchCommonResult& hits,
                        double* tMins, double* tMaxs, unsigned char const* lanes,
                        unsigned long numLanes) override {
        return primitive.bunchIntersect(rays, hits, tMins, tMaxs, lanes, numLanes);
    }
    std::uint64_t bunchOccluded(Kelpa::RayBunchExtParams const& rays, double const* tMins,
                                double const* tMaxs, unsigned char const* lanes,
                                unsigned long numLanes) override {
        return primitive.bunchOccluded(rays, tMins, tMaxs, lanes, numLanes);
    }
    void bunchIntersectApart(Geometry* const* asked, Kelpa::RayBunchExtParams const& rays,
                             Kelpa::RayBunchCommonResult& hits, double const* tMins,
                             double const* tMaxs, unsigned char const* lanes,
                             unsigned long numLanes) override {
        Primitive* primitives[64];
        primitivesOf(asked, numLanes, primitives);
        Primitive::bunchIntersectApart(primitives, rays, hits, tMins, tMaxs, lanes, numLanes);
    }
    std::uint64_t bunchOccludedApart(Geometry* const* asked, Kelpa::RayBunchExtParams const& rays,
                                     double const* tMins, double const* tMaxs,
                                     unsigned char const* lanes, unsigned long numLanes) override {
        Primitive* primitives[64];
        primitivesOf(asked, numLanes, primitives);
        return Primitive::bunchOccludedApart(primitives, rays, tMins, tMaxs, lanes, numLanes);
    }
    std::optional<Bounds> bounds() override {
        return primitive.tree->numSpheres > 0 ? std::optional(boxOf(primitive)) : std::nullopt;
    }
    std::optional<Bounds> motionBounds() override {
        bool const isTold = hasMovingBounds && primitive.tree->numSpheres > 0;
        return isTold ? motionOf(primitive) : std::nullopt;
    }
    TreeStatistics statistics() override;
    void makeCompact() override { Kelpa::makeCompact(*primitive.tree); }
    std::uint64_t writtenBytes() override { return Kelpa::writtenBytes(*primitive.tree); }
    void write(Kelpa::ByteSink const& sink) override { Kelpa::writeTree(*primitive.tree, sink); }
    bool read(Kelpa::ByteSource const& source, std::uint64_t size,
              TreeOptions const& options) override {
        prepare(options);
        return Kelpa::readTree(*primitive.tree, source, size);
    }
    bool isWhole() const override { return primitive.tree->wasAborted == 0; }

  private:
    void prepare(TreeOptions const& options);
    void registerSystems();
    static void primitivesOf(Geometry* const* asked, unsigned long count, Primitive** primitives) {
        for (unsigned long i = 0; i < count; ++i)
            primitives[i] = &static_cast<PrimitiveGeometry*>(asked[i])->primitive;
    }

    std::vector<System> systems;
    Primitive primitive;
    bool hasMovingBounds = false;
};

/// Enters the systems into the tree's own table instead of through the primitive, which knows one:
/// so each gets its own range of reported indices, by which hits and skipped particles name one
/// particle of one system.
template <class Primitive> void PrimitiveGeometry<Primitive>::registerSystems() {
    auto const hasParticles = [](System const& system) { return system.first.numParticles > 0; };
    bool const isAlone = std::count_if(systems.begin(), systems.end(), hasParticles) == 1;
    auto& records = primitive.tree->particleSystems;
    for (System& system : systems) {
        if (!hasParticles(system))
            continue;
        auto const base = static_cast<std::int32_t>(system.base);
        if (isAlone)
            primitive.baseIndex = base;
        records.setCount(records.count + 1, 0);
        records.elements[records.count - 1] =
            recordOf(*primitive.tree, system, &primitive, isAlone ? -1 : base);
    }
}

/// Tells the tree what it is of and how it is built.
template <class Primitive> void PrimitiveGeometry<Primitive>::prepare(TreeOptions const& options) {
    auto& tree = *primitive.tree;
    tree.maxDepth = options.maxDepth.value_or(tree.maxDepth);
    tree.minNodeSize = options.minNodeSize;
    tree.leafSizeFactor = options.leafSizeFactor.value_or(tree.leafSizeFactor);
    usePacks(tree, options.isPacked);
    hasMovingBounds = options.hasMovingBounds;
    if (tree.particleSystems.count == 0)
        registerSystems();
}

template <class Primitive>
void PrimitiveGeometry<Primitive>::build(BuildRun const& run, TreeOptions const& options) {
    prepare(options);
    SphereTreePrimitiveTemplate_callBuild(primitive.tree, nullptr, nullptr, &run.report, nullptr,
                                          hasMovingBounds ? 0 : 1, &primitive);
}

template <class Primitive> TreeStatistics PrimitiveGeometry<Primitive>::statistics() {
    auto& tree = *primitive.tree;
    TreeStatistics result;
    result.isMoving = std::is_same_v<Primitive, Kelpa::MovingParticlePrimitive>;
    result.systems = tree.particleSystems.count;
    for (System const& system : systems)
        result.particles += system.first.numParticles;
    result.used = tree.numSpheres;
    result.nodes = tree.nodes.getCount();
    result.leafEntries = tree.leafSpheres.getCount();
    result.maxDepth = tree.statMaxDepth;
    result.treeBytes = primitive.getMemUsage();
    result.packedBytes = tree.getPackedMemUsage();
    result.totalBytes = tree.getTotalMemUsage();
    result.peakBytes = tree.getPeakMemUsage();
    result.leaves = leavesOf(tree);
    return result;
}

} // namespace

Kelpa::Box boxAround(System const& system) {
    Kelpa::Box box = Kelpa::Box::empty();
    for (std::int32_t i = 0; i < system.first.numParticles; ++i)
        if (isUsable(system, i)) {
            growAround(box, system.first, i);
            if (system.second)
                growAround(box, *system.second, i);
        }
    if (box.min.x <= box.max.x)
        Kelpa::widenByMargin(box);
    return box;
}

void Geometry::bunchIntersectApart(Geometry* const*, Kelpa::RayBunchExtParams const&,
                                   Kelpa::RayBunchCommonResult&, double const*, double const*,
                                   unsigned char const*, unsigned long) {
    throw std::logic_error("only single trees are asked apart");
}

std::uint64_t Geometry::bunchOccludedApart(Geometry* const*, Kelpa::RayBunchExtParams const&,
                                           double const*, double const*, unsigned char const*,
                                           unsigned long) {
    throw std::logic_error("only single trees are asked apart");
}

std::unique_ptr<TreeGeometry> makeGeometry(std::vector<System> systems) {
    bool const isMoving = !systems.empty() && systems.front().second.has_value();
    for (System const& system : systems)
        if (system.second.has_value() != isMoving)
            throw std::invalid_argument(
                "of some particle systems alone there is a second snapshot");
    if (isMoving)
        return std::make_unique<PrimitiveGeometry<Kelpa::MovingParticlePrimitive>>(
            std::move(systems));
    return std::make_unique<PrimitiveGeometry<Kelpa::StaticParticlePrimitive>>(std::move(systems));
}

} // namespace pipeline
