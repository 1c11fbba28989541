// How builds part records.
#include "kelpa/spheretree/buildrecords.h"
#include "kelpa/spheretree/spaceorder.h"
#include "kelpa/spheretree/static/sdleafpacks.h"

#include "tests/support/clouds.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

using namespace Kelpa;
using kelpatest::Random;

namespace {

struct Part {
    std::uint32_t sphereIndex;
    float low;
    float high;

    bool operator==(Part const&) const = default;
};
using Records = SequenceST<Part, 300>;

std::vector<Part> contentOf(Records& records, std::int32_t count) {
    std::vector<Part> content;
    visitRecords(records, count, [&](Part const& record) { content.push_back(record); });
    return content;
}

constexpr float plane = 0.5F;

void fill(Records& data, std::int32_t count, Random& random) {
    for (std::int32_t k = 0; k < count; ++k) {
        float const low = random.unit();
        *data.newElement() = {static_cast<std::uint32_t>(k), low, low + 0.3F * random.unit()};
    }
}

// Blocks end at other places on either side, stretches at others again.
TEST(Partitions, PartRecordsAsPlainListsWouldBe) {
    for (std::uint64_t seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        bool const losesParts = seed % 3 == 0;
        BlockPool pool(Records::blockBytes);
        Records data;
        Records upperRecords;
        if (seed % 2 == 0)
            data.allocator.pool = upperRecords.allocator.pool = &pool;
        std::int32_t const count = 100 + random.below(2000);
        fill(data, count, random);
        std::vector<Part> lower;
        std::vector<Part> upper;
        auto const keptOf = [losesParts](std::uint32_t index) {
            return losesParts ? index % 4 : bothSides;
        };
        for (Part const& record : contentOf(data, count)) {
            bool const isCut = record.low < plane && record.high > plane;
            Sides const kept = isCut ? keptOf(record.sphereIndex) : bothSides;
            if (record.low < plane && (kept & lowerSide) != 0)
                lower.push_back({record.sphereIndex, record.low, isCut ? plane : record.high});
            if (record.high > plane && (kept & upperSide) != 0)
                upper.push_back({record.sphereIndex, isCut ? plane : record.low, record.high});
        }

        Partition parts(data, count, upperRecords);
        std::size_t announced = 0;
        std::vector<Part> seenLower;
        std::int32_t parted = 0;
        while (std::int32_t const length = parts.partNext(
                   [&](std::size_t, Part const& r) { return sidesOf(r.low, r.high, plane); },
                   [&announced](Part const&) { ++announced; },
                   [&](std::size_t i, Part& low, Part& high) {
                       EXPECT_EQ(i, low.sphereIndex);
                       low.high = high.low = plane;
                       return keptOf(low.sphereIndex);
                   })) {
            parted += length;
            seenLower.insert(seenLower.end(), parts.newestLower.begin(), parts.newestLower.end());
        }
        EXPECT_EQ(parted, count);
        EXPECT_GT(announced, 0U);
        EXPECT_EQ(parts.lowerCount, static_cast<std::int32_t>(lower.size()));
        ASSERT_EQ(parts.upperCount, static_cast<std::int32_t>(upper.size()));
        EXPECT_EQ(contentOf(data, count), lower);
        auto const blocks = (data.getMemUsage() + upperRecords.getMemUsage()) / Records::blockBytes;
        if (seed % 2 == 0) { // each side's last one is not full
            EXPECT_LE(blocks, (lower.size() + upper.size()) / 300 + 2);
        }
        EXPECT_EQ(seenLower, lower);
        std::vector<Part> shown;
        moveBack(data, upperRecords, parts.upperCount,
                 [&shown](Part const& part) { shown.push_back(part); });
        EXPECT_EQ(shown, contentOf(data, count));
        EXPECT_EQ(shown, std::vector(upper.rbegin(), upper.rend()));
        EXPECT_EQ(upperRecords.getCount(), 0);
        EXPECT_LE(upperRecords.getMemUsage(), 2 * (Records::blockBytes + sizeof(Records::Block)));
    }
}

TEST(LeafPacks, AreFoundAtEveryPositionThatAHundredMillionSpheresNeed) {
    for (std::uint64_t const position : {std::uint64_t{4}, std::uint64_t{1} << 31U,
                                         (std::uint64_t{1} << 32U) + 12, LeafPack::lastPosition})
        for (bool const hasEqualRadii : {false, true}) {
            LeafPack const pack = LeafPack::at(position, hasEqualRadii);
            EXPECT_NE(pack.word, LeafPack::none);
            EXPECT_EQ(pack.position(), position);
            EXPECT_EQ(pack.hasEqualRadii(), hasEqualRadii);
        }
    constexpr std::uint64_t entriesOfADenseSlab = 900'000'000; // nine a sphere
    EXPECT_LT(4 * entriesOfADenseSlab, LeafPack::lastPosition);
}

TEST(SpaceOrders, PassEveryPointInShortSteps) {
    Random random(1);
    std::vector<Vector> points;
    for (int i = 0; i < 20000; ++i)
        points.push_back(random.inCube(1.0F));
    auto const visit = [&points] {
        SpaceOrder const order(static_cast<std::uint32_t>(points.size()),
                               [&points](std::uint32_t i) { return points[i]; });
        std::vector<bool> isVisited(points.size());
        double length = 0.0;
        for (std::uint32_t place = 0; place < points.size(); ++place) {
            EXPECT_FALSE(isVisited[order[place]]);
            isVisited[order[place]] = true;
            Vector const& from = points[order[place == 0 ? 0 : place - 1]];
            Vector const& to = points[order[place]];
            for (int axis = 0; axis < 3; ++axis)
                length += std::abs(static_cast<double>(to[axis]) - static_cast<double>(from[axis]));
        }
        return length / static_cast<double>(points.size());
    };
    EXPECT_LT(visit(), 0.2); // at random it is 2
    float const largest = std::numeric_limits<float>::max();
    points.insert(points.end(), {{largest, -largest, largest}, {-largest, largest, 1e-45F}});
    visit();
    points.assign(3000, {largest, 1e-45F, -0.0F}); // a box without extent
    EXPECT_EQ(visit(), 0.0);
}

} // namespace
