// Seeded particle clouds, the same on every machine, from easy to hostile.
#pragma once

#include "kelpa/foundation/hosttypes.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

namespace kelpatest {

using namespace Kelpa;

/// Reproducible numbers: splitmix64 (G. Steele, D. Lea, C. Flood, "Fast Splittable Pseudorandom
/// Number Generators", OOPSLA 2014). Only exactly rounded arithmetic follows it, and no expression
/// draws twice, as compilers differ in the order.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state(seed) {}

    std::uint64_t bits() {
        std::uint64_t z = state += 0x9E3779B97F4A7C15U;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31);
    }
    int below(int n) { return static_cast<int>(bits() % static_cast<std::uint64_t>(n)); }
    float unit() { return static_cast<float>(bits() >> 40) * 0x1p-24F; }
    float between(float low, float high) { return low + (high - low) * unit(); }
    float powerOfTwo(int low, int high) { return std::ldexp(1.0F, low + below(high - low + 1)); }
    Vector inCube(float half) {
        return {between(-half, half), between(-half, half), between(-half, half)};
    }
    /// A direction of length 1, up to rounding.
    Vector direction() {
        for (;;) {
            Vector const v = inCube(1.0F);
            float const squared = (v.x * v.x + v.y * v.y) + v.z * v.z;
            if (squared > 0.01F && squared <= 1.0F) {
                float const length = std::sqrt(squared);
                return {v.x / length, v.y / length, v.z / length};
            }
        }
    }

  private:
    std::uint64_t state;
};

/// One snapshot of a particle system in arrays of exactly the stated length, so that the address
/// sanitizer sees any reading beyond them.
struct System {
    std::vector<Vector> positions;
    std::vector<float> radii;
    ParticleData data{};

    System() = default;
    // Moved vectors keep their storage, so `data` stays right.
    System(System&&) = default;
    System& operator=(System&&) = default;

    void add(Vector const& center, float radius) {
        positions.push_back(center);
        radii.push_back(radius);
    }
    /// Enters the arrays into `data`.
    void seal() {
        positions.shrink_to_fit();
        radii.shrink_to_fit();
        data.positions = positions.data();
        data.numParticles = static_cast<std::int32_t>(positions.size());
        data.radii = radii.data();
        data.numRadii = static_cast<std::int32_t>(radii.size());
    }
};

/// Particle systems that go into one tree.
struct Cloud {
    std::vector<System> systems;
    std::vector<System> later; ///< moving clouds only: the second snapshots
};

inline Vector scaled(Vector const& v, float factor) {
    return {v.x * factor, v.y * factor, v.z * factor};
}
inline Vector sum(Vector const& a, Vector const& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}

/// Through memory, since g++ 12 drops this conversion where it pairs two of them in one vector.
inline double roundedToSingle(double value) {
    float const volatile rounded = static_cast<float>(value);
    return static_cast<double>(rounded);
}

/// A cloud of one system whose n particles `place` adds one by one: place(system, random, index).
template <class Place>
Cloud cloudOf(std::uint64_t seed, int n, Place place, std::int32_t particleType = 0) {
    Random random(seed);
    Cloud cloud;
    System& system = cloud.systems.emplace_back();
    for (int i = 0; i < n; ++i)
        place(system, random, i);
    system.data.particleType = particleType;
    system.seal();
    return cloud;
}

using Place = void (*)(System& system, Random& random, int index);

