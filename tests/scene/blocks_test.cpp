// Scenes in many blocks: how they are parted, and that rays and pictures do not see it.

#include "pipeline/scene/bunch.h"
#include "pipeline/scene/parting.h"
#include "pipeline/scene/scene.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/blockscene.h"
#include "tests/support/pixels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>

namespace {

using Kelpa::Vector;
using kelpatest::blocksOf;
using kelpatest::builtScene;
using kelpatest::expectSamePixels;
using kelpatest::pictureOf;
using kelpatest::Random;
using kelpatest::RecordingProgress;
using namespace pipeline;

TEST(Partings, HalveTheLongestAxisWhateverTheThreadsAndKeepRowsInOrder) {
    std::vector<Vector> points = kelpatest::uniformPoints(50000, 3);
    for (std::size_t i = 0; i < 20000; ++i) // most in a clump, some nowhere, some in one place
        points[i] = {points[i].x * 1e-3F, points[i].y * 1e-4F, points[i].z * 1e-3F};
    for (std::size_t i = 0; i < 3000; ++i)
        points[7 * i] = {0.25F, 0.25F, 0.25F};
    points[11].x = points[5000].y = std::numeric_limits<float>::quiet_NaN();
    Parting const parting(points, {}, 500, 1);
    std::vector<std::int64_t> const& firsts = parting.firsts();
    ASSERT_EQ(firsts.size(), 129U) << "medians of 50,000 by 500";
    EXPECT_EQ(firsts.front(), 0);
    EXPECT_EQ(firsts.back(), 50000);
    Rows const rows = parting.rows();
    std::set<std::int64_t> seen;
    for (std::size_t block = 0; block + 1 < firsts.size(); ++block) {
        EXPECT_LE(std::abs(firsts[block + 1] - firsts[block] - 390), 1);
        for (std::int64_t place = firsts[block]; place < firsts[block + 1]; ++place) {
            seen.insert(rows[place]);
            EXPECT_TRUE(place == firsts[block] || rows[place - 1] < rows[place]);
        }
    }
    EXPECT_EQ(seen.size(), 50000U);
    for (int const threads : {2, 7}) {
        Parting const again(points, {}, 500, threads);
        EXPECT_EQ(again.firsts(), firsts);
        Rows const theirs = again.rows();
        for (std::int64_t place = 0; place < 50000; ++place)
            ASSERT_EQ(theirs[place], rows[place]);
    }
    std::vector<std::int64_t> numbers(points.size());
    std::iota(numbers.begin(), numbers.end(), 0);
    parting.order(numbers);
    EXPECT_EQ(numbers[40000], rows[40000]);

    // On a line blocks are stretches; of particles in one place they are runs of rows.
    std::vector<Vector> line;
    for (int i = 0; i < 1000; ++i)
        line.push_back({static_cast<float>(i * 607 % 1000), 5.0F, 0.0F});
    Parting const stretches(line, {}, 250, 3);
    std::vector<Vector> ordered = line;
    stretches.order(ordered);
    for (std::size_t place = 0; place < 1000; ++place)
        EXPECT_EQ(static_cast<std::size_t>(ordered[place].x) / 250, place / 250);
    std::vector<Vector> const one(1000, Vector{1, 2, 3});
    EXPECT_EQ(Parting(one, {}, 250, 2).rows()[777], 777);
    // What moves is where the middle of its way lies.
    std::vector<Vector> ends = line;
    for (Vector& end : ends)
        end.x = 2.0F * 999.0F - 3.0F * end.x; // the middles run backwards
    Parting const moving(line, ends, 250, 1);
    ordered = line;
    moving.order(ordered);
    EXPECT_GE(ordered[0].x, 750.0F);
    EXPECT_LT(ordered[999].x, 250.0F);
    EXPECT_EQ(Parting(line, {}, 1000, 4).firsts(), (std::vector<std::int64_t>{0, 1000}));
}

/// Rays of all kinds: from a point, from anywhere, and from particles, which they skip; every
/// second list of 64 from near a point to near another.
Kelpa::RSRay rayNumber(int i, Random& random, Scene const& scene) {
    Kelpa::RSRay ray{};
    Vector const from = i % 3 == 0 ? Vector{3.0F, 2.0F, 1.0F} : random.inCube(1.5F);
    std::int64_t const place = random.below(static_cast<int>(scene.first->size()));
    Vector const at = i % 3 == 2 ? scene.first->positions[static_cast<std::size_t>(place)] : from;
    for (int axis = 0; axis < 3; ++axis)
        ray.origin[axis] = static_cast<double>(at[axis]);
    Vector const to = random.inCube(1.0F);
    ray.dir = i % 3 == 0 ? Vector{to.x - at.x, to.y - at.y, to.z - at.z} : random.direction();
    ray.intervalMin = i % 5 == 0 ? 0.01 : 0.0;
    ray.intervalMax = ray.hitT = i % 4 == 0 ? 0.05 : 1e30;
    ray.time = 0.25F + 0.5F * random.unit();
    ray.skipIndex = i % 3 == 2 ? place : -1;
    if (i / 64 % 2 == 1) {
        Vector const near = random.inCube(0.05F);
        for (int axis = 0; axis < 3; ++axis) {
            ray.origin[axis] = i % 128 < 100 ? 1.5 : static_cast<double>(1.5F + near[axis]);
            ray.dir[axis] = -1.0F + 0.2F * to[axis];
        }
    }
    return ray;
}

TEST(Blocks, GiveRaysTheHitsOfOneTree) {
    for (bool const isMoving : {false, true}) {
        SCOPED_TRACE(isMoving);
        Scene const one = builtScene(isMoving, blocksOf(1 << 20));
        Scene const many = builtScene(isMoving, blocksOf(1000), 2);
        EXPECT_EQ(one.geometry->statistics().trees, 1);
        EXPECT_EQ(many.geometry->statistics().trees, 256);
        EXPECT_EQ(many.geometry->statistics().used, 199999);
        Random random(1);
        int hits = 0;
        int others = 0;
        Bunch bunch;
        bunch.clear();
        std::vector<Kelpa::RSRay> answers;
        for (int i = 0; i < 6400; ++i) {
            Kelpa::RSRay ray = rayNumber(i, random, many);
            bunch.add(static_cast<unsigned char>(bunch.numLanes), ray.origin, ray.dir,
                      ray.intervalMin, ray.intervalMax, ray.time, ray.skipIndex);
            Kelpa::RSRay expected = ray; // in one block places are rows
            expected.skipIndex = ray.skipIndex < 0 ? -1 : many.idOf(ray.skipIndex);
            bool const isHit = many.geometry->intersect(ray) != 0;
            bool const isHitOfOne = one.geometry->intersect(expected) != 0;
            hits += isHit ? 1 : 0;
            others += isHit != isHitOfOne || (isHit && ray.hitT != expected.hitT) ? 1 : 0;
            ray.hitT = isHit ? ray.hitT : -1.0;
            answers.push_back(ray);
            if (bunch.numLanes < 64)
                continue;
            std::uint64_t const occluded = bunch.occluded(*many.geometry);
            bunch.trace(*many.geometry);
            for (std::size_t lane = 0; lane < 64; ++lane) {
                ASSERT_EQ(bunch.hits.hit[lane] != 0, answers[lane].hitT >= 0.0);
                EXPECT_EQ((occluded >> lane & 1U) != 0, answers[lane].hitT >= 0.0);
                if (bunch.hits.hit[lane] == 0)
                    continue;
                EXPECT_EQ(bunch.hits.hitT[lane], answers[lane].hitT);
                EXPECT_EQ(bunch.hits.hitIndex[lane], answers[lane].hitIndex);
                EXPECT_EQ(bunch.hits.hitNormalY[lane], answers[lane].hitNormal.y);
            }
            bunch.clear();
            answers.clear();
        }
        EXPECT_GT(hits, 3000);
        EXPECT_LE(others, 2) << "but for rays that graze";
    }
}

TEST(Blocks, TellCopiesApartByRowsAndCountBeyondThirtyTwoBits) {
    // Each block holds a copy of the other's first particle; indices begin far out.
    std::vector<Vector> const low = {{0, 0, 0}, {1, 0, 0}, {-1, 0, 0}};
    std::vector<Vector> const high = {{0, 0, 0}, {3, 0, 0}};
    std::vector<float> const radii = {0.25F, 0.25F, 0.25F};
    constexpr std::int64_t base = (std::int64_t{3} << 32) - 2;
    auto const block = [&](std::vector<Vector> const& at, std::int64_t first) {
        auto const count = static_cast<std::int32_t>(at.size());
        return System{
            {0.0, 0, at.data(), count, radii.data(), count, nullptr, 0}, std::nullopt, first};
    };
    for (bool const isLowFirst : {true, false}) {
        auto rows = std::make_shared<Rows>(5);
        std::size_t const numbers[] = {isLowFirst ? 1U : 4U, 2U, 3U, isLowFirst ? 4U : 1U, 0U};
        for (std::size_t place = 0; place < 5; ++place)
            rows->set(place, numbers[place]);
        auto const geometry =
            makeBlockGeometry({block(low, base), block(high, base + 3)}, std::move(rows));
        RecordingProgress progress;
        geometry->build({progress}, {});
        auto const indexOfHit = [&](float fromX, float alongX, std::int64_t skip) {
            Bunch bunch;
            bunch.clear();
            double const from[3] = {static_cast<double>(fromX), 0.01, 0.02};
            bunch.add(17, from, {alongX, 0, 0}, 0.0, 1e30, 0.5F, skip);
            bunch.trace(*geometry);
            Kelpa::RSRay ray{};
            std::copy(from, from + 3, ray.origin);
            ray.dir = {alongX, 0, 0};
            ray.intervalMax = 1e30;
            ray.skipIndex = skip;
            EXPECT_EQ(geometry->intersect(ray) != 0, bunch.hits.hit[17] != 0);
            EXPECT_EQ(ray.hitIndex, bunch.hits.hitIndex[17]);
            return ray.hitIndex - base;
        };
        for (float const fromX : {-0.7F, 0.7F})
            EXPECT_EQ(indexOfHit(fromX, -fromX, -1), isLowFirst ? 0 : 3) << fromX;
        EXPECT_EQ(indexOfHit(5.0F, -1.0F, -1), 4);
        // On the third particle; the number of the second less 2^32 names nobody.
        EXPECT_EQ(indexOfHit(1.2F, 1.0F, base + 1 - (std::int64_t{1} << 32)), 1);
        EXPECT_EQ(indexOfHit(0.9F, -1.0F, base + 1), isLowFirst ? 0 : 3)
            << "it leaves behind the origin";
    }
}

TEST(Blocks, MakeTheSamePictureForAnyNumberOfThreads) {
    for (bool const isMoving : {false, true}) {
        SCOPED_TRACE(isMoving);
        Image const expected = pictureOf(builtScene(isMoving, blocksOf(1000)), 1);
        Image const ofOne = pictureOf(builtScene(isMoving, blocksOf(1 << 20)), 1);
        for (int const threads : {2, 7}) {
            Image const image = pictureOf(builtScene(isMoving, blocksOf(1000), threads), threads);
            expectSamePixels(image, expected);
        }
        int others = 0;
        for (std::size_t i = 0; i < expected.rgb.size(); ++i)
            others += expected.rgb[i] != ofOne.rgb[i] ? 1 : 0;
        EXPECT_LE(others, 6) << "but for rays that graze";
        EXPECT_GT(std::count_if(expected.id.begin(), expected.id.end(),
                                [](std::int64_t id) { return id != idOfNothing; }),
                  2000);
    }
}

TEST(Blocks, EndCleanlyWhenMemoryRunsOutOrTheBuildIsStopped) {
    Scene scene = builtScene(false, blocksOf(1000), 1, 20000);
    Image const expected = pictureOf(scene, 1);
    TreeOptions options;
    options.block = 1000;
    int failures = 0;
    for (long first = 0; first < 4000; first = first * 5 / 4 + 1) {
        RecordingProgress progress;
        kelpatest::FailingAllocations const failing(first);
        try {
            scene.geometry->build({progress, 3}, options);
        } catch (...) { // of the standard library or of the trees
            ++failures;
            EXPECT_EQ(scene.geometry->statistics().used, 0);
            EXPECT_FALSE(scene.geometry->bounds());
        }
    }
    EXPECT_GT(failures, 10);
    for (long poll = 1; poll < 200000; poll = 3 * poll + 1) {
        RecordingProgress progress(poll);
        scene.geometry->build({progress, 2}, options);
        EXPECT_LE(scene.geometry->statistics().used, 20000);
        pictureOf(scene, 1); // of a part of them
    }
    struct Stop {};
    RecordingProgress progress;
    EXPECT_THROW(
        scene.geometry->build({progress, 2, [](double, std::uint64_t) { throw Stop(); }}, options),
        Stop);
    scene.geometry->build({progress, 2}, options);
    EXPECT_EQ(pictureOf(scene, 2).rgb, expected.rgb);
}

} // namespace
