// Pictures in parts: tiles that are joined.

#include "tests/support/command.h"

namespace {

using namespace kelpatest;

class JoinedTiles : public Command {
  protected:
    JoinedTiles() {
        Words rows;
        for (int i = 0; i < 40; ++i) // ids beyond what single precision and 32 bits hold
            rows.push_back(sphere(i, i % 3, fmt::format("{}", 9007199254740993 + i)));
        std::string text = plyOf("x y z radius id", rows);
        text.replace(text.find("int id"), 6, "int64 id");
        write("v.ply", text);
    }

    void renderPart(std::string const& output, Words const& more = {}) const {
        Words words = {"render", "v.ply", "-o", output, "--reproducible", "--size",
                       "50x70",  "-q",    "-n", "2",    "--samples",      "2"};
        words.insert(words.end(), more.begin(), more.end());
        Answer const answer = run(words);
        EXPECT_EQ(answer.code, 0) << answer.err;
    }
    std::string refusal(Words words, int code = 3) const {
        words.insert(words.begin(), "join");
        Answer const answer = run(words);
        EXPECT_EQ(answer.code, code);
        return answer.err;
    }
};

TEST_F(JoinedTiles, AreThePictureOfOneRun) {
    struct Case {
        std::string suffix;
        Words options;
        int count;
    };
    Words const aovs = {"--aov", "depth,normal,id,position,velocity,column:radius", "--background",
                        "none"};
    for (Case const& c : {Case{"exr", aovs, 3}, Case{"exr", {"--crop", "5,7,44,61"}, 4},
                          Case{"exr", {"--crop", "3,20,9,29"}, 9}, Case{"png", {}, 23},
                          Case{"png", {"--background", "none"}, 1}}) {
        SCOPED_TRACE(c.suffix + std::to_string(c.count));
        renderPart("whole." + c.suffix, c.options);
        Words join = {"join", "joined." + c.suffix};
        for (int k = c.count; k >= 1; --k) {
            Words options = c.options;
            options.insert(options.end(), {"--tile", fmt::format("{}/{}", k, c.count)});
            join.push_back(fmt::format("{}.{}", k, c.suffix));
            renderPart(join.back(), options);
        }
        Answer const answer = run(join);
        EXPECT_EQ(answer.err, fmt::format("wrote joined.{} from {} tiles\n", c.suffix, c.count));
        EXPECT_TRUE(read("joined." + c.suffix) == read("whole." + c.suffix));
    }
}

TEST_F(JoinedTiles, AreRefusedUnlessTheyMakeUpOnePicture) {
    for (int k = 1; k <= 3; ++k)
        renderPart(fmt::format("{}.exr", k), {"--tile", fmt::format("{}/3", k)});
    std::string const differs =
        ": is a tile of another picture than 1.exr: its particles or options differ\n";
    for (Words const& options :
         {Words{"--tile", "3/4"}, Words{"--tile", "3/3", "--crop", "0,0,50,69"},
          Words{"--tile", "3/3", "--seed", "1"}, Words{"--tile", "3/3", "--view", "top"},
          Words{"--tile", "3/3", "--radius-scale", "1.01"}, Words{"--tile", "3/3", "--points"},
          Words{"--tile", "3/3", "--no-shadows"}, Words{"--tile", "3/3", "--color", "red"},
          Words{"--tile", "3/3", "--aov", "depth"},
          Words{"--tile", "3/3", "--background", "red"}}) {
        renderPart("other.exr", options);
        EXPECT_EQ(refusal({"o.exr", "1.exr", "2.exr", "other.exr"}), "kelpa: other.exr" + differs)
            << fmt::format("{}", fmt::join(options, " "));
    }
    for (char const* const k : {"1", "2"})
        renderPart(fmt::format("bar{}.exr", k),
                   {"--color-by", "radius", "--tile", fmt::format("{}/2", k),
                    fmt::format("--colorbar=title {}", k)});
    EXPECT_TRUE(contains(refusal({"o.exr", "bar1.exr", "bar2.exr"}), "is a tile of another"));
    EXPECT_EQ(refusal({"o.exr", "2.exr"}),
              "kelpa: of the 3 tiles of 2.exr's picture 1, 3 are missing\n");
    EXPECT_EQ(refusal({"o.exr", "1.exr", "2.exr", "./2.exr", "3.exr"}),
              "kelpa: 2.exr and ./2.exr: both are tile 2/3\n");
    renderPart("whole.exr");
    EXPECT_EQ(refusal({"o.exr", "whole.exr"}),
              "kelpa: whole.exr: is no tile of a picture; kelpa render --tile K/N makes some\n");
    // Files that lost bytes, or had some changed, are named; never is a picture made of them.
    std::string const good = read("2.exr");
    std::string changed = good;
    changed[good.size() / 2] = static_cast<char>(changed[good.size() / 2] ^ 0x55);
    for (std::string const& bytes : {good.substr(0, good.size() / 2), changed, std::string()}) {
        write("2.exr", bytes);
        EXPECT_TRUE(contains(refusal({"o.exr", "1.exr", "2.exr", "3.exr"}),
                             "kelpa: 2.exr: cannot be read: "));
    }
    EXPECT_TRUE(contains(refusal({"o.png", "1.exr"}), "1.exr: cannot be read"));
    EXPECT_TRUE(contains(refusal({"o.exr", "none.exr"}), "none.exr: cannot be opened: No such"));
    EXPECT_TRUE(contains(refusal({"o.ppm", "1.exr"}, 2), "tiles are .exr or .png"));
    EXPECT_TRUE(contains(refusal({"1.exr", "1.exr", "3.exr"}, 2), "1.exr: would be written over"));
    EXPECT_TRUE(others({}).size() == 8) << "no output";
    for (char const* const tile : {"0/3", "4/3", "1/71", "1-3", "-1/3"})
        EXPECT_TRUE(contains(run({"render", "v.ply", "-o", "o.exr", "--size", "50x70",
                                  std::string("--tile=") + tile})
                                 .err,
                             "--tile"));
}

} // namespace
