// A finished picture in memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// What a picture's `id` holds where no particle is: a number that none has, whose low half is that
/// of -1.
constexpr std::int64_t idOfNothing = std::numeric_limits<std::int64_t>::min() + 0xFFFFFFFF;
/// What its `depth` holds there.
constexpr float depthOfNothing = 1e30F;

/// What files of a picture tell beside its pixels, for programs that go on with it.
struct PictureFacts {
    /// Row vectors of places in the file's coordinates times these, row by row: to the camera's
    /// frame, x to the right, y up, looking along -z; and on to -1 to 1 across the picture.
    std::array<float, 16> worldToCamera{};
    std::array<float, 16> worldToNdc{};
    double fov = 0.0; ///< vertical, degrees; 0: parallel rays
    std::uint64_t seed = 0;
    // Of what follows only the command knows.
    int frame = 0;
    double framesPerSecond = 24.0;
    std::array<double, 2> shutter{}; ///< opens and closes, in frames
    std::string software{};
    std::string command{}; ///< that made it; empty: unknown, and so is what is above
};

/// A further layer of single precision, by name: a column of the particles, or their motion.
struct Layer {
    std::string name;
    std::size_t width = 1;       ///< numbers of a pixel
    std::vector<float> values{}; ///< 0 where no particle is
};

/// The layer of a column: its name, with "column." before it where pictures have a layer or a
/// channel of that name anyway.
std::string columnLayerName(std::string const& column);

/// The channels of a layer: its name, or that with .X, .Y and .Z.
std::vector<std::string> channelNames(Layer const& layer);

/// A finished picture: linear light, row by row from the top left.
///
/// Where nothing is behind the particles, `rgb` is the light that they add: black where they cover
/// nothing, so already multiplied by `alpha`.
struct Image {
    int width = 0, height = 0; ///< the whole picture
    // The part that was rendered: pixels [X0, X1) x [Y0, Y1).
    int cropX0 = 0, cropY0 = 0, cropX1 = 0, cropY1 = 0;
    std::vector<float> rgb;   ///< 3 per pixel of the part, linear
    std::vector<float> alpha; ///< 1 per pixel: the part of it covered by particles
    // Further channels, each empty or 1 (3 for vectors) per pixel of the part; from the pixel's
    // first sample.
    std::vector<float> depth, normal, position;
    std::vector<std::int64_t> id;
    std::vector<Layer> layers{}; ///< from the same sample
    /// Empty, or what is drawn over the picture: R G B A of each pixel of the part, linear and
    /// multiplied by A.
    std::vector<float> overlay{};
    std::string tileLabel{}; ///< of a tile, for its file: see `TileLabel`; empty: it is none
    std::optional<PictureFacts> facts{};
};

} // namespace pipeline
