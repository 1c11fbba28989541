// Pictures of blocks that are not all at hand.
#pragma once

#include "pipeline/picture/render.h"
#include "pipeline/scene/rayexchange.h"

#include <cstddef>
#include <span>

namespace pipeline {

/// How rays wait.
struct WaitingOptions {
    /// The most rays of this process that are on their way at a time, but 4096 of one tile if that
    /// is more. Each takes some 150 bytes.
    std::size_t raysAtATime = std::size_t{1} << 19;
    int threads = 1;
};

/// Renders tiles of a picture into `image`, which `Picture::emptyImage` has made: bit for bit what
/// `Picture::renderTile` makes of them. All ranks of the exchange call it together, each with tiles
/// of its own; a rank that fails ends all. Throws what `RayExchange::answer` and `progress` throw.
void renderTilesLater(Picture const& picture, std::span<std::size_t const> tiles,
                      RayExchange& exchange, Image& image, WaitingOptions const& options,
                      PhaseProgress const& progress);

} // namespace pipeline
