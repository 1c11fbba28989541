// What files tell of a frame as a whole: its step and its time; and ids as large as they come.

#include "tests/support/particlefolder.h"

using namespace pipeline;
using namespace kelpatest;

namespace {

class Facts : public ParticleFiles {
  protected:
    static std::string seed(std::string const& name) {
        return KELPA_SOURCE_DIR "/tests/fuzz/seeds/" + name;
    }
};

using Step = std::optional<std::int64_t>;
using Time = std::optional<double>;

} // namespace

TEST_F(Facts, AreStepAndTimeWhereAFormatTellsThem) {
    struct Case {
        std::string text;
        Step step;
        Time time;
    };
    std::string const dump = "ITEM: TIMESTEP\n4000\nITEM: TIME\n2.5\nITEM: NUMBER OF ATOMS\n1\n"
                             "ITEM: ATOMS x y z\n1 2 3\n";
    std::string const plain = "ITEM: TIMESTEP\n-1\nITEM: NUMBER OF ATOMS\n1\nITEM: ATOMS x y z\n"
                              "1 2 3\n";
    std::string const atom = "    1SOL     OW    1   0.100   0.200   0.300\n1 1 1\n";
    std::string const data = "\n\n1 atoms\n1 atom types\n0 9 xlo xhi\n0 9 ylo yhi\n0 9 zlo zhi\n\n"
                             "Atoms # atomic\n\n1 1 1 1 1\n";
    for (Case const& c :
         {Case{dump + plain, 4000, 2.5}, Case{plain + dump, -1, {}},
          Case{"1\nTime=0.25 step=7 Properties=pos:R:3\n1 2 3\n", 7, 0.25},
          Case{"1\ntime flies\nH 1 2 3\n", {}, {}},
          Case{"water t=   1.50000 step= 750\n1\n" + atom, 750, 1.5},
          Case{"water, t= all\n1\n" + atom, {}, {}},
          Case{"LAMMPS data file via write_data, version 1, timestep = 5000, units = lj" + data,
               5000,
               {}},
          Case{"timestep = soon" + data, {}, {}}}) {
        ParticleSet const set = read(c.text);
        EXPECT_EQ(set.step, c.step) << c.text;
        EXPECT_EQ(set.time, c.time) << c.text;
    }
    // The second frame's are its own.
    EXPECT_EQ(read(dump + plain, {.frame = 1}).time, Time());
    EXPECT_EQ(read(dump + plain, {.frame = 1}).step, -1);
}

TEST_F(Facts, AreIdsBeyond63BitsWithTheirBits) {
    std::string const head = "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty "
                             "float y\nproperty float z\nproperty uint64 id\nend_header\n";
    ParticleSet const set = read(head + "0 0 0 18446744073709551615\n0 0 0 9223372036854775807\n");
    EXPECT_EQ(set.ids, (std::vector<std::int64_t>{-1, 9223372036854775807}));
    EXPECT_TRUE(holdsAll(set.notes.at(0).text, {"1 ids or types are 2^63 or more"}));
    EXPECT_EQ(complaint(""), "the name of a file is empty");
}
