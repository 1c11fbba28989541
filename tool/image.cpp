#include "tool/image.h"

#include "tool/outputfile.h"
#include "tool/particlefile.h"
#include "tool/srgb.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfOutputFile.h>
#include <ImfStandardAttributes.h>
#include <fmt/format.h>
#include <half.h>
#include <png.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <new>
#include <stdexcept>

namespace kelpatool {

namespace {

// Pictures are encoded in memory and then written: OpenEXR's files swallow a failure when they are
// closed, and need to seek, which a pipe cannot.

int partWidth(Image const& image) {
    return image.cropX1 - image.cropX0;
}

int partHeight(Image const& image) {
    return image.cropY1 - image.cropY0;
}

// 8 bits -------------------------------------------------------------------------------------

/// Rounds linear light to the nearest 8-bit sRGB code.
///
/// Exact without a power per value: code c begins where the decoded value of c - 1/2 lies. A table
/// by the linear value gives the lowest code that its cell can have; few cells hold a second one.
class CodeFinder {
  public:
    CodeFinder() {
        for (std::size_t code = 1; code < beginOf.size(); ++code)
            beginOf[code] = linearFromSrgb((static_cast<double>(code) - 0.5) / 255.0);
        for (std::size_t cell = 0; cell < lowestOf.size(); ++cell) {
            float const lower = static_cast<float>(cell) / cells;
            auto const next = std::upper_bound(beginOf.begin() + 1, beginOf.end(), lower);
            lowestOf[cell] = static_cast<unsigned char>(next - beginOf.begin() - 1);
        }
    }

    unsigned char code(float linear) const {
        if (!(linear > 0.0F)) // NaN as well
            return 0;
        if (linear >= 1.0F)
            return 255;
        std::size_t found = lowestOf[static_cast<std::size_t>(linear * cells)];
        while (found < 255 && linear >= beginOf[found + 1])
            ++found;
        return static_cast<unsigned char>(found);
    }

  private:
    static constexpr float cells = 4096.0F; // a power of two: the product above is exact

    std::array<float, 256> beginOf{};
    std::array<unsigned char, 4096> lowestOf{};
};

unsigned char coverageCode(float alpha) {
    return static_cast<unsigned char>((std::clamp(alpha, 0.0F, 1.0F) * 255.0F) + 0.5F);
}

/// The picture as bytes: R G B, or R G B A with the colours no longer multiplied by alpha.
std::string bytesOf(Image const& image, bool withAlpha) {
    static CodeFinder const finder;
    std::string bytes;
    bytes.reserve(image.alpha.size() * (withAlpha ? 4 : 3));
    for (std::size_t pixel = 0; pixel < image.alpha.size(); ++pixel) {
        float const alpha = image.alpha[pixel];
        float const gain = withAlpha && alpha > 0.0F ? 1.0F / alpha : 1.0F;
        for (std::size_t channel = 0; channel < 3; ++channel)
            bytes += static_cast<char>(finder.code(image.rgb[(3 * pixel) + channel] * gain));
        if (withAlpha)
            bytes += static_cast<char>(coverageCode(alpha));
    }
    return bytes;
}

std::string encodePpm(Image const& image) {
    return fmt::format("P6\n{} {}\n255\n", partWidth(image), partHeight(image)) +
           bytesOf(image, false);
}

std::string encodePng(Image const& image, bool withAlpha) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(partWidth(image));
    png.height = static_cast<png_uint_32>(partHeight(image));
    png.format = withAlpha ? PNG_FORMAT_RGBA : PNG_FORMAT_RGB;
    // Five times as fast for the noise of a sampled picture, and 2 % larger.
    png.flags = PNG_IMAGE_FLAG_FAST;
    std::string const pixels = bytesOf(image, withAlpha);

    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
    std::string bytes(size, '\0');
    if (png_image_write_to_memory(&png, bytes.data(), &size, 0, pixels.data(), 0, nullptr) == 0)
        throw std::runtime_error(png.message);
    bytes.resize(size);
    return bytes;
}

// EXR ----------------------------------------------------------------------------------------

/// A file in memory.
class MemoryStream : public Imf::OStream {
  public:
    MemoryStream() : OStream("memory") {}

    void write(char const* data, int count) override {
        auto const length = static_cast<std::size_t>(count);
        if (bytes.size() < position + length)
            bytes.resize(position + length);
        std::memcpy(bytes.data() + position, data, length);
        position += length;
    }
    std::uint64_t tellp() override { return position; }
    void seekp(std::uint64_t place) override { position = static_cast<std::size_t>(place); }

