#include "pipeline/samples/samples.h"

#include "pipeline/files/srgb.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

// The project's own particle systems. The same bits come out on every machine: random numbers are
// made here, and the only operations are + - * /, square roots and exact ones such as floor; the
// library's sines, logarithms and distributions differ from machine to machine.

namespace kelpatool {

namespace {

// Numbers ------------------------------------------------------------------------------------

struct Point {
    double x = 0.0, y = 0.0, z = 0.0;
};

Point operator+(Point a, Point b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
Point operator-(Point a, Point b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
Point operator*(double s, Point a) {
    return {s * a.x, s * a.y, s * a.z};
}
double dot(Point a, Point b) {
    return (a.x * b.x + a.y * b.y) + a.z * b.z;
}
double length(Point a) {
    return std::sqrt(dot(a, a));
}
Kelpa::Vector vectorOf(Point a) {
    return {static_cast<float>(a.x), static_cast<float>(a.y), static_cast<float>(a.z)};
}
double mix(double from, double to, double share) {
    return from + (to - from) * share;
}
Point mix(Point from, Point to, double share) {
    return from + share * (to - from);
}
/// 0 up to `from`, 1 from `to` on, smooth between.
double smoothStep(double from, double to, double at) {
    double const t = std::clamp((at - from) / (to - from), 0.0, 1.0);
    return t * t * (3.0 - 2.0 * t);
}

struct Turn {
    double cos, sin;
};

/// Cosine and sine of so many full turns, by Taylor's series on an eighth of a turn.
Turn turn(double turns) {
    double const quarter = std::floor(turns * 4.0 + 0.5);
    double const angle = (turns - quarter * 0.25) * 6.283185307179586;
    double const square = angle * angle;
    double sin = 0.0;
    double cos = 0.0;
    for (double n = 16.0; n > 0.0; n -= 2.0) { // terms beyond are below 2^-53
        cos = 1.0 - square / (n * (n - 1.0)) * (n == 16.0 ? 1.0 : cos);
        sin = 1.0 - square / (n * (n + 1.0)) * (n == 16.0 ? 1.0 : sin);
    }
    sin *= angle;
    double const quadrant = quarter - 4.0 * std::floor(quarter * 0.25);
    if (quadrant == 0.0)
        return {cos, sin};
    if (quadrant == 1.0)
        return {-sin, cos};
    return quadrant == 2.0 ? Turn{-cos, -sin} : Turn{sin, -cos};
}

/// The natural logarithm of a positive number: ln(m 2^e) = e ln 2 + 2 artanh((m - 1) / (m + 1)).
double logarithm(double x) {
    int exponent = 0;
    double const mantissa = std::frexp(x, &exponent);
    double const q = (mantissa - 1.0) / (mantissa + 1.0);
    double sum = 0.0;
    for (double n = 41.0; n > 0.0; n -= 2.0)
        sum = sum * (q * q) + 1.0 / n;
    return exponent * 0.6931471805599453 + 2.0 * q * sum;
}

/// SplitMix64: G. L. Steele, D. Lea, C. H. Flood, "Fast Splittable Pseudorandom Number Generators",
/// OOPSLA 2014. Every particle has its own, so none depends on those before it. An expression draws
/// at most once, since compilers differ in the order in which they take the terms of a sum.
class Random {
  public:
    Random(std::uint64_t seed, std::uint64_t stream) : state(seed) {
        state = next() ^ (stream * 0xd1342543de82ef95U);
    }

    std::uint64_t next() {
        state += 0x9e3779b97f4a7c15U;
        std::uint64_t z = (state ^ (state >> 30)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
        return z ^ (z >> 31);
    }
    /// In [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1p-53; }
    /// In [0, 1), small numbers more often: a product of two.
    double small() {
        double const first = uniform();
        return first * uniform();
    }
    double between(double low, double high) { return mix(low, high, uniform()); }
    /// Mean 0, deviation 1, near enough to Gauss's bell: a sum of four.
    double bell() {
        double sum = -2.0;
        for (int draw = 0; draw < 4; ++draw)
            sum += uniform();
        return sum * 1.7320508075688772;
    }
    Point bellPoint() {
        double const x = bell();
        double const y = bell();
        return {x, y, bell()};
    }
    /// Of length 1, all alike.
    Point direction() {
        for (;;) {
            double const x = between(-1.0, 1.0);
            double const y = between(-1.0, 1.0);
            Point const p = {x, y, between(-1.0, 1.0)};
            double const square = dot(p, p);
            if (square > 0.01 && square < 1.0)
                return (1.0 / std::sqrt(square)) * p;
        }
    }

  private:
    std::uint64_t state;
};

// Particles ----------------------------------------------------------------------------------

/// An sRGB colour, 0 to 255 each.
using Color = Point;

struct Particle {
    Point position;
    double radius = 1.0;
    Color color;
    Point velocity;
};

/// Stores with whole sRGB codes, so that files hold a byte per channel.
void append(ParticleSet& set, Particle const& particle) {
    auto const channel = [](double code) {
        return linearOfCode()[static_cast<std::size_t>(std::clamp(code, 0.0, 255.0) + 0.5)];
    };
    set.ids.push_back(static_cast<std::int64_t>(set.positions.size()));
    set.positions.push_back(vectorOf(particle.position));
    set.radii.push_back(static_cast<float>(particle.radius));
    set.colors.push_back(
        {channel(particle.color.x), channel(particle.color.y), channel(particle.color.z)});
    set.velocities.push_back(vectorOf(particle.velocity));
}

/// Polls now and then: at every 1024th call at the latest, a millisecond of work.
class Poll {
  public:
    Poll(PhaseProgress const& phase, double expectedCalls)
        : progress(phase), expected(expectedCalls) {}
    void operator()(std::uint64_t particles) {
        if (calls++ % 1024 == 0 && progress)
            progress(std::min(1.0, static_cast<double>(calls) / expected), particles);
    }

  private:
    PhaseProgress const& progress;
    double expected;
    std::uint64_t calls = 0;
};

/// Fills a set with what `make` says of particle 0, 1, 2 and so on.
template <class Make>
void appendEach(ParticleSet& set, std::uint64_t count, PhaseProgress const& progress, Make make) {
    Poll poll(progress, static_cast<double>(count));
    for (std::uint64_t i = 0; i < count; ++i) {
        poll(i);
        append(set, make(i));
    }
}

// Galaxy: two spiral arms with knots of young stars, a disc, a bulge and a thin halo; kiloparsecs.

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

void makeGalaxy(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                PhaseProgress const& progress) {
    // A disc is seen as an area: stars cover the same share of it however many there are.
    double const meanRadius = 0.5 * galaxyRadius / std::sqrt(static_cast<double>(count));
    appendEach(set, count, progress,
               [=](std::uint64_t i) { return galaxyStar(seed, i, meanRadius); });
}

// Splash: a pool, the crown that a drop has thrown up, and its spray; centimetres and seconds. ----

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

// Crystal: grains of face-centred cubic copper inside a truncated octahedron; Angstrom. ----------

constexpr double latticeConstant = 3.615;
constexpr double atomRadius = latticeConstant * 0.35355339059327373; // neighbours touch

struct Grain {
    Point center;
    Point axes[3]; ///< of the lattice
    Color color;
};

/// 1 on the faces of a truncated octahedron whose square faces are 1 away from the middle.
double facetDistance(Point p) {
    double const x = std::abs(p.x);
    double const y = std::abs(p.y);
    double const z = std::abs(p.z);
    return std::max(std::max(x, std::max(y, z)), (x + y + z) / 1.5);
}

/// Three axes at right angles, any orientation as likely as another (K. Shoemake, "Uniform Random
/// Rotations", Graphics Gems III, 1992).
void orient(Grain& grain, Random& random) {
    double const share = random.uniform();
    Turn const a = turn(random.uniform());
    Turn const b = turn(random.uniform());
    double const p = std::sqrt(1.0 - share);
    double const q = std::sqrt(share);
    double const x = p * a.sin;
    double const y = p * a.cos;
    double const z = q * b.sin;
    double const w = q * b.cos;
    grain.axes[0] = {1 - 2 * (y * y + z * z), 2 * (x * y + z * w), 2 * (x * z - y * w)};
    grain.axes[1] = {2 * (x * y - z * w), 1 - 2 * (x * x + z * z), 2 * (y * z + x * w)};
    grain.axes[2] = {2 * (x * z + y * w), 2 * (y * z - x * w), 1 - 2 * (x * x + y * y)};
}

/// Grains with centres well apart: each is the farthest from the others of several random ones.
std::vector<Grain> makeGrains(std::uint64_t count, std::uint64_t seed, double size) {
    static constexpr Color palette[] = {{214, 106, 62},  {64, 130, 176},  {232, 178, 84},
                                        {92, 160, 132},  {176, 82, 104},  {240, 222, 184},
                                        {116, 110, 170}, {148, 186, 204}, {196, 148, 120}};
    Random random(seed, 0);
    std::vector<Grain> grains(std::clamp<std::uint64_t>(count / 400, 1, 22));
    for (std::size_t i = 0; i < grains.size(); ++i) {
        double widest = -1.0;
        for (int candidate = 0; candidate < 30; ++candidate) {
            double const x = random.between(-1.0, 1.0);
            double const y = random.between(-1.0, 1.0);
            Point const center = size * Point{x, y, random.between(-1.0, 1.0)};
            double nearest = 4.0 * size;
            for (std::size_t other = 0; other < i; ++other)
                nearest = std::min(nearest, length(center - grains[other].center));
            if (facetDistance(center) <= size && nearest > widest) {
                widest = nearest;
                grains[i].center = center;
            }
        }
        orient(grains[i], random);
        grains[i].color = palette[i % std::size(palette)];
    }
    return grains;
}

/// The side of a plane on which dot(normal, p) <= distance.
struct HalfSpace {
    Point normal; ///< of length 1
    double distance;
};

/// The planes halfway to the other grains.
std::vector<HalfSpace> wallsOf(std::vector<Grain> const& grains, std::size_t own) {
    std::vector<HalfSpace> walls;
    for (std::size_t other = 0; other < grains.size(); ++other) {
        if (other == own)
            continue;
        Point const across = grains[other].center - grains[own].center;
        Point const normal = (1.0 / length(across)) * across;
        Point const middle = 0.5 * (grains[other].center + grains[own].center);
        walls.push_back({normal, dot(normal, middle)});
    }
    return walls;
}

/// What a grain's atoms lie within: its walls, from which they keep so far that atoms of two grains
/// do not quite touch, and the faces of the shape.
std::vector<HalfSpace> boundsOf(std::vector<HalfSpace> bounds, double size) {
    for (HalfSpace& wall : bounds)
        wall.distance -= 0.8 * atomRadius;
    for (double const x : {-1.0, 0.0, 1.0})
        for (double const y : {-1.0, 0.0, 1.0})
            for (double const z : {-1.0, 0.0, 1.0}) {
                Point const outward = {x, y, z};
                double const square = dot(outward, outward);
                if (square == 1.0)
                    bounds.push_back({outward, size});
                else if (square == 3.0)
                    bounds.push_back(
                        {(1.0 / std::sqrt(3.0)) * outward, 1.5 * size / std::sqrt(3.0)});
            }
    return bounds;
}

/// Calls `visit(start, step, first, last)` for every row of atoms start + k step, k from `first` to
/// `last`, that the bounds leave of a grain's lattice.
template <class Visit>
void forEachRow(Grain const& grain, std::vector<HalfSpace> const& bounds, double size, Poll& poll,
                Visit visit) {
    constexpr Point basis[] = {{0, 0, 0}, {0, 0.5, 0.5}, {0.5, 0, 0.5}, {0.5, 0.5, 0}};
    // Nothing of the shape is further from the middle than its corners.
    double const reach = 1.12 * size + length(grain.center);
    double const cells = std::ceil(reach / latticeConstant) + 1.0;
    Point const step = latticeConstant * grain.axes[2];
    for (double i = -cells; i <= cells; i += 1.0)
        for (double j = -cells; j <= cells; j += 1.0)
            for (Point const& site : basis) {
                poll(0);
                Point const p = latticeConstant * (Point{i, j, 0.0} + site);
                Point const start = ((grain.center + p.x * grain.axes[0]) + p.y * grain.axes[1]) +
                                    p.z * grain.axes[2];
                double first = -cells;
                double last = cells;
                for (HalfSpace const& bound : bounds) {
                    double const slope = dot(bound.normal, step);
                    double const room = bound.distance - dot(bound.normal, start);
                    if (slope > 0.0)
                        last = std::min(last, std::floor(room / slope));
                    else if (slope < 0.0)
                        first = std::max(first, std::ceil(room / slope));
                    else if (room < 0.0)
                        last = first - 1.0;
                    if (last < first)
                        break;
                }
                if (first <= last)
                    visit(start, step, first, last);
            }
}

struct Atom {
    Point position;
    double facet; ///< the size of the shape on whose face it lies
    std::size_t grain;
};

/// The atoms of all grains within the smallest shape, of those tried, that holds enough of them.
std::vector<Atom> placeAtoms(std::vector<Grain> const& grains, std::uint64_t count, double size,
                             Poll& poll) {
    double enough = 0.0;
    while (enough < static_cast<double>(count)) {
        size *= 1.02;
        enough = 0.0;
        for (std::size_t grain = 0; grain < grains.size(); ++grain)
            forEachRow(
                grains[grain], boundsOf(wallsOf(grains, grain), size), size, poll,
                [&](Point, Point, double first, double last) { enough += last - first + 1.0; });
    }
    std::vector<Atom> atoms;
    atoms.reserve(static_cast<std::size_t>(enough));
    for (std::size_t grain = 0; grain < grains.size(); ++grain)
        forEachRow(grains[grain], boundsOf(wallsOf(grains, grain), size), size, poll,
                   [&](Point start, Point step, double first, double last) {
                       for (double k = first; k <= last; k += 1.0) {
                           Point const place = start + k * step;
                           atoms.push_back({place, facetDistance(place), grain});
                       }
                   });
    return atoms;
}

void makeCrystal(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                 PhaseProgress const& progress) {
    // A cell holds four atoms, a shape of size s has the volume 4 s^3: without walls between
    // grains this size would do.
    double size = 0.25 * latticeConstant;
    double const cell = latticeConstant * latticeConstant * latticeConstant;
    while (16.0 * (size * size * size) < static_cast<double>(count) * cell)
        size *= 1.01;
    std::vector<Grain> const grains = makeGrains(count, seed, size);
    Poll poll(progress, 8.0 * static_cast<double>(count));
    std::vector<Atom> const atoms = placeAtoms(grains, count, size, poll);

    // Of those that are too many the ones furthest out go, which keeps the faces flat.
    std::vector<double> facets;
    facets.reserve(atoms.size());
    for (Atom const& atom : atoms) {
        poll(0);
        facets.push_back(atom.facet);
    }
    auto const last = facets.begin() + static_cast<std::ptrdiff_t>(count - 1);
    std::nth_element(facets.begin(), last, facets.end());
    std::uint64_t atLast = count; // how many of those that lie exactly on the last face stay
    for (Atom const& atom : atoms) {
        poll(0);
        atLast -= atom.facet < *last ? 1 : 0;
    }

    std::vector<std::vector<HalfSpace>> walls;
    for (std::size_t grain = 0; grain < grains.size(); ++grain)
        walls.push_back(wallsOf(grains, grain));
    for (Atom const& atom : atoms) {
        poll(set.positions.size());
        if (atom.facet > *last || (atom.facet == *last && atLast == 0))
            continue;
        atLast -= atom.facet == *last ? 1 : 0;
        Random random(seed, set.positions.size() + 1);
        double depth = std::numeric_limits<double>::infinity();
        for (HalfSpace const& wall : walls[atom.grain])
            depth = std::min(depth, wall.distance - dot(wall.normal, atom.position));
        double const paleness = 0.55 * smoothStep(2.6 * atomRadius, 1.2 * atomRadius, depth);
        append(set, {atom.position, atomRadius,
                     mix(grains[atom.grain].color, Color{250, 246, 238}, paleness),
                     2.0 * random.bellPoint()}); // heat, in Angstrom per picosecond
    }
}

// Cloud: particles as dense as fractal noise over a few puffs says; metres and seconds. ----------

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

void makeCloud(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
               PhaseProgress const& progress) {
    constexpr std::size_t cells = 100; // per axis, over [-1, 1)
    constexpr double step = 2.0 / cells;
    constexpr double meters = 500.0;
    std::vector<Puff> const puffs = makePuffs(seed);
    auto const placeOf = [](std::size_t cell) {
        return Point{-1.0 + step * static_cast<double>(cell % cells),
                     -1.0 + step * static_cast<double>(cell / cells % cells),
                     -1.0 + step * static_cast<double>(cell / (cells * cells))};
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

struct SampleKind {
    char const* name;
    void (*make)(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                 PhaseProgress const& progress);
};

constexpr SampleKind kinds[] = {
    {"galaxy", makeGalaxy}, {"splash", makeSplash}, {"crystal", makeCrystal}, {"cloud", makeCloud}};

} // namespace

std::vector<std::string> const& sampleKinds() {
    static std::vector<std::string> const names = [] {
        std::vector<std::string> list;
        for (SampleKind const& kind : kinds)
            list.emplace_back(kind.name);
        return list;
    }();
    return names;
}

ParticleSet generateParticles(std::string const& kind, std::uint64_t count, std::uint64_t seed,
                              PhaseProgress const& progress) {
    for (SampleKind const& known : kinds) {
        if (known.name != kind)
            continue;
        ParticleSet set;
        set.format = "generated";
        set.radiusSource = "radius";
        set.colorSource = "red green blue";
        set.positions.reserve(count);
        set.radii.reserve(count);
        set.colors.reserve(count);
        set.velocities.reserve(count);
        set.ids.reserve(count);
        if (count > 0)
            known.make(set, count, seed, progress);
        return set;
    }
    throw std::invalid_argument("no sample '" + kind + "'");
}

} // namespace kelpatool
