// This library as one that is measured.
#include "kelpa/host/threadpool.h"
#include "kelpa/particleprimitives/particleprimitives.h"

#include "bench/kernels.h"

#include <algorithm>
#include <chrono>
#include <type_traits>

namespace kelpabench {

namespace {

constexpr double farAway = 1e30;

Kelpa::ParticleData viewOf(std::vector<Kelpa::Vector> const& positions,
                           std::vector<float> const& radii, double time) {
    auto const count = static_cast<std::int32_t>(positions.size());
    return {time, 0, positions.data(), count, radii.data(), count, nullptr, 0};
}

void usePacks(Kelpa::StaticSphereTree& tree, bool packed) {
    tree.packLeaves = packed ? 1 : 0;
}
void usePacks(Kelpa::MovingSphereTree& tree, bool packed) {
    tree.packSpheres = packed ? 1 : 0;
}

template <class Primitive> class Ours final : public Kernel {
  public:
    Ours(Scene const& scene, bool packLeaves)
        : first(viewOf(scene.positions, scene.radii, 0.0)),
          second(viewOf(scene.laterPositions, scene.radii, 1.0)), packed(packLeaves) {}

    double build(int threads) override {
        primitive.reset(); // frees before the new one takes memory
        primitive = std::make_unique<Owned>(0, &first, &second, true);
        usePacks(*primitive->tree, packed);
        std::unique_ptr<Kelpa::ThreadPool> pool;
        if (threads > 1)
            pool = std::make_unique<Kelpa::ThreadPool>(threads);
        constexpr bool isStatic = std::is_same_v<Primitive, Kelpa::StaticParticlePrimitive>;
        auto const begin = std::chrono::steady_clock::now();
        primitive->build(nullptr, pool.get(), isStatic ? 60 : 80, 0.0F, isStatic ? 2.0F : 1.0F, 0);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    std::span<char const* const> methods(Form form) const override {
        static constexpr char const* single[] = {"intersect"};
        static constexpr char const* lists[] = {"bunchIntersect"};
        static constexpr char const* occlusion[] = {"bunchOccluded"};
        return form == Form::single ? single : form == Form::lists ? lists : occlusion;
    }

    void trace(Form form, std::size_t, std::span<Ray const> rays,
               std::span<Found> found) const override {
        if (form == Form::single) {
            for (std::size_t i = 0; i < rays.size(); ++i)
                found[i] = closestHit(rays[i]);
            return;
        }
        for (std::size_t i = 0; i < rays.size(); i += listLength) {
            std::size_t const count = std::min(listLength, rays.size() - i);
            findHits(form, rays.subspan(i, count), found.subspan(i, count));
        }
    }

    Memory memory() override {
        return {primitive->getMemUsage(), primitive->tree->getPackedMemUsage()};
    }

  private:
    Found closestHit(Ray const& ray) const {
        Kelpa::RSRay query{};
        query.origin[0] = static_cast<double>(ray.origin.x);
        query.origin[1] = static_cast<double>(ray.origin.y);
        query.origin[2] = static_cast<double>(ray.origin.z);
        query.dir = ray.dir;
        query.intervalMax = farAway;
        query.time = ray.time;
        query.skipIndex = ray.skip;
        if (primitive->intersect(query) == 0)
            return {};
        return {query.hitT, query.hitNormal, query.hitLocalIndex};
    }

    void findHits(Form form, std::span<Ray const> rays, std::span<Found> found) const {
        // Kept from call to call, as a renderer keeps its bunches; only what is read is set.
        static thread_local Kelpa::RayBunchExtParams params;
        static thread_local Kelpa::RayBunchCommonResult result;
        static thread_local double tMins[listLength];
        static thread_local double tMaxs[listLength];
        static thread_local unsigned char lanes[listLength];
        for (std::size_t i = 0; i < rays.size(); ++i) {
            params.originX[i] = static_cast<double>(rays[i].origin.x);
            params.originY[i] = static_cast<double>(rays[i].origin.y);
            params.originZ[i] = static_cast<double>(rays[i].origin.z);
            params.dirX[i] = rays[i].dir.x;
            params.dirY[i] = rays[i].dir.y;
            params.dirZ[i] = rays[i].dir.z;
            params.time[i] = rays[i].time;
            params.skipIndex[i] = rays[i].skip;
            tMins[i] = 0.0;
            tMaxs[i] = farAway;
            lanes[i] = static_cast<unsigned char>(i);
            result.hit[i] = 0;
            result.hitT[i] = farAway;
        }
        if (form == Form::occlusion) {
            std::uint64_t const occluded =
                primitive->bunchOccluded(params, tMins, tMaxs, lanes, rays.size());
            for (std::size_t i = 0; i < rays.size(); ++i)
                found[i] = (occluded >> i & 1U) != 0 ? Found{0.0, {}, 0} : Found{};
            return;
        }
        result.noHits = true;
        primitive->bunchIntersect(params, result, tMins, tMaxs, lanes, rays.size());
        for (std::size_t i = 0; i < rays.size(); ++i) {
            found[i] = {};
            if (result.hit[i] != 0)
                found[i] = {result.hitT[i],
                            {result.hitNormalX[i], result.hitNormalY[i], result.hitNormalZ[i]},
                            result.hitLocalIndex[i]};
        }
    }

    Kelpa::ParticleData first;
    Kelpa::ParticleData second;
    bool packed;
    // Primitives have no virtual destructor; only a final class is safely owned by a pointer.
    struct Owned final : Primitive {
        using Primitive::Primitive;
    };
    std::unique_ptr<Owned> primitive; // null before the first build
};

} // namespace

std::unique_ptr<Kernel> makeOurs(Scene const& scene, bool packed) {
    if (scene.isMoving())
        return std::make_unique<Ours<Kelpa::MovingParticlePrimitive>>(scene, packed);
    return std::make_unique<Ours<Kelpa::StaticParticlePrimitive>>(scene, packed);
}

std::vector<RaySet> raySets(Scene const& scene, int count) {
    std::unique_ptr<Kernel> const ours = makeOurs(scene);
    ours->build(1);
    std::vector<Ray> camera = cameraRays(count);
    std::vector<Found> hits(camera.size());
    ours->trace(Form::single, 0, camera, hits);
    std::vector<Ray> bounced = bouncedRays(scene, camera, hits, count);
    return {{"camera", std::move(camera)},
            {"bounced", std::move(bounced)},
            {"random", randomRays(count)}};
}

std::vector<RaySet> pictureSets(Scene const& scene, int count) {
    constexpr struct {
        char const* name;
        double zoom;
        int samples;
        ListOrder order;
    } pictures[] = {{"picture", 1.0, 1, ListOrder::pixels},
                    {"16 samples", 1.0, 16, ListOrder::pixels},
                    {"4 pixels x 16", 1.0, 16, ListOrder::samples},
                    {"close-up", 3.0, 1, ListOrder::pixels}};
    std::unique_ptr<Kernel> const ours = makeOurs(scene);
    ours->build(1);
    std::vector<RaySet> sets;
    for (auto const& picture : pictures) {
        std::vector<Ray> seen = pictureRays(picture.zoom, picture.samples, picture.order, count);
        std::vector<Found> hits(seen.size());
        ours->trace(Form::lists, 0, seen, hits);
        std::vector<Ray> shadows = shadowRays(scene, seen, hits);
        sets.push_back({picture.name, std::move(seen)});
        sets.push_back({std::string(picture.name) + " shadow", std::move(shadows)});
    }
    return sets;
}

} // namespace kelpabench
