// PLY files, read and written.

#include "pipeline/files/plywriter.h"

#include "tests/support/particlefolder.h"
#include "tests/support/particletexts.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>

namespace {

using namespace kelpatest;
using namespace pipeline;

struct Encoding {
    char const* name;
    bool isText, isBig, hasLists;
    char const* title;
};

constexpr int rowCount = 30000; // many more than fit one block

/// A header with every type, under both of its names where it has two.
std::string headerOfAllTypes(Encoding const& encoding) {
    return std::string("ply\r\nformat ") + encoding.name +
           " 1.0\r\ncomment end_header is not here\r\nobj_info nor here\r\n"
           "element camera 2\r\nproperty double focus\r\nelement face 2\r\n"
           "property list uchar int corners\r\nproperty list short float32 weights\r\n"
           "property char side\r\nelement vertex " +
           std::to_string(rowCount) +
           "\r\nproperty short x\r\nproperty float y\r\nproperty float64 z\r\n" +
           (encoding.hasLists ? "property list uint8 ushort links\r\n" : "") +
           "property uint16 width\r\nproperty uchar red\r\nproperty uint8 green\r\n"
           "property uchar blue\r\nproperty int8 vx\r\nproperty int16 vy\r\n"
           "property int vz\r\nproperty uint id\r\nproperty uint64 stamp\r\n"
           "element tail 70\r\nproperty float unread\r\nend_header\r\n";
}

std::string rowsOfAllTypes(Encoding const& encoding) {
    Encoder rows{encoding.isText, encoding.isBig};
    rows.add(0.5).endRow().add(0.25).endRow();
    for (int face = 0; face < 2; ++face)
        rows.add(std::uint8_t{2})
            .add(std::int32_t{7})
            .add(std::int32_t{8})
            .add(std::int16_t{1})
            .add(0.5F)
            .add(std::int8_t{-1})
            .endRow();
    for (int i = 0; i < rowCount; ++i) {
        rows.add(static_cast<std::int16_t>(-i)).add(0.5F * static_cast<float>(i)).add(0.125 * i);
        if (encoding.hasLists) {
            rows.add(static_cast<std::uint8_t>(i % 3));
            for (int link = 0; link < i % 3; ++link)
                rows.add(std::uint16_t{65535});
        }
        rows.add(static_cast<std::uint16_t>(i))
            .add(std::uint8_t{0})
            .add(std::uint8_t{188})
            .add(std::uint8_t{255})
            .add(std::int8_t{-128})
            .add(std::int16_t{-300})
            .add(std::int32_t{-70000})
            .add(4294967295U - static_cast<std::uint32_t>(i))
            .add(std::uint64_t{1} << 40)
            .endRow();
    }
    for (int i = 0; i < 70; ++i)
        rows.add(1e30F).endRow();
    return rows.bytes;
}

void expectAllTypes(ParticleSet const& set, Encoding const& encoding) {
    EXPECT_TRUE(set.format.starts_with(encoding.title)) << set.format;
    ASSERT_EQ(set.positions.size(), std::size_t{rowCount});
    for (std::size_t i = 0; i < rowCount; i += 1 + i / 7) {
        float const n = static_cast<float>(i);
        ASSERT_TRUE(same(set.positions[i], {-n, 0.5F * n, 0.125F * n})) << i;
        ASSERT_EQ(set.radii[i], 0.5F * n);
        ASSERT_EQ(set.ids[i], 4294967295 - static_cast<std::int64_t>(i));
    }
    EXPECT_EQ(set.radiusSource, "width / 2");
    EXPECT_EQ(set.colors.back().x, 0.0F);
    EXPECT_NEAR(set.colors.back().y, 0.5029F,
                1e-4F); // IEC 61966-2-1: 188 is half the light
    EXPECT_EQ(set.colors.back().z, 1.0F);
    EXPECT_TRUE(same(set.velocities.back(), {-128.0F, -300.0F, -70000.0F}));
    EXPECT_EQ(set.attributes.at(0).values.back(), 0x1p40F);
    EXPECT_EQ(set.columns.at(0).min, 1.0 - rowCount);
    EXPECT_EQ(set.columns.at(1).type, "float");
    EXPECT_EQ(set.columns.at(10).min, 4294967296.0 - rowCount);
    EXPECT_EQ(set.columns.at(10).max, 4294967295.0);
}

TEST_F(ParticleFiles, HoldTheSameInEveryPlyEncoding) {
    for (Encoding const& encoding :
         {Encoding{"ascii", true, false, true, "PLY ascii"},
          Encoding{"binary_little_endian", false, false, true, "PLY binary little-endian"},
          Encoding{"binary_little_endian", false, false, false, "PLY binary little-endian"},
          Encoding{"binary_big_endian", false, true, false, "PLY binary big-endian"},
          Encoding{"binary_big_endian", false, true, true, "PLY binary big-endian"}}) {
        SCOPED_TRACE(std::string(encoding.title) + (encoding.hasLists ? " with lists" : ""));
        std::string const whole = headerOfAllTypes(encoding) + rowsOfAllTypes(encoding);
        for (std::string const& bytes : {whole, gzip(whole)})
            expectAllTypes(read(bytes, {.attributes = {"stamp"}, .summarise = true}), encoding);
    }
}

TEST_F(ParticleFiles, NameTheirColumnsInManyWays) {
    struct Case {
        char const* properties;
        char const* radiusFrom;
        char const* radius; ///< its source and the value of the only particle, whose row counts up
        float value;
        char const* color;
    };
    for (Case const& c :
         {Case{"x y z psz radius", "", "radius", 5, ""},
          Case{"x y z widths psz pscale", "", "pscale", 6, ""},
          Case{"x y z diameter r", "", "r", 5, ""}, Case{"x y z r g b", "", "", 0, "r g b"},
          Case{"x y z r g b diameter", "", "diameter / 2", 3.5F, "r g b"},
          Case{"x y z hsml h smoothing_length", "", "", 0, ""},
          Case{"x y z hsml radius", "hsml", "hsml", 4, ""},
          Case{"x y z diameter radius", "diameter", "diameter / 2", 2, ""},
          Case{"x y z diffuse_red diffuse_green diffuse_blue r g b red green blue", "", "", 0,
               "red green blue"},
          Case{"nx ny nz z y x diffuse_red diffuse_green diffuse_blue", "", "", 0,
               "diffuse_red diffuse_green diffuse_blue"}}) {
        SCOPED_TRACE(c.properties);
        ReadOptions options;
        options.radiusFrom = c.radiusFrom;
        std::string row = "1";
        for (int word = 2;
             word <= 1 + std::count_if(c.properties, c.properties + std::strlen(c.properties),
                                       [](char x) { return x == ' '; });
             ++word)
            row += " " + std::to_string(word);
        ParticleSet const set = read(ascii(c.properties, 1, row), options);
        EXPECT_EQ(set.radiusSource, c.radius);
        EXPECT_EQ(set.colorSource, c.color);
        EXPECT_EQ(set.radii, c.value > 0 ? std::vector<float>{c.value} : std::vector<float>{});
        EXPECT_EQ(set.colors.size(), *c.color != '\0' ? 1U : 0U);
    }
    // Floating-point colours are linear light already; numbers may be anything that is a number.
    ParticleSet const set = read(ascii("x y z red green blue id", 2,
                                       "\n+1 nan -inf 0.5 2 -1 9007199254740993\n\n"
                                       "1e-60 1e60 .5 0 0 0 1e3"));
    EXPECT_EQ(set.positions[0].x, 1.0F);
    EXPECT_TRUE(std::isnan(set.positions[0].y));
    EXPECT_EQ(set.positions[0].z, -infinity);
    EXPECT_TRUE(same(set.colors[0], {0.5F, 2.0F, -1.0F}));
    EXPECT_TRUE(same(set.positions[1], {0.0F, infinity, 0.5F}));
    EXPECT_EQ(set.ids, (std::vector<std::int64_t>{9007199254740993, 1000}));
    std::string const wide = "property ushort r\nproperty ushort g\nproperty ushort b\n";
    std::string bytes = ascii("x y z", 1, "1 2 3 0 48316 65535\n"); // 188 * 257
    Kelpa::Vector const color = read(bytes.insert(bytes.find("end_header"), wide)).colors.at(0);
    EXPECT_EQ(color.z, 1.0F);
    EXPECT_NEAR(color.y, 0.5029F, 1e-4F);
}

TEST_F(ParticleFiles, SayWhatIsWrongWithThem) {
    std::string const head = "ply\nformat binary_little_endian 1.0\nelement vertex 100\n"
                             "property float x\nproperty float y\nproperty float z\n";
    std::string const end = "end_header\n";
    std::string const lists = "ply\nformat binary_big_endian 1.0\nelement face 3\n"
                              "property list int uint8 f\n" +
                              head.substr(36) + end;
    struct Case {
        std::string bytes;
        std::vector<std::string> words;
        ReadOptions options{};
    };
    for (Case const& c : {
             Case{head + end + std::string(1193, 'x'),
                  {"a: header promises 100 vertices of 12 bytes, the file holds 99; it is 7 bytes "
                   "short "
                   "(text-mode copy?)"}},
             Case{gzip(head + end + std::string(600, 'x')),
                  {"holds 50; it is 600 bytes short (inc"}},
             Case{gzip("ply\nformat binary_big_endian 1.0\nelement vertex 18446744073709551615\n" +
                       head.substr(55) + end + "abc"),
                  {"header promises 18446744073709551615", "holds 0"}},
             Case{"ply\nformat binary_big_endian 1.0\nelement vertex 768614336404564651\n" +
                      head.substr(55) + end + "abc",
                  {"promises 768614336404564651 vertices of 12", "holds 0"}},
             Case{lists + std::string(4, '\xff'), {"ends inside element 'face' number 1 of 3"}},
             Case{lists + std::string(11, '\0'), {"ends inside element 'face' number 3 of 3"}},
             Case{head + "property list char char l\n" + end + std::string(1400, 'x'),
                  {"promises 100 vertices", "ends inside number 11"}},
             Case{ascii("x y z", 3, "1 2 3\n4 5 6\n"), {"promises 3 vertices, the file holds 2"}},
             Case{ascii("x y z", 2, "1 2 3\n4 five 6\n"),
                  {"a:9: 'five' where a number for 'y' belongs"}},
             Case{ascii("x y z", 2, "1 2 3\n4 5\n"), {"a:9: the line ends where a number for 'z'"}},
             Case{ascii("x y z", 2, "1 2 3 4\n"), {"a:8: '4' behind the last of 3 properties"}},
             Case{ascii("x y z", 1, "1 2 3.4.5\n"), {"'3.4.5' where a number"}},
             Case{ascii("x y lum", 1, "1 2 3\n"), {"a: no property 'z'; it has x y lum"}},
             Case{ascii("x y z lum", 1, "1 2 3 4\n"),
                  {"a: no property 'raduis'; it has x y z lum"},
                  {.radiusFrom = "raduis"}},
             Case{ascii("x y z", 1, "1 2 3\n"), {"no property 'lum'"}, {.attributes = {"lum"}}},
             Case{ascii("x y z", 1, "1 2 3\n"), {"no frame 2; a PLY file holds one"}, {.frame = 2}},
             Case{head + "property list float int l\n" + end, {"a:7: a list cannot be counted"}},
             Case{head + "property quad w\n" + end, {"a:7: no PLY type 'quad'"}},
             Case{head + "proprety float w\n" + end, {"a:7: 'proprety' in the header"}},
             Case{head, {"the header does not end"}},
             Case{"ply\nformat ascii 1.0\nelement face 1\nend_header\n",
                  {"no element 'vertex'; it has face"}},
             Case{"ply\nformat ascii 1.0\nelement vertex -1\n",
                  {"a:3: '-1' where the number of elements"}},
             Case{"\x7fNSJ", {"JSON BGEO of newer Houdini; only classic", "or PLY"}},
             Case{"hello\nworld\n", {"a: starts with 'hello', which is neither PLY", "--format"}},
             Case{"", {"a: the file is empty"}},
             Case{gzip(""), {"a: the file is empty"}},
         }) {
        std::string const text = complaintAbout(c.bytes, c.options);
        EXPECT_TRUE(holdsAll(text, c.words)) << text << "\ninstead of " << c.words[0];
    }
}

TEST_F(ParticleFiles, AreFilesThatCanBeOpened) {
    EXPECT_TRUE(
        holdsAll(complaint("/nowhere/b.ply"), {"/nowhere/b.ply: cannot be opened: No such"}));
    EXPECT_TRUE(holdsAll(complaint(folder.string()), {"is a folder, not a particle file"}));
}

TEST_F(ParticleFiles, NoteWhatFollowsThatTheirHeaderDoesNotPromise) {
    std::string const text = ascii("x y z", 1, "1 2 3\n");
    std::string const binary =
        "ply\nformat binary_little_endian 1.0\nelement vertex 1\n"
        "property float x\nproperty float y\nproperty float z\nend_header\n" +
        std::string(12, '\0');
    for (std::string const& exact : {text, text + "\n \n", binary, gzip(binary)})
        EXPECT_TRUE(read(exact).notes.empty());
    EXPECT_TRUE(
        holdsAll(read(text + "\n4 5 6\n").notes.at(0).text, {":10: rows go on behind the 1"}));
    for (std::string const& longer : {binary + "0123456789ab", gzip(binary + "0123456789ab")})
        EXPECT_TRUE(holdsAll(read(longer).notes.at(0).text, {": 12 bytes follow the 1 vertices"}));
}

TEST_F(ParticleFiles, NoteIdsThatAreNoWholeNumbers) {
    std::string const rows = "0 0 0 7\n0 0 0 1e3\n0 0 0 nan\n0 0 0 1e30\n0 0 0 2.5\n";
    std::string const ply = "ply\nformat ascii 1.0\nelement vertex 5\nproperty float x\nproperty "
                            "float y\nproperty float z\nproperty float id\nend_header\n";
    std::string const dump = "ITEM: TIMESTEP\n0\nITEM: NUMBER OF ATOMS\n5\nITEM: BOX BOUNDS pp pp "
                             "pp\n0 1\n0 1\n0 1\nITEM: ATOMS x y z id\n";
    for (std::string const& header : {ply, dump}) {
        ParticleSet const set = readParticleFile(file("a", header + rows), {});
        EXPECT_EQ(set.ids, (std::vector<std::int64_t>{7, 1000, -1, -1, 2}));
        ASSERT_FALSE(set.notes.empty());
        EXPECT_TRUE(holdsAll(set.notes.back().text, {"a: 3 ids or types are no whole numbers"}));
    }
}

TEST_F(ParticleFiles, KeepEveryDigitWhenAllColumnsAreAskedFor) {
    std::string const text =
        "ply\nformat ascii 1.0\nelement vertex 2\nproperty double x\nproperty float y\n"
        "property double z\nproperty list uchar int links\nproperty double diameter\n"
        "property uint64 id\nproperty int64 big\nproperty uchar small\nproperty double vx\n"
        "property float vy\nproperty float vz\nproperty int64 few\nelement face 3\n"
        "property int a\nend_header\n"
        "0.1 2 1e300 1 7 0.2 18446744073709551615 9007199254740993 3 1e-9 0 0 5\n"
        "0.3 2 -1e300 0 0.4 9223372036854775808 -9007199254740993 4 1 0 0 6\n1\n2\n3\n";
    ParticleSet const set = read(text, {.allAttributes = true});
    EXPECT_EQ(set.leftOut, (std::vector<std::string>{"list 'links'", "3 elements 'face'"}));
    for (bool const ascii : {false, true}) {
        std::string const path = (folder / "all.ply").string();
        writePly(path, set, ascii, {});
        std::ifstream stream(path, std::ios::binary);
        std::string const bytes{std::istreambuf_iterator<char>(stream), {}};
        EXPECT_TRUE(holdsAll(bytes, {"property double x\nproperty float y\nproperty double z\n"
                                     "property double radius\nproperty double vx\n",
                                     "property uint64 id\n", "property int64 big\n",
                                     "property float small\n", "property int few\n"}))
            << bytes;
        ParticleSet const again = readParticleFile(path, {.allAttributes = true});
        for (TypedColumn const& column : set.typed)
            for (TypedColumn const& other : again.typed) {
                bool const isKept = column.name == other.name && column.type == other.type;
                EXPECT_TRUE(!isKept || sameBits(column.bytes, other.bytes)) << column.name;
            }
        EXPECT_EQ(again.radii, (std::vector<float>{0.1F, 0.2F}));
        EXPECT_EQ(again.ids,
                  (std::vector<std::int64_t>{-1, std::numeric_limits<std::int64_t>::min()}));
    }
    // Of text, what single precision tells is written so; images are no particles' own.
    ParticleSet const dump =
        read("ITEM: TIMESTEP\n0\nITEM: NUMBER OF ATOMS\n1\nITEM: BOX BOUNDS pp pp pp\n0 1\n0 1\n"
             "0 1\nITEM: ATOMS id label x xu yu zu ix iy iz\n7 C 1 0.123456 0.123456789 3 1 0 0\n",
             {.allAttributes = true});
    EXPECT_EQ(dump.leftOut, std::vector<std::string>{"column 'x'"});
    writePly((folder / "dump.ply").string(), dump, true, {});
    std::ifstream stream(folder / "dump.ply");
    EXPECT_TRUE(holdsAll({std::istreambuf_iterator<char>(stream), {}},
                         {"kelpa-names label C\n",
                          "float x\nproperty double y\nproperty float z\nproperty int id\n"
                          "property uint label\nproperty float ix"}));
}

TEST_F(ParticleFiles, ComeBackFromPlyBitForBit) {
    ParticleSet set;
    std::mt19937 random(3);
    for (int i = 0; i < 5000; ++i) { // every pattern of bits that is no NaN with a payload
        float const value = std::bit_cast<float>(static_cast<std::uint32_t>(random()));
        set.positions.push_back({std::isnan(value) ? notANumber : value, -0.0F, 1e-45F});
        set.radii.push_back(-0.1F * static_cast<float>(i));
        set.colors.push_back({0.2F, 0.0F, static_cast<float>(i)});
        set.velocities.push_back({infinity, 1.0F / 3.0F, static_cast<float>(i)});
        set.elements.push_back(static_cast<std::uint8_t>(i % 119));
    }
    set.attributes.push_back({"potential energy", set.radii});
    set.attributes.push_back({"x", set.radii}); // the position's: not written twice
    std::string const path = (folder / "out.ply").string();
    for (std::int64_t const id :
         {std::int64_t{-5}, std::int64_t{4000000000}, std::int64_t{1} << 53,
          (std::int64_t{1} << 53) + 2, std::numeric_limits<std::int64_t>::min()}) {
        set.ids.assign(set.positions.size(), id);
        set.ids[7] = id > 0 ? id - 1 : 0;
        for (bool const asText : {false, true}) {
            SCOPED_TRACE(std::to_string(id) + (asText ? " ascii" : " binary"));
            writePly(path, set, asText, {});
            ParticleSet const back =
                readParticleFile(path, {.attributes = {"potential_energy"}, .progress = {}});
            EXPECT_TRUE(sameBits(back.positions, set.positions));
            EXPECT_TRUE(sameBits(back.radii, set.radii));
            EXPECT_TRUE(sameBits(back.colors, set.colors));
            EXPECT_TRUE(sameBits(back.velocities, set.velocities));
            EXPECT_TRUE(sameBits(back.ids, set.ids));
            EXPECT_TRUE(sameBits(back.elements, set.elements));
            EXPECT_TRUE(sameBits(back.attributes[0].values, set.radii));
        }
    }
    ASSERT_EQ(readParticleFile(path, {.summarise = true}).columns.size(), 13U);
    // Colours that are sRGB bytes are written as such, and no particles are a file too.
    std::string const bytes = ascii("x y z", 1, "1 2 3 0 127 255\n");
    std::size_t const at = bytes.find("end_header");
    ParticleSet const colored = read(std::string(bytes).insert(
        at, "property uchar red\nproperty uchar green\nproperty uchar blue\n"));
    writePly(path, colored, true, {});
    std::ifstream stream(path);
    std::string const text{std::istreambuf_iterator<char>(stream), {}};
    EXPECT_TRUE(holdsAll(text, {"property uchar blue\n", "\n1 2 3 0 127 255\n"})) << text;
    writePly(path, {}, false, {});
    EXPECT_TRUE(readParticleFile(path, {}).positions.empty());
}

} // namespace
