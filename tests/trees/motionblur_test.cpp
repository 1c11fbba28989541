// Primitives that move: their times, their bounds, what they must not read, and worked examples.

#include "kelpa/spheretree/motionblur/splitjitter.h"
#include "kelpa/spheretree/splitchoice.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>

namespace kelpatest {
namespace {

/// Gives the snapshots of a system other times.
Cloud timed(Cloud cloud, double time0, double time1, std::size_t system = 0) {
    cloud.systems[system].data.sampleTime = time0;
    cloud.later[system].data.sampleTime = time1;
    return cloud;
}

/// A system whose particles go a way of their own each.
Cloud scattered(int count, double time0 = 0.0, double time1 = 1.0) {
    return timed(moved(uniform.make(1, count), Way::scattering, 2), time0, time1);
}

/// Rays that touch a particle at its very rim may find it in one tree and not in another: a tree's
/// planes are rounded. These ask for no rim.
constexpr Aim plainAims[] = {Aim::through, Aim::camera, Aim::leaving, Aim::inside};

TEST(MovingTrees, AnswerRaysEachAtATimeOfItsOwn) {
    for (Way const way : ways)
        for (std::int32_t const type : {0, 1}) {
            SCOPED_TRACE(static_cast<int>(way));
            Cloud cloud = uniform.make(1, 600);
            cloud.systems[0].data.particleType = type;
            MovingScene scene(moved(std::move(cloud), way, 2));
            scene.tree.build(nullptr, nullptr, 0);
            Random random(3);
            Tally tally;
            for (std::uint64_t seed = 0; seed < 40; ++seed)
                tally += scene.ask(seed, 5, random.between(0.001F, 0.999F));
            EXPECT_GT(tally.hits, 300);
            EXPECT_EQ(tally.wrong, 0);
            // Of 1600, of which a quarter seeks rims and planes.
            EXPECT_LE(tally.missed, 1);
            EXPECT_LE(tally.delicate, 4);
        }
}

TEST(MovingTrees, HoldSystemsOfDifferentTimesAndTypes) {
    for (std::size_t firstTimes = 0; firstTimes < std::size(sampleTimes); ++firstTimes) {
        SCOPED_TRACE(firstTimes);
        MovingScene scene(moved(mixed.make(1, 1000), Way::crossing, 2, firstTimes));
        scene.tree.build(nullptr, nullptr, 0);
        EXPECT_EQ(scene.tree.singleSystem, 0);
        Tally tally;
        for (float const time : {0.1F, 0.26F, 0.45F, 0.7F})
            tally += scene.ask(5, 30, time);
        EXPECT_GT(tally.hits, 300);
        EXPECT_EQ(tally.missed + tally.wrong, 0);
        EXPECT_LE(tally.delicate, 4);
    }
}

TEST(MovingTrees, LetRaysGoOnFromTheHitThatTheyFound) {
    for (std::int32_t const type : {0, 1}) {
        Cloud cloud = uniform.make(1, 300);
        cloud.systems[0].data.particleType = type;
        MovingScene scene(moved(std::move(cloud), Way::scattering, 2));
        scene.tree.build(nullptr, nullptr, 0);
        RaySource rays(scene.cloud, 6);
        Random random(6);
        int goneOn = 0;
        for (int i = 0; i < 1000; ++i) {
            Query query = rays.make(Aim::through);
            query.time = 0.5F; // the time at which the judge's cloud stands
            RSRay ray = scene.makeRay(query);
            if (scene.owner.intersect(ray) == 0)
                continue;
            for (int axis = 0; axis < 3; ++axis)
                query.ray.origin[axis] += ray.hitT * static_cast<double>(query.ray.dir[axis]);
            query.ray.dir = random.direction();
            query.start = {0, ray.hitLocalIndex};
            query.tMin = 0.0;
            query.tMax = 1e30;
            Answer const expected = bruteForce(scene.cloud, query);
            RSRay next = scene.makeRay(query);
            ASSERT_EQ(scene.owner.intersect(next), expected.code) << i;
            if (expected.code != 0) {
                ASSERT_EQ(next.hitT, expected.t) << i;
                ++goneOn;
            }
        }
        EXPECT_GT(goneOn, 50);
    }
}

TEST(MovingTrees, OfWhatStandsAnswerLikeStillTrees) {
    MovingScene moving(moved(uniform.make(1, 1000), Way::standing, 2));
    StillScene still(uniform.make(1, 1000));
    moving.tree.build(nullptr, nullptr, 0);
    still.tree.build(nullptr, nullptr);
    RaySource rays(still.cloud, 4);
    Random random(4);
    int hits = 0;
    for (std::size_t i = 0; i < 3000; ++i) {
        Query query = rays.make(plainAims[i % std::size(plainAims)]);
        query.time = random.between(0.001F, 0.999F);
        RSRay a = moving.makeRay(query), b = still.makeRay(query);
        int const code = still.owner.intersect(b);
        ASSERT_EQ(moving.owner.intersect(a), code) << i;
        if (code == 0)
            continue; // a miss leaves what was there
        ASSERT_EQ(a.hitT, b.hitT) << i;
        ASSERT_EQ(a.hitIndex, b.hitIndex) << i;
        hits += code;
    }
    EXPECT_GT(hits, 1000);
}

TEST(MovingTrees, MissOutsideTheShutterAndHitJustInside) {
    MovingScene scene(scattered(500, 0.25, 0.75));
    scene.tree.build(nullptr, nullptr, 0);
    auto const hitsAt = [&](float time) {
        RaySource rays(scene.cloud, 7);
        int hits = 0;
        for (int i = 0; i < 500; ++i) {
            Query query = rays.make(Aim::camera);
            query.time = time;
            RSRay ray = scene.makeRay(query);
            hits += scene.owner.intersect(ray) != 0;
        }
        return hits;
    };
    for (float const outside : {-0.1F, 0.2499F, 0.7501F, 1.5F})
        EXPECT_EQ(hitsAt(outside), 0) << outside;
    // A plane in time at the very opening has everything on its later side: a host draws times from
    // the open interval, and one step above the opening is enough.
    EXPECT_LE(hitsAt(0.25F), hitsAt(std::nextafter(0.25F, 1.0F)));
    EXPECT_GT(hitsAt(std::nextafter(0.25F, 1.0F)), 100);
    EXPECT_GT(hitsAt(0.75F), 100);
}

TEST(MovingTrees, ShowWhatHasOneTimeAtThatTimeAlone) {
    for (double const only : {0.5, 5.0}) {
        SCOPED_TRACE(only);
        MovingScene scene(scattered(100, only, only));
        scene.tree.maxDepth = 20;
        scene.tree.build(nullptr, nullptr, 0);
        EXPECT_LT(scene.tree.leafSpheres.getCount(), 100 * 20);
        auto const time = static_cast<float>(only);
        Tally const tally = scene.ask(8, 40, time);
        EXPECT_GT(tally.hits, 100);
        EXPECT_EQ(tally.missed + tally.wrong, 0);
        EXPECT_EQ(scene.ask(8, 40, time + 0.01F).wrong, 0);
    }
}

TEST(MovingTrees, EndOnTimesThatTheyAreNotMadeFor) {
    struct Times {
        double time0, time1;
        float asked;
    };
    for (Times const& times :
         {Times{1.0, 0.0, 0.4F}, Times{24.0, 25.0, 24.5F}, Times{-2.0, -1.0, -1.5F}}) {
        SCOPED_TRACE(times.time0);
        MovingScene scene(scattered(100, times.time0, times.time1));
        scene.tree.maxDepth = 20;
        scene.tree.build(nullptr, nullptr, 0);
        EXPECT_EQ(scene.ask(8, 40, times.asked).wrong, 0);
    }
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    for (auto const& [time0, time1] : {std::pair(0.0, infinity), {nan, 1.0}, {0.0, nan}}) {
        Cloud endless = scattered(50, time0, time1);
        MovingParticlePrimitive primitive(0, &endless.systems[0].data, &endless.later[0].data,
                                          true);
        primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 0);
        EXPECT_EQ(primitive.tree->numSpheres, 0);
    }
}

TEST(MovingTrees, KeepWithinBoundsOutsideTheShutter) {
    std::pair<double, double> const outside[] = {{24.0, 25.0}, {1.0, 2.0}, {1.0, 0.0}};
    for (auto const& [time0, time1] : outside) {
        SCOPED_TRACE(time0);
        MovingScene scene(scattered(1000, time0, time1));
        scene.tree.build(nullptr, nullptr, 0);
        EXPECT_EQ(scene.tree.numOutsideShutter, 1000);
        // Beyond the limit what was postponed becomes leaves: at most all spheres on every level.
        EXPECT_LT(scene.tree.leafSpheres.getCount(), (1 << 23) + 80 * 1000);
        EXPECT_LT(scene.tree.nodes.getCount(), (1 << 20) + 1000);
        // A system that the shutter sees keeps its hits beside one that it does not.
        Cloud both = uniform.make(1, 1000);
        both.systems[0].data.particleType = 7; // never hit
        both.systems.push_back(std::move(uniform.make(2, 500).systems[0]));
        MovingScene shared(
            timed(timed(moved(std::move(both), Way::scattering, 2), time0, time1), 0.0, 1.0, 1));
        shared.tree.build(nullptr, nullptr, 0);
        EXPECT_EQ(shared.tree.singleSystem, 0);
        shared.expectRight(2, 60);
    }
}

TEST(MovingTrees, NeverReadBeyondAShorterSnapshot) {
    Cloud cloud = scattered(100);
    System& first = cloud.systems[0];
    System& second = cloud.later[0];
    second.positions.resize(70);
    second.radii.resize(60);
    first.radii[5] = 0.0F;
    second.positions[6].y = std::numeric_limits<float>::quiet_NaN();
    second.positions[7].x = 3e38F; // and its way is longer than a float can say
    first.positions[7].x = -3e38F;
    second.seal();
    MovingParticlePrimitive primitive(0, &first.data, &second.data, true);
    primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    EXPECT_EQ(primitive.tree->numSpheres, 57);
    EXPECT_EQ(primitive.tree->numParticles, 100);
    second.data.numRadii = 0;
    MovingParticlePrimitive empty(0, &first.data, &second.data, true);
    empty.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    EXPECT_EQ(empty.tree->particleSystems.count, 0);
    EXPECT_EQ(empty.tree->root, nullptr);
    RSRay ray{};
    ray.dir = {0.0F, 0.0F, 1.0F};
    ray.intervalMax = ray.clipMax = ray.hitT = 1e30;
    ray.time = 0.5F;
    EXPECT_EQ(empty.intersect(ray), 0);
}

TEST(MovingTrees, ReportBoundsThatHoldAllParticlesAtAllTimes) {
    Cloud cloud = timed(moved(uniform.make(1, 200), Way::resizing, 2), 0.25, 0.75);
    System& first = cloud.systems[0];
    System& second = cloud.later[0];
    for (Vector& position : second.positions) // and away
        position = sum(position, {0.5F, -0.25F, 0.125F});
    for (int const staticBounds : {0, 1}) {
        MovingParticlePrimitive primitive(0, &first.data, &second.data, true);
        primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, staticBounds);
        MovingBox box;
        primitive.getBBox(box);
        EXPECT_EQ(box.timeMin, 0.25F);
        EXPECT_EQ(box.timeMax, 0.75F);
        for (float const f : {0.0F, 0.3F, 1.0F})
            for (std::size_t i = 0; i < 200; ++i)
                for (int axis = 0; axis < 3; ++axis) {
                    float const t = 0.25F + 0.5F * f;
                    float const a = first.positions[i][axis];
                    float const c = a + (second.positions[i][axis] - a) * f;
                    float const r = first.radii[i] + (second.radii[i] - first.radii[i]) * f;
                    float const slack = 1e-5F;
                    ASSERT_GE(c - r, box.bounds.min[axis] + t * box.motion.min[axis] - slack);
                    ASSERT_LE(c + r, box.bounds.max[axis] + t * box.motion.max[axis] + slack);
                }
        EXPECT_EQ(box.motion.max.x == 0.0F && box.motion.min.z == 0.0F, staticBounds == 1);
        for (int const dim : {0, 1, 2, 4, 5, 6, 3, 7, 8, -1}) {
            MovingBox lower, upper, expectedLower = box, expectedUpper = box;
            primitive.split(dim, 0.5F, lower, upper);
            if (dim >= 0 && dim < 7 && dim != 3) {
                (dim < 3 ? expectedLower.bounds : expectedLower.motion).max[dim & 3] = 0.5F;
                (dim < 3 ? expectedUpper.bounds : expectedUpper.motion).min[dim & 3] = 0.5F;
            }
            EXPECT_EQ(std::memcmp(&lower, &expectedLower, sizeof lower), 0) << dim;
            EXPECT_EQ(std::memcmp(&upper, &expectedUpper, sizeof upper), 0) << dim;
        }
    }
}

