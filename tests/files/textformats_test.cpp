// LAMMPS dumps and GRO files: what they hold, and what is wrong with them.

#include "tests/support/particlefolder.h"

#include <cmath>

using namespace pipeline;
using namespace kelpatest;

namespace {

class TextFormats : public ParticleFiles {};

/// A dump's frame of two atoms; `columns` are those behind the id and `rows` their values.
std::string frame(int step, std::string const& box, std::string const& columns,
                  std::string const& rows) {
    return "ITEM: TIMESTEP\n" + std::to_string(step) + "\nITEM: NUMBER OF ATOMS\n2\n" +
           "ITEM: BOX BOUNDS" + box + "ITEM: ATOMS id " + columns + "\n" + rows;
}

constexpr char const* cube = " pp pp fs\n1 3\n2 6\n0 1e1\n";
constexpr char const* rest = "8 .25 .25 .25\n7 0 0 0\n";

} // namespace

TEST_F(TextFormats, HoldTheSamePlaceInEveryCoordinateOfADump) {
    // A tilted box from (0, 0, 0) with edges (4, 0, 0), (1, 4, 0) and (-2, 1, 4), whose bounds are
    // those of the box around it; the same box moved, told edge by edge.
    std::string const tilted = " xy xz yz pp pp pp\n-2 5 1\n0 5 -2\n0 4 1\n";
    std::string const general = " abc origin pp pp pp\n4 0 0 -2\n1 4 0 0\n-2 1 4 0\n";
    struct Case {
        std::string text;
        Kelpa::Vector place;
        bool isUnwrapped;
        bool forMotion = false;
    };
    for (Case const& c :
         {Case{frame(0, cube, "xs ys zs", rest), {1.5F, 3.0F, 2.5F}, false},
          Case{frame(0, tilted, "xs ys zs", rest), {0.75F, 1.25F, 1.0F}, false},
          Case{frame(0, general, "xsu ysu zsu", rest), {-1.25F, 1.25F, 1.0F}, true},
          Case{frame(0, "\n0 1\n0 1\n0 1\n", "x y z", rest), {.25F, .25F, .25F}, false},
          Case{frame(0, cube, "x y z xu yu zu", "8 5 5 5 1 2 3\n7 0 0 0 0 0 0\n"), {1, 2, 3}, true},
          Case{frame(0, cube, "xsu x y z ysu zsu", "8 2 9 8 7 2 2\n7 0 0 0 0 0 0\n"),
               {9, 8, 7},
               false},
          Case{frame(0, cube, "xsu x y z ysu zsu", "8 2 9 8 7 2 2\n7 0 0 0 0 0 0\n"),
               {5, 10, 20},
               true,
               true}}) {
        ReadOptions options;
        options.forMotion = c.forMotion;
        ParticleSet const set = read(c.text, options);
        ASSERT_EQ(set.ids, (std::vector<std::int64_t>{8, 7}));
        EXPECT_TRUE(same(set.positions[0], c.place))
            << c.text << set.positions[0].x << " " << set.positions[0].y << " "
            << set.positions[0].z;
        EXPECT_EQ(set.isUnwrapped, c.isUnwrapped);
    }
    // What else rows tell, and words that are no numbers.
    std::string const text =
        "ITEM: UNITS\nmetal\n" +
        frame(5, cube, "mol type x y z", "1 lipid 2 1 1 1\n2 water 3 1 1 1\n") +
        frame(-6, cube, "element label x y z ix iy iz vx vy vz diameter c_pe",
              "1 Si a-1 1 2 3 0 -1 2 4 5 6 3 -.5\r\n2 Xx 7 1 2 3 0 -1 2 4 5 6 3 nan\n");
    EXPECT_EQ(read(text, {.summarise = true}).types, (std::vector<std::int64_t>{2, 3}));
    ParticleSet const set = read(text, {.frame = -1, .attributes = {"c_pe"}, .summarise = true});
    EXPECT_EQ(set.frameCount, 2);
    EXPECT_EQ(set.elements, (std::vector<std::uint8_t>{14, 0}));
    EXPECT_EQ(set.unknownElements, std::vector<std::string>{"Xx"});
    EXPECT_TRUE(same(set.images.at(0), {0, -1, 2}) && same(set.velocities.at(1), {4, 5, 6}));
    EXPECT_EQ(set.radii, (std::vector<float>{1.5F, 1.5F}));
    EXPECT_EQ(set.attributes.at(0).values[0], -0.5F);
    EXPECT_EQ(set.columns.size(), 14U); // the text too
    EXPECT_EQ(set.cell.value().isPeriodic, (std::array<bool, 3>{true, true, false}));
    EXPECT_EQ(set.cell->edges[1][1], 4.0);
}

