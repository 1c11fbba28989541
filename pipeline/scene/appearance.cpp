#include "pipeline/scene/appearance.h"

#include "pipeline/files/elements.h"
#include "pipeline/scene/colormap.h"
#include "pipeline/scene/motion.h"
#include "pipeline/scene/spacing.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace pipeline {

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
        note({spacing > 0.0F
                  ? fmt::format("no radius in {}: {:.3g} for all (half the median distance to the "
                                "6th neighbour)",
                                file, static_cast<double>(r))
                  : fmt::format("no radius in {} and no distances to tell one by: 1 for all", file),
              {Hint::To::setRadius}});
    }
    for (float& r : radii)
        r *= options.scale;
    return radii;
}

std::vector<float> elementRadii(RadiusOptions const& options, ParticleSet const& particles) {
    std::vector<float> radii(particles.elements.size());
    std::transform(particles.elements.begin(), particles.elements.end(), radii.begin(),
                   [&](std::uint8_t element) {
                       return particles.angstrom * elementRadius(element, options.covalent);
                   });
    return radii;
}

Attribute const* coloredColumn(ColorOptions const& options, ParticleSet const& particles) {
    auto const column = std::find_if(particles.attributes.begin(), particles.attributes.end(),
                                     [&](Attribute const& a) { return a.name == options.colorBy; });
    return column == particles.attributes.end() ? nullptr : &*column;
}

std::vector<Kelpa::Vector> chooseColors(ColorOptions const& options, ParticleSet const& particles,
                                        std::optional<std::array<float, 2>> const& range) {
    if (options.color)
        return {};
    if (!options.colorBy.empty()) {
        Attribute const* const column = coloredColumn(options, particles);
        if (column == nullptr)
            throw InputError(
                fmt::format("{}: no column '{}' to colour by", particles.name, options.colorBy));
        return mapColors(column->values, range);
    }
    if (!particles.colors.empty())
        return particles.colors;
    if (particles.elements.empty())
        return mapTypes(particles.types);
    std::vector<Kelpa::Vector> colors(particles.elements.size());
    std::transform(particles.elements.begin(), particles.elements.end(), colors.begin(),
                   elementColor);
    return colors;
}

} // namespace pipeline
