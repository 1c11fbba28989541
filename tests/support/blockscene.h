// A scene of many blocks, and a picture of it, for tests.
#pragma once

#include "pipeline/picture/framing.h"
#include "pipeline/picture/render.h"
#include "pipeline/scene/scene.h"

#include "tests/support/clouds.h"
#include "tests/support/testhost.h"

#include <vector>

namespace kelpatest {

inline std::vector<Vector> uniformPoints(std::size_t count, unsigned seed) {
    Random random(seed);
    std::vector<Vector> points;
    while (points.size() < count)
        points.push_back(random.inCube(1.0F));
    return points;
}

/// Uniform spheres, every tenth of them there twice, without trees.
inline pipeline::Scene blockScene(bool isMoving, std::size_t count = 200000) {
    auto const ignore = [](auto const&...) {};
    pipeline::ParticleSet particles;
    particles.positions = uniformPoints(count, 9);
    for (std::size_t i = 0; i + 10 < count; i += 10)
        particles.positions[i] = particles.positions[i + 7];
    particles.radii.assign(count, 0.012F);
    particles.radii[5] = 0.0F; // no tree takes it
    pipeline::ParticleSet second = particles;
    Random random(4);
    for (Vector& p : second.positions) {
        Vector const step = random.inCube(0.02F);
        p = {p.x + step.x, p.y + step.y, p.z + step.z};
    }
    for (std::size_t i = 0; i + 10 < count; i += 10)
        second.positions[i] = second.positions[i + 7];
    pipeline::SceneOptions options;
    options.motion.shutter = {0.0, 1.0};
    return makeScene(options, particles, isMoving ? &second : nullptr, {}, ignore, ignore);
}

/// The same with its trees.
inline pipeline::Scene builtScene(bool isMoving, pipeline::TreeOptions const& options,
                                  int threads = 1, std::size_t count = 200000) {
    pipeline::Scene scene = blockScene(isMoving, count);
    RecordingProgress progress;
    buildScene(scene, {progress, threads}, options);
    return scene;
}

inline pipeline::TreeOptions blocksOf(std::int64_t most) {
    pipeline::TreeOptions options;
    options.block = most;
    return options;
}

inline pipeline::Image pictureOf(pipeline::Scene const& scene, int threads) {
    pipeline::ImageOptions image;
    image.width = 80;
    image.height = 60;
    image.samples = 3;
    image.depth = image.normal = image.id = image.position = true;
    pipeline::Camera const camera =
        pipeline::placeCamera({}, 80, 60, 'z', scene.framed(), scene.origin);
    return renderImage(scene, camera, image, {}, threads, {});
}

} // namespace kelpatest
