// The edges of periodic cells.
#include "pipeline/scene/cellbox.h"

#include <cmath>
#include <cstddef>

namespace pipeline {

std::vector<Rod> cellEdges(PeriodicCell const& cell, std::array<int, 3> const& copies) {
    auto const vec = [](std::array<double, 3> const& v) { return Vec{v[0], v[1], v[2]}; };
    Vec const origin = vec(cell.origin);
    Vec edges[3];
    for (std::size_t i = 0; i < 3; ++i)
        edges[i] = vec(cell.edges[i]) * copies[i];
    Vec const across = edges[0] + edges[1] + edges[2];
    constexpr double thickness = 0.0015; // in diagonals: two pixels of a usual picture
    double const radius = thickness * std::sqrt(dot(across, across));
    std::vector<Rod> rods;
    for (std::size_t along = 0; along < 3; ++along)
        for (double const up : {0.0, 1.0})
            for (double const right : {0.0, 1.0}) {
                Vec const from =
                    origin + edges[(along + 1) % 3] * right + edges[(along + 2) % 3] * up;
                if (dot(edges[along], edges[along]) > 0.0)
                    rods.push_back({from, from + edges[along], radius});
            }
    return rods;
}

std::vector<Rod> seenFrom(Vec const& origin, std::vector<Rod> rods) {
    for (Rod& rod : rods) {
        rod.from = rod.from - origin;
        rod.to = rod.to - origin;
    }
    return rods;
}

} // namespace pipeline
