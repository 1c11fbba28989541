// Parts of one picture that several runs share, and what tells them from parts of others.
#pragma once

#include "pipeline/picture/look.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pipeline {

/// Pixels [X0, X1) x [Y0, Y1), in this order: X0, Y0, X1, Y1.
using PixelBox = std::array<int, 4>;

/// What all tiles of the picture make up: the crop, or everything.
PixelBox wholeOf(ImageOptions const& image);

/// The pixels of one tile. The tiles are bands of nearly the same height, one below the other; they
/// end between the squares that are rendered at a time where there are enough of these.
PixelBox bandOf(PixelBox const& whole, PictureTile const& tile);

/// The pixels that are wanted: a tile, the crop, or everything.
PixelBox partOf(ImageOptions const& image);

/// What the file of a tile says about itself, so that it can be put where it belongs.
struct TileLabel {
    std::uint64_t picture = 0; ///< the same number for all tiles of a picture; see `fingerprintOf`
    PictureTile tile{};
    PixelBox whole{};
    int width = 0; ///< of the picture that `whole` may be a crop of
    int height = 0;

    PixelBox part() const { return bandOf(whole, tile); }
    bool isOfSamePicture(TileLabel const& other) const;
};

/// As one line of text, for formats that know nothing else.
std::string textOf(TileLabel const& label);
/// The same the other way round; nothing when it is no label that could be true.
std::optional<TileLabel> labelFrom(std::string_view text);

/// The name that files have the label under.
inline constexpr char const* tileLabelName = "kelpa:tile";

} // namespace pipeline
