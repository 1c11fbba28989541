#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace kelpapython {

/// One particle system as trees take it. The arrays belong to Python and outlive the system.
struct System {
    Kelpa::ParticleData first;
    Kelpa::ParticleData second; ///< moving particles only
    std::int32_t base;          ///< reported index of particle 0, at least 0

    std::int32_t count() const { return first.numParticles; }
};

struct TreeOptions {
    std::optional<int> maxDepth; ///< as usual for the kind of tree where it is not given
    float minNodeSize = 0.0F;
    std::optional<float> leafSizeFactor;
    bool isPacked = true; ///< keep the copies that queries test many at a time
    bool hasMovingBounds = false;
};

/// A value per ray, or one for all of them.
template <class T> class PerRay {
  public:
    PerRay(T const* array, bool isForAll) : values(array), step(isForAll ? 0 : 1) {}
    T operator[](std::size_t ray) const { return values[ray * step]; }

  private:
    T const* values;
    std::size_t step;
};

/// Many rays, in Python's arrays.
struct Rays {
    PerRay<Kelpa::Vector> origins;
    PerRay<Kelpa::Vector> directions;
    PerRay<double> tMins;
    PerRay<double> tMaxs;
    PerRay<float> times;
    /// Reported index of the particle that the ray starts on; a number that no particle reports
    /// skips nothing.
    PerRay<std::int64_t> skips;
};

/// Where the hits of many rays go: arrays with an entry per ray.
struct Hits {
    float* t;              ///< infinity without a hit
    std::int64_t* indices; ///< reported; -1 without a hit
    Kelpa::Vector* normals;
    std::uint8_t* types; ///< 0: no hit, 1: on a sphere, 2: on a point
};

/// Up to 64 rays with their closest hits, in the form in which primitives take many.
struct Bunch {
    static constexpr std::size_t capacity = 64;

    Kelpa::RayBunchExtParams rays;
    Kelpa::RayBunchCommonResult hits;
    double tMins[capacity];
    double tMaxs[capacity];
    unsigned char lanes[capacity];
    std::size_t count = 0;

    void clear() {
        count = 0;
        hits.noHits = true;
    }
    /// Adds a ray in the next lane. `skip` is as in `Rays`.
    void add(Kelpa::Vector const& origin, Kelpa::Vector const& direction, double tMin, double tMax,
             float time, std::int64_t skip);
};

struct Statistics {
    std::int64_t particles = 0; ///< in all systems
    std::int64_t used = 0;      ///< of these, taken by the tree
    std::int64_t nodes = 0;
    std::int64_t leafEntries = 0;
    std::int64_t maxDepth = 0;
    std::uint64_t treeBytes = 0;
    std::uint64_t packedBytes = 0;
    std::uint64_t peakBytes = 0; ///< the most while it was built
};

/// A box, and how fast its two corners move.
struct Bounds {
    Kelpa::Box box;
    Kelpa::Box motion;
};

/// A tree over particle systems: the still or the moving primitive, whichever they need.
///
/// Built once; then everything else may be called from any number of threads.
class Geometry {
  public:
    Geometry() = default;
    Geometry(Geometry const&) = delete;
    Geometry& operator=(Geometry const&) = delete;
    virtual ~Geometry() = default;

    /// `manager` may be null. Throws `Kelpa::ExceptionMsg` when memory runs out.
    virtual void build(Kelpa::ProgressCallback& progress, Kelpa::ThreadManager* manager,
                       TreeOptions const& options) = 0;

    /// Finds the closest hits of rays [begin, end), through lists or ray by ray: the same hits.
    virtual void closestHits(Rays const& rays, std::size_t begin, std::size_t end, bool useLists,
                             Hits const& hits) = 0;

    /// Finds the closest hits of a bunch's rays.
    virtual void trace(Bunch& bunch) = 0;

    /// Nothing when no particle is usable.
    virtual std::optional<Bounds> bounds() = 0;
    virtual Statistics statistics() = 0;
};

/// `systems` stay where they are, and unchanged, for as long as the geometry exists. Their ranges
/// of reported indices are disjoint. With `areMoving` all of them have two snapshots.
std::unique_ptr<Geometry> makeGeometry(std::vector<System>& systems, bool areMoving);

} // namespace kelpapython
