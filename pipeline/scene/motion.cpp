// Partners by id or by order, and the shorter way around a period.
#include "pipeline/scene/motion.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>
#include <utility>

namespace pipeline {

namespace {

using Kelpa::Vector;

/// Ids with the particles that have them, in rising order of both.
std::vector<std::pair<std::int64_t, std::int64_t>> sortedIds(ParticleSet const& particles) {
    std::vector<std::pair<std::int64_t, std::int64_t>> ids(particles.ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i)
        ids[i] = {particles.ids[i], static_cast<std::int64_t>(i)};
    std::sort(ids.begin(), ids.end());
    return ids;
}

using Edges = std::array<std::array<double, 3>, 3>;

/// What turns a step into fractions of edges; nothing where these do not span a volume.
std::optional<Edges> inverseOf(Edges const& e) {
    Edges inverse;
    double volume = 0.0;
    for (std::size_t i = 0; i < 3; ++i) {
        std::size_t const j = (i + 1) % 3;
        std::size_t const k = (i + 2) % 3;
        // Row i of the cofactors: the cross product of the other two edges.
        inverse[i] = {e[j][1] * e[k][2] - e[j][2] * e[k][1], e[j][2] * e[k][0] - e[j][0] * e[k][2],
                      e[j][0] * e[k][1] - e[j][1] * e[k][0]};
    }
    for (std::size_t axis = 0; axis < 3; ++axis)
        volume += e[0][axis] * inverse[0][axis];
    if (!std::isfinite(volume) || volume == 0.0)
        return std::nullopt;
    for (std::array<double, 3>& row : inverse)
        for (double& value : row)
            value /= volume;
    return inverse;
}

double dot(std::array<double, 3> const& a, std::array<double, 3> const& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

double squareOf(std::array<double, 3> const& v) {
    return dot(v, v);
}

std::array<double, 3> sum(std::array<double, 3> const& a, std::array<double, 3> const& b) {
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}

} // namespace

std::vector<std::int64_t> findPartners(ParticleSet const& first, ParticleSet const& second) {
    std::vector<std::int64_t> partners(first.positions.size());
    bool const hasIds = !first.ids.empty() && !second.ids.empty();
    if (!hasIds || first.ids == second.ids) {
        std::iota(partners.begin(), partners.end(), std::int64_t{0});
        return partners;
    }
    auto const ids = sortedIds(first);
    auto const others = sortedIds(second);
    auto other = others.begin();
    for (auto const& [id, index] : ids) {
        while (other != others.end() && other->first < id)
            ++other;
        bool const found = other != others.end() && other->first == id;
        partners[static_cast<std::size_t>(index)] = found ? (other++)->second : -1;
    }
    return partners;
}

PeriodicWays::PeriodicWays(ParticleSet const& firstSet, ParticleSet const& secondSet)
    : first(firstSet), second(secondSet) {
    if (!second.cell || (first.isUnwrapped && second.isUnwrapped))
        return;
    cell = *second.cell;
    hasImages = !first.images.empty() && !second.images.empty();
    if (!hasImages)
        prepareNearest();
}

void PeriodicWays::prepareNearest() {
    std::optional<Edges> const inverted = inverseOf(cell.edges);
    findsNearest = inverted.has_value();
    inverse = inverted.value_or(Edges{});
    for (std::size_t edge = 0; edge < 3; ++edge)
        for (std::size_t axis = 0; axis < 3; ++axis)
            isTilted = isTilted || (axis != edge && cell.edges[edge][axis] != 0.0);
}

PeriodicWays::Step PeriodicWays::alongEdges(Step const& edgeCounts) const {
    Step step{};
    for (std::size_t edge = 0; edge < 3; ++edge)
        for (std::size_t axis = 0; axis < 3; ++axis)
            step[axis] += edgeCounts[edge] * cell.edges[edge][axis];
    return step;
}

/// By which whole edges a step is to be changed to lead to the nearest image.
PeriodicWays::Step PeriodicWays::nearest(Step const& step) const {
    Step counts{};
    for (std::size_t edge = 0; edge < 3; ++edge) {
        double const fraction =
            inverse[edge][0] * step[0] + inverse[edge][1] * step[1] + inverse[edge][2] * step[2];
        counts[edge] = cell.isPeriodic[edge] ? -std::round(fraction) : 0.0;
    }
    if (!isTilted)
        return counts;
    // In a tilted cell images next to that one may be nearer, and next to those in turn; how far
    // away the search may lead at most only keeps damaged numbers from running it for ever.
    double bestSquare = squareOf(sum(step, alongEdges(counts)));
    for (int round = 0; round < 64; ++round) {
        Step const middle = counts;
        for (int near = 0; near < 27; ++near) {
            Step const candidate = {middle[0] + (cell.isPeriodic[0] ? near % 3 - 1 : 0),
                                    middle[1] + (cell.isPeriodic[1] ? near / 3 % 3 - 1 : 0),
                                    middle[2] + (cell.isPeriodic[2] ? near / 9 - 1 : 0)};
            double const square = squareOf(sum(step, alongEdges(candidate)));
            if (square < bestSquare) {
                bestSquare = square;
                counts = candidate;
            }
        }
        if (counts == middle)
            break;
    }
    return counts;
}

Vector PeriodicWays::end(std::size_t from, std::size_t to) {
    Vector const& target = second.positions[to];
    if (!hasImages && !findsNearest)
        return target;
    Step counts{};
    if (hasImages) {
        for (int edge = 0; edge < 3; ++edge)
            counts[static_cast<std::size_t>(edge)] = static_cast<double>(second.images[to][edge]) -
                                                     static_cast<double>(first.images[from][edge]);
    } else {
        Vector const& start = first.positions[from];
        counts = nearest({static_cast<double>(target.x) - static_cast<double>(start.x),
                          static_cast<double>(target.y) - static_cast<double>(start.y),
                          static_cast<double>(target.z) - static_cast<double>(start.z)});
    }
    bool const isNumber = std::isfinite(counts[0] + counts[1] + counts[2]);
    if (!isNumber || counts == Step{})
        return target;
    ++crossings;
    Step const along = alongEdges(counts);
    return {static_cast<float>(static_cast<double>(target.x) + along[0]),
            static_cast<float>(static_cast<double>(target.y) + along[1]),
            static_cast<float>(static_cast<double>(target.z) + along[2])};
}

std::vector<Vector> wrapped(std::vector<Vector> const& positions, PeriodicCell const& cell) {
    std::optional<Edges> const inverse = inverseOf(cell.edges);
    if (!inverse)
        return positions;
    std::vector<Vector> inside(positions.size());
    std::transform(positions.begin(), positions.end(), inside.begin(), [&](Vector const& p) {
        std::array<double, 3> const step = {static_cast<double>(p.x) - cell.origin[0],
                                            static_cast<double>(p.y) - cell.origin[1],
                                            static_cast<double>(p.z) - cell.origin[2]};
        std::array<double, 3> place = {static_cast<double>(p.x), static_cast<double>(p.y),
                                       static_cast<double>(p.z)};
        for (std::size_t edge = 0; edge < 3; ++edge) {
            double const whole =
                cell.isPeriodic[edge] ? std::floor(dot((*inverse)[edge], step)) : 0.0;
            for (std::size_t axis = 0; axis < 3; ++axis)
                place[axis] -= whole * cell.edges[edge][axis];
        }
        return Vector{static_cast<float>(place[0]), static_cast<float>(place[1]),
                      static_cast<float>(place[2])};
    });
    return inside;
}

} // namespace pipeline
