// Image files.
#include "pipeline/files/errors.h"
#include "pipeline/imagefile/imagefile.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <gtest/gtest.h>
#include <half.h>
#include <png.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

using namespace pipeline;
namespace fs = std::filesystem;

namespace {

void ignored(double, std::uint64_t) {
}

class Pictures : public ::testing::Test {
  protected:
    Pictures() { fs::create_directory(folder); }
    ~Pictures() override { fs::remove_all(folder); }

    std::string in(std::string const& name) const { return (folder / name).string(); }
    fs::path const folder =
        fs::path(::testing::TempDir()) / ("pictures-" + std::to_string(getpid()));
};

/// Pixels [2, 5) x [1, 3) of a picture of 7 x 4, all channels, every value its own.
Image partOfAPicture() {
    Image image{7, 4, 2, 1, 5, 3, {}, {}, {}, {}, {}, {}};
    for (int i = 0; i < 18; ++i) {
        image.rgb.push_back(static_cast<float>(i) / 17.0F);
        image.normal.push_back(static_cast<float>(i) + 0.1F);
        image.position.push_back(1e6F + static_cast<float>(i));
    }
    for (int i = 0; i < 6; ++i) {
        image.alpha.push_back(0.5F);
        image.depth.push_back(1e30F * static_cast<float>(i));
        image.id.push_back((std::int64_t{i} << 33) - 1); // -1 first, and beyond 32 bits
    }
    return image;
}

/// The code of a linear value by the formula of the standard.
int codeOf(double linear) {
    double const v = std::min(linear, 1.0);
    double const encoded = v <= 0.0031308 ? 12.92 * v : (1.055 * std::pow(v, 1.0 / 2.4)) - 0.055;
    return static_cast<int>(std::lround(255.0 * encoded));
}

std::vector<unsigned char> readPng(std::string const& path, png_uint_32 format) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&png, path.c_str()), 0) << png.message;
    EXPECT_EQ(png.format, format);
    std::vector<unsigned char> bytes(PNG_IMAGE_SIZE(png));
    EXPECT_NE(png_image_finish_read(&png, nullptr, bytes.data(), 0, nullptr), 0) << png.message;
    return bytes;
}

/// One channel of an EXR file, read over its data window.
template <class Value>
std::vector<Value> readChannel(Imf::InputFile& file, char const* name, Imf::PixelType type) {
    Imf::Channel const* channel = file.header().channels().findChannel(name);
    EXPECT_TRUE(channel != nullptr && channel->type == type) << name;
    auto const window = file.header().dataWindow();
    auto const width = static_cast<std::size_t>(window.max.x - window.min.x + 1);
    std::vector<Value> values(width * static_cast<std::size_t>(window.max.y - window.min.y + 1));
    Imf::FrameBuffer frame;
    frame.insert(name, Imf::Slice::Make(type, values.data(), window, 0, width * sizeof(Value)));
    file.setFrameBuffer(frame);
    file.readPixels(window.min.y, window.max.y);
    return values;
}

} // namespace

