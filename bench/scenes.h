#pragma once

#include "kelpa/foundation/vector.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelpabench {

/// Reproducible numbers (splitmix64; G. Steele, D. Lea and C. Flood, "Fast Splittable Pseudorandom
/// Number Generators", OOPSLA 2014).
class Random {
  public:
    explicit Random(std::uint64_t seed) : state(seed) {}

    double unit() { ///< in [0, 1)
        state += 0x9E3779B97F4A7C15U;
        std::uint64_t z = state;
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
        return static_cast<double>((z ^ (z >> 31U)) >> 11U) * 0x1p-53;
    }

    /// Evenly over the unit sphere.
    Kelpa::Vector direction();

  private:
    std::uint64_t state;
};

/// How the spheres of a scene move between time 0 and time 1.
enum class Motion { none, ownDirections, drift };

/// Spheres with their places at both times, in a box of about the unit cube.
struct Scene {
    std::string name;
    std::vector<Kelpa::Vector> positions;
    std::vector<float> radii;
    std::vector<Kelpa::Vector> moved; ///< positions at time 1; empty when nothing moves
};

/// `kind` is one of
/// - "uniform": evenly in the unit cube, radius 0.5 N^(-1/3);
/// - "clustered": a Plummer sphere (H. Plummer, 1911) of scale 0.1 cut at radius 0.5, radii from
///   0.05 to 1.6 times N^(-1/3) with equal numbers per decade;
/// - "slab": evenly in the unit square with a thickness of 0.05, radius 1.5 times that of even
///   spacing.
/// `ownDirections` moves every sphere by 2 radii in a direction of its own, `drift` all of them by
/// 10 median radii along (1, 1, 0).
Scene makeScene(std::string const& kind, int count, Motion motion);

/// Rays with a time each; `skip` is the sphere that a ray starts on, or -1.
struct Ray {
    double origin[3];
    Kelpa::Vector dir;
    float time;
    std::int32_t skip;
};

/// A pinhole camera in front of the unit cube, `side` x `side` rays row by row in tiles of 8 x 8.
std::vector<Ray> cameraRays(int side);

/// Chords between random points of the unit cube's surroundings.
std::vector<Ray> randomRays(int count);

} // namespace kelpabench
