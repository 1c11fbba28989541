// Tiles of a picture as OpenEXR.
#include "pipeline/imagefile/memorystream.h"
#include "pipeline/imagefile/tilefiles.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <ImfStringAttribute.h>

#include <stdexcept>

namespace pipeline {

namespace {

std::size_t bytesOf(Imf::PixelType type) {
    return type == Imf::HALF ? 2 : 4;
}

/// The pixels of some rows, whatever the channels, in the file's own types.
class Rows {
  public:
    Rows(Imf::ChannelList const& channels, Imath::Box2i const& box) {
        auto const width = static_cast<std::size_t>(box.max.x - box.min.x) + 1;
        auto const height = static_cast<std::size_t>(box.max.y - box.min.y) + 1;
        std::size_t pixelBytes = 0;
        for (auto at = channels.begin(); at != channels.end(); ++at)
            pixelBytes += bytesOf(at.channel().type);
        values.resize(pixelBytes * width * height);
        std::size_t offset = 0;
        for (auto at = channels.begin(); at != channels.end(); ++at) {
            std::size_t const size = bytesOf(at.channel().type);
            frame.insert(at.name(), Imf::Slice::Make(at.channel().type, values.data() + offset, box,
                                                     size, size * width));
            offset += size * width * height;
        }
    }

    Imf::FrameBuffer frame;

  private:
    std::vector<char> values;
};

/// The header of a picture that is put together, from that of one of its tiles.
Imf::Header headerOfWhole(Imf::Header header, TileLabel const& label) {
    auto const& [left, top, right, bottom] = label.whole;
    header.dataWindow() = {{left, top}, {right - 1, bottom - 1}};
    header.erase(tileLabelName);
    return header;
}

} // namespace

std::optional<TileLabel> labelOfExr(std::string const& path) {
    Imf::InputFile const file(path.c_str());
    auto const* const text = file.header().findTypedAttribute<Imf::StringAttribute>(tileLabelName);
    return text != nullptr ? labelFrom(text->value()) : std::nullopt;
}

void joinExr(std::vector<TileFile> const& tiles, ByteSink const& sink, TileBegin const& begin) {
    MemoryStream stream;
    {
        std::optional<Imf::OutputFile> whole;
        for (TileFile const& tile : tiles) {
            begin(tile);
            Imf::InputFile file(tile.path.c_str());
            auto const [left, top, right, bottom] = tile.label.part();
            Imath::Box2i const box({left, top}, {right - 1, bottom - 1});
            if (!whole)
                whole.emplace(stream, headerOfWhole(file.header(), tile.label));
            if (file.header().dataWindow() != box ||
                !(file.header().channels() == whole->header().channels()))
                throw std::runtime_error("its pixels are not those that it was written with");
            Rows rows(file.header().channels(), box);
            file.setFrameBuffer(rows.frame);
            file.readPixels(top, bottom - 1);
            whole->setFrameBuffer(rows.frame);
            whole->writePixels(bottom - top);
        }
    } // its end writes the table of rows
    stream.passTo(sink);
}

} // namespace pipeline
