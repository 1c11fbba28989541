// The chemical elements: symbols, radii and colours.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/files/nametable.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace pipeline {

/// The atomic number of a symbol as files write it: "Si", "SI", "si", and with an index or a charge
/// behind it, "H12" or "Fe3+". D and T are hydrogen. 0 when it is none.
std::uint8_t atomicNumberOf(std::string_view symbol);

/// The symbol of an element; "?" when unknown.
std::string_view symbolOf(std::uint8_t atomicNumber);

/// The symbols of all elements by atomic number; that of 0, an unknown one, is "?".
std::shared_ptr<NameTable const> const& elementSymbols();

/// The radius of an element in Angstrom: covalent, or van der Waals and of metals that of atoms in
/// the metal; 1.70 when unknown.
float elementRadius(std::uint8_t atomicNumber, bool covalent);

/// The usual colour of an element, linear RGB.
Kelpa::Vector elementColor(std::uint8_t atomicNumber);

} // namespace pipeline
