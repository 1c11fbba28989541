// Pictures on their way to a browser.
#pragma once

#include "pipeline/files/progress.h"
#include "pipeline/picture/image.h"

#include <string>

namespace pipeline::view {

/// A picture as JPEG in full colour resolution, for a page that shows it for a moment. `gain` is a
/// factor on its light: sums of some of all samples are shown as if they were all. Throws
/// `std::runtime_error` when the library gives up, and what `progress` throws.
std::string jpegOf(Image const& image, float gain, int quality, PhaseProgress const& progress);

/// The same as PNG, with alpha if wanted; of gain 1 with the very bytes that the command writes.
std::string pngOf(Image const& image, float gain, bool withAlpha, PhaseProgress const& progress);

} // namespace pipeline::view
