// What .exr files of the command tell other programs beside colours.

#include "tests/support/command.h"

#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfIntAttribute.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <ImfVecAttribute.h>

#include <cmath>

namespace {

using namespace kelpatest;

/// An .exr of 24x16 pixels, with its channels as single precision.
struct Layers {
    explicit Layers(fs::path const& path) : file(path.c_str()) {}

    std::vector<float> channel(std::string const& name) {
        std::vector<float> values(std::size_t{24} * 16);
        Imf::FrameBuffer frame;
        frame.insert(name, Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(values.data()),
                                      sizeof(float), 24 * sizeof(float)));
        EXPECT_NE(file.header().channels().findChannel(name), nullptr) << name;
        file.setFrameBuffer(frame);
        file.readPixels(0, 15);
        return values;
    }
    template <class Attribute> auto told(char const* name) const {
        return file.header().typedAttribute<Attribute>(name).value();
    }

    Imf::InputFile file;
};

class ExrLayers : public Command {
  protected:
    Layers render(Words words) const {
        write("two.xyz", "2\nProperties=pos:R:3:radius:R:1:velo:R:3:q:R:1\n100 0 0 1 0 0 2 -7\n"
                         "103 1 2 .5 0 3 0 5\n");
        Words const usual = {"--size", "24x16", "--samples", "1", "--shade", "flat", "-o", "a.exr"};
        words.insert(words.begin(), {"render", "two.xyz"});
        words.insert(words.end(), usual.begin(), usual.end());
        Answer const answer = run(words);
        EXPECT_EQ(answer.code, 0) << answer.err;
        return Layers(folder / "a.exr");
    }
};

TEST_F(ExrLayers, LeadFromPlacesToPixelsByTheirMatrices) {
    for (bool const isParallel : {false, true})
        for (bool const isPlanar : {false, true}) {
            SCOPED_TRACE(isParallel * 2 + isPlanar);
            Words words = {"--aov", "depth,position", "--depth", isPlanar ? "planar" : "ray"};
            if (isParallel)
                words.emplace_back("--ortho");
            Layers layers = render(words);
            Imath::M44f const toCamera = Imf::worldToCamera(layers.file.header());
            Imath::M44f const toNdc = Imf::worldToNDC(layers.file.header());
            auto const depth = layers.channel("Z");
            auto const x = layers.channel("P.X");
            auto const y = layers.channel("P.Y");
            auto const z = layers.channel("P.Z");
            int hits = 0;
            for (std::size_t i = 0; i < depth.size(); ++i) {
                if (depth[i] >= 1e30F)
                    continue;
                ++hits;
                Imath::V3f const place(x[i], y[i], z[i]);
                Imath::V3f const seen = place * toCamera;
                bool const isAlongAxis = isPlanar || isParallel;
                EXPECT_NEAR(depth[i], isAlongAxis ? -seen.z : seen.length(), 1e-4);
                Imath::V3f const across = place * toNdc;
                EXPECT_NEAR((across.x + 1) * 12, static_cast<double>(i % 24) + 0.5, 2e-3);
                EXPECT_NEAR((1 - across.y) * 8, static_cast<double>(i / 24) + 0.5, 2e-3);
            }
            EXPECT_GT(hits, 20);
        }
}

TEST_F(ExrLayers, HoldColumnsByTheParticleThatIsSeen) {
    // Parted into blocks, the particles change places; their columns go with them.
    std::vector<float> first;
    for (char const* const block : {"1048576", "1"}) {
        Layers layers = render({"--aov", "id,column:q,column:velo", "--block", block});
        auto const q = layers.channel("q");
        auto const along = layers.channel("velo.Z");
        auto const id = layers.channel("id");
        int seen[2] = {};
        for (std::size_t i = 0; i < q.size(); ++i) {
            bool const isFirst = id[i] == 0.0F;
            bool const isSecond = id[i] == 1.0F;
            ++seen[isSecond ? 1 : 0];
            EXPECT_EQ(q[i], isFirst ? -7.0F : isSecond ? 5.0F : 0.0F) << i;
            EXPECT_EQ(along[i], isFirst ? 2.0F : 0.0F) << i;
        }
        EXPECT_GT(seen[1], 4);
        EXPECT_TRUE(first.empty() || first == q);
        first = q;
    }
    EXPECT_TRUE(contains(run({"render", "two.xyz", "-o", "a.exr", "--aov", "column:q2"}).err,
                         "no column 'q2'"));
    EXPECT_TRUE(contains(run({"render", "two.xyz", "-o", "a.png", "--aov", "velocity"}).err,
                         "PNG cannot hold --aov"));
}

