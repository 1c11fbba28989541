// The formats that pictures are written in.
#pragma once

#include "pipeline/files/progress.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/picture/image.h"

#include <functional>
#include <string_view>

namespace pipeline {

/// Takes the bytes of a picture file, some at a time.
using ByteSink = std::function<void(std::string_view)>;

/// How many pixels are encoded between two looks at the progress: some milliseconds.
constexpr int pixelsAtOnce = 1 << 16;

// The formats of `writeImage`. They throw what `sink` and `progress` throw, and
// `std::runtime_error` (OpenEXR has its own kinds of it) when the format's library gives up.

/// R G B of each pixel, of 8 bits, row by row and nothing else.
void encodeRows(Image const& image, ByteSink const& sink, PhaseProgress const& progress);
void encodePpm(Image const& image, ByteSink const& sink, PhaseProgress const& progress);
void encodePng(Image const& image, bool withAlpha, ByteSink const& sink,
               PhaseProgress const& progress);
void encodeExr(Image const& image, bool withAlpha, ExrCompression compression, ByteSink const& sink,
               PhaseProgress const& progress);

} // namespace pipeline
