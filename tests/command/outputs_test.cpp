// What the command writes over, and what it leaves as it was.

#include "tests/support/command.h"

#include <sys/stat.h>

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

TEST_F(Outputs, AreFinishedUnderSignalsThatTheShellLetsIgnore) {
    int const status = inShell(
        "render v.ply -q -o p.ppm --size 99x99 --samples 400 -n 1 & sleep 0.3; kill -HUP $!; "
        "kill -INT $!; wait $!",
        "trap '' HUP INT");
    EXPECT_EQ(WEXITSTATUS(status), 0) << read("stderr");
    EXPECT_EQ(others({"v.ply"}), Words{"p.ppm"});
}

} // namespace
