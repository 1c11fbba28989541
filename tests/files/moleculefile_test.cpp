// PDB and mmCIF: which atoms are read, and the assemblies that are built of them.

#include "pipeline/files/framesource.h"

#include "tests/support/particlefolder.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

using namespace pipeline;
using namespace kelpatest;

namespace {

class Molecules : public ParticleFiles {};

/// The record of an atom, cut into its columns.
std::string atom(std::string const& name, char alternate, std::string const& residue, char chain,
                 int number, float x, std::string const& element) {
    static int serial = 0;
    char line[100];
    std::snprintf(line, sizeof line,
                  "ATOM  %5d %-4s%c%3s %c%4d    %8.3f%8.3f%8.3f%6.2f%6.2f%10s%2s\n",
                  ++serial % 100000, name.c_str(), alternate, residue.c_str(), chain, number,
                  static_cast<double>(x), 2.0, 3.0, 0.5, 20.25, "", element.c_str());
    return line;
}

std::vector<float> xOf(ParticleSet const& particles) {
    std::vector<float> x;
    for (Kelpa::Vector const& position : particles.positions)
        x.push_back(position.x);
    return x;
}

std::string matrix(std::string const& number, float shift) {
    std::string text;
    for (int row = 1; row <= 3; ++row) {
        text += "REMARK 350   BIOMT" + std::to_string(row) + number;
        for (int column = 1; column <= 3; ++column)
            text += row == column ? "  1.000000" : "  0.000000";
        text += "     " + std::to_string(row == 1 ? shift : 0.0F) + "\n";
    }
    return text;
}

} // namespace

TEST_F(Molecules, HoldAtomsAsPdb) {
    std::string const first =
        atom(" CA", ' ', "SER", 'A', 1, 1, " C") + atom(" CB", 'A', "SER", 'A', 1, 2, " C") +
        atom(" CB", 'B', "SER", 'A', 1, 99, " C") +
        // One residue or another at the same place.
        atom(" OG", 'A', "SER", 'A', 2, 3, " O") + atom(" CG2", 'B', "THR", 'A', 2, 99, " C") +
        // Elements by name: mercury, hydrogens old and new, and what is none.
        atom("HG", ' ', "HG", 'B', 1, 4, "") + atom("1HB", ' ', "ALA", 'B', 2, 5, "") +
        atom("HE21", ' ', "GLN", 'B', 3, 6, "") + atom(" D", ' ', "DOD", 'B', 4, 7, " D") +
        atom(" Q9", ' ', "XXX", 'B', 5, 8, " X");
    std::string const others = "MODEL        2\n" + atom(" N", ' ', "SER", 'A', 1, 99, " N");
    ParticleSet const particles =
        read("REMARK   4\nMODEL        1\n" + first + "TER\nENDMDL\n" + others + "ENDMDL\nEND\n",
             {.attributes = {"b_factor", "chain"}});
    EXPECT_EQ(particles.format, "PDB");
    EXPECT_EQ(xOf(particles), (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(particles.elements, (std::vector<std::uint8_t>{6, 6, 8, 80, 1, 1, 1, 0}));
    EXPECT_EQ(particles.unknownElements, std::vector<std::string>{"Q9"});
    EXPECT_EQ(particles.attributes[0].values[7], 20.25F);
    EXPECT_EQ(particles.attributes[1].values[7], 1.0F);
    EXPECT_EQ(particles.ids.size(), 8U);
    EXPECT_TRUE(holdsAll(complaintAbout("MODEL        1\n" + first), {"after 10 atoms without"}));
    std::string const cut = complaintAbout(first.substr(0, first.size() - 40));
    EXPECT_TRUE(holdsAll(cut, {"a:10: the record of an atom ends in column 39"}));
    std::string odd = first;
    odd.replace(79 + 38, 8, " 1.2 3.4");
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"a:2: ", "coordinate y", "columns 39 to 46"}))
        << odd;
    EXPECT_TRUE(holdsAll(complaintAbout("HEADER    X\nEND\n"), {"no ATOM or HETATM"}));
    EXPECT_TRUE(holdsAll(complaintAbout(first, {.frame = 1}), {"no frame 1"}));
}

