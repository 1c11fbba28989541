// Trajectories that only place particles, and the files that name those.

#include "pipeline/files/framesource.h"

#include "tests/support/particlefolder.h"

#include <cmath>
#include <iterator>

using namespace pipeline;
using namespace kelpatest;

namespace {

class Trajectories : public ParticleFiles {
  protected:
    static std::string seed(std::string const& name) {
        return KELPA_SOURCE_DIR "/tests/fuzz/seeds/dcd/" + name;
    }
    static std::string bytesOf(std::string const& path) {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    std::string pdb() const {
        std::string text;
        for (char const* const element : {"C", "N", "O"})
            text += std::string("ATOM      ") + static_cast<char>('1' + text.size() / 79) + "  " +
                    element + "   SER A   1       1.000   2.000   3.000  0.50 20.25           " +
                    element + "\n";
        return file("names.pdb", text + "END\n");
    }
};

} // namespace

TEST_F(Trajectories, AreReadInEveryFormOfDcd) {
    for (char const* const name : {"little", "xplor"}) {
        ParticleSet const first = readParticleFile(seed(name), {});
        EXPECT_EQ(first.format, "DCD");
        ASSERT_EQ(first.positions.size(), 3U);
        EXPECT_TRUE(same(first.positions[1], {4, 5, 6}));
        EXPECT_TRUE(same(readParticleFile(seed(name), {.frame = -1}).positions[2], {70, 80, 90}));
        EXPECT_TRUE(holdsAll(complaint(seed(name), {.frame = 2}), {"no frame 2; it has 2"}));
        EXPECT_EQ(first.cell.has_value(), std::string(name) == "little");
    }
    EXPECT_NEAR(readParticleFile(seed("little"), {}).cell->edges[2][0], -15.0, 1e-9);

    // Where atoms are fixed, later frames hold the others alone; in whatever order they are asked
    // for.
    FrameSource source(seed("big-wide-fixed"));
    for (int const frame : {1, 2, 0, 2, -1}) {
        ParticleSet const set = source.read(frame, {});
        EXPECT_TRUE(same(set.positions[0], {1, 2, 3}) && same(set.positions[2], {7, 8, 9}));
        EXPECT_EQ(set.positions[1].x, frame == 0 ? 4.0F : frame == 1 ? 40.0F : 41.0F);
        EXPECT_NEAR(set.cell.value().edges[2][0], -15.0, 1e-9);
    }
}

TEST_F(Trajectories, SayWhereTheyAreDamaged) {
    std::string const good = bytesOf(seed("big-wide-fixed"));
    EXPECT_TRUE(holdsAll(complaintAbout(good.substr(0, good.size() - 1), {.frame = 2}),
                         {"of frame 2; it is incomplete, use --frame 1 or an earlier one"}));
    ParticleSet const whole = read(good.substr(0, good.size() - 1), {.summarise = true});
    EXPECT_EQ(whole.frameCount, 2);
    for (std::size_t cut = 20; cut < good.size(); cut += 7)
        EXPECT_NE(complaintAbout(good.substr(0, cut), {.format = "dcd", .frame = 2}),
                  "no complaint");
    std::string odd = good;
    odd[8 + 4 + 4 * 8 + 3] = 9; // more atoms fixed than there are
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"3 atoms, of which 9 are fixed"}));
    EXPECT_TRUE(holdsAll(complaintAbout(good.substr(1), {.format = "dcd"}), {"begins with CORD"}));
}

