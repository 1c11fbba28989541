// What the command tells about files, runs and speeds.

#include "pipeline/files/printable.h"

#include "tests/support/command.h"

#include <regex>
#include <set>

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
    // Other programs read these names.
    std::regex const key("\"([a-zA-Z]+)\":");
    std::string keys;
    for (std::sregex_iterator at(json.begin(), json.end(), key), end; at != end; ++at)
        keys += (*at)[1].str() + " ";
    std::string const ofPicture = "file width height cameraRays renderSeconds writeSeconds ";
    EXPECT_EQ(keys, "version threads peakMegabytes scenes file spheres skipped notFinite "
                    "notPositive motion mean largest readSeconds buildSeconds tree bytes "
                    "boundingBox min max numberOfParticleSystems totalNumberOfSpheresStored "
                    "maxTreeDepth averageTreeDepth numberOfTreeNodes numberOfLeafSpheres "
                    "numberOfTreeLeafs averageSpheresLeaf pictures " +
                        ofPicture + ofPicture + ofPicture);
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

/// The long options that a text has.
std::set<std::string> optionsIn(std::string const& text) {
    std::regex const option("--[a-z][-a-z]*");
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), option), end; at != end; ++at)
        found.insert(at->str());
    return found;
}

TEST_F(Command, HasEveryOptionInItsManualAndCompletion) {
    std::string const tool = KELPA_SOURCE_DIR "/tool/";
    std::ifstream file(tool + "kelpa.1");
    std::string manual{std::istreambuf_iterator<char>(file), {}};
    manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
    std::size_t const sections = manual.find("OPTIONS OF RENDER");
    std::set<std::string> ofAll;
    write("complete.sh",
          "PATH=$1:$PATH; . \"$2\"; shift 2; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1))\n"
          "_kelpa; printf '%s\\n' \"${COMPREPLY[@]}\"\n");
    auto const completed = [&](std::string const& words) {
        std::string const line = fmt::format(
            "cd '{}' && bash complete.sh '{}' '{}completion/kelpa.bash' {} >words", folder.string(),
            fs::path(KELPA_COMMAND).parent_path().string(), tool, words);
        EXPECT_EQ(std::system(line.c_str()), 0) << line;
        return read("words");
    };
    std::istringstream commands(completed("kelpa ''"));
    int count = 0;
    for (std::string command; commands >> command; ++count) {
        SCOPED_TRACE(command);
        std::string const help = run({command, "--help-all"}).out;
        std::set<std::string> const options = optionsIn(help.substr(help.find("\nOptions:")));
        EXPECT_GT(options.size(), 3U);
        ofAll.insert(options.begin(), options.end());
        std::set<std::string> const offered = optionsIn(completed("kelpa " + command + " --"));
        EXPECT_EQ(offered, options);
        EXPECT_TRUE(contains(manual, "kelpa " + command));
    }
    EXPECT_GE(count, 4);
    std::string const usual = run({"render", "--help"}).out;
    EXPECT_LT(countOf(usual, "\n"), 40U) << "a person's head holds it";
    EXPECT_LT(optionsIn(usual.substr(usual.find("The usual options"))).size(), 14U) << usual;
    EXPECT_TRUE(contains(usual, "--color-by") && contains(usual, "--help-all")) << usual;
    EXPECT_EQ(completed("kelpa render a.ply --view b"), "back\nbottom\n");
    EXPECT_EQ(completed("kelpa render a.ply --shade l"), "lit\n");
    EXPECT_EQ(completed("kelpa generate s"), "splash\n");
    EXPECT_EQ(completed("kelpa render --view = fr"), "front\n");
    EXPECT_EQ(completed("kelpa info --format gr"), "gro\n");
    EXPECT_EQ(completed("kelpa render a.ply --motion ''").substr(0, 19), "none\nvelocity\nnext\n");
    EXPECT_EQ(optionsIn(manual.substr(sections)), ofAll);
}

TEST_F(Command, IsNotSteeredByWhatFilesAreCalledOrHold) {
    // A title for the terminal's window, a byte that is no UTF-8, text from right to left; a whole
    // letter beside them stays.
    std::string const title = "\033]0;owned\007";
    std::string const name = "\xff" + title + "\u202e\u00e9.ply";
    write(name, plyOf("x y z radius " + title + "\xc3\u00e9", {"0 0 0 1 5"}));
    for (Words const& words :
         {Words{"info", name},
          {"info", "--json", name},
          {"info", name, "--color-by", title},
          {"render", name, "-o", "a.png", "--size", "8x8", "--stats=s.json", "--color-by", "no"},
          {"render", name, "-o", "a.png", "--size", "8x8", "--stats=s.json"},
          {"bench", name, "--runs", "1"}}) {
        Answer const answer = run(words);
        for (std::string const& text : {answer.out, answer.err, read("s.json")}) {
            EXPECT_EQ(text.find('\033'), std::string::npos) << text;
            EXPECT_EQ(pipeline::printable(text, true), text);
        }
    }
    EXPECT_TRUE(contains(run({"info", name}).out, "\\x1b]0;owned\\x07\\xc3\u00e9"));
    EXPECT_TRUE(contains(read("s.json"), "\"\\ufffd\\u001b]0;owned\\u0007"));
    EXPECT_TRUE(
        contains(run({"info", "--json", name}).out, "\\u001b]0;owned\\u0007\\ufffd\u00e9\""));
}

} // namespace
