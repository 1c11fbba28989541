// One ray against one box, sphere or point.
#include "kelpa/foundation/iray.h"

#include "tests/support/clouds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace kelpatest {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

enum class Kernel { sphere, leaving, point };

int ask(Kernel kernel, Vector const& center, float radius, IRay& ray) {
    return kernel == Kernel::point
               ? intersectPoint(center, radius, ray)
               : intersectSphere(center, radius, ray, kernel == Kernel::leaving ? 1 : 0);
}

/// Asks and checks what holds for every answer: a hit lowers the end and nothing else, and is then
/// no hit any more; a miss changes nothing. Returns the hit's parameter, or NaN for none.
double hitOf(Kernel kernel, Vector const& center, float radius, TraceRay const& ray, double tMin,
             double tMax) {
    IRay asked(ray, tMin, tMax);
    IRay expected(ray, tMin, tMax);
    std::memcpy(&expected, &asked, sizeof asked); // with its padding
    int const hit = ask(kernel, center, radius, asked);
    if (hit != 0) {
        EXPECT_LT(asked.tMax, expected.tMax);
        expected.tMax = asked.tMax;
    }
    EXPECT_EQ(std::memcmp(&asked, &expected, sizeof asked), 0);
    if (hit == 0)
        return static_cast<double>(nan);
    IRay again = asked;
    EXPECT_EQ(ask(kernel, center, radius, again), 0);
    return asked.tMax;
}

TraceRay rayFrom(Vector const& start, Vector const& dir) {
    return {
        {static_cast<double>(start.x), static_cast<double>(start.y), static_cast<double>(start.z)},
        dir};
}

TEST(Rays, KeepClampedReciprocalsAndSigns) {
    struct {
        float dir, reciprocal;
        int sign;
    } const cases[] = {{0.0F, 1e18F, 0},    {-0.0F, -1e18F, 1}, {2.0F, 0.5F, 0},
                       {-4.0F, -0.25F, 1},  {1e-19F, 1e18F, 0}, {-1e-19F, -1e18F, 1},
                       {infinity, 0.0F, 0}, {nan, 1e18F, 0},    {-infinity, -0.0F, 1},
                       {1e-42F, 1e18F, 0}};
    for (auto const& c : cases)
        for (int axis = 0; axis < 3; ++axis) {
            TraceRay host{{1.0, 0.1, -3.0}, {1.0F, 1.0F, 1.0F}};
            host.dir[axis] = c.dir;
            IRay const ray(host, 7.0, -7.0);
            EXPECT_EQ(ray.invDir[axis], c.reciprocal) << c.dir;
            EXPECT_EQ(ray.dirSign[axis], c.sign) << c.dir;
            EXPECT_EQ(ray.origin[1], 0.1);
            EXPECT_EQ(ray.tMin, 7.0);
            EXPECT_EQ(ray.tMax, -7.0);
        }
}

TEST(HitTests, MeetTheEndsOfTheInterval) {
    // A sphere of radius 2 around z = 10, on a ray of two units a parameter: entered at 4, left at
    // 6, closest at 5. From inside, at z = 9, it is left at 1.5.
    TraceRay const outside{{0.0, 0.0, 0.0}, {0.0F, 0.0F, 2.0F}};
    TraceRay const inside{{0.0, 0.0, 9.0}, {0.0F, 0.0F, 2.0F}};
    TraceRay const rim{{2.0, 0.0, 0.0}, {0.0F, 0.0F, 2.0F}};
    TraceRay const beside{{2.0000005, 0.0, 0.0}, {0.0F, 0.0F, 2.0F}};
    TraceRay const behind{{0.0, 0.0, 12.0}, {0.0F, 0.0F, 2.0F}};
    double const none = static_cast<double>(nan);
    struct {
        Kernel kernel;
        TraceRay const& ray;
        double tMin, tMax, hit;
    } const cases[] = {
        {Kernel::sphere, outside, 0, 100, 4},    {Kernel::leaving, outside, 0, 100, 6},
        {Kernel::point, outside, 0, 100, 5},     {Kernel::sphere, outside, 4, 100, 4},
        {Kernel::sphere, outside, 0, 4, none},   {Kernel::sphere, outside, 4.5, 100, 6},
        {Kernel::sphere, outside, 4.5, 6, none}, {Kernel::sphere, outside, 6, 100, none},
        {Kernel::sphere, outside, 5, 3, none},   {Kernel::leaving, outside, 0, 6, none},
        {Kernel::leaving, outside, 6, 9, none},  {Kernel::point, outside, 5, 100, none},
        {Kernel::point, outside, 0, 5, none},    {Kernel::sphere, inside, 0, 100, 1.5},
        {Kernel::leaving, inside, 0, 100, 1.5},  {Kernel::sphere, inside, 0, 1.5, none},
        {Kernel::point, inside, 0, 100, 0.5},    {Kernel::point, inside, 0.6, 100, none},
        {Kernel::sphere, rim, 5, 100, 5},        {Kernel::sphere, rim, 0, 5, none},
        {Kernel::point, rim, 0, 100, 5},         {Kernel::sphere, beside, 0, 100, none},
        {Kernel::point, beside, 0, 100, none},   {Kernel::leaving, behind, 0, 100, none},
        {Kernel::sphere, behind, 0, 100, none},  {Kernel::sphere, behind, -1, 100, 0},
    };
    for (auto const& c : cases) {
        double const hit = hitOf(c.kernel, {0.0F, 0.0F, 10.0F}, 2.0F, c.ray, c.tMin, c.tMax);
        bool const asExpected = std::isnan(c.hit) ? std::isnan(hit) : hit == c.hit;
        EXPECT_TRUE(asExpected) << "case " << &c - cases << " hits at " << hit;
    }
}

