// Points of OpenVDB, read from small files that the fuzzer starts from as well.

#include "tests/support/particlefolder.h"

#include <cmath>
#include <iterator>
#include <map>

using namespace pipeline;
using namespace kelpatest;

namespace {

class VdbPoints : public ParticleFiles {
  protected:
    static std::string seed(std::string const& name) {
        return KELPA_SOURCE_DIR "/tests/fuzz/seeds/vdb/" + name;
    }
    static std::string bytesOf(std::string const& path) {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
};

} // namespace

#ifdef KELPA_READS_VDB

TEST_F(VdbPoints, AreReadWithAllTheirAttributes) {
    ParticleSet const particles = readParticleFile(seed("points"), {.summarise = true});
    EXPECT_EQ(particles.format, "OpenVDB points");
    EXPECT_EQ(particles.upAxis, 'y');
    ASSERT_EQ(particles.positions.size(), 3U);
    // In the order of the grid, which is its own affair; radii are packed to 16 bits, velocities to
    // 16-bit floats.
    struct Point {
        Kelpa::Vector position, velocity;
        float radius;
    };
    std::map<std::int64_t, Point> const points = {{10, {{0.5F, 1, 2}, {1, 2, 3}, 0.5F}},
                                                  {9007199254740993, {{3, 4, 5}, {4, 5, 6}, 0.25F}},
                                                  {-3, {{-7.25F, 0, 1}, {7, 8, 9}, 1}}};
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(particles.ids[i]);
        Point const& point = points.at(particles.ids[i]);
        EXPECT_TRUE(same(particles.positions[i], point.position));
        EXPECT_TRUE(same(particles.velocities[i], point.velocity));
        EXPECT_NEAR(particles.radii[i], point.radius, 1e-4F);
    }
    EXPECT_EQ(particles.columns.size(), 8U);
}

TEST_F(VdbPoints, AreRefusedInOneLineWhenDamaged) {
    EXPECT_TRUE(holdsAll(complaint(seed("volume")), {"no grid of points; it has 'density'"}));
    std::string const good = bytesOf(seed("points"));
    for (std::size_t cut = 20; cut < good.size(); cut += 1500) {
        std::string const text = complaintAbout(good.substr(0, cut));
        EXPECT_TRUE(text.starts_with("a: ") && text.find('\n') == std::string::npos) << text;
    }
    EXPECT_TRUE(holdsAll(complaintAbout(good.substr(0, good.size() - 1)), {"grids end at byte"}));
    // Whatever one byte does to it: particles or a complaint, never the end of this process.
    for (std::size_t at = 8; at < good.size(); at += 997) {
        std::string odd = good;
        odd[at] = static_cast<char>(~odd[at]);
        EXPECT_NE(complaintAbout(odd), "");
    }
}

#else

TEST_F(VdbPoints, NeedTheirProgram) {
    EXPECT_TRUE(holdsAll(complaint(seed("points")),
                         {"kelpa-read-vdb, which is not installed", "libopenvdb-dev"}));
}

#endif
