// Particle files of any format: packed, ended early, interrupted.

#include "pipeline/files/framesource.h"
#include "pipeline/files/plywriter.h"
#include "pipeline/samples/samples.h"
#include "pipeline/scene/spacing.h"

#include "tests/support/particlefolder.h"
#include "tests/support/particletexts.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <functional>
#include <iterator>

namespace {

using namespace kelpatest;
using namespace pipeline;

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

} // namespace