TEST_F(Molecules, AreFramesWhereAFileHoldsSeveralModels) {
    std::string models =
        "HEADER    X\nCRYST1   10.000   20.000   30.000  90.00 120.00  90.00 P 1\n";
    for (int model = 1; model <= 3; ++model) {
        std::string const number = std::to_string(model);
        models += "MODEL        " + number + "\n";
        for (int copy = 0; copy < model; ++copy)
            models += atom(" N", ' ', "SER", 'A', copy, static_cast<float>(model), " N");
        models += "TER\nENDMDL\n";
    }
    std::string cif = "data_X\nloop_\n_atom_site.Cartn_x\n_atom_site.Cartn_y\n_atom_site.Cartn_z\n"
                      "_atom_site.pdbx_PDB_model_num\n1 0 0 7\n2 0 0 8\n2 0 0 8\n3 0 0 5\n3 0 0 5\n"
                      "3 0 0 5\n#\n";
    for (std::string const& text : {models + "END\n", cif}) {
        for (auto const& [frame, found] : {std::pair{0, 1}, {1, 2}, {2, 3}, {-1, 3}, {-3, 1}}) {
            ParticleSet const set = read(text, {.frame = frame});
            EXPECT_EQ(xOf(set), std::vector<float>(static_cast<std::size_t>(found),
                                                   static_cast<float>(found)));
        }
        EXPECT_EQ(read(text, {.summarise = true}).frameCount, 3);
        EXPECT_TRUE(holdsAll(complaintAbout(text, {.frame = 3}), {"no frame 3; it has 3"}));
        FrameSource source(file("models", text)); // one way through the file
        for (int frame = 0; frame < 3; ++frame) {
            ParticleSet const set = source.read(frame, {});
            EXPECT_EQ(set.positions.size(), static_cast<std::size_t>(frame + 1));
            EXPECT_EQ(set.cell.has_value(), text != cif) << "which stands before the first model";
        }
    }
    PeriodicCell const cell = read(models + "END\n").cell.value();
    EXPECT_NEAR(cell.edges[2][0], -15.0, 1e-9);
    EXPECT_NEAR(cell.edges[2][2], 30.0 * std::sqrt(0.75), 1e-9);
    // Lines of other frames are damaged, not those of this one.
    EXPECT_TRUE(
        holdsAll(read(models.substr(0, models.size() - 12), {.summarise = true}).notes.at(0).text,
                 {"model 2 ends after 3 atoms without an ENDMDL"}));
    EXPECT_TRUE(holdsAll(read("\n#\n" + cif.substr(0, cif.size() - 10)).notes.at(0).text,
                         {":13: the file ends here, behind a row"}));
}

TEST_F(Molecules, MayHaveWhatTheyLikeBehindTheElement) {
    // Before 1996 the entry's name and the number of the line; a charge; letters of a program.
    std::string lines;
    for (char const* const end :
         {"      1ABC 123", "      1ABC1234", "           C2+", "           C 9"})
        lines += atom(" CA", ' ', "SER", 'A', 1, 1, "").substr(0, 66) + end + "\n";
    EXPECT_EQ(read(lines).elements, (std::vector<std::uint8_t>{6, 6, 6, 6}));
}

