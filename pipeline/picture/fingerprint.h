// A number that tells pictures apart.
#pragma once

#include "pipeline/picture/camera.h"
#include "pipeline/picture/look.h"
#include "pipeline/scene/scene.h"

#include <cstdint>

namespace pipeline {

/// A number made of all that decides the pixels of a picture: the particles as they are shown, the
/// camera, the light, the seed and the rest, but not which part of the picture is rendered. Two
/// pictures that differ have the same one by accident alone, once in 2^64 pairs.
///
/// Reads every particle, at some gigabytes a second.
std::uint64_t fingerprintOf(Scene const& scene, Camera const& camera, LightOptions const& light,
                            ImageOptions const& image);

} // namespace pipeline
