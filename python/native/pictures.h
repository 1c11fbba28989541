// Cameras, pictures and their files, as kelpa/camera.py and kelpa/pictures.py use them.
#pragma once

#include "pipeline/picture/camera.h"
#include "pipeline/picture/framing.h"
#include "pipeline/picture/image.h"
#include "pipeline/picture/look.h"
#include "pipeline/scene/scene.h"

#include <pybind11/pybind11.h>

#include <array>
#include <optional>
#include <tuple>
#include <vector>

namespace kelpapython {

using Triple = std::array<double, 3>;

/// Eye, right, up, forward, tangent or height (see `pipeline::Camera`), and whether it is
/// parallel.
using Placed = std::tuple<Triple, Triple, Triple, Triple, double, bool>;

pipeline::Camera cameraOf(Placed const& placed, int width, int height, pipeline::Vec const& origin);
Placed placedOf(pipeline::Camera const& camera, pipeline::Vec const& origin);

/// Edges, origin and copies of a cell.
using CellTuple = std::tuple<std::array<Triple, 3>, Triple, std::array<int, 3>>;

/// The edges of all these cells.
std::vector<pipeline::Rod> edgesOf(std::vector<CellTuple> const& cells);

/// All that `Primitive.render` is told but for the camera.
struct Wish {
    pipeline::ImageOptions image;
    pipeline::LightOptions light;
    Kelpa::Vector color; ///< of particles without colours; linear
    double lensRadius = 0.0;
    double focus = 1.0;
    std::vector<pipeline::ColumnLayer> columns; ///< by the particles' rows
    std::vector<pipeline::Rod> rods;            ///< in the coordinates of the arrays
};

/// Arrays by name: `rgba`, and as far as wanted `depth`, `normal`, `id`, `position` and `layers`;
/// `part`, the pixels that they are, and `tile_label`.
pybind11::dict arraysOf(pipeline::Image const& image, bool isTransparent);

void definePictures(pybind11::module_& module);

} // namespace kelpapython
