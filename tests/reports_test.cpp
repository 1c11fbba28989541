// What the command tells about files, runs and speeds.

#include "tests/command.h"

namespace {

using namespace kelpatest;

std::size_t countOf(std::string const& text, std::string const& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

TEST_F(Command, CountsAndTimesForOtherPrograms) {
    run({"generate", "cloud", "--count", "500", "-o", "c.ply"});
    // The file that follows a bare --stats is not taken for its value.
    Answer const turn = run({"render", "--stats=s.json", "c.ply", "--turntable", "3", "--size",
                             "20x10", "--samples", "2", "-o", "turn.#.ppm"});
    EXPECT_EQ(turn.code, 0) << turn.err;
    EXPECT_EQ(others({"c.ply"}), (Words{"s.json", "turn.0.ppm", "turn.1.ppm", "turn.2.ppm"}));
    std::string const json = read("s.json");
    EXPECT_EQ(countOf(json, "\"cameraRays\": 400"), 3U) << json;
    EXPECT_EQ(countOf(json, "\"numberOfTreeNodes\": "), 1U) << json;
    Answer const printed =
        run({"render", "--stats", "c.ply", "--size", "9x9", "-o", "a.ppm", "-q"});
    EXPECT_TRUE(contains(printed.err, "Number of tree nodes: ")) << printed.err;
    EXPECT_EQ(run({"render", "c.ply", "-o", "b.ppm", "--stats=absent/s.json"}).code, 4);
    EXPECT_EQ(run({"render", "c.ply", "-o", "b.ppm", "--turntable", "3"}).code, 2);

    std::string const list = run({"info", "c.ply", "c.ply", "--json", "-q"}).out;
    EXPECT_EQ(list.substr(0, 2) + list.substr(list.size() - 3), "[\n\n]\n");
    EXPECT_EQ(countOf(list, "\"particles\": 500"), 2U) << list;

    Answer const bench =
        run({"bench", "c.ply", "--motion", "c.ply", "--runs", "1", "--rays", "200", "-q"});
    EXPECT_EQ(bench.code, 0) << bench.err;
    for (char const* const part : {"still   ", "moving  "})
        EXPECT_EQ(countOf(bench.out, part), 4U) << bench.out;
    EXPECT_EQ(countOf(bench.out, " million rays/s singly, "), 6U) << bench.out;
}

} // namespace
