// Runs the real command in a folder of its own and looks at what its user would see.

#include "tests/support/command.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>

namespace {

using namespace kelpatest;

TEST_F(Command, GeneratesRendersAndTellsAboutAFile) {
    Answer const made =
        run({"generate", "splash", "--count", "2000", "--seed", "3", "-o", "s.ply"});
    EXPECT_EQ(made.code, 0) << made.err;
    EXPECT_TRUE(contains(made.err, "wrote s.ply, 2,000 particles")) << made.err;
    Picture const picture = render({"s.ply", "-q"});
    EXPECT_EQ(read("stderr"), "");
    EXPECT_EQ(picture.width, 70);
    EXPECT_EQ(picture.height, 50);
    EXPECT_NE(picture.bytes.substr(0, 30), picture.bytes.substr(3 * (25 * 70 + 30), 30));

    Answer const text = run({"info", "s.ply"});
    EXPECT_EQ(text.code, 0);
    for (char const* const part : {"s.ply: ", "2,000 particles", "radius: min ", "skipped: 0 not"})
        EXPECT_TRUE(contains(text.out, part)) << part << "\n" << text.out;
    Answer const json = run({"info", "s.ply", "--json", "-q"});
    EXPECT_EQ(json.code, 0);
    EXPECT_EQ(json.err, "");
    for (char const* const part : {"{\n  \"file\": \"s.ply\"", "\"particles\": 2000,",
                                   "\"skipped\": {\"notFinite\": 0, \"notPositive\": 0}"})
        EXPECT_TRUE(contains(json.out, part)) << part << "\n" << json.out;
    EXPECT_EQ(run({"info", "s.ply", "--json", "-q", "-n", "1"}).out, json.out);
    EXPECT_EQ(others({}), (Words{"picture.ppm", "s.ply"}));
}

TEST_F(Command, RendersTheSamePictureOnAnyThreadsAndInAnyCrop) {
    run({"generate", "galaxy", "--count", "3000", "-o", "g.ply"});
    Picture const whole = render({"g.ply", "-n", "1"});
    EXPECT_EQ(render({"g.ply", "-n", "3"}).bytes, whole.bytes);
    EXPECT_NE(render({"g.ply", "--seed", "9"}).bytes, whole.bytes);
    int const x0 = 13;
    int const y0 = 5;
    Picture const part = render({"g.ply", "--crop", "13,5,50,38"});
    ASSERT_EQ(part.width, 37);
    ASSERT_EQ(part.height, 33);
    for (int y = 0; y < part.height; ++y) {
        auto const row = [y](Picture const& picture, int left, int top) {
            auto const first = static_cast<std::size_t>(3 * ((y + top) * picture.width + left));
            return picture.bytes.substr(first, 3 * 37);
        };
        ASSERT_EQ(row(part, 0, 0), row(whole, x0, y0)) << "row " << y;
    }
}

TEST_F(Command, MatchesSnapshotsByIdAndMovesAlongVelocities) {
    Words first;
    Words second; // in another order, moved by 0.5, without particle 5, with a new one
    Words withVelocity;
    for (int i = 0; i < 60; ++i) {
        int const permuted = i * 7 % 60;
        first.push_back(sphere(i, 0, std::to_string(i)));
        withVelocity.push_back(sphere(i, 0, "0 0 3"));
        if (permuted != 5)
            second.push_back(sphere(permuted, 0.5, std::to_string(permuted)));
    }
    second.push_back(sphere(70, 0, "999"));
    write("a.ply", plyOf("x y z radius id", first));
    write("b.ply", plyOf("x y z radius id", second));
    write("v.ply", plyOf("x y z radius vx vy vz", withVelocity));

    Answer const pair = run({"info", "a.ply", "--motion", "b.ply", "--json"});
    EXPECT_TRUE(contains(pair.out, "\"mean\": 0.4836065")) << "59 of 61 by 0.5" << pair.out;
    EXPECT_TRUE(contains(pair.out, "\"largest\": 0.5}")) << pair.out;
    EXPECT_TRUE(contains(pair.err, "1 particles are only in a.ply, 1 only in b.ply")) << pair.err;
    Answer const moving = run({"info", "v.ply", "--motion", "velocity", "--json"});
    EXPECT_TRUE(contains(moving.out, "\"largest\": 1.5}")) << moving.out << moving.err;

    Picture const still = render({"a.ply"});
    EXPECT_NE(render({"a.ply", "b.ply", "--view", "front"}).bytes,
              render({"a.ply", "--view", "front"}).bytes);
    EXPECT_NE(render({"v.ply", "--motion", "velocity", "--view", "front"}).bytes,
              render({"v.ply", "--view", "front"}).bytes);
    // The moving tree rounds otherwise: single samples may change sides at an edge.
    Picture const standing = render({"a.ply", "a.ply"});
    ASSERT_EQ(standing.bytes.size(), still.bytes.size());
    int different = 0;
    for (std::size_t i = 0; i < still.bytes.size(); ++i)
        different += std::abs(static_cast<unsigned char>(still.bytes[i]) -
                              static_cast<unsigned char>(standing.bytes[i])) > 1
                         ? 1
                         : 0;
    EXPECT_LT(different, static_cast<int>(still.bytes.size()) / 200);
}

/// What the command refuses, how it ends, and what it says.
struct Refusal {
    Words words; ///< after "render -o picture.ppm", unless they start with a command
    int code;
    Words says;
};

Refusal const refusals[] = {
    {{"none.ply"}, 3, {"none.ply"}},
    {{"empty.ply"}, 3, {"empty.ply", "empty"}},
    {{"truncated.ply"}, 3, {"truncated.ply", "3"}},
    {{"words.ply"}, 3, {"words.ply", "three"}},
    {{"useless.ply"}, 3, {"useless.ply", "no usable particle", "1 not finite", "2 with"}},
    {{"folder.ppm"}, 3, {"folder.ppm"}},
    {{"good.ply", "--radius-from", "raduis"}, 3, {"raduis", "x y z radius"}},
    {{"good.ply", "--color-by", "heat"}, 3, {"heat"}},
    {{"good.ply", "--frame", "7"}, 3, {"good.ply", "frame"}},
    {{"good.ply", "fewer.ply"}, 3, {"good.ply", "fewer.ply", "no ids"}},
    {{"good.ply", "--motion", "velocity"}, 3, {"good.ply", "velocities"}},
    {{"info", "none.ply"}, 3, {"none.ply"}},
    {{"good.ply", "--shiny"}, 2, {"--shiny"}},
    {{"good.ply", "--radius", "1", "--radius-from", "x"}, 2, {"--radius-from", "--radius"}},
    {{"good.ply", "fewer.ply", "--motion", "velocity"}, 2, {"two files", "--motion"}},
    {{"good.ply", "--radius", "-1"}, 2, {"--radius"}},
    {{"good.ply", "--size", "70"}, 2, {"70", "WIDTHxHEIGHT"}},
    {{"good.ply", "--crop", "0,0,9999,5"}, 2, {"--crop", "1280x720"}},
    {{"good.ply", "--eye", "0,0,0", "--look-at", "0,0,0"}, 2, {"--eye", "same point"}},
    {{"good.ply", "--eye", "1,nan,2"}, 2, {"not finite"}},
    {{"good.ply", "--fov", "nan"}, 2, {"--fov", "finite"}},
    {{"good.ply", "fewer.ply", "--times", "0", "nan"}, 2, {"--times", "finite"}},
    {{"good.ply", "--up", "0,0,0"}, 2, {"--up"}},
    {{"good.ply", "--color", "reed"}, 2, {"--color", "reed", "#rrggbb"}},
    {{"good.ply", "--shade", "dim"}, 2, {"--shade", "dim", "ao, lit, flat"}},
    {{"good.ply", "--shade", "lit", "--ao-samples", "3"}, 2, {"--ao-samples", "--shade ao"}},
    {{"good.ply", "--dt", "3"}, 2, {"--dt", "--motion velocity"}},
    {{"good.ply", "--range", "0:1"}, 2, {"--range", "--color-by"}},
    {{"good.ply", "--background", "none"}, 2, {"picture.ppm", "transparency"}},
    {{"good.ply", "--aov", "depth"}, 2, {"picture.ppm", "PPM cannot hold --aov depth"}},
    {{"--aov", "depth,id", "good.ply"}, 2, {"picture.ppm", "--aov depth,id"}},
    {{"--aov", "depth,z", "good.ply"}, 2, {"--aov", "'z'"}},
    {{"--shutter", "0:1", "good.ply"}, 2, {"--shutter needs motion"}},
    {{"good.ply", "fewer.ply", "good.ply"}, 2, {"3 files", "'cache.{}.ply'"}},
    {{"good.ply", "--motion", "vel"}, 2, {"'vel'", "no such file"}},
    {{"good.ply", "--stats", "s.json"}, 2, {"--stats=s.json"}},
    {{"-"}, 3, {"/dev/stdin"}},
    {{"good.ply", "--elements", "Si"}, 3, {"good.ply", "no numbered types"}},
    {{"good.ply", "--elements", "O,Xy"}, 2, {"'Xy' is no element"}},
    {{"convert", "good.ply", "-o", "good.bgeo"}, 2, {"good.bgeo", ".ply only"}},
    {{"convert", "good.ply", "fewer.ply", "-o", "a.ply"}, 2, {"2 files; convert takes one"}},
    {{"generate", "cloud", "-o", "fog.bgeo"}, 2, {"fog.bgeo", ".ply only"}},
    {{"render", "good.ply", "-o", "picture.png", "--aov", "id"}, 2, {"picture.png", ".exr"}},
    {{"render", "good.ply", "-o", "picture.jpg"}, 2, {"jpg", "png"}},
    {{"render", "good.ply"}, 2, {"--output"}},
    {{"generate", "fog", "-o", "fog.ply"}, 2, {"fog", "splash"}},
    {{}, 2, {"FILE"}},
    {{"render", "good.ply", "-o", "absent/picture.ppm"}, 4, {"absent", "no folder"}},
    {{"render", "good.ply", "-o", "good.ply/picture.ppm"}, 4, {"good.ply/picture.ppm"}},
    {{"render", "good.ply", "-o", "folder.ppm"}, 4, {"folder.ppm"}},
    {{"generate", "cloud", "--count", "9", "-o", "absent/c.ply"}, 4, {"absent", "no folder"}},
};

TEST_F(Command, RefusesWhatItCannotUseInOneLineAndLeavesNothing) {
    std::string const good = plyOf("x y z radius", {sphere(0, 0), sphere(1, 0), sphere(2, 0)});
    write("good.ply", good);
    write("fewer.ply", plyOf("x y z radius", {sphere(0, 0)}));
    write("empty.ply", "");
    write("truncated.ply", good.substr(0, good.rfind('\n', good.size() - 2) + 1));
    write("words.ply", plyOf("x y z radius", {"1 2 three 0.5"}));
    write("useless.ply", plyOf("x y z radius", {"0 0 0 0", "1 0 0 -1", "nan 0 0 1"}));
    fs::create_directory(folder / "folder.ppm");
    Words const known = others({});

    for (Refusal const& bad : refusals) {
        Words words = bad.words;
        bool const isWhole =
            !words.empty() &&
            std::set<std::string>{"render", "info", "generate", "convert"}.contains(words[0]);
        if (!isWhole)
            words.insert(words.begin(), {"render", "-o", "picture.ppm"});
        words.insert(words.begin() + 1, "-q");
        SCOPED_TRACE(fmt::format("{}", fmt::join(words, " ")));
        Answer const answer = run(words);
        EXPECT_EQ(answer.code, bad.code);
        EXPECT_EQ(std::count(answer.err.begin(), answer.err.end(), '\n'), 1) << answer.err;
        EXPECT_EQ(answer.err.rfind("kelpa: ", 0), 0U) << answer.err;
        for (std::string const& part : bad.says)
            EXPECT_TRUE(contains(answer.err, part)) << part << " in " << answer.err;
        EXPECT_EQ(others(known), Words{});
    }
}

TEST_F(Command, SkipsSingleBadParticlesAndSaysHowMany) {
    write("n.ply", plyOf("x y z radius", {sphere(0, 0), "1 0 0 nan", "2 0 0 0", sphere(3, 0)}));
    Answer const answer = run({"render", "n.ply", "-o", "n.ppm", "--size", "16x16"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_TRUE(contains(answer.err, "2 of 4 particles skipped (1 not finite, 1 with radius 0"))
        << answer.err;
    EXPECT_TRUE(contains(answer.err, "wrote n.ppm 16x16, 2 spheres")) << answer.err;
}

TEST_F(Command, RendersFarOffAndCoincidentParticlesLikeOthers) {
    Words rows;
    Words far;
    for (int i = 0; i < 60; ++i) {
        rows.push_back(sphere(i, 0));
        far.push_back(fmt::format("{} {} 0 0.4", 1048576 + i % 8, -2097152 + i / 8));
    }
    write("a.ply", plyOf("x y z radius", rows));
    write("far.ply", plyOf("x y z radius", far));
    for (std::size_t i = 0; i < 60; ++i)
        rows.push_back(rows[i]);
    write("twice.ply", plyOf("x y z radius", rows));
    Picture const picture = render({"a.ply", "--view", "iso"});
    EXPECT_EQ(render({"far.ply", "--view", "iso"}).bytes, picture.bytes);
    EXPECT_EQ(render({"twice.ply", "--view", "iso"}).bytes, picture.bytes);
}

TEST_F(Command, NotesWhatTheUserShouldKnow) {
    Words rows;
    for (int i = 0; i < 1000; ++i)
        rows.push_back(sphere(i % 64, i / 64));
    rows.push_back("0 0 9000 1");
    write("outlier.ply", plyOf("x y z radius", rows));
    write("frames.xyz", "1\nfirst\nFe 0 0 0\n3\nsecond\nFe 0 0 0\n");
    std::string const far = run({"render", "outlier.ply", "-o", "a.ppm", "--size", "9x9"}).err;
    EXPECT_TRUE(contains(far, "a few far particles take up the picture; --look-at 3.5,")) << far;
    Answer const frames = run({"info", "frames.xyz"});
    EXPECT_EQ(frames.code, 0);
    EXPECT_TRUE(contains(frames.err, "kelpa: note: frames.xyz")) << frames.err;
    std::string const head = "ITEM: TIMESTEP\n0\nITEM: NUMBER OF ATOMS\n2\nITEM: BOX BOUNDS\n"
                             "0 4\n0 4\n0 4\nITEM: ATOMS id type x y z\n";
    write("water.dump", head + "1 2 0 0 0\n2 1 3 1 1\n");
    Answer const named = run({"info", "water.dump", "--elements", "O,H"});
    for (char const* const line :
         {"  frames: 1, step 0\n", "  cell: 4 x 4 x 4, periodic along x, y, z\n",
          "  elements: H 1, O 1\n", "  types: 1 1, 2 1\n",
          "    id                   number   1 to 2\n",
          "  radius: min 1.1, median 1.52, max 1.52 (van der Waals by element)\n"})
        EXPECT_TRUE(contains(named.out, line)) << line << named.out;
    EXPECT_FALSE(contains(named.out, "tree"));
    EXPECT_TRUE(contains(run({"info", "water.dump", "--stats"}).out, "Number of tree nodes"));
    Answer const facts = run({"info", "water.dump", "--elements", "O,H", "--json", "-q"});
    for (char const* const member :
         {"\"step\": 0,", "\"edges\": [[4, 0, 0], [0, 4, 0], [0, 0, 4]]", "\"periodic\": [true,",
          "{\"name\": \"H\", \"particles\": 1}", "\"source\": \"van der Waals by element\""})
        EXPECT_TRUE(contains(facts.out, member)) << member << facts.out;
    Answer const unnamed = run({"info", "water.dump", "--elements", "O"});
    EXPECT_EQ(unnamed.code, 3);
    EXPECT_TRUE(contains(unnamed.err, "water.dump: there is a type 2, and --elements names 1\n"));
    // What cannot be read is told about, and what can still is a whole list.
    Answer const list = run({"info", "none.ply", "outlier.ply", "none.ply", "--json", "-q"});
    EXPECT_EQ(list.code, 3);
    EXPECT_EQ(std::count(list.err.begin(), list.err.end(), '\n'), 2) << list.err;
    EXPECT_EQ(list.out.substr(0, 3) + list.out.substr(list.out.size() - 4), "[\n{}\n]\n");
}

/// Five frames in one file, and four of them as a sequence. Particle 1 stands; particle 2 goes
/// right by 1 from frame to frame and, wrapped, comes back.
class Frames : public Command {
  protected:
    static std::string frame(int step) {
        return fmt::format("ITEM: TIMESTEP\n{}\nITEM: NUMBER OF ATOMS\n2\nITEM: BOX BOUNDS\n0 4\n"
                           "0 4\n0 4\nITEM: ATOMS id x y z\n{}",
                           step,
                           step % 2 == 0 ? fmt::format("1 0 0 0\n2 {} 1 1\n", step % 4)
                                         : fmt::format("2 {} 1 1\n1 0 0 0\n", step % 4));
    }

    void SetUp() override {
        Command::SetUp();
        std::string all;
        for (int step : {0, 1, 2, 3, 4}) {
            all += frame(step);
            if (step != 2)
                write(fmt::format("cache.{:03}.dump", 3 * step), frame(step));
        }
        write("all.dump", all);
    }

    Answer renderFrames(Words words) {
        Words const small = {"--size", "20x10", "--samples", "1", "--reproducible"};
        words.insert(words.begin(), "render");
        words.insert(words.end(), small.begin(), small.end());
        return run(words);
    }
};

TEST_F(Frames, AreRenderedFromFilesAndSequences) {
    Answer const inFile =
        renderFrames({"all.dump", "--frames", "2:-1:2", "--motion", "next", "-o", "img.##.ppm"});
    EXPECT_EQ(inFile.code, 0) << inFile.err;
    EXPECT_TRUE(contains(inFile.err, "move by 0.25 on average and 0.5 at most")) << inFile.err;
    EXPECT_TRUE(contains(inFile.err, "no frame follows all.dump frame 4")) << inFile.err;
    EXPECT_EQ(others({"all.dump", "cache.000.dump", "cache.003.dump", "cache.009.dump",
                      "cache.012.dump"}),
              (Words{"img.02.ppm", "img.04.ppm"}));
    // The second picture of a range is seen as the first: alone it would be framed anew.
    renderFrames({"all.dump", "--frame", "4", "-r", "0.5", "-o", "alone.ppm"});
    EXPECT_NE(read("img.04.ppm"), read("alone.ppm"));

    Answer const crossing =
        renderFrames({"cache.{}.dump", "--frame", "9", "--motion", "next", "-o", "one.ppm"});
    EXPECT_TRUE(contains(crossing.err, "1 particles leave the periodic box")) << crossing.err;
    EXPECT_TRUE(contains(crossing.err, "at most, ")) << crossing.err;
    EXPECT_TRUE(contains(crossing.err, "and 0.5 at most")) << crossing.err;
    Answer const gap = renderFrames({"cache.###.dump", "--frames", "1:9:2", "-o", "seq#.ppm"});
    EXPECT_EQ(gap.code, 0) << gap.err;
    EXPECT_FALSE(contains(gap.err, "no files for")) << gap.err; // 6 is not of the range
    EXPECT_TRUE(contains(renderFrames({"cache.{}.dump", "--frames", "3:99", "-o", "s#.ppm"}).err,
                         "no files for frames 6, 15, 18, 21, 24, 27, 30, 33 and perhaps more; "));
    EXPECT_EQ(read("seq3.ppm").size(), read("one.ppm").size());
    EXPECT_EQ(read("seq0.ppm") + read("seq6.ppm") + read("seq12.ppm"), "");
}

TEST_F(Frames, AreRefusedWhereTheyAreNone) {
    for (auto const& [words, code, text] : std::vector<std::tuple<Words, int, std::string>>{
             {{"cache.{}.dump", "--frame", "6"}, 3, "no frame 6; it has 4 from 0 to 12"},
             {{"nothing.{}.ply"}, 3, "nothing.{}.ply: no file has a number in place of {}"},
             {{"cache.%d.dump", "--frames", "1:2"}, 3, "none of its frames, 0 to 12, is in"},
             {{"all.dump", "--frames", "3:9"}, 3, "all.dump: no frame 9; it has 5"},
             {{"all.dump", "--frames", "3:1"}, 2, "--frames: '3:1' ends before it begins"},
             {{"all.dump", "--frames", "0:4:0"}, 2, "--frames: '0:4:0' steps by 0"},
             {{"all.dump", "--frames", "0:1", "--motion", "b.ply"}, 2, "not with a file"}}) {
        Words full = words;
        full.insert(full.end(), {"-o", "bad.#.ppm"});
        Answer const answer = renderFrames(full);
        EXPECT_EQ(answer.code, code) << answer.err;
        EXPECT_TRUE(contains(answer.err, text)) << answer.err;
    }
}

} // namespace