    std::string bytes;

  private:
    std::size_t position = 0;
};

/// Half floats with R G B A of every pixel in turn; what is brighter than they can hold becomes the
/// brightest, since infinity spoils every filter that meets it.
std::vector<half> halvesOf(Image const& image, bool withAlpha) {
    constexpr float brightest = 65504.0F;
    std::vector<half> halves;
    halves.reserve(4 * image.alpha.size());
    for (std::size_t pixel = 0; pixel < image.alpha.size(); ++pixel) {
        for (std::size_t channel = 0; channel < 3; ++channel)
            halves.emplace_back(std::min(image.rgb[(3 * pixel) + channel], brightest));
        halves.emplace_back(withAlpha ? image.alpha[pixel] : 1.0F);
    }
    return halves;
}

/// The channels of a file: what its header lists and where their values are.
class ExrChannels {
  public:
    ExrChannels(Image const& image, Imf::Header& fileHeader)
        : header(fileHeader), rowLength(static_cast<std::size_t>(partWidth(image))) {}

    /// Adds interleaved channels of one type, named in the order of their values. `values` must
    /// outlive the file; when empty nothing is added.
    template <class Value>
    void add(std::vector<std::string> const& names, Imf::PixelType type,
             std::vector<Value> const& values) {
        if (values.empty())
            return;
        std::size_t const stride = names.size() * sizeof(Value);
        for (std::size_t i = 0; i < names.size(); ++i) {
            header.channels().insert(names[i], Imf::Channel(type));
            frame.insert(names[i], Imf::Slice::Make(type, values.data() + i, header.dataWindow(),
                                                    stride, stride * rowLength));
        }
    }

    Imf::FrameBuffer frame;

  private:
    Imf::Header& header;
    std::size_t rowLength;
};

std::string encodeExr(Image const& image, bool withAlpha) {
    Imf::Header header(image.width, image.height);
    header.dataWindow() = {{image.cropX0, image.cropY0}, {image.cropX1 - 1, image.cropY1 - 1}};
    Imf::addChromaticities(header, Imf::Chromaticities()); // linear light with sRGB's primaries

    std::vector<half> const colors = halvesOf(image, withAlpha);
    ExrChannels channels(image, header);
    channels.add({"R", "G", "B", "A"}, Imf::HALF, colors);
    channels.add({"Z"}, Imf::FLOAT, image.depth);
    channels.add({"N.X", "N.Y", "N.Z"}, Imf::FLOAT, image.normal);
    channels.add({"P.X", "P.Y", "P.Z"}, Imf::FLOAT, image.position);
    channels.add({"id"}, Imf::UINT, image.id);

    MemoryStream stream;
    {
        Imf::OutputFile file(stream, header);
        file.setFrameBuffer(channels.frame);
        file.writePixels(partHeight(image));
    } // its end writes the table of rows
    return std::move(stream.bytes);
}

std::string encode(ImageFormat format, Image const& image, bool withAlpha) {
    switch (format) {
    case ImageFormat::png:
        return encodePng(image, withAlpha);
    case ImageFormat::exr:
        return encodeExr(image, withAlpha);
    case ImageFormat::ppm:
        break;
    }
    return encodePpm(image);
}

} // namespace

ImageFormat imageFormatOf(std::string const& path) {
    std::string const written = std::filesystem::path(path).extension().string();
    std::string suffix = written;
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    if (suffix == ".png")
        return ImageFormat::png;
    if (suffix == ".exr")
        return ImageFormat::exr;
    if (suffix == ".ppm")
        return ImageFormat::ppm;
    throw std::invalid_argument(
        fmt::format("{}: {}; use .png, .exr or .ppm", path,
                    written.empty() ? "has no suffix that tells the format"
                                    : fmt::format("pictures cannot be written as {}", written)));
}

void checkWritable(std::string const& path) {
    OutputFile::check(path);
}

void writeImage(std::string const& path, Image const& image, bool withAlpha) {
    ImageFormat const format = imageFormatOf(path);
    std::string bytes;
    try {
        bytes = encode(format, image, withAlpha);
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& error) { // OpenEXR has its own kinds
        throw OutputError(fmt::format("{}: cannot be written: {}", path, error.what()));
    }
    // Only now: until there is a temporary file, Ctrl-C does not have to wait for the encoding.
    OutputFile file(path);
    file.write(bytes);
    file.commit();
}

} // namespace kelpatool
