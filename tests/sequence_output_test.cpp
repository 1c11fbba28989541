// Several pictures of one run: their names, and what they show.

#include "tests/clouds.h"
#include "tool/camera.h"
#include "tool/options.h"
#include "tool/outputname.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

using kelpatest::Random;
using kelpatool::numberedName;
using kelpatool::Vec;

TEST(OutputNames, TakeTheNumberInTheirOnePlace) {
    EXPECT_EQ(numberedName("a.####.png", 7), "a.0007.png");
    EXPECT_EQ(numberedName("a%04d.exr", 123456), "a123456.exr");
    EXPECT_EQ(numberedName("%d", 0), "0");
    EXPECT_EQ(numberedName("#1/%d%/a#%b.png", 12), "#1/%d%/a12%b.png") << "a folder's name stays";
    EXPECT_TRUE(kelpatool::hasNumberPlace("x/#.png"));
    EXPECT_FALSE(kelpatool::hasNumberPlace("#/50%.png"));
    EXPECT_THROW(numberedName("a.png", 1), kelpatool::UsageError);
    EXPECT_THROW(numberedName("#-%d.png", 1), kelpatool::UsageError);
}

TEST(Turntables, GoRoundAtOneDistanceThatHoldsAllSpheres) {
    for (unsigned seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        std::vector<Kelpa::Vector> const centers = {{0, 0, 0}, {4, 0, 0}, random.inCube(1.0F)};
        std::vector<float> const radii = {0.5F, 0.5F, 0.1F};
        kelpatool::CameraOptions options;
        options.turntable = 12;
        options.ortho = seed % 2 == 1;
        options.view = seed % 3 == 0 ? "top" : "";
        Vec const centre = kelpatool::boundsOf(centers).centre();
        double narrowest = 1e30; // how far the spheres stay from the frame, over all pictures
        Vec const first =
            placeTurntable(options, 0, 160, 90, 'y', centers, radii, {0, 0, 0}).eye - centre;
        for (int picture = 0; picture < 12; ++picture) {
            auto const camera =
                placeTurntable(options, picture, 160, 90, 'y', centers, radii, {0, 0, 0});
            Vec const away = camera.eye - centre;
            EXPECT_NEAR(dot(away, away), dot(first, first), 1e-9);
            EXPECT_NEAR(away.y, first.y, 1e-9) << "the axis is the upward one";
            EXPECT_NEAR(away.x,
                        first.x * std::cos(picture * 0.5235987755982988) +
                            first.z * std::sin(picture * 0.5235987755982988),
                        1e-9);
            for (std::size_t i = 0; i < centers.size(); ++i) {
                Vec const c = kelpatool::wide(centers[i]) - camera.eye;
                double const tangent = camera.tanHalfHeight;
                double const across = std::abs(dot(c, camera.up));
                double const room =
                    camera.isParallel
                        ? tangent - across
                        : (dot(c, camera.forward) * tangent - across) / std::hypot(1.0, tangent);
                narrowest = std::min(narrowest, room - static_cast<double>(radii[i]));
                EXPECT_GT(dot(c, camera.forward), 0.5);
            }
        }
        EXPECT_GT(narrowest, 0.0);
    }
}

} // namespace
