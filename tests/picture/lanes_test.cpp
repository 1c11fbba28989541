// What pictures compute for many samples at once, and where they need not compute at all.

#include "kelpa/foundation/iray.h"

#include "pipeline/picture/camera.h"
#include "pipeline/picture/footprint.h"
#include "pipeline/picture/framing.h"
#include "pipeline/picture/lanekernels.h"
#include "pipeline/picture/sampling.h"
#include "pipeline/scene/scene.h"
#include "pipeline/scene/vec.h"

#include "tests/support/clouds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <optional>
#include <vector>

namespace {

using Kelpa::Vector;
using kelpatest::Random;
using pipeline::Camera;
using pipeline::CellGrid;
using pipeline::Footprint;
using pipeline::LaneKernels;
using pipeline::Lanes3;
using pipeline::Vec;
using pipeline::wide;
using pipeline::operator+;
using pipeline::operator*;
using pipeline::cross;
using pipeline::dot;
using pipeline::unit;

Camera cameraAt(Vec const& eye, Vector const& lookAt, bool isParallel, double fov) {
    pipeline::CameraOptions options;
    options.eye = pipeline::narrow(eye);
    options.lookAt = lookAt;
    options.ortho = isParallel;
    options.fov = fov;
    std::vector<Vector> const centers = {lookAt};
    std::vector<float> const radii = {1.0F};
    return placeCamera(options, 96, 60, 'y', {centers, radii}, {});
}

/// All that the kernels make of one set of numbers.
struct LaneResults {
    static constexpr std::size_t most = 67; // not a multiple of any width

    Lanes3<double, most> origin{};
    Lanes3<float, most> dir{};
    Lanes3<double, most> place{};
    Lanes3<float, most> normal{};
    Lanes3<float, most> around{};
    Lanes3<float, most> color{};
    float cosine[most] = {};
    double corner[2][most] = {};
    double pattern[2][most] = {};
    std::int32_t blocks[4][most] = {};

    bool operator==(LaneResults const& other) const {
        return std::memcmp(this, &other, sizeof *this) == 0;
    }
};

LaneResults computed(LaneKernels const& kernels, Camera const& camera, unsigned seed) {
    constexpr std::size_t most = LaneResults::most;
    Random random(seed);
    LaneResults results;
    double t[most];
    float open[most];
    float radii[most];
    std::int32_t lit[most];
    Vector centers[most];
    for (std::size_t i = 0; i < most; ++i) {
        results.corner[0][i] = random.below(96);
        results.corner[1][i] = random.below(60);
        results.pattern[0][i] = static_cast<double>(random.unit()) + random.below(1000);
        results.pattern[1][i] = static_cast<double>(random.unit()) + random.below(2);
        t[i] = static_cast<double>(random.between(0.1F, 100.0F));
        open[i] = random.unit();
        lit[i] = random.below(2);
        centers[i] = random.inCube(10.0F);
        radii[i] = random.powerOfTwo(-10, 2);
        Vector const normal = random.direction() * random.powerOfTwo(-4, 4);
        results.normal.x[i] = normal.x;
        results.normal.y[i] = normal.y;
        results.normal.z[i] = normal.z;
        results.color.x[i] = results.color.y[i] = results.color.z[i] = random.unit();
    }
    pipeline::Lighting light;
    light.up = pipeline::narrow(camera.up);
    light.towardsKey = random.direction();
    kernels.cameraRays(camera, most, {results.corner[0], results.corner[1]},
                       {results.pattern[0], results.pattern[1]}, results.origin, results.dir);
    results.place = results.origin;
    kernels.goAlong(most, results.dir, t, results.place);
    kernels.normalise(most, light, results.normal, results.cosine);
    kernels.aroundNormals(most, results.normal, {results.pattern[0], results.pattern[1]},
                          results.around);
    kernels.shade(most, light, results.normal, results.dir, results.cosine, open, lit,
                  results.color);
    auto& [x0, x1, y0, y1] = results.blocks;
    kernels.findBlocks(camera, {0, 0, 2, 48, 30}, most, centers, radii, {x0, x1, y0, y1});
    return results;
}

TEST(LaneKernels, AllComputeTheSameBitsAndWhatTheyAreFor) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE(seed);
        Camera const camera = cameraAt({3, 4, 5}, {0, 1, 0}, seed % 2 == 1, 20.0 + seed % 100);
        LaneResults const results = computed(pipeline::laneKernels().front(), camera, seed);
        for (LaneKernels const& kernels : pipeline::laneKernels())
            EXPECT_TRUE(computed(kernels, camera, seed) == results);

