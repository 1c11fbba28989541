// Pictures as OpenEXR.
#include "pipeline/imagefile/encoders.h"
#include "pipeline/imagefile/memorystream.h"
#include "pipeline/picture/picturepart.h"

#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfFramesPerSecond.h>
#include <ImfHeader.h>
#include <ImfIntAttribute.h>
#include <ImfOutputFile.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <ImfVecAttribute.h>
#include <half.h>

#include <algorithm>
#include <bit>
#include <string>
#include <vector>

namespace pipeline {

namespace {

/// Half floats with R G B A of every pixel of some rows in turn; what is brighter than they can
/// hold becomes the brightest, since infinity spoils every filter that meets it.
std::vector<half> halvesOf(Image const& image, std::size_t firstPixel, std::size_t pixels,
                           bool withAlpha) {
    constexpr float brightest = 65504.0F;
    std::vector<half> halves;
    halves.reserve(4 * pixels);
    for (std::size_t pixel = firstPixel; pixel < firstPixel + pixels; ++pixel) {
        for (std::size_t channel = 0; channel < 3; ++channel)
            halves.emplace_back(std::min(image.rgb[(3 * pixel) + channel], brightest));
        halves.emplace_back(withAlpha ? image.alpha[pixel] : 1.0F);
    }
    return halves;
}

/// The channels of a file in interleaved groups: what its header lists, and where some of its rows
/// have their values.
struct ChannelGroup {
    std::vector<std::string> names; ///< in the order of their values
    Imf::PixelType type;
    void const* values; ///< of the first of the rows; null: the picture has none
};

/// The part's first value of a row, or null when there are none.
template <class Value>
void const* rowOf(std::vector<Value> const& values, std::size_t firstPixel, std::size_t perPixel) {
    return values.empty() ? nullptr : values.data() + (perPixel * firstPixel);
}

/// EXR knows whole numbers of 32 bits alone, so an id takes two channels, as it lies in memory.
std::vector<std::string> halvesOfIds() {
    if constexpr (std::endian::native == std::endian::little)
        return {"id", "id.high"};
    else
        return {"id.high", "id"};
}

std::vector<ChannelGroup> channelsOf(Image const& image, std::size_t firstPixel,
                                     std::vector<half> const& colors) {
    std::vector<ChannelGroup> groups = {
        {{"R", "G", "B", "A"}, Imf::HALF, colors.data()},
        {{"Z"}, Imf::FLOAT, rowOf(image.depth, firstPixel, 1)},
        {{"N.X", "N.Y", "N.Z"}, Imf::FLOAT, rowOf(image.normal, firstPixel, 3)},
        {{"P.X", "P.Y", "P.Z"}, Imf::FLOAT, rowOf(image.position, firstPixel, 3)},
        {{"legend.R", "legend.G", "legend.B", "legend.A"},
         Imf::FLOAT,
         rowOf(image.overlay, firstPixel, 4)},
        {halvesOfIds(), Imf::UINT, rowOf(image.id, firstPixel, 1)}};
    for (Layer const& layer : image.layers)
        groups.push_back(
            {channelNames(layer), Imf::FLOAT, rowOf(layer.values, firstPixel, layer.width)});
    return groups;
}

Imf::Compression compressionOf(ExrCompression compression) {
    switch (compression) {
    case ExrCompression::none:
        return Imf::NO_COMPRESSION;
    case ExrCompression::zips:
        return Imf::ZIPS_COMPRESSION;
    case ExrCompression::piz:
        return Imf::PIZ_COMPRESSION;
    case ExrCompression::dwaa:
        return Imf::DWAA_COMPRESSION;
    case ExrCompression::zip:
        break;
    }
    return Imf::ZIP_COMPRESSION;
}

Imath::M44f matrixOf(std::array<float, 16> const& rows) {
    Imath::M44f matrix;
    std::copy(rows.begin(), rows.end(), matrix[0]);
    return matrix;
}

/// Tells of the picture under the names that compositors know.
void addFacts(Imf::Header& header, PictureFacts const& facts) {
    Imf::addWorldToCamera(header, matrixOf(facts.worldToCamera));
    Imf::addWorldToNDC(header, matrixOf(facts.worldToNdc));
    if (facts.fov > 0.0)
        header.insert("fov", Imf::FloatAttribute(static_cast<float>(facts.fov)));
    header.insert("seed", Imf::StringAttribute(std::to_string(facts.seed))); // of 64 bits
    if (facts.command.empty())
        return;
    auto const seconds = static_cast<float>(facts.frame / facts.framesPerSecond);
    header.insert("frame", Imf::IntAttribute(facts.frame));
    header.insert("time", Imf::FloatAttribute(seconds));
    Imf::addFramesPerSecond(header, Imf::guessExactFps(facts.framesPerSecond));
    header.insert("shutter", Imf::V2fAttribute({static_cast<float>(facts.shutter[0]),
                                                static_cast<float>(facts.shutter[1])}));
    header.insert("software", Imf::StringAttribute(facts.software));
    header.insert("command", Imf::StringAttribute(facts.command));
}

Imf::Header headerOf(Image const& image, ExrCompression compression) {
    Imf::Header header(image.width, image.height);
    header.dataWindow() = {{image.cropX0, image.cropY0}, {image.cropX1 - 1, image.cropY1 - 1}};
    header.compression() = compressionOf(compression);
    if (image.facts)
        addFacts(header, *image.facts);
    Imf::addChromaticities(header, Imf::Chromaticities()); // linear light with sRGB's primaries
    if (!image.tileLabel.empty())
        header.insert(tileLabelName, Imf::StringAttribute(image.tileLabel));
    std::vector<half> const some(1);
    for (ChannelGroup const& group : channelsOf(image, 0, some))
        for (std::string const& name : group.names)
            if (group.values != nullptr)
                header.channels().insert(name, Imf::Channel(group.type));
    return header;
}

/// Writes the rows from `top` to before `bottom`, counted in the whole picture.
void writeRows(Imf::OutputFile& file, Image const& image, int top, int bottom, bool withAlpha) {
    auto const rowLength = static_cast<std::size_t>(image.cropX1 - image.cropX0);
    std::size_t const firstPixel = static_cast<std::size_t>(top - image.cropY0) * rowLength;
    std::vector<half> const colors =
        halvesOf(image, firstPixel, static_cast<std::size_t>(bottom - top) * rowLength, withAlpha);
    Imath::Box2i const rows({image.cropX0, top}, {image.cropX1 - 1, bottom - 1});
    Imf::FrameBuffer frame;
    for (ChannelGroup const& group : channelsOf(image, firstPixel, colors)) {
        std::size_t const size = group.type == Imf::HALF ? sizeof(half) : sizeof(float);
        std::size_t const stride = group.names.size() * size;
        for (std::size_t i = 0; group.values != nullptr && i < group.names.size(); ++i)
            frame.insert(group.names[i],
                         Imf::Slice::Make(group.type,
                                          static_cast<char const*>(group.values) + (i * size), rows,
                                          stride, stride * rowLength));
    }
    file.setFrameBuffer(frame);
    file.writePixels(bottom - top);
}

} // namespace

void encodeExr(Image const& image, bool withAlpha, ExrCompression compression, ByteSink const& sink,
               PhaseProgress const& progress) {
    MemoryStream stream;
    {
        Imf::OutputFile file(stream, headerOf(image, compression));
        int const rows = std::max(1, pixelsAtOnce / (image.cropX1 - image.cropX0));
        for (int top = image.cropY0; top < image.cropY1; top += rows) {
            progress(static_cast<double>(top - image.cropY0) / (image.cropY1 - image.cropY0), 0);
            writeRows(file, image, top, std::min(top + rows, image.cropY1), withAlpha);
        }
    } // its end writes the table of rows
    stream.passTo([&](std::string_view bytes) {
        progress(1.0, 0);
        sink(bytes);
    });
}

} // namespace pipeline
