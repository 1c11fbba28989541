// What the trees of many blocks are together.
#pragma once

#include "pipeline/scene/geometry.h"

#include <memory>
#include <optional>
#include <vector>

namespace pipeline {

/// One of each block, null where there is none.
using Trees = std::vector<std::unique_ptr<Geometry>>;

/// The box around what all trees tell of themselves, if any tells.
std::optional<Bounds> boundsAround(Trees const& trees, std::optional<Bounds> (Geometry::*tell)());

/// The sums of all but the peak, which is not told.
TreeStatistics figuresOf(Trees const& trees);

/// Tells what a single tree would when it is built.
void tellFigures(TreeStatistics const& figures, Kelpa::ProgressCallback& report);

} // namespace pipeline
