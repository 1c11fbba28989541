// Particles ready to be rendered.
#pragma once

#include "kelpa/host/particlesystem.h"

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/scene/geometry.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelpatool {

/// How large particles are, where neither the file nor its elements tell.
struct RadiusOptions {
    std::optional<float> radius; ///< of all
    float scale = 1.0F;
    bool covalent = false; ///< radii by element: covalent instead of van der Waals
};

/// How particles move between two snapshots, or along their velocities.
struct MotionOptions {
    std::string motion = "none"; ///< "none", "velocity", "next" or the second snapshot's file
    std::array<double, 2> times = {0.0, 1.0};     ///< when the two snapshots were taken
    std::optional<std::array<double, 2>> shutter; ///< in the unit of `times`
    std::optional<double> dt; ///< the file's unit of time per unit of the shutter
};

struct ColorOptions {
    std::optional<Kelpa::Vector> color; ///< linear
    std::string colorBy;
    std::optional<std::array<float, 2>> range;
};

/// How particles become a scene.
struct SceneOptions {
    RadiusOptions radius;
    bool points = false; ///< with a radius, instead of solid spheres
    MotionOptions motion;
    ColorOptions color;
};

/// Particles left out, by reason.
struct Rejected {
    std::uint64_t notFinite = 0;   ///< a centre, or a radius, is no finite number
    std::uint64_t notPositive = 0; ///< the radius is zero or negative (or below 1e-15)

    std::uint64_t total() const { return notFinite + notPositive; }
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
    std::optional<float> spacingRadius; ///< before scaling, if the radius of all was chosen by it
    std::string colorColumn;            ///< the column that gives the colours, if any
    std::optional<std::array<float, 2>> colorRange; ///< of its values, as the colour map shows them
    std::vector<Kelpa::Vector> framedCenters;       ///< usable particles, at both ends of their way
    std::vector<float> framedRadii;
};

/// Says a note to the user; swallows it when the run is quiet.
using Note = std::function<void(std::string const&)>;

/// Chooses radii and colours, matches snapshots, and makes the particle systems. The tree is not
/// built. Throws `InputError` when the particles cannot be used, and what `progress` throws.
Scene makeScene(SceneOptions const& options, ParticleSet particles, ParticleSet const* second,
                Note const& note, PhaseProgress const& progress);

/// The radii that a scene of these particles would have, and where they come from.
std::vector<float> chooseRadii(RadiusOptions const& options, ParticleSet const& particles,
                               Note const& note, PhaseProgress const& progress);

} // namespace kelpatool
