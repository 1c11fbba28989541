// Which particles the command shows when its user wants only some, or more than there are.

#include "tests/support/command.h"

namespace {

using namespace kelpatest;

class Selection : public Command {
  protected:
    /// What the command notes about the particles of a file; "" when it fails, beside its error.
    std::string notesOf(std::string const& file, Words words) const {
        Words const usual = {"render", file, "-o", "a.ppm", "--size", "9x9"};
        words.insert(words.begin(), usual.begin(), usual.end());
        return run(words).err;
    }
    void writeWalk() const {
        write("walk.xyz", "4\nLattice=\"4 0 0 0 4 0 0 0 4\" Properties=species:S:1:pos:R:3:q:R:1\n"
                          "O 0 0 0 1\nH 1 1 1 2\nH 2 2 2 3\nO 5 3 3 4\n");
    }
};

TEST_F(Selection, IsByExpressionPlaneAndNumber) {
    writeWalk();
    for (auto const& [words, says] : std::vector<std::pair<Words, std::string>>{
             {{"--select", "q > 1 and element == H"}, "2 of 4 particles are shown"},
             {{"--select", "x < 2 or element in (O, C)"}, "3 of 4 particles are shown"},
             {{"--slice", "x"}, "3 of 4 particles are shown"},
             {{"--slice", "-x:-1.5"}, "2 of 4 particles are shown"},
             {{"--slice", "x:1", "--slice=-1,0,0:-0.5"}, "1 of 4 particles are shown"},
             {{"--slice", "1,1,0:25%"}, "2 of 4 particles are shown"},
             {{"--replicate", "2,1,3", "--select", "z >= 8"}, "8 of 24 particles are shown"},
             {{"--wrap", "--select", "x < 2"}, "3 of 4 particles are shown"}})
        EXPECT_TRUE(contains(notesOf("walk.xyz", words), says))
            << fmt::format("{}", fmt::join(words, " ")) << ": " << read("stderr");
    write("many.xyz", [] {
        std::string text = "3000\n\n";
        for (int i = 0; i < 3000; ++i)
            text += fmt::format("C {} {} 0\n", i % 50, i / 50);
        return text;
    }());
    std::string const notes = notesOf("many.xyz", {"--every", "10"});
    EXPECT_TRUE(contains(notes, "of 3000 particles are shown"));
    int const left = std::stoi(notes.substr(notes.find("note: ") + 6));
    EXPECT_GT(left, 200);
    EXPECT_LT(left, 400);
}

TEST_F(Selection, LeavesRadiiBySpacingAsTheyAre) {
    Words rows;
    for (int i = 0; i < 64; ++i)
        rows.push_back(fmt::format("{} {} {}", i % 4, i / 4 % 4, i / 16));
    write("grid.ply", plyOf("x y z", rows));
    for (Words const& words : {Words{}, {"--select", "x in (0, 3)"}})
        EXPECT_TRUE(contains(notesOf("grid.ply", words), "0.707 for all")) << read("stderr");
}

TEST_F(Selection, OfMovingParticlesIsTheSameAtBothEnds) {
    // Chosen by where they are first; the second snapshot has them in another order, one is gone,
    // and of two that are new one is chosen.
    write("a.ply", plyOf("x y z radius id", {"0 0 0 .5 1", "2 0 0 .5 2", "4 0 0 .5 3"}));
    write("b.ply",
          plyOf("x y z radius id", {"9 0 0 .5 2", "0 1 0 .5 1", "1 0 0 .5 7", "8 0 0 .5 8"}));
    Answer const answer = run({"render", "a.ply", "b.ply", "-o", "a.ppm", "--size", "9x9",
                               "--select", "x < 3", "--stats=s.json"});
    EXPECT_TRUE(contains(answer.err, "2 of 3 particles are shown")) << answer.err;
    EXPECT_TRUE(contains(answer.err, "0 particles are only in a.ply, 1 only in b.ply"));
    EXPECT_TRUE(contains(answer.err, ", 3 spheres,"));
}

TEST_F(Selection, SaysWhatItCannotBe) {
    writeWalk();
    std::string const unknown = notesOf("walk.xyz", {"--select", "nix > 2"});
    EXPECT_TRUE(contains(unknown, "no column 'nix'; it has")) << unknown;
    std::string const noType = notesOf("walk.xyz", {"--select", "type > 2"});
    EXPECT_TRUE(contains(noType, "no column 'type'\n  type > 2\n  ^\n")) << noType;
    EXPECT_TRUE(contains(noType, "there are x y z element\n")) << noType;
    EXPECT_TRUE(contains(notesOf("walk.xyz", {"--select", "q > 9"}), "none of 4 particles is"));
    write("bare.ply", plyOf("x y z", {"0 0 0"}));
    EXPECT_TRUE(contains(notesOf("bare.ply", {"--wrap"}), "bare.ply: has no cell to wrap"));
    for (auto const& [words, says] : std::vector<std::pair<Words, std::string>>{
             {{"--select", "x >"}, "--select: expected a column or a number here\n  x >\n"},
             {{"--slice", "w"}, "--slice: 'w' is none of x, -y, 1,0,1"},
             {{"--slice", "x:"}, "--slice: 'x:' is none of"},
             {{"--slice", "0,0,0"}, "--slice: '0,0,0' is none of"},
             {{"--replicate", "0,1,1"}, "--replicate: '0,1,1' is not from 1,1,1"}})
        EXPECT_TRUE(contains(notesOf("walk.xyz", words), says)) << read("stderr");
}

} // namespace
