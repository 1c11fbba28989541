#include "pipeline/files/elements.h"
#include "pipeline/files/framesource.h"
#include "pipeline/files/plywriter.h"
#include "pipeline/samples/samples.h"
#include "pipeline/scene/spacing.h"

#include "tests/support/particlefolder.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <random>

using namespace kelpatool;
using namespace kelpatest;

namespace {

constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

std::string gzip(std::string const& bytes) {
    z_stream stream{};
    deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string packed(deflateBound(&stream, bytes.size()) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

std::string ascii(std::string const& properties, std::size_t count, std::string const& rows) {
    std::string header = "ply\nformat ascii 1.0\nelement vertex " + std::to_string(count) + "\n";
    std::string words = properties;
    for (std::size_t end = 0; !words.empty(); words.erase(0, end + 1)) {
        end = std::min(words.find(' '), words.size() - 1);
        header += "property float " + words.substr(0, words.find(' ')) + "\n";
    }
    return header + "end_header\n" + rows;
}

/// Equal to the bit, so that NaN equals itself and the two zeros differ.
template <class Value> bool sameBits(std::vector<Value> const& a, std::vector<Value> const& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(Value)) == 0;
}

/// Writes numbers as a PLY file of one encoding would hold them.
struct Encoder {
    bool isText;
    bool isBig;
    std::string bytes{};

    template <class Number> Encoder& add(Number number) {
        if (isText) {
            bytes += std::to_string(number) + " ";
            return *this;
        }
        char raw[sizeof number];
        std::memcpy(raw, &number, sizeof number);
        if (isBig != (std::endian::native == std::endian::big))
            std::reverse(std::begin(raw), std::end(raw));
        bytes.append(raw, sizeof raw);
        return *this;
    }
    Encoder& endRow() {
        bytes += isText ? "\n" : "";
        return *this;
    }
};

} // namespace

TEST_F(ParticleFiles, HoldTheSameInEveryPlyEncoding) {
    struct Encoding {
        char const* name;
        bool isText, isBig, hasLists;
        char const* title;
    };
    for (Encoding const& encoding :
         {Encoding{"ascii", true, false, true, "PLY ascii"},
          Encoding{"binary_little_endian", false, false, true, "PLY binary little-endian"},
          Encoding{"binary_little_endian", false, false, false, "PLY binary little-endian"},
          Encoding{"binary_big_endian", false, true, false, "PLY binary big-endian"},
          Encoding{"binary_big_endian", false, true, true, "PLY binary big-endian"}}) {
        SCOPED_TRACE(std::string(encoding.title) + (encoding.hasLists ? " with lists" : ""));
        // Every type, under both of its names where it has two; many more rows than fit one block.
        constexpr int count = 30000;
        std::string const header =
            std::string("ply\r\nformat ") + encoding.name +
            " 1.0\r\ncomment end_header is not here\r\nobj_info nor here\r\n"
            "element camera 2\r\nproperty double focus\r\nelement face 2\r\n"
            "property list uchar int corners\r\nproperty list short float32 weights\r\n"
            "property char side\r\nelement vertex " +
            std::to_string(count) +
            "\r\nproperty short x\r\nproperty float y\r\nproperty float64 z\r\n" +
            (encoding.hasLists ? "property list uint8 ushort links\r\n" : "") +
            "property uint16 width\r\nproperty uchar red\r\nproperty uint8 green\r\n"
            "property uchar blue\r\nproperty int8 vx\r\nproperty int16 vy\r\n"
            "property int vz\r\nproperty uint id\r\nproperty uint64 stamp\r\n"
            "element tail 70\r\nproperty float unread\r\nend_header\r\n";
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
        for (int i = 0; i < count; ++i) {
            rows.add(static_cast<std::int16_t>(-i))
                .add(0.5F * static_cast<float>(i))
                .add(0.125 * i);
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
        for (std::string const& bytes : {header + rows.bytes, gzip(header + rows.bytes)}) {
            ReadOptions options;
            options.attributes = {"stamp"};
            options.summarise = true;
            ParticleSet const set = read(bytes, options);
            EXPECT_TRUE(set.format.starts_with(encoding.title)) << set.format;
            ASSERT_EQ(set.positions.size(), std::size_t{count});
            for (std::size_t i = 0; i < count; i += 1 + i / 7) {
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
            EXPECT_EQ(set.columns.at(0).min, 1.0 - count);
            EXPECT_EQ(set.columns.at(1).type, "float");
            EXPECT_EQ(set.columns.at(10).min, 4294967296.0 - count);
            EXPECT_EQ(set.columns.at(10).max, 4294967295.0);
        }
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
    // Of text, what single precision tells is written so; images and words are no particles' own.
    ParticleSet const dump =
        read("ITEM: TIMESTEP\n0\nITEM: NUMBER OF ATOMS\n1\nITEM: BOX BOUNDS pp pp pp\n0 1\n0 1\n"
             "0 1\nITEM: ATOMS id label x xu yu zu ix iy iz\n7 C 1 0.123456 0.123456789 3 1 0 0\n",
             {.allAttributes = true});
    EXPECT_EQ(dump.leftOut, (std::vector<std::string>{"column 'x'", "text 'label'"}));
    writePly((folder / "dump.ply").string(), dump, true, {});
    std::ifstream stream(folder / "dump.ply");
    EXPECT_TRUE(holdsAll({std::istreambuf_iterator<char>(stream), {}},
                         {"float x\nproperty double y\nproperty float z\nproperty int id\n"
                          "property float ix"}));
}

TEST_F(ParticleFiles, AreUnpackedToTheLastByte) {
    std::string rows;
    for (int i = 0; i < 40000; ++i)
        rows += std::to_string(i * 7919 % 10007) + " 2 3\n";
    std::string const plain = ascii("x y z", 40000, rows);
    std::string const packed = gzip(plain);
    std::vector<Kelpa::Vector> const positions = read(plain).positions;

    // Several members, one of them empty, cut in the middle of a word, with padding behind.
    std::string const members = gzip(plain.substr(0, 12345)) + gzip("") +
                                gzip(plain.substr(12345)) + std::string(1000, '\0');
    EXPECT_TRUE(sameBits(read(members).positions, positions));
    EXPECT_EQ(readParticleFile(file("packed.xyz", packed), {}).format, "PLY ascii, gzip");
    for (std::size_t const cut : {std::size_t{11}, packed.size() / 2, packed.size() - 1}) {
        std::string const text = complaintAbout(packed.substr(0, cut));
        EXPECT_TRUE(holdsAll(text, {"the gzip data ends early, after " + std::to_string(cut)}))
            << text;
    }
    for (std::size_t const at : {std::size_t{3}, packed.size() / 3, packed.size() - 6}) {
        std::string damaged = packed;
        damaged[at] = static_cast<char>(damaged[at] ^ 0xff);
        EXPECT_TRUE(holdsAll(complaintAbout(damaged), {"gzip data is damaged near byte"})) << at;
    }
}

TEST_F(ParticleFiles, AreUnpackedInWhicheverWayTheyArePacked) {
    std::string const seeds = KELPA_SOURCE_DIR "/tests/fuzz/seeds/xyz/";
    std::vector<Kelpa::Vector> const positions = readParticleFile(seeds + "plain", {}).positions;
    ASSERT_EQ(positions.size(), 3U);
    for (std::string const name : {
#ifdef KELPA_ZSTD
             "zst",
#endif
#ifdef KELPA_LZMA
             "xz",
#endif
#ifdef KELPA_BZIP2
             "bz2",
#endif
         }) {
        SCOPED_TRACE(name);
        std::ifstream stream(seeds + "plain." + name, std::ios::binary);
        std::string const packed{std::istreambuf_iterator<char>(stream), {}}; // two streams
        EXPECT_TRUE(sameBits(read(packed + std::string(8, '\0')).positions, positions));
        EXPECT_TRUE(holdsAll(complaintAbout(packed.substr(0, packed.size() - 3)),
                             {"data ends early, after", "incomplete"}));
        std::string odd = packed;
        char& last = odd[odd.size() - 3]; // of a checksum, or what guards it
        last = static_cast<char>(~last);
        EXPECT_TRUE(holdsAll(complaintAbout(odd), {"data is damaged near byte"}))
            << complaintAbout(odd);
    }
}

TEST_F(ParticleFiles, HoldAtomsAsXyz) {
    ParticleSet const plain =
        read("3\r\nwater\r\nO 0 0 0 ignored\r\nh1 1 0 0\r\n 26\t0 1 +1e0\r\n");
    EXPECT_EQ(plain.format, "XYZ");
    EXPECT_EQ(plain.elements, (std::vector<std::uint8_t>{8, 1, 26}));
    EXPECT_TRUE(same(plain.positions[2], {0.0F, 1.0F, 1.0F}));

    ReadOptions options;
    options.attributes = {"tag", "virial.2", "fixed"};
    ParticleSet const extended = read(
        "2\nLattice=\"9 0 0 0 9 0 0 0 9\" "
        "Properties=\"id:I:1:note:S:2:pos:R:3:species:S:1:vel:R:3:color:R:3:radius:R:1:tag:I:1:"
        "virial:R:4:fixed:L:1:Z:I:1\" Time=3\n"
        "9007199254740993 a b 1 2 3 Si 4 5 6 0 .5 1 7 8 1 2 3 4 T 1\n"
        "12 a b 1 2 3 Qq 4 5 6 0 .5 1 7 9 1 3 3 4 F 1\n",
        options);
    EXPECT_EQ(extended.format, "extended XYZ");
    EXPECT_EQ(extended.ids, (std::vector<std::int64_t>{9007199254740993, 12}));
    EXPECT_TRUE(same(extended.positions[1], {1.0F, 2.0F, 3.0F}));
    EXPECT_TRUE(same(extended.velocities[1], {4.0F, 5.0F, 6.0F}));
    EXPECT_TRUE(same(extended.colors[1], {0.0F, 0.5F, 1.0F}));
    EXPECT_EQ(extended.radii, (std::vector<float>{7.0F, 7.0F}));
    EXPECT_EQ(extended.elements, (std::vector<std::uint8_t>{14, 0}));
    EXPECT_EQ(extended.unknownElements, (std::vector<std::string>{"Qq"}));
    EXPECT_EQ(extended.attributes[0].values, (std::vector<float>{8.0F, 9.0F}));
    EXPECT_EQ(extended.attributes[1].values, (std::vector<float>{2.0F, 3.0F}));
    EXPECT_EQ(extended.attributes[2].values, (std::vector<float>{1.0F, 0.0F}));
    EXPECT_EQ(read("1\nProperties=pos:R:3:numbers:I:1\n1 2 3 79\n").elements.at(0), 79);

    // Keys in any case and spacing; what a value quotes is no key.
    for (char const* const comment :
         {"\tproperties=id:I:1:pos:R:3\tlattice='9 0 0 0 8 0 0 0 7'\tPBC=\"T F T\"",
          "old=\"Properties=species:S:1:pos:R:3 Lattice=\\\"1 0 0\\\"\" PROPERTIES = "
          "id:I:1:pos:R:3 "
          "LATTICE = \"9 0 0 0 8 0 0 0 7\" pbc = [T, F, T]",
          "a title Lattice=[[9,0,0],[0,8,0],[0,0,7]] 'my key'={Properties=pos:R:3} "
          "Properties=\"id:I:1:pos:R:3\" pbc={T F T} unclosed=\"Lattice=0"}) {
        ParticleSet const set = read(std::string("1\n") + comment + "\n77 1 2 3\n");
        EXPECT_EQ(set.ids, std::vector<std::int64_t>{77}) << comment;
        ASSERT_TRUE(set.cell) << comment;
        EXPECT_EQ(set.cell->edges[1][1], 8.0);
        EXPECT_EQ(set.cell->isPeriodic, (std::array<bool, 3>{true, false, true})) << comment;
    }

    for (auto const& [symbol, number] : {std::pair{"H", 1},
                                         {"cl", 17},
                                         {"NA", 11},
                                         {"Fe3+", 26},
                                         {"D", 1},
                                         {"Og", 118},
                                         {"", 0},
                                         {"C-alpha", 0},
                                         {"Xyz", 0},
                                         {"7", 0}})
        EXPECT_EQ(atomicNumberOf(symbol), number) << symbol;
    EXPECT_EQ(elementRadius(1, false), 1.10F);
    EXPECT_EQ(elementRadius(46, false), 2.15F);
    EXPECT_EQ(elementRadius(46, true), 1.39F);
    EXPECT_EQ(elementRadius(0, false), 1.70F);
    EXPECT_TRUE(same(elementColor(1), {1.0F, 1.0F, 1.0F}));
    EXPECT_NEAR(elementColor(8).y, 0.0040F, 1e-4F); // 0d in sRGB
}

TEST_F(ParticleFiles, HoldFramesAsXyz) {
    auto const frame = [](int number, int rows) {
        std::string text = std::to_string(number + 1) + "\nframe\n";
        for (int row = 0; row < rows; ++row)
            text += "C " + std::to_string(number) + " 0 0\n";
        return text;
    };
    std::string const whole = frame(0, 1) + frame(1, 2) + "\n  \n" + frame(2, 3);
    for (auto const& [wanted, found] : {std::pair{0, 0}, {2, 2}, {-1, 2}, {-3, 0}}) {
        for (std::string const& bytes : {whole, gzip(whole)}) {
            ParticleSet const set = read(bytes, {.frame = wanted});
            EXPECT_EQ(set.positions.size(), static_cast<std::size_t>(found + 1));
            EXPECT_EQ(set.positions[0].x, static_cast<float>(found));
            EXPECT_EQ(set.frameCount, wanted < 0 ? 3 : found + 1);
        }
    }
    EXPECT_TRUE(holdsAll(complaintAbout(whole, {.frame = 3}), {"no frame 3; it has 3"}));
    EXPECT_TRUE(holdsAll(complaintAbout(whole, {.frame = -4}), {"no frame -4; it has 3"}));

    std::string const cut = frame(0, 1) + frame(1, 2) + frame(2, 2);
    std::string const early =
        "a:11: frame 2 ends after 2 of 3 rows; use --frame 1 or an earlier one";
    for (int const wanted : {2, 3, -1})
        EXPECT_EQ(complaintAbout(cut, {.frame = wanted}), early) << wanted;
    ParticleSet const summary = read(cut, {.summarise = true});
    EXPECT_EQ(summary.frameCount, 2);
    ASSERT_EQ(summary.notes.size(), 1U);
    EXPECT_TRUE(holdsAll(summary.notes[0].text, {"frame 2 ends after 2 of 3 rows"}));
    EXPECT_EQ(read(frame(0, 1) + frame(1, 2), {.summarise = true}).frameCount, 2);

    // Words beyond the columns that were listed are worth a note; where none were, they are usual.
    EXPECT_TRUE(read("2\n\nC 1 2 3\nC 1 2 3 0.5\n").notes.empty());
    EXPECT_TRUE(holdsAll(read("2\nProperties=pos:R:3\n1 2 3\n1 2 3 0.5\n").notes.at(0).text,
                         {":4: a row of frame 0 with more words than its 3 columns; 1 such rows"}));

    struct Case {
        std::string bytes;
        int frame;
        char const* words;
    };
    for (Case const& c :
         {Case{frame(4, 4), 0, "a:6: frame 0 ends after 4 of 5 rows"},
          Case{frame(0, 1) + frame(2, 2) + frame(1, 2), 1,
               "row of frame 1 with 1 of 4 columns; use"},
          Case{frame(0, 1) + "many\n", 1, "a:4: 'many' where the number of atoms of frame 1"},
          Case{"1\n\nC 0 zero 0\n", 0, "a:3: 'zero' where a number for 'pos.y' belongs"},
          Case{"1\nProperties=pos:R:99999999999\n", 0, "a:2: 99999999999 columns of 'pos'"},
          Case{"1\nProperties=pos:Q:3\n", 0, "no column type 'Q'"},
          Case{"1\nProperties=pos:R\n", 0, "Properties lists name:type:columns"},
          Case{"1\nProperties=id:I:1\n7\n", 0, "no column 'pos.x'; it has id"}}) {
        std::string const text = complaintAbout(c.bytes, {.frame = c.frame});
        EXPECT_TRUE(holdsAll(text, {c.words})) << text;
        EXPECT_EQ(text.find("use --frame -1"), std::string::npos);
    }
}

TEST_F(ParticleFiles, EndBehindTheirLastFrameInEveryFormat) {
    for (char const* const name : {"ply/text", "xyz/plain", "lammps/tilted", "gro/frames",
                                   "bgeo/attributes", "pdb/assembly", "mmcif/assembly",
#ifdef KELPA_READS_VDB
                                   "vdb/points"
#endif
         }) {
        SCOPED_TRACE(name);
        FrameSource source(std::string(KELPA_SOURCE_DIR "/tests/fuzz/seeds/") + name);
        ParticleSet const last = source.read(-1, {});
        EXPECT_FALSE(source.readAfter(last.frame, {}));
        EXPECT_THROW(source.read(last.frame + 1, {}), NoSuchFrame);
    }
}

TEST_F(ParticleFiles, HoldParticlesAsBgeo) {
    constexpr int count = 20000; // more than fit one block
    auto const attribute = [](Encoder& to, std::string const& name, int size, int type) {
        to.add(static_cast<std::uint16_t>(name.size())).bytes += name;
        to.add(static_cast<std::uint16_t>(size)).add(type);
    };
    Encoder header{false, true, "BgeoV"};
    header.add(5).add(count).add(1).add(0).add(0).add(5).add(0).add(0).add(0);
    attribute(header, "width", 1, 0);
    header.add(0.5F);
    attribute(header, "kind", 1, 4);
    header.add(2).add(std::uint16_t{0}).add(std::uint16_t{5}).bytes += "spray";
    attribute(header, "v", 3, 5);
    header.add(0).add(0).add(0);
    attribute(header, "Cd", 4, 0);
    header.add(0).add(0).add(0).add(0);
    attribute(header, "id", 1, 1);
    header.add(0);
    Encoder rows{false, true};
    for (int i = 0; i < count; ++i)
        rows.add(static_cast<float>(i))
            .add(1.0F)
            .add(-2.0F)
            .add(7.0F) // w is no part of it
            .add(3.0F)
            .add(i % 2)
            .add(0.1F)
            .add(0.2F)
            .add(static_cast<float>(-i))
            .add(0.25F)
            .add(0.5F)
            .add(1.0F)
            .add(0.0F)
            .add(16777217 + i);
    std::string const bytes = header.bytes + rows.bytes + "primitives are not looked at";
    for (std::string const& file : {bytes, gzip(bytes)}) {
        ParticleSet const particles = read(file, {.attributes = {"kind"}, .summarise = true});
        ASSERT_EQ(particles.positions.size(), count);
        int const last = count - 1;
        EXPECT_TRUE(same(particles.positions[last], {last, 1.0F, -2.0F}));
        EXPECT_TRUE(same(particles.velocities[last], {0.1F, 0.2F, -last}));
        EXPECT_TRUE(same(particles.colors[last], {0.25F, 0.5F, 1.0F}));
        EXPECT_EQ(particles.ids[last], 16777217 + last);
        EXPECT_EQ(particles.radii[last], 1.5F);
        EXPECT_EQ(particles.attributes[0].values[last], last % 2);
        EXPECT_EQ(particles.columns.size(), 13U);
        EXPECT_EQ(particles.upAxis, 'y');
    }
    // Cut anywhere, it is refused; and so is a count that nothing stands behind.
    std::size_t const whole = header.bytes.size() + rows.bytes.size();
    for (std::size_t cut = 6; cut < whole; cut += cut < header.bytes.size() ? 1 : 99991)
        EXPECT_TRUE(holdsAll(complaintAbout(bytes.substr(0, cut)), {"it is incomplete"})) << cut;
    EXPECT_TRUE(holdsAll(complaintAbout(header.bytes),
                         {"promises 20000 points of 56 bytes, the file holds 0"}));
    std::string odd = bytes;
    odd[8] = 4;
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"version 4 of classic BGEO"}));
    odd = bytes;
    odd[53] = 3; // the type of `width`
    EXPECT_TRUE(holdsAll(complaintAbout(odd), {"'width' is of type 3; 0 (float)"}));
}

TEST(RadiusFromSpacing, IsHalfTheWayToTheSixthNeighbour) {
    auto const lattice = [](int n, float step) {
        std::vector<Kelpa::Vector> points;
        for (int i = 0; i < n * n * n; ++i)
            points.push_back({step * static_cast<float>(i % n),
                              step * static_cast<float>(i / n % n),
                              step * static_cast<float>(i / (n * n))});
        return points;
    };
    std::vector<Kelpa::Vector> points = lattice(40, 0.25F);
    EXPECT_EQ(radiusFromSpacing(points, {}), 0.125F);
    // Copies, what is not finite and a stray point at the end of the world change nothing.
    std::vector<Kelpa::Vector> const once = points;
    for (Kelpa::Vector const& point : once)
        points.insert(points.end(), {point, {notANumber, 0.0F, infinity}});
    points.push_back({3e38F, -3e38F, 3e38F});
    EXPECT_EQ(radiusFromSpacing(points, {}), 0.125F);
    // Of seven points in a row, each there twice, the sixth neighbours are 6 5 4 3 4 5 6 away.
    std::vector<Kelpa::Vector> row;
    for (int i = 0; i < 14; ++i)
        row.push_back({static_cast<float>(i / 2), 7.0F, 7.0F});
    EXPECT_EQ(radiusFromSpacing(row, {}), 2.5F);
    // In a plane the sixth neighbour is across a square, sqrt(2) away.
    std::vector<Kelpa::Vector> plane = lattice(40, 2.0F);
    std::erase_if(plane, [](Kelpa::Vector const& p) { return p.z > 0.0F; });
    EXPECT_NEAR(radiusFromSpacing(plane, {}), std::sqrt(2.0F), 1e-5F);

    EXPECT_EQ(radiusFromSpacing({}, {}), 0.0F);
    EXPECT_EQ(radiusFromSpacing({{1, 2, 3}, {1, 2, 3}, {notANumber, 0, 0}}, {}), 0.0F);
    EXPECT_EQ(radiusFromSpacing({{0, 0, 0}, {0, 0, 0}, {3, 4, 0}}, {}), 2.5F); // one neighbour only

    // Half of the points in a clump a million times as dense: a judge asks every point.
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(0.0F, 1.0F);
    std::vector<Kelpa::Vector> clump;
    for (int i = 0; i < 70000; ++i) {
        float const scale = i % 2 == 0 ? 0.01F : 1.0F;
        clump.push_back({scale * unit(random), scale * unit(random), scale * unit(random)});
    }
    std::vector<double> sixths;
    for (std::size_t i = 0; i < clump.size(); i += 233) {
        std::vector<double> squares;
        for (Kelpa::Vector const& p : clump)
            squares.push_back(std::pow(p.x - clump[i].x, 2) + std::pow(p.y - clump[i].y, 2) +
                              std::pow(p.z - clump[i].z, 2));
        std::nth_element(squares.begin(), squares.begin() + 6, squares.end());
        sixths.push_back(std::sqrt(squares[6]));
    }
    std::sort(sixths.begin(), sixths.end());
    double const radius = radiusFromSpacing(clump, {});
    EXPECT_GT(radius, 0.5 * sixths[sixths.size() * 4 / 10]);
    EXPECT_LT(radius, 0.5 * sixths[sixths.size() * 6 / 10]);
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

TEST_F(ParticleFiles, AreReadAndWrittenAtATouchOfCtrlC) {
    // Whatever takes long asks; when it is told to stop it does, and leaves things as they were.
    std::string const path = file("kept.ply", ascii("x y z", 1, "1 2 3\n"));
    std::string const frames = file("frames.xyz", [] {
        std::string text;
        for (int i = 0; i < 100000; ++i)
            text += "1\n\nC 0 0 0\n";
        return text;
    }());
    ParticleSet const set = generateParticles("galaxy", 50000, 1, {});
    for (std::function<void(PhaseProgress const&)> const& phase :
         {std::function<void(PhaseProgress const&)>(
              [&](PhaseProgress const& p) { writePly(path, set, true, p); }),
          {[&](PhaseProgress const& p) { radiusFromSpacing(set.positions, p); }},
          {[&](PhaseProgress const& p) { generateParticles("galaxy", 50000, 1, p); }},
          {[&](PhaseProgress const& p) { generateParticles("splash", 50000, 1, p); }},
          {[&](PhaseProgress const& p) { generateParticles("crystal", 50000, 1, p); }},
          {[&](PhaseProgress const& p) { generateParticles("cloud", 50000, 1, p); }},
          {[&](PhaseProgress const& p) {
              readParticleFile(frames, {.frame = -1, .progress = p});
          }}}) {
        int calls = 0;
        EXPECT_THROW(phase([&](double fraction, std::uint64_t) {
                         EXPECT_GE(fraction, 0.0);
                         EXPECT_LE(fraction, 1.0);
                         if (++calls == 4)
                             throw Interrupted();
                     }),
                     Interrupted);
    }
    EXPECT_EQ(readParticleFile(path, {}).positions.size(), 1U);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 2);

    try {
        writePly("/dev/full", set, false, {});
        FAIL() << "a full disk went unnoticed";
    } catch (OutputError const& error) {
        EXPECT_TRUE(holdsAll(error.what(), {"/dev/full: cannot be written: No space left"}));
    }
}

TEST(GeneratedParticles, AreTheSameEverywhere) {
    // FNV-1a over all bits, as other compilers, optimisation levels and machines find them.
    struct Case {
        char const* kind;
        std::uint64_t hash;
    };
    for (Case const& c : {Case{"galaxy", 0x786cb81abe0d44cb}, Case{"splash", 0xf718e1c87a3cfd1c},
                          Case{"crystal", 0x4552fb4d1fee7955}, Case{"cloud", 0x3b4a44bd36e5fca8}}) {
        SCOPED_TRACE(c.kind);
        ParticleSet const set = generateParticles(c.kind, 20000, 5, {});
        std::uint64_t hash = 14695981039346656037U;
        auto const take = [&](float value) {
            for (std::uint32_t bits = std::bit_cast<std::uint32_t>(value), i = 0; i < 4; ++i)
                hash = (hash ^ ((bits >> (8 * i)) & 0xff)) * 1099511628211U;
        };
        for (std::size_t i = 0; i < set.positions.size(); ++i) {
            for (Kelpa::Vector const& v : {set.positions[i], set.colors[i], set.velocities[i]}) {
                take(v.x);
                take(v.y);
                take(v.z);
            }
            take(set.radii[i]);
            ASSERT_TRUE(std::isfinite(set.positions[i].x) && set.radii[i] > 0.0F) << i;
        }
        EXPECT_EQ(hash, c.hash) << std::hex << hash;
        for (std::uint64_t const count : {0U, 1U, 12345U})
            EXPECT_EQ(generateParticles(c.kind, count, 2, {}).positions.size(), count);
        EXPECT_FALSE(sameBits(set.positions, generateParticles(c.kind, 20000, 6, {}).positions));
    }
    EXPECT_EQ(sampleKinds().size(), 4U);
    EXPECT_THROW(generateParticles("nebula", 1, 1, {}), std::invalid_argument);
}
