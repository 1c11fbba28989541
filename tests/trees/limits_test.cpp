// Trees under parameters and particles that no host should give.
#include "kelpa/spheretree/motionblur/crowd.h"
#include "kelpa/spheretree/splitchoice.h"

#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelpatest {
namespace {

/// Parameters of a builder that a host may set, and some that none should.
struct Parameters {
    int depth;
    float factor, size;
};

std::vector<Parameters> anyParameters() {
    constexpr int largest = std::numeric_limits<int>::max();
    constexpr float infinity = std::numeric_limits<float>::infinity();
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<Parameters> cases;
    for (int const depth : {-largest - 1, -1, 0, 1, 7, 60, 400, largest})
        for (float const factor : {-1e30F, -1.0F, 0.0F, 2.0F, 1e30F, nan, infinity})
            cases.push_back({depth, factor, 0.0F});
    for (float const size : {-infinity, -1.0F, 0.3F, 1e30F, nan, infinity})
        cases.push_back({400, 0.0F, size});
    return cases;
}

/// Builds and asks a tree with any parameters; `ask()` compares with the judge.
template <class Scene, class Build, class Ask>
void expectRightWithAnyParameters(Scene& scene, Build build, Ask ask) {
    for (auto const& [depth, factor, size] : anyParameters()) {
        SCOPED_TRACE(::testing::Message() << depth << ' ' << factor << ' ' << size);
        scene.tree.maxDepth = depth;
        scene.tree.leafSizeFactor = factor;
        scene.tree.minNodeSize = size;
        build();
        expectSound(scene.tree);
        Tally const tally = ask();
        EXPECT_EQ(tally.wrong + tally.missed, 0);
    }
}

TEST(AnyParameters, EndInTreesThatAnswerRight) {
    for (CloudKind const& kind : {uniform, lattice, coincident, nested}) {
        SCOPED_TRACE(kind.name);
        StillScene still(kind.make(1, 120));
        expectRightWithAnyParameters(
            still,
            [&] {
                still.tree.build(nullptr, nullptr);
                EXPECT_LE(still.tree.innerLevels, std::max(still.tree.maxDepth, 0));
            },
            [&] { return askRays(still, 5, 8); });
        MovingScene moving(moved(kind.make(1, 120), Way::scattering, 2));
        expectRightWithAnyParameters(
            moving, [&] { moving.tree.build(nullptr, nullptr, 0); },
            [&] { return moving.ask(5, 4, 0.4F); });
    }
}

MBSphereData recordOf(MovingSphereTree const& tree, std::uint32_t sphere, Box const& box) {
    return {sphere, {{}, box, tree.rootBox.timeMin, tree.rootBox.timeMax}, 0.01F};
}
SDSphereData recordOf(StaticSphereTree const&, std::uint32_t sphere, Box const& box) {
    return {sphere, box, 0.01F};
}

/// Whether a node over all spheres of a built tree, on the first level beyond the usual ones, is
/// split when the tree counts that many nodes, entries and deep records already.
template <class Scene, class Region, class Node, class Records>
bool isSplit(Scene& scene, Region const& region, GrowthLimit const& counted, Node, Records&& data) {
    for (int i = 0; i < scene.tree.numSpheres; ++i) {
        Vector const at = sphereAt(scene.cloud, {0, i}).center;
        Box const box{at, sum(at, {0.01F, 0.01F, 0.01F})};
        *data.newElement() = recordOf(scene.tree, static_cast<std::uint32_t>(i), box);
    }
    auto const nodes = scene.tree.nodes.count, entries = scene.tree.leafSpheres.count;
    scene.tree.nodes.count = static_cast<std::int32_t>(counted.nodes);
    scene.tree.leafSpheres.count = static_cast<std::int32_t>(counted.entries);
    scene.tree.deepRecords = counted.deepRecords;
    scene.tree.maxDepth = 400;
    Node node{};
    scene.tree.buildNode(&node, region, data, scene.tree.numSpheres, 1, nullptr, &data,
                         usualLevels + 1);
    scene.tree.nodes.count = nodes;
    scene.tree.leafSpheres.count = entries;
    return !node.isLeaf();
}

TEST(Builders, WithFewerRecordsThanAnnouncedSaySoAndTakeThose) {
    StillScene still(uniform.make(1, 400));
    still.tree.build(nullptr, nullptr);
    SDSphereRecords data, waiting;
    for (std::uint32_t i = 0; i < 100; ++i) {
        Vector const at = still.tree.centerOf(i);
        *data.newElement() = recordOf(still.tree, i, {at, sum(at, {0.01F, 0.01F, 0.01F})});
    }
    SDSphereNode<SDSphere> leaf, node;
    testing::internal::CaptureStderr();
    still.tree.storeSpheres(&leaf, data, 101, 1);
    still.tree.buildNode(&node, still.tree.bbox, data, 101, 1, nullptr, &waiting, 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[SDSphereTree] Error!\n[SDSphereTree] Error!\n");
    EXPECT_EQ(leaf.numLeafSpheres, 100);
    EXPECT_FALSE(node.isLeaf());
    EXPECT_EQ(waiting.getCount(), 0);
    MBSphereRecords none;
    MBSphereNode moving;
    EXPECT_THROW(MovingSphereTree().storeSpheres(&moving, none, 1 << 23), ExceptionMsg);
}

TEST(Crowds, AreFoundAsByCountingEveryPlace) {
    for (std::uint64_t seed = 0; seed < 2000; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        int const count = random.below(60), places = 1 + random.below(8), most = random.below(12);
        std::vector<int> of;
        std::map<int, int> counts;
        int largest = 0;
        for (int i = 0; i < count; ++i) {
            of.push_back(random.below(places)); // number 0 does not count
            largest = std::max(largest, of.back() == 0 ? 0 : ++counts[of.back()]);
        }
        auto const placeOf = [&of](std::int32_t i) -> std::optional<PlaceInTime> {
            auto const place = of[static_cast<std::size_t>(i)];
            float const x = static_cast<float>(place / 2), time = static_cast<float>(place % 2);
            return place == 0 ? std::nullopt : std::optional(PlaceInTime{{x, 0.0F, 0.0F}, time});
        };
        EXPECT_EQ(isCrowded(count, most, placeOf), largest > most);
    }
}

// Before the work, which would take minutes and end alike. One snapshot in one place is enough.
TEST(Crowds, ThatNoLeafCanHoldAreRefusedAtOnce) {
    constexpr int most = MBSphereNode::mostLeafSpheres;
    std::vector<Vector> const together(most + 1);
    std::vector<Vector> apart(most + 1);
    for (int i = 0; i <= most; ++i)
        apart[static_cast<std::size_t>(i)].x = static_cast<float>(i);
    std::vector<float> const radii(most + 1, 1.0F);
    ParticleData first{0.0, 0, together.data(), most + 1, radii.data(), most + 1, nullptr, 0};
    ParticleData second = first;
    second.sampleTime = 1.0;
    RecordingProgress progress(1); // where they are not refused, the build is aborted
    auto const build = [&] {
        MovingParticlePrimitive primitive(0, &first, &second, true);
        primitive.build(&progress, nullptr, 80, 0.0F, 1.0F, 1);
    };
    auto const expectRefused = [&] {
        try {
            build();
            ADD_FAILURE();
        } catch (ExceptionMsg const& refusal) {
            EXPECT_EQ(std::string(refusal.what()),
                      "[MBSphereTree] More than 8388607 spheres are in one place at one time, "
                      "which no leaf can hold");
        }
    };
    expectRefused();
    second.positions = apart.data();
    expectRefused();
    std::swap(first.positions, second.positions);
    expectRefused();
    EXPECT_TRUE(progress.lines.empty());
    second.sampleTime = 1.5; // what is together then, the shutter does not see
    EXPECT_NO_THROW(build());
}

// Whatever they hold, trees need no more than 64 nodes and 256 entries a sphere (2^23 and 2^26 when
// that is more) and, for each level, one entry a sphere that waited when the limit was reached.
// Nor do they part more records than that many entries beyond level 128.
TEST(Limits, EndTheGrowthOfTreesInNodesEntriesAndTime) {
    StillScene still(uniform.make(1, 400));
    still.tree.build(nullptr, nullptr);
    MovingScene moving(moved(uniform.make(1, 400), Way::standing, 2));
    moving.tree.build(nullptr, nullptr, 0);
    constexpr int nodes = 1 << 23, entries = 1 << 26, deep = entries - 400;
    for (GrowthLimit const& counted : {GrowthLimit{nodes, entries, deep},
                                       {nodes + 1, entries, deep},
                                       {nodes, entries + 1, deep},
                                       {nodes, entries, deep + 1}}) {
        bool const isWithin = counted.nodes + counted.entries + counted.deepRecords ==
                              std::int64_t{nodes} + entries + deep;
        EXPECT_EQ(isSplit(still, still.tree.bbox, counted, *still.tree.root, SDSphereRecords()),
                  isWithin);
        EXPECT_EQ(
            isSplit(moving, moving.tree.rootBox, counted, *moving.tree.root, MBSphereRecords()),
            isWithin);
    }
    // Growing with the spheres, and narrower for those that the shutter never sees.
    EXPECT_EQ(growthLimit(1 << 24).nodes, std::int64_t{1} << 30);
    EXPECT_EQ(growthLimit(1 << 24).entries, std::int64_t{1} << 32);
    moving.tree.numOutsideShutter = 1;
    EXPECT_FALSE(isSplit(moving, moving.tree.rootBox, {1, (1 << 23) + 1, 0}, *moving.tree.root,
                         MBSphereRecords()));
}

} // namespace
} // namespace kelpatest
