// Where tiles end, and the labels of their files.
#include "pipeline/picture/picturepart.h"

#include "pipeline/picture/tile.h"

#include <cstdio>

namespace pipeline {

PixelBox wholeOf(ImageOptions const& image) {
    return image.crop.value_or(PixelBox{0, 0, image.width, image.height});
}

PixelBox bandOf(PixelBox const& whole, PictureTile const& tile) {
    auto const [left, top, right, bottom] = whole;
    std::int64_t const height = bottom - top;
    bool const hasSquares = height / tileWidth >= tile.count;
    // In rows of the picture. clang 14 captures no part of an array by reference.
    auto const border = [&, top = top](std::int64_t tilesAbove) {
        std::int64_t const row = top + height * tilesAbove / tile.count;
        bool const isEnd = tilesAbove == 0 || tilesAbove == tile.count;
        // Rounded to the nearest square, borders at least one square apart stay apart.
        return static_cast<int>(hasSquares && !isEnd ? (row + tileWidth / 2) / tileWidth * tileWidth
                                                     : row);
    };
    return {left, border(tile.number - 1), right, border(tile.number)};
}

PixelBox partOf(ImageOptions const& image) {
    PixelBox const whole = wholeOf(image);
    return image.tile ? bandOf(whole, *image.tile) : whole;
}

bool TileLabel::isOfSamePicture(TileLabel const& other) const {
    return picture == other.picture && tile.count == other.tile.count && whole == other.whole &&
           width == other.width && height == other.height;
}

std::string textOf(TileLabel const& label) {
    auto const& [left, top, right, bottom] = label.whole;
    char text[160]; // the Python module is also built without libraries that format
    std::snprintf(text, sizeof text, "%d/%d of picture %016llx, %d,%d,%d,%d in %dx%d",
                  label.tile.number, label.tile.count,
                  static_cast<unsigned long long>(label.picture), left, top, right, bottom,
                  label.width, label.height);
    return text;
}

std::optional<TileLabel> labelFrom(std::string_view text) {
    TileLabel label;
    unsigned long long picture = 0;
    auto& [left, top, right, bottom] = label.whole;
    std::string const line(text); // which ends where the scan must end
    int const found = std::sscanf(
        line.c_str(), "%9d/%9d of picture %16llx, %9d,%9d,%9d,%9d in %9dx%9d", &label.tile.number,
        &label.tile.count, &picture, &left, &top, &right, &bottom, &label.width, &label.height);
    label.picture = picture;
    bool const isPossible = found == 9 && 1 <= label.tile.number &&
                            label.tile.number <= label.tile.count && 0 <= left && left < right &&
                            right <= label.width && 0 <= top && top < bottom &&
                            bottom <= label.height && label.tile.count <= bottom - top;
    return isPossible ? std::optional(label) : std::nullopt;
}

} // namespace pipeline
