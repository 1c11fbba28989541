#include "python/native/geometry.h"

#include "kelpa/particleprimitives/particleprimitives.h"

#include <algorithm>
#include <limits>

namespace kelpapython {

namespace {

// Particles report numbers from 0 up.
constexpr std::int64_t noParticle = -1;

/// Primitives compare the low 32 bits: what lies beyond must not name a particle by them.
std::int64_t checkedSkip(std::int64_t skip) {
    bool const isNumber = skip >= 0 && skip <= std::numeric_limits<std::int32_t>::max();
    return isNumber ? skip : noParticle;
}

Kelpa::ParticleDataWithPrimitive recordOf(Kelpa::StaticSphereTree const&, System& system,
                                          Kelpa::GenericPrimitive* primitive, std::int32_t offset) {
    return {&system.first, primitive, offset, system.first.positions, system.first.radii};
}
Kelpa::MovingParticleDataWithPrimitive recordOf(Kelpa::MovingSphereTree const&, System& system,
                                                Kelpa::GenericPrimitive* primitive,
                                                std::int32_t offset) {
    return {&system.first,
            &system.second,
            primitive,
            offset,
            system.first.positions,
            system.second.positions,
            system.first.radii,
            system.second.radii,
            static_cast<float>(system.first.sampleTime),
            static_cast<float>(system.second.sampleTime)};
}

void usePacks(Kelpa::StaticSphereTree& tree, bool isPacked) {
    tree.packLeaves = isPacked ? 1 : 0;
}
void usePacks(Kelpa::MovingSphereTree& tree, bool isPacked) {
    tree.packSpheres = isPacked ? 1 : 0;
}

Bounds boundsOf(Kelpa::StaticParticlePrimitive& primitive) {
    Kelpa::StaticBox box;
    primitive.getBBox(box);
    return {{box.pmin, box.pmax}, {}};
}
Bounds boundsOf(Kelpa::MovingParticlePrimitive& primitive) {
    Kelpa::MovingBox box;
    primitive.getBBox(box);
    return {box.bounds, box.motion};
}

void storeMiss(Hits const& hits, std::size_t ray) {
    hits.t[ray] = std::numeric_limits<float>::infinity();
    hits.indices[ray] = noParticle;
    hits.normals[ray] = {0.0F, 0.0F, 0.0F};
    hits.types[ray] = 0;
}

template <class Primitive> class PrimitiveGeometry final : public Geometry {
  public:
    explicit PrimitiveGeometry(std::vector<System>& theSystems)
        : systems(theSystems), primitive(0, nullptr, nullptr, true) {}

    void build(Kelpa::ProgressCallback& progress, Kelpa::ThreadManager* manager,
               TreeOptions const& options) override;
    void closestHits(Rays const& rays, std::size_t begin, std::size_t end, bool useLists,
                     Hits const& hits) override;
    void trace(Bunch& bunch) override {
        primitive.bunchIntersect(bunch.rays, bunch.hits, bunch.tMins, bunch.tMaxs, bunch.lanes,
                                 bunch.count);
    }
    std::optional<Bounds> bounds() override {
        return primitive.tree->numSpheres > 0 ? std::optional(boundsOf(primitive)) : std::nullopt;
    }
    Statistics statistics() override;

  private:
    void registerSystems();
    void closestHit(Rays const& rays, std::size_t i, Hits const& hits);

    std::vector<System>& systems;
    Primitive primitive;
};

/// Enters the systems into the tree's own table instead of through the primitive, which knows one:
/// so each gets its own range of reported indices, by which hits and skipped particles name one
/// particle of one system.
template <class Primitive> void PrimitiveGeometry<Primitive>::registerSystems() {
    auto const hasParticles = [](System const& system) { return system.count() > 0; };
    bool const isAlone = std::count_if(systems.begin(), systems.end(), hasParticles) == 1;
    auto& records = primitive.tree->particleSystems;
    for (System& system : systems) {
        if (!hasParticles(system))
            continue;
        if (isAlone)
            primitive.baseIndex = system.base;
        records.setCount(records.count + 1, 0);
        records.elements[records.count - 1] =
            recordOf(*primitive.tree, system, &primitive, isAlone ? -1 : system.base);
    }
}

template <class Primitive>
void PrimitiveGeometry<Primitive>::build(Kelpa::ProgressCallback& progress,
                                         Kelpa::ThreadManager* manager,
                                         TreeOptions const& options) {
    auto& tree = *primitive.tree;
    tree.maxDepth = options.maxDepth.value_or(tree.maxDepth);
    tree.minNodeSize = options.minNodeSize;
    tree.leafSizeFactor = options.leafSizeFactor.value_or(tree.leafSizeFactor);
    usePacks(tree, options.isPacked);
    registerSystems();
    SphereTreePrimitiveTemplate_callBuild(&tree, nullptr, nullptr, &progress, manager,
                                          options.hasMovingBounds ? 0 : 1, &primitive);
}

template <class Primitive>
void PrimitiveGeometry<Primitive>::closestHit(Rays const& rays, std::size_t i, Hits const& hits) {
    Kelpa::Vector const origin = rays.origins[i];
    Kelpa::RSRay ray{};
    for (int axis = 0; axis < 3; ++axis)
        ray.origin[axis] = static_cast<double>(origin[axis]);
    ray.dir = rays.directions[i];
    ray.intervalMin = ray.clipMin = rays.tMins[i];
    ray.intervalMax = ray.clipMax = ray.hitT = rays.tMaxs[i];
    ray.time = rays.times[i];
    ray.skipIndex = checkedSkip(rays.skips[i]);
    int const type = primitive.intersect(ray);
    if (type == 0)
        return storeMiss(hits, i);
    hits.t[i] = static_cast<float>(ray.hitT); // exact: hits are found in single precision
    hits.indices[i] = ray.hitIndex;
    hits.normals[i] = ray.hitNormal;
    hits.types[i] = static_cast<std::uint8_t>(type);
}

template <class Primitive>
void PrimitiveGeometry<Primitive>::closestHits(Rays const& rays, std::size_t begin, std::size_t end,
                                               bool useLists, Hits const& hits) {
    if (!useLists) {
        for (std::size_t i = begin; i < end; ++i)
            closestHit(rays, i, hits);
        return;
    }
    Bunch bunch;
    for (std::size_t first = begin; first < end; first += Bunch::capacity) {
        bunch.clear();
        for (std::size_t i = first; i < std::min(first + Bunch::capacity, end); ++i)
            bunch.add(rays.origins[i], rays.directions[i], rays.tMins[i], rays.tMaxs[i],
                      rays.times[i], rays.skips[i]);
        trace(bunch);
        for (std::size_t lane = 0; lane < bunch.count; ++lane) {
            std::size_t const i = first + lane;
            auto const& found = bunch.hits;
            if (found.hit[lane] == 0) {
                storeMiss(hits, i);
                continue;
            }
            hits.t[i] = static_cast<float>(found.hitT[lane]);
            hits.indices[i] = found.hitIndex[lane];
            hits.normals[i] = {found.hitNormalX[lane], found.hitNormalY[lane],
                               found.hitNormalZ[lane]};
            hits.types[i] = found.hit[lane];
        }
    }
}

template <class Primitive> Statistics PrimitiveGeometry<Primitive>::statistics() {
    auto& tree = *primitive.tree;
    Statistics result;
    for (System const& system : systems)
        result.particles += system.count();
    result.used = tree.numSpheres;
    result.nodes = tree.nodes.getCount();
    result.leafEntries = tree.leafSpheres.getCount();
    result.maxDepth = tree.statMaxDepth;
    result.treeBytes = primitive.getMemUsage();
    result.packedBytes = tree.getPackedMemUsage();
    result.peakBytes = tree.getPeakMemUsage();
    return result;
}

} // namespace

void Bunch::add(Kelpa::Vector const& origin, Kelpa::Vector const& direction, double tMin,
                double tMax, float time, std::int64_t skip) {
    std::size_t const lane = count++;
    rays.originX[lane] = static_cast<double>(origin.x);
    rays.originY[lane] = static_cast<double>(origin.y);
    rays.originZ[lane] = static_cast<double>(origin.z);
    rays.dirX[lane] = direction.x;
    rays.dirY[lane] = direction.y;
    rays.dirZ[lane] = direction.z;
    rays.time[lane] = time;
    rays.skipIndex[lane] = checkedSkip(skip);
    tMins[lane] = tMin;
    tMaxs[lane] = tMax; // by place in the list, which here is the lane
    lanes[lane] = static_cast<unsigned char>(lane);
    hits.hit[lane] = 0;
    hits.hitT[lane] = tMax;
}

std::unique_ptr<Geometry> makeGeometry(std::vector<System>& systems, bool areMoving) {
    if (areMoving)
        return std::make_unique<PrimitiveGeometry<Kelpa::MovingParticlePrimitive>>(systems);
    return std::make_unique<PrimitiveGeometry<Kelpa::StaticParticlePrimitive>>(systems);
}

} // namespace kelpapython
