// Puts particles, their looks and their ways together, and counts what no tree takes.
#include "pipeline/scene/scene.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/errors.h"
#include "pipeline/scene/colormap.h"
#include "pipeline/scene/motion.h"
#include "pipeline/scene/spacing.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace pipeline {

namespace {

using Kelpa::Vector;

// What trees know of when snapshots are taken: the shutter opens and closes with them.
constexpr double firstTime = 0.0;
constexpr double secondTime = 1.0;

double distance(Vector const& a, Vector const& b) {
    double const x = static_cast<double>(a.x) - static_cast<double>(b.x);
    double const y = static_cast<double>(a.y) - static_cast<double>(b.y);
    double const z = static_cast<double>(a.z) - static_cast<double>(b.z);
    return std::sqrt(x * x + y * y + z * z);
}

/// Gives the particles that only the second snapshot has what the others have, behind them.
void appendNewcomers(Scene& scene, std::vector<std::size_t> const& newcomers,
                     ParticleSet const& second, ColorOptions const& options) {
    if (newcomers.empty())
        return;
    std::vector<Vector> const colors = scene.colors.empty()
                                           ? std::vector<Vector>{}
                                           : chooseColors(options, second, scene.colorRange, {});
    for (std::size_t const k : newcomers) {
        scene.ids.push_back(second.ids[k]);
        if (!scene.colors.empty())
            scene.colors.push_back(k < colors.size() ? colors[k] : defaultColor);
    }
}

void noteMatch(Match const& match, std::string const& first, std::string const& second,
               Note const& note) {
    if (!match.hasIds)
        note(fmt::format("no ids in both files: particles of {} and {} are matched by their order",
                         first, second));
    if (match.crossing > 0)
        note({fmt::format("{} particles leave the periodic box and come back on its other side; "
                          "they are drawn going on",
                          match.crossing)});
    if (match.onlyFirst + match.newcomers.size() > 0)
        note({fmt::format("{} particles are only in {}, {} only in {}; they stand still",
                          match.onlyFirst, first, match.newcomers.size(), second)});
}

/// Where particles are while the shutter is open; takes them, and their ids, from `particles`.
Ways findWays(Scene& scene, SceneOptions const& options, ParticleSet& particles,
              ParticleSet const* second, std::vector<float> radii, Note const& note,
              PhaseProgress const& progress) {
    if (second != nullptr) {
        Match const match = matchSnapshots(options.radius, particles, *second, radii, progress);
        noteMatch(match, particles.name, second->name, note);
        scene.ids = std::move(particles.ids);
        appendNewcomers(scene, match.newcomers, *second, options.color);
        return placeAtShutter(match.ways, options.motion, second->steps);
    }
    scene.ids = std::move(particles.ids);
    bool const isNone = scene.sharers != nullptr && particles.positions.empty();
    if (std::holds_alternative<AlongVelocities>(options.motion.motion) && !isNone)
        return waysAlongVelocities(options.motion, particles, radii);
    return {std::move(particles.positions), {}, std::move(radii), {}};
}

/// A snapshot of one particle.
Kelpa::ParticleData snapshotOf(Vector const* position, float const* radius, double time) {
    return {time, 0, position, 1, radius, 1, nullptr, 0};
}

/// Counts a particle that trees leave out, by reason.
void reject(Rejected& rejected, Ways const& ways, std::size_t i) {
    auto const& p1 = ways.positions1.empty() ? ways.positions0 : ways.positions1;
    auto const& r1 = ways.radii1.empty() ? ways.radii0 : ways.radii1;
    float const r0 = ways.radii0[i];
    bool const hasFiniteEnds = isFinite(ways.positions0[i]) && isFinite(p1[i]) &&
                               std::isfinite(r0) && std::isfinite(r1[i]);
    bool const hasRadii = Kelpa::isUsableRadius(r0) && Kelpa::isUsableRadius(r1[i]);
    ++(hasFiniteEnds && !hasRadii ? rejected.notPositive : rejected.notFinite);
}

/// Adds up what the ranks have counted, and how far their particles go; returns the number of all.
std::uint64_t countOfAll(Scene& scene, std::uint64_t count, double& steps) {
    if (scene.sharers == nullptr)
        return count;
    std::int64_t counts[] = {static_cast<std::int64_t>(scene.rejected.notFinite),
                             static_cast<std::int64_t>(scene.rejected.notPositive),
                             static_cast<std::int64_t>(count)};
    scene.sharers->fold(RayTransport::Fold::sum, counts);
    scene.rejected = {static_cast<std::uint64_t>(counts[0]), static_cast<std::uint64_t>(counts[1])};
    double largest[] = {scene.largestStep};
    scene.sharers->takeGreatest(largest);
    scene.largestStep = largest[0];
    std::vector<double> const ofAll = scene.sharers->joined(std::vector<double>{steps});
    steps = std::accumulate(ofAll.begin(), ofAll.end(), 0.0);
    return static_cast<std::uint64_t>(counts[2]);
}

/// Asks which particles trees take, and counts the others; of those, how far they move.
void inspect(Scene& scene, Ways const& ways) {
    bool const isMoving = !ways.positions1.empty();
    auto const& r1 = ways.radii1.empty() ? ways.radii0 : ways.radii1;
    std::size_t const count = ways.positions0.size();
    double steps = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        // Alone in its snapshots: there may be more than those can count.
        System one{snapshotOf(&ways.positions0[i], &ways.radii0[i], firstTime), std::nullopt};
        if (isMoving)
            one.second = snapshotOf(&ways.positions1[i], &r1[i], secondTime);
        if (!isUsable(one, 0)) {
            reject(scene.rejected, ways, i);
            scene.unusable.resize(count);
            scene.unusable[i] = 1;
            continue;
        }
        if (!isMoving)
            continue;
        double const step = distance(ways.positions0[i], ways.positions1[i]);
        steps += step;
        scene.largestStep = std::max(scene.largestStep, step);
    }
    std::uint64_t const total = countOfAll(scene, count, steps);
    if (steps > 0.0 && scene.rejected.total() < total)
        scene.meanStep = steps / static_cast<double>(total - scene.rejected.total());
}