TEST_F(Pictures, OfEightBitsHoldTheNearestCodeOfEveryBrightness) {
    Image image;
    image.width = image.cropX1 = 1000;
    image.height = image.cropY1 = 4;
    for (int i = 0; i < 12000; ++i) // dense in the dark, where a code is narrow; up to 1.2
        image.rgb.push_back(1.2F * std::pow(static_cast<float>(i) / 12000.0F, 3.0F));
    image.alpha.assign(4000, 0.25F);
    image.rgb[9] = std::nanf("");
    image.rgb[10] = -1.0F;

    writeImage(in("a.png"), image, false, ignored);
    writeImage(in("a.ppm"), image, true, ignored);
    std::vector<unsigned char> const bytes = readPng(in("a.png"), PNG_FORMAT_RGB);
    ASSERT_EQ(bytes.size(), image.rgb.size());
    EXPECT_EQ(bytes[9] + bytes[10], 0);
    for (std::size_t i = 11; i < bytes.size(); ++i)
        ASSERT_EQ(bytes[i], codeOf(static_cast<double>(image.rgb[i]))) << image.rgb[i];

    std::ifstream file(in("a.ppm"), std::ios::binary);
    std::string const ppm{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(ppm, "P6\n1000 4\n255\n" + std::string(bytes.begin(), bytes.end()));
}

TEST_F(Pictures, KeepTheirTransparencyTheWayTheFormatWantsIt) {
    Image const image = partOfAPicture();
    writeImage(in("a.PNG"), image, true, ignored);
    std::vector<unsigned char> const bytes = readPng(in("a.PNG"), PNG_FORMAT_RGBA);
    ASSERT_EQ(bytes.size(), 4U * 6U) << "the rendered part alone";
    for (std::size_t i = 0; i < 18; ++i) // half covered: the particles are twice as bright
        EXPECT_EQ(bytes[(i / 3 * 4) + (i % 3)], codeOf(2.0 * static_cast<double>(image.rgb[i])));
    EXPECT_EQ(bytes[3], 128);
}

TEST_F(Pictures, InExrHaveEveryChannelInItsPlaceOfTheWholePicture) {
    Image const image = partOfAPicture();
    writeImage(in("a.exr"), image, true, ignored);
    Imf::InputFile file(in("a.exr").c_str());
    EXPECT_EQ(file.header().displayWindow(), Imath::Box2i({0, 0}, {6, 3}));
    EXPECT_EQ(file.header().dataWindow(), Imath::Box2i({2, 1}, {4, 2}));

    EXPECT_EQ(readChannel<float>(file, "Z", Imf::FLOAT), image.depth);
    std::vector<std::uint32_t> const low = readChannel<std::uint32_t>(file, "id", Imf::UINT);
    std::vector<std::uint32_t> const high = readChannel<std::uint32_t>(file, "id.high", Imf::UINT);
    for (std::size_t pixel = 0; pixel < image.id.size(); ++pixel)
        EXPECT_EQ(static_cast<std::int64_t>((std::uint64_t{high[pixel]} << 32) | low[pixel]),
                  image.id[pixel]);
    EXPECT_EQ(readChannel<half>(file, "A", Imf::HALF), std::vector<half>(6, half(0.5F)));
    char const* const names[3][3] = {{"R", "N.X", "P.X"}, {"G", "N.Y", "P.Y"}, {"B", "N.Z", "P.Z"}};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        auto const color = readChannel<half>(file, names[axis][0], Imf::HALF);
        auto const normal = readChannel<float>(file, names[axis][1], Imf::FLOAT);
        auto const position = readChannel<float>(file, names[axis][2], Imf::FLOAT);
        for (std::size_t i = 0; i < 6; ++i) {
            EXPECT_EQ(color[i], half(image.rgb[(3 * i) + axis]));
            EXPECT_EQ(normal[i], image.normal[(3 * i) + axis]);
            EXPECT_EQ(position[i], image.position[(3 * i) + axis]);
        }
    }
}

TEST_F(Pictures, LeaveNothingBehindWhenTheDiskIsFull) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit const small{20, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    for (char const* name : {"a.png", "a.ppm", "a.exr"})
        EXPECT_THROW(writeImage(in(name), partOfAPicture(), false, ignored), OutputError) << name;
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(Pictures, AreRefusedBeforeAnyWorkWhereTheyCannotBe) {
    EXPECT_NO_THROW(checkWritable(in("new.png")));
    EXPECT_TRUE(fs::is_empty(folder));
    EXPECT_THROW(checkWritable(in("missing/a.png")), OutputError);
    EXPECT_THROW(checkWritable(folder.string()), OutputError);
    EXPECT_THROW(checkWritable("/proc/a.png"), OutputError); // not even root can write here
    EXPECT_THROW(imageFormatOf("a.png.jpg"), std::invalid_argument);
}
