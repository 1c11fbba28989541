// A tree's particles as the scene that pictures are made of.
#pragma once

#include "pipeline/scene/scene.h"

#include <memory>
#include <vector>

namespace kelpapython {

using pipeline::System;

/// What to subtract from all centres, so that those that lie far from zero keep their precision.
pipeline::Vec originOf(std::vector<System> const& systems);

/// The systems one behind the other, as one; it has no geometry yet.
pipeline::Scene makeScene(std::vector<System> const& systems, pipeline::Vec const& origin);

/// Whether the systems can be parted as one: they are alike in all but their particles.
bool canBeParted(std::vector<System> const& systems);

/// A scene's blocks for those who call particles by the systems' reported indices. The scene must
/// outlive it.
std::unique_ptr<pipeline::Geometry> blocksByIndex(pipeline::Scene& scene,
                                                  std::vector<System> const& systems);

/// The geometry of a scene over systems that have one tree, which must outlive it.
std::unique_ptr<pipeline::Geometry> treeByRows(pipeline::Geometry& tree,
                                               std::vector<System> const& systems);

/// The particles of a scene in its places, without colours, and its geometry, which must outlive
/// it.
pipeline::Scene borrowed(pipeline::Scene const& scene);

/// Gives particles that have no colour of their own this one.
void setColor(pipeline::Scene& scene, std::vector<System> const& systems,
              Kelpa::Vector const& color);

} // namespace kelpapython
