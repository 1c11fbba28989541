// Particles ready to be rendered.
#pragma once

#include "kelpa/host/particlesystem.h"

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/scene/appearance.h"
#include "pipeline/scene/geometry.h"
#include "pipeline/scene/selection.h"
#include "pipeline/scene/ways.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// How particles become a scene.
struct SceneOptions {
    RadiusOptions radius;
    bool points = false; ///< with a radius, instead of solid spheres
    MotionOptions motion;
    ColorOptions color;
    SelectionOptions selection; ///< asked before a scene is made
};

/// Particles left out, by reason.
struct Rejected {
    std::uint64_t notFinite = 0;   ///< a centre, a radius or how they change is no finite number
    std::uint64_t notPositive = 0; ///< the radius is zero or negative (or below 1e-15)

    std::uint64_t total() const { return notFinite + notPositive; }
};

/// What a film keeps from its first frame, so that its pictures do not flicker. It counts like what
/// was asked for.
struct Kept {
    std::optional<float> radius;                    ///< of all, before scaling
    std::optional<std::array<float, 2>> colorRange; ///< of the column to colour by
    std::vector<double> sliceCoordinates;           ///< where planes lie, see `selectParticles`
};

/// Particles ready to be rendered.
///
/// The systems are in coordinates relative to `origin`, which is not zero only where the particles
/// lie far from zero compared with their extent: subtracting costs nothing there, and origins of
/// rays keep their precision.
struct Scene {
    std::unique_ptr<Kelpa::ParticleSystem> first;
    std::unique_ptr<Kelpa::ParticleSystem> second; ///< null: the particles stand still
    std::unique_ptr<Geometry> geometry;
    std::vector<Kelpa::Vector> colors; ///< linear; empty: `color` for all
    Kelpa::Vector color;
    std::vector<std::int64_t> ids; ///< empty: the particles' own indices
    Vec origin{};
    Rejected rejected;
    char upAxis = 'z';
    double largestStep = 0.0; ///< between the snapshots, as far as the shutter is open
    double meanStep = 0.0;
    Kept chosen;             ///< what a film is to keep of it; the radius, if spacing told it
    std::string colorColumn; ///< the column that gives the colours, if any
    std::optional<std::array<float, 2>> colorRange; ///< of its values, as the colour map shows them
    std::vector<Kelpa::Vector> framedCenters;       ///< usable particles, at both ends of their way
    std::vector<float> framedRadii;
};

/// The further columns that a file is to be read with for a scene.
std::vector<std::string> columnsOf(SceneOptions const& options);

/// Chooses radii and colours, matches particles with the snapshot that they go to, if any, and
/// makes the particle systems. The tree is not built. Throws `InputError` when the particles cannot
/// be used, and what `progress` throws.
Scene makeScene(SceneOptions const& options, ParticleSet particles, ParticleSet const* second,
                Kept const& kept, Note const& note, PhaseProgress const& progress);

} // namespace pipeline
