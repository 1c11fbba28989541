// The rays that are measured, and the digest of their answers.
#pragma once

#include "kelpa/foundation/vector.h"

#include "bench/scenes.h"

#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <vector>

namespace kelpabench {

/// A ray of length-one direction, in single precision as both kernels see it.
struct Ray {
    Kelpa::Vector origin;
    Kelpa::Vector dir;
    float time;        ///< in (0, 1)
    std::int32_t skip; ///< the sphere that the ray starts on, or -1
};

/// What a ray found.
struct Found {
    double t = std::numeric_limits<double>::infinity();
    Kelpa::Vector normal = {0.0F, 0.0F, 0.0F};
    std::int32_t particle = -1;

    bool isHit() const { return particle >= 0; }
};

/// Rays of one kind, neighbours next to each other where there are any.
struct RaySet {
    std::string name;
    std::vector<Ray> rays;
};

/// A pinhole camera at (0.5, 0.5, -1) that sees just the near side of the unit cube: a square
/// picture of about `count` rays, in tiles of 8 x 8, at random times.
std::vector<Ray> cameraRays(int count);

/// `count` rays from where `cameraRays` hit, each in a random direction of the upper hemisphere;
/// none when nothing was hit.
///
/// They start above their sphere by 1/512 of its radius, so that a kernel that cannot skip the
/// sphere does not find it again.
std::vector<Ray> bouncedRays(Scene const& scene, std::span<Ray const> cameraRays,
                             std::span<Found const> hits, int count);

/// `count` lines through two random points of the unit cube each, entered from outside.
std::vector<Ray> randomRays(int count);

/// How the rays of a picture are put into lists of 64.
enum class ListOrder {
    pixels, ///< a sample of each pixel of a tile of 8 x 8, tile by tile and sample by sample
    samples ///< all 16 samples of each of 4 neighbouring pixels
};

/// A picture of the unit cube, 1280 x 720, seen from where all of it is in view or, with `zoom` 3,
/// from three times as near: random samples of each pixel, of tiles chosen evenly, about `count`
/// rays in all.
std::vector<Ray> pictureRays(double zoom, int samples, ListOrder order, int count);

/// From where `rays` hit towards one light, in the same order: from what it can shine on.
std::vector<Ray> shadowRays(Scene const& scene, std::span<Ray const> rays,
                            std::span<Found const> hits);

} // namespace kelpabench
