// Programs that read a format on their own: what is made of whatever they say.

#include "pipeline/files/formats/programs/readerprogram.h"
#include "pipeline/files/inputfile.h"

#include "tests/support/particlefolder.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <new>

using namespace pipeline;
using namespace kelpatest;

namespace {

constexpr VectorColumns positionNames[] = {{"P", {"P.x", "P.y", "P.z"}}};
constexpr ColumnNames names = {"attribute", positionNames, {}, {}, {}};

/// A message as a program sends it, for the shell's printf.
std::string message(char kind, std::string const& bytes, std::size_t length) {
    std::string text(1, kind);
    for (int byte = 0; byte < 8; ++byte) {
        char octal[8];
        std::snprintf(octal, sizeof octal, "\\%03o",
                      static_cast<unsigned>((std::uint64_t{length} >> (8 * byte)) & 0xFF));
        text += octal;
    }
    return "printf '" + text + bytes + "'\n";
}

std::string message(char kind, std::string const& bytes) {
    return message(kind, bytes, bytes.size());
}

class ReaderPrograms : public ParticleFiles {
  protected:
    /// Reads a file with a program that is a script; returns what is wrong.
    std::string hear(std::string const& script, ParticleSet& particles,
                     ReadOptions const& options = {},
                     std::chrono::milliseconds patience = ReaderProgram{}.patience) const {
        std::string const program = file("reader", "#!/bin/sh\n" + script);
        chmod(program.c_str(), 0700);
        InputFile input(file("a", "content"), options.progress);
        try {
            readByProgram(input, {program, "Library", "get it", patience}, names, options,
                          particles);
        } catch (NoSuchFrame const&) {
            throw;
        } catch (InputError const& error) {
            return error.what();
        }
        return "";
    }
    std::string hear(std::string const& script) const {
        ParticleSet ignored;
        return hear(script, ignored);
    }
};

std::string const hello = message('h', "kelpa-reader 2");
std::string const columns = message('c', "8P.x\\nvec3s", 10) + message('c', "8P.y\\nvec3s", 10) +
                            message('c', "0P.z\\nchar", 9) + message('c', "7big\\nulong", 10);

} // namespace

TEST_F(ReaderPrograms, SendColumnsOfEveryTypeAndRows) {
    // The file arrives as descriptor 3; a row is 4 + 4 + 1 + 8 bytes.
    std::string const rows = "\\000\\000\\200\\077\\000\\000\\000\\100\\003";
    std::string const big = "\\377\\377\\377\\377\\377\\377\\377\\377";
    ParticleSet particles;
    EXPECT_EQ(hear(hello + "test \"$(cat /proc/self/fd/3)\" = content || exit\n" +
                       message('n', "half\033 read", 10) + columns + message('r', rows + big, 17) +
                       message('r', rows + big, 17) + message('e', ""),
                   particles, {.summarise = true}),
              "");
    ASSERT_EQ(particles.positions.size(), 2U);
    EXPECT_TRUE(same(particles.positions[1], {1, 2, 3}));
    EXPECT_EQ(particles.columns.at(3).max, 18446744073709551615.0);
    EXPECT_TRUE(holdsAll(particles.notes.at(0).text, {"a: half\\x1b read"}));
}

TEST_F(ReaderPrograms, HearWhatIsWantedAndTellFactsAndNames) {
    std::string const places =
        message('c', "8P.x\\nf", 6) + message('c', "8P.y\\nf", 6) + message('c', "8P.z\\nf", 6);
    std::string const script =
        hello + "test \"$2 $3\" = 'frame=-2 kinds=gas,stars' || exit\n" +
        "case \",$4,\" in ,columns=kind,P.x,P.y,P.z,radius,*) ;; *) exit ;; esac\n" +
        message('f', "step\\n-7", 7) + message('f', "frames\\n3", 8) +
        message('f', "cell\\n0 0 0 1 0 0 0 2 0 0 0 3 1 0 1", 34) + message('f', "what\\never", 9) +
        places + message('c', "1kind\\nu", 7) + message('m', "0 gas\\n2 old stars\\n", 18) +
        message('a', "mass") + message('r', "\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\002", 13) +
        message('e', "");
    ReadOptions const wanted{.frame = -2, .kinds = {"gas", "stars"}, .attributes = {"kind"}};
    ParticleSet particles;
    EXPECT_EQ(hear(script, particles, wanted), "");
    EXPECT_EQ(particles.step, -7);
    EXPECT_EQ(particles.frameCount, 3);
    EXPECT_EQ(particles.cell.value().isPeriodic, (std::array<bool, 3>{true, false, true}));
    EXPECT_EQ(particles.attributes.at(0).values, std::vector<float>{2});
    EXPECT_EQ(particles.attributes[0].names->all(),
              (std::vector<std::string>{"gas", "1", "old stars"}));
    // What was not asked for is listed all the same; what is asked for and not sent is refused.
    EXPECT_TRUE(holdsAll(hear(hello + places + message('a', "mass") + message('e', ""), particles,
                              {.attributes = {"m"}}),
                         {"no attribute 'm'; it has P.x P.y P.z mass"}));
    EXPECT_TRUE(holdsAll(hear(hello + places + message('a', "m") + message('e', ""), particles,
                              {.attributes = {"m"}}),
                         {"sends no column 'm', which it has"}));
    EXPECT_THROW(hear(hello + message('x', "no frame 9"), particles), NoSuchFrame);
    EXPECT_THROW(hear(hello + message('o', ""), particles), std::bad_alloc);
}

TEST_F(ReaderPrograms, AreBlamedInOneLineWhateverTheyDo) {
    EXPECT_TRUE(holdsAll(hear(""), {"ends before it reads"}));
    EXPECT_TRUE(holdsAll(hear(message('h', "kelpa-reader 0")), {"another version"}));
    EXPECT_TRUE(holdsAll(hear(hello + columns), {"Library ends while it reads"}));
    EXPECT_TRUE(holdsAll(hear(hello + columns + "kill -SEGV $$"),
                         {"Library ends while it reads", "damaged", "too little memory"}));
    EXPECT_TRUE(holdsAll(hear(hello + message('r', "", std::size_t{1} << 62)), {"ends while"}));
    EXPECT_TRUE(holdsAll(hear(hello + message('c', "zP.x\\nq", 6)), {"what is no column"}));
    EXPECT_TRUE(holdsAll(hear(hello + message('p', "two\nlines", 9)), {"a: two lines"}));
    EXPECT_TRUE(holdsAll(hear(hello + message('e', "")), {"no attribute 'P.x'; it has none"}));

    ParticleSet ignored;
    InputFile input(file("a", "content"), {});
    try {
        readByProgram(input, {"kelpa-read-nothing", "Library", "get it"}, names, {}, ignored);
        FAIL();
    } catch (InputError const& error) {
        EXPECT_TRUE(holdsAll(error.what(), {"kelpa-read-nothing, which is not installed; get it"}));
    }
}

TEST_F(ReaderPrograms, EndWhenNobodyWaitsForThemAnyMore) {
    ReadOptions options;
    int asked = 0;
    options.progress = [&](double, std::uint64_t) {
        if (++asked > 3)
            throw Interrupted();
    };
    ParticleSet ignored;
    EXPECT_THROW(hear(hello + "exec sleep 100", ignored, options), Interrupted);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(ReaderPrograms, AreEndedWhenTheySayNothing) {
    ParticleSet ignored;
    std::string const complaint =
        hear(hello + columns + "exec sleep 100", ignored, {}, std::chrono::milliseconds(100));
    EXPECT_TRUE(holdsAll(complaint, {"a: ", "has said nothing for"}));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}
