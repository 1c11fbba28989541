// Joins the systems of a tree to one scene without building anything again.
#include "python/native/scene.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

namespace kelpapython {

namespace {

using Kelpa::Vector;

/// A tree over several systems, asked as if they were one: reported indices become the places of
/// particles in the scene, and back.
class FlatGeometry final : public pipeline::Geometry {
  public:
    FlatGeometry(pipeline::Geometry& asked, std::vector<System> const& systems) : geometry(asked) {
        std::int64_t first = 0;
        for (System const& system : systems) {
            if (system.first.numParticles > 0)
                ranges.push_back({first, system.base, system.first.numParticles});
            first += system.first.numParticles;
        }
        isSame = std::all_of(ranges.begin(), ranges.end(),
                             [](Range const& r) { return r.first == r.base; });
        byBase = ranges;
        std::sort(byBase.begin(), byBase.end(),
                  [](Range const& a, Range const& b) { return a.base < b.base; });
    }

    bool bunchIntersect(Kelpa::RayBunchExtParams const& rays, Kelpa::RayBunchCommonResult& hits,
                        double* tMins, double* tMaxs, unsigned char const* lanes,
                        unsigned long numLanes) override {
        Kelpa::RayBunchExtParams named;
        bool const found = geometry.bunchIntersect(naming(rays, named, lanes, numLanes), hits,
                                                   tMins, tMaxs, lanes, numLanes);
        for (unsigned long i = 0; i < numLanes; ++i)
            if (hits.hit[lanes[i]] != 0)
                hits.hitLocalIndex[lanes[i]] = place(hits.hitIndex[lanes[i]]);
        return found;
    }

    std::uint64_t bunchOccluded(Kelpa::RayBunchExtParams const& rays, double const* tMins,
                                double const* tMaxs, unsigned char const* lanes,
                                unsigned long numLanes) override {
        Kelpa::RayBunchExtParams named;
        return geometry.bunchOccluded(naming(rays, named, lanes, numLanes), tMins, tMaxs, lanes,
                                      numLanes);
    }

    // What else scenes are asked for, pictures do not ask.
    void build(Kelpa::ProgressCallback&, Kelpa::ThreadManager*,
               pipeline::TreeOptions const&) override {}
    int intersect(Kelpa::RSRay& ray) override { return geometry.intersect(ray); }
    std::optional<pipeline::Bounds> bounds() override { return geometry.bounds(); }
    std::optional<pipeline::Bounds> motionBounds() override { return geometry.motionBounds(); }
    pipeline::TreeStatistics statistics() override { return geometry.statistics(); }

  private:
    struct Range {
        std::int64_t first; ///< place of the system's first particle in the scene
        std::int64_t base;  ///< its reported index
        std::int64_t count;
    };

    /// The rays with reported indices of the particles that they skip.
    Kelpa::RayBunchExtParams const& naming(Kelpa::RayBunchExtParams const& rays,
                                           Kelpa::RayBunchExtParams& named,
                                           unsigned char const* lanes,
                                           unsigned long numLanes) const {
        if (isSame)
            return rays;
        named = rays;
        for (unsigned long i = 0; i < numLanes; ++i)
            named.skipIndex[lanes[i]] = reported(rays.skipIndex[lanes[i]]);
        return named;
    }
    std::int64_t reported(std::int64_t place) const {
        if (place < 0)
            return place;
        auto const behind =
            std::upper_bound(ranges.begin(), ranges.end(), place,
                             [](std::int64_t p, Range const& range) { return p < range.first; });
        return (behind - 1)->base + (place - (behind - 1)->first);
    }
    std::int32_t place(std::int64_t index) const {
        auto const behind =
            std::upper_bound(byBase.begin(), byBase.end(), index,
                             [](std::int64_t i, Range const& range) { return i < range.base; });
        return static_cast<std::int32_t>((behind - 1)->first + (index - (behind - 1)->base));
    }

    pipeline::Geometry& geometry;
    std::vector<Range> ranges; ///< in the order of the scene
    std::vector<Range> byBase;
    bool isSame = false;
};

/// Calls `visit(center, radius)` for all usable particles, of moving ones for both snapshots.
template <class Visit> void forEachUsable(std::vector<System> const& systems, Visit const& visit) {
    for (System const& system : systems)
        for (std::int32_t i = 0; i < system.first.numParticles; ++i)
            if (isUsable(system, i)) {
                visit(system.first.positions[i], system.first.radii[i]);
                if (system.second)
                    visit(system.second->positions[i], system.second->radii[i]);
            }
}

std::unique_ptr<Kelpa::ParticleSystem> joined(std::vector<System> const& systems, bool isSecond) {
    std::vector<Vector> positions;
    std::vector<float> radii;
    for (System const& system : systems) {
        Kelpa::ParticleData const& data = isSecond ? *system.second : system.first;
        positions.insert(positions.end(), data.positions, data.positions + data.numParticles);
        radii.insert(radii.end(), data.radii, data.radii + data.numParticles);
    }
    return std::make_unique<Kelpa::ParticleSystem>(std::move(positions), std::move(radii));
}

} // namespace

pipeline::Vec originOf(std::vector<System> const& systems) {
    std::optional<pipeline::Bounds> bounds;
    forEachUsable(systems, [&bounds](Vector const& center, float) {
        pipeline::Vec const c = pipeline::wide(center);
        if (!bounds)
            bounds = {c, c};
        bounds->min = {std::min(bounds->min.x, c.x), std::min(bounds->min.y, c.y),
                       std::min(bounds->min.z, c.z)};
        bounds->max = {std::max(bounds->max.x, c.x), std::max(bounds->max.y, c.y),
                       std::max(bounds->max.z, c.z)};
    });
    return bounds ? pipeline::originFor(*bounds) : pipeline::Vec{};
}

pipeline::Scene makeScene(pipeline::Geometry& geometry, std::vector<System> const& systems,
                          pipeline::Vec const& origin) {
    pipeline::Scene scene;
    scene.first = joined(systems, false);
    if (!systems.empty() && systems[0].second)
        scene.second = joined(systems, true);
    scene.geometry = std::make_unique<FlatGeometry>(geometry, systems);
    scene.origin = origin;
    forEachUsable(systems, [&scene](Vector const& center, float radius) {
        scene.framedCenters.push_back(center);
        scene.framedRadii.push_back(radius);
    });
    if (scene.framedCenters.empty()) { // an empty scene is seen from somewhere
        scene.framedCenters.push_back({0.0F, 0.0F, 0.0F});
        scene.framedRadii.push_back(1.0F);
    }
    return scene;
}

void setColor(pipeline::Scene& scene, std::vector<System> const& systems, Vector const& color) {
    bool const isSame = color.x == scene.color.x && color.y == scene.color.y &&
                        color.z == scene.color.z && !scene.colors.empty();
    auto const hasColors = [](System const& s) { return s.first.numColors > 0; };
    scene.color = color;
    if (isSame || std::none_of(systems.begin(), systems.end(), hasColors))
        return;
    scene.colors.clear();
    for (System const& system : systems)
        if (hasColors(system))
            scene.colors.insert(scene.colors.end(), system.first.colors,
                                system.first.colors + system.first.numParticles);
        else
            scene.colors.insert(scene.colors.end(),
                                static_cast<std::size_t>(system.first.numParticles), color);
}

} // namespace kelpapython
