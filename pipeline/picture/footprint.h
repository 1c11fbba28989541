// Where a picture can show particles at all.
#pragma once

#include "pipeline/picture/camera.h"
#include "pipeline/picture/lanekernels.h"
#include "pipeline/scene/scene.h"

#include <cstdint>
#include <vector>

namespace pipeline {

/// The cells of a part of a picture that the scene's particles reach into, each held to be as large
/// as the square around it. Rays through any other cell meet nothing, and need not be asked.
class Footprint {
  public:
    static constexpr int cellWidth = 2; ///< pixels

    /// Of no particular part: particles may show in any pixel.
    Footprint() = default;
    /// Of the part of the camera's picture from (`left`, `top`) to before (`right`, `bottom`), at
    /// any time of the particles' ways.
    Footprint(Scene const& scene, Camera const& camera, int left, int top, int right, int bottom);

    /// The same for spheres that stand still.
    Footprint(std::vector<Kelpa::Vector> const& centers, std::vector<float> const& radii,
              Camera const& camera, int left, int top, int right, int bottom);

    /// Whether particles may show in a pixel of the part.
    bool reaches(int x, int y) const {
        if (reached.empty())
            return true;
        auto const column = static_cast<std::size_t>((x - grid.left) / cellWidth);
        auto const row = static_cast<std::size_t>((y - grid.top) / cellWidth);
        return reached[row * static_cast<std::size_t>(grid.columns) + column] != 0;
    }

  private:
    class Marks;
    void layOut(int left, int top, int right, int bottom);
    void mark(Scene const& scene, Camera const& camera, Marks& marks) const;

    CellGrid grid{};
    std::vector<char> reached; ///< row by row
};

} // namespace pipeline