TEST_F(Molecules, FillTheCellOfACrystal) {
    // Rock salt from one site each, by the name of its group; a monoclinic cell by operations that
    // are listed, with a site on the plane of its mirror, places with doubts, and one without a
    // place.
    std::string const sites =
        "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_fract_x\n"
        "_atom_site_fract_y\n_atom_site_fract_z\n";
    std::string const cube = "_cell_length_a 5.64(1)\n_cell_length_b 5.64(1)\n_cell_length_c 5.64\n"
                             "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 90\n";
    std::string const salt = "data_global\n_journal_year 1913\ndata_salt\n" + cube +
                             "_symmetry_space_group_name_H-M 'F m -3 m'\n" + sites +
                             "Na1 Na+ 0 0 0\nCl1 Cl- 0.5 0.5 0.5\n";
    ParticleSet const crystal = read(salt, {.attributes = {"site", "operation"}});
    EXPECT_EQ(crystal.format, "CIF");
    EXPECT_EQ(crystal.positions.size(), 8U);
    EXPECT_EQ(std::count(crystal.elements.begin(), crystal.elements.end(), 17), 4);
    EXPECT_EQ(crystal.attributes[0].values, (std::vector<float>{1, 1, 1, 1, 2, 2, 2, 2}));
    for (Kelpa::Vector const& place : crystal.positions)
        EXPECT_TRUE(place.x >= 0 && place.x < 5.64F &&
                    std::abs(place.y / 2.82F - std::round(place.y / 2.82F)) < 1e-6F);
    EXPECT_EQ(crystal.cell.value().edges[1][1], 5.64);

    // A dummy, such as the middle of a ring, is no atom.
    std::string dummy = salt;
    dummy.insert(dummy.find("_atom_site_label"), "_atom_site_calc_flag\n");
    dummy.replace(dummy.find("Na1 "), 4, "d Na1 ");
    dummy.replace(dummy.find("Cl1 "), 4, "dum Cl1 ");
    EXPECT_EQ(read(dummy).elements, std::vector<std::uint8_t>(4, 11));

    std::string oblique =
        "data_x\n_cell_length_a 10\n_cell_length_b 8\n_cell_length_c 6\n_cell_angle_alpha 90\n"
        "_cell_angle_beta 120\n_cell_angle_gamma 90\nloop_\n_symmetry_equiv_pos_as_xyz\n"
        "'x, y, z'\n'x, -y, z'\n'1/2+x, 1/2+y, z'\n'1/2+x,1/2-y,z'\n" +
        sites + "Fe1 ? 0.25 0.333(2) 0.5\nO1W . 0.1 0.001 -0.2\nC1 C ? 0 0\n";
    ParticleSet const mirror = read(oblique);
    EXPECT_EQ(mirror.elements, (std::vector<std::uint8_t>{26, 26, 26, 26, 8, 8}));
    EXPECT_NEAR(mirror.positions[0].x, 10 * 0.25 - 6 * 0.5 * 0.5, 1e-5);
    EXPECT_NEAR(mirror.positions[1].y, 8 * (1 - 0.333), 1e-5);
    EXPECT_NEAR(mirror.positions[4].z, 6 * 0.8 * std::sqrt(0.75), 1e-5);
    EXPECT_TRUE(holdsAll(mirror.notes.at(0).text, {"1 sites without a place"}));

    EXPECT_TRUE(holdsAll(read("data_y\n" + cube + sites + "H1 H 0 0 0\n").notes.at(0).text,
                         {"no symmetry"}));
    EXPECT_TRUE(
        holdsAll(complaintAbout("data_y\n" + sites + "H1 H 0 0 0\n"), {"fractions of a cell"}));
    EXPECT_TRUE(holdsAll(complaintAbout(salt, {.assembly = "1"}), {"has no assemblies"}));
    EXPECT_TRUE(holdsAll(complaintAbout(oblique.replace(oblique.find("x, -y"), 5, "x,oops")),
                         {"a: ", "oops"}));
}

TEST_F(Molecules, DrawOneAtomWhereSitesOfACrystalMeet) {
    // Boron nitride whose sites are listed with their images, one across the cell's border; an
    // alloy with copper or more often iron at a place; with a number of atoms as chemists count.
    std::string const cell =
        "data_x\n_cell_length_a 2.51\n_cell_length_b 2.51\n_cell_length_c 6.69\n"
        "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 120\n";
    std::string const sites = "loop_\n_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n"
                              "_atom_site_fract_z\n_atom_site_occupancy\n";
    ParticleSet const nitride = read(cell + "_space_group_IT_number 194\n" + sites +
                                     "N1 0 0 0 1\nN2 0.999 0.001 0.5 1\nB1 0.33333 0.66667 0.1 1\n"
                                     "B2 0.66667 0.33333 0.6 1\n");
    EXPECT_EQ(nitride.elements, (std::vector<std::uint8_t>{7, 7, 5, 5, 5, 5}));
    EXPECT_TRUE(holdsAll(nitride.notes.at(0).text, {"2 sites are images of others"}));

    ParticleSet const alloy = read(cell + "_symmetry_space_group_name_H-M 'P 1'\n" + sites +
                                       "Pt 0 0 0 1\nCu 0.5 0.5 0.5 0.4\nFe 0.5 0.5 0.501 0.6\n"
                                       "Ni 0.2 0 0 0.5\nCo 0.2 0 0 0.5\n",
                                   {.attributes = {"site"}});
    EXPECT_EQ(alloy.elements, (std::vector<std::uint8_t>{78, 26, 28}));
    EXPECT_EQ(alloy.attributes[0].values, (std::vector<float>{1, 3, 4}));
    EXPECT_TRUE(holdsAll(alloy.notes.at(0).text, {"2 sites share", "left out: 'Co', 'Cu'"}));
}

