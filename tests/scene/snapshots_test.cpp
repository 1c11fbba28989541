// Which particle of one snapshot is which of another, and which way it went.

#include "pipeline/scene/motion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace pipeline;

TEST(Snapshots, FindEachParticleAPartnerOfItsOwn) {
    auto const set = [](std::vector<std::int64_t> ids, std::size_t count) {
        ParticleSet particles;
        particles.positions.resize(count);
        particles.ids = std::move(ids);
        return particles;
    };
    using Indices = std::vector<std::int64_t>;
    EXPECT_EQ(findPartners(set({5, -3, 9, 5, 5}, 5), set({9, 5, 4, 5}, 4)),
              (Indices{1, -1, 0, 3, -1}));
    EXPECT_EQ(findPartners(set({}, 3), set({7, 8, 9}, 3)), (Indices{0, 1, 2}));
    EXPECT_EQ(findPartners(set({2, 2}, 2), set({2, 2}, 2)), (Indices{0, 1}));
}

double distance(Kelpa::Vector const& from, double const (&to)[3]) {
    return std::hypot(to[0] - static_cast<double>(from.x), to[1] - static_cast<double>(from.y),
                      to[2] - static_cast<double>(from.z));
}

/// The judge asks every image there is.
double nearestImage(Kelpa::Vector const& from, Kelpa::Vector const& to, PeriodicCell const& cell) {
    double nearest = INFINITY;
    int const reach = 8;
    for (int a = -reach; a <= reach; ++a)
        for (int b = -reach; b <= reach; ++b)
            for (int c = -reach; c <= reach; ++c) {
                int const n[3] = {a, b, c};
                double place[3] = {static_cast<double>(to.x), static_cast<double>(to.y),
                                   static_cast<double>(to.z)};
                bool isReached = true;
                for (std::size_t i = 0; i < 3; ++i) {
                    isReached = isReached && (n[i] == 0 || cell.isPeriodic[i]);
                    for (std::size_t axis = 0; axis < 3; ++axis)
                        place[axis] += n[i] * cell.edges[i][axis];
                }
                if (isReached)
                    nearest = std::min(nearest, distance(from, place));
            }
    return nearest;
}

TEST(Snapshots, GoToTheNearestImageInAnyCell) {
    std::mt19937 random(11);
    std::uniform_real_distribution<float> unit(-1.0F, 1.0F);
    for (int trial = 0; trial < 2000; ++trial) {
        SCOPED_TRACE(trial);
        PeriodicCell cell;
        bool const isTilted = trial % 2 == 0;
        for (std::size_t i = 0; i < 3; ++i) {
            cell.edges[i][i] = 4.0 + static_cast<double>(unit(random));
            cell.isPeriodic[i] = random() % 4 != 0;
            for (std::size_t axis = 0; axis < i && isTilted; ++axis) // at most half an edge
                cell.edges[i][axis] = 1.5 * static_cast<double>(unit(random));
        }
        ParticleSet first;
        ParticleSet second;
        first.positions = {{10 * unit(random), 10 * unit(random), 10 * unit(random)}};
        second.positions = {{10 * unit(random), 10 * unit(random), 10 * unit(random)}};
        second.cell = cell;
        Kelpa::Vector const from = first.positions[0];
        Kelpa::Vector const to = second.positions[0];
        double const nearest = nearestImage(from, to, cell);
        PeriodicWays ways(first, second);
        Kelpa::Vector const end = ways.end(0, 0);
        double const place[3] = {static_cast<double>(end.x), static_cast<double>(end.y),
                                 static_cast<double>(end.z)};
        EXPECT_NEAR(distance(from, place), nearest, 1e-5);
        EXPECT_EQ(ways.crossingCount(), end.x == to.x && end.y == to.y && end.z == to.z ? 0U : 1U);

        Kelpa::Vector const inside = wrapped(second.positions, cell)[0];
        for (int axis = 0; axis < 3; ++axis) {
            std::size_t const i = static_cast<std::size_t>(axis);
            if (isTilted)
                continue;
            float const length = static_cast<float>(cell.edges[i][i]);
            EXPECT_TRUE(cell.isPeriodic[i] ? inside[axis] >= 0 && inside[axis] <= length
                                           : inside[axis] == to[axis]);
        }

        first.images = {{3, -1, 0}};
        second.images = {{4, -1, -2}};
        Kelpa::Vector const told = PeriodicWays(first, second).end(0, 0);
        EXPECT_NEAR(static_cast<double>(told.x) - static_cast<double>(to.x),
                    cell.edges[0][0] - 2.0 * cell.edges[2][0], 1e-5);
        EXPECT_NEAR(static_cast<double>(told.z) - static_cast<double>(to.z),
                    -2.0 * cell.edges[2][2], 1e-5);
        first.isUnwrapped = second.isUnwrapped = true;
        EXPECT_EQ(PeriodicWays(first, second).end(0, 0).x, to.x);
    }
}
