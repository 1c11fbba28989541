// Joins the systems of a tree to one scene without building anything again.
#include "python/native/scene.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

namespace kelpapython {

namespace {

using Kelpa::Vector;

/// How particles are called: by reported indices, or by their rows among those of all systems.
class Names {
  public:
    explicit Names(std::vector<System> const& systems) {
        std::int64_t first = 0;
        for (System const& system : systems) {
            if (system.first.numParticles > 0)
                ranges.push_back({first, system.base, system.first.numParticles});
            first += system.first.numParticles;
        }
        areSame = std::all_of(ranges.begin(), ranges.end(),
                              [](Range const& r) { return r.first == r.base; });
        byBase = ranges;
        std::sort(byBase.begin(), byBase.end(),
                  [](Range const& a, Range const& b) { return a.base < b.base; });
    }

    bool areAllSame() const { return areSame; }
    std::int64_t reported(std::int64_t row) const {
        if (row < 0)
            return row;
        auto const behind =
            std::upper_bound(ranges.begin(), ranges.end(), row,
                             [](std::int64_t r, Range const& range) { return r < range.first; });
        return (behind - 1)->base + (row - (behind - 1)->first);
    }
    /// The row of a reported index; -1 for a number that no particle has.
    std::int64_t rowOf(std::int64_t index) const {
        auto const behind =
            std::upper_bound(byBase.begin(), byBase.end(), index,
                             [](std::int64_t i, Range const& range) { return i < range.base; });
        if (behind == byBase.begin() || index - (behind - 1)->base >= (behind - 1)->count)
            return -1;
        return (behind - 1)->first + (index - (behind - 1)->base);
    }

  private:
    struct Range {
        std::int64_t first; ///< row of the system's first particle
        std::int64_t base;  ///< its reported index
        std::int64_t count;
    };

    std::vector<Range> ranges; ///< by rows
    std::vector<Range> byBase;
    bool areSame = false;
};

/// A geometry that calls particles otherwise than the one that it asks, lane by lane.
class RenamedGeometry : public pipeline::Geometry {
  public:
    explicit RenamedGeometry(pipeline::Geometry& asked) : geometry(asked) {}

    int intersect(Kelpa::RSRay& ray) override {
        std::int64_t const skip = std::exchange(ray.skipIndex, inner(ray.skipIndex));
        int const code = geometry.intersect(ray);
        ray.skipIndex = skip;
        if (code != 0)
            ray.hitIndex = outer(ray.hitIndex);
        return code;
    }

    bool bunchIntersect(Kelpa::RayBunchExtParams const& rays, Kelpa::RayBunchCommonResult& hits,
                        double* tMins, double* tMaxs, unsigned char const* lanes,
                        unsigned long numLanes) override {
        Kelpa::RayBunchExtParams renamed;
        bool const found = geometry.bunchIntersect(renaming(rays, renamed, lanes, numLanes), hits,
                                                   tMins, tMaxs, lanes, numLanes);
        for (unsigned long i = 0; i < numLanes; ++i)
            if (hits.hit[lanes[i]] != 0)
                hits.hitIndex[lanes[i]] = outer(hits.hitIndex[lanes[i]]);
        return found;
    }

    std::uint64_t bunchOccluded(Kelpa::RayBunchExtParams const& rays, double const* tMins,
                                double const* tMaxs, unsigned char const* lanes,
                                unsigned long numLanes) override {
        Kelpa::RayBunchExtParams renamed;
        return geometry.bunchOccluded(renaming(rays, renamed, lanes, numLanes), tMins, tMaxs, lanes,
                                      numLanes);
    }

    void build(pipeline::BuildRun const&, pipeline::TreeOptions const&) override {} // is built
    std::optional<pipeline::Bounds> bounds() override { return geometry.bounds(); }
    std::optional<pipeline::Bounds> motionBounds() override { return geometry.motionBounds(); }
    pipeline::TreeStatistics statistics() override { return geometry.statistics(); }
    std::vector<std::string> takeNotes() override { return geometry.takeNotes(); }

  private:
    /// The number in the geometry that is asked, and the way back.
    virtual std::int64_t inner(std::int64_t number) const = 0;
    virtual std::int64_t outer(std::int64_t number) const = 0;
    virtual bool isSame() const { return false; }

    Kelpa::RayBunchExtParams const& renaming(Kelpa::RayBunchExtParams const& rays,
                                             Kelpa::RayBunchExtParams& renamed,
                                             unsigned char const* lanes,
                                             unsigned long numLanes) const {
        if (isSame())
            return rays;
        renamed = rays;
        for (unsigned long i = 0; i < numLanes; ++i)
            renamed.skipIndex[lanes[i]] = inner(rays.skipIndex[lanes[i]]);
        return renamed;
    }

    pipeline::Geometry& geometry;
};

/// A tree over several systems, asked by a picture, which calls particles by their rows.
class TreeByRows final : public RenamedGeometry {
  public:
    TreeByRows(pipeline::Geometry& tree, std::vector<System> const& systems)
        : RenamedGeometry(tree), names(systems) {}

  private:
    std::int64_t inner(std::int64_t row) const override { return names.reported(row); }
    std::int64_t outer(std::int64_t index) const override { return names.rowOf(index); }
    bool isSame() const override { return names.areAllSame(); }

