// What the command makes of what its user writes, and what it says that it chose.

#include "tests/support/command.h"

#include <cmath>
#include <set>

namespace {

using namespace kelpatest;

class Choices : public Command {
  protected:
    /// Four spheres side by side, seen from the front without light.
    Picture renderRow(Words words) const {
        write("row.ply",
              plyOf("x y z radius heat", {"0 0 0 .5 0", "2 0 0 .5 1", "4 0 0 .5 2", "6 0 0 .5 3"}));
        Words const look = {"row.ply", "--view", "front", "--shade", "flat"};
        words.insert(words.begin(), look.begin(), look.end());
        return render(words);
    }
    /// The pixel in the middle of sphere 0, 1, 2 or 3 of that row.
    static std::string colorOf(Picture const& picture, int sphere) {
        auto const x = static_cast<std::size_t>(std::lround(35.0 + (sphere - 1.5) * 19.0));
        return picture.bytes.substr(3 * (25 * 70 + x), 3);
    }
};

TEST_F(Choices, ColourFewValuesApartAndTellTheRange) {
    Picture const picture = renderRow({"--color-by", "heat", "--stats=s.json"});
    std::string const notes = read("stderr");
    std::set<std::string> colors;
    for (int i = 0; i < 4; ++i)
        colors.insert(colorOf(picture, i));
    EXPECT_EQ(colors.size(), 4U);
    // numpy.percentile([0, 1, 2, 3], [1, 99])
    EXPECT_TRUE(contains(notes, "colours show heat from 0.03 to 2.97 (1st to 99th")) << notes;
    EXPECT_TRUE(contains(read("s.json"), "{\"column\": \"heat\", \"range\": [0.0"));
    renderRow({"--color-by", "heat", "--range", "-1:3/2"});
    EXPECT_TRUE(contains(read("stderr"), "heat from -1 to 1.5\n")) << read("stderr");
}

TEST_F(Choices, OfShadowsAreMadeByTheShadeUnlessWritten) {
    // The nearer sphere stands in the light, which comes over the left shoulder.
    write("pair.ply", plyOf("x y z radius", {"0 0 0 1", "-0.7 -1.5 1 0.5"}));
    auto const bytes = [&](Words words) {
        words.insert(words.begin(), {"pair.ply", "--view", "front"});
        return render(words).bytes;
    };
    std::string const shadowed = bytes({"--shadows"});
    std::string const bare = bytes({"--no-shadows"});
    EXPECT_NE(shadowed, bare);
    EXPECT_EQ(bytes({}), shadowed);
    EXPECT_EQ(bytes({"--shade", "ao"}), shadowed);
    EXPECT_EQ(bytes({"--shadows", "--no-shadows"}), bare) << "the last word counts";
    EXPECT_EQ(bytes({"--no-shadows", "--shadows"}), shadowed) << "the last word counts";
    std::string const lit = bytes({"--shade", "lit"});
    EXPECT_NE(bytes({"--shade", "lit", "--shadows"}), lit);
    EXPECT_EQ(bytes({"--shade", "lit", "--no-shadows"}), lit);
}

TEST_F(Choices, AreTakenAsPeopleTypeThem) {
    Picture const plain = renderRow({"--color", "#ff6347", "--background", "#ffffff"});
    EXPECT_EQ(colorOf(plain, 1), "\xff\x63\x47");
    EXPECT_EQ(renderRow({"--color", "Tomato", "--background", "#fff"}).bytes, plain.bytes);
    EXPECT_EQ(
        renderRow({"--color", "tomato", "--background", "WHITE", "--up", "Z", "--radius", "1/2"})
            .bytes,
        plain.bytes);
    for (auto const& [words, says] : std::vector<std::pair<Words, std::string>>{
             {{"--color", "reed"}, "--color: 'reed' is no colour; write #rrggbb, #rgb or a name"},
             {{"--color", "#-12"}, "'#-12' is not a colour of the form #rrggbb or #rgb"},
             {{"--radius", "1/0"}, "--radius: '1/0' is not a finite number"},
             {{"--eye", "1,2/,3"}, "--eye: '1,2/,3' is not of the form X,Y,Z"}}) {
        Words full = {"render", "row.ply", "-o", "a.ppm"};
        full.insert(full.end(), words.begin(), words.end());
        Answer const answer = run(full);
        EXPECT_EQ(answer.code, 2);
        EXPECT_TRUE(contains(answer.err, says)) << answer.err;
    }
}

TEST_F(Choices, NumberASinglePictureByItsFrame) {
    write("run.xyz", "1\n\nFe 0 0 0\n1\n\nFe 1 0 0\n1\n\nFe 2 0 0\n");
    for (auto const& [frame, output] : std::vector<std::pair<std::string, std::string>>{
             {"-1", "last.####.ppm"}, {"1", "a%02d.ppm"}, {"1", "run#3.ppm"}, {"1", "50%done.ppm"}})
        EXPECT_EQ(run({"render", "run.xyz", "--frame", frame, "-o", output, "--size", "9x9",
                       "--samples", "1"})
                      .code,
                  0);
    EXPECT_EQ(others({"run.xyz"}), (Words{"50%done.ppm", "a01.ppm", "last.0002.ppm", "run#3.ppm"}));
}

TEST_F(Choices, OfFramesAreListsWithOpenEnds) {
    std::string all;
    for (int i = 0; i < 7; ++i) {
        std::string const frame = fmt::format("1\n\nFe {} 0 0\n", i);
        all += frame;
        write(fmt::format("seq.{}.xyz", i), frame);
    }
    write("run.xyz", all);
    fs::remove(folder / "seq.3.xyz");
    auto const made = [&](std::string const& file, std::string const& frames) {
        Words words = {"render", file,  "--frames=" + frames, "-o", "p#.ppm",
                       "--size", "9x9", "--samples",          "1",  "-q"};
        Answer const answer = run(words);
        if (answer.code != 0)
            return answer.err;
        std::string numbers;
        for (auto const& entry : fs::directory_iterator(folder)) {
            std::string const name = entry.path().filename().string();
            if (name[0] == 'p')
                numbers += name[1];
        }
        for (char const number : numbers)
            fs::remove(folder / fmt::format("p{}.ppm", number));
        std::sort(numbers.begin(), numbers.end());
        return numbers;
    };
    EXPECT_EQ(made("run.xyz", "5,1,0:2,-2:"), "01256");
    EXPECT_EQ(made("run.xyz", "::3"), "036");
    EXPECT_EQ(made("run.xyz", "-99:1"), "01");
    EXPECT_EQ(made("seq.{}.xyz", ":4,-1"), "01246");
    // Nothing is rendered when the last one is not there, or one that was named.
    EXPECT_EQ(made("run.xyz", "0:99"),
              "kelpa: run.xyz: no frame 99; it has 7 (the first is 0, the last -1)\n");
    EXPECT_TRUE(contains(made("run.xyz", "0:1000000000"), "no frame 1000000000; it has 7"));
    EXPECT_TRUE(contains(made("run.xyz", "0,-8"), "no frame -8; it has 7"));
    EXPECT_TRUE(contains(made("seq.{}.xyz", "0,3"), "no frame 3; it has 6 from 0 to 6"));
    EXPECT_TRUE(contains(made("run.xyz", "0,,3"), "--frames: a number is missing"));
    EXPECT_EQ(others({"run.xyz"}).size(), 6U);
}

TEST_F(Choices, OfMotionAreNotLongerWhereFilesAreMissing) {
    for (int i : {0, 2, 4, 8})
        write(fmt::format("s.{}.xyz", i), fmt::format("2\n\nFe 0 0 0\nFe {} 1 0\n", i));
    auto const notesOf = [&](char const* frame, Words const& more = {}) {
        Words words = {"render", "s.{}.xyz", "--frame", frame,       "--motion", "next",
                       "-o",     "p.ppm",    "--size",  "--samples", "1"};
        words.insert(words.begin() + 9, "9x9");
        words.insert(words.end(), more.begin(), more.end());
        return run(words);
    };
    EXPECT_TRUE(contains(notesOf("2").err, "and 1 at most")) << read("stderr");
    Answer const gap = notesOf("4");
    EXPECT_TRUE(contains(gap.err, "s.8.xyz follows s.4.xyz after 2 frames' time; the motion is"))
        << gap.err;
    EXPECT_TRUE(contains(gap.err, "and 1 at most")) << gap.err;
    EXPECT_TRUE(contains(notesOf("4", {"--shutter", "0:1"}).err, "and 2 at most"));
    Answer const strict = notesOf("4", {"--strict"});
    EXPECT_EQ(strict.code, 3);
    EXPECT_EQ(strict.err.substr(strict.err.rfind("kelpa: ")),
              "kelpa: s.8.xyz follows s.4.xyz after 2 frames' time\n");
    EXPECT_EQ(notesOf("2", {"--strict"}).code, 0);
}

} // namespace
