// What moving trees tell of their bounds and times, in numbers that can be checked by head, and
// what is left of a tree that is freed.

#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>

namespace kelpatest {
namespace {

void expectBox(Box const& box, Vector const& min, Vector const& max) {
    for (int axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(box.min[axis], min[axis]) << axis;
        EXPECT_EQ(box.max[axis], max[axis]) << axis;
    }
}

/// One particle that moves along x and grows, between two times.
MovingScene onItsWay(Sphere const& from, Sphere const& to, double time0, double time1) {
    Cloud cloud;
    cloud.systems.emplace_back().add(from.center, from.radius);
    cloud.later.emplace_back().add(to.center, to.radius);
    for (System* const system : {&cloud.systems[0], &cloud.later[0]})
        system->seal();
    cloud.systems[0].data.sampleTime = time0;
    cloud.later[0].data.sampleTime = time1;
    return MovingScene(std::move(cloud));
}

TEST(MovingBounds, GoBackToTimeZeroFromLaterSnapshots) {
    // At time 0 the particle would be at 0.5 with the radius 0.25; it moves 2 and grows 1 a unit.
    MovingScene scene = onItsWay({{1, 0, 0}, 0.5F}, {{2, 0, 0}, 1}, 0.25, 0.75);
    auto const& tree = scene.tree;
    scene.tree.build(nullptr, nullptr, 0);
    EXPECT_EQ(tree.boundsTimeMin, 0.25F);
    EXPECT_EQ(tree.boundsTimeMax, 0.75F);
    expectBox(tree.boundsBox, {0.25F, -0.25F, -0.25F}, {0.75F, 0.25F, 0.25F});
    expectBox(tree.boundsMotion, {1, -1, -1}, {3, 1, 1});
    scene.tree.build(nullptr, nullptr, 1);
    expectBox(tree.boundsBox, {0.5F, -1, -1}, {3, 1, 1});
    expectBox(tree.boundsMotion, {}, {});

    // In its own frame it is at 0.5 with a radius of up to 1; from 0.25 to 0.75 that moves by 0.5
    // to 1.5. The margin is 2^-13 of the next power of two.
    EXPECT_EQ(tree.rootBox.timeMin, 0.25F);
    EXPECT_EQ(tree.rootBox.timeMax, 0.75F);
    expectBox(tree.rootBox.box, {-0x1p-13F, -1 - 0x1p-12F, -1 - 0x1p-12F},
              {3 + 0x1p-11F, 1 + 0x1p-12F, 1 + 0x1p-12F});
    EXPECT_EQ(tree.root->velocity.x, 2.0F);
}

TEST(MovingBounds, KeepTheTimesOfSnapshotsThatRecordsCutToTheShutter) {
    // From -1 to 1 it goes from 1 to 3 and grows from 1 to 3; within the shutter it has the radii 2
    // and 3, and in its own frame, which moves by 1, the place 2.
    MovingScene scene = onItsWay({{1, 0, 0}, 1}, {{3, 0, 0}, 3}, -1.0, 1.0);
    auto const& tree = scene.tree;
    scene.tree.build(nullptr, nullptr, 0);
    EXPECT_EQ(tree.boundsTimeMin, -1.0F);
    EXPECT_EQ(tree.boundsTimeMax, 1.0F);
    EXPECT_EQ(tree.shutterMin, -1.0F);
    EXPECT_EQ(tree.shutterMax, 1.0F);
    expectBox(tree.boundsBox, {0, -2, -2}, {4, 2, 2});
    expectBox(tree.boundsMotion, {0, -1, -1}, {2, 1, 1});
    EXPECT_EQ(tree.rootBox.timeMin, 0.0F);
    EXPECT_EQ(tree.rootBox.timeMax, 1.0F);
    expectBox(tree.rootBox.box, {-1 - 0x1p-12F, -3 - 0x1p-11F, -3 - 0x1p-11F},
              {6 + 0x1p-10F, 3 + 0x1p-11F, 3 + 0x1p-11F});
    scene.tree.build(nullptr, nullptr, 1);
    expectBox(tree.boundsBox, {0, -3, -3}, {6, 3, 3}); // around both snapshots
    EXPECT_EQ(tree.boundsTimeMin, -1.0F);
}

/// Expects a freed tree to hold nothing, and to keep what it was told and what it has counted.
template <class AnyScene, class Build> void expectFreed(AnyScene& scene, Build build) {
    auto& tree = scene.tree;
    tree.maxDepth = 33;
    tree.minNodeSize = 0.25F;
    tree.leafSizeFactor = 1.5F;
    ThreadPerJob manager;
    build(&manager);
    int const depth = tree.statMaxDepth;
    EXPECT_GT(depth, 1);
    EXPECT_EQ(tree.numThreads, getNumProcessors());
    EXPECT_EQ(tree.singleSystem, 1);
    for (int times = 0; times < 2; ++times) { // the second finds nothing to do
        tree.freeData();
        EXPECT_EQ(tree.root, nullptr);
        EXPECT_EQ(tree.spheres, nullptr);
        EXPECT_EQ(tree.numSpheres, 0);
        EXPECT_EQ(tree.particleSystems.count, 0);
        EXPECT_EQ(tree.particleSystems.elements, nullptr);
        EXPECT_EQ(tree.nodes.getCount() + tree.leafSpheres.getCount(), 0);
        EXPECT_EQ(tree.getTotalMemUsage(), 0U);
        EXPECT_EQ(tree.threads, nullptr);
        EXPECT_EQ(tree.numThreads, 0);
        EXPECT_EQ(tree.maxDepth, 33);
        EXPECT_EQ(tree.minNodeSize, 0.25F);
        EXPECT_EQ(tree.leafSizeFactor, 1.5F);
        EXPECT_EQ(tree.statMaxDepth, depth);
    }
    RSRay ray = scene.makeRay({{{-9.0, 0.0, 0.0}, {1.0F, 0.0F, 0.0F}}, 0.0, 1e30, {}, 0.5F});
    EXPECT_EQ(scene.owner.intersect(ray), 0);
}

TEST(FreedTrees, HoldNothingAndKeepWhatTheyWereTold) {
    StillScene still(uniform.make(1, 500));
    expectFreed(still, [&](ThreadManager* manager) { still.tree.build(nullptr, manager); });
    EXPECT_LT(still.tree.bbox.min.x, 0.0F);
    EXPECT_GT(still.tree.bbox.max.z, 0.0F);
    EXPECT_GT(still.tree.statNumLeaves, 1);
    EXPECT_GT(still.tree.statDepthSum, 1);
    EXPECT_EQ(still.tree.totalParticles, 0);
    MovingScene moving(moved(uniform.make(1, 500), Way::scattering, 2));
    expectFreed(moving, [&](ThreadManager* manager) { moving.tree.build(nullptr, manager, 0); });
    EXPECT_LT(moving.tree.rootBox.box.min.x, 0.0F);
    EXPECT_EQ(moving.tree.shutterMax, 1.0F);
    EXPECT_LT(moving.tree.boundsMotion.min.x, 0.0F);
    EXPECT_EQ(moving.tree.numParticles, 0);
}

} // namespace
} // namespace kelpatest
