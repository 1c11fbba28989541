// A primitive's particles for a page in the browser.
#include "python/native/treesource.h"

#include "pipeline/scene/selection.h"

#include "python/native/scene.h"
#include "view/sceneparts.h"

#include <algorithm>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace kelpapython {

namespace {

using pipeline::Vec;
using namespace pipeline::view;

using RowNumbers = std::vector<std::int64_t>;

/// The rows whose centres a cut leaves.
RowNumbers rowsBehind(std::optional<Cut> const& cut, std::vector<System> const& systems,
                      Vec const& origin) {
    std::vector<pipeline::Slice> const planes =
        cut ? planesOf(*cut) : std::vector<pipeline::Slice>();
    RowNumbers rows;
    std::int64_t row = 0;
    for (System const& system : systems)
        for (std::int32_t i = 0; i < system.first.numParticles; ++i, ++row) {
            Vec const center = pipeline::wide(system.first.positions[i]) + origin;
            bool isLeft = true;
            for (pipeline::Slice const& plane : planes)
                isLeft = isLeft && dot(plane.normal, center) <= plane.at;
            if (isLeft)
                rows.push_back(row);
        }
    if (rows.empty() && row > 0)
        throw std::runtime_error("none of " + std::to_string(row) + " particles is selected");
    return rows;
}

/// The row that a scene has in a place, among those that it was made of.
std::int64_t rowAt(pipeline::Scene const& scene, std::int64_t place) {
    return scene.rows != nullptr ? (*scene.rows)[place] : place;
}

/// Some rows of a system, in arrays of their own.
struct Part {
    std::vector<Kelpa::Vector> positions, positions1;
    std::vector<float> radii, radii1;
    System system;

    Part(System const& whole, std::span<std::int64_t const> rows, std::int64_t firstRow,
         float scale)
        : system(whole) {
        take(system.first, positions, radii, rows, firstRow, scale);
        if (system.second)
            take(*system.second, positions1, radii1, rows, firstRow, scale);
    }

  private:
    static void take(Kelpa::ParticleData& data, std::vector<Kelpa::Vector>& centers,
                     std::vector<float>& sizes, std::span<std::int64_t const> rows,
                     std::int64_t firstRow, float scale) {
        for (std::int64_t const row : rows) {
            centers.push_back(data.positions[row - firstRow]);
            sizes.push_back(data.radii[row - firstRow] * scale);
        }
        auto const count = static_cast<std::int32_t>(rows.size());
        data = {data.sampleTime, data.particleType,
                centers.data(),  count,
                sizes.data(),    count,
                nullptr,         0};
    }
};

/// A scene of these rows, whose tree is not built.
pipeline::Scene sceneOf(std::vector<System> const& systems, Vec const& origin,
                        RowNumbers const& rows, float scale) {
    std::vector<System> taken;
    std::vector<std::unique_ptr<Part>> parts;
    std::int64_t first = 0;
    auto begin = rows.begin();
    for (System const& system : systems) {
        std::int64_t const behind = first + system.first.numParticles;
        auto const end = std::lower_bound(begin, rows.end(), behind);
        parts.push_back(std::make_unique<Part>(system, std::span(begin, end), first, scale));
        taken.push_back(parts.back()->system);
        begin = end;
        first = behind;
    }
    pipeline::Scene scene = makeScene(taken, origin);
    if (canBeParted(taken))
        return scene;
    // Types differ, so there is one tree, over the copies that the scene holds of all systems.
    std::int64_t row = 0;
    for (System& system : taken) {
        std::int32_t const count = system.first.numParticles;
        auto const lieIn = [&](Kelpa::ParticleData& data, pipeline::Snapshot const& all) {
            data.positions = all.positions.data() + row;
            data.radii = all.radii.data() + row;
        };
        lieIn(system.first, *scene.first);
        if (system.second)
            lieIn(*system.second, *scene.second);
        system.base = row;
        row += count;
    }
    scene.geometry = pipeline::makeGeometry(std::move(taken));
    return scene;
}

/// The box around all centres, in the arrays' coordinates.
pipeline::Bounds extentOfAll(std::vector<System> const& systems, Vec const& origin) {
    pipeline::Bounds extent;
    for (System const& system : systems)
        extent.add(extentOf(
            {system.first.positions, static_cast<std::size_t>(system.first.numParticles)}));
    return {extent.min + origin, extent.max + origin};
}

/// The colours that the systems have of their own; none where none has.
std::vector<Kelpa::Vector> ownColors(std::vector<System> const& systems,
                                     Kelpa::Vector const& otherwise) {
    std::vector<Kelpa::Vector> colors;
    bool const areAllPlain = std::all_of(systems.begin(), systems.end(),
                                         [](System const& s) { return s.first.numColors == 0; });
    if (areAllPlain)
        return colors;
    for (System const& system : systems) {
        Kelpa::Vector const* const own = system.first.colors;
        for (std::int32_t i = 0; i < system.first.numParticles; ++i)
            colors.push_back(system.first.numColors > 0 ? own[i] : otherwise);
    }
    return colors;
}

template <class Value> void keepRows(std::vector<Value>& values, RowNumbers const& rows) {
    if (values.empty())
        return;
    std::size_t kept = 0;
    for (std::int64_t const row : rows) // which rise
        values[kept++] = values[static_cast<std::size_t>(row)];
    values.resize(kept);
}

} // namespace

