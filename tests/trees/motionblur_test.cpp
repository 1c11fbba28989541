#include "kelpa/particleprimitives/particleprimitives.h"
#include "kelpa/spheretree/motionblur/splitjitter.h"
#include "kelpa/spheretree/splitchoice.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/clouds.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace kelpatest {
namespace {

/// Two snapshots of one system, in arrays of exactly the stated lengths.
struct MovingSystem {
    std::vector<Vector> positions[2];
    std::vector<float> radii[2];
    ParticleData data[2]{};

    void finish(double time0, double time1, int type = 0) {
        for (int k = 0; k < 2; ++k)
            data[k] = {k == 0 ? time0 : time1,
                       type,
                       positions[k].data(),
                       static_cast<std::int32_t>(positions[k].size()),
                       radii[k].data(),
                       static_cast<std::int32_t>(radii[k].size()),
                       nullptr,
                       0};
    }
};

/// How a sphere moves: from where it is, by which way, and to which part of its radius.
struct Motion {
    char const* name;
    std::function<Vector(Random&, Vector const&)> way;
    float growth = 1.0F;
};

std::vector<Motion> motions() {
    auto const own = [](float length) {
        return
            [length](Random& random, Vector const&) { return scaled(random.direction(), length); };
    };
    return {{"stand", own(0.0F)},
            {"drift",
             [](Random&, Vector const&) {
                 return Vector{0.5F, 0.2F, 0.0F};
             }},
            {"own ways", own(0.15F)},
            {"turn",
             [](Random&, Vector const& p) {
                 return Vector{-p.y, p.x, 0.0F};
             }},
            {"shrink", own(0.01F), 0.3F},
            {"grow", own(0.01F), 4.0F},
            {"cross the scene", own(3.0F)}};
}

std::unique_ptr<MovingSystem> makeSystem(Motion const& motion, std::uint64_t seed, int count,
                                         double time0 = 0.0, double time1 = 1.0, int type = 0) {
    Random random(seed);
    auto system = std::make_unique<MovingSystem>();
    for (int i = 0; i < count; ++i) {
        Vector const p = random.inCube(1.0F);
        float const r = random.between(0.02F, 0.08F);
        system->positions[0].push_back(p);
        system->positions[1].push_back(sum(p, motion.way(random, p)));
        system->radii[0].push_back(r);
        system->radii[1].push_back(r * motion.growth);
    }
    system->finish(time0, time1, type);
    return system;
}

RSRay makeRay(Random& random, float time) {
    RSRay ray{};
    Vector const from = random.inCube(2.0F);
    Vector const towards = random.inCube(1.0F);
    for (int axis = 0; axis < 3; ++axis) {
        ray.origin[axis] = static_cast<double>(from[axis]);
        ray.dir[axis] = towards[axis] - from[axis];
    }
    ray.intervalMax = ray.clipMax = ray.hitT = 1e30;
    ray.time = time;
    ray.skipIndex = -7; // no particle: in a shared tree, -1 would be the first of every system
    return ray;
}

/// The judge: the closest hit found by asking every particle, at the ray's time. `skip` is a
/// particle of the only system, or -1.
double closest(std::vector<std::unique_ptr<MovingSystem>> const& systems, RSRay const& query,
               int skip = -1) {
    IRay ray(query, 0.0, 1e30);
    for (auto const& system : systems) {
        auto const t0 = static_cast<float>(system->data[0].sampleTime);
        auto const t1 = static_cast<float>(system->data[1].sampleTime);
        if ((query.time - t1) * (query.time - t0) > 0.0F)
            continue;
        float const f = t0 == t1 ? 0.0F : (query.time - t0) / (t1 - t0);
        for (std::size_t i = 0; i < system->positions[0].size(); ++i) {
            Vector const& a = system->positions[0][i];
            Vector const& b = system->positions[1][i];
            Vector const center = {a.x + (b.x - a.x) * f, a.y + (b.y - a.y) * f,
                                   a.z + (b.z - a.z) * f};
            float const ra = system->radii[0][i];
            float const radius = ra + (system->radii[1][i] - ra) * f;
            bool const starts = static_cast<int>(i) == skip;
            if (system->data[0].particleType == 0)
                intersectSphere(center, radius, ray, starts ? 1 : 0);
            else if (system->data[0].particleType == 1 && !starts)
                intersectPoint(center, radius, ray);
        }
    }
    return ray.tMax;
}

/// How answers compare with the judge's.
struct Tally {
    int hits = 0;
    int missed = 0;   ///< a farther hit or none
    int invented = 0; ///< nearer than any
};

Tally askRays(MovingParticlePrimitive& primitive,
              std::vector<std::unique_ptr<MovingSystem>> const& systems, std::uint64_t seed,
              int count) {
    Tally tally;
    Random random(seed);
    for (int i = 0; i < count; ++i) {
        RSRay ray = makeRay(random, random.between(0.001F, 0.999F));
        double const expected = closest(systems, ray);
        double const found = primitive.intersect(ray) != 0 ? ray.hitT : 1e30;
        tally.hits += expected < 1e30;
        tally.missed += found > expected;
        tally.invented += found < expected;
    }
    return tally;
}

/// A primitive over a tree that holds all systems.
struct SharedScene {
    std::vector<std::unique_ptr<MovingSystem>> systems;
    MovingParticlePrimitive primitive{0, nullptr, nullptr, true};