TEST_F(Molecules, TakeTheSettingOfACrystalsGroup) {
    // Magnesite in its rhombohedron has 10 atoms, by the group's name and by its number; silicon
    // has 8, with the origin where Hall's symbol or a letter puts it.
    auto const atomsOf = [&](std::string const& length, std::string const& angle,
                             std::string const& group, std::string const& sites) {
        std::string text = "data_x\n" + group + "\n";
        for (char const* const edge : {"a", "b", "c"})
            text += "_cell_length_" + std::string(edge) + " " + length + "\n";
        for (char const* const corner : {"alpha", "beta", "gamma"})
            text += "_cell_angle_" + std::string(corner) + " " + angle + "\n";
        return read(text +
                    "loop_\n_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n"
                    "_atom_site_fract_z\n" +
                    sites)
            .positions.size();
    };
    std::string const magnesite = "Mg 0 0 0\nC 0.25 0.25 0.25\nO 0.5276 -0.0276 0.25\n";
    for (char const* const group :
         {"_symmetry_space_group_name_H-M 'R -3 c'", "_space_group_IT_number 167",
          "_symmetry_space_group_name_H-M 'R -3 c R'",
          "_space_group_name_Hall '-R 3 2\"c'\n_space_group_IT_number 167"})
        EXPECT_EQ(atomsOf("5.67", "48.2", group, magnesite), 10U) << group;

    std::string const named = "_symmetry_space_group_name_H-M 'F d -3 m";
    for (std::string const& group :
         {named + "'\n_symmetry_space_group_name_Hall '-F 4vw 2vw 3'", named + " Z'",
          named + " :2'\n_symmetry_space_group_name_Hall 'no symbol'"})
        EXPECT_EQ(atomsOf("5.43", "90", group, "Si 0.125 0.125 0.125\n"), 8U) << group;
    EXPECT_EQ(atomsOf("5.43", "90", named + " S'", "Si 0 0 0\n"), 8U);
}

TEST_F(Molecules, BuildAssembliesOfPdb) {
    // Two parts with chains of their own; numbers with and without the usual blanks.
    std::string const remarks = "REMARK 350 BIOMOLECULE: 1\n"
                                "REMARK 350 APPLY THE FOLLOWING TO CHAINS: A,\n"
                                "REMARK 350                    AND CHAINS: C\n" +
                                matrix("   1", 0) + matrix("1000", 10) + matrix("  1001", 20) +
                                "REMARK 350 APPLY THE FOLLOWING TO CHAINS: B\n" +
                                matrix("   1", 40) +
                                "REMARK 350 BIOMOLECULE: 2\n"
                                "REMARK 350 APPLY THE FOLLOWING TO CHAINS: Z\n" +
                                matrix("   1", 0);
    std::string const atoms = atom(" C", ' ', "ALA", 'A', 1, 1, " C") +
                              atom(" C", ' ', "ALA", 'B', 1, 2, " C") +
                              atom(" O", ' ', "ALA", 'C', 1, 3, " O") + "END\n";
    ReadOptions const options{.assembly = "1", .attributes = {"copy"}};
    ParticleSet const particles = read(remarks + atoms, options);
    EXPECT_EQ(xOf(particles), (std::vector<float>{1, 3, 11, 13, 21, 23, 42}));
    EXPECT_EQ(particles.attributes[0].values, (std::vector<float>{1, 1, 2, 2, 3, 3, 4}));
    EXPECT_EQ(particles.elements.back(), 6);
    EXPECT_TRUE(particles.ids.empty()); // several copies have the same
    EXPECT_EQ(read(remarks + atoms).positions.size(), 3U);

    std::string const lost = remarks.substr(0, remarks.find("REMARK 350   BIOMT3 "));
    EXPECT_TRUE(holdsAll(complaintAbout(remarks + atoms, {.assembly = "3"}),
                         {"no assembly '3'; it has 1 2"}));
    EXPECT_TRUE(holdsAll(complaintAbout(remarks + atoms, {.assembly = "2"}), {"has 0 atoms"}));
    EXPECT_TRUE(holdsAll(complaintAbout(atoms, options), {"describes no assembly"}));
    EXPECT_TRUE(holdsAll(complaintAbout(lost + matrix("   2", 0) + atoms, options),
                         {"row '1' of BIOMT matrix '2' where row 3"}));
    EXPECT_TRUE(holdsAll(complaintAbout(lost + remarks + atoms, options), {"has 2 of 3 rows"}));
    EXPECT_TRUE(holdsAll(complaintAbout("1\n\nH 0 0 0\n", options), {"XYZ has no assemblies"}));
}