TreeSource::TreeSource(Tree& shown, Told facts, int threadCount)
    : tree(shown), told(std::move(facts)), threads(threadCount) {
}

std::shared_ptr<Shown> TreeSource::load(SceneChoice const& choice, Report const& report) {
    auto shown = std::make_shared<Shown>();
    shown->choice = choice;
    std::vector<System> const& systems = tree.allSystems();
    RowNumbers const rows = rowsBehind(choice.cut, systems, tree.subtracted());
    report("choosing particles", 1.0);
    pipeline::Scene& scene = shown->scene;
    if (!choice.cut && choice.radiusScale == 1.0F) {
        scene = tree.lendScene();
    } else {
        scene = sceneOf(systems, tree.subtracted(), rows, choice.radiusScale);
        build(scene, {}, threads, report);
    }
    scene.upAxis = told.upAxis;
    if (!told.ids.empty() || choice.cut)
        for (std::int64_t place = 0; place < scene.first->size(); ++place)
            scene.ids.push_back(idOf(rows[static_cast<std::size_t>(rowAt(scene, place))]));
    Recoloring made = recolored(*shown, choice, report);
    scene.colors = std::move(made.colors);
    scene.color = made.color;
    scene.colorColumn = std::move(made.column);
    scene.colorRange = made.range;
    shown->stops = std::move(made.stops);
    shown->facts.file = told.title;
    shown->facts.columns = told.columns;
    shown->facts.particles = rows.size();
    for (System const& system : systems)
        shown->facts.ofParticles += static_cast<std::size_t>(system.first.numParticles);
    shown->extent = extentOfAll(systems, tree.subtracted());
    measure(*shown);
    return shown;
}

std::int64_t TreeSource::idOf(std::int64_t row) const {
    return told.ids.empty() ? row : told.ids[static_cast<std::size_t>(row)];
}

Recoloring TreeSource::recolored(Shown const& shown, SceneChoice const& choice,
                                 Report const& report) {
    report("choosing colours", -1.0);
    std::vector<System> const& systems = tree.allSystems();
    pipeline::ColorOptions options;
    pipeline::ParticleSet particles;
    if (choice.colorBy.empty()) {
        particles.colors = ownColors(systems, told.color);
        if (particles.colors.empty())
            options.color = told.color;
    } else {
        particles.attributes.push_back(told.column(choice.colorBy));
    }
    if (choice.cut) {
        RowNumbers const rows = rowsBehind(choice.cut, systems, tree.subtracted());
        keepRows(particles.colors, rows);
        for (pipeline::Attribute& column : particles.attributes)
            keepRows(column.values, rows);
    }
    choose(choice, options);
    return recoloringOf(options, std::move(particles), shown.scene);
}

Row TreeSource::rowOf(Shown const& shown, std::size_t place, Report const&) {
    std::int64_t const row = rowAt(shown.scene, static_cast<std::int64_t>(place));
    if (!shown.choice.cut)
        return told.row(row);
    RowNumbers const rows = rowsBehind(shown.choice.cut, tree.allSystems(), tree.subtracted());
    return told.row(rows[static_cast<std::size_t>(row)]);
}

std::vector<int> TreeSource::frames(Report const&) {
    return {};
}

} // namespace kelpapython
