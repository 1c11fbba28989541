// Moving trees beside the judge, and their builds under every mishap.
#include "kelpa/spheretree/traversal.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"
#include "tests/support/variants.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kelpatest {
namespace {

TEST(MovingClouds, AnswerRaysOfEveryKindAsIfEveryParticleWereAsked) {
    for (CloudKind const& kind : cloudKinds) {
        SCOPED_TRACE(kind.name);
        Tally tally;
        std::uint64_t seed = 0;
        for (Way const way : ways) {
            MovingScene scene(moved(kind.make(1, 300), way, 2));
            scene.tree.build(nullptr, nullptr, 0);
            expectSound(scene.tree);
            for (float const time : {std::nextafter(0.0F, 1.0F), 0.1F, 0.5F, 0.77F, 1.0F})
                tally += scene.ask(++seed, 40, time);
        }
        EXPECT_GT(tally.hits, 1500);
        // Before its first postponed node a search does not know that it ends at 1e30.
        EXPECT_LE(tally.wrong, kind.place == addAstronomic ? 3 : 0);
        // Leaves are not widened: of a particle whose bound is a plane, the exit may be found where
        // the entry was asked for. And rims: many lie in one plane, or radii are a few roundings.
        bool const isCoarse =
            kind.place == addCoarse || kind.place == addCoincident || kind.place == addNested;
        EXPECT_LE(tally.missed, isCoarse ? 5 : 3);
        EXPECT_LE(tally.delicate, isCoarse ? tally.hits / 100 : 12);
    }
}

TEST(MovingClouds, AnswerAlikeWithAndWithoutPackedSpheres) {
    for (CloudKind const& kind : cloudKinds) {
        SCOPED_TRACE(kind.name);
        MovingScene scene(moved(kind.make(21, 400), Way::scattering, 3));
        bool const isDeep = kind.place == addNested; // deeper than queries expect
        if (isDeep) {
            scene.tree.maxDepth = 400;
            scene.tree.leafSizeFactor = 0.0F;
        }
        scene.tree.packSpheres = 0;
        scene.tree.build(nullptr, nullptr, 0);
        RaySource source(scene.cloud, 22);
        std::vector<RSRay> rays, answers;
        for (int i = 0; i < 60 * numAims; ++i) {
            rays.push_back(scene.makeRay(source.make(static_cast<Aim>(i % numAims))));
            rays.back().time = 0.45F;
            answers.push_back(rays.back());
            scene.owner.intersect(answers.back());
        }
        scene.tree.packSpheres = 1;
        scene.tree.build(nullptr, nullptr, 0);
        EXPECT_EQ(scene.tree.getPackedMemUsage() != 0, kind.types == "0");
        EXPECT_EQ(scene.tree.statMaxDepth > usualInnerLevels, isDeep);
        expectEveryVariantAnswers(scene, rays, answers);
    }
}

/// Expects a ray from 0 that starts on both of two particles, of a system each, to leave the first.
template <class AnyScene> void expectToLeaveTheFirst(AnyScene& scene) {
    for (int const s : {0, 1})
        scene.tree.particleSystems.elements[s].indexOffset = -1;
    scene.tree.maxDepth = 0; // one leaf for both
    static_cast<GeomTreeBase&>(scene.tree).build(nullptr, nullptr, 0, 0);
    EXPECT_NE(scene.tree.getPackedMemUsage(), 0U);
    forEachVariant([&scene] {
        RSRay ray = scene.makeRay({{{0.0, 0.0, 0.0}, {0.0F, 0.0F, 1.0F}}, 0.0, 1e30, {}, 0.4F});
        EXPECT_EQ(scene.owner.intersect(ray), 1);
        EXPECT_EQ(ray.hitT, 12.0);
    });
}

TEST(SharedTrees, LetRaysLeaveAllParticlesWithTheNumberOfTheirStart) {
    auto const twins = [] {
        Cloud cloud = cloudOf(0, 1, [](System& s, Random&, int) { s.add({0, 0, 10}, 2); });
        Cloud other = cloudOf(0, 1, [](System& s, Random&, int) { s.add({0, 0, 11.5F}, 1); });
        cloud.systems.push_back(std::move(other.systems[0]));
        return cloud;
    };
    StillScene still(twins());
    expectToLeaveTheFirst(still);
    MovingScene moving(moved(twins(), Way::standing, 0));
    moving.tree.particleSystems.elements[1].time1 = 1.0F; // of different times they are not packed
    expectToLeaveTheFirst(moving);
}

// As with still trees, an independent implementation makes the same, node for node.
TEST(MovingClouds, AreTheSameOnEveryMachine) {
    std::uint64_t hash = 0;
    for (CloudKind const& kind : cloudKinds)
        for (Way const way : {Way::standing, Way::scattering, Way::crossing}) {
            MovingScene scene(moved(kind.make(31, 400), way, 5));
            scene.tree.build(nullptr, nullptr, 0);
            hash = hash * 31 + hashOf(scene.tree);
        }
    EXPECT_EQ(hash, 12134685058030510091U);
}

TEST(MovingClouds, AnswerBunchesLikeSingleRaysAtTheirTimes) {
    for (CloudKind const& kind : {uniform, mixed}) {
        MovingScene scene(moved(kind.make(5, 400), Way::crossing, 6));
        scene.tree.build(nullptr, nullptr, 0);
        RaySource source(scene.cloud, 7);
        Random random(8);
        int hits = 0;
        for (int bunch = 0; bunch < 20; ++bunch) {
            RayBunchExtParams params{};
            RayBunchCommonResult result{};
            double tMins[64], tMaxs[64];
            unsigned char lanes[64];
            std::vector<RSRay> single;
            result.noHits = true;
            for (unsigned char lane = 0; lane < 64; ++lane) {
                RSRay ray = scene.makeRay(source.make(static_cast<Aim>(lane % numAims)));
                ray.time = random.between(-0.2F, 1.2F); // some outside the shutter
                for (double& from : ray.origin)
                    from = roundedToSingle(from);
                single.push_back(ray);
                setLane(params, lane, ray);
                tMins[lane] = scene.isAlone() ? ray.intervalMin : ray.clipMin;
                tMaxs[lane] = scene.isAlone() ? ray.intervalMax : ray.clipMax;
                result.hitT[lane] = std::numeric_limits<double>::infinity();
                lanes[lane] = lane;
            }
            forEachVariant([&] {
                RayBunchCommonResult answer = result;
                bool const isAny = scene.owner.bunchIntersect(params, answer, tMins, tMaxs, lanes,
                                                              std::size(lanes));
                EXPECT_NE(isAny, static_cast<bool>(answer.noHits));
                for (std::size_t i = 0; i < std::size(lanes); ++i) {
                    RSRay ray = single[i];
                    int const code = scene.owner.intersect(ray);
                    ASSERT_EQ(answer.hit[i], code);
                    hits += code != 0;
                    if (code == 0)
                        continue;
                    EXPECT_EQ(answer.hitT[i], ray.hitT);
                    EXPECT_EQ(answer.hitIndex[i], ray.hitIndex);
                    EXPECT_EQ(answer.hitPrimitive[i], ray.hitPrimitive);
                    EXPECT_EQ(answer.hitNormalY[i], ray.hitNormal.y);
                }
            });
        }
        EXPECT_GT(hits, 300);
    }
}

TEST(MovingBuilds, GiveTheRightTreeWithManagersOfAnyManner) {
    MovingScene scene(moved(uniform.make(2, 5000), Way::scattering, 4));
    std::unique_ptr<CountingManager> const managers[] = {
        std::make_unique<RunsAtOnce>(), std::make_unique<Workers>(1),
        std::make_unique<Workers>(3, Workers::Order::newestFirst, 300),
        std::make_unique<RefusesFrom>(1), std::make_unique<RefusesFrom>(2)};
    for (auto const& manager : managers) {
        for (int i = 0; i < 3; ++i)
            scene.tree.build(nullptr, manager.get(), 0);
        EXPECT_GE(manager->jobs, getNumProcessors() > 1 ? 6 : 3); // subtrees are handed over
        expectSound(scene.tree);
        scene.expectRight(5, 5);
    }
}

TEST(MovingBuilds, LeaveAValidTreeWhereverTheyAreAborted) {
    MovingScene scene(moved(uniform.make(5, 30), Way::scattering, 6));
    RecordingProgress counting;
    scene.tree.build(&counting, nullptr, 0);
    EXPECT_GT(counting.polls, scene.tree.numSpheres);
    RunsAtOnce manager;
    for (bool const isOnce : {false, true})
        for (bool const isThreaded : {false, true})
            for (long poll = 1; poll <= counting.polls; ++poll) {
                SCOPED_TRACE(poll);
                RecordingProgress progress(poll, isOnce);
                scene.tree.build(&progress, isThreaded ? &manager : nullptr, 0);
                expectSound(scene.tree);
                EXPECT_EQ(scene.ask(1, 2, 0.4F).wrong, 0);
                EXPECT_EQ(scene.tree.wasAborted, 1);
                EXPECT_EQ(progress.lines.back().find("0 20000   Number of leaf spheres: "), 0U);
            }
    scene.tree.build(nullptr, nullptr, 0);
    EXPECT_EQ(scene.tree.wasAborted, 0);
    scene.expectRight(1, 20);
}

TEST(MovingBuilds, AreRightAfterOneWithoutMemory) {
    for (long const howMany : {1L, FailingAllocations::all}) {
        MovingScene scene(moved(uniform.make(7, 2500), Way::scattering, 8));
        int exceptions = 0;
        bool failed = true;
        for (long k = 0; failed; ++k) {
            SCOPED_TRACE(k);
            ThreadPerJob manager;
            bool isThrown = false;
            {
                FailingAllocations const failure(k, howMany);
                try {
                    scene.tree.build(nullptr, &manager, 0);
                } catch (ExceptionMsg const&) {
                    isThrown = true;
                }
                failed = failure.happened();
            }
            if (isThrown) {
                ++exceptions;
                EXPECT_EQ(scene.tree.getMemUsage() + scene.tree.getPackedMemUsage(), 0U);
                EXPECT_EQ(scene.tree.doneEvent, nullptr);
                scene.tree.build(nullptr, &manager, 0);
            }
            EXPECT_EQ(scene.tree.particleSystems.count, 1);
            expectSound(scene.tree);
            scene.expectRight(1, 2);
        }
        EXPECT_GT(exceptions, 4); // sphere references, threads, records, nodes, entries
    }
}

TEST(MovingBuilds, TellEveryPhaseAndFigure) {
    std::string const allocating =
        "0 30000 Allocating memory for build data of 2 spheres (104 bytes, 0.0 MB).\n";
    std::vector<std::string> expected = {"",
                                         allocating,
                                         "0 30000 Initializing sphere build data.\n",
                                         "0 30000 Creating 'done' event.\n",
                                         "0 30000 Starting first thread.\n",
                                         "0 30000 Waiting for thread completion.\n",
                                         "0 30000 Releasing thread resources.\n",
                                         "0 20000 MBSphereTree statistics:\n",
                                         "0 20000   Memory usage: 2 MB",
                                         "0 20000   Number of particle systems : 1",
                                         "0 20000   Total number of spheres stored: 2 (1 MB)",
                                         "0 20000   Max tree depth: 2",
                                         "0 20000   Number of tree nodes: 3 (0 MB)",
                                         "0 20000   Number of leaf spheres: 2 (0 MB)"};
    MovingScene scene(moved(cloudOf(0, 200000,
                                    [](System& system, Random&, int i) {
                                        Vector const center{i == 0 ? 0.0F : 4.0F, 0.0F, 0.0F};
                                        system.add(center, i < 2 ? 1.0F : 0.0F);
                                    }),
                            Way::standing, 0));
    ThreadPerJob manager;
    for (bool const isThreaded : {true, false}) {
        RecordingProgress progress;
        scene.tree.multiThreaded = isThreaded ? 1 : 0;
        GeomTreeBase& anyTree = scene.tree;
        anyTree.build(&progress, &manager, 5, 7);
        expected[0] = "0 30000 Creating and initializing " +
                      std::to_string(isThreaded ? getNumProcessors() : 1) + " thread(s).\n";
        EXPECT_EQ(progress.lines, expected);
    }
    EXPECT_EQ(scene.tree.boundsMotion.max.x, 0.0F); // the bounds of the virtual build stand still
    // Both blocks with their heads, and 8 bytes for every particle, usable or not.
    EXPECT_EQ(scene.tree.getMemUsage(), 32U + 24U * 20000U + 32U + 4U * 20000U + 8U * 200000U);
    RecordingProgress silent;
    scene.first[0].data.numRadii = 0;
    scene.tree.build(&silent, &manager, 0);
    EXPECT_TRUE(silent.lines.empty());
    EXPECT_EQ(scene.tree.root, nullptr);
}

} // namespace
} // namespace kelpatest
