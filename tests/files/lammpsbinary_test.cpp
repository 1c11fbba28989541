// Binary dumps of LAMMPS, in every form of their headers.

#include "pipeline/files/framesource.h"

#include "tests/support/particlefolder.h"

#include <cstring>

using namespace pipeline;
using namespace kelpatest;

namespace {

class BinaryDumps : public ParticleFiles {};

/// Writes the numbers of a dump, of either byte order.
struct DumpWriter {
    bool isForeign = false;
    std::string bytes{};

    template <class Number> DumpWriter& put(Number number) {
        std::string raw(sizeof number, '\0');
        std::memcpy(raw.data(), &number, sizeof number);
        bytes += isForeign ? std::string(raw.rbegin(), raw.rend()) : raw;
        return *this;
    }
    DumpWriter& put(std::string const& text) {
        put(static_cast<std::int32_t>(text.size()));
        bytes += text;
        return *this;
    }
    /// A header up to the names of columns, of a box from -1 to 3, to 4 and to 8, periodic along x.
    DumpWriter& header(std::int64_t step, std::int64_t atoms, int revision, bool isTilted,
                       std::int32_t values) {
        if (revision > 0) {
            put(std::int64_t{-10});
            bytes += "DUMPCUSTOM";
            put(std::int32_t{1}).put(std::int32_t{revision});
        }
        put(step).put(atoms).put(std::int32_t{isTilted});
        for (int const face : {0, 0, 1, 1, 2, 2})
            put(std::int32_t{face});
        for (double const bound : {-1.0, 3.0, 0.0, 4.0, 0.0, 8.0})
            put(bound);
        for (double const tilt : {1.0, 0.0, -2.0})
            if (isTilted)
                put(tilt);
        return put(values);
    }
    DumpWriter& rows(std::vector<std::vector<double>> const& parts) {
        put(static_cast<std::int32_t>(parts.size()));
        for (std::vector<double> const& part : parts) {
            put(static_cast<std::int32_t>(part.size()));
            for (double const value : part)
                put(value);
        }
        return *this;
    }
};

/// Two frames of two atoms that two processors wrote, and a third that wrote none.
std::string custom(bool isForeign) {
    DumpWriter dump{isForeign};
    dump.header(100, 2, 2, false, 6).put(std::string("metal")).put(char{1}).put(0.5);
    dump.put(std::string("id type xu yu zu c_pe"));
    dump.rows({{7, 2, 1, 2, 3, -1.5}, {}, {9, 1, 4, 5, 6, 2.5}});
    dump.header(200, 1, 2, true, 6).put(std::string()).put(char{0});
    dump.put(std::string("id type xs ys zs c_pe"));
    dump.rows({{7, 2, 0.5, 0.5, 0.25, 3}});
    return dump.bytes;
}

} // namespace

TEST_F(BinaryDumps, AreReadInBothByteOrders) {
    for (bool const isForeign : {false, true}) {
        std::string const bytes = custom(isForeign);
        ParticleSet const first = read(bytes, {.attributes = {"c_pe"}, .summarise = true});
        EXPECT_EQ(first.format, "LAMMPS binary dump");
        EXPECT_EQ(first.frameCount, 2);
        ASSERT_EQ(first.ids, (std::vector<std::int64_t>{7, 9}));
        EXPECT_EQ(first.types, (std::vector<std::int64_t>{2, 1}));
        EXPECT_TRUE(same(first.positions[0], {1, 2, 3}) && same(first.positions[1], {4, 5, 6}));
        EXPECT_EQ(first.attributes[0].values, (std::vector<float>{-1.5F, 2.5F}));
        EXPECT_EQ(first.step, 100);
        EXPECT_EQ(first.time, 0.5);
        EXPECT_TRUE(first.isUnwrapped);
        EXPECT_EQ(first.cell.value().isPeriodic, (std::array<bool, 3>{true, false, false}));
        FrameSource source(file("a", bytes)); // in one way through the file
        for (int const frame : {0, 1, 0, -1}) {
            ParticleSet const set = source.read(frame, {});
            EXPECT_EQ(set.step, frame == 0 ? 100 : 200);
            // Of edges (3, 0, 0), (1, 2, 0) and (0, -2, 8) from (-1, 2, 0).
            EXPECT_TRUE(frame == 0 || same(set.positions.at(0), {1, 2.5F, 2}))
                << set.positions[0].y;
        }
    }
}

