// Makes spheres.
#include "bench/scenes.h"

#include <numbers>
#include <numeric>

namespace kelpabench {

using Kelpa::Vector;

Vector Random::inCube() {
    auto const x = static_cast<float>(unit());
    auto const y = static_cast<float>(unit());
    return {x, y, static_cast<float>(unit())};
}

Vector Random::direction() {
    double const z = 2.0 * unit() - 1.0;
    double const phi = 2.0 * std::numbers::pi * unit();
    double const s = std::sqrt(1.0 - z * z);
    return {static_cast<float>(s * std::cos(phi)), static_cast<float>(s * std::sin(phi)),
            static_cast<float>(z)};
}

Vector moved(Vector const& point, double length, Vector const& along) {
    auto const component = [length](float from, float by) {
        return static_cast<float>(static_cast<double>(from) + length * static_cast<double>(by));
    };
    return {component(point.x, along.x), component(point.y, along.y), component(point.z, along.z)};
}

double dot(Vector const& a, Vector const& b) {
    auto const product = [](float p, float q) {
        return static_cast<double>(p) * static_cast<double>(q);
    };
    return product(a.x, b.x) + product(a.y, b.y) + product(a.z, b.z);
}

std::string SceneRecipe::name() const {
    constexpr char const* cloudNames[] = {"uniform", "clustered", "slab"};
    constexpr char const* motionNames[] = {"static", "own", "drift"};
    return std::string(cloudNames[static_cast<int>(cloud)]) + '/' +
           motionNames[static_cast<int>(motion)] + '/' + std::to_string(count);
}

Vector Scene::center(std::int32_t i, float time) const {
    auto const index = static_cast<std::size_t>(i);
    Vector const& from = positions[index];
    if (!isMoving())
        return from;
    Vector const& to = laterPositions[index];
    return moved(from, static_cast<double>(time), {to.x - from.x, to.y - from.y, to.z - from.z});
}

namespace {

void addSphere(Scene& scene, Vector const& center, double radius) {
    scene.positions.push_back(center);
    scene.radii.push_back(static_cast<float>(radius));
}

void fillUniform(Scene& scene, Random& random) {
    double const radius = 0.5 / std::cbrt(static_cast<double>(scene.recipe.count));
    for (int i = 0; i < scene.recipe.count; ++i)
        addSphere(scene, random.inCube(), radius);
}

void fillClustered(Scene& scene, Random& random) {
    constexpr double scale = 0.1;
    constexpr double edge = 0.5;
    double const largest = 0.2 / std::cbrt(static_cast<double>(scene.recipe.count));
    for (int i = 0; i < scene.recipe.count;) {
        // The sphere inside which a part `mass` of all mass lies.
        double const mass = random.unit();
        double const distance = scale / std::sqrt(std::pow(mass, -2.0 / 3.0) - 1.0);
        if (!(distance < edge))
            continue;
        Vector const center = moved({0.5F, 0.5F, 0.5F}, distance, random.direction());
        addSphere(scene, center, largest * std::pow(10.0, -1.5 * random.unit()));
        ++i;
    }
}

void fillSlab(Scene& scene, Random& random) {
    constexpr float thickness = 0.05F;
    double const radius = 0.75 * std::cbrt(static_cast<double>(thickness) / scene.recipe.count);
    for (int i = 0; i < scene.recipe.count; ++i) {
        Vector center = random.inCube();
        center.z = 0.5F + thickness * (center.z - 0.5F);
        addSphere(scene, center, radius);
    }
}

void addMotion(Scene& scene, Random& random) {
    double const meanRadius =
        std::accumulate(scene.radii.begin(), scene.radii.end(), 0.0) / scene.recipe.count;
    Vector const common = {2.0F / 3.0F, 1.0F / 3.0F, 2.0F / 3.0F};
    for (std::size_t i = 0; i < scene.positions.size(); ++i)
        scene.laterPositions.push_back(scene.recipe.motion == Motion::drift
                                           ? moved(scene.positions[i], 10.0 * meanRadius, common)
                                           : moved(scene.positions[i],
                                                   2.0 * static_cast<double>(scene.radii[i]),
                                                   random.direction()));
}

} // namespace

Scene makeScene(SceneRecipe const& recipe) {
    Random random(1);
    Scene scene{recipe, {}, {}, {}};
    switch (recipe.cloud) {
    case Cloud::uniform:
        fillUniform(scene, random);
        break;
    case Cloud::clustered:
        fillClustered(scene, random);
        break;
    case Cloud::slab:
        fillSlab(scene, random);
        break;
    }
    if (recipe.motion != Motion::none)
        addMotion(scene, random);
    return scene;
}

} // namespace kelpabench
