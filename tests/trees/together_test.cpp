// Lists of rays that go the same way, and rays that only ask whether anything is hit.

#include "kelpa/spheretree/traversal.h"

#include "tests/support/movingscene.h"
#include "tests/support/variants.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace kelpatest {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

/// A list of rays with all that asking about it takes.
struct List {
    RayBunchExtParams params{};
    double tMins[64] = {}, tMaxs[64] = {}, ends[64] = {};
    unsigned char lanes[64] = {};
    std::size_t count = 0;
};

/// Makes lists of rays near one of every aim: as far as numbers go wherever lists may differ from
/// single rays, in ends and signs, starts and times.
class ListSource {
  public:
    ListSource(Cloud const& cloud, std::uint64_t seed) : rays(cloud, seed), random(seed + 1) {}

    template <class AnyScene> List make(AnyScene const& scene, Aim aim, std::size_t count) {
        Query const middle = rays.make(aim);
        float const spread = random.powerOfTwo(-18, -4);
        List list;
        list.count = count;
        bool const hasGaps = random.below(3) == 0;
        std::size_t const first =
            hasGaps ? 0 : static_cast<std::size_t>(random.below(64)) % (65 - count);
        for (std::size_t k = 0; k < count; ++k) {
            std::size_t const lane = hasGaps ? k * 37 % 64 : first + k;
            list.lanes[k] = static_cast<unsigned char>(lane);
            RSRay ray = scene.makeRay(near(middle, spread));
            ray.time = random.below(30) == 0 ? 1.5F : random.unit();
            if (random.below(4) == 0)
                ray.skipIndex =
                    scene.reportedIndex(rays.make(aim).start) + (scene.isAlone() ? 0 : scene.base);
            setLane(list.params, lane, ray);
            list.tMins[lane] = scene.isAlone() ? ray.intervalMin : ray.clipMin;
            list.tMaxs[k] = scene.isAlone() ? ray.intervalMax : ray.clipMax;
            list.ends[lane] = infinity;
            setOddEnds(list, lane, k);
        }
        return list;
    }

  private:
    Query near(Query query, float spread) {
        float const size =
            std::fabs(query.ray.dir.x) + std::fabs(query.ray.dir.y) + std::fabs(query.ray.dir.z);
        Vector const turn = scaled(random.inCube(spread), size);
        bool const isShifted = random.below(2) == 0;
        for (int axis = 0; axis < 3; ++axis) {
            float& component = query.ray.dir[axis];
            component = component != 0.0F      ? component + turn[axis]
                        : random.below(2) == 0 ? -component
                                               : component;
            double const shift = isShifted ? static_cast<double>(turn[axis] / size) : 0.0;
            query.ray.origin[axis] = roundedToSingle(query.ray.origin[axis] * (1.0 + shift));
        }
        return query;
    }

    void setOddEnds(List& list, std::size_t lane, std::size_t k) {
        switch (random.below(24)) {
        case 0:
            list.tMaxs[k] = nan;
            break;
        case 1:
            list.tMins[lane] = nan;
            break;
        case 2:
            list.ends[lane] = nan;
            break;
        case 3:
            list.tMaxs[k] = -infinity;
            break;
        case 4:
            list.ends[lane] = list.tMins[lane] + static_cast<double>(random.unit()) *
                                                     (list.tMaxs[k] - list.tMins[lane]);
            break;
        case 5:
            list.tMins[lane] = -infinity;
            break;
        default:
            break;
        }
    }

    RaySource rays;
    Random random;
};

/// The single ray of the k-th lane of a list, with its interval ended by `end`.
template <class AnyScene>
RSRay singleRay(AnyScene const& scene, List const& list, std::size_t k, double end) {
    std::size_t const i = list.lanes[k];
    RSRay ray{};
    ray.origin[0] = list.params.originX[i];
    ray.origin[1] = list.params.originY[i];
    ray.origin[2] = list.params.originZ[i];
    ray.dir = {list.params.dirX[i], list.params.dirY[i], list.params.dirZ[i]};
    ray.time = list.params.time[i];
    ray.skipIndex = list.params.skipIndex[i];
    double const tMax = end < list.tMaxs[k] ? end : list.tMaxs[k];
    (scene.isAlone() ? ray.intervalMin : ray.clipMin) = list.tMins[i];
    (scene.isAlone() ? ray.intervalMax : ray.clipMax) = tMax;
    ray.hitT = tMax;
    return ray;
}

