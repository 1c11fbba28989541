// Where rays meet rods.
#include "pipeline/picture/rods.h"

#include <cmath>
#include <cstddef>
#include <utility>

namespace pipeline {

namespace {

/// Spheres in a row that hold a rod, so small that they tell the pixels it shows in.
void appendHull(Rod const& rod, std::vector<Kelpa::Vector>& centers, std::vector<float>& radii) {
    constexpr int pieces = 512;
    Vec const step = (rod.to - rod.from) * (1.0 / pieces);
    double const half = 0.5 * std::sqrt(dot(step, step));
    for (int piece = 0; piece < pieces; ++piece) {
        centers.push_back(narrow(rod.from + step * (piece + 0.5)));
        // A little more, for what rounding takes.
        radii.push_back(static_cast<float>(1.01 * (half + rod.radius)));
    }
}

/// Where a ray enters the cylinder around a rod, within its length; `end` where it does not.
double hitRod(Rod const& rod, Vec const& origin, Vec const& direction, double end) {
    Vec const axis = unit(rod.to - rod.from);
    Vec const from = origin - rod.from;
    // What of both is across the axis.
    Vec const d = direction - axis * dot(direction, axis);
    Vec const m = from - axis * dot(from, axis);
    double const a = dot(d, d);
    double const b = dot(d, m);
    double const c = dot(m, m) - rod.radius * rod.radius;
    double const root = b * b - a * c;
    if (!(a > 0.0) || root < 0.0)
        return end;
    double const t = (-b - std::sqrt(root)) / a;
    double const along = dot(from + direction * t, axis);
    double const length = std::sqrt(dot(rod.to - rod.from, rod.to - rod.from));
    // Longer by half their thickness, they meet in the corners.
    bool const isWithin = along >= -rod.radius && along <= length + rod.radius;
    return t > 0.0 && t < end && isWithin ? t : end;
}

} // namespace

PictureRods::PictureRods(std::vector<Rod> shown, Camera const& camera, int left, int top, int right,
                         int bottom)
    : rods(std::move(shown)) {
    if (rods.empty())
        return;
    std::vector<Kelpa::Vector> centers;
    std::vector<float> radii;
    for (Rod const& rod : rods)
        appendHull(rod, centers, radii);
    footprint = Footprint(centers, radii, camera, left, top, right, bottom);
}

double PictureRods::hit(Vec const& origin, Vec const& direction, double end) const {
    for (Rod const& rod : rods)
        end = hitRod(rod, origin, direction, end);
    return end;
}

} // namespace pipeline
