// What the command writes over, and what it leaves as it was.

#include "tests/support/command.h"

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <thread>

namespace {

using namespace kelpatest;

class Outputs : public Command {
  protected:
    Outputs() { write("v.ply", plyOf("x y z radius", {sphere(0, 0), sphere(1, 0)})); }

    Answer renderTo(std::string const& output, Words const& more = {},
                    std::string const& from = "v.ply", rlim_t maxBytes = RLIM_INFINITY) const {
        Words words = {"render", from, "-o", output, "--size", "9x9", "--samples", "1", "-q"};
        words.insert(words.end(), more.begin(), more.end());
        return run(words, maxBytes);
    }
    struct stat statusOf(std::string const& name) const {
        struct stat status {};
        stat((folder / name).c_str(), &status);
        return status;
    }
};

TEST_F(Outputs, KeepWhatTheReplacedFileWasButItsContent) {
    write("old.ppm", "old");
    chmod((folder / "old.ppm").c_str(), 0600);
    fs::create_directory(folder / "far");
    fs::create_symlink("far/chain.ppm", folder / "link.ppm");
    fs::create_symlink("absent.ppm", folder / "far/chain.ppm");
    write("one.ppm", "old");
    fs::create_hard_link(folder / "one.ppm", folder / "two.ppm");
    ino_t const place = statusOf("one.ppm").st_ino;

    for (char const* const name : {"old.ppm", "link.ppm", "one.ppm"})
        EXPECT_EQ(renderTo(name).err, "") << name;
    std::string const picture = read("old.ppm");
    EXPECT_EQ(picture.substr(0, 2), "P6");
    EXPECT_EQ(statusOf("old.ppm").st_mode & 07777U, 0600U);
    EXPECT_TRUE(fs::is_symlink(folder / "link.ppm"));
    EXPECT_TRUE(fs::is_symlink(folder / "far/chain.ppm"));
    EXPECT_EQ(read("far/absent.ppm"), picture);
    EXPECT_EQ(read("two.ppm"), picture);
    EXPECT_EQ(statusOf("one.ppm").st_ino, place);

    // What cannot be finished leaves a file with several names its content, too.
    EXPECT_EQ(renderTo("one.ppm", {"--view", "top"}, "v.ply", 100).code, 4);
    EXPECT_EQ(read("two.ppm"), picture);
    fs::create_symlink("circle.ppm", folder / "circle.ppm");
    EXPECT_EQ(renderTo("circle.ppm").code, 4);
    EXPECT_TRUE(fs::is_symlink(folder / "circle.ppm"));
}

TEST_F(Outputs, MayHaveNamesAsLongAsTheFolderTakes) {
    for (std::string const letters : {"a", "\xC3\xA4"}) { // of one byte, and of two
        for (std::size_t const length : {243U, 250U, 255U}) {
            std::string name;
            while (name.size() + letters.size() + 4 <= length)
                name += letters;
            name += ".ppm";
            EXPECT_EQ(renderTo(name).err, "") << length;
            EXPECT_EQ(read(name).substr(0, 2), "P6");
        }
    }
    EXPECT_EQ(others({"v.ply"}).size(), 6U);
}

TEST_F(Outputs, AreFinishedUnderSignalsThatAreToBeIgnored) {
    for (int const signal : {SIGHUP, SIGINT}) // as nohup asks, and scripts for background jobs
        std::signal(signal, SIG_IGN);
    pid_t const child =
        start({"render", "v.ply", "-q", "-o", "p.ppm", "--size", "99x99", "--samples", "400"});
    std::this_thread::sleep_for(std::chrono::milliseconds{300});
    for (int const signal : {SIGHUP, SIGINT}) {
        kill(child, signal);
        std::signal(signal, SIG_DFL);
    }
    EXPECT_EQ(finish(child).code, 0);
    EXPECT_EQ(others({"v.ply"}), Words{"p.ppm"});
}

TEST_F(Outputs, NeverGoWhereInputsOrOtherOutputsAre) {
    std::string const particles = read("v.ply");
    for (char const* const name : {"s.0.ply", "s.1.ply", "other.ply"})
        write(name, particles);
    fs::create_symlink("v.ply", folder / "link.ppm");
    fs::create_hard_link(folder / "v.ply", folder / "hard.ppm");
    fs::create_hard_link(folder / "s.1.ply", folder / "p1.ppm");
    fs::create_symlink("f1.ppm", folder / "f0.ppm");
    fs::create_directory(folder / "sub");
    Words const known = others({});
    auto const refusal = [&](Words words) {
        Answer const answer = run(words);
        EXPECT_EQ(answer.code, 2) << answer.err;
        for (char const* const name : {"v.ply", "s.0.ply", "s.1.ply", "other.ply"})
            EXPECT_EQ(read(name), particles) << name;
        return answer.err;
    };
    auto const refusalToRender = [&](Words words) {
        Words const usual = {"--size", "9x9", "--samples", "1", "-q"};
        words.insert(words.begin(), "render");
        words.insert(words.end(), usual.begin(), usual.end());
        return refusal(words);
    };
    std::string const over = ": would be written over while it is read; write elsewhere\n";
    for (std::string const name : {"link.ppm", "hard.ppm"})
        EXPECT_EQ(refusalToRender({"v.ply", "-o", name}), "kelpa: " + name + over);
    EXPECT_EQ(refusalToRender({"v.ply", "-o", "a.ppm", "--stats=sub/../v.ply"}),
              "kelpa: sub/../v.ply" + over);
    EXPECT_EQ(refusalToRender({"v.ply", "other.ply", "-o", "a.ppm", "--stats=other.ply"}),
              "kelpa: other.ply" + over);
    EXPECT_EQ(refusalToRender({"s.{}.ply", "-o", "a.ppm", "--stats=s.1.ply"}),
              "kelpa: s.1.ply" + over);
    EXPECT_EQ(refusalToRender({"v.ply", "-o", "a.ppm", "--stats=sub/../a.ppm"}),
              "kelpa: a.ppm: would be written twice; name two files\n");
    EXPECT_EQ(refusal({"convert", "v.ply", "-o", "./v.ply"}), "kelpa: ./v.ply" + over);
    EXPECT_EQ(others(known), Words{});
    // Numbered pictures are compared when their turn comes.
    EXPECT_EQ(refusalToRender({"s.{}.ply", "--frames", ":", "-o", "p#.ppm"}),
              "kelpa: p1.ppm" + over);
    EXPECT_TRUE(contains(refusalToRender({"s.{}.ply", "--frames", ":", "-o", "f#.ppm"}),
                         "f1.ppm: would be written twice"));
    EXPECT_EQ(renderTo("d.ppm", {"--stats=/dev/null"}, "v.ply").code, 0);
}

} // namespace
