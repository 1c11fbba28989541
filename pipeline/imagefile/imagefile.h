// Pictures as files.
#pragma once

#include "pipeline/files/progress.h"
#include "pipeline/picture/image.h"

#include <string>
#include <utility>

namespace pipeline {

/// How an .exr is packed; dwaa loses a little of colours.
enum class ExrCompression { zip, zips, piz, dwaa, none };
inline constexpr std::pair<char const*, ExrCompression> exrCompressionNames[] = {
    {"zip", ExrCompression::zip},
    {"zips", ExrCompression::zips},
    {"piz", ExrCompression::piz},
    {"dwaa", ExrCompression::dwaa},
    {"none", ExrCompression::none}};

enum class ImageFormat { png, exr, ppm };

/// By the suffix, in any case of letters. Throws `std::invalid_argument` naming the suffix and the
/// ones that work.
ImageFormat imageFormatOf(std::string const& path);

/// Throws `OutputError` when `path` cannot be written: no such folder, not writable, is a folder.
/// Leaves nothing behind.
void checkWritable(std::string const& path);

/// Writes a picture in the format of its suffix, under a temporary name until it is whole.
///
/// PNG and PPM are 8-bit sRGB and hold the rendered part alone, with its overlay, which EXR
/// has as legend.R, .G, .B and .A. EXR holds R G B A as half floats
/// and the further channels as Z, N.X N.Y N.Z, P.X P.Y P.Z, id and id.high (the low and the high
/// half of 64 bits), its facts as attributes, the part as the data window within the whole picture.
/// `withAlpha` says that the picture is transparent where no particle is: PNG then has an alpha
/// channel, not multiplied into the colours as that format wants it; without it the picture is
/// opaque, A is 1. PPM has no transparency. Throws `OutputError` naming file and reason, and
/// `std::invalid_argument` like `imageFormatOf`; what `progress` throws as well; then nothing new
/// is left behind.
void writeImage(std::string const& path, Image const& image, bool withAlpha,
                PhaseProgress const& progress, ExrCompression compression = ExrCompression::zip);

} // namespace pipeline
