// Cameras by options, by keys and by turns.
#include "tool/commands/filmcameras.h"

#include <stdexcept>

namespace pipeline::tool {

/// The camera that the options and the scene's particles tell.
Sight FilmCameras::place(Scene const& scene) const {
    auto const with = [&](auto const& placing) {
        return placing(options.camera, options.image.width, options.image.height, scene.upAxis,
                       scene.framed(), scene.origin);
    };
    try {
        return options.camera.turntable > 0
                   ? with(placeTurntable)
                   : pipeline::sightOf(with(placeCamera), scene.framed().bounds().centre());
    } catch (std::invalid_argument const&) {
        throw UsageError("--eye and --look-at are the same point");
    }
}

Sight FilmCameras::sightFor(Scene const& scene, int frame) {
    ImageOptions const& image = options.image;
    if (!keys.keys.empty())
        return pipeline::sightOf(keys.at(frame), image.width, image.height, options.camera.zoom,
                                 scene.origin);
    if (!chosen) {
        chosen = place(scene);
        chosenOrigin = scene.origin;
    }
    Sight sight = *chosen;
    Vec const moved = chosenOrigin - scene.origin;
    sight.camera.eye = sight.camera.eye + moved;
    sight.target = sight.target + moved;
    return sight;
}

Camera FilmCameras::cameraFor(Scene const& scene, int frame, int picture) {
    Sight sight = sightFor(scene, frame);
    setLens(options.camera, sight);
    int const turn = options.camera.turntable;
    return turn > 0 ? sight.turned(static_cast<double>(picture) / turn) : sight.camera;
}

CameraKey FilmCameras::keyFor(Scene const& scene, int frame) {
    return keyOf(sightFor(scene, frame), scene.origin);
}

CameraWay FilmCameras::wayFor(Scene const& scene, int frame) {
    return areChosenHere() ? CameraWay{{keyFor(scene, frame)}} : keys;
}

} // namespace pipeline::tool
