// How rays meet planes and the spheres of a leaf, where single precision and order decide.

#include "kelpa/spheretree/traversal.h"

#include "tests/support/movingscene.h"
#include "tests/support/variants.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace kelpatest {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

TEST(PlanesAndIntervals, AreToldApartByOneComparisonAsByAll) {
    constexpr double intervals[][2] = {{0.0, 1.0},   {0.0, 0.0},      {-1e-18, 1e-18}, {3.0, 2.0},
                                       {1e-3, 4e3},  {nan, 1.0},      {0.0, nan},      {nan, nan},
                                       {1e30, 1e31}, {0.0, infinity}, {-infinity, 0.0}};
    constexpr double steps[] = {0.0,   1e-30, 1e-20, 4.9e-19, 9.9e-19,      1e-18,
                                2e-18, 1e-15, 1e-3,  1e30,    1.0000001e18, infinity};
    int decided = 0;
    for (auto const& [tMin, tMax] : intervals) {
        CrossedInterval const interval(tMin, tMax);
        for (double const end : {tMin, tMax, nan})
            for (double const step : steps)
                for (double const tSplit : {end - step, end + step, std::nextafter(end, step)}) {
                    SCOPED_TRACE(::testing::Message() << tMin << ' ' << tMax << ' ' << tSplit);
                    bool const isCrossed = crossesPlane(tSplit, tMin, tMax);
                    bool const isBehind = !isCrossed && tSplit < tMin;
                    EXPECT_TRUE(isBehind || !interval.isBehind(tSplit));
                    EXPECT_FALSE((isCrossed || isBehind) && interval.isBefore(tSplit));
                    decided += interval.isBehind(tSplit) || interval.isBefore(tSplit);
                }
    }
    EXPECT_GT(decided, 100);
}

/// Spheres around the origin, each of them there once more: rays meet two at the same distance,
/// which are neighbours or far from each other in the order of the leaf.
Cloud twins(int count, std::uint64_t seed) {
    std::vector<Vector> centers;
    return cloudOf(seed, count, [&](System& system, Random& random, int i) {
        int const twin = random.below(2) == 0 ? i / 2 : i % ((count + 1) / 2);
        if (i == 0 || twin >= static_cast<int>(centers.size()))
            centers.push_back(random.inCube(1.0F));
        system.add(centers[static_cast<std::size_t>(twin) % centers.size()], 0.5F);
    });
}

/// Expects the answers of a leaf whose spheres are asked one by one of all that asks many at once.
template <class AnyScene> void expectSameInOneLeaf(AnyScene& scene, std::int32_t& packs) {
    scene.tree.maxDepth = 0;
    packs = 0;
    static_cast<GeomTreeBase&>(scene.tree).build(nullptr, nullptr, 0, 0);
    RaySource source(scene.cloud, 5);
    std::vector<RSRay> rays, answers;
    for (int i = 0; i < 40 * numAims; ++i) {
        rays.push_back(scene.makeRay(source.make(static_cast<Aim>(i % numAims))));
        rays.back().time = 0.5F;
        if (i % 7 == 0)
            rays.back().intervalMax = nan;
        if (i % 11 == 0)
            rays.back().intervalMin = nan;
        answers.push_back(rays.back());
        scene.owner.intersect(answers.back());
    }
    packs = 1;
    static_cast<GeomTreeBase&>(scene.tree).build(nullptr, nullptr, 0, 0);
    expectEveryVariantAnswers(scene, rays, answers);
}

TEST(Leaves, KeepTheFirstOfEquallyNearSpheresWhateverTheirNumber) {
    for (int const count : {1, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 100}) {
        SCOPED_TRACE(count);
        StillScene still(twins(count, 1));
        expectSameInOneLeaf(still, still.tree.packLeaves);
        MovingScene moving(moved(twins(count, 2), Way::drifting, 3));
        expectSameInOneLeaf(moving, moving.tree.packSpheres);
    }
}

} // namespace
} // namespace kelpatest
