// Cameras from keys, at them and between them.
#include "pipeline/picture/cameraway.h"

#include "pipeline/files/errors.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace pipeline {

namespace {

constexpr double degree = std::numbers::pi / 180.0;

/// All numbers of a key that go the same way.
using Numbers = std::array<double, 11>;

Numbers numbersOf(CameraKey const& k) {
    return {k.eye.x,
            k.eye.y,
            k.eye.z,
            k.lookAt.x,
            k.lookAt.y,
            k.lookAt.z,
            k.up.x,
            k.up.y,
            k.up.z,
            k.fov,
            k.height.value_or(0.0)};
}

/// Between keys `i` and `i + 1`: a cubic whose slope at a key is that between its neighbours (E.
/// Catmull and R. Rom, "A Class of Local Interpolating Splines", 1974), with uneven times.
Numbers between(std::vector<CameraKey> const& keys, std::size_t i, double frame) {
    std::size_t const before = i > 0 ? i - 1 : i;
    std::size_t const behind = std::min(i + 2, keys.size() - 1);
    double const span = keys[i + 1].frame - keys[i].frame;
    double const u = (frame - keys[i].frame) / span;
    Numbers const p[4] = {numbersOf(keys[before]), numbersOf(keys[i]), numbersOf(keys[i + 1]),
                          numbersOf(keys[behind])};
    Numbers result{};
    for (std::size_t k = 0; k < result.size(); ++k) {
        double const slope0 = (p[2][k] - p[0][k]) / (keys[i + 1].frame - keys[before].frame) * span;
        double const slope1 = (p[3][k] - p[1][k]) / (keys[behind].frame - keys[i].frame) * span;
        double const u2 = u * u;
        double const u3 = u2 * u;
        result[k] = (2.0 * u3 - 3.0 * u2 + 1.0) * p[1][k] + (u3 - 2.0 * u2 + u) * slope0 +
                    (3.0 * u2 - 2.0 * u3) * p[2][k] + (u3 - u2) * slope1;
    }
    return result;
}

} // namespace

CameraKey CameraWay::at(double frame) const {
    auto const next =
        std::ranges::find_if(keys, [frame](CameraKey const& key) { return key.frame > frame; });
    auto const place = static_cast<std::size_t>(next - keys.begin());
    CameraKey key = keys[place > 0 ? place - 1 : 0];
    if (place > 0 && place < keys.size()) {
        Numbers const n = between(keys, place - 1, frame);
        key.eye = {n[0], n[1], n[2]};
        key.lookAt = {n[3], n[4], n[5]};
        key.up = {n[6], n[7], n[8]};
        // A cubic may swing beyond the keys on both sides.
        key.fov = std::clamp(n[9], leastFov, mostFov);
        if (key.height)
            key.height = std::max(n[10], 1e-3 * std::min(*key.height, *keys[place].height));
    }
    key.frame = frame;
    return key;
}

CameraKey keyOf(Sight const& sight, Vec const& origin) {
    CameraKey key;
    key.eye = sight.camera.eye + origin;
    key.lookAt = sight.target + origin;
    key.up = sight.axis;
    if (sight.camera.isParallel)
        key.height = 2.0 * sight.camera.tanHalfHeight;
    else
        key.fov = 2.0 * std::atan(sight.camera.tanHalfHeight) / degree;
    return key;
}

Sight sightOf(CameraKey const& key, int width, int height, double zoom, Vec const& origin) {
    Vec const towardsEye = key.eye - key.lookAt;
    if (!(dot(towardsEye, towardsEye) > 0.0) || !(dot(key.up, key.up) > 0.0))
        throw InputError(fmt::format("the camera's way: at frame {} it is where it looks at, or "
                                     "nothing is up; a key more leads around that",
                                     key.frame));
    Sight sight{};
    Camera& camera = sight.camera;
    camera.width = width;
    camera.height = height;
    camera.isParallel = key.height.has_value();
    camera.eye = key.eye - origin;
    camera.tanHalfHeight =
        (key.height ? *key.height / 2.0 : std::tan(key.fov / 2.0 * degree)) / zoom;
    orient(camera, towardsEye, key.up);
    sight.target = key.lookAt - origin;
    sight.axis = unit(key.up);
    return sight;
}

} // namespace pipeline