TEST_F(BinaryDumps, OfOldVersionsAreReadByTheNumberOfTheirColumns) {
    for (bool const isForeign : {false, true}) {
        DumpWriter fractions{isForeign};
        fractions.header(3, 1, 0, false, 5).rows({{7, 2, 0.5, 0.25, 0.125}});
        ParticleSet const set = read(fractions.bytes);
        EXPECT_TRUE(same(set.positions.at(0), {1, 1, 1}));
        EXPECT_TRUE(holdsAll(set.notes.at(0).text, {"names no columns", "id type xs ys zs"}));
        DumpWriter places{isForeign};
        places.header(3, 1, 1, false, 8).rows({{7, 2, 0.5, 0.25, 2, 0, -1, 1}});
        EXPECT_TRUE(same(read(places.bytes).positions.at(0), {0.5F, 0.25F, 2}));
        EXPECT_TRUE(same(read(places.bytes).images.at(0), {0, -1, 1}));
        DumpWriter others{isForeign};
        others.header(3, 1, 0, false, 6).rows({{1, 1, 1, 1, 1, 1}});
        EXPECT_TRUE(holdsAll(complaintAbout(others.bytes), {"6 values", "binary2txt"}));
    }
}

TEST_F(BinaryDumps, SayWhereTheyAreDamaged) {
    std::string const good = custom(true);
    for (std::size_t cut = 1; cut < good.size(); ++cut)
        EXPECT_NE(complaintAbout(good.substr(0, cut), {.format = "lammps-binary", .frame = 1}),
                  "no complaint");
    EXPECT_TRUE(holdsAll(complaintAbout(good.substr(0, good.size() - 1), {.frame = 1}),
                         {"ends within frame 1; it is incomplete; use --frame 0"}));
    auto const complain = [&](auto const& build) {
        DumpWriter dump;
        build(dump);
        return complaintAbout(dump.bytes, {.format = "lammps-binary"});
    };
    auto const head = [](DumpWriter& dump, std::int64_t atoms, std::string const& columns) {
        dump.header(0, atoms, 2, false, 5).put(std::string("lj")).put(char{0}).put(columns);
    };
    std::string const five = "id type x y z";
    std::vector<double> const row = {1, 1, 1, 2, 3};
    struct Case {
        std::int64_t atoms;
        std::string columns;
        std::vector<std::vector<double>> parts;
        std::vector<std::string> says;
    };
    for (Case const& c :
         {Case{2, five, {row}, {"frame 0 ends after 1 of 2 rows"}},
          Case{1, five, {row, row}, {"goes on behind its 1 rows"}},
          Case{1, five, {{1, 2, 3}}, {"a part of 3 values, which are no rows of 5"}},
          Case{1, "id x y z", {row}, {"names 4 columns, and its rows have 5 values"}},
          Case{-1, five, {row}, {"-1 atoms of 5 values"}},
          Case{std::int64_t{1} << 60, five, {row}, {"ends after 1 of 1152921504606846976"}}})
        EXPECT_TRUE(holdsAll(complain([&](DumpWriter& dump) {
                                 head(dump, c.atoms, c.columns);
                                 dump.rows(c.parts);
                             }),
                             c.says));
    EXPECT_TRUE(holdsAll(complaintAbout("no dump at all", {.format = "lammps-binary"}),
                         {"does not begin as a binary dump"}));
    std::string odd = good;
    odd[21] = 2; // the mark of the byte order, most significant first
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"mark 2 of its byte order"}));
}
