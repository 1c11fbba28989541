// Galaxy: two spiral arms with knots of young stars, a disc, a bulge and a thin halo; kiloparsecs.
#include "pipeline/samples/particles.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace pipeline::samples {

namespace {

constexpr double galaxyRadius = 15.0;

/// What a star of so many kelvins looks like, after M. Charity's table of blackbody colours.
Color colorOfTemperature(double kelvin) {
    struct Step {
        double kelvin;
        Color color;
    };
    static constexpr Step steps[] = {{2500, {255, 161, 72}},   {3500, {255, 196, 137}},
                                     {4500, {255, 219, 186}},  {5800, {255, 241, 231}},
                                     {7500, {230, 235, 255}},  {10000, {204, 219, 255}},
                                     {15000, {179, 204, 255}}, {30000, {159, 191, 255}}};
    std::size_t i = 1;
    while (i + 1 < std::size(steps) && kelvin > steps[i].kelvin)
        ++i;
    return mix(steps[i - 1].color, steps[i].color,
               std::clamp((kelvin - steps[i - 1].kelvin) / (steps[i].kelvin - steps[i - 1].kelvin),
                          0.0, 1.0));
}

/// A place on one of the arms, which wind once around for every factor of 8 in distance.
Point armPoint(double distance, double arm, double spread, double height, Random& random) {
    double const turns = 0.5 * arm + 0.48 * logarithm(distance / galaxyRadius) + spread;
    Turn const at = turn(turns);
    return {distance * at.cos, distance * at.sin, height * random.bell()};
}

/// A distance from the centre, as many as an exponential disc has there, within the galaxy.
double discDistance(double scale, Random& random) {
    for (;;) {
        double const first = 1.0 - random.uniform();
        double const distance = -scale * logarithm(first * (1.0 - random.uniform()));
        if (distance > 0.02 * galaxyRadius && distance < galaxyRadius)
            return distance;
    }
}

Particle galaxyStar(std::uint64_t seed, std::uint64_t index, double meanRadius) {
    constexpr double knotCount = 400.0;
    Random random(seed, index);
    double const kind = random.uniform();
    double kelvin = 0.0;
    Particle star;
    if (kind < 0.16) { // bulge
        double const distance = 0.24 * galaxyRadius * random.small();
        star.position = distance * random.direction();
        star.position.z *= 0.7;
        kelvin = random.between(2800.0, 5200.0);
    } else if (kind < 0.60) { // arms
        double const distance = discDistance(0.22 * galaxyRadius, random);
        double const arm = random.uniform() < 0.5 ? 0.0 : 1.0;
        star.position = armPoint(distance, arm, 0.035 * random.bell(), 0.1, random);
        kelvin = random.between(5000.0, 13000.0);
    } else if (kind < 0.72) { // knots in the arms
        Random knot(seed ^ 0x6b6e6f74U, static_cast<std::uint64_t>(random.uniform() * knotCount));
        double const distance = discDistance(0.26 * galaxyRadius, knot);
        double const arm = knot.uniform() < 0.5 ? 0.0 : 1.0;
        Point const center = armPoint(distance, arm, 0.025 * knot.bell(), 0.08, knot);
        double const size = 0.12 + 0.3 * knot.small();
        double const share = random.uniform();
        star.position = center + (size * share) * random.bellPoint();
        kelvin = knot.uniform() < 0.75 ? random.between(11000.0, 30000.0) : 0.0;
    } else if (kind < 0.97) { // disc between the arms
        double const distance = discDistance(0.2 * galaxyRadius, random);
        Turn const at = turn(random.uniform());
        star.position = {distance * at.cos, distance * at.sin, 0.22 * random.bell()};
        kelvin = random.between(3200.0, 7500.0);
    } else { // halo
        double const distance = 0.5 * galaxyRadius * random.uniform();
        star.position = distance * random.direction();
        kelvin = random.between(3000.0, 4500.0);
    }
    // Glowing hydrogen is pink; everything else shines by its temperature.
    star.color = kelvin > 0.0 ? colorOfTemperature(kelvin) : Color{255, 120, 150};
    star.radius = meanRadius * (0.55 + 0.22 / (random.uniform() + 0.1));

    // The rotation curve rises and then stays flat, 220 km/s or 0.225 kpc per million years.
    double const axisDistance =
        std::sqrt(star.position.x * star.position.x + star.position.y * star.position.y);
    double const speed = 0.225 * axisDistance / (axisDistance + 0.8) / (axisDistance + 1e-6);
    star.velocity = {-speed * star.position.y, speed * star.position.x, 0.0};
    return star;
}

} // namespace

void makeGalaxy(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                PhaseProgress const& progress) {
    // A disc is seen as an area: stars cover the same share of it however many there are.
    double const meanRadius = 0.5 * galaxyRadius / std::sqrt(static_cast<double>(count));
    appendEach(set, count, progress,
               [=](std::uint64_t i) { return galaxyStar(seed, i, meanRadius); });
}

} // namespace pipeline::samples
