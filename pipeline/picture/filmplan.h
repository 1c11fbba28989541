// What the pictures of a film have in common, as a file that people and other runs read.
#pragma once

#include "pipeline/picture/cameraway.h"
#include "pipeline/scene/scene.h"

#include <string>

namespace pipeline {

/// What the pictures of a film have in common.
struct FilmPlan {
    CameraWay camera; ///< without keys where nothing says it
    Kept kept;
};

/// The plan as JSON, every digit of it.
std::string textOf(FilmPlan const& plan);

/// Reads what `textOf` wrote, or what somebody wrote like it; there is a camera in it. Throws
/// `InputError` that names the place, and where this build has no library for JSON.
FilmPlan readPlan(std::string const& path);

} // namespace pipeline
