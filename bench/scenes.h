// The spheres that are measured, made from numbers alone.
#pragma once

#include "kelpa/foundation/vector.h"

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace kelpabench {

/// Reproducible numbers (splitmix64; G. Steele, D. Lea and C. Flood, "Fast Splittable Pseudorandom
/// Number Generators", OOPSLA 2014).
class Random {
  public:
    explicit Random(std::uint64_t seed) : state(seed) {}

    /// In (0, 1), neither end included.
    double unit() {
        state += 0x9E3779B97F4A7C15U;
        std::uint64_t z = state;
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
        return (static_cast<double>((z ^ (z >> 31U)) >> 12U) + 0.5) * 0x1p-52;
    }

    /// Evenly in the unit cube.
    Kelpa::Vector inCube();

    /// Evenly over the unit sphere.
    Kelpa::Vector direction();

  private:
    std::uint64_t state;
};

/// `point` + `length` * `along`, each component rounded once.
Kelpa::Vector moved(Kelpa::Vector const& point, double length, Kelpa::Vector const& along);

double dot(Kelpa::Vector const& a, Kelpa::Vector const& b);

/// How the spheres are placed.
enum class Cloud { uniform, clustered, slab };
inline constexpr Cloud allClouds[] = {Cloud::uniform, Cloud::clustered, Cloud::slab};

/// How they move between time 0 and time 1.
enum class Motion { none, own, drift };
inline constexpr Motion allMotions[] = {Motion::none, Motion::own, Motion::drift};

/// What a scene is made from.
struct SceneRecipe {
    Cloud cloud;
    Motion motion;
    int count;

    bool operator==(SceneRecipe const&) const = default;

    /// As in "uniform/static/100000".
    std::string name() const;
};

/// Spheres with their places at both times, in about the unit cube.
struct Scene {
    SceneRecipe recipe;
    std::vector<Kelpa::Vector> positions;
    std::vector<float> radii;
    std::vector<Kelpa::Vector> laterPositions; ///< at time 1; empty when nothing moves

    bool isMoving() const { return !laterPositions.empty(); }
    /// Where sphere `i` is at a time.
    Kelpa::Vector center(std::int32_t i, float time) const;
};

/// Makes a scene of N = `count` spheres, the same one every time.
///
/// - `uniform`: evenly in the unit cube, radius 0.5 N^(-1/3);
/// - `clustered`: a Plummer sphere (H. Plummer, "On the problem of distribution in globular star
///   clusters", 1911) of scale 0.1 cut at 0.5; radii 0.2 N^(-1/3) 10^(-1.5 u) for u even in (0, 1),
///   so that in the core the spheres have about three quarters of the volume;
/// - `slab`: evenly in a slab of 1 x 1 x 0.05, radius 0.75 (0.05 / N)^(1/3), so that the spheres
///   have more volume than the slab.
///
/// `own` moves every sphere by 2 radii in a direction of its own, `drift` all of them by 10 mean
/// radii in the direction (2, 1, 2) / 3.
Scene makeScene(SceneRecipe const& recipe);

} // namespace kelpabench
