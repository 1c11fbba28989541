// What the trees of many blocks are together.
#pragma once

#include "pipeline/scene/geometry.h"

#include <optional>
#include <vector>

namespace pipeline {

/// What a tree tells of itself, whether or not it is in memory.
struct BlockFacts {
    bool hasTree = false;
    TreeStatistics statistics;
    std::optional<Bounds> bounds;
    std::optional<Bounds> motionBounds;

    static BlockFacts of(Geometry& tree) {
        return {true, tree.statistics(), tree.bounds(), tree.motionBounds()};
    }
};

/// The box around what all trees tell of themselves, if any tells.
std::optional<Bounds> boundsAround(std::vector<BlockFacts> const& blocks,
                                   std::optional<Bounds> BlockFacts::*told);

/// The sums of all but the peak, which is not told.
TreeStatistics figuresOf(std::vector<BlockFacts> const& blocks);

/// Tells what a single tree would when it is built.
void tellFigures(TreeStatistics const& figures, Kelpa::ProgressCallback& report);

} // namespace pipeline