/// Adds a particle in a box around 0.
template <int sizeExponent, int halfX, int halfY, int halfZ>
void addInBox(System& system, Random& random, int) {
    float const unit = std::ldexp(1.0F, sizeExponent);
    Vector const at = random.inCube(unit);
    float const radius = random.between(0.02F, 0.08F) * unit;
    system.add({at.x * halfX, at.y * halfY, at.z * halfZ}, radius);
}
/// Unit spheres that touch: every bound is a tie, and so is every hit between two of them.
inline void addToLattice(System& system, Random&, int i) {
    auto const step = [i](int stride) { return static_cast<float>(i / stride % 8); };
    system.add({step(1), step(8), static_cast<float>(i / 64)}, 0.5F);
}
inline void addToCluster(System& system, Random& random, int i) {
    Vector const cluster = Random(static_cast<std::uint64_t>(i % 7)).inCube(3.0F);
    float const distance = 0.3F * random.unit();
    Vector const center = sum(cluster, scaled(random.direction(), distance));
    system.add(center, random.between(0.002F, 0.02F));
}
inline void addCoincident(System& system, Random&, int i) {
    system.add({0.25F, -2.0F, 3.0F}, 0.5F * static_cast<float>(1 + i % 3));
}
inline void addOverlapping(System& system, Random& random, int) {
    Vector const center = random.inCube(1.0F);
    system.add(center, random.between(0.3F, 0.8F));
}
inline void addOfSixDecades(System& system, Random& random, int) {
    Vector const center = random.inCube(1.0F);
    system.add(center, 0.3F * random.powerOfTwo(-20, 0));
}
/// Radii of a few steps of the coordinates' precision, which is 8.
inline void addCoarse(System& system, Random& random, int) {
    Vector const center = sum({1e8F, 1e8F, -1e8F}, random.inCube(400.0F));
    system.add(center, random.between(20.0F, 60.0F));
}
/// Spheres beside spheres of half the size, over eighteen decades: they make deep trees.
inline void addNested(System& system, Random& random, int i) {
    float const size = std::ldexp(1.0F, 45 - i % 60);
    system.add(scaled(random.direction(), size), 0.2F * size);
}
/// What input may hold but no particle can use, among particles of many magnitudes.
inline void addHostile(System& system, Random& random, int i) {
    constexpr float infinity = std::numeric_limits<float>::infinity();
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    constexpr float odd[] = {nan, infinity, -infinity, 1e-30F, 1e-42F, -1e-6F, 0.0F, -0.0F, 1e-15F};
    constexpr int numOdd = static_cast<int>(std::size(odd));
    float const scale = random.powerOfTwo(-10, 10);
    Vector center = random.inCube(scale);
    float radius = 0.5F * random.powerOfTwo(-15, 5);
    if (i % 3 == 0)
        center[i / 3 % 3] = odd[random.below(numOdd)];
    if (i % 4 == 0)
        radius = odd[random.below(numOdd)];
    system.add(center, radius);
}
/// Up to the end of the floats; rays from inside can hit every other sphere.
inline void addAstronomic(System& system, Random& random, int i) {
    float const scale = 1e30F * random.powerOfTwo(0, 28);
    system.add(random.inCube(scale), i % 2 == 0 ? 1e18F : 1e35F);
}

/// A way to make clouds. Each digit of `types` stands for a system of that particle type; of five
/// systems the third has only half as many radii as particles.
struct CloudKind {
    char const* name;
    Place place;
    std::string_view types = "0";

    Cloud make(std::uint64_t seed, int n) const {
        Cloud cloud;
        for (std::size_t s = 0; s < types.size(); ++s) {
            Cloud one =
                cloudOf(seed + s, n / static_cast<int>(types.size()), place, types[s] - '0');
            cloud.systems.push_back(std::move(one.systems[0]));
        }
        if (types.size() == 5) {
            cloud.systems[2].radii.resize(cloud.systems[2].radii.size() / 2);
            cloud.systems[2].seal();
        }
        return cloud;
    }
};

inline constexpr CloudKind uniform{"uniform", addInBox<0, 1, 1, 1>};
inline constexpr CloudKind lattice{"lattice", addToLattice};
inline constexpr CloudKind coincident{"coincident", addCoincident};
inline constexpr CloudKind nested{"nested", addNested};
inline constexpr CloudKind mixed{"mixed", addInBox<0, 1, 1, 1>, "01071"};
inline constexpr CloudKind cloudKinds[] = {uniform,
                                           lattice,
                                           coincident,
                                           nested,
                                           mixed,
                                           {"points", addInBox<0, 1, 1, 1>, "1"},
                                           {"tiny", addInBox<-20, 1, 1, 1>},
                                           {"large", addInBox<26, 1, 1, 1>},
                                           {"flat", addInBox<0, 1, 1, 0>},
                                           {"linear", addInBox<0, 9, 0, 0>},
                                           {"clustered", addToCluster},
                                           {"overlapping", addOverlapping},
                                           {"six decades", addOfSixDecades},
                                           {"coarse", addCoarse},
                                           {"hostile", addHostile},
                                           {"astronomic", addAstronomic}};

} // namespace kelpatest
