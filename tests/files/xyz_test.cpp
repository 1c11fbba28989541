// XYZ files, plain and extended, and their frames.

#include "pipeline/files/elements.h"

#include "tests/support/particlefolder.h"
#include "tests/support/particletexts.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

using namespace kelpatest;
using namespace pipeline;

TEST_F(ParticleFiles, HoldAtomsAsXyz) {
    ParticleSet const plain =
        read("3\r\nwater\r\nO 0 0 0 ignored\r\nh1 1 0 0\r\n 26\t0 1 +1e0\r\n");
    EXPECT_EQ(plain.format, "XYZ");
    EXPECT_EQ(plain.elements, (std::vector<std::uint8_t>{8, 1, 26}));
    EXPECT_TRUE(same(plain.positions[2], {0.0F, 1.0F, 1.0F}));

    ReadOptions options;
    options.attributes = {"tag", "virial.2", "fixed"};
    ParticleSet const extended = read(
        "2\nLattice=\"9 0 0 0 9 0 0 0 9\" "
        "Properties=\"id:I:1:note:S:2:pos:R:3:species:S:1:vel:R:3:color:R:3:radius:R:1:tag:I:1:"
        "virial:R:4:fixed:L:1:Z:I:1\" Time=3\n"
        "9007199254740993 a b 1 2 3 Si 4 5 6 0 .5 1 7 8 1 2 3 4 T 1\n"
        "12 a b 1 2 3 Qq 4 5 6 0 .5 1 7 9 1 3 3 4 F 1\n",
        options);
    EXPECT_EQ(extended.format, "extended XYZ");
    EXPECT_EQ(extended.ids, (std::vector<std::int64_t>{9007199254740993, 12}));
    EXPECT_TRUE(same(extended.positions[1], {1.0F, 2.0F, 3.0F}));
    EXPECT_TRUE(same(extended.velocities[1], {4.0F, 5.0F, 6.0F}));
    EXPECT_TRUE(same(extended.colors[1], {0.0F, 0.5F, 1.0F}));
    EXPECT_EQ(extended.radii, (std::vector<float>{7.0F, 7.0F}));
    EXPECT_EQ(extended.elements, (std::vector<std::uint8_t>{14, 0}));
    EXPECT_EQ(extended.unknownElements, (std::vector<std::string>{"Qq"}));
    EXPECT_EQ(extended.attributes[0].values, (std::vector<float>{8.0F, 9.0F}));
    EXPECT_EQ(extended.attributes[1].values, (std::vector<float>{2.0F, 3.0F}));
    EXPECT_EQ(extended.attributes[2].values, (std::vector<float>{1.0F, 0.0F}));
    EXPECT_EQ(read("1\nProperties=pos:R:3:numbers:I:1\n1 2 3 79\n").elements.at(0), 79);
}

// What a value quotes is no key.
TEST_F(ParticleFiles, HoldKeysOfXyzInAnyCaseAndSpacing) {
    for (char const* const comment :
         {"\tproperties=id:I:1:pos:R:3\tlattice='9 0 0 0 8 0 0 0 7'\tPBC=\"T F T\"",
          "old=\"Properties=species:S:1:pos:R:3 Lattice=\\\"1 0 0\\\"\" PROPERTIES = "
          "id:I:1:pos:R:3 "
          "LATTICE = \"9 0 0 0 8 0 0 0 7\" pbc = [T, F, T]",
          "a title Lattice=[[9,0,0],[0,8,0],[0,0,7]] 'my key'={Properties=pos:R:3} "
          "Properties=\"id:I:1:pos:R:3\" pbc={T F T} unclosed=\"Lattice=0"}) {
        ParticleSet const set = read(std::string("1\n") + comment + "\n77 1 2 3\n");
        EXPECT_EQ(set.ids, std::vector<std::int64_t>{77}) << comment;
        ASSERT_TRUE(set.cell) << comment;
        EXPECT_EQ(set.cell->edges[1][1], 8.0);
        EXPECT_EQ(set.cell->isPeriodic, (std::array<bool, 3>{true, false, true})) << comment;
    }
}

