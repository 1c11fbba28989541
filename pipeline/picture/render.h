#pragma once

#include "pipeline/imagefile/imagefile.h"
#include "pipeline/picture/camera.h"
#include "pipeline/scene/scene.h"

#include "tool/options/options.h"

namespace kelpatool {

/// Renders the scene, whose tree is built. `threads` is at least 1.
///
/// Every sample depends on its pixel, its number and the seed alone, so the picture is the same for
/// any number of threads and any crop. Throws `Interrupted` when `progress` does.
Image renderImage(Scene& scene, Camera const& camera, Options const& options, int threads,
                  PhaseProgress const& progress);

} // namespace kelpatool
