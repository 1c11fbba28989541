// Cameras in files, and what the pictures of a film have in common.

#include "tests/support/command.h"

namespace {

using namespace kelpatest;

class Films : public Command {
  protected:
    Films() {
        std::string frames;
        for (int frame = 0; frame < 3; ++frame)
            frames += "2\nProperties=pos:R:3:radius:R:1\n0 0 0 1\n3 1 0 .5\n";
        write("film.xyz", frames);
    }

    /// Renders small pictures and complains of what goes wrong.
    Answer shoot(Words words, std::string const& output) const {
        Words const usual = {"--size", "40x30", "--samples", "3", "--ao-samples", "1", "-o"};
        words.insert(words.begin(), {"render", "film.xyz"});
        words.insert(words.end(), usual.begin(), usual.end());
        words.push_back(output);
        Answer answer = run(words);
        EXPECT_EQ(answer.code, 0) << answer.err;
        return answer;
    }
    /// The complaint about a file with this text.
    std::string complaintAbout(std::string const& text, char const* option) const {
        write("bad.json", text);
        Answer const answer = run({"render", "film.xyz", "-o", "a.ppm", option, "bad.json"});
        EXPECT_EQ(answer.code, 3) << text;
        EXPECT_FALSE(fs::exists(folder / "a.ppm"));
        return answer.err;
    }
};

TEST_F(Films, SeeTheSameFromACameraThatWasKept) {
    for (Words const& look : std::vector<Words>{{"--fov", "20"},
                                                {"--ortho", "--view", "left"},
                                                {"--zoom", "2", "--up", "1,1,1"},
                                                {"--eye", "9,8,7", "--look-at", "1,0,0"}}) {
        SCOPED_TRACE(look[0]);
        Words words = look;
        words.insert(words.end(), {"--save-camera", "c.json"});
        shoot(words, "a.ppm");
        shoot({"--camera", "c.json"}, "b.ppm");
        EXPECT_EQ(read("a.ppm"), read("b.ppm")) << read("c.json");
    }
    // Round what it looks at, by the frame's number.
    shoot({"--turntable", "3", "--save-camera", "turn.json"}, "turn#.ppm");
    shoot({"--camera", "turn.json", "--turntable", "3"}, "again#.ppm");
    shoot({"--frames", "1:2", "--turntable", "3"}, "film#.ppm");
    for (char const* const number : {"1", "2"}) {
        std::string const turned = read(fmt::format("turn{}.ppm", number));
        EXPECT_EQ(turned, read(fmt::format("again{}.ppm", number)));
        EXPECT_EQ(turned, read(fmt::format("film{}.ppm", number)));
    }
    EXPECT_NE(read("turn1.ppm"), read("turn2.ppm"));
}

TEST_F(Films, GoFromKeyToKey) {
    write(
        "keys.json",
        R"({"camera": {"keys": [{"frame": 2, "eye": [9, 0, 4], "lookAt": [1, 0, 0], "up": [0, 0, 1],
             "fov": 30}, {"frame": 0, "eye": [7, 0, 0], "lookAt": [0, 0, 0], "up": [0, 0, 1],
             "fov": 40}]}})");
    shoot({"--camera", "keys.json", "--frames", ":"}, "way#.ppm");
    shoot({"--eye", "7,0,0", "--look-at", "0,0,0", "--fov", "40"}, "key0.ppm");
    shoot({"--eye", "9,0,4", "--look-at", "1,0,0", "--fov", "30"}, "key2.ppm");
    // Of two keys the middle is the middle, however smoothly it is passed.
    shoot({"--eye", "8,0,2", "--look-at", ".5,0,0", "--fov", "35"}, "key1.ppm");
    for (char const* const number : {"0", "1", "2"})
        EXPECT_EQ(read(fmt::format("way{}.ppm", number)), read(fmt::format("key{}.ppm", number)));
}

TEST_F(Films, AgreeByAPlanWhoeverRendersTheirParts) {
    // Frames of different sizes and numbers, without radii: alone, each would choose others.
    std::string frames;
    for (int frame = 0; frame < 3; ++frame)
        frames += fmt::format("3\nProperties=pos:R:3:q:R:1\n0 0 0 {0}\n{0} 1 0 7\n0 {0}.5 1 3\n",
                              3 + frame);
    write("film.xyz", frames);
    Words const look = {"--color-by", "q", "--slice", "z", "--turntable", "5"};
    auto const with = [&look](Words words) {
        words.insert(words.end(), look.begin(), look.end());
        return words;
    };
    shoot(with({"--frames", ":"}), "one#.ppm");
    Words const plan = with({"render", "film.xyz", "--size", "40x30", "--plan", "plan.json"});
    Answer const planned = run(plan);
    EXPECT_EQ(planned.code, 0) << planned.err;
    EXPECT_TRUE(contains(planned.err, "wrote plan.json: the camera, the radius, the range of "
                                      "colours of frame 0\n"));
    write("part1.ppm", "rendered before");
    shoot(with({"--frames", "1:2", "--use", "plan.json", "--resume"}), "part#.ppm");
    shoot(with({"--frames", "0:1", "--use", "plan.json", "--resume"}), "part#.ppm");
    EXPECT_EQ(read("part1.ppm"), "rendered before");
    fs::remove(folder / "part1.ppm");
    shoot(with({"--frames", ":", "--use", "plan.json", "--resume"}), "part#.ppm");
    for (char const* const number : {"0", "1", "2"})
        EXPECT_EQ(read(fmt::format("part{}.ppm", number)), read(fmt::format("one{}.ppm", number)));
    EXPECT_TRUE(contains(complaintAbout(R"({"camera": {"eye": [9, 0, 0], "lookAt": [0, 0, 0], "up":
        [0, 0, 1], "fov": 9}, "radius": -1})",
                                        "--use"),
                         "'radius' is no number from 1e-15"));
    EXPECT_EQ(run({"render", "film.xyz"}).err, "kelpa: --output is required\n");
}