TEST(HitTests, AgreeWithDoublePrecision) {
    Random random(1);
    int hits = 0;
    for (int i = 0; i < 20000; ++i) {
        SCOPED_TRACE(i);
        float const scale = random.powerOfTwo(-20, 20);
        Vector const center = scaled(random.inCube(2.0F), scale);
        float const radius = scale * random.between(0.5F, 2.0F);
        float const length = random.powerOfTwo(-10, 10);
        Vector const dir = scaled(random.direction(), length);
        Vector const from = scaled(random.inCube(4.0F), scale);
        TraceRay const ray = rayFrom(from, dir);
        double a = 0.0, b = 0.0, c = -static_cast<double>(radius) * static_cast<double>(radius);
        for (int axis = 0; axis < 3; ++axis) {
            double const d = static_cast<double>(dir[axis]);
            double const o = static_cast<double>(center[axis]) - ray.origin[axis];
            a += d * d;
            b += d * o;
            c += o * o;
        }
        double const squaredChord = (b * b - a * c) / (a * a);
        double const unit = static_cast<double>(scale) / std::sqrt(a);
        double const slack = 2e-5 * unit;
        if (std::fabs(squaredChord) < 0.01 * unit * unit)
            continue; // near the rim small errors become large ones
        bool const meets = squaredChord > 0.0;
        double const half = meets ? std::sqrt(squaredChord) : 0.0;
        double const entry = b / a - half, exit = b / a + half;
        if (std::fabs(entry) < slack || std::fabs(exit) < slack || std::fabs(b / a) < slack)
            continue;
        double const expected[] = {entry > 0.0 ? entry : exit, exit, b / a};
        bool const isHit[] = {meets && exit > 0.0, meets && b > 0.0 && exit > 0.0,
                              meets && b > 0.0};
        for (Kernel const kernel : {Kernel::sphere, Kernel::leaving, Kernel::point}) {
            auto const k = static_cast<std::size_t>(kernel);
            double const hit = hitOf(kernel, center, radius, ray, 0.0, 1e30);
            ASSERT_EQ(std::isnan(hit), !isHit[k]) << k;
            ASSERT_FALSE(std::fabs(hit - expected[k]) > slack) << k; // NaN passes
            hits += isHit[k];
        }
    }
    EXPECT_GT(hits, 2500);
}

TEST(RaysOnASphere, LeaveItOnceAndNeverMeetItAgain) {
    Random random(2);
    for (int i = 0; i < 5000; ++i) {
        SCOPED_TRACE(i);
        float const radius = random.powerOfTwo(-30, 30);
        Vector const center = random.inCube(10.0F * radius);
        Vector const start = sum(center, scaled(random.direction(), radius));
        Vector const dir = random.direction();
        float const outwards = (start.x - center.x) * dir.x + (start.y - center.y) * dir.y +
                               (start.z - center.z) * dir.z;
        if (std::fabs(outwards) < 0.01F * radius)
            continue;
        double const hit = hitOf(Kernel::leaving, center, radius, rayFrom(start, dir), 0.0, 1e30);
        ASSERT_EQ(std::isnan(hit), outwards > 0.0F);
        ASSERT_FALSE(std::fabs(static_cast<float>(hit) + 2.0F * outwards) > 1e-3F * radius);
    }
}

} // namespace
} // namespace kelpatest