/// How many rays of a list answer otherwise than alone, by the closest hit or by whether there is
/// any.
template <class AnyScene> int countDifferent(AnyScene& scene, List& list, int& hits) {
    RayBunchCommonResult result{};
    std::copy(std::begin(list.ends), std::end(list.ends), result.hitT);
    result.noHits = true;
    bool const anyHit = scene.owner.bunchIntersect(list.params, result, list.tMins, list.tMaxs,
                                                   list.lanes, list.count);
    std::uint64_t const occluded =
        scene.owner.bunchOccluded(list.params, list.tMins, list.tMaxs, list.lanes, list.count);
    int different = 0;
    bool expectHit = false;
    for (std::size_t k = 0; k < list.count; ++k) {
        std::size_t const i = list.lanes[k];
        RSRay ray = singleRay(scene, list, k, list.ends[i]);
        RSRay const asked = ray;
        int const code = scene.owner.intersect(ray);
        hits += code;
        expectHit |= code != 0;
        bool isSameAsAlone = result.hit[i] == code && scene.owner.isOccluded(asked) == (code != 0);
        if (code != 0)
            isSameAsAlone &=
                result.hitT[i] == ray.hitT && result.hitIndex[i] == ray.hitIndex &&
                result.hitPrimitive[i] == ray.hitPrimitive &&
                result.hitLocalIndex[i] == ray.hitLocalIndex &&
                isSame({result.hitNormalX[i], result.hitNormalY[i], result.hitNormalZ[i]},
                       ray.hitNormal);
        else
            isSameAsAlone &= isSame(result.hitT[i], list.ends[i]);
        RSRay unended = singleRay(scene, list, k, infinity);
        isSameAsAlone &= (occluded >> i & 1U) == (scene.owner.intersect(unended) != 0 ? 1U : 0U);
        different += isSameAsAlone ? 0 : 1;
    }
    return different + (anyHit != expectHit || result.noHits == expectHit ? 1 : 0);
}

template <class AnyScene> void expectListsAsSingles(AnyScene& scene, int lists, int& hits) {
    static_cast<GeomTreeBase&>(scene.tree).build(nullptr, nullptr, 0, 0);
    forEachVariant([&] {
        ListSource source(scene.cloud, 7);
        int different = 0;
        for (int i = 0; i < lists; ++i) {
            constexpr std::size_t counts[] = {64, 1, 2, 3, 7, 8, 9, 15, 16, 17, 33, 63};
            List list = source.make(scene, static_cast<Aim>(i % numAims),
                                    counts[static_cast<std::size_t>(i) % 12]);
            different += countDifferent(scene, list, hits);
        }
        EXPECT_EQ(different, 0);
    });
}

TEST(ListsOfRays, AnswerAsSingleRaysDoHoweverTheyAreLedTogether) {
    for (CloudKind const& kind : cloudKinds) {
        SCOPED_TRACE(kind.name);
        int hits = 0;
        StillScene still(kind.make(41, 400));
        expectListsAsSingles(still, 120, hits);
        for (Way const way : {Way::drifting, Way::scattering}) {
            MovingScene moving(moved(kind.make(42, 400), way, 6));
            expectListsAsSingles(moving, 60, hits);
        }
        EXPECT_GT(hits, 1000);
    }
}

TEST(ListsOfRays, AnswerAlikeInLeavesOfEverySize) {
    for (int const count : {1, 7, 8, 9, 16, 17, 33, 128, 129, 257}) {
        SCOPED_TRACE(count);
        int hits = 0;
        StillScene still(coincident.make(3, count));
        still.tree.maxDepth = 0;
        expectListsAsSingles(still, 60, hits);
        MovingScene moving(moved(coincident.make(4, count), Way::drifting, 5));
        moving.tree.maxDepth = 0;
        expectListsAsSingles(moving, 60, hits);
        EXPECT_GT(hits, 200);
    }
}

