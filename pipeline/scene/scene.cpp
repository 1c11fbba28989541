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

namespace kelpatool {

namespace {

using Kelpa::Vector;

// A calm blue that takes light and shadow well.
constexpr Vector defaultColor = {0.26F, 0.42F, 0.62F};

constexpr float smallestRadius = 1e-15F; // what trees take

bool isFinite(Vector const& v) {
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

Vector lerp(Vector const& a, Vector const& b, double f) {
    auto const mix = [f](float from, float to) {
        return static_cast<float>(static_cast<double>(from) +
                                  (static_cast<double>(to) - static_cast<double>(from)) * f);
    };
    return {mix(a.x, b.x), mix(a.y, b.y), mix(a.z, b.z)};
}

double distance(Vector const& a, Vector const& b) {
    double const x = static_cast<double>(a.x) - static_cast<double>(b.x);
    double const y = static_cast<double>(a.y) - static_cast<double>(b.y);
    double const z = static_cast<double>(a.z) - static_cast<double>(b.z);
    return std::sqrt(x * x + y * y + z * z);
}

/// Particles at the two ends of their way while the shutter is open.
struct Ways {
    std::vector<Vector> positions0;
    std::vector<Vector> positions1;
    std::vector<float> radii0;
    std::vector<float> radii1;
};

std::vector<float> elementRadii(RadiusOptions const& options, ParticleSet const& particles) {
    std::vector<float> radii(particles.elements.size());
    std::transform(particles.elements.begin(), particles.elements.end(), radii.begin(),
                   [&](std::uint8_t element) {
                       return particles.angstrom * elementRadius(element, options.covalent);
                   });
    return radii;
}

/// The column to colour by, or null.
Attribute const* coloredColumn(SceneOptions const& options, ParticleSet const& particles) {
    auto const column =
        std::find_if(particles.attributes.begin(), particles.attributes.end(),
                     [&](Attribute const& a) { return a.name == options.color.colorBy; });
    return column == particles.attributes.end() ? nullptr : &*column;
}

std::vector<Vector> chooseColors(SceneOptions const& options, ParticleSet const& particles,
                                 std::optional<std::array<float, 2>> const& range) {
    if (options.color.color)
        return {};
    if (!options.color.colorBy.empty()) {
        Attribute const* const column = coloredColumn(options, particles);
        if (column == nullptr)
            throw InputError(fmt::format("{}: no column '{}' to colour by", particles.name,
                                         options.color.colorBy));
        return mapColors(column->values, range);
    }
    if (!particles.colors.empty())
        return particles.colors;
    if (particles.elements.empty())
        return mapTypes(particles.types);
    std::vector<Vector> colors(particles.elements.size());
    std::transform(particles.elements.begin(), particles.elements.end(), colors.begin(),
                   elementColor);
    return colors;
}

std::array<double, 2> shutterOf(MotionOptions const& motion, bool hasSecond) {
    if (motion.shutter)
        return *motion.shutter;
    // Half the way: the 180 degrees of a film camera.
    double const open = hasSecond ? motion.times[0] : 0.0;
    double const frame = hasSecond ? motion.times[1] - motion.times[0] : 1.0;
    return {open, open + 0.5 * frame};
}

/// Where the velocities take the particles while the shutter is open.
Ways waysAlongVelocities(SceneOptions const& options, ParticleSet const& particles,
                         std::vector<float> const& radii) {
    if (particles.velocities.empty())
        throw InputError(
            fmt::format("{}: no velocities (vx vy vz) for --motion velocity", particles.name));
    std::array<double, 2> const shutter = shutterOf(options.motion, false);
    // Caches of film effects have velocities per second, and a shutter opens per frame.
    double const dt = options.motion.dt.value_or(particles.upAxis == 'y' ? 1.0 / 24.0 : 1.0);
    auto const moved = [&](double time) {
        std::vector<Vector> positions(particles.positions.size());
        double const step = time * dt;
        for (std::size_t i = 0; i < positions.size(); ++i) {
            Vector const& p = particles.positions[i];
            Vector const& v = particles.velocities[i];
            auto const along = [step](float from, float speed) {
                return static_cast<float>(static_cast<double>(from) +
                                          static_cast<double>(speed) * step);
            };
            positions[i] = {along(p.x, v.x), along(p.y, v.y), along(p.z, v.z)};
        }
        return positions;
    };
    return {moved(shutter[0]), moved(shutter[1]), radii, radii};
}

/// What one particle does between two snapshots.
struct Way {
    Vector from;
    Vector to;
    float radiusFrom;
    float radiusTo;
};

/// Matches two snapshots. Particles that only one of them has stand still where it has them; those
/// of the second only are added to `particles`, `radii` and `colors`.
Ways waysBetween(SceneOptions const& options, ParticleSet& particles, ParticleSet const& second,
                 std::vector<float>& radii, std::vector<Vector>& colors,
                 std::optional<std::array<float, 2>> const& colorRange, Note const& note,
                 PhaseProgress const& progress) {
    std::string const& file0 = particles.name;
    std::string const& file1 = second.name;
    bool const hasIds = !particles.ids.empty() && !second.ids.empty();
    if (!hasIds && particles.positions.size() != second.positions.size())
        throw InputError(
            fmt::format("{} has {} particles and {} has {}, and there are no ids to match them by; "
                        "use --motion none",
                        file0, particles.positions.size(), file1, second.positions.size()));
    if (!hasIds)
        note(fmt::format("no ids in both files: particles of {} and {} are matched by their order",
                         file0, file1));
    bool const hasRadii =
        !second.radii.empty() && !options.radius.radius && !particles.radii.empty();
    auto const secondRadius = [&](std::size_t i, float otherwise) {
        return hasRadii ? second.radii[i] * options.radius.scale : otherwise;
    };

    std::vector<std::int64_t> const indices = findPartners(particles, second);
    PeriodicWays periodic(particles, second);
    progress(1.0, indices.size());
    std::vector<bool> isMatched(second.positions.size(), false);
    std::vector<Way> ways(indices.size());
    std::uint64_t onlyFirst = 0;
    for (std::size_t i = 0; i < indices.size(); ++i) {
        ways[i] = {particles.positions[i], particles.positions[i], radii[i], radii[i]};
        if (indices[i] < 0) {
            ++onlyFirst;
            continue;
        }
        auto const k = static_cast<std::size_t>(indices[i]);
        isMatched[k] = true;
        ways[i].to = periodic.end(i, k);
        ways[i].radiusTo = secondRadius(k, radii[i]);
    }
    if (periodic.crossingCount() > 0)
        note(fmt::format("{} particles leave the periodic box and come back on its other side; "
                         "they are drawn going on",
                         periodic.crossingCount()));
    std::uint64_t onlySecond = 0;
    float const usual = radii.empty() ? 1.0F : radii[radii.size() / 2];
    bool const hasNew = std::find(isMatched.begin(), isMatched.end(), false) != isMatched.end();
    std::vector<Vector> const secondColors = hasNew && !colors.empty()
                                                 ? chooseColors(options, second, colorRange)
                                                 : std::vector<Vector>{};
    bool const isByElement =
        particles.radii.empty() && !options.radius.radius && !second.elements.empty();
    std::vector<float> const secondElementRadii =
        hasNew && isByElement ? elementRadii(options.radius, second) : std::vector<float>{};
    for (std::size_t k = 0; k < isMatched.size(); ++k) {
        if (isMatched[k])
            continue;
        ++onlySecond;
        float const r = secondElementRadii.empty() ? secondRadius(k, usual)
                                                   : secondElementRadii[k] * options.radius.scale;
        ways.push_back({second.positions[k], second.positions[k], r, r});
        particles.ids.push_back(second.ids[k]);
        if (!colors.empty())
            colors.push_back(k < secondColors.size() ? secondColors[k] : defaultColor);
    }
    if (onlyFirst + onlySecond > 0)
        note(fmt::format("{} particles are only in {}, {} only in {}; they stand still", onlyFirst,
                         file0, onlySecond, file1));

    auto const& times = options.motion.times;
    std::array<double, 2> const shutter = shutterOf(options.motion, true);
    // Where frames are missing in between, the way to the second one takes longer.
    double const time = (times[1] - times[0]) * second.steps;
    double const f0 = (shutter[0] - times[0]) / time;
    double const f1 = (shutter[1] - times[0]) / time;
    Ways placed;
    for (Way const& way : ways) {
        auto const radiusAt = [&way](double f) {
            return static_cast<float>(static_cast<double>(way.radiusFrom) * (1.0 - f) +
                                      static_cast<double>(way.radiusTo) * f);
        };
        placed.positions0.push_back(lerp(way.from, way.to, f0));
        placed.positions1.push_back(lerp(way.from, way.to, f1));
        placed.radii0.push_back(way.radiusFrom == way.radiusTo ? way.radiusFrom : radiusAt(f0));
        placed.radii1.push_back(way.radiusFrom == way.radiusTo ? way.radiusFrom : radiusAt(f1));
    }
    return placed;
}

/// Tells apart why particles are left out, by the rules of the trees, and collects the others for
/// framing, each at both ends of its way.
void inspect(Scene& scene, Ways const& ways) {
    auto const& p1 = ways.positions1.empty() ? ways.positions0 : ways.positions1;
    auto const& r1 = ways.radii1.empty() ? ways.radii0 : ways.radii1;
    double steps = 0.0;
    for (std::size_t i = 0; i < ways.positions0.size(); ++i) {
        float const r0 = ways.radii0[i];
        if (!isFinite(ways.positions0[i]) || !isFinite(p1[i]) || !std::isfinite(r0) ||
            !std::isfinite(r1[i])) {
            ++scene.rejected.notFinite;
        } else if (r0 < smallestRadius || r1[i] < smallestRadius) {
            ++scene.rejected.notPositive;
        } else {
            scene.framedCenters.push_back(ways.positions0[i]);
            scene.framedRadii.push_back(r0);
            if (ways.positions1.empty())
                continue;
            scene.framedCenters.push_back(p1[i]);
            scene.framedRadii.push_back(r1[i]);
            double const step = distance(ways.positions0[i], p1[i]);
            steps += step;
            scene.largestStep = std::max(scene.largestStep, step);
        }
    }
    if (!scene.framedCenters.empty())
        scene.meanStep = steps / (static_cast<double>(scene.framedCenters.size()) / 2.0);
}

/// What to subtract from all centres: nothing, unless they lie far off compared with their extent.
///
/// Decided axis by axis. Where it is not zero all coordinates are within a factor of two of it, so
/// that the differences are exact (P. Sterbenz, "Floating-Point Computation", 1974).
Vec originFor(std::vector<Vector> const& centers) {
    constexpr double farOff = 4.0;
    auto const along = [&centers](auto coordinate) {
        auto const less = [&](Vector const& a, Vector const& b) {
            return coordinate(a) < coordinate(b);
        };
        auto const [low, high] = std::minmax_element(centers.begin(), centers.end(), less);
        double const min = static_cast<double>(coordinate(*low));
        double const max = static_cast<double>(coordinate(*high));
        double const middle = (min + max) / 2.0;
        // A number of single precision: one of the coordinates.
        return std::abs(middle) > farOff * (max - min) ? min : 0.0;
    };
    return {along([](Vector const& v) { return v.x; }), along([](Vector const& v) { return v.y; }),
            along([](Vector const& v) { return v.z; })};
}

void subtract(std::vector<Vector>& centers, Vec const& origin) {
    if (origin.x == 0.0 && origin.y == 0.0 && origin.z == 0.0)
        return;
    for (Vector& c : centers)
        c = {static_cast<float>(static_cast<double>(c.x) - origin.x),
             static_cast<float>(static_cast<double>(c.y) - origin.y),
             static_cast<float>(static_cast<double>(c.z) - origin.z)};
}

} // namespace

std::vector<float> chooseRadii(RadiusOptions const& options, ParticleSet const& particles,
                               Note const& note, PhaseProgress const& progress) {
    std::string const& file = particles.name;
    std::vector<float> radii;
    if (options.radius) {
        radii.assign(particles.positions.size(), *options.radius);
    } else if (!particles.radii.empty()) {
        radii = particles.radii;
        note(fmt::format("radius from {}", particles.radiusSource));
    } else if (!particles.elements.empty()) {
        radii = elementRadii(options, particles);
        note(fmt::format("{} radii by element", options.covalent ? "covalent" : "van der Waals"));
        if (!particles.unknownElements.empty())
            note(fmt::format("{:.2f} for unknown elements: {}",
                             static_cast<double>(1.7F * particles.angstrom),
                             fmt::join(particles.unknownElements, " ")));
    } else {
        // Unwrapped, particles drift apart; how close they are shows within the cell only.
        bool const isSpread = particles.isUnwrapped && particles.cell;
        float const spacing =
            isSpread ? radiusFromSpacing(wrapped(particles.positions, *particles.cell), progress)
                     : radiusFromSpacing(particles.positions, progress);
        float const r = spacing > 0.0F ? spacing : 1.0F;
        radii.assign(particles.positions.size(), r);
        note(spacing > 0.0F
                 ? fmt::format("no radius in {}: {:.3g} for all (half the median distance to the "
                               "6th neighbour); set --radius",
                               file, static_cast<double>(r))
                 : fmt::format("no radius in {} and no distances to tell one by: 1 for all; set "
                               "--radius",
                               file));
    }
    for (float& r : radii)
        r *= options.scale;
    return radii;
}

Scene makeScene(SceneOptions const& options, ParticleSet particles, ParticleSet const* second,
                Note const& note, PhaseProgress const& progress) {
    Scene scene;
    std::uint64_t const count = particles.positions.size();
    std::vector<float> radii = chooseRadii(options.radius, particles, note, progress);
    progress(1.0, count);
    if (!options.radius.radius && particles.radii.empty() && particles.elements.empty() &&
        !radii.empty())
        scene.spacingRadius = radii[0] / options.radius.scale;
    Attribute const* const column = coloredColumn(options, particles);
    if (column != nullptr) {
        scene.colorRange = options.color.range ? *options.color.range : usualRange(column->values);
        scene.colorColumn = column->name;
        auto const [low, high] = *scene.colorRange;
        note(fmt::format("colours show {} from {:.6g} to {:.6g}{}", column->name, low, high,
                         options.color.range ? "" : " (1st to 99th percentile); set --range"));
    }
    scene.colors = chooseColors(options, particles, scene.colorRange);
    scene.color = options.color.color.value_or(defaultColor);
    scene.upAxis = particles.upAxis;

    Ways ways;
    if (second != nullptr)
        ways = waysBetween(options, particles, *second, radii, scene.colors, scene.colorRange, note,
                           progress);
    else if (options.motion.motion == "velocity")
        ways = waysAlongVelocities(options, particles, radii);
    else
        ways = {std::move(particles.positions), {}, std::move(radii), {}};
    scene.ids = std::move(particles.ids);
    progress(1.0, count);

    inspect(scene, ways);
    progress(1.0, count);
    if (scene.rejected.total() > 0)
        note(fmt::format("{} of {} particles skipped ({} not finite, {} with radius 0 or less)",
                         scene.rejected.total(), ways.positions0.size(), scene.rejected.notFinite,
                         scene.rejected.notPositive));
    if (scene.framedCenters.empty())
        throw InputError(
            fmt::format("{}: no usable particle ({} read, {} not finite, {} with radius "
                        "0 or less)",
                        particles.name, ways.positions0.size(), scene.rejected.notFinite,
                        scene.rejected.notPositive));
    if (scene.largestStep > 0.0)
        note(fmt::format("particles move by {:.3g} on average and {:.3g} at most, {:.3g} radii",
                         scene.meanStep, scene.largestStep,
                         scene.largestStep / static_cast<double>(scene.framedRadii[0])));

    scene.origin = originFor(scene.framedCenters);
    subtract(scene.framedCenters, scene.origin);
    subtract(ways.positions0, scene.origin);
    subtract(ways.positions1, scene.origin);
    std::int32_t const type = options.points ? 1 : 0;
    bool const isMoving = !ways.positions1.empty();
    scene.first = std::make_unique<Kelpa::ParticleSystem>(
        std::move(ways.positions0), std::move(ways.radii0), std::vector<Vector>{}, type, 0.0);
    if (isMoving) {
        scene.second = std::make_unique<Kelpa::ParticleSystem>(
            std::move(ways.positions1), std::move(ways.radii1), std::vector<Vector>{}, type, 1.0);
    }
    System system{*scene.first->data(), std::nullopt};
    if (isMoving)
        system.second = *scene.second->data();
    scene.geometry = makeGeometry({system});
    return scene;
}

} // namespace kelpatool
