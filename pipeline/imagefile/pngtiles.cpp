// Tiles of a picture as PNG.
#include "pipeline/imagefile/pngfile.h"
#include "pipeline/imagefile/tilefiles.h"

#include <stdexcept>

namespace pipeline {

std::optional<TileLabel> labelOfPng(std::string const& path) {
    std::optional<std::string> const text = PngReader(path).text(tileLabelName);
    return text ? labelFrom(*text) : std::nullopt;
}

void joinPng(std::vector<TileFile> const& tiles, ByteSink const& sink, TileBegin const& begin) {
    PngWriter png;
    bool hasAlpha = false;
    auto const pass = [&] {
        sink(png.bytes);
        png.bytes.clear();
    };
    for (TileFile const& tile : tiles) {
        begin(tile);
        PngReader reader(tile.path);
        auto const [left, top, right, bottom] = tile.label.part();
        if (&tile == &tiles.front()) {
            hasAlpha = reader.hasAlpha();
            auto const& [wholeLeft, wholeTop, wholeRight, wholeBottom] = tile.label.whole;
            png.begin(wholeRight - wholeLeft, wholeBottom - wholeTop, hasAlpha);
        }
        if (!reader.isOfOurKind() || reader.hasAlpha() != hasAlpha ||
            reader.width() != right - left || reader.height() != bottom - top)
            throw std::runtime_error("its pixels are not those that it was written with");
        for (int row = top; row < bottom; ++row) {
            png.addRow(reader.nextRow());
            pass();
        }
    }
    png.end();
    pass();
}

} // namespace pipeline