TEST_F(ExrLayers, TellMotionInPixels) {
    for (bool const isParallel : {false, true}) {
        SCOPED_TRACE(isParallel);
        Words words = {"--aov", "velocity,position,id", "--motion", "velocity", "--shutter",
                       "0:.25"};
        if (isParallel)
            words.emplace_back("--ortho");
        Layers layers = render(words);
        Imath::M44f const toNdc = Imf::worldToNDC(layers.file.header());
        auto const x = layers.channel("P.X");
        auto const y = layers.channel("P.Y");
        auto const z = layers.channel("P.Z");
        auto const right = layers.channel("velocity.X");
        auto const up = layers.channel("velocity.Y");
        auto const id = layers.channel("id");
        int seen = 0;
        for (std::size_t i = 0; i < id.size(); ++i) {
            if (id[i] != 0.0F && id[i] != 1.0F) {
                EXPECT_EQ(right[i], 0.0F);
                continue;
            }
            ++seen;
            // The sample's time is not told, but lies within the shutter, open for a quarter.
            Imath::V3f const place(x[i], y[i], z[i]);
            Imath::V3f const way = (id[i] == 0.0F ? Imath::V3f(0, 0, 2) : Imath::V3f(0, 3, 0)) / 4;
            Imath::V3f const early = (place + way) * toNdc - place * toNdc;
            Imath::V3f const late = place * toNdc - (place - way) * toNdc;
            EXPECT_NEAR(right[i], (early.x + late.x) * 6, std::abs(early.x - late.x) * 6 + 1e-3);
            EXPECT_NEAR(up[i], (early.y + late.y) * 4, std::abs(early.y - late.y) * 4 + 1e-3);
        }
        EXPECT_GT(seen, 20);
    }
}

TEST_F(ExrLayers, TellWhatTheyShow) {
    Layers const layers =
        render({"--fps", "25", "--seed", "18446744073709551615", "--motion", "velocity",
                "--shutter", "-.25:.25", "--select", "q != 1 and z < 9", "--compression", "piz",
                "--fov", "30", "--no-shadows", "--memory=1G", "--slice=x:200", "--slice=-z:200"});
    EXPECT_EQ(layers.told<Imf::IntAttribute>("frame"), 0);
    EXPECT_EQ(layers.told<Imf::FloatAttribute>("time"), 0.0F);
    EXPECT_EQ(layers.told<Imf::FloatAttribute>("fov"), 30.0F);
    EXPECT_EQ(layers.told<Imf::V2fAttribute>("shutter"), Imath::V2f(-0.25F, 0.25F));
    EXPECT_EQ(Imf::framesPerSecond(layers.file.header()), Imf::Rational(25, 1));
    EXPECT_EQ(layers.told<Imf::StringAttribute>("seed"), "18446744073709551615");
    EXPECT_EQ(layers.file.header().compression(), Imf::PIZ_COMPRESSION);
    // The command makes the same picture again.
    std::string const first = read("a.exr");
    std::string const command = layers.told<Imf::StringAttribute>("command");
    EXPECT_TRUE(contains(command, "kelpa render two.xyz --select 'q != 1 and z < 9' ")) << command;
    EXPECT_TRUE(contains(command, "--shadows=false")) << command;
    EXPECT_FALSE(contains(command, "--memory")) << command;
    EXPECT_EQ(inShell(command.substr(6) + " -o b.exr -n 3"), 0);
    EXPECT_EQ(read("b.exr"), first);
    EXPECT_TRUE(contains(
        run({"render", "two.xyz", "-o", "a.exr", "--tile", "1/2", "--compression", "dwaa"}).err,
        "--tile excludes --compression dwaa"));
    EXPECT_TRUE(contains(run({"render", "two.xyz", "-o", "a.exr", "--depth", "planar"}).err,
                         "--depth needs --aov depth"));
}

} // namespace
