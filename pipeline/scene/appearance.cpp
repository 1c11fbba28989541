// Radii and colours from options, columns, elements and types, in this order.
#include "pipeline/scene/appearance.h"

#include "pipeline/files/elements.h"
#include "pipeline/scene/motion.h"
#include "pipeline/scene/spacing.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string_view>

namespace pipeline {

namespace {

/// Says it when no particle is of a kind that something was said of.
void noteAbsent(std::size_t count, Kinds const& kinds, std::string const& kind, Note const& note) {
    if (count == 0 && note)
        note(fmt::format("no particle is of kind '{}'; there are {}", kind, kinds.beside(kind)));
}

/// Radii where nothing is said of the particles' kinds.
Radii usualRadii(RadiusOptions const& options, ParticleSet const& particles, Note const& note,
                 PhaseProgress const& progress) {
    std::size_t const count = particles.positions.size();
    if (options.radius)
        return {std::vector<float>(count, *options.radius), std::nullopt, "as given"};
    if (!particles.radii.empty()) {
        note(fmt::format("radius from {}", particles.radiusSource));
        return {particles.radii, std::nullopt, "from " + particles.radiusSource};
    }
    if (!particles.elements.empty()) {
        std::string const kind = options.covalent.value_or(false) ? "covalent" : "van der Waals";
        note(kind + " radii by element");
        if (!particles.unknownElements.empty())
            note(fmt::format("{:.2f} for unknown elements: {}",
                             static_cast<double>(1.7F * particles.angstrom),
                             fmt::join(particles.unknownElements, " ")));
        return {elementRadii(options, particles), std::nullopt, kind + " by element"};
    }
    float const spacing = particles.spacing ? *particles.spacing : spacingOf(particles, progress);
    float const r = spacing > 0.0F ? spacing : 1.0F;
    note({spacing > 0.0F
              ? fmt::format("no radius in {}: {:.3g} for all (half the median distance to the "
                            "6th neighbour)",
                            particles.name, static_cast<double>(r))
              : fmt::format("no radius in {} and no distances to tell one by: 1 for all",
                            particles.name),
          {Hint::To::setRadius}});
    return {std::vector<float>(count, r), r,
            spacing > 0.0F ? "half the median distance to the 6th neighbour" : "by default"};
}

} // namespace

float spacingOf(ParticleSet const& particles, PhaseProgress const& progress) {
    // Unwrapped, particles drift apart; how close they are shows within the cell only.
    bool const isSpread = particles.isUnwrapped && particles.cell;
    return isSpread ? radiusFromSpacing(wrapped(particles.positions, *particles.cell), progress)
                    : radiusFromSpacing(particles.positions, progress);
}

Radii chooseRadii(RadiusOptions const& options, ParticleSet const& particles, Note const& note,
                  PhaseProgress const& progress) {
    std::vector<float> const said = radiiOfKinds(options, particles, note);
    bool const isAllSaid =
        !said.empty() && std::all_of(said.begin(), said.end(), [](float r) { return r > 0.0F; });
    Radii radii;
    if (isAllSaid)
        radii = {said, std::nullopt, "as given by kind"};
    else
        radii = usualRadii(options, particles, note, progress);
    if (!said.empty() && !isAllSaid)
        radii.source = "as given by kind, others " + radii.source;
    for (std::size_t i = 0; i < said.size(); ++i)
        if (said[i] > 0.0F)
            radii.all[i] = said[i];
    for (float& r : radii.all)
        r *= options.scale;
    return radii;
}

std::vector<float> radiiOfKinds(RadiusOptions const& options, ParticleSet const& particles,
                                Note const& note) {
    if (options.ofKinds.empty())
        return {};
    std::vector<float> radii(particles.positions.size());
    Kinds const kinds(particles, nullptr);
    for (OfKind<float> const& one : options.ofKinds)
        noteAbsent(kinds.forEach(one.kind, [&](std::size_t i) { radii[i] = one.value; }), kinds,
                   one.kind, note);
    return radii;
}

std::vector<float> elementRadii(RadiusOptions const& options, ParticleSet const& particles) {
    bool const covalent = options.covalent.value_or(false);
    std::vector<float> radii(particles.elements.size());
    std::transform(particles.elements.begin(), particles.elements.end(), radii.begin(),
                   [&](std::uint8_t element) {
                       return particles.angstrom * elementRadius(element, covalent);
                   });
    return radii;
}

Attribute const* coloredColumn(ColorOptions const& options, ParticleSet const& particles) {
    auto const column = std::find_if(particles.attributes.begin(), particles.attributes.end(),
                                     [&](Attribute const& a) { return a.name == options.colorBy; });
    return column == particles.attributes.end() ? nullptr : &*column;
}

bool showsKinds(ColorOptions const& options, Attribute const& column) {
    return options.asKinds ||
           (!options.map && !options.range && (column.names != nullptr || areKinds(column.name)));
}

Kelpa::Vector colorOfKind(Attribute const& column, float kind) {
    if (!(std::abs(kind) < 1e9F))
        return {0.2F, 0.2F, 0.2F}; // no number at all
    if (column.name == "element")
        return elementColor(static_cast<std::uint8_t>(kind));
    return colorOfKind(std::lround(kind));
}

namespace {

/// Colours where nothing is said of the particles' kinds.
std::vector<Kelpa::Vector> usualColors(ColorOptions const& options, ParticleSet const& particles,
                                       std::optional<std::array<float, 2>> const& range) {
    if (options.color)
        return {};
    if (!options.colorBy.empty()) {
        Attribute const* const column = coloredColumn(options, particles);
        if (column == nullptr)
            throw InputError(
                fmt::format("{}: no column '{}' to colour by", particles.name, options.colorBy));
        if (!showsKinds(options, *column))
            return mapColors(column->values, range, options.map.value_or(ColorMap()));
        std::vector<Kelpa::Vector> colors;
        for (float const kind : column->values)
            colors.push_back(colorOfKind(*column, kind));
        return colors;
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

} // namespace

std::vector<Kelpa::Vector> chooseColors(ColorOptions const& options, ParticleSet const& particles,
                                        std::optional<std::array<float, 2>> const& range,
                                        Note const& note) {
    std::vector<Kelpa::Vector> colors = usualColors(options, particles, range);
    if (!options.ofKinds.empty() && colors.empty())
        colors.assign(particles.positions.size(), options.color.value_or(defaultColor));
    Kinds const kinds(particles, coloredColumn(options, particles));
    for (OfKind<Kelpa::Vector> const& one : options.ofKinds)
        noteAbsent(kinds.forEach(one.kind, [&](std::size_t i) { colors[i] = one.value; }), kinds,
                   one.kind, note);
    return colors;
}

} // namespace pipeline
