// The tree over the boxes of blocks: what rays enter, alone and in lists.

#include "pipeline/scene/boxgroup.h"
#include "pipeline/scene/raysinblocks.h"
#include "pipeline/scene/toptree.h"

#include "tests/support/clouds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <vector>

namespace {

using Kelpa::Vector;
using kelpatest::Random;
using namespace pipeline;

TEST(TopTrees, GiveARayItsBoxesInOrderLikeALookAtEach) {
    Random random(5);
    std::vector<Kelpa::Box> boxes;
    for (int i = 0; i < 300; ++i) {
        Vector const at = random.inCube(1.0F);
        float const half = random.between(0.0F, 0.3F);
        boxes.push_back(
            {{at.x - half, at.y - half, at.z - half}, {at.x + half, at.y + half, at.z + half}});
        if (i % 10 == 0)
            boxes.back() = Kelpa::Box::empty();
    }
    TopTree const top(boxes);
    long entered = 0;
    for (int i = 0; i < 500; ++i) {
        Vector const from = random.inCube(i % 3 == 0 ? 0.5F : 3.0F);
        Vector dir = random.direction();
        if (i % 7 == 0)
            dir.y = 0.0F;
        double const end = i % 4 == 0 ? 2.0 : 1e30;
        BoxRay const ray(static_cast<double>(from.x), static_cast<double>(from.y),
                         static_cast<double>(from.z), dir, i % 5 == 0 ? 0.5 : 0.0);
        // One box at a time: each alone in a tree, and in the form for any processor.
        std::vector<TopTree::Entry> expected;
        for (std::size_t b = 0; b < boxes.size(); ++b) {
            auto const alone = TopTree({boxes[b]}).next(ray, TopTree::Entry::none(), end);
            BoxGroup group;
            if (!isEmpty(boxes[b]))
                group.set(3, boxes[b]);
            GroupStretches stretches;
            ASSERT_EQ(boxKernels().front().enterGroup(group, ray, lastBefore(end), stretches),
                      alone ? 8U : 0U);
            if (!alone)
                continue;
            EXPECT_EQ(stretches.enter[3], alone.t);
            expected.push_back({alone.t, 0.0F, static_cast<std::int32_t>(b)});
        }
        std::sort(expected.begin(), expected.end());
        TopTree::Entry last = TopTree::Entry::none();
        for (TopTree::Entry const& entry : expected) {
            auto const next = top.next(ray, last, end);
            ASSERT_TRUE(next);
            EXPECT_EQ(next.t, entry.t);
            EXPECT_EQ(next.block, entry.block);
            last = next;
        }
        EXPECT_FALSE(top.next(ray, last, end));
        entered += static_cast<long>(expected.size());
    }
    EXPECT_GT(entered, 1000);
}

TEST(TopTrees, GiveAListEachOfItsBoxesOnceAtAnyDepth) {
    Random random(8);
    std::vector<Kelpa::Box> boxes; // in rows, as blocks lie: four levels
    for (int i = 0; i < 5000; ++i) {
        Vector const at = {static_cast<float>(i / 500), static_cast<float>(i / 25 % 20),
                           static_cast<float>(i % 25)};
        boxes.push_back({at, {at.x + 1.1F, at.y + 1.1F, at.z + 1.1F}});
    }
    TopTree const top(boxes);
    ASSERT_EQ(top.numLevels(), 4);
    for (int list = 0; list < 20; ++list) {
        Kelpa::RayBunchExtParams rays;
        double tMins[64] = {};
        double ends[64];
        unsigned char lanes[64];
        Vector const towards = random.inCube(8.0F);
        for (unsigned k = 0; k < 64; ++k) {
            lanes[k] = static_cast<unsigned char>(63 - k);
            Vector const aside = random.inCube(list % 2 == 0 ? 0.5F : 9.0F);
            rays.originX[63 - k] = -5.0;
            rays.originY[63 - k] = rays.originZ[63 - k] = 10.0;
            rays.dirX[63 - k] = 10.0F + towards.x + aside.x;
            rays.dirY[63 - k] = towards.y + aside.y;
            rays.dirZ[63 - k] = towards.z + aside.z;
            ends[k] = k % 3 == 0 ? 0.7 : 1e30;
        }
        RaysInBlocks ways(top, rays, tMins, lanes, ends);
        std::vector<std::set<std::int32_t>> met(64);
        while (ways.gather())
            for (unsigned char const k : ways.asked()) {
                EXPECT_TRUE(met[k].insert(ways.blockOf(k)).second);
                ways.advance(k, ends[k]);
            }
        for (unsigned k = 0; k < 64; ++k) {
            unsigned char const lane = lanes[k];
            BoxRay const ray(rays.originX[lane], rays.originY[lane], rays.originZ[lane],
                             {rays.dirX[lane], rays.dirY[lane], rays.dirZ[lane]}, 0.0);
            std::set<std::int32_t> expected;
            for (auto entry = top.next(ray, TopTree::Entry::none(), ends[k]); entry;
                 entry = top.next(ray, entry, ends[k]))
                expected.insert(entry.block);
            EXPECT_EQ(met[k], expected);
        }
    }
}

TEST(BoxKernels, FindForRaysSideBySideWhatTheyFindForOne) {
    Random random(6);
    for (int list = 0; list < 200; ++list) {
        BoxGroup boxes;
        for (unsigned i = 0; i < 14; ++i) { // two are not set
            Vector const at = random.inCube(1.0F);
            float const half = random.between(0.0F, 0.4F);
            boxes.set(i, {{at.x - half, at.y - half, at.z - half},
                          {at.x + half, at.y + half, at.z + half}});
        }
        Vector const eye = random.inCube(list % 2 == 0 ? 3.0F : 0.5F);
        Vector const towards = random.direction();
        float const spread = list % 3 == 0 ? 2.0F : 0.1F;
        BoxRays rays;
        float ends[BoxRays::most];
        std::vector<BoxRay> alone;
        for (unsigned k = 0; k < BoxRays::most; ++k) {
            Vector const aside = random.inCube(spread);
            Vector const dir = {list % 7 == 0 ? 0.0F : towards.x + aside.x, towards.y + aside.y,
                                towards.z + aside.z};
            rays.originX[k] = eye.x + 0.1F * aside.y;
            rays.originY[k] = eye.y;
            rays.originZ[k] = eye.z;
            rays.inverseX[k] = dir.x;
            rays.inverseY[k] = dir.y;
            rays.inverseZ[k] = dir.z;
            rays.begin[k] = k % 2 == 0 ? 0.0F : 0.3F;
            ends[k] = k % 4 == 0 ? 2.0F : 1e30F;
            alone.emplace_back(static_cast<double>(rays.originX[k]), static_cast<double>(eye.y),
                               static_cast<double>(eye.z), dir, static_cast<double>(rays.begin[k]));
        }
        BoxRays const directions = rays;
        for (BoxKernels const& kernels : boxKernels()) {
            rays = directions;
            BoxRay least;
            BoxRay greatest;
            kernels.invert(rays, least, greatest);
            std::uint32_t const may = kernels.mayEnter(boxes, least, greatest);
            EXPECT_EQ(may, boxKernels().front().mayEnter(boxes, least, greatest));
            for (unsigned box = 0; box < BoxGroup::most; ++box) {
                float enter[BoxRays::most];
                std::uint64_t const entered = kernels.enterBox(boxes, box, rays, ends, enter);
                for (unsigned k = 0; k < BoxRays::most; ++k) {
                    GroupStretches stretches;
                    bool const isIn =
                        (boxKernels().front().enterGroup(boxes, alone[k], ends[k], stretches) >>
                             box &
                         1U) != 0;
                    ASSERT_EQ((entered >> k & 1U) != 0, isIn) << box << " " << k;
                    ASSERT_TRUE(!isIn || (may >> box & 1U) != 0);
                    EXPECT_TRUE(!isIn || enter[k] == stretches.enter[box]);
                }
                EXPECT_EQ(entered & kernels.areBefore(enter, ends), entered);
            }
        }
    }
}

} // namespace
