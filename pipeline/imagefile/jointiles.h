// Tiles of a picture, put together.
#pragma once

#include "pipeline/files/progress.h"

#include <string>
#include <vector>

namespace pipeline {

/// Writes the picture that tiles make up, in their format, .exr or .png: all channels with the very
/// bits that the tiles hold, so that the file is, byte for byte, what one run would have written.
///
/// The tiles may be named in any order; one is in memory at a time. Throws `InputError` when a file
/// cannot be read or is no tile, when tiles are missing, given twice, of another format or of
/// another picture; what `writeImage` throws as well.
void joinTiles(std::string const& output, std::vector<std::string> const& tiles,
               PhaseProgress const& progress);

} // namespace pipeline
