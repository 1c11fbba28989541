#include "kelpa/host/threadpool.h"
#include "kelpa/particleprimitives/particleprimitives.h"

#include "bench/kernels.h"

#include <cmath>
#include <limits>

namespace kelpabench {

using Kelpa::Vector;

namespace {

constexpr double farAway = 1e30;
constexpr Found nothing = std::numeric_limits<Found>::infinity();

Kelpa::ParticleData viewOf(std::vector<Vector> const& positions, std::vector<float> const& radii,
                           double time) {
    auto const count = static_cast<std::int32_t>(positions.size());
    return {time, 0, positions.data(), count, radii.data(), count, nullptr, 0};
}

Kelpa::RSRay shadingRay(Ray const& ray) {
    Kelpa::RSRay shading{};
    std::copy(ray.origin, ray.origin + 3, shading.origin);
    shading.dir = ray.dir;
    shading.intervalMax = farAway;
    shading.time = ray.time;
    shading.skipIndex = ray.skip;
    return shading;
}

void turnPackingOff(Kelpa::StaticSphereTree& tree) {
    tree.packLeaves = 0;
}
void turnPackingOff(Kelpa::MovingSphereTree& tree) {
    tree.packSpheres = 0;
}

template <class Primitive> class Traced {
  public:
    Traced(Scene const& scene, int threads, bool packed)
        : first(viewOf(scene.positions, scene.radii, 0.0)),
          second(viewOf(scene.moved, scene.radii, 1.0)), primitive(0, &first, &second, true) {
        if (!packed)
            turnPackingOff(*primitive.tree);
        std::unique_ptr<Kelpa::ThreadPool> pool;
        if (threads > 1)
            pool = std::make_unique<Kelpa::ThreadPool>(threads);
        auto const& tree = *primitive.tree;
        primitive.build(nullptr, pool.get(), tree.maxDepth, tree.minNodeSize, tree.leafSizeFactor,
                        1);
    }

    void traceSingle(std::span<Ray const> rays, std::span<Found> found) {
        for (std::size_t i = 0; i < rays.size(); ++i) {
            Kelpa::RSRay ray = shadingRay(rays[i]);
            found[i] = primitive.intersect(ray) != 0 ? static_cast<Found>(ray.hitT) : nothing;
        }
    }

    void traceLists(std::span<Ray const> rays, std::span<Found> found) {
        constexpr std::size_t lanes = 64;
        Kelpa::RayBunchExtParams bunch;
        Kelpa::RayBunchCommonResult result;
        double tMins[lanes] = {};
        double tMaxs[lanes];
        unsigned char list[lanes];
        for (std::size_t begin = 0; begin < rays.size(); begin += lanes) {
            std::size_t const count = std::min(lanes, rays.size() - begin);
            result.noHits = true;
            for (std::size_t k = 0; k < count; ++k) {
                Ray const& ray = rays[begin + k];
                bunch.originX[k] = ray.origin[0];
                bunch.originY[k] = ray.origin[1];
                bunch.originZ[k] = ray.origin[2];
                bunch.dirX[k] = ray.dir.x;
                bunch.dirY[k] = ray.dir.y;
                bunch.dirZ[k] = ray.dir.z;
                bunch.time[k] = ray.time;
                bunch.skipIndex[k] = ray.skip;
                tMaxs[k] = farAway;
                list[k] = static_cast<unsigned char>(k);
                result.hit[k] = 0;
                result.hitT[k] = farAway;
            }
            primitive.bunchIntersect(bunch, result, tMins, tMaxs, list, count);
            for (std::size_t k = 0; k < count; ++k)
                found[begin + k] =
                    result.hit[k] != 0 ? static_cast<Found>(result.hitT[k]) : nothing;
        }
    }

    std::uint64_t memory() { return primitive.getMemUsage() + primitive.tree->getPackedMemUsage(); }

    Primitive& asPrimitive() { return primitive; }

  private:
    Kelpa::ParticleData first;
    Kelpa::ParticleData second;
    Primitive primitive;
};

using Still = Traced<Kelpa::StaticParticlePrimitive>;
using Moving = Traced<Kelpa::MovingParticlePrimitive>;

class Ours final : public Kernel {
  public:
    explicit Ours(bool packedLeaves) : packed(packedLeaves) {}

    void build(Scene const& scene, int threads) override {
        still.reset();
        moving.reset();
        if (scene.moved.empty())
            still = std::make_unique<Still>(scene, threads, packed);
        else
            moving = std::make_unique<Moving>(scene, threads, packed);
    }
    void traceSingle(std::span<Ray const> rays, std::span<Found> found) override {
        still != nullptr ? still->traceSingle(rays, found) : moving->traceSingle(rays, found);
    }
    void traceLists(std::span<Ray const> rays, std::span<Found> found) override {
        still != nullptr ? still->traceLists(rays, found) : moving->traceLists(rays, found);
    }
    std::uint64_t memory() override {
        return still != nullptr ? still->memory() : moving->memory();
    }

  private:
    bool packed;
    std::unique_ptr<Still> still;
    std::unique_ptr<Moving> moving;
};

template <class Primitive>
void addBounces(Primitive& primitive, std::span<Ray const> rays, std::vector<Ray>& bounced) {
    Random random(4);
    for (Ray const& ray : rays) {
        Kelpa::RSRay hit = shadingRay(ray);
        Vector dir = random.direction();
        if (primitive.intersect(hit) == 0)
            continue;
        Vector const& n = hit.hitNormal;
        if (dir.x * n.x + dir.y * n.y + dir.z * n.z < 0.0F)
            dir = {-dir.x, -dir.y, -dir.z};
        Ray bounce{{}, dir, ray.time, hit.hitLocalIndex};
        // In single precision, as both kernels see origins, and a little above the surface, so that
        // a kernel without an index to skip does not meet the same sphere again.
        constexpr double lift = 0.002; // of the radius, the length of the normal
        for (int axis = 0; axis < 3; ++axis) {
            double const surface = hit.origin[axis] + hit.hitT * static_cast<double>(hit.dir[axis]);
            bounce.origin[axis] = static_cast<double>(
                static_cast<float>(surface + lift * static_cast<double>(n[axis])));
        }
        bounced.push_back(bounce);
    }
}

} // namespace

std::unique_ptr<Kernel> makeOurs(bool packed) {
    return std::make_unique<Ours>(packed);
}

std::vector<Ray> bouncedRays(Scene const& scene, std::span<Ray const> cameraRays) {
    std::vector<Ray> bounced;
    if (scene.moved.empty()) {
        Still traced(scene, 1, true);
        addBounces(traced.asPrimitive(), cameraRays, bounced);
    } else {
        Moving traced(scene, 1, true);
        addBounces(traced.asPrimitive(), cameraRays, bounced);
    }
    return bounced;
}

} // namespace kelpabench