    Names names;
};

/// The blocks of a scene, asked by those who call particles by their reported indices.
class BlocksByIndex final : public RenamedGeometry {
  public:
    BlocksByIndex(pipeline::Scene& scene, std::vector<System> const& systems)
        : RenamedGeometry(*scene.geometry), names(systems),
          rows(scene.rows != nullptr ? scene.rows : std::make_shared<pipeline::Rows const>()),
          places(static_cast<std::size_t>(scene.first->size())) {
        for (std::int64_t place = 0; place < scene.first->size(); ++place)
            places.set(static_cast<std::size_t>((*rows)[place]), static_cast<std::size_t>(place));
    }

  private:
    std::int64_t inner(std::int64_t index) const override {
        std::int64_t const row = names.rowOf(index);
        return row < 0 ? row : places[row];
    }
    std::int64_t outer(std::int64_t place) const override { return names.reported((*rows)[place]); }

    Names names;
    std::shared_ptr<pipeline::Rows const> rows;
    pipeline::Rows places; ///< of rows
};

/// The same geometry in another's hand.
class Borrowed final : public RenamedGeometry {
  public:
    using RenamedGeometry::RenamedGeometry;

  private:
    std::int64_t inner(std::int64_t place) const override { return place; }
    std::int64_t outer(std::int64_t place) const override { return place; }
    bool isSame() const override { return true; }
};

/// Not 0 for particles that no tree takes; empty: all are taken.
std::vector<char> unusableOf(std::vector<System> const& systems) {
    std::vector<char> unusable;
    for (System const& system : systems)
        for (std::int32_t i = 0; i < system.first.numParticles; ++i)
            unusable.push_back(isUsable(system, i) ? 0 : 1);
    if (std::find(unusable.begin(), unusable.end(), 1) == unusable.end())
        unusable.clear();
    return unusable;
}

std::unique_ptr<pipeline::Snapshot> joined(std::vector<System> const& systems, bool isSecond) {
    std::vector<Vector> positions;
    std::vector<float> radii;
    Kelpa::ParticleData const* any = nullptr;
    for (System const& system : systems) {
        Kelpa::ParticleData const& data = isSecond ? *system.second : system.first;
        positions.insert(positions.end(), data.positions, data.positions + data.numParticles);
        radii.insert(radii.end(), data.radii, data.radii + data.numParticles);
        any = &data;
    }
    return std::make_unique<pipeline::Snapshot>(std::move(positions), std::move(radii),
                                                any != nullptr ? any->particleType : 0,
                                                any != nullptr ? any->sampleTime : 0.0);
}

} // namespace

pipeline::Vec originOf(std::vector<System> const& systems) {
    pipeline::Bounds bounds;
    bool isEmpty = true;
    for (System const& system : systems)
        for (std::int32_t i = 0; i < system.first.numParticles; ++i)
            if (isUsable(system, i)) {
                isEmpty = false;
                bounds.add(pipeline::wide(system.first.positions[i]));
                if (system.second)
                    bounds.add(pipeline::wide(system.second->positions[i]));
            }
    return isEmpty ? pipeline::Vec{} : pipeline::originFor(bounds);
}

bool canBeParted(std::vector<System> const& systems) {
    auto const isLikeFirst = [&](System const& system) {
        System const& first = systems.front();
        return system.first.particleType == first.first.particleType &&
               system.first.sampleTime == first.first.sampleTime &&
               (!system.second || system.second->sampleTime == first.second->sampleTime);
    };
    return std::all_of(systems.begin(), systems.end(), isLikeFirst);
}

std::unique_ptr<pipeline::Geometry> blocksByIndex(pipeline::Scene& scene,
                                                  std::vector<System> const& systems) {
    return std::make_unique<BlocksByIndex>(scene, systems);
}

std::unique_ptr<pipeline::Geometry> treeByRows(pipeline::Geometry& tree,
                                               std::vector<System> const& systems) {
    return std::make_unique<TreeByRows>(tree, systems);
}

pipeline::Scene makeScene(std::vector<System> const& systems, pipeline::Vec const& origin) {
    pipeline::Scene scene;
    scene.first = joined(systems, false);
    if (!systems.empty() && systems[0].second)
        scene.second = joined(systems, true);
    scene.origin = origin;
    scene.unusable = unusableOf(systems);
    return scene;
}

pipeline::Scene borrowed(pipeline::Scene const& scene) {
    pipeline::Scene own;
    own.first = std::make_unique<pipeline::Snapshot>(*scene.first);
    if (scene.second != nullptr)
        own.second = std::make_unique<pipeline::Snapshot>(*scene.second);
    own.rows = scene.rows;
    own.origin = scene.origin;
    own.unusable = scene.unusable;
    own.geometry = std::make_unique<Borrowed>(*scene.geometry);
    return own;
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
    if (scene.rows == nullptr)
        return;
    std::vector<Vector> const byRow = std::exchange(scene.colors, {});
    for (std::size_t place = 0; place < byRow.size(); ++place)
        scene.colors.push_back(
            byRow[static_cast<std::size_t>((*scene.rows)[static_cast<std::int64_t>(place)])]);
}

} // namespace kelpapython
