#pragma once

#include "pipeline/files/particlefile.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace kelpatool {

/// What a picture's `id` holds where no particle is: a number that none has, whose low half is that
/// of -1.
constexpr std::int64_t idOfNothing = std::numeric_limits<std::int64_t>::min() + 0xFFFFFFFF;
/// What its `depth` holds there.
constexpr float depthOfNothing = 1e30F;

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
};

enum class ImageFormat { png, exr, ppm };

/// By the suffix, in any case of letters. Throws `std::invalid_argument` naming the suffix and the
/// ones that work.
ImageFormat imageFormatOf(std::string const& path);

/// Throws `OutputError` when `path` cannot be written: no such folder, not writable, is a folder.
/// Leaves nothing behind.
void checkWritable(std::string const& path);

/// Writes a picture in the format of its suffix, under a temporary name until it is whole.
///
/// PNG and PPM are 8-bit sRGB and hold the rendered part alone. EXR holds R G B A as half floats
/// and the further channels as Z, N.X N.Y N.Z, P.X P.Y P.Z, id and id.high (the low and the high
/// half of 64 bits), the part as the data window within the whole picture. `withAlpha` says that
/// the picture is transparent where no particle is: PNG then has an alpha channel, not multiplied
/// into the colours as that format wants it; without it the picture is opaque, A is 1. PPM has no
/// transparency. Throws `OutputError` naming file and reason, and `std::invalid_argument` like
/// `imageFormatOf`; what `progress` throws as well; then nothing new is left behind.
void writeImage(std::string const& path, Image const& image, bool withAlpha,
                PhaseProgress const& progress);

} // namespace kelpatool
