// Many rays at once, in Python's arrays.
#pragma once

#include "pipeline/scene/geometry.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelpapython {

/// A value per ray, or one for all of them.
template <class T> class PerRay {
  public:
    PerRay(T const* array, bool isForAll) : values(array), step(isForAll ? 0 : 1) {}
    T operator[](std::size_t ray) const { return values[ray * step]; }

  private:
    T const* values;
    std::size_t step;
};

struct Rays {
    PerRay<Kelpa::Vector> origins;
    PerRay<Kelpa::Vector> directions;
    PerRay<double> tMins;
    PerRay<double> tMaxs;
    PerRay<float> times;
    /// Reported index of the particle that the ray starts on; a number that no particle reports
    /// skips nothing.
    PerRay<std::int64_t> skips;
    std::array<double, 3> from{}; ///< subtracted from origins
};

/// Where the hits of many rays go: arrays with an entry per ray.
struct Hits {
    float* t;              ///< infinity without a hit
    std::int64_t* indices; ///< reported; -1 without a hit
    Kelpa::Vector* normals;
    std::uint8_t* types; ///< 0: no hit, 1: on a sphere, 2: on a point
};

/// Finds the closest hits of rays [begin, end), through lists or ray by ray: the same hits.
void closestHits(pipeline::Geometry& geometry, Rays const& rays, std::size_t begin, std::size_t end,
                 bool useLists, Hits const& hits);

} // namespace kelpapython
