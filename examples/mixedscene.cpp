// Still and moving particles in one picture, behind one list of primitives: a floor and a swarm
// with trees of their own, and two rings that share a tree. Writes a small PPM and says what it
// saw.
//   mixedscene [mixedscene.ppm]
#include "kelpa/host/particlesystem.h"
#include "kelpa/host/threadpool.h"
#include "kelpa/particleprimitives/particleprimitives.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <numbers>
#include <string>
#include <vector>

namespace {

using namespace Kelpa;

constexpr int width = 160, height = 90;
constexpr int samplesPerPixel = 8; // each at its own time
constexpr double farthest = 1e30;
constexpr Vector towardsLight{0.4F, -0.5F, 0.8F};

ParticleSystem floorOfSpheres() {
    constexpr int side = 40;
    std::vector<Vector> centers;
    for (int y = -side / 2; y < side / 2; ++y)
        for (int x = -side / 2; x < side / 2; ++x)
            centers.push_back({static_cast<float>(x) * 0.5F, static_cast<float>(y) * 0.5F, 0.0F});
    std::vector<float> radii(centers.size(), 0.3F);
    std::vector<Vector> colors(centers.size(), {0.6F, 0.6F, 0.6F});
    return {std::move(centers), std::move(radii), std::move(colors)};
}

/// A ring of beads that stands on the floor and faces along an axis (0: x, 1: y).
ParticleSystem ring(Vector const& middle, int facing, Vector const& color) {
    constexpr int beads = 60;
    std::vector<Vector> centers;
    for (int i = 0; i < beads; ++i) {
        float const angle = static_cast<float>(i) * (2.0F * std::numbers::pi_v<float> / beads);
        Vector center = middle;
        center[1 - facing] += 2.0F * std::cos(angle);
        center.z += 2.0F * std::sin(angle);
        centers.push_back(center);
    }
    return {std::move(centers), std::vector<float>(beads, 0.25F),
            std::vector<Vector>(beads, color)};
}

/// Drops that fall to the floor side by side while the shutter is open.
ParticleSystem swarm(double shutterFraction) {
    constexpr int drops = 12;
    auto const fallen = static_cast<float>(2.0 * shutterFraction);
    std::vector<Vector> centers;
    for (int i = 0; i < drops; ++i) {
        int const row = i / 4;
        centers.push_back({static_cast<float>(i % 4) - 5.0F, static_cast<float>(row) - 1.0F,
                           4.0F + 0.2F * static_cast<float>(i) - fallen});
    }
    return {std::move(centers), std::vector<float>(drops, 0.3F),
            std::vector<Vector>(drops, {0.2F, 0.8F, 0.4F}), 0, shutterFraction};
}

/// Everything that rays can hit. Each particle has one number in the whole scene, which rays that
/// start on it name as `skipIndex`: a system alone in its tree counts from its primitive's
/// `baseIndex`; systems that share a tree count from the `indexOffset` of their records, and the
/// primitive that is asked keeps `baseIndex` 0.
struct Scene {
    explicit Scene(ThreadManager& threads) {
        ground.build(nullptr, &threads, 60, 0.0F, 2.0F, 0);
        falling.build(nullptr, &threads, 80, 0.0F, 1.0F, 0);

        // The last of these builds the tree over both systems. Hits on the second are reported as
        // `secondRing`, which owns no tree and is never asked.
        StaticSphereTree* const tree = firstRing.tree;
        SphereTreePrimitiveTemplate_callBuild(tree, redBeads.data(), nullptr, nullptr, &threads, 0,
                                              &firstRing);
        SphereTreePrimitiveTemplate_callBuild(tree, blueBeads.data(), nullptr, nullptr, &threads, 0,
                                              &secondRing);
        tree->particleSystems.elements[0].indexOffset = firstBead;
        tree->particleSystems.elements[1].indexOffset = firstBead + redBeads.data()->numParticles;
    }

    ParticleSystem floorBalls = floorOfSpheres();
    ParticleSystem dropsBefore = swarm(0.0);
    ParticleSystem dropsAfter = swarm(1.0);
    ParticleSystem redBeads = ring({0.0F, 0.0F, 2.5F}, 1, {0.9F, 0.2F, 0.1F});
    ParticleSystem blueBeads = ring({2.0F, 0.0F, 2.5F}, 0, {0.1F, 0.3F, 0.9F});

    std::int32_t const firstDrop = floorBalls.data()->numParticles;
    std::int32_t const firstBead = firstDrop + dropsBefore.data()->numParticles;

    StaticParticlePrimitive ground{0, floorBalls.data(), nullptr, true};
    MovingParticlePrimitive falling{firstDrop, dropsBefore.data(), dropsAfter.data(), true};
    StaticParticlePrimitive firstRing{0, redBeads.data(), nullptr, true};
    StaticParticlePrimitive secondRing{0, blueBeads.data(), nullptr, false};

