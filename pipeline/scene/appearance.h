// How large particles are shown, and in which colours.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/scene/colormap.h"
#include "pipeline/scene/kinds.h"

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// How large particles are, where neither the file nor its elements tell.
struct RadiusOptions {
    std::optional<float> radius; ///< of all
    float scale = 1.0F;
    std::optional<bool> covalent;       ///< radii by element; unset or false: van der Waals
    std::vector<OfKind<float>> ofKinds; ///< of some kinds, whatever the others have
};

/// Which colours particles have; what is silent is left to the file, or to their elements.
struct ColorOptions {
    std::optional<Kelpa::Vector> color; ///< linear
    std::string colorBy;
    std::optional<ColorMap> map; ///< unset: viridis, or for kinds the palette
    bool asKinds = false;        ///< show the numbers of the column by the palette
    std::optional<std::array<float, 2>> range;
    std::vector<OfKind<Kelpa::Vector>> ofKinds; ///< of some kinds, whatever the others have
};

/// Tells the user something; swallows it when the run is quiet.
using Note = std::function<void(Remark const&)>;

// A calm blue that takes light and shadow well.
constexpr Kelpa::Vector defaultColor = {0.26F, 0.42F, 0.62F};

/// The radii of particles, and the one that their spacing told, before scaling, if it was asked.
struct Radii {
    std::vector<float> all;
    std::optional<float> bySpacing;
    std::string source; ///< why they are what they are, in words
};

/// The radii that a scene of these particles would have; notes where they come from.
Radii chooseRadii(RadiusOptions const& options, ParticleSet const& particles, Note const& note,
                  PhaseProgress const& progress);

/// The radius that the distances of particles tell; 0 when they tell none.
float spacingOf(ParticleSet const& particles, PhaseProgress const& progress);

/// The radii that `options.ofKinds` names, before scaling, and 0 for particles of other kinds;
/// empty when it names none. `note`, which may be null, hears of kinds that are not there.
std::vector<float> radiiOfKinds(RadiusOptions const& options, ParticleSet const& particles,
                                Note const& note);

/// Radii of the particles' elements, in the file's unit of length.
std::vector<float> elementRadii(RadiusOptions const& options, ParticleSet const& particles);

/// The column to colour by, or null.
Attribute const* coloredColumn(ColorOptions const& options, ParticleSet const& particles);

/// Whether the column's numbers tell kinds apart and have no order, so that the palette shows them.
bool showsKinds(ColorOptions const& options, Attribute const& column);
/// How it shows one of them.
Kelpa::Vector colorOfKind(Attribute const& column, float kind);

/// A colour for each particle, linear; none where all have the same. `range` is that of the values
/// of the column to colour by. Throws `InputError` when that column is not there. `note`, which may
/// be null, hears of kinds that are not there.
std::vector<Kelpa::Vector> chooseColors(ColorOptions const& options, ParticleSet const& particles,
                                        std::optional<std::array<float, 2>> const& range,
                                        Note const& note);

} // namespace pipeline
