// The colour bar of a picture, or the legend of its kinds.
#pragma once

#include "pipeline/picture/image.h"
#include "pipeline/scene/legend.h"

#include <vector>

namespace pipeline {

/// Where a bar over `low` to `high`, in either order, has its ticks: some round numbers.
std::vector<double> ticksOf(double low, double high);

/// Draws what colours mean into the picture's overlay, on its right side: a bar with a title and
/// ticks, or the kinds with their names. Its size follows the picture's height; of a crop or a tile
/// the part that lies there is drawn. Throws `OutputError` where there is no font.
void drawColorBar(Image& image, Legend const& legend);

} // namespace pipeline