    void build(ThreadManager* manager = nullptr, ProgressCallback* progress = nullptr) {
        for (auto const& system : systems)
            SphereTreePrimitiveTemplate_callBuild(primitive.tree, &system->data[0],
                                                  &system->data[1], progress, manager, 1,
                                                  &primitive);
    }
};

TEST(MovingTrees, AnswerAsIfEveryParticleWereAskedAtItsTime) {
    for (Motion const& motion : motions()) {
        SCOPED_TRACE(motion.name);
        for (int const type : {0, 1}) {
            SharedScene scene;
            scene.systems.push_back(makeSystem(motion, 1, 600, 0.0, 1.0, type));
            scene.build();
            Tally const tally = askRays(scene.primitive, scene.systems, 2, 3000);
            EXPECT_GT(tally.hits, 900);
            EXPECT_EQ(tally.invented, 0);
            EXPECT_LE(tally.missed, 1); // a ray along the rim of a sphere or of a plane
        }
    }
}

TEST(MovingTrees, HoldSystemsOfDifferentTimesAndTypes) {
    SharedScene scene;
    std::vector<Motion> const all = motions();
    scene.systems.push_back(makeSystem(all[2], 1, 200, 0.0, 0.5));
    scene.systems.push_back(makeSystem(all[3], 2, 200, 0.25, 1.0, 1));
    scene.systems.push_back(makeSystem(all[1], 3, 200, 0.0, 1.0, 7)); // never hit
    scene.systems.push_back(makeSystem(all[4], 4, 200, -0.5, 1.5));
    scene.build();
    EXPECT_EQ(scene.primitive.tree->singleSystem, 0);
    Tally const tally = askRays(scene.primitive, scene.systems, 5, 4000);
    EXPECT_GT(tally.hits, 1000);
    EXPECT_EQ(tally.invented, 0);
    EXPECT_LE(tally.missed, 1);
}

TEST(MovingTrees, OfWhatStandsAnswerLikeStillTrees) {
    auto const system = makeSystem(motions()[0], 1, 1000);
    MovingParticlePrimitive moving(0, &system->data[0], &system->data[1], true);
    StaticParticlePrimitive still(0, &system->data[0], nullptr, true);
    moving.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    still.build(nullptr, nullptr, 60, 0.0F, 2.0F, 1);
    Random random(4);
    for (int i = 0; i < 3000; ++i) {
        RSRay a = makeRay(random, random.between(0.001F, 0.999F));
        a.skipIndex = random.below(1000);
        RSRay b = a;
        ASSERT_EQ(moving.intersect(a), still.intersect(b)) << i;
        ASSERT_EQ(a.hitT, b.hitT) << i;
        ASSERT_EQ(a.hitIndex, b.hitIndex) << i;
    }
}

TEST(MovingTrees, LetRaysLeaveTheParticleOnWhichTheyStart) {
    for (int const type : {0, 1}) {
        std::vector<std::unique_ptr<MovingSystem>> systems;
        systems.push_back(makeSystem(motions()[2], 1, 300, 0.0, 1.0, type));
        MovingParticlePrimitive primitive(1000, &systems[0]->data[0], &systems[0]->data[1], true);
        primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
        Random random(6);
        for (int i = 0; i < 1000; ++i) {
            RSRay first = makeRay(random, random.between(0.01F, 0.99F));
            if (primitive.intersect(first) == 0)
                continue;
            ASSERT_EQ(first.hitIndex, 1000 + first.hitLocalIndex);
            RSRay next = makeRay(random, first.time);
            for (int axis = 0; axis < 3; ++axis)
                next.origin[axis] =
                    first.origin[axis] + first.hitT * static_cast<double>(first.dir[axis]);
            next.skipIndex = first.hitIndex;
            double const expected = closest(systems, next, first.hitLocalIndex);
            ASSERT_EQ(primitive.intersect(next) != 0 ? next.hitT : 1e30, expected) << i;
        }
    }
}

TEST(MovingTrees, MissOutsideTheShutterAndHitJustInside) {
    auto const system = makeSystem(motions()[2], 1, 500, 0.25, 0.75);
    MovingParticlePrimitive primitive(0, &system->data[0], &system->data[1], true);
    primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    auto const hitsAt = [&](float time) {
        Random random(7);
        int hits = 0;
        for (int i = 0; i < 500; ++i) {
            RSRay ray = makeRay(random, time);
            hits += primitive.intersect(ray) != 0;
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

TEST(MovingTrees, EndOnTimesThatTheyAreNotMadeFor) {
    struct Times {
        double time0, time1;
        float asked;
    };
    for (Times const& times : {Times{0.5, 0.5, 0.5F}, Times{5.0, 5.0, 5.0F}, Times{1.0, 0.0, 0.4F},
                               Times{24.0, 25.0, 24.5F}, Times{-2.0, -1.0, -1.5F}}) {
        SCOPED_TRACE(times.time0);
        std::vector<std::unique_ptr<MovingSystem>> systems;
        systems.push_back(makeSystem(motions()[2], 1, 100, times.time0, times.time1));
        MovingParticlePrimitive primitive(0, &systems[0]->data[0], &systems[0]->data[1], true);
        primitive.build(nullptr, nullptr, 20, 0.0F, 1.0F, 1);
        bool const standsStill = times.time0 == times.time1;
        if (standsStill) {
            EXPECT_LT(primitive.tree->leafSpheres.getCount(), 100 * 20);
        }
        Random random(8);
        for (int i = 0; i < 300; ++i) {
            RSRay ray = makeRay(random, times.asked);
            double const expected = closest(systems, ray);
            RSRay later = ray;
            later.time += 0.01F;
            double const found = primitive.intersect(ray) != 0 ? ray.hitT : 1e30;
            EXPECT_GE(found, expected);
            if (!standsStill)
                continue;
            EXPECT_EQ(found, expected);
            EXPECT_EQ(primitive.intersect(later), 0);
        }
    }
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    for (auto const& [time0, time1] : {std::pair(0.0, infinity), {nan, 1.0}, {0.0, nan}}) {
        auto const endless = makeSystem(motions()[2], 1, 50, time0, time1);
        MovingParticlePrimitive primitive(0, &endless->data[0], &endless->data[1], true);
        primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 0);
        EXPECT_EQ(primitive.tree->numSpheres, 0);
    }
}

TEST(MovingTrees, KeepWithinBoundsOutsideTheShutter) {
    std::pair<double, double> const outside[] = {{24.0, 25.0}, {1.0, 2.0}, {1.0, 0.0}};
    for (auto const& [time0, time1] : outside) {
        SCOPED_TRACE(time0);
        SharedScene scene;
        scene.systems.push_back(makeSystem(motions()[2], 2, 1000, time0, time1));
        scene.build();
        auto const& tree = *scene.primitive.tree;
        EXPECT_EQ(tree.numOutsideShutter, 1000);
        // Beyond the limit what was postponed becomes leaves: at most all spheres on every level.
        EXPECT_LT(tree.leafSpheres.getCount(), (1 << 23) + 80 * 1000);
        EXPECT_LT(tree.nodes.getCount(), (1 << 20) + 1000);
        // A system that the shutter sees keeps its hits.
        scene.systems.push_back(makeSystem(motions()[2], 1, 500));
        scene.systems[0]->data[0].particleType = 7; // never hit
        scene.build();
        Tally const tally = askRays(scene.primitive, scene.systems, 2, 1000);
        EXPECT_GT(tally.hits, 300);
        EXPECT_EQ(tally.invented + tally.missed, 0);
    }
}

TEST(MovingTrees, NeverReadBeyondAShorterSnapshot) {
    auto const system = makeSystem(motions()[2], 1, 100);
    system->positions[1].resize(70);
    system->positions[1].shrink_to_fit();
    system->radii[1].resize(60);
    system->radii[1].shrink_to_fit();
    system->radii[0][5] = 0.0F;
    system->positions[1][6].y = std::numeric_limits<float>::quiet_NaN();
    system->positions[1][7].x = 3e38F; // and its way is longer than a float can say
    system->positions[0][7].x = -3e38F;
    system->finish(0.0, 1.0);
    MovingParticlePrimitive primitive(0, &system->data[0], &system->data[1], true);
    primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    EXPECT_EQ(primitive.tree->numSpheres, 57);
    EXPECT_EQ(primitive.tree->numParticles, 100);
    system->data[1].numRadii = 0;
    MovingParticlePrimitive empty(0, &system->data[0], &system->data[1], true);
    empty.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    EXPECT_EQ(empty.tree->particleSystems.count, 0);
    EXPECT_EQ(empty.tree->root, nullptr);
    Random random(1);
    RSRay ray = makeRay(random, 0.5F);
    EXPECT_EQ(empty.intersect(ray), 0);
}

TEST(MovingTrees, ReportBoundsThatHoldAllParticlesAtAllTimes) {
    auto const system = makeSystem(motions()[5], 1, 200, 0.25, 0.75);
    for (int const staticBounds : {0, 1}) {
        MovingParticlePrimitive primitive(0, &system->data[0], &system->data[1], true);
        primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, staticBounds);
        MovingBox box;
        primitive.getBBox(box);
        EXPECT_EQ(box.timeMin, 0.25F);
        EXPECT_EQ(box.timeMax, 0.75F);
        for (float const f : {0.0F, 0.3F, 1.0F})
            for (std::size_t i = 0; i < 200; ++i)
                for (int axis = 0; axis < 3; ++axis) {
                    float const t = 0.25F + 0.5F * f;
                    float const a = system->positions[0][i][axis];
                    float const c = a + (system->positions[1][i][axis] - a) * f;
                    float const r = system->radii[0][i] * (1.0F + 3.0F * f);
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
    auto const system = makeSystem(motions()[2], 1, 2500);
    MovingParticlePrimitive primitive(0, &system->data[0], &system->data[1], true);
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