TEST_F(Films, AreMadeByFfmpegWhereItIs) {
    Answer const alone = run({"render", "film.xyz", "-o", "a.mp4"});
    EXPECT_TRUE(contains(alone.err, "a.mp4: is a film; say of what with --frames or --turntable"));
    // Whatever is called ffmpeg: this one keeps what it is given, and the words.
    fs::create_directory(folder / "bin");
    write("bin/ffmpeg", "#!/bin/sh\necho \"$@\" >words\ncat >raw\necho film >/proc/self/fd/3\n");
    fs::permissions(folder / "bin/ffmpeg", fs::perms::owner_all);
    std::string const film =
        "render film.xyz --frames : --size 40x30 --samples 1 --fps 25 -o a.mp4";
    EXPECT_EQ(inShell(film, "PATH=$PWD/bin:$PATH"), 0) << read("stderr");
    EXPECT_EQ(read("a.mp4"), "film\n");
    EXPECT_TRUE(contains(read("words"), "-video_size 40x30 -framerate 25 "));
    std::string const raw = read("raw");
    EXPECT_EQ(raw.size(), std::size_t{3} * 3 * 40 * 30);
    write("bin/ffmpeg", "#!/bin/sh\necho no such codec >&2\nexit 1\n");
    fs::remove(folder / "a.mp4");
    EXPECT_NE(inShell(film, "PATH=$PWD/bin:$PATH"), 0);
    EXPECT_TRUE(contains(read("stderr"), "a.mp4: ffmpeg makes no film of this: no such codec\n"));
    EXPECT_NE(inShell(film, "PATH=/nowhere"), 0);
    EXPECT_TRUE(contains(read("stderr"), "ffmpeg, which is not installed (Debian package ffmpeg)"));
    EXPECT_FALSE(fs::exists(folder / "a.mp4"));
}

TEST_F(Films, SayWhatIsWrongWithAFile) {
    std::string const key = R"("eye": [1, 2, 3], "lookAt": [0, 0, 0], "up": [0, 0, 1])";
    auto const about = [&](std::string const& camera) {
        return complaintAbout("{\"camera\": {" + camera + "}}", "--camera");
    };
    EXPECT_EQ(complaintAbout("{\n \"camera\": {\"eye\": [1 2]}}", "--camera"),
              "kelpa: bad.json:2:23: is not JSON from here on\n");
    EXPECT_EQ(complaintAbout("{}", "--camera"), "kelpa: bad.json: has no 'camera'\n");
    for (std::string const& text :
         {std::string(100000, '['), std::string("\xff\0{", 3), std::string(2U << 20U, ' ')})
        EXPECT_TRUE(contains(complaintAbout(text, "--camera"), "kelpa: bad.json")) << text[0];
    EXPECT_TRUE(contains(about(key + ", \"fov\": 1e999"), "number that is too large"));
    for (auto const& [camera, says] : std::vector<std::pair<std::string, std::string>>{
             {key, "the camera needs 'fov', or for parallel rays 'height'"},
             {key + ", \"fov\": 0", "'fov' of the camera is no number from 0.001 to 170"},
             {key + ", \"fov\": \"wide\"", "'fov' of the camera is no number from"},
             {key + ", \"fow\": 3", "'fow' is nothing that the camera has; there are eye, lookAt"},
             {"\"eye\": [1, 2]", "'eye' of the camera is no list of 3 numbers"},
             {"\"eye\": [1, 2, 3], \"lookAt\": [1, 2, 3], \"up\": [0, 0, 1], \"fov\": 9",
              "the camera is where it looks at"},
             {"\"keys\": []", "'keys' is no list of cameras"},
             {"\"keys\": [{" + key + ", \"fov\": 9}]", "key 1 lacks 'frame'"},
             {"\"keys\": [{\"frame\": 1, " + key + ", \"fov\": 9}, {\"frame\": 1, " + key +
                  ", \"fov\": 9}]",
              "two keys are for frame 1"}})
        EXPECT_EQ(about(camera).substr(0, 17 + says.size()), "kelpa: bad.json: " + says);
    // On the way from one key to the next it comes to where it looks at.
    write("meet.json", R"({"camera": {"keys": [
        {"frame": 0, "eye": [1, 0, 0], "lookAt": [-1, 0, 0], "up": [0, 0, 1], "fov": 9},
        {"frame": 2, "eye": [-1, 0, 0], "lookAt": [1, 0, 0], "up": [0, 0, 1], "fov": 9}]}})");
    Answer const meet = run({"render", "film.xyz", "-o", "a.ppm", "--size", "9x9", "--frame", "1",
                             "--camera", "meet.json"});
    EXPECT_EQ(meet.code, 3);
    EXPECT_TRUE(contains(meet.err, "at frame 1 it is where it looks at")) << meet.err;
}

} // namespace
