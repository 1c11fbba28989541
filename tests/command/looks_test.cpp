// What the command's user says of colours and radii, and what the picture then shows.

#include "pipeline/picture/colorbar.h"

#include "tests/support/command.h"

#include <cmath>

namespace {

using namespace kelpatest;

class Looks : public Command {
  protected:
    /// Renders four particles in a row along x, 2 apart, with radius 0.5 and without light.
    Picture renderRow(Words words) const {
        write("row.xyz", "4\nProperties=species:S:1:pos:R:3:radius:R:1:mol:I:1:force:R:3\n"
                         "O 0 0 0 .5 1 0 0 0\nH 2 0 0 .5 2 1 0 0\n"
                         "Fe 4 0 0 .5 11 0 2 0\nO 6 0 0 .5 12 2 1 2\n");
        Words const look = {"row.xyz", "--view", "front", "--shade", "flat"};
        words.insert(words.begin(), look.begin(), look.end());
        return render(words);
    }
    /// The pixel in the middle of one of them, as #rrggbb.
    static std::string colorOf(Picture const& picture, int sphere) {
        auto const x = static_cast<std::size_t>(std::lround(35.0 + (sphere - 1.5) * 19.0));
        std::string code = "#";
        for (std::size_t i = 0; i < 3; ++i)
            code += fmt::format("{:02x}",
                                static_cast<unsigned char>(picture.bytes[3 * (25 * 70 + x) + i]));
        return code;
    }
    std::string renderedMiddle(Words const& words) const {
        Picture const picture = render(words);
        std::string code = "#";
        for (std::size_t i = 0; i < 3; ++i)
            code += fmt::format("{:02x}",
                                static_cast<unsigned char>(picture.bytes[3 * (25 * 70 + 35) + i]));
        return code;
    }
    static Words colorsOf(Picture const& picture) {
        return {colorOf(picture, 0), colorOf(picture, 1), colorOf(picture, 2), colorOf(picture, 3)};
    }
};

TEST_F(Looks, ShowNumbersByTheMapsOfTheField) {
    Words const byForce = {"--color-by", "force", "--range", "0:3", "--colormap"};
    auto const with = [&](char const* map) {
        Words words = byForce;
        words.emplace_back(map);
        return colorsOf(renderRow(words));
    };
    // matplotlib.colormaps["magma"]([0, 1/3, 2/3, 1.0]), rounded to codes
    EXPECT_EQ(with("magma"), (Words{"#000004", "#721f81", "#f1605d", "#fcfdbf"}));
    EXPECT_EQ(with("Magma_R"), (Words{"#fcfdbf", "#f1605d", "#721f81", "#000004"}));
    EXPECT_EQ(with("coolwarm")[0], "#3b4cc0");
    EXPECT_TRUE(contains(read("stderr"), "colours show force (length of force.x force.y force.z)"));
    EXPECT_EQ(colorsOf(renderRow({"--color-by", "mol", "--colormap", "viridis"}))[0], "#440154");
    Words const kinds = colorsOf(renderRow({"--color-by", "mol"}));
    EXPECT_EQ(kinds[0], kinds[2]) << "the eleventh kind looks like the first";
    EXPECT_EQ(kinds[1], kinds[3]);
    EXPECT_NE(kinds[0], kinds[1]);
}

TEST_F(Looks, SetKindsApartFromTheOthers) {
    EXPECT_EQ(colorsOf(renderRow({"--color", "white", "--colors", "O=red,Fe=#012"})),
              (Words{"#ff0000", "#ffffff", "#001122", "#ff0000"}));
    EXPECT_EQ(colorsOf(renderRow({"--colors", "h=blue,N=red"})),
              (Words{"#ff0d0d", "#0000ff", "#e06633", "#ff0d0d"}));
    EXPECT_TRUE(contains(read("stderr"), "no particle is of kind 'N'; there are H O Fe\n"));
    // The file's radii but for one of them, which now reaches to its neighbours.
    EXPECT_EQ(colorsOf(renderRow({"--radii", "O=1e-3,Fe=2.5"}))[1], "#e06633");
    write("types.dump", "ITEM: TIMESTEP\n0\nITEM: NUMBER OF ATOMS\n2\nITEM: BOX BOUNDS\n0 9\n0 9\n"
                        "0 9\nITEM: ATOMS id type x y z\n1 1 0 0 0\n2 7 4 0 0\n");
    Words const typed = {"render", "types.dump", "-o", "a.ppm", "--size", "9x9"};
    auto const told = [&](Words more) {
        more.insert(more.begin(), typed.begin(), typed.end());
        return run(more).err;
    };
    EXPECT_FALSE(contains(told({"--radii", "1=1,7=2"}), "no radius in")) << "all radii are said";
    EXPECT_TRUE(contains(told({"--colors", "2=red"}), "no particle is of kind '2'; there are 1 7"));
    EXPECT_TRUE(contains(told({"--colors", "O=red"}),
                         "types.dump: no kind of particles is called 'O'; there are types 1 7"));
}

TEST_F(Looks, KnowNamesInColumns) {
    write("names.xyz", "3\nProperties=species:S:1:pos:R:3:radius:R:1:chain:S:1\n"
                       "O 0 0 0 .5 A\nH 3 0 0 .5 B\nH 6 0 0 .5 A\n");
    Words const look = {"names.xyz", "--view", "front", "--shade", "flat", "--color-by"};
    auto const middle = [&](Words words) {
        words.insert(words.begin(), look.begin(), look.end());
        return renderedMiddle(words);
    };
    EXPECT_EQ(middle({"chain", "--colors", "B=#123456,C=red"}), "#123456");
    EXPECT_TRUE(contains(read("stderr"), "no particle is of kind 'C'; there are A B\n"));
    EXPECT_EQ(middle({"element"}), "#ffffff") << "hydrogen's own, though the column is 'species'";
    EXPECT_EQ(middle({"chain", "--select", "chain == B", "--colors", "B=red"}), "#ff0000");
    EXPECT_TRUE(contains(read("stderr"), "1 of 3 particles are shown"));
}

TEST_F(Looks, ShowTheCellBehindAndBeforeParticles) {
    // A tilted cell around one particle, from the front: its corners lean to the right.
    write("cell.xyz", "1\nLattice=\"4 0 0 0 4 0 2 0 4\" Properties=species:S:1:pos:R:3:radius:R:1\n"
                      "O 3 0 2 .8\n");
    Words const look = {"cell.xyz", "--view",       "front", "--ortho", "--shade",
                        "flat",     "--background", "white", "--cell",  "--color",
                        "red",      "--cell-color", "blue"};
    Picture const picture = render(look);
    // The edges are thinner than these pixels.
    std::size_t bluish = 0;
    for (std::size_t i = 0; i < picture.bytes.size(); i += 3)
        bluish += static_cast<unsigned char>(picture.bytes[i]) + 20 <
                          static_cast<unsigned char>(picture.bytes[i + 2])
                      ? 1
                      : 0;
    EXPECT_GT(bluish, 20U);
    // The particle lies in the front face's plane y = 0 and hides what is behind it.
    EXPECT_EQ(picture.bytes.substr(3 * (25 * 70 + 35), 3), std::string("\xff\0\0", 3));
    write("bare.ply", plyOf("x y z radius", {"0 0 0 1"}));
    EXPECT_TRUE(contains(run({"render", "bare.ply", "-o", "a.png", "--cell"}).err,
                         "bare.ply: has no cell to draw"));
}

TEST_F(Looks, ListTheNamesThereAre) {
    for (auto const& [words, says] : std::vector<std::pair<Words, std::string>>{
             {{"--color-by", "q", "--colormap", "jet"},
              "'jet' is no colour map; there are viridis, magma, inferno, plasma, cividis, turbo"},
             {{"--colors", "red"}, "--colors: 'red' is not of the form O=red,1=#c33"},
             {{"--colors", "O=reed"}, "--colors: 'reed' is no colour"},
             {{"--radii", "ionic"}, "'ionic' is none of vdw, covalent, and no list"},
             {{"--radii", "O=-1"}, "--radii: '-1' is no radius"},
             {{"--radii", "covalent", "--radius", "1"}, "--radii excludes --radius"}}) {
        Words full = {"render", "row.xyz", "-o", "a.ppm"};
        full.insert(full.end(), words.begin(), words.end());
        Answer const answer = run(full);
        EXPECT_EQ(answer.code, 2);
        EXPECT_TRUE(contains(answer.err, says)) << answer.err;
    }
}

TEST_F(Looks, TellWhatTheyMean) {
    auto const pixelsThatDiffer = [](Picture const& a, Picture const& b) {
        int count = 0;
        for (std::size_t i = 0; i < a.bytes.size(); i += 3)
            count += a.bytes.compare(i, 3, b.bytes, i, 3) != 0 ? 1 : 0;
        return count;
    };
    Words const byForce = {"--color-by", "force", "--range", "0:3", "--colormap", "magma"};
    Words withBar = byForce;
    withBar.emplace_back("--colorbar=F");
    Picture const bare = renderRow(byForce);
    Picture const bar = renderRow(withBar);
    EXPECT_GT(pixelsThatDiffer(bare, bar), 300);
    for (std::size_t row = 0; row < 50; ++row) // only on the right
        EXPECT_EQ(bar.bytes.substr(3 * 70 * row, 3 * 10), bare.bytes.substr(3 * 70 * row, 3 * 10));
    // Kinds have squares of their colours: of iron 11 pixels wide, beside the sphere's.
    Picture const kinds = renderRow({"--colorbar"});
    EXPECT_TRUE(contains(kinds.bytes, [] {
        std::string square;
        for (int i = 0; i < 11; ++i)
            square += "\xe0\x66\x33";
        return square;
    }()));
    EXPECT_EQ(pipeline::ticksOf(-0.3, 0.7),
              (std::vector<double>{-0.2, 0.0, 0.2, 0.4, 0.6000000000000001}));
    EXPECT_EQ(pipeline::ticksOf(20, 0), (std::vector<double>{0, 5, 10, 15, 20}));
    EXPECT_EQ(pipeline::ticksOf(4, 4), std::vector<double>{4});
    EXPECT_LT(pipeline::ticksOf(-3e38, 3e38).size(), 12U);
    EXPECT_TRUE(
        contains(run({"render", "row.xyz", "-o", "a.png", "--color", "red", "--colorbar"}).err,
                 "row.xyz: there is nothing to tell of the colours"));
}

} // namespace