TEST_F(TextFormats, HoldAtomsInTheColumnsOfGro) {
    std::string const box = "   4.00000   4.00000   3.00000   0.0 0.0 1.0 0.0 0.0 2.0\n";
    std::string const plain = "3\n    5\n"
                              "    1SOL     OW99998   1.000   2.000  -3.000\n"
                              "    1SOL    HW199999   1.000   2.000  -3.000\n"
                              "    1SOL     MW    0   1.000   2.000  -3.000\n"
                              "    2ALA     CA    1   1.000   2.000  -3.000\n"
                              "    3CA      CA    2   1.000   2.000  -3.000\n" +
                              box;
    std::string const precise =
        "moving\n 2\n"
        "    1MET    1HB    1   1.00000   2.00000-123.00000  0.100000  0.200000  0.300000\n"
        "    1NA+     NA    2   1.00000   2.00000   3.00000\n   0 0 0\n";
    ParticleSet const set = read(plain);
    EXPECT_EQ(set.format, "GRO");
    EXPECT_EQ(set.elements, (std::vector<std::uint8_t>{8, 1, 6, 20}));
    EXPECT_EQ(set.ids, (std::vector<std::int64_t>{99998, 99999, 100001, 100002}));
    EXPECT_TRUE(same(set.positions[0], {1, 2, -3}));
    EXPECT_EQ(set.cell.value().edges[1][0], 1.0);
    EXPECT_EQ(set.cell->edges[2][1], 2.0);
    EXPECT_EQ(set.angstrom, 0.1F);

    ParticleSet const last = read(plain + precise + "\n\n", {.frame = -1});
    EXPECT_EQ(last.frameCount, 2);
    EXPECT_EQ(last.elements, (std::vector<std::uint8_t>{1, 11}));
    EXPECT_TRUE(same(last.positions[0], {1, 2, -123}));
    EXPECT_TRUE(same(last.velocities[0], {.1F, .2F, .3F}));
    EXPECT_TRUE(same(last.velocities[1], {0, 0, 0}));
    EXPECT_FALSE(last.cell.value().isPeriodic[0]);
}

TEST_F(TextFormats, HoldAtomsOfEveryStyleAsLammpsData) {
    std::string const head =
        "title\n\n2 atoms # so many\n3 atom types\n1 bonds\n-1 3 xlo xhi\n"
        "0 4 ylo yhi\n0 4 zlo zhi\n1 0 -2 xy xz yz\n\nMasses\n\n1 12.0 # C\n2 1\n3 "
        "16\n\n";
    std::string const velocities = "\nBonds\n\n1 1 1 2\n\nVelocities\n\n7 4 5 6\n9 1 2 3\n";
    struct Case {
        char const* style;
        char const* first;
        char const* second;
        char const* notes; ///< of the style that rows are told to be of; empty: none
        std::vector<std::int64_t> types{3, 1};
    };
    for (Case const& c : {Case{"Atoms", "9 3 1 2 3", "7 1 0 0 0", "atomic (id type x y z)"},
                          Case{"Atoms # atomic", "9 3 1 2 3", "7 1 0 0 0 # hydrogen", ""},
                          Case{"Atoms # atomic", "9 3 1 2 3 0 -1 2", "7 1 0 0 0 0 0 0", ""},
                          Case{"Atoms", "9 3 1.0 2.0 3.0 0 -1 2", "7 1 0 0 0 0 0 0", "atomic"},
                          Case{"Atoms # charge", "9 3 1 1 2 3", "7 1 1 0 0 0", ""},
                          Case{"Atoms", "9 8 3 1 2 3", "7 8 1 0 0 0", "molecular"},
                          Case{"Atoms", "9 3 0 1 2 3", "7 1 1 0 0 0", "charge"},
                          Case{"Atoms", "9 8 3 -0.8 1 2 3", "7 8 1 0.4 0 0 0", "full"},
                          Case{"Atoms # hybrid", "9 3 1 2 3 0.5 8", "7 1 0 0 0 0.5 8", ""},
                          Case{"Atoms # sphere", "9 3 0.5 1 1 2 3", "7 1 0.5 1 0 0 0", ""}}) {
        std::string const text = head + c.style + "\n\n" + c.first + "\n" + c.second + "\n";
        SCOPED_TRACE(text);
        ParticleSet const set = read(text + velocities);
        EXPECT_EQ(set.format, "LAMMPS data");
        EXPECT_TRUE(same(set.positions.at(0), {1, 2, 3}) && same(set.positions.at(1), {0, 0, 0}));
        EXPECT_TRUE(same(set.velocities.at(0), {1, 2, 3}) && same(set.velocities[1], {4, 5, 6}));
        EXPECT_EQ(set.types, c.types);
        EXPECT_EQ(set.ids, (std::vector<std::int64_t>{9, 7}));
        EXPECT_EQ(set.images.empty(), std::string(c.first).find("0 -1 2") == std::string::npos);
        EXPECT_EQ(set.notes.size(), *c.notes == '\0' ? 0U : 1U);
        EXPECT_TRUE(set.notes.empty() || holdsAll(set.notes[0].text, {c.notes}));
        EXPECT_EQ(set.radii.empty(), std::string(c.style) != "Atoms # sphere");
        EXPECT_EQ(set.cell.value().edges[2], (std::array<double, 3>{0, -2, 4}));
    }
    std::string const atoms = head + "Atoms # atomic\n\n9 3 1 2 3\n";
    EXPECT_TRUE(holdsAll(complaintAbout(atoms + "\n7 1 0 0 0\n"),
                         {"a:19: the section Atoms ends after 1 of 2 rows"}));
    EXPECT_TRUE(
        holdsAll(complaintAbout(atoms + "7 1 0 x 0\n"), {"a:20: 'x' where a number for 'y'"}));
    EXPECT_TRUE(holdsAll(complaintAbout(atoms + "7 1 0 0 0\n\nVelocities\n\n8 1 1 1\n"),
                         {"a:24: an atom's id, which Atoms has"}));
    EXPECT_TRUE(
        holdsAll(complaintAbout(head + "Atoms\n\n1 one 2 3\n"), {"no style that is known"}));
    EXPECT_TRUE(holdsAll(complaintAbout(head), {"no section Atoms"}));
}

