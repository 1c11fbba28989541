// Makes rays, and compares answers.
#include "bench/rays.h"

#include <algorithm>
#include <cmath>

namespace kelpabench {

using Kelpa::Vector;

namespace {

float shutterTime(Random& random) {
    return static_cast<float>(0.001 + 0.998 * random.unit());
}

Vector normalized(double x, double y, double z) {
    double const length = std::sqrt(x * x + y * y + z * z);
    return {static_cast<float>(x / length), static_cast<float>(y / length),
            static_cast<float>(z / length)};
}

} // namespace

std::vector<Ray> cameraRays(int count) {
    constexpr int tile = 8;
    int const tiles = std::max(static_cast<int>(std::lround(std::sqrt(count) / tile)), 1);
    int const side = tiles * tile;
    Random random(2);
    std::vector<Ray> rays;
    for (int top = 0; top < side; top += tile)
        for (int left = 0; left < side; left += tile)
            for (int k = 0; k < tile * tile; ++k) {
                int const row = k / tile;
                double const u = (left + k % tile + 0.5) / side - 0.5;
                double const v = (top + row + 0.5) / side - 0.5;
                rays.push_back(
                    {{0.5F, 0.5F, -1.0F}, normalized(u, v, 1.0), shutterTime(random), -1});
            }
    return rays;
}

std::vector<Ray> bouncedRays(Scene const& scene, std::span<Ray const> cameraRays,
                             std::span<Found const> hits, int count) {
    constexpr double lift = 1.0 + 1.0 / 512.0;
    Random random(3);
    std::vector<Ray> rays;
    if (std::none_of(hits.begin(), hits.end(), [](Found const& hit) { return hit.isHit(); }))
        return rays;
    for (std::size_t i = 0; static_cast<int>(rays.size()) < count; i = (i + 1) % hits.size()) {
        if (!hits[i].isHit())
            continue;
        Vector const normal =
            normalized(static_cast<double>(hits[i].normal.x), static_cast<double>(hits[i].normal.y),
                       static_cast<double>(hits[i].normal.z));
        Vector dir = random.direction();
        if (dot(dir, normal) < 0.0)
            dir = {-dir.x, -dir.y, -dir.z};
        std::int32_t const particle = hits[i].particle;
        double const radius = static_cast<double>(scene.radii[static_cast<std::size_t>(particle)]);
        float const time = cameraRays[i].time;
        rays.push_back(
            {moved(scene.center(particle, time), lift * radius, normal), dir, time, particle});
    }
    return rays;
}

std::vector<Ray> randomRays(int count) {
    constexpr double outside = 2.0; // longer than the cube's diagonal
    Random random(4);
    std::vector<Ray> rays;
    for (int i = 0; i < count; ++i) {
        Vector const p = random.inCube();
        Vector const q = random.inCube();
        Vector const dir =
            normalized(static_cast<double>(q.x - p.x), static_cast<double>(q.y - p.y),
                       static_cast<double>(q.z - p.z));
        rays.push_back({moved(p, -outside, dir), dir, shutterTime(random), -1});
    }
    return rays;
}

std::vector<Ray> pictureRays(double zoom, int samples, ListOrder order, int count) {
    constexpr int width = 1280, height = 720, tile = 8;
    constexpr Vector eye = {0.5F, 0.5F, -1.2F};
    double const halfHeight = 0.41 / zoom; // of the picture, at a distance of 1
    Random random(5);
    std::vector<Ray> rays;
    auto const addSample = [&](int column, int row) {
        double const u = (column + random.unit() - 0.5 * width) / (0.5 * height) * halfHeight;
        double const v = (0.5 * height - row - random.unit()) / (0.5 * height) * halfHeight;
        rays.push_back({eye, normalized(u, v, 1.0), shutterTime(random), -1});
    };
    constexpr int tiles = width / tile * (height / tile);
    int const wanted = std::clamp(count / (tile * tile * samples), 1, tiles);
    for (int i = 0; i < wanted; ++i) {
        int const number = static_cast<int>(static_cast<std::int64_t>(i) * tiles / wanted);
        int const left = number % (width / tile) * tile;
        int const top = number / (width / tile) * tile;
        for (int k = 0; k < tile * tile * samples; ++k)
            if (order == ListOrder::pixels) {
                addSample(left + k % tile, top + k / tile % tile);
            } else { // blocks of 2 x 2 pixels
                int const pixel = k / samples;
                int const block = pixel / 4;
                addSample(left + block % 4 * 2 + pixel % 2, top + block / 4 * 2 + pixel / 2 % 2);
            }
    }
    return rays;
}

std::vector<Ray> shadowRays(Scene const& scene, std::span<Ray const> rays,
                            std::span<Found const> hits) {
    constexpr double lift = 1.0 + 1.0 / 512.0;
    Vector const toLight = normalized(-0.4, 0.7, -0.6);
    std::vector<Ray> shadows;
    for (std::size_t i = 0; i < rays.size(); ++i) {
        Vector const& n = hits[i].normal;
        if (!hits[i].isHit() || dot(n, toLight) <= 0.0)
            continue;
        std::int32_t const particle = hits[i].particle;
        double const radius = static_cast<double>(scene.radii[static_cast<std::size_t>(particle)]);
        Vector const normal = normalized(static_cast<double>(n.x), static_cast<double>(n.y),
                                         static_cast<double>(n.z));
        float const time = rays[i].time;
        shadows.push_back(
            {moved(scene.center(particle, time), lift * radius, normal), toLight, time, particle});
    }
    return shadows;
}

} // namespace kelpabench