TEST(ListsOfRays, AreAskedOneByOneWhereTheyCannotBeLedTogether) {
    int hits = 0;
    StillScene unpacked(uniform.make(5, 300));
    unpacked.tree.packLeaves = 0;
    expectListsAsSingles(unpacked, 60, hits);
    StillScene deep(nested.make(3, 100));
    deep.tree.maxDepth = 400;
    deep.tree.leafSizeFactor = 0.0F;
    expectListsAsSingles(deep, 60, hits);
    EXPECT_GT(deep.tree.innerLevels, usualInnerLevels);
    MovingScene unpackedMoving(moved(uniform.make(5, 300), Way::scattering, 1));
    unpackedMoving.tree.packSpheres = 0;
    expectListsAsSingles(unpackedMoving, 60, hits);
    EXPECT_GT(hits, 1000);
}

// Trees have nodes that are made for queries where their spheres are packed, else they have not.
TEST(ListsOfRays, AnswerTreeByTreeAsEachDoesWhateverItWasMadeFor) {
    MovingScene packed(moved(uniform.make(9, 300), Way::scattering, 1));
    MovingScene unpacked(moved(uniform.make(9, 300), Way::scattering, 1));
    unpacked.tree.packSpheres = 0;
    for (MovingScene* const scene : {&packed, &unpacked})
        static_cast<GeomTreeBase&>(scene->tree).build(nullptr, nullptr, 0, 0);
    MovingParticlePrimitive* primitives[64];
    forEachVariant([&] {
        ListSource source(packed.cloud, 7);
        int hits = 0, different = 0;
        for (int i = 0; i < 30; ++i) {
            List list = source.make(packed, static_cast<Aim>(i % numAims), 64);
            for (int k = 0; k < 64; ++k)
                primitives[k] = &(i % 2 == 0 || k % 5 == 0 ? packed : unpacked).owner;
            std::uint64_t const occluded = MovingParticlePrimitive::bunchOccludedApart(
                primitives, list.params, list.tMins, list.tMaxs, list.lanes, 64);
            for (std::size_t k = 0; k < 64; ++k) {
                RSRay ray = singleRay(packed, list, k, infinity);
                int const code = packed.owner.intersect(ray);
                hits += code;
                different += (occluded >> list.lanes[k] & 1U) != static_cast<unsigned>(code);
            }
        }
        EXPECT_GT(hits, 300);
        EXPECT_EQ(different, 0);
    });
}

// Hosts may trap invalid operations: lanes that no ray holds must not compute with zeros.
TEST(ListsOfRays, DoNothingInvalidWithLanesThatAreEmpty) {
    StillScene still(uniform.make(6, 3000));
    static_cast<GeomTreeBase&>(still.tree).build(nullptr, nullptr, 0, 0);
    MovingScene moving(moved(uniform.make(6, 3000), Way::scattering, 7));
    static_cast<GeomTreeBase&>(moving.tree).build(nullptr, nullptr, 0, 0);
    Random random(8);
    forEachVariant([&] {
        for (std::size_t count = 1; count <= 64; ++count) {
            List list;
            list.count = count;
            for (std::size_t k = 0; k < count; ++k) {
                list.lanes[k] = static_cast<unsigned char>(k);
                list.params.originZ[k] = -5.0;
                Vector const shift = random.inCube(0.2F);
                list.params.dirX[k] = shift.x;
                list.params.dirY[k] = shift.y;
                list.params.dirZ[k] = 1.0F;
                list.params.time[k] = 0.5F;
                list.params.skipIndex[k] = -1;
                list.tMaxs[k] = list.ends[k] = 1e30;
            }
            int hits = 0;
            std::feclearexcept(FE_ALL_EXCEPT);
            EXPECT_EQ(countDifferent(still, list, hits) + countDifferent(moving, list, hits), 0);
            EXPECT_EQ(std::fetestexcept(FE_INVALID), 0) << count;
        }
    });
}

} // namespace
} // namespace kelpatest