void subtract(std::vector<Vector>& centers, Vec const& origin) {
    if (origin.x == 0.0 && origin.y == 0.0 && origin.z == 0.0)
        return;
    for (Vector& c : centers)
        c = {static_cast<float>(static_cast<double>(c.x) - origin.x),
             static_cast<float>(static_cast<double>(c.y) - origin.y),
             static_cast<float>(static_cast<double>(c.z) - origin.z)};
}

/// Says what the colours of a column mean, and keeps it.
void readColumn(Scene& scene, ColorOptions const& options, Attribute const& column,
                Note const& note) {
    scene.colorColumn = column.name;
    std::string const source = column.source.empty() ? "" : " (" + column.source + ")";
    if (showsKinds(options, column)) {
        note(fmt::format("colours tell the kinds of {}{} apart", column.name, source));
        return;
    }
    auto const& asked = options.range;
    scene.colorRange = asked ? *asked : usualRange(column.values);
    auto const [low, high] = *scene.colorRange;
    note({fmt::format("colours show {}{} from {:.6g} to {:.6g}{}", column.name, source, low, high,
                      asked ? "" : " (1st to 99th percentile)"),
          {asked ? Hint::To::nothing : Hint::To::setRange}});
}

/// A column as it was read: one number, or behind the length of a vector its parts.
ColumnLayer layerOf(ParticleSet const& particles, std::string const& name) {
    auto const& columns = particles.attributes;
    auto const found = std::ranges::find(columns, name, &Attribute::name);
    if (found == columns.end())
        throw InputError(fmt::format("{}: no column '{}'", particles.name, name));
    auto const place = static_cast<std::size_t>(found - columns.begin());
    if (found->source.empty())
        return {name, 1, found->values};
    ColumnLayer layer{name, 3, std::vector<float>(3 * found->values.size())};
    for (std::size_t axis = 0; axis < 3; ++axis)
        for (std::size_t row = 0; row < found->values.size(); ++row)
            layer.values[3 * row + axis] = columns.at(place + 1 + axis).values[row];
    return layer;
}

/// Chooses radii and colours, and tells how.
std::vector<float> dress(Scene& scene, SceneOptions const& options, ParticleSet const& particles,
                         Note const& note, PhaseProgress const& progress) {
    Radii radii = chooseRadii(options.radius, particles, note, progress);
    if (scene.sharers == nullptr) // who share ask for none by spacing, but where they have none
        scene.chosen.radius = radii.bySpacing;
    scene.radiusSource = radii.source;
    if (Attribute const* const column = coloredColumn(options.color, particles))
        readColumn(scene, options.color, *column, note);
    scene.chosen.colorRange = scene.colorRange;
    scene.colors = chooseColors(options.color, particles, scene.colorRange, note);
    scene.color = options.color.color.value_or(defaultColor);
    if (options.hasLegend)
        scene.legend = legendOf(options.color, particles, scene.colors, scene.colorRange);
    if (!options.legendTitle.empty() && scene.legend)
        scene.legend->title = options.legendTitle;
    for (std::string const& name : options.layers)
        scene.layers.push_back(layerOf(particles, name));
    scene.upAxis = particles.upAxis;
    return std::move(radii.all);
}

/// Tells which particles are left out, and how far the others move. Throws when none is left.
void noteUsable(Scene const& scene, std::string const& file, Ways const& ways, Note const& note) {
    Rejected const& rejected = scene.rejected;
    std::int64_t counts[] = {static_cast<std::int64_t>(ways.positions0.size())};
    if (scene.sharers != nullptr)
        scene.sharers->fold(RayTransport::Fold::sum, counts);
    auto const count = static_cast<std::uint64_t>(counts[0]);
    if (rejected.total() > 0)
        note(fmt::format("{} of {} particles skipped ({} not finite, {} with radius 0 or less)",
                         rejected.total(), count, rejected.notFinite, rejected.notPositive));
    if (rejected.total() == count)
        throw InputError(
            fmt::format("{}: no usable particle ({} read, {} not finite, {} with radius 0 or less)",
                        file, count, rejected.notFinite, rejected.notPositive));
    if (scene.largestStep > 0.0) {
        auto const firstTaken = std::find(scene.unusable.begin(), scene.unusable.end(), '\0');
        auto const first = static_cast<std::size_t>(firstTaken - scene.unusable.begin());
        if (first >= ways.radii0.size())
            return; // another rank's
        float const radius = ways.radii0[first];
        note(fmt::format("particles move by {:.3g} on average and {:.3g} at most, {:.3g} radii",
                         scene.meanStep, scene.largestStep,
                         scene.largestStep / static_cast<double>(radius)));
    }
}

