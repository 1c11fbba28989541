// Crystal: grains of face-centred cubic copper inside a truncated octahedron; Angstrom.
#include "pipeline/samples/particles.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace pipeline::samples {

namespace {

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

} // namespace

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

} // namespace pipeline::samples
