// Classic BGEO files.

#include "tests/support/particlefolder.h"
#include "tests/support/particletexts.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

using namespace kelpatest;
using namespace pipeline;

constexpr int count = 20000; // more than fit one block

/// A file's header and its points.
struct Bgeo {
    std::string header, points;
    std::string whole() const { return header + points + "primitives are not looked at"; }
};

Bgeo makeBgeo() {
    auto const attribute = [](Encoder& to, std::string const& name, int size, int type) {
        to.add(static_cast<std::uint16_t>(name.size())).bytes += name;
        to.add(static_cast<std::uint16_t>(size)).add(type);
    };
    Encoder header{false, true, "BgeoV"};
    header.add(5).add(count).add(1).add(0).add(0).add(5).add(0).add(0).add(0);
    attribute(header, "width", 1, 0);
    header.add(0.5F);
    attribute(header, "kind", 1, 4);
    header.add(2).add(std::uint16_t{0}).add(std::uint16_t{5}).bytes += "spray";
    attribute(header, "v", 3, 5);
    header.add(0).add(0).add(0);
    attribute(header, "Cd", 4, 0);
    header.add(0).add(0).add(0).add(0);
    attribute(header, "id", 1, 1);
    header.add(0);
    Encoder rows{false, true};
    for (int i = 0; i < count; ++i)
        rows.add(static_cast<float>(i))
            .add(1.0F)
            .add(-2.0F)
            .add(7.0F) // w is no part of it
            .add(3.0F)
            .add(i % 2)
            .add(0.1F)
            .add(0.2F)
            .add(static_cast<float>(-i))
            .add(0.25F)
            .add(0.5F)
            .add(1.0F)
            .add(0.0F)
            .add(16777217 + i);
    return {header.bytes, rows.bytes};
}

TEST_F(ParticleFiles, HoldParticlesAsBgeo) {
    std::string const bytes = makeBgeo().whole();
    for (std::string const& file : {bytes, gzip(bytes)}) {
        ParticleSet const particles = read(file, {.attributes = {"kind"}, .summarise = true});
        ASSERT_EQ(particles.positions.size(), count);
        int const last = count - 1;
        EXPECT_TRUE(same(particles.positions[last], {last, 1.0F, -2.0F}));
        EXPECT_TRUE(same(particles.velocities[last], {0.1F, 0.2F, -last}));
        EXPECT_TRUE(same(particles.colors[last], {0.25F, 0.5F, 1.0F}));
        EXPECT_EQ(particles.ids[last], 16777217 + last);
        EXPECT_EQ(particles.radii[last], 1.5F);
        EXPECT_EQ(particles.attributes[0].values[last], last % 2);
        EXPECT_EQ(particles.columns.size(), 13U);
        EXPECT_EQ(particles.upAxis, 'y');
    }
}

// Cut anywhere, or with a count that nothing stands behind.
TEST_F(ParticleFiles, RefuseBgeoThatIsNotWhole) {
    Bgeo const file = makeBgeo();
    std::string const bytes = file.whole();
    std::size_t const whole = file.header.size() + file.points.size();
    for (std::size_t cut = 6; cut < whole; cut += cut < file.header.size() ? 1 : 99991)
        EXPECT_TRUE(holdsAll(complaintAbout(bytes.substr(0, cut)), {"it is incomplete"})) << cut;
    EXPECT_TRUE(holdsAll(complaintAbout(file.header),
                         {"promises 20000 points of 56 bytes, the file holds 0"}));
    std::string odd = bytes;
    odd[8] = 4;
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"version 4 of classic BGEO"}));
    odd = bytes;
    odd[53] = 3; // the type of `width`
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"'width' is of type 3; 0 (float)"}));
}

} // namespace
