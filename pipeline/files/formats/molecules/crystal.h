// Crystals as CIF files of small molecules describe them.
#pragma once

#include "pipeline/files/formats/molecules/gemmifile.h"
#include "pipeline/files/formats/molecules/molecule.h"
#include "pipeline/files/textvalues.h"

#include <optional>
#include <string>

namespace pipeline {

/// A number of CIF: with its uncertainty in brackets behind it, or not.
template <class Number> bool parseCifNumber(std::string const& value, Number& number) {
    return parseNumber(std::string_view(value).substr(0, value.find('(')), number);
}

/// The cell of a block, whose tags begin with "_cell." or "_cell_".
std::optional<PeriodicCell> cellOf(CifFile& cif, std::string const& category);

/// Fills a cell with the atoms of the first block that has sites in fractions of its edges, by all
/// operations of its symmetry.
ParticleSet readCrystal(InputFile& file, CifFile& cif, ReadOptions const& options);

} // namespace pipeline
