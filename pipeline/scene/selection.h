// Which particles of a file are shown.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/scene/appearance.h"
#include "pipeline/scene/expression.h"
#include "pipeline/scene/vec.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// A plane in front of which particles are left out. Where it lies along its normal is a
/// coordinate, or a share of the particles' extent.
struct Slice {
    Vec normal; ///< of length 1, towards what is left out
    double at = 0.5;
    bool isShare = true;
};

/// Reads a slice: x, -y or a normal such as 1,0,1, and where it lies behind a colon, as a
/// coordinate along the normal or as a share, 25%; by default in the middle. Throws
/// `std::invalid_argument`.
Slice parseSlice(std::string const& text);

/// Which particles are shown, by the steps in their order.
struct SelectionOptions {
    bool wrap = false;                     ///< move them into the periodic cell
    std::array<int, 3> replicate{1, 1, 1}; ///< copies along the cell's edges
    std::optional<Expression> select;      ///< those for which it holds
    std::vector<Slice> slices;             ///< those behind all
    std::uint64_t every = 1;               ///< of so many one, by its id if it has one

    bool isAll() const {
        return !wrap && replicate == std::array{1, 1, 1} && !select && slices.empty() && every == 1;
    }
};

/// The columns that a file is to be read with for it.
std::vector<std::string> columnsOf(SelectionOptions const& options);

/// Keeps the particles that are to be shown, of the snapshot that they go to the same ones. Where
/// spacing gives the radii, it is that of all. `sliceCoordinates`, where the planes lie, is filled
/// the first time and then counts. Throws `InputError` when none is left, or a column is not there.
void selectParticles(SelectionOptions const& options, RadiusOptions const& radius,
                     ParticleSet& particles, ParticleSet* second,
                     std::vector<double>& sliceCoordinates, Note const& note,
                     PhaseProgress const& progress);

} // namespace pipeline
