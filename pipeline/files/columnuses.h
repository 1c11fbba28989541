// Which column of a file means what.
#pragma once

#include "pipeline/files/columns.h"

#include <span>
#include <string_view>
#include <vector>

namespace pipeline {

/// Three columns that make a vector, and how messages call them.
struct VectorColumns {
    std::string_view source;
    std::string_view names[3];
};

/// What a format calls its columns, each list in order of preference; a message asks for the last
/// positions. Radii and ids have the same
/// names in every format.
struct ColumnNames {
    std::string_view word; ///< what the format's users call a column
    std::span<VectorColumns const> positions;
    std::span<VectorColumns const> colors;
    std::span<VectorColumns const> velocities;
    std::string_view element;
    std::span<VectorColumns const> images{};
    std::string_view type{};
};

/// The names of all columns that `chooseUses` may use, whether the file has them or not.
std::vector<std::string> namesUsed(ColumnNames const& names, ReadOptions const& options);

/// Decides what each column is read for and says so in `particles`. Refuses a file without
/// positions, and names in `options` that no column has.
std::vector<ColumnUse> chooseUses(InputFile const& file, std::vector<Column> const& columns,
                                  ColumnNames const& names, ReadOptions const& options,
                                  ParticleSet& particles);

} // namespace pipeline
