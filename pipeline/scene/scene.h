// Particles ready to be rendered.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/scene/appearance.h"
#include "pipeline/scene/cellbox.h"
#include "pipeline/scene/framedspheres.h"
#include "pipeline/scene/geometry.h"
#include "pipeline/scene/legend.h"
#include "pipeline/scene/parting.h"
#include "pipeline/scene/raytransport.h"
#include "pipeline/scene/selection.h"
#include "pipeline/scene/snapshot.h"
#include "pipeline/scene/ways.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace pipeline {

/// A column of the particles for a layer of the picture.
struct ColumnLayer {
    std::string name;
    std::size_t width = 1;     ///< numbers of a particle
    std::vector<float> values; ///< by row; of particles that only a second snapshot has, none
};

/// How particles become a scene.
struct SceneOptions {
    RadiusOptions radius;
    bool points = false; ///< with a radius, instead of solid spheres
    MotionOptions motion;
    ColorOptions color;
    bool showsCell = false;          ///< its edges
    bool hasLegend = false;          ///< of colours
    std::string legendTitle;         ///< empty: the column's name
    std::vector<std::string> layers; ///< columns that the picture is to have as well
    SelectionOptions selection;      ///< asked by `makeSelectedScene`
    /// Who make the scene together, each of its share of the rows if files can be cut; null: one
    /// process alone. They outlive the scene.
    RayTransport* ranks = nullptr;
};

/// Whether ranks can make such a scene each of its share of the rows, as far as options tell it.
bool canBeShared(SceneOptions const& options);
/// Whether they can of these particles, their shares; all are asked together.
bool canBeShared(SceneOptions const& options, ParticleSet const& particles);

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
/// Particles are called by their places in the snapshots, which are the rows that were read until
/// `buildScene` parts them into blocks. The snapshots are in coordinates relative to `origin`,
/// which is not zero only where the particles lie far from zero compared with their extent:
/// subtracting costs nothing there, and origins of rays keep their precision.
struct Scene {
    std::unique_ptr<Snapshot> first;
    std::unique_ptr<Snapshot> second;   ///< null: the particles stand still
    std::shared_ptr<Rows const> rows;   ///< of the places; null: the same
    std::unique_ptr<Geometry> geometry; ///< null until `buildScene`
    std::vector<Kelpa::Vector> colors;  ///< linear; empty: `color` for all
    Kelpa::Vector color;
    std::vector<std::int64_t> ids; ///< empty: the particles' rows
    Vec origin{};
    std::vector<Rod> rods; ///< the cell's edges, if they are shown
    Rejected rejected;
    char upAxis = 'z';
    double largestStep = 0.0; ///< between the snapshots, as far as the shutter is open
    double meanStep = 0.0;
    Kept chosen;                  ///< what a film is to keep of it; the radius, if spacing told it
    std::string radiusSource;     ///< why the radii are what they are, in words
    std::optional<Legend> legend; ///< if it was asked for
    std::vector<ColumnLayer> layers;
    std::string colorColumn;                        ///< the column that gives the colours, if any
    std::optional<std::array<float, 2>> colorRange; ///< of its values, as the colour map shows them
    /// Not 0 for particles that no tree takes; empty: all are taken.
    std::vector<char> unusable;
    /// Ranks each of which has some of the particles, and this one those from place `firstPlace`
    /// on; null: all are here. What asks for all of them is then asked by all ranks together.
    RayTransport* sharers = nullptr;
    std::int64_t firstPlace = 0;

    /// What a picture is to hold.
    FramedSpheres framed() const {
        FramedSpheres::End const closing =
            second != nullptr ? FramedSpheres::End{second->positions, second->radii}
                              : FramedSpheres::End{};
        return {{first->positions, first->radii}, closing, unusable, rods, sharers};
    }

    /// What a picture calls the particle in a place.
    std::int64_t idOf(std::int64_t place) const {
        return ids.empty() ? rowOf(place) : ids[static_cast<std::size_t>(place - firstPlace)];
    }
    std::int64_t rowOf(std::int64_t place) const {
        return rows != nullptr ? (*rows)[place - firstPlace] : place;
    }
    /// How the particle in a place, which is here, is shown.
    ParticleLook lookOf(std::int64_t place) const {
        auto const at = static_cast<std::size_t>(place - firstPlace);
        return {rowOf(place), idOf(place), at < colors.size() ? colors[at] : color,
                first->radii[at]};
    }
};

/// The further columns that a file is to be read with for a scene.
std::vector<std::string> columnsOf(SceneOptions const& options);

/// Chooses radii and colours, matches particles with the snapshot that they go to, if any, and
/// makes the snapshots. Nothing is built. Throws `InputError` when the particles cannot
/// be used, and what `progress` throws.
Scene makeScene(SceneOptions const& options, ParticleSet particles, ParticleSet const* second,
                Kept const& kept, Note const& note, PhaseProgress const& progress);

/// Makes the scene of the particles that `options.selection` leaves of both snapshots. `look`, if
/// any, is shown them before, and may take what no scene needs. Throws as `selectParticles` and
/// `makeScene` do.
Scene makeSelectedScene(SceneOptions const& options, ParticleSet particles,
                        ParticleSet const* second, Kept const& kept, Note const& note,
                        PhaseProgress const& progress,
                        std::function<void(ParticleSet&)> const& look = {});

/// Parts the particles into blocks, and builds a tree for each. What the scene is then does not
/// depend on the threads that do it. Throws as `Geometry::build` does.
///
/// With `ranks`, which all call it together, each with all particles or with its share of them: the
/// scene is then theirs in common. Each keeps the particles of its own blocks, see
/// `TreeOptions::share`, unless told to keep all that it has been given.
void buildScene(Scene& scene, BuildRun const& run, TreeOptions const& options,
                RayTransport* ranks = nullptr);

} // namespace pipeline