        for (std::size_t i = 0; i < LaneResults::most; ++i) {
            double const x = pipeline::fraction(results.pattern[0][i]);
            double const y = pipeline::fraction(results.pattern[1][i]);
            EXPECT_EQ(x, results.pattern[0][i] - std::floor(results.pattern[0][i]));
            auto const ray = camera.ray(results.corner[0][i] + x, results.corner[1][i] + y);
            EXPECT_EQ(results.origin.y[i], ray.origin[1]);
            EXPECT_EQ(results.dir.z[i], ray.dir.z);
            // The angle to the normal has the cosine distribution, and the one around it is even.
            Vector const n = {results.normal.x[i], results.normal.y[i], results.normal.z[i]};
            Vector const d = {results.around.x[i], results.around.y[i], results.around.z[i]};
            EXPECT_NEAR(static_cast<double>(dot(n, d)), std::sqrt(1.0 - y), 1e-6);
            Vector const tangent =
                unit(cross(n, std::abs(n.x) < 0.6F ? Vector{1, 0, 0} : Vector{0, 1, 0}));
            double const turn = 2.0 * std::numbers::pi * x;
            EXPECT_NEAR(static_cast<double>(dot(d, tangent)), std::sqrt(y) * std::cos(turn), 1e-6);
            EXPECT_NEAR(static_cast<double>(dot(d, cross(n, tangent))),
                        std::sqrt(y) * std::sin(turn), 1e-6);
        }
    }
}

/// Particles without a tree, of which the second snapshot is empty when they stand still.
struct Spheres {
    std::vector<Vector> from;
    std::vector<Vector> to;
    std::vector<float> radii;

    void add(Vector const& start, Vector const& end, float radius) {
        from.push_back(start);
        to.push_back(end);
        radii.push_back(radius);
    }
    pipeline::Scene scene(bool isMoving) const {
        pipeline::Scene made;
        made.first = std::make_unique<pipeline::Snapshot>(from, radii);
        if (isMoving)
            made.second = std::make_unique<pipeline::Snapshot>(to, radii);
        return made;
    }
};

/// The pixel through which a place is seen, wherever it lies.
struct Seen {
    double x;
    double y;
};
Seen pixelOf(Camera const& camera, Vec const& place) {
    Vec const fromEye = place - camera.eye;
    double const depth = camera.isParallel ? 1.0 : dot(fromEye, camera.forward);
    double const scale = camera.height / (2.0 * camera.tanHalfHeight * depth);
    return {camera.width * 0.5 + dot(fromEye, camera.right) * scale,
            camera.height * 0.5 - dot(fromEye, camera.up) * scale};
}

