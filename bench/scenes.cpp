#include "bench/scenes.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace kelpabench {

using Kelpa::Vector;

Vector Random::direction() {
    double const z = 2.0 * unit() - 1.0;
    double const phi = 2.0 * std::numbers::pi * unit();
    double const s = std::sqrt(1.0 - z * z);
    return {static_cast<float>(s * std::cos(phi)), static_cast<float>(s * std::sin(phi)),
            static_cast<float>(z)};
}

namespace {

Vector plus(Vector const& p, Vector const& d, double length) {
    auto const along = [length](float from, float by) {
        return static_cast<float>(static_cast<double>(from) + static_cast<double>(by) * length);
    };
    return {along(p.x, d.x), along(p.y, d.y), along(p.z, d.z)};
}

void fillUniform(Scene& scene, int count, Random& random) {
    double const radius = 0.5 / std::cbrt(static_cast<double>(count));
    for (int i = 0; i < count; ++i) {
        scene.positions.push_back({static_cast<float>(random.unit()),
                                   static_cast<float>(random.unit()),
                                   static_cast<float>(random.unit())});
        scene.radii.push_back(static_cast<float>(radius));
    }
}

void fillClustered(Scene& scene, int count, Random& random) {
    constexpr double scale = 0.1;
    constexpr double edge = 0.5;
    double const spacing = 1.0 / std::cbrt(static_cast<double>(count));
    while (static_cast<int>(scene.positions.size()) < count) {
        double const mass = random.unit();
        double const r = scale / std::sqrt(std::pow(mass, -2.0 / 3.0) - 1.0);
        if (!(r < edge))
            continue;
        scene.positions.push_back(plus({0.5F, 0.5F, 0.5F}, random.direction(), r));
        scene.radii.push_back(
            static_cast<float>(0.05 * spacing * std::pow(10.0, 1.5 * random.unit())));
    }
}

void fillSlab(Scene& scene, int count, Random& random) {
    constexpr double thickness = 0.05;
    double const radius = 1.5 * 0.5 * std::cbrt(thickness / count);
    for (int i = 0; i < count; ++i) {
        scene.positions.push_back({static_cast<float>(random.unit()),
                                   static_cast<float>(random.unit()),
                                   static_cast<float>(0.5 + thickness * (random.unit() - 0.5))});
        scene.radii.push_back(static_cast<float>(radius));
    }
}

void move(Scene& scene, Motion motion, Random& random) {
    std::vector<float> sorted = scene.radii;
    auto const middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    std::nth_element(sorted.begin(), middle, sorted.end());
    double const driftLength = 10.0 * static_cast<double>(*middle);
    constexpr float diagonal = 0.70710678F;
    for (std::size_t i = 0; i < scene.positions.size(); ++i) {
        double const ownLength = 2.0 * static_cast<double>(scene.radii[i]);
        scene.moved.push_back(
            motion == Motion::drift
                ? plus(scene.positions[i], {diagonal, diagonal, 0.0F}, driftLength)
                : plus(scene.positions[i], random.direction(), ownLength));
    }
}

float shutterTime(Random& random) {
    return static_cast<float>(0.001 + 0.998 * random.unit());
}

} // namespace

Scene makeScene(std::string const& kind, int count, Motion motion) {
    Random random(1);
    Scene scene;
    scene.name = kind;
    if (kind == "uniform")
        fillUniform(scene, count, random);
    else if (kind == "clustered")
        fillClustered(scene, count, random);
    else if (kind == "slab")
        fillSlab(scene, count, random);
    else
        throw std::invalid_argument("no scene is called " + kind);
    if (motion != Motion::none) {
        scene.name += motion == Motion::drift ? ", drifting" : ", own ways";
        move(scene, motion, random);
    }
    return scene;
}

std::vector<Ray> cameraRays(int side) {
    Random random(2);
    std::vector<Ray> rays;
    constexpr int tile = 8;
    for (int top = 0; top < side; top += tile)
        for (int left = 0; left < side; left += tile)
            for (int k = 0; k < tile * tile; ++k) {
                double const u = (left + k % tile + 0.5) / side - 0.5;
                double const v = (top + k / tile + 0.5) / side - 0.5;
                double const length = std::sqrt(u * u + v * v + 1.0);
                rays.push_back({{0.5, 0.5, -1.0},
                                {static_cast<float>(u / length), static_cast<float>(v / length),
                                 static_cast<float>(1.0 / length)},
                                shutterTime(random),
                                -1});
            }
    return rays;
}

std::vector<Ray> randomRays(int count) {
    Random random(3);
    std::vector<Ray> rays;
    for (int i = 0; i < count; ++i) {
        Ray ray{};
        for (double& coordinate : ray.origin)
            coordinate = static_cast<double>(static_cast<float>(random.unit()));
        ray.dir = random.direction();
        ray.time = shutterTime(random);
        ray.skip = -1;
        rays.push_back(ray);
    }
    return rays;
}

} // namespace kelpabench
