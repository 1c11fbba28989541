// Boxes, their centres, and where numbers count from.
#include "pipeline/scene/bounds.h"

#include <algorithm>
#include <cmath>

namespace pipeline {

void Bounds::add(Bounds const& other) {
    min = {std::min(min.x, other.min.x), std::min(min.y, other.min.y),
           std::min(min.z, other.min.z)};
    max = {std::max(max.x, other.max.x), std::max(max.y, other.max.y),
           std::max(max.z, other.max.z)};
}

Vec Bounds::centre() const {
    return (min + max) * 0.5;
}

double Bounds::diagonal() const {
    Vec const d = max - min;
    return std::sqrt(dot(d, d));
}

Vec originFor(Bounds const& bounds) {
    constexpr double farOff = 4.0;
    auto const along = [](double min, double max) {
        double const middle = (min + max) / 2.0;
        // A number of single precision: one of the coordinates.
        return std::abs(middle) > farOff * (max - min) ? min : 0.0;
    };
    return {along(bounds.min.x, bounds.max.x), along(bounds.min.y, bounds.max.y),
            along(bounds.min.z, bounds.max.z)};
}

} // namespace pipeline