TEST(Elements, AreKnownByTheirSymbols) {
    for (auto const& [symbol, number] : {std::pair{"H", 1},
                                         {"cl", 17},
                                         {"NA", 11},
                                         {"Fe3+", 26},
                                         {"D", 1},
                                         {"Og", 118},
                                         {"", 0},
                                         {"C-alpha", 0},
                                         {"Xyz", 0},
                                         {"7", 0}})
        EXPECT_EQ(atomicNumberOf(symbol), number) << symbol;
    EXPECT_EQ(elementRadius(1, false), 1.10F);
    EXPECT_EQ(elementRadius(46, false), 1.37F);
    EXPECT_EQ(elementRadius(46, true), 1.39F);
    EXPECT_EQ(elementRadius(0, false), 1.70F);
    EXPECT_TRUE(same(elementColor(1), {1.0F, 1.0F, 1.0F}));
    EXPECT_NEAR(elementColor(8).y, 0.0040F, 1e-4F); // 0d in sRGB
}

TEST_F(ParticleFiles, HoldFramesAsXyz) {
    auto const frame = [](int number, int rows) {
        std::string text = std::to_string(number + 1) + "\nframe\n";
        for (int row = 0; row < rows; ++row)
            text += "C " + std::to_string(number) + " 0 0\n";
        return text;
    };
    std::string const whole = frame(0, 1) + frame(1, 2) + "\n  \n" + frame(2, 3);
    for (auto const& [wanted, found] : {std::pair{0, 0}, {2, 2}, {-1, 2}, {-3, 0}}) {
        for (std::string const& bytes : {whole, gzip(whole)}) {
            ParticleSet const set = read(bytes, {.frame = wanted});
            EXPECT_EQ(set.positions.size(), static_cast<std::size_t>(found + 1));
            EXPECT_EQ(set.positions[0].x, static_cast<float>(found));
            EXPECT_EQ(set.frameCount, wanted < 0 ? 3 : found + 1);
        }
    }
    EXPECT_TRUE(holdsAll(complaintAbout(whole, {.frame = 3}), {"no frame 3; it has 3"}));
    EXPECT_TRUE(holdsAll(complaintAbout(whole, {.frame = -4}), {"no frame -4; it has 3"}));

    std::string const cut = frame(0, 1) + frame(1, 2) + frame(2, 2);
    std::string const early =
        "a:11: frame 2 ends after 2 of 3 rows; use --frame 1 or an earlier one";
    for (int const wanted : {2, 3, -1})
        EXPECT_EQ(complaintAbout(cut, {.frame = wanted}), early) << wanted;
    ParticleSet const summary = read(cut, {.summarise = true});
    EXPECT_EQ(summary.frameCount, 2);
    ASSERT_EQ(summary.notes.size(), 1U);
    EXPECT_TRUE(holdsAll(summary.notes[0].text, {"frame 2 ends after 2 of 3 rows"}));
    EXPECT_EQ(read(frame(0, 1) + frame(1, 2), {.summarise = true}).frameCount, 2);
    EXPECT_EQ(read(cut, {.summarise = true, .countFrames = false}).notes.size(), 0U);

    // Words beyond the columns that were listed are worth a note; where none were, they are usual.
    EXPECT_TRUE(read("2\n\nC 1 2 3\nC 1 2 3 0.5\n").notes.empty());
    EXPECT_TRUE(holdsAll(read("2\nProperties=pos:R:3\n1 2 3\n1 2 3 0.5\n").notes.at(0).text,
                         {":4: a row of frame 0 with more words than its 3 columns; 1 such rows"}));

    struct Case {
        std::string bytes;
        int frame;
        char const* words;
    };
    for (Case const& c :
         {Case{frame(4, 4), 0, "a:6: frame 0 ends after 4 of 5 rows"},
          Case{frame(0, 1) + frame(2, 2) + frame(1, 2), 1,
               "row of frame 1 with 1 of 4 columns; use"},
          Case{frame(0, 1) + "many\n", 1, "a:4: 'many' where the number of atoms of frame 1"},
          Case{"1\n\nC 0 zero 0\n", 0, "a:3: 'zero' where a number for 'pos.y' belongs"},
          Case{"1\nProperties=pos:R:99999999999\n", 0, "a:2: 99999999999 columns of 'pos'"},
          Case{"1\nProperties=pos:Q:3\n", 0, "no column type 'Q'"},
          Case{"1\nProperties=pos:R\n", 0, "Properties lists name:type:columns"},
          Case{"1\nProperties=id:I:1\n7\n", 0, "no column 'pos.x'; it has id"}}) {
        std::string const text = complaintAbout(c.bytes, {.frame = c.frame});
        EXPECT_TRUE(holdsAll(text, {c.words})) << text;
        EXPECT_EQ(text.find("use --frame -1"), std::string::npos);
    }
}

} // namespace
