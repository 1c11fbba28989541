// Primitives as a host sees them: hits, numbers, bounds, bunches.
#include "kelpa/particleprimitives/particleprimitives.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/scene.h"
#include "tests/support/testhost.h"
#include "tests/support/variants.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace kelpatest {
namespace {

constexpr int intMax = std::numeric_limits<int>::max();

TEST(StillPrimitives, RegisterTheirParticlesWithEveryBuild) {
    Cloud cloud = uniform.make(1, 50);
    ParticleData& data = cloud.systems[0].data;
    StaticParticlePrimitive primitive(5, &data, nullptr, true);
    StaticSphereTree& tree = *primitive.tree;
    EXPECT_EQ(primitive.getMemUsage(), 0U);
    EXPECT_EQ(tree.particleSystems.capacity, 1);
    for (int builds = 1; builds <= 2; ++builds) {
        primitive.build(nullptr, nullptr, 33, 0.25F, 1.5F, 0);
        EXPECT_EQ(tree.maxDepth, 33);
        EXPECT_EQ(tree.minNodeSize, 0.25F);
        EXPECT_EQ(tree.leafSizeFactor, 1.5F);
        ASSERT_EQ(tree.particleSystems.count, builds);
        ParticleDataWithPrimitive const& record = tree.particleSystems.elements[builds - 1];
        EXPECT_EQ(record.particles, &data);
        EXPECT_EQ(record.primitive, &primitive);
        EXPECT_EQ(record.indexOffset, -1);
        EXPECT_EQ(tree.numSpheres, 50 * builds);
        EXPECT_EQ(tree.singleSystem, builds == 1 ? 1 : 0);
        EXPECT_EQ(primitive.getMemUsage(), tree.getMemUsage());
    }

    ParticleData noParticles = data, noRadii = data;
    noParticles.numParticles = 0;
    noRadii.numRadii = 0;
    for (ParticleData* const nothing :
         {static_cast<ParticleData*>(nullptr), &noParticles, &noRadii}) {
        StaticParticlePrimitive empty(0, nothing, nullptr, true);
        empty.build(nullptr, nullptr, 60, 0.0F, 2.0F, 0);
        EXPECT_EQ(empty.tree->particleSystems.count, 0);
        RSRay ray{};
        EXPECT_EQ(empty.intersect(ray), 0);
        StaticBox box;
        empty.getBBox(box);
        EXPECT_EQ(box.pmin.x, 1e20F);
        EXPECT_EQ(box.pmax.y, -1e20F);
    }
}

TEST(StillPrimitives, EndWithTheOneExceptionWhenMemoryRunsOut) {
    Cloud cloud = uniform.make(1, 50);
    ParticleData& data = cloud.systems[0].data;
    int constructionFailures = 0, buildFailures = 0, forgotten = 0;
    bool failed = true;
    for (long k = 0; failed; ++k) {
        FailingAllocations const failure(k);
        try {
            StaticParticlePrimitive primitive(5, &data, nullptr, true);
            try {
                primitive.build(nullptr, nullptr, 60, 0.0F, 2.0F, 0);
            } catch (ExceptionMsg const&) {
                ++buildFailures;
                forgotten += primitive.tree->particleSystems.count == 0;
            }
        } catch (ExceptionMsg const&) {
            ++constructionFailures;
        }
        failed = failure.happened();
    }
    EXPECT_EQ(constructionFailures, 2); // the tree, its table
    EXPECT_GT(buildFailures, 5);
    EXPECT_EQ(forgotten, buildFailures); // a second attempt does not find the system twice
}

TEST(StillPrimitives, BoundCutAndColourTheirParticles) {
    Cloud cloud = cloudOf(1, 1, [](System& system, Random&, int) {
        system.add({1.0F, 2.0F, 3.0F}, 0.5F);
    });
    ParticleData& data = cloud.systems[0].data;
    StaticParticlePrimitive primitive(0, &data, nullptr, true);
    primitive.build(nullptr, nullptr, 60, 0.0F, 2.0F, 0);
    StaticBox box, lower, upper;
    primitive.getBBox(box);
    EXPECT_EQ(box.pmin.x, 0.5F - 0x1p-13F);
    EXPECT_EQ(box.pmax.z, 3.5F + 0x1p-11F);
    for (int axis = 0; axis < 3; ++axis) {
        primitive.split(axis, 100.0F, lower, upper); // wherever the plane is
        EXPECT_EQ(std::exchange(lower.pmax[axis], box.pmax[axis]), 100.0F);
        EXPECT_EQ(std::exchange(upper.pmin[axis], box.pmin[axis]), 100.0F);
        EXPECT_EQ(std::memcmp(&lower, &box, sizeof box), 0);
        EXPECT_EQ(std::memcmp(&upper, &box, sizeof box), 0);
    }

    Vector const colors[] = {{4.0F, 5.0F, 6.0F}, {}};
    data.colors = colors;
    for (int const count : {0, 1, 2}) { // black unless there is one for each particle
        data.numColors = count;
        EXPECT_EQ(primitive.getColor(0).y, count == 1 ? 5.0F : 0.0F);
    }
}

/// Four unit spheres along z, five apart, the first at z = 5, and a ray along them.
struct Row {
    Cloud cloud = cloudOf(1, 4, [](System& system, Random&, int i) {
        system.add({0.0F, 0.0F, 5.0F * static_cast<float>(i + 1)}, 1.0F);
    });
    ParticleData& data = cloud.systems[0].data;

