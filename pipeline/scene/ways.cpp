// Matches snapshots, adds newcomers, and stops at the shutter's ends.
#include "pipeline/scene/ways.h"

#include "pipeline/files/errors.h"
#include "pipeline/scene/motion.h"

#include <fmt/format.h>

#include <utility>

namespace pipeline {

namespace {

using Kelpa::Vector;

Vector lerp(Vector const& a, Vector const& b, double f) {
    auto const mix = [f](float from, float to) {
        return static_cast<float>(static_cast<double>(from) +
                                  (static_cast<double>(to) - static_cast<double>(from)) * f);
    };
    return {mix(a.x, b.x), mix(a.y, b.y), mix(a.z, b.z)};
}

std::array<double, 2> shutterOf(MotionOptions const& motion, bool hasSecond) {
    if (motion.shutter)
        return *motion.shutter;
    // Half the way: the 180 degrees of a film camera.
    double const open = hasSecond ? motion.times[0] : 0.0;
    double const frame = hasSecond ? motion.times[1] - motion.times[0] : 1.0;
    return {open, open + 0.5 * frame};
}

/// Radii of the second snapshot's particles, where it tells them as the first does.
class SecondRadii {
  public:
    SecondRadii(RadiusOptions const& radiusOptions, ParticleSet const& first,
                ParticleSet const& secondSet)
        : options(radiusOptions), second(secondSet),
          hasRadii(!second.radii.empty() && !options.radius && !first.radii.empty()),
          isByElement(first.radii.empty() && !options.radius && !second.elements.empty()),
          said(radiiOfKinds(options, second, {})) {}

    /// The radius of one that the first snapshot has as well, with `otherwise`.
    float of(std::size_t particle, float otherwise) const {
        if (!said.empty() && said[particle] > 0.0F)
            return said[particle] * options.scale;
        return hasRadii ? second.radii[particle] * options.scale : otherwise;
    }
    /// Those of newcomers, `usual` where nothing tells.
    std::vector<float> ofNew(std::vector<std::size_t> const& newcomers, float usual) const {
        std::vector<float> const byElement = isByElement && !newcomers.empty()
                                                 ? elementRadii(options, second)
                                                 : std::vector<float>{};
        std::vector<float> radii;
        for (std::size_t const k : newcomers)
            radii.push_back(of(k, byElement.empty() ? usual : byElement[k] * options.scale));
        return radii;
    }

  private:
    RadiusOptions const& options;
    ParticleSet const& second;
    bool hasRadii;
    bool isByElement;
    std::vector<float> said; ///< of kinds
};

} // namespace

Ways waysAlongVelocities(MotionOptions const& options, ParticleSet const& particles,
                         std::vector<float> const& radii) {
    if (particles.velocities.empty())
        throw InputError(fmt::format("{}: no velocities (vx vy vz)", particles.name),
                         {Hint::To::moveByVelocity});
    std::array<double, 2> const shutter = shutterOf(options, false);
    // Caches of film effects have velocities per second, and a shutter opens per frame.
    double const dt = options.dt.value_or(particles.upAxis == 'y' ? 1.0 / 24.0 : 1.0);
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

Match matchSnapshots(RadiusOptions const& options, ParticleSet const& first,
                     ParticleSet const& second, std::vector<float> const& radii,
                     PhaseProgress const& progress) {
    Match match;
    match.hasIds = !first.ids.empty() && !second.ids.empty();
    if (!match.hasIds && first.positions.size() != second.positions.size())
        throw InputError(fmt::format("{} has {} particles and {} has {}, and there are no ids to "
                                     "match them by",
                                     first.name, first.positions.size(), second.name,
                                     second.positions.size()),
                         {Hint::To::standStill});
    SecondRadii const secondRadii(options, first, second);
    std::vector<std::int64_t> const partners = findPartners(first, second);
    PeriodicWays periodic(first, second);
    progress(1.0, partners.size());

    std::vector<bool> isMatched(second.positions.size(), false);
    match.ways.resize(partners.size());
    for (std::size_t i = 0; i < partners.size(); ++i) {
        Way& way = match.ways[i];
        way = {first.positions[i], first.positions[i], radii[i], radii[i]};
        if (partners[i] < 0) {
            ++match.onlyFirst;
            continue;
        }
        auto const k = static_cast<std::size_t>(partners[i]);
        isMatched[k] = true;
        way.to = periodic.end(i, k);
        way.radiusTo = secondRadii.of(k, radii[i]);
    }
    match.crossing = periodic.crossingCount();

    for (std::size_t k = 0; k < isMatched.size(); ++k)
        if (!isMatched[k])
            match.newcomers.push_back(k);
    float const usual = radii.empty() ? 1.0F : radii[radii.size() / 2];
    std::vector<float> const newRadii = secondRadii.ofNew(match.newcomers, usual);
    for (std::size_t n = 0; n < match.newcomers.size(); ++n) {
        Vector const& place = second.positions[match.newcomers[n]];
        match.ways.push_back({place, place, newRadii[n], newRadii[n]});
    }
    return match;
}

Ways placeAtShutter(std::vector<Way> const& ways, MotionOptions const& options, double steps) {
    auto const& times = options.times;
    std::array<double, 2> const shutter = shutterOf(options, true);
    // Where frames are missing in between, the way to the second one takes longer.
    double const time = (times[1] - times[0]) * steps;
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
} // namespace pipeline
