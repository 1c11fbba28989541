// A radius from how close particles lie.

#include "pipeline/scene/spacing.h"

#include "tests/support/particlefolder.h"
#include "tests/support/particletexts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using namespace kelpatest;
using namespace pipeline;

TEST(RadiusFromSpacing, IsHalfTheWayToTheSixthNeighbour) {
    auto const lattice = [](int n, float step) {
        std::vector<Kelpa::Vector> points;
        for (int i = 0; i < n * n * n; ++i)
            points.push_back({step * static_cast<float>(i % n),
                              step * static_cast<float>(i / n % n),
                              step * static_cast<float>(i / (n * n))});
        return points;
    };
    std::vector<Kelpa::Vector> points = lattice(40, 0.25F);
    EXPECT_EQ(radiusFromSpacing(points, {}), 0.125F);
    // Copies, what is not finite and a stray point at the end of the world change nothing.
    std::vector<Kelpa::Vector> const once = points;
    for (Kelpa::Vector const& point : once)
        points.insert(points.end(), {point, {notANumber, 0.0F, infinity}});
    points.push_back({3e38F, -3e38F, 3e38F});
    EXPECT_EQ(radiusFromSpacing(points, {}), 0.125F);
    // Of seven points in a row, each there twice, the sixth neighbours are 6 5 4 3 4 5 6 away.
    std::vector<Kelpa::Vector> row;
    for (int i = 0; i < 14; ++i)
        row.push_back({static_cast<float>(i / 2), 7.0F, 7.0F});
    EXPECT_EQ(radiusFromSpacing(row, {}), 2.5F);
    // In a plane the sixth neighbour is across a square, sqrt(2) away.
    std::vector<Kelpa::Vector> plane = lattice(40, 2.0F);
    std::erase_if(plane, [](Kelpa::Vector const& p) { return p.z > 0.0F; });
    EXPECT_NEAR(radiusFromSpacing(plane, {}), std::sqrt(2.0F), 1e-5F);

    EXPECT_EQ(radiusFromSpacing({}, {}), 0.0F);
    EXPECT_EQ(radiusFromSpacing({{1, 2, 3}, {1, 2, 3}, {notANumber, 0, 0}}, {}), 0.0F);
    EXPECT_EQ(radiusFromSpacing({{0, 0, 0}, {0, 0, 0}, {3, 4, 0}}, {}), 2.5F); // one neighbour only

    // Half of the points in a clump a million times as dense: a judge asks every point.
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(0.0F, 1.0F);
    std::vector<Kelpa::Vector> clump;
    for (int i = 0; i < 70000; ++i) {
        float const scale = i % 2 == 0 ? 0.01F : 1.0F;
        clump.push_back({scale * unit(random), scale * unit(random), scale * unit(random)});
    }
    std::vector<double> sixths;
    for (std::size_t i = 0; i < clump.size(); i += 233) {
        std::vector<double> squares;
        for (Kelpa::Vector const& p : clump)
            squares.push_back(std::pow(p.x - clump[i].x, 2) + std::pow(p.y - clump[i].y, 2) +
                              std::pow(p.z - clump[i].z, 2));
        std::nth_element(squares.begin(), squares.begin() + 6, squares.end());
        sixths.push_back(std::sqrt(squares[6]));
    }
    std::sort(sixths.begin(), sixths.end());
    double const radius = radiusFromSpacing(clump, {});
    EXPECT_GT(radius, 0.5 * sixths[sixths.size() * 4 / 10]);
    EXPECT_LT(radius, 0.5 * sixths[sixths.size() * 6 / 10]);
}

} // namespace