TEST_F(TextFormats, SayWhereTheyAreDamagedAndWhichFramesAreGood) {
    std::string const good = frame(0, cube, "x y z", rest);
    struct Case {
        std::string text;
        std::string complaint;
        int frameNumber = -1;
    };
    for (
        Case const& c : {
            Case{
                good + frame(9000, cube, "x y z", "1 2 3 4\n\n"),
                "a:21: frame at step 9000 ends after 1 of 2 rows; use --frame 0 or an earlier one"},
            Case{frame(7, cube, "x y z", "1 2 3 4\n") + good,
                 "a:10: frame at step 7 ends after 1 of 2 rows", 0},
            Case{frame(7, cube, "x y z", "1 2 3 4\n") + good,
                 "a:10: frame at step 7 ends after 1 of 2 rows"},
            Case{good + "8 1 1 1\n", "a:12: '8 1 1 1' where 'ITEM:' belongs"},
            Case{good + "ITEM: TIMESTEP\n", "a:12: frame 1 ends before its time step; use --fra"},
            Case{good + "ITEM: TIMESTEP\nx\n", "a:13: 'x' where the time step of frame 1 belongs"},
            Case{frame(1, cube, "x y z", "1 2 3\n"), "a:10: a row of frame at step 1 with 3 of 4",
                 0},
            Case{frame(1, cube, "x y z", "1 2 k 3\n"), "a:10: 'k' where a number for 'y' belongs",
                 0},
            Case{frame(1, cube, "x y", rest), "a: no column 'z'; it has id x y"},
            Case{frame(1, " pp pp pp\n0 1\n0\n0 1\n", "x y z", rest),
                 "a:7: '0' where 2 bounds of the box of frame at step 1 belong"},
            Case{"ITEM: TIMESTEP\n3\nITEM: NUMBER OF ATOMS\n-1\n", "a:4: '-1' where the number of"},
            Case{"ITEM: TIMESTEP\n3\nITEM: NUMBER OF ATOMS\n18446744073709551615\nITEM: ATOMS id x "
                 "y z\n",
                 "a:5: frame at step 3 ends after 0 of 18446744073709551615 rows"},
            Case{"ITEM: NUMBER OF ATOMS\n1\nITEM: ATOMS xs ys zs\n1 1 1\n",
                 "BOX BOUNDS is missing"},
            Case{"ITEM: TIMESTEP\n3\nITEM: ATOMS x y z\n", "before the item NUMBER OF ATOMS"},
            Case{"ITEM: TIMESTEP\n3\nITEM: NUMBER OF ENTRIES\n3\n", "'NUMBER OF ENTRIES', which"},
            Case{"t\n 1\n    1SOL     OW    1   1.000   2.000\n",
                 "a:3: '' where a number for 'z' belongs, in columns 37 to 44"},
            Case{"t\n 1\n    1SOL     OW    x   1.000   2.000   1.000\n",
                 "a:3: 'x' where the atom's number belongs, in columns 16 to 20"},
            Case{"t\n 2\n    1SOL     OW    1   1.000   2.000   1.000\n",
                 "a:3: frame 0 ends after 1 of 2 rows"},
            Case{"t\n 1\n    1SOL     OW    1   1.000   2.000   1.000\n 1 1 x\n",
                 "a:4: ' 1 1 x' where the box of frame 0 belongs"},
        }) {
        ReadOptions options;
        options.format = c.text.starts_with("ITEM") ? "lammps" : "gro";
        options.frame = c.frameNumber;
        std::string const text = complaintAbout(c.text, options);
        EXPECT_TRUE(holdsAll(text, {c.complaint})) << text << "\ninstead of " << c.complaint;
    }
    ParticleSet const wide = read(frame(1, cube, "x y z", "1 2 3 4\n2 2 3 4 5 6\n"));
    EXPECT_TRUE(
        holdsAll(wide.notes.at(0).text, {":11: a row of frame at step 1 with more words than"}));
    EXPECT_TRUE(read(good).notes.empty());
    ParticleSet const whole =
        read(good + frame(1, cube, "x y z", "1 2 3 4\n"), {.summarise = true});
    EXPECT_EQ(whole.frameCount, 1);
    EXPECT_TRUE(holdsAll(whole.notes.at(0).text, {"ends after 1 of 2 rows"}));
}
