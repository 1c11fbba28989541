// The edges of a cell in coordinates.
#include "pipeline/files/formats/cellofangles.h"

#include <cmath>

namespace pipeline {

std::optional<PeriodicCell> cellOfAngles(std::array<double, 3> const& lengths,
                                         std::array<double, 3> const& degrees) {
    auto const [a, b, c] = lengths;
    // Exact where it matters most: a right angle's cosine is 0.
    auto const cosine = [](double angle) {
        constexpr double inRadians = 3.14159265358979323846 / 180.0;
        return angle == 90.0 ? 0.0 : std::cos(angle * inRadians);
    };
    double const alpha = cosine(degrees[0]);
    double const beta = cosine(degrees[1]);
    double const gamma = cosine(degrees[2]);
    double const sine = std::sqrt(1.0 - (gamma * gamma));
    double const across = (alpha - (beta * gamma)) / sine;
    double const height = std::sqrt(1.0 - (beta * beta) - (across * across));
    double const volume = a * b * c * sine * height;
    if (!(a > 0.0 && b > 0.0 && c > 0.0 && volume > 1.0) || !std::isfinite(volume))
        return std::nullopt;
    PeriodicCell cell;
    cell.edges = {{{a, 0.0, 0.0}, {b * gamma, b * sine, 0.0}, {c * beta, c * across, c * height}}};
    cell.isPeriodic = {true, true, true};
    return cell;
}

} // namespace pipeline
