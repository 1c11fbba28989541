// What is looked at before pictures are made.
#pragma once

#include "pipeline/scene/scene.h"

#include "tool/options/options.h"

namespace pipeline::tool {

/// Whether there are several pictures, which their names tell apart.
bool isNumbered(Options const& options);

/// Refuses, before anything is read, an output that the picture could not be written to.
void checkOutput(Options const& options);

/// Of far outliers the picture shows all, and little else: says so, and how to see the others.
void noteOutliers(Scene const& scene, Note const& note);

} // namespace pipeline::tool
