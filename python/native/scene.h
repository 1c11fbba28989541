// A tree's particles as the scene that pictures are made of.
#pragma once

#include "pipeline/scene/scene.h"

#include <vector>

namespace kelpapython {

using pipeline::System;

/// What to subtract from all centres, so that those that lie far from zero keep their precision.
pipeline::Vec originOf(std::vector<System> const& systems);

/// The systems one behind the other, as one: particles are numbered through. `geometry` is built
/// over `systems`; both must outlive the scene.
pipeline::Scene makeScene(pipeline::Geometry& geometry, std::vector<System> const& systems,
                          pipeline::Vec const& origin);

/// Gives particles that have no colour of their own this one.
void setColor(pipeline::Scene& scene, std::vector<System> const& systems,
              Kelpa::Vector const& color);

} // namespace kelpapython
