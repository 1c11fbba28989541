// Cameras that are placed so that all spheres just fit.

#include "pipeline/picture/framing.h"
#include "pipeline/scene/bounds.h"

#include "tests/support/clouds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

using kelpatest::Random;

using pipeline::Vec;

double along(Kelpa::Vector const& c, Vec const& eye, Vec const& axis) {
    return (static_cast<double>(c.x) - eye.x) * axis.x +
           (static_cast<double>(c.y) - eye.y) * axis.y +
           (static_cast<double>(c.z) - eye.z) * axis.z;
}

/// How far the spheres reach over the frame's sides brought in by 5 %, relative to the cloud's
/// size: 0 when one just touches, above 0 when one is beyond.
double excess(pipeline::Camera const& camera, std::vector<Kelpa::Vector> const& centers,
              std::vector<float> const& radii, double size) {
    double const tangents[2] = {camera.tanHalfHeight * camera.width / camera.height / 1.05,
                                camera.tanHalfHeight / 1.05};
    double most = -1e300;
    for (std::size_t i = 0; i < centers.size(); ++i) {
        double const r = static_cast<double>(radii[i]);
        double const depth = along(centers[i], camera.eye, camera.forward);
        EXPECT_GT(depth, r) << "behind the eye, or around it";
        for (int axis = 0; axis < 2; ++axis) {
            double const across =
                std::abs(along(centers[i], camera.eye, axis == 0 ? camera.right : camera.up));
            double const t = tangents[axis];
            most = std::max(most, camera.isParallel
                                      ? across + r - t
                                      : (across - depth * t) / std::sqrt(1.0 + t * t) + r);
        }
    }
    return most / size;
}

TEST(Camera, FitsAllSpheresAndTouchesTheMargin) {
    for (unsigned seed = 0; seed < 500; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        std::vector<Kelpa::Vector> centers;
        std::vector<float> radii;
        float const size = random.powerOfTwo(-10, 10);
        Kelpa::Vector const away = random.inCube(3.0F * size);
        for (int count = 1 + random.below(20); count > 0; --count) {
            Kelpa::Vector const place = random.inCube(size);
            centers.push_back({place.x + away.x, place.y + away.y, place.z + away.z});
            radii.push_back(size * random.between(0.01F, 0.5F));
        }
        pipeline::CameraOptions options;
        if (int const side = random.below(8); side > 0)
            options.view = pipeline::viewNames[side - 1].second;
        options.ortho = random.below(2) == 0;
        options.fov = static_cast<double>(random.between(5.0F, 120.0F));
        if (random.below(2) == 0)
            options.up = random.direction();
        char const upAxis = random.below(2) == 0 ? 'y' : 'z';
        auto const camera =
            pipeline::placeCamera(options, 10 + random.below(300), 10 + random.below(300), upAxis,
                                  {centers, radii}, Vec{0, 0, 0});
        EXPECT_NEAR(excess(camera, centers, radii, static_cast<double>(size)), 0.0, 1e-9);
        auto const middle = camera.ray(camera.width * 0.5, camera.height * 0.5);
        EXPECT_NEAR(static_cast<double>(middle.dir.x), camera.forward.x, 1e-6);
        EXPECT_NEAR(static_cast<double>(middle.dir.y), camera.forward.y, 1e-6);
        // The upper left corner is up and to the left.
        auto const corner = camera.ray(0.0, 0.0);
        Kelpa::Vector const place = {static_cast<float>(corner.origin[0]) + size * corner.dir.x,
                                     static_cast<float>(corner.origin[1]) + size * corner.dir.y,
                                     static_cast<float>(corner.origin[2]) + size * corner.dir.z};
        EXPECT_LT(along(place, camera.eye, camera.right), 0.0);
        EXPECT_GT(along(place, camera.eye, camera.up), 0.0);
    }
}

TEST(Camera, SeesAFlatSetFaceOn) {
    for (int axis = 0; axis < 3; ++axis) {
        for (char const upAxis : {'y', 'z'}) {
            Random random(static_cast<unsigned>(axis));
            std::vector<Kelpa::Vector> centers;
            for (int i = 0; i < 30; ++i) {
                centers.push_back(random.inCube(5.0F));
                centers.back()[axis] = 2.0F;
            }
            std::vector<float> const radii(centers.size(), 0.1F);
            auto const camera =
                pipeline::placeCamera({}, 160, 90, upAxis, {centers, radii}, Vec{0, 0, 0});
            double const forward[3] = {camera.forward.x, camera.forward.y, camera.forward.z};
            EXPECT_EQ(std::abs(forward[axis]), 1.0) << axis << upAxis;
        }
    }
}

} // namespace
