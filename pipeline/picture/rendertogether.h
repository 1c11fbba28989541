// One picture by several processes.
#pragma once

#include "pipeline/picture/render.h"
#include "pipeline/scene/rayexchange.h"

namespace pipeline {

/// Renders a picture of which each rank has made the scene, with the trees of its own blocks: see
/// `TreeOptions::share`. All ranks call it together and are given the same. Rank 0 gets the whole
/// picture, bit for bit that of `renderImage`, the others get parts of it. `figures` counts what
/// this rank has done. Throws as `renderImage` does, and `FailedElsewhere`.
Image renderTogether(Scene const& scene, Camera const& camera, ImageOptions const& frame,
                     LightOptions const& look, RayTransport& ranks, int threads,
                     PhaseProgress const& progress, RankFigures& figures);

} // namespace pipeline