    static RSRay ray() {
        RSRay made{};
        made.dir = {0.0F, 0.0F, 1.0F};
        made.intervalMax = made.clipMax = made.hitT = 1e30;
        return made;
    }
};

TEST(Indices, CountFromTheBaseAndWrap) {
    Row row;
    for (std::int32_t const base : {0, 1000, -5, intMax, -intMax - 1}) {
        SCOPED_TRACE(base);
        StaticParticlePrimitive primitive(base, &row.data, nullptr, true);
        primitive.build(nullptr, nullptr, 60, 0.0F, 2.0F, 0);
        auto const reported = [base](int particle) {
            return static_cast<std::int32_t>(static_cast<std::uint32_t>(base) +
                                             static_cast<std::uint32_t>(particle));
        };
        RSRay ray = Row::ray();
        ray.hitT = 0.0; // alone in its tree, it reads neither this nor the clip interval
        ray.clipMax = -1.0;
        ray.intervalMin = 6.5;
        ray.skipIndex = reported(-1);
        EXPECT_EQ(primitive.intersect(ray), 1);
        EXPECT_EQ(ray.hitT, 9.0);
        EXPECT_EQ(ray.hitLocalIndex, 1);
        EXPECT_EQ(ray.hitIndex, reported(1));
        EXPECT_EQ(ray.hitPrimitive, &primitive);
        EXPECT_EQ(primitive.getNormal(ray).z, -1.0F);
        EXPECT_EQ(primitive.getGNormal(ray).z, -1.0F);

        // Starting on particle 1, it is left at its far side; only the low 32 bits count.
        ray.skipIndex = reported(1) + (std::int64_t{77} << 32);
        EXPECT_EQ(primitive.intersect(ray), 1);
        EXPECT_EQ(ray.hitT, 11.0);

        // As points they are hit in the middle, and not at all by a ray that starts on one.
        row.data.particleType = 1;
        primitive.tree->build(nullptr, nullptr);
        EXPECT_EQ(primitive.intersect(ray), 2);
        EXPECT_EQ(ray.hitT, 15.0);
        EXPECT_EQ(primitive.getNormal(ray).z, -1.0F);
        row.data.particleType = 2;
        primitive.tree->build(nullptr, nullptr);
        EXPECT_EQ(primitive.intersect(ray), 0);
        EXPECT_EQ(ray.hitT, 15.0);
        row.data.particleType = 0;
    }
}

TEST(SharedTrees, ReportEverySystemAndSearchUpToTheBestHit) {
    Row near, far;
    for (Vector& center : far.cloud.systems[0].positions)
        center.z += 20.0F;
    StaticParticlePrimitive owner(300, nullptr, nullptr, true);
    Shape nearShape, farShape;
    StaticSphereTree& tree = *owner.tree;
    auto const add = [&tree](ParticleData* data, GenericPrimitive* primitive) {
        SphereTreePrimitiveTemplate_callBuild(&tree, data, nullptr, nullptr, nullptr, 1, primitive);
    };
    add(&far.data, &farShape);
    EXPECT_EQ(tree.singleSystem, 1);
    tree.particleSystems.elements[0].indexOffset = 0;
    add(nullptr, nullptr);
    EXPECT_EQ(tree.singleSystem, 0);
    add(&near.data, &nearShape);
    add(nullptr, nullptr);
    EXPECT_EQ(tree.particleSystems.count, 2);
    EXPECT_EQ(tree.singleSystem, 0);

    // With offset -1 particle 0 is reported, and compared with a ray's start, as -1. The best hit
    // so far and the clip interval bound the search; a miss changes nothing.
    struct {
        int start, farOffset;
        double clipMin, clipMax, hitT;
        Shape* hitShape;
        double hit;
        std::int64_t index;
    } const cases[] = {
        {-9, -1, 0.0, 1e30, 1e30, &nearShape, 4.0, -1},
        {-1, -1, 0.0, 1e30, 1e30, &nearShape, 6.0, -1},
        {-9, -1, 0.0, 1e30, 4.0, nullptr, 4.0, 0},
        {-9, -1, 0.0, 4.0, 1e30, nullptr, 1e30, 0},
        {-9, -1, 41.5, 1e30, 1e30, nullptr, 1e30, 0},
        {500, 500, 21.5, 1e30, 1e30, &farShape, 26.0, 500}, // starts on it
        {-9, intMax, 26.5, 1e30, 1e30, &farShape, 29.0, -intMax - 1},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(&c - cases);
        tree.particleSystems.elements[0].indexOffset = c.farOffset;
        RSRay ray = Row::ray();
        ray.intervalMax = -1.0; // not read
        ray.skipIndex = 300 + c.start;
        ray.clipMin = c.clipMin;
        ray.clipMax = c.clipMax;
        ray.hitT = c.hitT;
        EXPECT_EQ(owner.intersect(ray), c.hitShape != nullptr ? 1 : 0);
        EXPECT_EQ(ray.hitPrimitive, c.hitShape);
        EXPECT_EQ(ray.hitT, c.hit);
        EXPECT_EQ(ray.hitIndex, c.index);
    }
}

/// A bunch whose entries no hit has touched yet.
std::unique_ptr<RayBunchCommonResult> freshResult() {
    auto result = std::make_unique<RayBunchCommonResult>();
    std::memset(static_cast<void*>(result.get()), 0x5A, sizeof(RayBunchCommonResult));
    std::fill(std::begin(result->hitT), std::end(result->hitT), 1e30);
    result->noHits = true;
    return result;
}

void expectHit(RayBunchCommonResult& expected, std::size_t lane, int code, RSRay const& ray) {
    expected.noHits = false;
    expected.hit[lane] = static_cast<unsigned char>(code);
    expected.hitT[lane] = ray.hitT;
    expected.hitPrimitive[lane] = ray.hitPrimitive;
    expected.hitIndex[lane] = ray.hitIndex;
    expected.hitLocalIndex[lane] = ray.hitLocalIndex;
    expected.hitNormalX[lane] = ray.hitNormal.x;
    expected.hitNormalY[lane] = ray.hitNormal.y;
    expected.hitNormalZ[lane] = ray.hitNormal.z;
}

TEST(Bunches, GiveEveryListedRayItsOwnHitAndTouchNothingElse) {
    for (CloudKind const& kind : cloudKinds) {
        SCOPED_TRACE(kind.name);
        StillScene scene(kind.make(11, 200));
        scene.tree.build(nullptr, nullptr);
        RaySource rays(scene.cloud, 12);
        Random random(13);
        int hits = 0;
        for (int numLanes = 0; numLanes <= 64; numLanes += 4) {
            auto const params = std::make_unique<RayBunchExtParams>();
            auto const result = freshResult();
            auto const expected = freshResult();
            result->noHits = expected->noHits = numLanes % 8 == 0;
            bool anyHit = false;
            double tMins[64], tMaxs[64];
            unsigned char lanes[64];
            for (int j = 0; j < numLanes; ++j) {
                int const lane = lanes[j] = static_cast<unsigned char>(37 * j % 64);
                Query query = rays.make(static_cast<Aim>(random.below(numAims)));
                params->originX[lane] = query.ray.origin[0];
                params->originY[lane] = query.ray.origin[1];
                params->originZ[lane] = query.ray.origin[2];
                params->dirX[lane] = query.ray.dir.x;
                params->dirY[lane] = query.ray.dir.y;
                params->dirZ[lane] = query.ray.dir.z;
                tMins[lane] = query.tMin;
                tMaxs[j] = query.tMax;
                if (random.below(4) == 0) // an earlier primitive's hit
                    result->hitT[lane] = expected->hitT[lane] = query.tMin + 1.0;

                // The same ray alone: from a rounded origin, up to the nearer end.
                for (double& coordinate : query.ray.origin)
                    coordinate = roundedToSingle(coordinate);
                query.tMax = std::min(query.tMax, result->hitT[lane]);
                RSRay ray = scene.makeRay(query);
                params->skipIndex[lane] = ray.skipIndex;
                int const code = scene.owner.intersect(ray);
                if (code == 0)
                    continue;
                ++hits;
                anyHit = true;
                expectHit(*expected, static_cast<std::size_t>(lane), code, ray);
            }
            forEachVariant([&] {
                auto const answer = std::make_unique<RayBunchCommonResult>();
                std::memcpy(static_cast<void*>(answer.get()), result.get(), sizeof *answer);
                EXPECT_EQ(scene.owner.bunchIntersect(*params, *answer, tMins, tMaxs, lanes,
                                                     static_cast<unsigned long>(numLanes)),
                          anyHit);
                EXPECT_EQ(std::memcmp(answer.get(), expected.get(), sizeof *answer), 0);
                EXPECT_EQ(scene.owner.getNormal({}, *answer, 5).x, answer->hitNormalX[5]);
                EXPECT_EQ(scene.owner.getGNormal({}, *answer, 5).z, answer->hitNormalZ[5]);
            });
        }
        EXPECT_GT(hits, 50);
    }
}

TEST(Bunches, RoundTheOriginsOfTheirRays) {
    // Numbers near 1e8 are steps of 8 apart. From 3.9 into a step the ray drifts to its upper half
    // and hits the point there; from the step's start it does not.
    StillScene scene(cloudOf(
        0, 1,
        [](System& system, Random&, int) {
            system.add({100000008.0F, 0.0F, 5.0F}, 1.0F);
        },
        1));
    scene.tree.build(nullptr, nullptr);
    Query query;
    query.ray = {{100000003.9, 0.0, 0.0}, {0.04F, 0.0F, 1.0F}};
    RSRay ray = scene.makeRay(query);
    EXPECT_EQ(scene.owner.intersect(ray), 2);
    auto const params = std::make_unique<RayBunchExtParams>();
    auto const result = freshResult();
    params->originX[0] = query.ray.origin[0];
    params->dirX[0] = query.ray.dir.x;
    params->dirZ[0] = query.ray.dir.z;
    double tMin = 0.0, tMax = 1e30;
    unsigned char const lane = 0;
    EXPECT_FALSE(scene.owner.bunchIntersect(*params, *result, &tMin, &tMax, &lane, 1));
}

} // namespace
} // namespace kelpatest
