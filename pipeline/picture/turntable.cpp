// Cameras that go once around.
#include "pipeline/picture/framing.h"
#include "pipeline/scene/bounds.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace pipeline {

namespace {

/// A vector turned around an axis of length 1 (O. Rodrigues' formula).
Vec rotated(Vec const& v, Vec const& axis, double angle) {
    double const cosine = std::cos(angle);
    return v * cosine + cross(axis, v) * std::sin(angle) + axis * (dot(axis, v) * (1.0 - cosine));
}

/// How far spheres reach from a place.
double reachFrom(Vec const& place, FramedSpheres const& spheres) {
    double reach[] = {0.0};
    spheres.forEach([&](Kelpa::Vector const& center, float radius) {
        Vec const away = wide(center) - place;
        reach[0] = std::max(reach[0], std::sqrt(dot(away, away)) + static_cast<double>(radius));
    });
    spheres.takeGreatest(reach);
    return reach[0];
}

} // namespace

Camera Sight::turned(double turns) const {
    double const angle = 2.0 * std::numbers::pi * turns;
    Camera moved = camera;
    moved.eye = target + rotated(camera.eye - target, axis, angle);
    moved.right = rotated(camera.right, axis, angle);
    moved.up = rotated(camera.up, axis, angle);
    moved.forward = rotated(camera.forward, axis, angle);
    return moved;
}

void setLens(CameraOptions const& options, Sight& sight) {
    Camera& camera = sight.camera;
    if (camera.isParallel)
        return;
    camera.lensRadius = options.aperture / 2.0;
    camera.focus = options.focus.value_or(dot(sight.target - camera.eye, camera.forward));
}

Sight sightOf(Camera const& camera, Vec const& centre) {
    double const distance = dot(centre - camera.eye, camera.forward);
    double const size = std::sqrt(dot(camera.eye, camera.eye));
    // Not so near that the direction would be lost, nor behind the eye.
    double const usable = distance > 1e-6 * size ? distance : size + 1.0;
    return {camera, camera.eye + camera.forward * usable, camera.up};
}

Sight placeTurntable(CameraOptions const& given, int width, int height, char upAxis,
                     FramedSpheres const& spheres, Vec const& origin) {
    CameraOptions options = given;
    if (!options.eye && !options.view)
        options.view = View::iso; // face on, a flat set would only spin
    Camera camera = placeCamera(options, width, height, upAxis, spheres, origin);
    Vec const target = options.lookAt ? wide(*options.lookAt) - origin : spheres.bounds().centre();

    if (!options.eye) {
        double const reach = marginFactor * reachFrom(target, spheres);
        double const tanHalfHeight = std::tan(options.fov * std::numbers::pi / 360.0);
        double const narrower = std::min(1.0, static_cast<double>(width) / height);
        double const narrowTan = tanHalfHeight * narrower;
        // A sphere touches the sides of a pinhole's view at its radius over their half angle's
        // sine.
        double const distance = options.ortho
                                    ? 2.0 * reach
                                    : reach * std::sqrt(1.0 + narrowTan * narrowTan) / narrowTan;
        camera.eye = target - camera.forward * distance;
        if (options.ortho)
            camera.tanHalfHeight = reach / narrower / options.zoom;
    }

    char const axisName = options.upAxis != '\0' ? options.upAxis : upAxis;
    Vec const axis = options.up        ? unit(wide(*options.up))
                     : axisName == 'y' ? Vec{0, 1, 0}
                                       : Vec{0, 0, 1};
    return {camera, target, axis};
}

} // namespace pipeline
