// Cloud: particles as dense as fractal noise over a few puffs says; metres and seconds.
#include "pipeline/samples/particles.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace pipeline::samples {

namespace {

/// Smooth noise of about -1 to 1: random numbers at whole coordinates, blended between.
double noise(std::uint64_t seed, Point p) {
    double const x = std::floor(p.x);
    double const y = std::floor(p.y);
    double const z = std::floor(p.z);
    double const shares[] = {smoothStep(0.0, 1.0, p.x - x), smoothStep(0.0, 1.0, p.y - y),
                             smoothStep(0.0, 1.0, p.z - z)};
    auto const corner = [&](int i, int j, int k) {
        auto const bits = [](double coordinate) {
            return static_cast<std::uint64_t>(static_cast<std::int64_t>(coordinate) + (1 << 20));
        };
        Random random(seed, (bits(x + i) << 42) ^ (bits(y + j) << 21) ^ bits(z + k));
        return random.between(-1.0, 1.0);
    };
    auto const edge = [&](int j, int k) {
        return mix(corner(0, j, k), corner(1, j, k), shares[0]);
    };
    auto const face = [&](int k) { return mix(edge(0, k), edge(1, k), shares[1]); };
    return mix(face(0), face(1), shares[2]);
}

double fractalNoise(std::uint64_t seed, Point p) {
    double sum = 0.0;
    double weight = 0.5;
    for (std::uint64_t octave = 0; octave < 5; ++octave) {
        sum += weight * noise(seed + octave, p);
        weight *= 0.5;
        p = 2.03 * p; // not quite 2, so that the octaves' grids do not line up
    }
    return sum;
}

struct Puff {
    Point center;
    double radius;
};

/// A wide base, puffs that tower over it, and on each of those smaller ones.
std::vector<Puff> makePuffs(std::uint64_t seed) {
    Random random(seed, 0);
    std::vector<Puff> puffs;
    for (int i = 0; i < 11; ++i) {
        double const height = random.uniform() * random.uniform();
        Turn const at = turn(random.uniform());
        double const distance = 0.6 * (1.0 - 0.8 * height) * std::sqrt(random.uniform());
        Puff const large = {{distance * at.cos, 0.75 * distance * at.sin, -0.3 + 0.75 * height},
                            random.between(0.17, 0.3) * (1.0 - 0.3 * height)};
        puffs.push_back(large);
        for (int bud = 0; bud < 7; ++bud) {
            double const size = large.radius * random.between(0.3, 0.55);
            puffs.push_back({large.center + large.radius * random.direction(), size});
        }
    }
    return puffs;
}

/// The puff in which a place lies deepest, or to which it is nearest.
struct Depth {
    double depth = -std::numeric_limits<double>::infinity();
    Puff const* puff = nullptr;
};

Depth depthIn(std::vector<Puff> const& puffs, Point p) {
    Depth deepest;
    for (Puff const& puff : puffs)
        if (double const depth = puff.radius - length(p - puff.center); depth > deepest.depth)
            deepest = {depth, &puff};
    return deepest;
}

/// Densest near the surface, which is what one sees of a cloud.
double cloudDensity(std::uint64_t seed, std::vector<Puff> const& puffs, Point p) {
    double depth = depthIn(puffs, p).depth;
    if (depth < -0.1) // further out than any noise reaches
        return 0.0;
    depth += 0.1 * fractalNoise(seed, 6.0 * p);
    double const flatBase = smoothStep(-0.40, -0.34, p.z + 0.05 * noise(seed, 5.0 * p));
    return flatBase * smoothStep(0.0, 0.03, depth) * (1.0 - 0.85 * smoothStep(0.05, 0.12, depth));
}

/// Bright on top of the cloud and of each puff, grey below.
Color cloudColor(std::vector<Puff> const& puffs, Point p, Random& random) {
    Puff const& puff = *depthIn(puffs, p).puff;
    double const upward = (p.z - puff.center.z) / puff.radius;
    double const light = 0.5 + 0.3 * upward + 0.5 * p.z + 0.06 * random.bell();
    return mix(Color{138, 144, 168}, Color{255, 248, 234}, std::clamp(light, 0.0, 1.0));
}

} // namespace

void makeCloud(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
               PhaseProgress const& progress) {
    constexpr std::size_t cells = 100; // per axis, over [-1, 1)
    constexpr double step = 2.0 / cells;
    constexpr double meters = 500.0;
    std::vector<Puff> const puffs = makePuffs(seed);
    auto const placeOf = [](std::size_t cell) {
        std::size_t const row = cell / cells;
        std::size_t const layer = row / cells;
        return Point{-1.0 + step * static_cast<double>(cell % cells),
                     -1.0 + step * static_cast<double>(row % cells),
                     -1.0 + step * static_cast<double>(layer)};
    };
    // sumUpTo[c] is the density of the cells before c: the share of particles up to there.
    std::vector<double> sumUpTo(cells * cells * cells + 1);
    Poll poll(progress, static_cast<double>(sumUpTo.size()));
    for (std::size_t cell = 0; cell + 1 < sumUpTo.size(); ++cell) {
        poll(0);
        sumUpTo[cell + 1] = sumUpTo[cell] + cloudDensity(seed, puffs, placeOf(cell));
    }

    double const total = sumUpTo.back();
    // Particles fill about half of the cells that are full, however many there are.
    double const volume = 0.55 * total / static_cast<double>(count);
    double radius = 1.0;
    for (int i = 0; i < 60; ++i) // Newton's method for the cube root
        radius -= (radius - volume / (radius * radius)) / 3.0;
    radius *= step;
    std::size_t cell = 0;
    appendEach(set, count, progress, [&](std::uint64_t i) {
        Random random(seed, i + 1);
        double const share =
            (static_cast<double>(i) + random.uniform()) / static_cast<double>(count);
        while (cell + 2 < sumUpTo.size() && sumUpTo[cell + 1] <= share * total)
            ++cell;
        // Two random offsets make a tent, which blends the densities of neighbouring cells.
        auto const tent = [&] {
            double const forth = random.uniform();
            return step * (forth - random.uniform());
        };
        double const x = tent();
        double const y = tent();
        Point const place = placeOf(cell) + Point{x, y, tent()};
        Particle particle;
        particle.position = meters * place;
        particle.radius = meters * radius * (0.5 + 0.8 * random.uniform());
        particle.color = cloudColor(puffs, place, random);
        particle.velocity = {6.0 - 4.0 * place.y, 4.0 * place.x, 3.0 + 2.0 * random.bell()};
        return particle;
    });
}

} // namespace pipeline::samples