/// Makes what trees are built over, in coordinates of the scene's own.
void makeSnapshots(Scene& scene, Ways ways, bool arePoints) {
    scene.origin =
        originFor(FramedSpheres({ways.positions0, ways.radii0}, {ways.positions1, ways.radii1},
                                scene.unusable, {}, scene.sharers)
                      .bounds());
    subtract(ways.positions0, scene.origin);
    subtract(ways.positions1, scene.origin);
    std::int32_t const type = arePoints ? 1 : 0;
    std::int64_t isMoving[] = {ways.positions1.empty() ? 0 : 1};
    if (scene.sharers != nullptr) // of whom one without particles does not know
        scene.sharers->fold(RayTransport::Fold::greatest, isMoving);
    scene.first = std::make_unique<Snapshot>(std::move(ways.positions0), std::move(ways.radii0),
                                             type, firstTime);
    if (isMoving[0] != 0)
        scene.second = std::make_unique<Snapshot>(std::move(ways.positions1),
                                                  std::move(ways.radii1), type, secondTime);
}

/// The cell's edges, in the file's coordinates.
std::vector<Rod> edgesOf(ParticleSet const& particles) {
    if (!particles.cell)
        throw InputError(particles.name + ": has no cell to draw");
    return cellEdges(*particles.cell, particles.copies);
}

} // namespace

std::vector<std::string> columnsOf(SceneOptions const& options) {
    std::vector<std::string> names = columnsOf(options.selection);
    std::vector<std::string> more = options.layers;
    if (!options.color.colorBy.empty())
        more.push_back(options.color.colorBy);
    for (std::string const& name : more)
        if (std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
    return names;
}

bool canBeShared(SceneOptions const& options) {
    return options.ranks != nullptr && options.ranks->ranks() > 1 && options.selection.isAll() &&
           !hasSecondSnapshot(options.motion.motion) && options.radius.ofKinds.empty() &&
           options.color.ofKinds.empty() && !options.hasLegend &&
           (options.color.colorBy.empty() || options.color.range.has_value());
}

bool canBeShared(SceneOptions const& options, ParticleSet const& particles) {
    bool const hasRadii = options.radius.radius.has_value() || !particles.radii.empty() ||
                          !particles.elements.empty();
    Attribute const* const column = coloredColumn(options.color, particles);
    bool const hasNames =
        column != nullptr && column->names != nullptr && column->name != "element";
    std::int64_t facts[] = {hasRadii ? 1 : 0, hasNames || particles.typeNames != nullptr ? 1 : 0};
    options.ranks->fold(RayTransport::Fold::greatest, facts);
    return facts[0] != 0 && facts[1] == 0;
}

Scene makeScene(SceneOptions const& asked, ParticleSet particles, ParticleSet const* second,
                Kept const& kept, Note const& note, PhaseProgress const& progress) {
    SceneOptions options = asked;
    if (kept.radius)
        options.radius.radius = kept.radius;
    if (kept.colorRange)
        options.color.range = kept.colorRange;

    Scene scene;
    scene.sharers = particles.isShare ? options.ranks : nullptr;
    if (options.showsCell)
        scene.rods = edgesOf(particles);
    std::uint64_t const count = particles.positions.size();
    std::vector<float> radii = dress(scene, options, particles, note, progress);
    progress(1.0, count);
    Ways ways = findWays(scene, options, particles, second, std::move(radii), note, progress);
    progress(1.0, count);
    inspect(scene, ways);
    progress(1.0, count);
    noteUsable(scene, particles.name, ways, note);
    makeSnapshots(scene, std::move(ways), options.points);
    scene.rods = seenFrom(scene.origin, std::move(scene.rods));
    return scene;
}

Scene makeSelectedScene(SceneOptions const& options, ParticleSet particles,
                        ParticleSet const* second, Kept const& kept, Note const& note,
                        PhaseProgress const& progress,
                        std::function<void(ParticleSet&)> const& look) {
    // A film shows the second snapshot again, and may then choose others of it.
    std::optional<ParticleSet> selected;
    if (second != nullptr && !options.selection.isAll())
        second = &selected.emplace(*second);
    std::vector<double> sliceCoordinates = kept.sliceCoordinates;
    selectParticles(options.selection, options.radius, particles, selected ? &*selected : nullptr,
                    sliceCoordinates, note, progress);
    if (look)
        look(particles);
    Scene scene = makeScene(options, std::move(particles), second, kept, note, progress);
    scene.chosen.sliceCoordinates = std::move(sliceCoordinates);
    return scene;
}

} // namespace pipeline
