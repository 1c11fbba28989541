// Trees that a run leaves to the next, or that do not fit into its memory.

#include "tests/support/command.h"

#include <csignal>

namespace {

using namespace kelpatest;

class KeptTrees : public Command {
  protected:
    KeptTrees() { run({"generate", "galaxy", "--count", "20000", "-o", "g.ply", "-q"}); }

    Answer render(std::string const& output, Words const& more = {}) const {
        Words words = {"render", "g.ply", "-o",      output, "--size",    "120x90",
                       "-n",     "2",     "--block", "500",  "--samples", "2"};
        words.insert(words.end(), more.begin(), more.end());
        return run(words);
    }
    bool isSame(std::string const& picture) const { return read(picture) == read("whole.ppm"); }
};

TEST_F(KeptTrees, ServeTheNextRunAndSmallMemories) {
    EXPECT_EQ(render("whole.ppm").code, 0);
    Answer const bounded = render("a.ppm", {"--memory", "0.3M", "--stats=a.json"});
    EXPECT_EQ(bounded.code, 0);
    EXPECT_TRUE(isSame("a.ppm"));
    EXPECT_NE(bounded.err.find("blocks read, "), std::string::npos) << bounded.err;
    EXPECT_NE(read("a.json").find("\"blocksRead\": "), std::string::npos);
    EXPECT_NE(read("a.json").find("\"blocks\": {\"number\": 64, "), std::string::npos);

    EXPECT_EQ(render("b.ppm", {"--cache", "c"}).code, 0);
    Answer const again = render("d.ppm", {"--cache", "c", "--stats=d.json"});
    EXPECT_TRUE(isSame("b.ppm") && isSame("d.ppm"));
    EXPECT_EQ(again.err.find("block-"), std::string::npos) << again.err;
    EXPECT_NE(read("d.json").find("\"built\": 0, \"found\": 64"), std::string::npos);
    Answer const info = run({"info", "g.ply", "--stats", "--block", "500", "--cache", "c"});
    EXPECT_NE(info.out.find("Trees found in the cache: 64"), std::string::npos) << info.out;

    // Of other particles it is told and made anew; a file that is damaged is named.
    Answer const other = render("e.ppm", {"--cache", "c", "--radius-scale", "2"});
    EXPECT_NE(other.err.find("c/block-000000.kelpa is of other particles"), std::string::npos);
    EXPECT_NE(other.err.find("63 other files beside it; built anew"), std::string::npos)
        << other.err;
    fs::resize_file(folder / "c/block-000007.kelpa", 100);
    Answer const cut = render("f.ppm", {"--cache", "c", "--radius-scale", "2", "--memory", "300k"});
    EXPECT_NE(cut.err.find("c/block-000007.kelpa is cut short; built anew"), std::string::npos);
    EXPECT_EQ(read("f.ppm"), read("e.ppm"));

    // Each frame of a film has its own.
    EXPECT_EQ(render("film.#.ppm", {"--cache", "film", "--frames", "0:0"}).code, 0);
    EXPECT_TRUE(fs::exists(folder / "film/frame-0000/block-000063.kelpa"));
}

TEST_F(KeptTrees, NameWhatCannotBe) {
    for (std::string const size : {"8X", "-1G", "0", "G", "8 Gi B", "1e30"})
        EXPECT_EQ(render("a.ppm", {"--memory", size}).code, 2) << size;
    EXPECT_EQ(render("a.ppm", {"--memory", "8X"}).err,
              "kelpa: --memory: '8X' is no size such as 8G or 500M\n");
    EXPECT_EQ(render("a.ppm", {"--cache", ""}).code, 2);
    Answer const noFolder = render("a.ppm", {"--cache", "g.ply"});
    EXPECT_EQ(noFolder.code, 4);
    EXPECT_NE(noFolder.err.find("kelpa: g.ply: is no folder for a cache\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(folder / "a.ppm"));
}

TEST_F(KeptTrees, LeaveNothingButWholeFilesBehindWhenInterrupted) {
    for (Words const& kept : {Words{"--memory", "0.3M"}, Words{"--cache", "c"}})
        for (int milliseconds : {5, 40, 120}) {
            Words words = {"render",  "g.ply", "-o", "a.ppm", "--size",    "2000x2000", "-q",
                           "--block", "500",   "-n", "2",     "--samples", "99"};
            words.insert(words.end(), kept.begin(), kept.end());
            pid_t const child = start(words);
            usleep(static_cast<useconds_t>(1000 * milliseconds));
            kill(child, SIGTERM);
            EXPECT_NE(finish(child).code, 0);
            for (auto const& entry : fs::recursive_directory_iterator(folder))
                EXPECT_NE(entry.path().extension(), ".part") << entry.path();
        }
    EXPECT_EQ(render("whole.ppm").code, 0);
    EXPECT_EQ(render("a.ppm", {"--cache", "c"}).code, 0);
    EXPECT_TRUE(isSame("a.ppm"));
}

} // namespace
