// Splash: a pool, the crown that a drop has thrown up, and its spray; centimetres and seconds.
#include "pipeline/samples/particles.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace pipeline::samples {

namespace {

constexpr double poolRadius = 3.0;
constexpr double crownRadius = 1.15;
constexpr double crownHeight = 1.5;
constexpr int fingerCount = 17;
constexpr double gravity = 981.0;

/// How far the crown leans outward at a share of its height.
double crownDistance(double share) {
    return crownRadius * (1.0 + 0.30 * share * share + 0.06 * share);
}

/// The height of the crown's rim in one direction: fingers of different length.
double rimHeight(std::uint64_t seed, double turns) {
    double const lobe = turns * fingerCount;
    double const finger = std::floor(lobe);
    Random random(seed ^ 0x66696e67U, static_cast<std::uint64_t>(finger));
    double const peak = random.between(0.55, 1.0);
    double const across = 2.0 * std::abs(lobe - finger - 0.5); // 0 in its middle, 1 at its sides
    double const shape = (1.0 - across) * (1.0 - across);
    return crownHeight * (0.55 + 0.45 * peak * shape * (1.0 + 0.5 * across));
}

Color waterColor(double whiteness) {
    constexpr Color deep = {22, 74, 138};
    constexpr Color clear = {88, 172, 224};
    constexpr Color white = {244, 250, 255};
    return whiteness < 0.5 ? mix(deep, clear, 2.0 * whiteness)
                           : mix(clear, white, 2.0 * whiteness - 1.0);
}

/// The pool: rings of waves outside the crown, a hollow inside. Particles follow the spiral of a
/// sunflower's seeds, which covers a disc evenly (H. Vogel, Mathematical Biosciences 44, 1979).
Particle poolParticle(Random& random, double share, double index, double size) {
    constexpr double goldenTurn = 0.3819660112501051;
    double const distance = poolRadius * std::sqrt(share);
    Turn const at = turn(index * goldenTurn - std::floor(index * goldenTurn));
    double const outside = std::max(0.0, distance - crownRadius);
    double const wave = turn(outside * 1.7).cos / (1.0 + 2.2 * outside * outside);
    double const inside = std::min(1.0, distance / crownRadius);
    double const hollow = -0.45 * (1.0 - inside * inside) * (1.0 + 0.12 * turn(inside * 2.5).cos);
    double const height = hollow + (outside > 0.0 ? 0.11 * wave : 0.11 * inside * inside);
    Particle particle;
    particle.position = {distance * at.cos, distance * at.sin,
                         height + 0.12 * size * random.bell()};
    particle.radius = size;
    particle.color = waterColor(std::clamp(0.22 + 1.6 * height + 0.03 * random.bell(), 0.0, 0.7));
    particle.velocity = {8.0 * at.cos * wave, 8.0 * at.sin * wave, 12.0 * wave};
    return particle;
}

/// The crown's wall, denser towards the rim, where the water gathers.
Particle wallParticle(std::uint64_t seed, Random& random, double share, double index, double size) {
    constexpr double steps[] = {0.7548776662466927, 0.5698402909980532}; // M. Roberts' R2 sequence
    double const turns = index * steps[0] - std::floor(index * steps[0]);
    double const upward = index * steps[1] - std::floor(index * steps[1]);
    bool const isRim = share > 0.85;
    double const height = rimHeight(seed, turns) * (isRim ? 1.0 : upward);
    double const level = height / crownHeight;
    Turn const at = turn(turns);
    Point const outward = {at.cos, at.sin, 0.0};
    Particle particle;
    particle.position = crownDistance(level) * outward + Point{0.0, 0.0, height + 0.1};
    particle.position = particle.position + (isRim ? 0.02 : 0.12 * size) * random.bellPoint();
    particle.radius = size * (isRim ? random.between(0.8, 1.3) : 1.0);
    particle.color = waterColor(std::clamp(0.35 + 0.5 * level + 0.05 * random.bell(), 0.0, 0.95));
    particle.velocity = (40.0 + 50.0 * level) * outward + Point{0.0, 0.0, 150.0 * level};
    return particle;
}

/// A drop that left the rim at a finger some time ago and has flown freely since.
Particle drop(std::uint64_t seed, Random& random, double size) {
    double const finger = std::floor(random.uniform() * fingerCount);
    double const turns = (finger + 0.5 + 0.13 * random.bell()) / fingerCount;
    Turn const at = turn(turns);
    Point const outward = {at.cos, at.sin, 0.0};
    double const rim = rimHeight(seed, (finger + 0.5) / fingerCount);
    double const time = 0.022 * random.small();
    Point const start = crownDistance(rim / crownHeight) * outward + Point{0.0, 0.0, rim + 0.1};
    double const sideward = random.between(15.0, 75.0);
    double const upward = random.between(35.0, 105.0);
    Point const launch = sideward * outward + Point{0.0, 0.0, upward} + 6.0 * random.bellPoint();
    Particle particle;
    particle.position = start + time * launch - Point{0.0, 0.0, 0.5 * gravity * time * time};
    particle.velocity = launch - Point{0.0, 0.0, gravity * time};
    particle.radius = size;
    particle.color = waterColor(random.between(0.62, 1.0));
    return particle;
}

/// The splash is filmed in slow motion, 125 frames a second, and its velocities are per frame: so
/// that the shutter of a film camera, half a frame, blurs the drops and leaves the water.
Particle perFrame(Particle particle) {
    constexpr double frame = 0.008;
    particle.velocity = frame * particle.velocity;
    return particle;
}

} // namespace

void makeSplash(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                PhaseProgress const& progress) {
    // Water is seen as a surface, which the particles close however many there are.
    double const size = 5.4 / std::sqrt(static_cast<double>(count));
    auto const share = [&](double part) { return part * static_cast<double>(count); };
    appendEach(set, count, progress, [=](std::uint64_t i) {
        Random random(seed, i);
        double const index = static_cast<double>(i);
        if (index < share(0.68))
            return perFrame(poolParticle(random, (index + 0.5) / share(0.68), index, size));
        if (index < share(0.94))
            return perFrame(wallParticle(seed, random, random.uniform(), index, size));
        // Few drops are large: those stay so, the mist becomes finer with more particles.
        double const large = 0.016 / (0.2 + random.uniform());
        bool const isLarge = index < share(0.94) + std::min(share(0.03), 700.0);
        return perFrame(drop(seed, random, isLarge ? large : size * random.between(0.25, 0.9)));
    });
}

} // namespace pipeline::samples
