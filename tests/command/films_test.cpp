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
