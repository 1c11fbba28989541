// Trees that were written and read again, and bytes that are no tree.

#include "kelpa/spheretree/treebytes.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/movingscene.h"

#include <gtest/gtest.h>

#include <cstring>

namespace kelpatest {
namespace {

using Bytes = std::vector<std::byte>;

template <class Tree> Bytes bytesOf(Tree& tree) {
    Bytes bytes;
    writeTree(tree, [&](std::span<std::byte const> some) {
        bytes.insert(bytes.end(), some.begin(), some.end());
    });
    EXPECT_EQ(bytes.size(), writtenBytes(tree));
    return bytes;
}

template <class Tree> bool makeOf(Bytes const& bytes, Tree& tree) {
    std::size_t at = 0;
    auto const next = [&](std::span<std::byte> room) {
        if (room.size() > bytes.size() - at)
            return false;
        if (!room.empty())
            std::memcpy(room.data(), bytes.data() + at, room.size());
        at += room.size();
        return true;
    };
    return readTree(tree, next, bytes.size());
}

/// Clouds of all the kinds that trees keep differently.
std::vector<Cloud> clouds() {
    std::vector<Cloud> all;
    all.push_back(uniform.make(1, 3000)); // packed, and no table of spheres
    all.push_back(uniform.make(2, 3000));
    all.back().systems[0].radii[7] = 0.0F; // which needs the table
    all.push_back(uniform.make(3, 500));
    all.back().systems[0].data.particleType = 1; // no packs
    all.push_back(uniform.make(4, 400));
    all.back().systems.push_back(std::move(uniform.make(5, 300).systems[0]));
    all.push_back(uniform.make(6, 1));
    all.push_back(uniform.make(7, 3));
    for (float& radius : all.back().systems[0].radii)
        radius = -1.0F; // an empty tree
    return all;
}

void buildIn(StillScene& scene) {
    scene.tree.build(nullptr, nullptr);
}
void buildIn(MovingScene& scene) {
    scene.tree.build(nullptr, nullptr, 0);
}
Box boundsOf(StillScene const& scene) {
    return scene.tree.bbox;
}
Box boundsOf(MovingScene const& scene) {
    return scene.tree.boundsMotion;
}

/// Asks both scenes the same rays, singly and in lists.
template <class Scene> void expectSameAnswers(Scene& expected, Scene& scene) {
    RaySource source(expected.cloud, 11);
    std::vector<RSRay> rays, answers;
    std::vector<int> codes;
    for (int i = 0; i < 1024; ++i) {
        Query query = source.make(static_cast<Aim>(i % numAims));
        query.time = 0.4F;
        for (double& from : query.ray.origin)
            from = roundedToSingle(from);
        RSRay ray = expected.makeRay(query);
        RSRay again = ray;
        rays.push_back(ray);
        codes.push_back(expected.owner.intersect(ray));
        ASSERT_EQ(scene.owner.intersect(again), codes.back());
        EXPECT_EQ(scene.owner.isOccluded(rays.back()), codes.back() != 0);
        if (codes.back() != 0) {
            EXPECT_EQ(again.hitIndex, ray.hitIndex);
            EXPECT_TRUE(isSame(again.hitT, ray.hitT) && isSame(again.hitNormal, ray.hitNormal));
            again.hitPrimitive = &scene.shapes[0];
        }
        answers.push_back(again);
        if (rays.size() < 64 || !scene.isAlone())
            continue;
        EXPECT_TRUE(isSameAsList(scene, rays, answers, codes));
        rays.clear();
        answers.clear();
        codes.clear();
    }
}

template <class Scene, class Make> void expectTheSameAfterARoundTrip(Make const& make) {
    int number = 0;
    for (Cloud& cloud : clouds()) {
        SCOPED_TRACE(number++);
        auto const copied = [&] {
            Cloud copy;
            for (System const& system : cloud.systems) {
                System& to = copy.systems.emplace_back();
                to.positions = system.positions;
                to.radii = system.radii;
                to.data.particleType = system.data.particleType;
                to.seal();
            }
            return copy;
        };
        Scene expected(make(copied()));
        Scene written(make(copied()));
        Scene scene(make(copied()));
        buildIn(expected);
        buildIn(written);
        Bytes const bytes = bytesOf(written.tree);
        ASSERT_TRUE(makeOf(bytes, scene.tree));
        for (Scene* const other : {&written, &scene}) {
            EXPECT_EQ(other->tree.numSpheres, expected.tree.numSpheres);
            EXPECT_EQ(other->tree.statMaxDepth, expected.tree.statMaxDepth);
            EXPECT_EQ(other->tree.packedFloats, expected.tree.packedFloats);
            EXPECT_EQ(other->tree.getPackedMemUsage(), expected.tree.getPackedMemUsage());
            Box const bounds = boundsOf(*other);
            Box const truth = boundsOf(expected);
            EXPECT_TRUE(isSame(bounds.min, truth.min) && isSame(bounds.max, truth.max));
            EXPECT_LE(other->tree.getTotalMemUsage(), expected.tree.getTotalMemUsage());
            if (expected.tree.numSpheres > 0) {
                expectSound(other->tree);
                EXPECT_EQ(hashOf(other->tree), hashOf(expected.tree));
            }
            expectSameAnswers(expected, *other);
        }
        EXPECT_EQ(bytesOf(scene.tree), bytes);
        EXPECT_EQ(scene.tree.spheresAreLent != 0, number == 1 || number == 5);

        // Both can be built again, and what is no whole tree leaves none.
        buildIn(scene);
        expectSameAnswers(expected, scene);
        Bytes const shorter(bytes.begin(), bytes.end() - 1);
        EXPECT_FALSE(makeOf(shorter, scene.tree));
        EXPECT_EQ(scene.tree.numSpheres, 0);
        RSRay ray = scene.makeRay(RaySource(scene.cloud, 1).make(Aim::through));
        EXPECT_EQ(scene.owner.intersect(ray), 0);
    }
}

TEST(TreeBytes, GiveStillTreesAgain) {
    expectTheSameAfterARoundTrip<StillScene>([](Cloud cloud) { return cloud; });
}

TEST(TreeBytes, GiveMovingTreesAgain) {
    expectTheSameAfterARoundTrip<MovingScene>(
        [](Cloud cloud) { return moved(std::move(cloud), Way::scattering, 3); });
}

/// Reads bytes that are wrong somewhere; whatever comes of it can be asked.
template <class Scene> void expectSafetyFromDamage(Scene& scene) {
    buildIn(scene);
    Bytes const bytes = bytesOf(scene.tree);
    Random random(5);
    int refused = 0;
    for (int i = 0; i < 3000; ++i) {
        Bytes damaged = bytes;
        // Mostly where it decides what is read: in the head and in nodes.
        std::size_t const most = i % 4 == 0 ? bytes.size() : 2000;
        auto const at = static_cast<std::size_t>(random.below(static_cast<int>(most)));
        damaged[at] ^= static_cast<std::byte>(1U << static_cast<unsigned>(random.below(8)));
        if (!makeOf(damaged, scene.tree)) {
            ++refused;
            EXPECT_EQ(scene.tree.numSpheres, 0);
            continue;
        }
        RSRay ray =
            scene.makeRay(RaySource(scene.cloud, static_cast<unsigned>(i)).make(Aim::camera));
        ray.time = 0.4F;
        scene.owner.intersect(ray);
    }
    EXPECT_GT(refused, 500);
    // Another cloud's systems.
    EXPECT_TRUE(makeOf(bytes, scene.tree));
    scene.tree.particleSystems.count = 0;
    EXPECT_FALSE(makeOf(bytes, scene.tree));
}

TEST(TreeBytes, AreRefusedOrHarmlessWhenDamaged) {
    StillScene still(uniform.make(1, 400));
    expectSafetyFromDamage(still);
    MovingScene moving(moved(uniform.make(1, 400), Way::drifting, 3));
    expectSafetyFromDamage(moving);
}

TEST(TreeBytes, LeaveNoTreeWhenMemoryRunsOut) {
    StillScene scene(uniform.make(1, 400));
    buildIn(scene);
    Bytes const bytes = bytesOf(scene.tree);
    int failures = 0;
    for (long first = 0; first < 20; ++first) {
        bool isMade = false;
        try {
            FailingAllocations const failing(first);
            isMade = makeOf(bytes, scene.tree);
        } catch (ExceptionMsg const&) {
            ++failures;
        } catch (std::bad_alloc const&) { // the test's own functions
            ++failures;
        }
        EXPECT_EQ(scene.tree.numSpheres, isMade ? 400 : 0);
    }
    EXPECT_GT(failures, 2);
    buildIn(scene);
    expectRightAnswers(scene, 7, 20);
}

} // namespace
} // namespace kelpatest
