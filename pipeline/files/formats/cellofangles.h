// Cells by the lengths of their edges and the angles between them.
#pragma once

#include "pipeline/files/particleset.h"

#include <array>
#include <optional>

namespace pipeline {

/// The cell that a file of crystals tells of by the lengths of its edges and the angles between
/// them in degrees; nothing where it stands for none, such as the unit cube of structures in
/// solution.
std::optional<PeriodicCell> cellOfAngles(std::array<double, 3> const& lengths,
                                         std::array<double, 3> const& degrees);

} // namespace pipeline