TEST(MovingTrees, FollowTheWorkedExamples) {
    TimeBox const cube{{0, 0, 0}, {{0, 0, 0}, {1, 1, 1}}, 0.0F, 1.0F};
    EXPECT_EQ(bboxSum(cube, 0, 0.5F, 3, 5), 16.0);
    EXPECT_EQ(bboxSum(cube, 3, 0.25F, 3, 5), 13.5);
    EXPECT_EQ(bboxSum(cube, 1, 0.25F, 0, 4), 4 * (1 * 0.75 + 1 * 0.75 + 1 * 1));
    TimeBox const moved = changeFrame(cube, {0.5F, 0, -1});
    EXPECT_EQ(moved.box.min.x, -0.5F);
    EXPECT_EQ(moved.box.max.x, 1.0F);
    EXPECT_EQ(moved.box.max.z, 2.0F);
    SplitJitter jitter(1);
    for (float const u : {0.86755216F, 0.41638249F, 0.42673317F, 0.71003091F})
        EXPECT_EQ(jitter.nextUnit(), u);
    EXPECT_EQ(leafThreshold(10, 1.0F, 80), 11);
    EXPECT_EQ(leafThreshold(50, 1.0F, 80), 551);
    EXPECT_EQ(leafThreshold(50, 1.0F, 81), 551); // half of an odd depth is rounded down
    Box box{{1, -3, 0}, {10, 2, 0.25F}};
    widenByMargin(box);
    EXPECT_EQ(box.min.y, -3.00048828125F);
    EXPECT_EQ(box.min.z, -0.0001220703125F);
    EXPECT_EQ(box.max.x, 10.001953125F);
    MBSphereNode node;
    EXPECT_TRUE(node.isLeaf() && node.numLeafSpheres() == 0 && node.link == 0);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(node.splitPos), 0xFF800000U);
    node.becomeLeaf(nullptr, MBSphereNode::mostLeafSpheres);
    EXPECT_EQ(node.numLeafSpheres(), 8388607);
}

