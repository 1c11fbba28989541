// What sources of particles share: how choices become scenes, and what is told of these.
#pragma once

#include "pipeline/scene/scene.h"

#include "view/source.h"

#include <span>
#include <vector>

namespace pipeline::view {

/// Has colours chosen as the page says; what it leaves open stays.
void choose(SceneChoice const& choice, ColorOptions& colors);

/// The planes of a cut, as the command would read them.
std::vector<Slice> planesOf(Cut const& cut);

/// The box around all centres that are finite.
Bounds extentOf(std::span<Kelpa::Vector const> centers);

/// Builds the scene's tree, of the geometry that it has or else in blocks. Throws what `report`
/// throws.
void build(Scene& scene, TreeOptions const& options, int threads, Report const& report);

/// Fills in what is known of a scene once it is built.
void measure(Shown& shown);

/// Something for each row, brought to the places that a scene has the particles in. Those that only
/// the second snapshot of a motion has are behind all rows.
std::vector<Kelpa::Vector> inPlaces(std::vector<Kelpa::Vector> colors, Scene const& scene);

/// The colour map, from its lower end to its upper.
std::vector<Kelpa::Vector> stopsOf(ColorOptions const& options);

/// The scene's particles, row by row, in other colours.
Recoloring recoloringOf(ColorOptions const& options, ParticleSet particles, Scene const& scene);

} // namespace pipeline::view