TEST_F(Trajectories, AreUnpackedAsXtcAndReadAsTrr) {
    // Twelve waters that an independent writer packed; three frames, each a step further.
    std::string const seeds = KELPA_SOURCE_DIR "/tests/fuzz/seeds/";
    std::vector<Kelpa::Vector> waters;
    for (int m = 0; m < 12; ++m) {
        auto const along = [](int count, float begin) {
            return 0.3F * static_cast<float>(count) + begin;
        };
        Kelpa::Vector const o = {along(m % 3, 0.11F), along(m / 3 % 2, 0.12F), along(m / 6, 0.13F)};
        waters.insert(waters.end(), {o, {o.x + 0.1F, o.y, o.z}, {o.x - 0.033F, o.y + 0.094F, o.z}});
    }
    for (std::string const name : {"xtc/waters", "trr/waters"}) {
        SCOPED_TRACE(name);
        for (int frame = 0; frame < 3; ++frame) {
            ParticleSet const set = readParticleFile(seeds + name, {.frame = frame});
            ASSERT_EQ(set.positions.size(), waters.size());
            for (std::size_t i = 0; i < waters.size(); ++i)
                for (int axis = 0; axis < 3; ++axis)
                    EXPECT_NEAR(set.positions[i][axis],
                                waters[i][axis] + 0.037F * static_cast<float>(frame), 6e-4F);
            EXPECT_NEAR(set.cell.value().edges[1][1], 0.8, 1e-6);
            EXPECT_EQ(set.angstrom, 0.1F);
        }
        EXPECT_EQ(readParticleFile(seeds + name, {.summarise = true}).frameCount, 3);
        std::string const bytes = bytesOf(seeds + name);
        for (std::size_t cut = 10; cut < bytes.size(); cut += 31)
            EXPECT_TRUE(holdsAll(complaintAbout(bytes.substr(0, cut), {.frame = 2}), {"a: "}))
                << cut;
        for (std::size_t at = 4; at < bytes.size(); at += 7) { // whatever a byte does: no crash
            std::string odd = bytes;
            odd[at] = static_cast<char>(~odd[at]);
            EXPECT_NE(complaintAbout(odd), "");
        }
    }
    EXPECT_NEAR(readParticleFile(seeds + "trr/waters", {}).velocities.at(1).x, 0.25F, 1e-6F);
    EXPECT_EQ(readParticleFile(seeds + "xtc/seven", {}).positions.size(), 7U);
}

TEST_F(Trajectories, GetNamesFromATopology) {
    ReadOptions options{.topology = pdb(), .attributes = {"b_factor"}};
    FrameSource source(seed("little"));
    for (int const frame : {0, 1}) {
        ParticleSet const set = source.read(frame, options);
        EXPECT_EQ(set.elements, (std::vector<std::uint8_t>{6, 7, 8}));
        EXPECT_EQ(set.ids, (std::vector<std::int64_t>{1, 2, 3}));
        EXPECT_EQ(set.positions[0].x, frame == 0 ? 1.0F : 10.0F);
        EXPECT_EQ(set.attributes.at(0).values, (std::vector<float>{20.25F, 20.25F, 20.25F}));
    }
    // The site of a water that only carries charge is placed, and no particle.
    std::string const water =
        file("water.gro", "t\n3\n    1SOL     OW    1   1.000   2.000  -3.000\n"
                          "    1SOL     MW    2   1.000   2.000  -3.000\n"
                          "    1SOL    HW1    3   1.000   2.000  -3.000\n   1 1 1\n");
    ParticleSet const atoms = FrameSource(seed("little")).read(1, {.topology = water});
    EXPECT_EQ(atoms.elements, (std::vector<std::uint8_t>{8, 1}));
    ASSERT_EQ(atoms.positions.size(), 2U);
    EXPECT_TRUE(same(atoms.positions[0], {10, 20, 30}) && same(atoms.positions[1], {70, 80, 90}));
    options.attributes = {"nothing"};
    EXPECT_THROW(source.read(0, options), InputError);
    FrameSource other(file("two.xyz", "2\n\nC 0 0 0\nC 1 0 0\n"));
    try {
        other.read(0, options = {.topology = options.topology});
        FAIL();
    } catch (InputError const& error) {
        EXPECT_TRUE(
            holdsAll(error.what(), {"2 particles, and the topology", "names.pdb tells of 3"}));
    }
}
