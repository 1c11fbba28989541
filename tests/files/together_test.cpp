// Snapshots that were written as many files.
#include "tests/support/command.h"

namespace {

using namespace kelpatest;

class FilesTogether : public Command {
  protected:
    /// What `info` tells of files, but for their names.
    std::string told(Words words) const {
        words.insert(words.begin(), "info");
        words.emplace_back("--json");
        Answer const answer = run(words);
        EXPECT_EQ(answer.code, 0) << answer.err;
        return answer.out.substr(std::min(answer.out.find("\"format\""), answer.out.size()));
    }
    /// What is wrong with two files, of which the second holds this.
    std::string complaint(std::string const& second) const {
        write("second", second);
        Answer const answer = run({"info", "first", "second", "--together"});
        EXPECT_EQ(answer.code, 3);
        return answer.err;
    }
};

/// Frame `frame` of a dump as a process writes it that holds atoms `first` to before `last`.
std::string dumpOf(int frame, int first, int last, std::string const& columns = "c_pe") {
    std::string text = fmt::format("ITEM: TIMESTEP\n{}\nITEM: NUMBER OF ATOMS\n{}\n"
                                   "ITEM: BOX BOUNDS pp pp pp\n0 9\n0 9\n0 9\n"
                                   "ITEM: ATOMS id type x y z {}\n",
                                   frame, last - first, columns);
    for (int i = first; i < last; ++i)
        text += fmt::format("{} {} {} {} {} {}\n", 100 - i, 1 + i % 2, i % 5 + 0.1 * frame,
                            i / 5 + 0.01 * i, 0.3 * (i % 3), i * i - 7);
    return text;
}

TEST_F(FilesTogether, AreWhatOneFileWithTheirRowsIs) {
    // The second of them held nothing.
    int const borders[] = {0, 4, 4, 21, 30};
    Words parts;
    for (int p = 0; p < 4; ++p) {
        parts.push_back(fmt::format("part.{}", p));
        write(parts.back(),
              dumpOf(0, borders[p], borders[p + 1]) + dumpOf(1, borders[p], borders[p + 1]));
    }
    write("whole", dumpOf(0, 0, 30) + dumpOf(1, 0, 30));
    auto const both = [&](Words const& more) {
        Words one = {"whole"};
        Words many = parts;
        many.emplace_back("--together");
        one.insert(one.end(), more.begin(), more.end());
        many.insert(many.end(), more.begin(), more.end());
        return std::pair(one, many);
    };
    for (Words const& more : {Words{}, Words{"--frame", "1"}, Words{"--motion", "next"}}) {
        auto const [one, many] = both(more);
        EXPECT_EQ(told(many), told(one)); // radii by spacing, bounds, ranges of the columns
    }
    auto const [one, many] = both({"--color-by", "c_pe", "--aov", "id", "--motion", "next", "-q",
                                   "--size", "60x40", "--samples", "2"});
    auto const picture = [this](Words words, std::string const& name) {
        words.insert(words.begin(), "render");
        words.insert(words.end(), {"-o", name});
        EXPECT_EQ(run(words).err, "");
        // Behind the last attribute, a matrix, which the commands before it move, and the places
        // of three chunks: the pixels.
        std::string const exr = read(name);
        std::size_t const last = exr.find("worldToNDC");
        return last < exr.size() ? exr.substr(last + sizeof "worldToNDC" + 5 + 4 + 64 + 1 + 24)
                                 : exr;
    };
    EXPECT_TRUE(picture(one, "one.exr") == picture(many, "many.exr"));
    auto const [kept, keptParts] = both({"-q", "-o", "p.ply"});
    auto const converted = [this](Words words) {
        words.insert(words.begin(), "convert");
        EXPECT_EQ(run(words).err, "");
        return read("p.ply");
    };
    EXPECT_EQ(converted(kept), converted(keptParts));
}

TEST_F(FilesTogether, AreToldWhereTheyDiffer) {
    write("first", plyOf("x y z radius", {"0 0 0 1", "3 0 0 1"}));
    EXPECT_EQ(complaint(plyOf("x y z", {"6 0 0"})),
              "kelpa: first and second: only one has radii; they are not one snapshot\n");
    EXPECT_TRUE(contains(complaint(plyOf("x y z radius vx vy vz", {"6 0 0 1 0 0 0"})),
                         "only one has velocities"));
    EXPECT_TRUE(contains(complaint(dumpOf(0, 0, 3)), "their cells differ"));
    EXPECT_TRUE(contains(complaint("ply\n"), "second: "));
    write("second", plyOf("x y z radius mass", {"6 0 0 1 5"}));
    EXPECT_TRUE(contains(run({"info", "first", "second", "--together"}).err,
                         "note: second: its columns and those before differ in mass\n"));
    EXPECT_TRUE(contains(run({"convert", "first", "second", "--together", "-o", "o.ply"}).err,
                         "first and second: one has more columns"));
    EXPECT_TRUE(contains(run({"convert", "first", "second", "--together", "-o", "second"}).err,
                         "would be written over"));
}

} // namespace
