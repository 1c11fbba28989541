// How large particles are shown, and in which colours.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"

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
    bool covalent = false; ///< radii by element: covalent instead of van der Waals
};

/// Which colours particles have; what is silent is left to the file, or to their elements.
struct ColorOptions {
    std::optional<Kelpa::Vector> color; ///< linear
    std::string colorBy;
    std::optional<std::array<float, 2>> range;
};

/// Tells the user something; swallows it when the run is quiet.
using Note = std::function<void(Remark const&)>;

// A calm blue that takes light and shadow well.
constexpr Kelpa::Vector defaultColor = {0.26F, 0.42F, 0.62F};

/// The radii that a scene of these particles would have; notes where they come from.
std::vector<float> chooseRadii(RadiusOptions const& options, ParticleSet const& particles,
                               Note const& note, PhaseProgress const& progress);

/// Radii of the particles' elements, in the file's unit of length.
std::vector<float> elementRadii(RadiusOptions const& options, ParticleSet const& particles);

/// The column to colour by, or null.
Attribute const* coloredColumn(ColorOptions const& options, ParticleSet const& particles);

/// A colour for each particle, linear; none where all have the same. `range` is that of the values
/// of the column to colour by. Throws `InputError` when that column is not there.
std::vector<Kelpa::Vector> chooseColors(ColorOptions const& options, ParticleSet const& particles,
                                        std::optional<std::array<float, 2>> const& range);

} // namespace pipeline