TEST(MovingBuilds, SurviveEveryFailedAllocation) {
    Cloud cloud = scattered(2500);
    MovingParticlePrimitive primitive(0, &cloud.systems[0].data, &cloud.later[0].data, true);
    int exceptions = 0;
    bool failed = true;
    for (long k = 0; failed; ++k) {
        SCOPED_TRACE(k);
        ThreadPerJob manager;
        bool isThrown = false;
        {
            FailingAllocations const failure(k, 1);
            try {
                primitive.build(nullptr, &manager, 80, 0.0F, 1.0F, 1);
            } catch (ExceptionMsg const&) {
                isThrown = true;
            }
            failed = failure.happened();
        }
        auto& tree = *primitive.tree;
        EXPECT_EQ(tree.numRunning, 0);
        if (!isThrown)
            tree.particleSystems.count = 0;
        exceptions += isThrown;
        EXPECT_EQ(tree.particleSystems.count,
                  0); // forgotten, so that the next attempt is the first
        EXPECT_EQ(isThrown, tree.root == nullptr);
    }
    EXPECT_GT(exceptions, 5);
    primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    EXPECT_EQ(primitive.tree->singleSystem, 1);
    EXPECT_EQ(primitive.tree->numSpheres, 2500);
}

} // namespace
} // namespace kelpatest
