// Cameras as files keep them: one that stands, or one that passes keys on its way through a film.
#pragma once

#include "pipeline/picture/camera.h"
#include "pipeline/picture/framing.h"
#include "pipeline/scene/vec.h"

#include <optional>
#include <vector>

namespace pipeline {

/// A camera at a frame, in the file's coordinates.
struct CameraKey {
    double frame = 0.0;
    Vec eye{};
    Vec lookAt{};      ///< not the eye
    Vec up{};          ///< not zero
    double fov = 35.0; ///< vertical, degrees, of a pinhole
    std::optional<double>
        height; ///< what parallel rays see of the scene's height; unset: a pinhole
};

/// What may be in a key: what is further away or wider has no place in single precision.
constexpr double farthestInKey = 1e30;
constexpr double leastFov = 0.001; ///< degrees
constexpr double mostFov = 170.0;

/// The cameras of a film.
struct CameraWay {
    std::vector<CameraKey> keys; ///< by rising frames; all with the same kind of rays

    /// The camera at a frame. Between keys it goes smoothly, as fast through a key as its
    /// neighbours tell; before the first and behind the last it stands. There is at least one key.
    CameraKey at(double frame) const;
};

/// The key of a camera in a scene with this origin.
CameraKey keyOf(Sight const& sight, Vec const& origin);

/// The camera of a key. It sees the same picture as the one that the key was made of, but for a
/// relative 1e-14 or so. Throws `InputError` where eye and lookAt meet on the way between keys.
Sight sightOf(CameraKey const& key, int width, int height, double zoom, Vec const& origin);

} // namespace pipeline