    std::vector<GenericPrimitive*> const primitives{&ground, &falling, &firstRing};
};

RSRay rayFrom(double const (&origin)[3], Vector const& direction, float time) {
    RSRay ray{};
    std::copy(std::begin(origin), std::end(origin), ray.origin);
    ray.dir = direction;
    ray.intervalMax = ray.clipMax = ray.hitT = farthest;
    ray.time = time;
    ray.skipIndex = -1; // no particle has this number
    return ray;
}

/// Finds the closest hit on all primitives; false when there is none.
bool closestHit(Scene const& scene, RSRay& ray) {
    bool found = false;
    for (GenericPrimitive* const primitive : scene.primitives) {
        if (primitive->intersect(ray) == 0)
            continue;
        found = true;
        // A primitive alone in its tree looks at this interval only, not at the hits before it.
        ray.intervalMax = ray.hitT;
    }
    return found;
}

Vector colorOf(RSRay const& hit) {
    constexpr int stillType = 4914; // as StaticParticlePrimitive::type() says
    if (hit.hitPrimitive->type() == stillType)
        return static_cast<StaticParticlePrimitive*>(hit.hitPrimitive)->getColor(hit.hitLocalIndex);
    return static_cast<MovingParticlePrimitive*>(hit.hitPrimitive)->getColor(hit.hitLocalIndex);
}

/// What the picture shows, counted in samples.
struct Counts {
    int floor = 0, drops = 0, redBeads = 0, blueBeads = 0, sky = 0;
    int shadowed = 0;
    int selfShadowed = 0; ///< lit, but dark if the shadow ray did not know where it starts
};

void count(Scene const& scene, GenericPrimitive const* seen, Counts& counts) {
    ++(seen == &scene.ground      ? counts.floor
       : seen == &scene.falling   ? counts.drops
       : seen == &scene.firstRing ? counts.redBeads
                                  : counts.blueBeads);
}

/// The colour along a camera ray: lit by one distant light, with shadows.
Vector shade(Scene const& scene, RSRay ray, Counts& counts) {
    if (!closestHit(scene, ray)) {
        ++counts.sky;
        return {0.5F, 0.7F, 0.9F};
    }
    count(scene, ray.hitPrimitive, counts);

    // The shadow ray starts on the particle that was hit, at the same time.
    double where[3];
    for (int axis = 0; axis < 3; ++axis)
        where[axis] = ray.origin[axis] + ray.hitT * static_cast<double>(ray.dir[axis]);
    RSRay shadow = rayFrom(where, towardsLight, ray.time);
    shadow.skipIndex = ray.hitIndex;
    bool const isShadowed = closestHit(scene, shadow);
    RSRay unaware = rayFrom(where, towardsLight, ray.time);
    counts.shadowed += isShadowed ? 1 : 0;
    counts.selfShadowed += !isShadowed && closestHit(scene, unaware) ? 1 : 0;

    Vector const normal = ray.hitPrimitive->getNormal(ray);
    float const lengths = std::hypot(normal.x, normal.y, normal.z) *
                          std::hypot(towardsLight.x, towardsLight.y, towardsLight.z);
    float const cosine =
        (normal.x * towardsLight.x + normal.y * towardsLight.y + normal.z * towardsLight.z) /
        lengths;
    float const light = 0.15F + (isShadowed ? 0.0F : 0.85F * std::max(0.0F, cosine));
    Vector const color = colorOf(ray);
    return {color.x * light, color.y * light, color.z * light};
}

Vector pixelColor(Scene const& scene, int x, int y, Counts& counts) {
    Vector sum{0.0F, 0.0F, 0.0F};
    for (int sample = 0; sample < samplesPerPixel; ++sample) {
        // Neighbours look at different times, so that the blur has no steps. Never 0 or 1.
        double const withinStep = ((x * 5 + y * 3) % 8 + 0.5) / 8;
        double const time = (sample + withinStep) / samplesPerPixel;
        double const right = (x + (sample + 0.5) / samplesPerPixel) / width - 0.5;
        double const up = 0.5 - (y + 0.5) / height;
        Vector const direction{static_cast<float>(right * 16.0 + 6.0), 12.0F,
                               static_cast<float>(up * 9.0 - 3.0)};
        Vector const color =
            shade(scene, rayFrom({-7.0, -12.0, 6.0}, direction, static_cast<float>(time)), counts);
        sum = {sum.x + color.x, sum.y + color.y, sum.z + color.z};
    }
    return {sum.x / samplesPerPixel, sum.y / samplesPerPixel, sum.z / samplesPerPixel};
}

/// The picture as a PPM.
std::string imageOf(Scene const& scene, Counts& counts) {
    std::string image = "P6 " + std::to_string(width) + " " + std::to_string(height) + " 255\n";
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            Vector const color = pixelColor(scene, x, y, counts);
            for (int channel = 0; channel < 3; ++channel)
                image += static_cast<char>(
                    static_cast<unsigned char>(std::sqrt(color[channel]) * 255.0F));
        }
    }
    return image;
}

int writePicture(char const* path) {
    ThreadPool threads;
    Scene const scene(threads);
    Counts counts;
    std::string const image = imageOf(scene, counts);
    std::FILE* const file = std::fopen(path, "wb");
    bool const isWritten =
        file != nullptr && std::fwrite(image.data(), 1, image.size(), file) == image.size();
    if (file == nullptr || std::fclose(file) != 0 || !isWritten) {
        std::perror(path);
        return 1;
    }
    std::printf("%d samples: floor %d, drops %d, red beads %d, blue beads %d, sky %d; "
                "%d in shadow, %d saved from their own\n",
                width * height * samplesPerPixel, counts.floor, counts.drops, counts.redBeads,
                counts.blueBeads, counts.sky, counts.shadowed, counts.selfShadowed);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return writePicture(argc > 1 ? argv[1] : "mixedscene.ppm");
    } catch (ExceptionMsg const& failure) { // of a build
        std::fprintf(stderr, "%s\n", failure.what());
    } catch (std::exception const& failure) { // memory or threads that are not there
        std::fprintf(stderr, "%s\n", failure.what());
    }
    return 1;
}