TEST_F(Molecules, HoldAtomsAndAssembliesAsMmCif) {
    std::string const text =
        "# comment\n\ndata_TEST\nloop_\n_atom_site.id\n_atom_site.type_symbol\n"
        "_atom_site.label_atom_id\n_atom_site.label_alt_id\n_atom_site.label_comp_id\n"
        "_atom_site.label_asym_id\n_atom_site.auth_seq_id\n_atom_site.Cartn_x\n"
        "_atom_site.Cartn_y\n_atom_site.Cartn_z\n_atom_site.pdbx_PDB_model_num\n"
        "7 C CA . SER A 1 1.0(2) 2 3 1\n8 ZN \"C'\" A SER A 1 2 2 3 1\n"
        "9 C \"C'\" B SER A 1 99 2 3 1\n10 O O . HOH B 1 4 2 3 1\n11 N N . SER A 1 99 2 3 2\n"
        "loop_\n_pdbx_struct_assembly_gen.assembly_id\n"
        "_pdbx_struct_assembly_gen.oper_expression\n_pdbx_struct_assembly_gen.asym_id_list\n"
        "1 '(P)(1-2)' A\n1 X B\nPAU (1)(3) A,B\n"
        "loop_\n_pdbx_struct_oper_list.id\n_pdbx_struct_oper_list.matrix[1][1]\n"
        "_pdbx_struct_oper_list.matrix[1][2]\n_pdbx_struct_oper_list.matrix[1][3]\n"
        "_pdbx_struct_oper_list.vector[1]\n_pdbx_struct_oper_list.matrix[2][1]\n"
        "_pdbx_struct_oper_list.matrix[2][2]\n_pdbx_struct_oper_list.matrix[2][3]\n"
        "_pdbx_struct_oper_list.vector[2]\n_pdbx_struct_oper_list.matrix[3][1]\n"
        "_pdbx_struct_oper_list.matrix[3][2]\n_pdbx_struct_oper_list.matrix[3][3]\n"
        "_pdbx_struct_oper_list.vector[3]\n"
        "P 2 0 0 0 0 1 0 0 0 0 1 0\n1 1 0 0 10 0 1 0 0 0 0 1 0\n"
        "2 1 0 0 100 0 1 0 0 0 0 1 0\nX 0 1 0 0 1 0 0 0 0 0 1 0.5\n";
    ParticleSet const plain = read(text);
    EXPECT_EQ(plain.format, "mmCIF");
    EXPECT_EQ(xOf(plain), (std::vector<float>{1, 2, 4}));
    EXPECT_EQ(plain.elements, (std::vector<std::uint8_t>{6, 30, 8}));
    EXPECT_EQ(plain.ids, (std::vector<std::int64_t>{7, 8, 10}));
    // Moved first and doubled then; the other chain with x and y exchanged.
    ParticleSet const whole = read(text, {.assembly = "1"});
    EXPECT_EQ(xOf(whole), (std::vector<float>{22, 24, 202, 204, 2}));
    EXPECT_TRUE(same(whole.positions[4], {2, 4, 3.5F}));
    EXPECT_TRUE(
        holdsAll(complaintAbout(text, {.assembly = "PAU"}), {"operator '3', which is not"}));
    EXPECT_TRUE(holdsAll(complaintAbout(text, {.assembly = "2"}), {"it has 1 PAU"}));

    EXPECT_TRUE(holdsAll(complaintAbout(text.substr(0, text.find("\nloop_\n_pdbx")) + " 5"),
                         {"a:", "damaged or incomplete"}));
    EXPECT_TRUE(holdsAll(complaintAbout("data_X\n_cell.a 1\n"),
                         {"neither _atom_site.Cartn_x nor _atom_site_fract_x"}));
    std::string odd = text;
    odd.replace(odd.find("4 2 3 1"), 1, "?");
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"row 4 of _atom_site: '' where Cartn_x"}));
}