TEST(Footprints, HoldEveryPixelInWhichARayMeetsAParticle) {
    int met = 0;
    int notReached = 0;
    for (unsigned seed = 0; seed < 1500; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        bool const isMoving = seed % 2 == 1;
        // From among them to tiny in the picture; at times with pixels as small as the rounding of
        // what is seen through them.
        bool const isClose = seed % 5 == 0;
        float const far = isClose ? 4096.0F : random.powerOfTwo(-2, 12);
        Vec const eye = wide(random.direction() * far);
        Vector const middle = random.inCube(0.5F);
        double const fov = isClose         ? 1e-4
                           : seed % 3 == 0 ? 100.0
                                           : 120.0 / static_cast<double>(far + 1);
        Camera const camera = cameraAt(eye, middle, seed % 4 >= 2, fov);
        Spheres spheres;
        for (int i = 0; i < 1 + random.below(12); ++i) {
            Vector const start = random.inCube(2.0F);
            spheres.add(start, start + random.inCube(3.0F), random.powerOfTwo(-14, 0));
        }
        spheres.add(middle, middle, random.powerOfTwo(-14, -8));
        Footprint const footprint(spheres.scene(isMoving), camera, 7, 5, 90, 57);
        for (int y = 5; y < 57; ++y)
            for (int x = 7; x < 90; ++x)
                notReached += footprint.reaches(x, y) ? 0 : 1;
        for (int trial = 0; trial < 300; ++trial) {
            auto const i =
                static_cast<std::size_t>(random.below(static_cast<int>(spheres.radii.size())));
            float const time = isMoving ? random.unit() : 0.0F;
            Vector const center = spheres.from[i] * (1.0F - time) + spheres.to[i] * time;
            // Towards somewhere on the sphere, its outline above all.
            Vector const out = random.direction() * (0.9999F * spheres.radii[i]);
            auto [x, y] = pixelOf(camera, wide(center + out));
            if (isClose) { // beside it, too
                x += static_cast<double>(random.between(-8.0F, 8.0F));
                y += static_cast<double>(random.between(-8.0F, 8.0F));
            }
            Kelpa::TraceRay const traced = camera.ray(x, y);
            Kelpa::IRay ray(traced, 0.0, 1e30);
            if (!(x >= 7 && x < 90 && y >= 5 && y < 57) ||
                intersectSphere(center, spheres.radii[i], ray, 0) == 0)
                continue;
            ++met;
            EXPECT_TRUE(footprint.reaches(static_cast<int>(x), static_cast<int>(y)))
                << x << ", " << y << " at " << time;
        }
    }
    EXPECT_GT(met, 50000);
    EXPECT_GT(notReached, 1000000) << "most of these pictures are empty";
}

TEST(Footprints, AreAsSmallAsTheSpheresInFrontOfTheEye) {
    Camera const camera = cameraAt({0, 0, 10}, {0, 0, 0}, false, 35.0);
    auto const reachedBy = [&camera](Spheres const& spheres, bool isMoving) {
        Footprint const footprint(spheres.scene(isMoving), camera, 0, 0, 96, 60);
        int count = 0;
        for (int pixel = 0; pixel < 96 * 60; ++pixel)
            count += footprint.reaches(pixel % 96, pixel / 96) ? 1 : 0;
        return count;
    };
    Spheres ball;
    ball.add({0, 0, 0}, {0, 0, 0}, 1.0F);
    double const radius = 30.0 / std::tan(17.5 * std::numbers::pi / 180.0) / std::sqrt(99.0);
    EXPECT_GE(reachedBy(ball, false), static_cast<int>(std::numbers::pi * radius * radius));
    EXPECT_LE(reachedBy(ball, false), static_cast<int>(std::pow(2.0 * radius + 4.0, 2.0)));

    Spheres nothing;
    float const nan = std::numeric_limits<float>::quiet_NaN();
    nothing.add({0, 0, 20}, {0, 0, 21}, 1.0F);
    nothing.add({50, 0, 0}, {50, 0, 0}, 1.0F);
    nothing.add({nan, 0, 0}, {0, 0, 0}, 1.0F);
    nothing.add({0, 0, 0}, {0, nan, 0}, nan);
    EXPECT_EQ(reachedBy(nothing, false), 0);
    EXPECT_EQ(reachedBy(nothing, true), 0);

    Spheres past; // from behind the eye to its front, near it: anywhere
    past.add({0.2F, 0, 12}, {0.2F, 0, 8}, 0.1F);
    EXPECT_EQ(reachedBy(past, true), 96 * 60);
    EXPECT_EQ(reachedBy(past, false), 0);
}

} // namespace
