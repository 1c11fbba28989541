// Rods in a picture: few of them, hidden by particles and hiding them, in one colour without light.
#pragma once

#include "pipeline/picture/camera.h"
#include "pipeline/picture/footprint.h"
#include "pipeline/scene/cellbox.h"

#include <vector>

namespace pipeline {

/// The rods that a part of a picture may show.
class PictureRods {
  public:
    PictureRods() = default;
    /// Of the part of the camera's picture from (`left`, `top`) to before (`right`, `bottom`).
    PictureRods(std::vector<Rod> shown, Camera const& camera, int left, int top, int right,
                int bottom);

    /// Whether a rod may show in a pixel of the part.
    bool reaches(int x, int y) const { return !rods.empty() && footprint.reaches(x, y); }

    /// Where a ray enters the first rod before `end`; `end` where it meets none.
    double hit(Vec const& origin, Vec const& direction, double end) const;

  private:
    std::vector<Rod> rods;
    Footprint footprint;
};

} // namespace pipeline
