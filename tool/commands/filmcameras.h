// Where the pictures of a run are seen from.
#pragma once

#include "pipeline/picture/cameraway.h"
#include "pipeline/scene/scene.h"

#include "tool/options/options.h"

#include <optional>

namespace pipeline::tool {

/// Where the pictures of a run are seen from: all from where the first one is, unless a file has
/// keys for a way, or they go round.
class FilmCameras {
  public:
    /// `given` must outlive it; a `way` without keys leaves the camera to the options.
    FilmCameras(Options const& given, CameraWay way) : options(given), keys(std::move(way)) {}

    /// The camera of a picture of a frame, which is number `picture` of a turn if there is one.
    /// Throws `UsageError` for options, `InputError` for keys that place none.
    Camera cameraFor(Scene const& scene, int frame, int picture);

    /// What turns begin with at a frame, as files keep it.
    CameraKey keyFor(Scene const& scene, int frame);

    /// The way that was given, or else the camera for this frame.
    CameraWay wayFor(Scene const& scene, int frame);

    bool areChosenHere() const { return keys.keys.empty(); }

  private:
    Sight sightFor(Scene const& scene, int frame);
    Sight place(Scene const& scene) const;

    Options const& options;
    CameraWay keys;
    std::optional<Sight> chosen; ///< for the first scene
    Vec chosenOrigin{};          ///< of that
};

} // namespace pipeline::tool
