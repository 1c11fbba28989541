// What columns and boxes of LAMMPS dumps mean, text and binary alike.
#pragma once

#include "pipeline/files/columnuses.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/particleset.h"

#include <array>
#include <functional>
#include <optional>

namespace pipeline {

/// The cell that three lines of bounds make. With tilts `xy xz yz`, the third number of each, the
/// bounds are those of the box around the tilted cell; with `abc origin` each line is an edge and a
/// coordinate of the origin.
PeriodicCell cellOfBounds(std::array<std::array<double, 4>, 3> const& lines, bool isTilted,
                          bool isGeneral);

/// Which coordinates of a dump are taken, in order of preference; where particles move, those that
/// go on beyond the cell come first.
class DumpPlaces {
  public:
    DumpPlaces(RowLayout const& layout, bool forMotion);

    /// What the coordinates are called, if they are fractions of a box; empty: they are places.
    std::string_view fractions() const;
    /// Adds columns for the places to a layout, and fills them in a row from fractions of a cell.
    std::function<void(char* row)> derive(RowLayout& layout, PeriodicCell const& cell) const;
    /// What the columns are for; takes the kind of particles from `type` unless there are elements.
    ColumnNames names(bool hasElements) const;
    bool isWrapped() const;

  private:
    VectorColumns const* from = nullptr; ///< null: there are none
};

} // namespace pipeline
