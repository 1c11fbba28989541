// Columns of names: chains, residues, atoms, kinds, from every format that has them.
#include "pipeline/files/plywriter.h"

#include "tests/support/particlefolder.h"

#include <functional>

using namespace pipeline;
using namespace kelpatest;

namespace {

class Names : public ParticleFiles {};

/// A column's values as the names that they count, with blanks between.
std::string wordsOf(Attribute const& column) {
    std::string words;
    for (float const value : column.values)
        words += (words.empty() ? "" : " ") +
                 (column.names ? column.names->all().at(static_cast<std::size_t>(value)) : "-");
    return words;
}

std::string const labelled = "t\n\n3 atoms\n2 atom types\n0 9 xlo xhi\n0 9 ylo yhi\n0 9 zlo zhi\n\n"
                             "Atom Type Labels\n\n2 hot # last\n1 cold\n\nAtoms\n\n"
                             "1 hot 1 1 1\n2 1 2 2 2\n3 2 3 3 3\n";

} // namespace

TEST_F(Names, AreColumnsOfEveryFormatThatHasThem) {
    struct Case {
        std::string text;
        std::vector<std::string> columns;
        std::vector<std::string> words;
    };
    std::string const cif = "data_X\nloop_\n_atom_site.Cartn_x\n_atom_site.Cartn_y\n"
                            "_atom_site.Cartn_z\n_atom_site.label_atom_id\n"
                            "_atom_site.label_comp_id\n_atom_site.label_asym_id\n";
    std::string const crystal = "data_X\n_cell_length_a 5\n_cell_length_b 5\n_cell_length_c 5\n"
                                "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 90\n"
                                "loop_\n_symmetry_equiv_pos_as_xyz\nx,y,z\n-x,-y,-z\nloop_\n"
                                "_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n"
                                "_atom_site_fract_z\nFe1 0 0 0\nO2 .1 .2 .3\n";
    std::string const dump = "ITEM: TIMESTEP\n0\nITEM: NUMBER OF ATOMS\n3\nITEM: ATOMS x y z "
                             "element label\n1 2 3 O wet\n1 2 4 H dry\n1 2 5 O wet\n";
    for (Case const& c :
         {Case{"ATOM      1  CA  SER A   1       1.000   2.000   3.000  1.00  0.00           C\n"
               "ATOM      2  CB  SER B   1       1.000   2.000   3.000  1.00  0.00           C\n"
               "ATOM      3  CA  GLY A   2       1.000   2.000   3.000  1.00  0.00           C\n",
               {"name", "residue_name", "chain", "element"},
               {"CA CB CA", "SER SER GLY", "A B A", "C C C"}},
          Case{cif + "1 2 3 CA GLY BB\n1 2 3 \"O5'\" DA AA\n",
               {"name", "residue_name", "chain"},
               {"CA O5'", "GLY DA", "BB AA"}},
          Case{crystal, {"name", "element"}, {"Fe1 O2 O2", "Fe O O"}},
          Case{"t\n3\n    1SOL     OW    1   0.100   0.200   0.300\n"
               "    1SOL     MW    2   0.100   0.200   0.300\n"
               "    2NA+     NA    3   0.100   0.200   0.300\n1 1 1\n",
               {"name", "residue_name", "element"},
               {"OW NA", "SOL NA+", "O Na"}},
          Case{"2\nProperties=species:S:1:pos:R:3:site:S:1\nFe 1 2 3 top\nQ 1 2 3 side\n",
               {"species", "site"},
               {"Fe ?", "top side"}},
          Case{dump, {"label", "element"}, {"wet dry wet", "O H O"}},
          Case{labelled, {"type"}, {"hot cold hot"}}}) {
        SCOPED_TRACE(c.text);
        ParticleSet const set = read(c.text, {.attributes = c.columns});
        for (std::size_t i = 0; i < c.columns.size(); ++i)
            EXPECT_EQ(wordsOf(set.attributes.at(i)), c.words[i]) << c.columns[i];
        // They also come back from PLY, from which elements are kept as numbers.
        ParticleSet const whole = read(c.text, {.allAttributes = true});
        std::string const ply = (folder / "a.ply").string();
        writePly(ply, whole, true, {});
        for (std::size_t i = 0; i < c.columns.size(); ++i)
            if (c.columns[i] != "species") {
                ParticleSet const again = readParticleFile(ply, {.attributes = {c.columns[i]}});
                EXPECT_EQ(wordsOf(again.attributes.at(0)), c.words[i]) << c.columns[i];
            }
    }
}

TEST_F(Names, AreLabelsOfTypesInLammpsData) {
    EXPECT_EQ(read(labelled).types, (std::vector<std::int64_t>{2, 1, 2}));
    EXPECT_EQ(read(labelled).typeNames->all()[2], "hot");
    for (auto const& [from, to] : {std::pair{"2 hot", "1 hot"}, {"2 hot", "3 hot"}}) {
        std::string damaged = labelled;
        EXPECT_TRUE(holdsAll(complaintAbout(damaged.replace(labelled.find(from), 5, to)),
                             {"a type from 1 to 2 and its label"}));
    }
    std::string twice = labelled;
    EXPECT_TRUE(holdsAll(complaintAbout(twice.replace(labelled.find("cold"), 4, "hot ")),
                         {"'hot' stands for two types"}));
}

TEST_F(Names, AreCountedInSummaries) {
    ParticleSet const set = read(
        "3\nProperties=pos:R:3:site:S:1\n1 2 3 top\n1 2 3 side\n1 2 3 top\n", {.summarise = true});
    AttributeSummary const& site = set.columns.back();
    EXPECT_EQ(site.names->all(), (std::vector<std::string>{"top", "side"}));
    EXPECT_EQ(site.counts, (std::vector<std::uint64_t>{2, 1}));
}

TEST_F(Names, ThatDifferInWhatAHeaderCannotHoldStayApartInPly) {
    auto const names = std::make_shared<NameTable>();
    ParticleSet set;
    for (std::string const name : {"a b", "a_b", ""})
        set.attributes = {{"kind", {0, 1, static_cast<float>(names->numberOf(name))}, {}, names}};
    set.positions.resize(3);
    writePly((folder / "a.ply").string(), set, false, {});
    ParticleSet const again =
        readParticleFile((folder / "a.ply").string(), {.attributes = {"kind"}});
    EXPECT_EQ(wordsOf(again.attributes[0]), "a_b a_b_ _");
}

TEST(NameTables, GiveAllThatAreTooManyOneNumber) {
    NameTable names;
    for (std::size_t i = 0; i < NameTable::most; ++i)
        names.numberOf(std::to_string(i));
    EXPECT_EQ(names.numberOf("more"), NameTable::most);
    EXPECT_EQ(names.numberOf("and more"), NameTable::most);
    EXPECT_EQ(names.numberOf("17"), 17U);
    EXPECT_EQ(names.all().size(), NameTable::most + 1);
}
