// Colours for numbers and for kinds.
#pragma once

#include "kelpa/foundation/vector.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline {

/// Colours for the numbers from 0 to 1, in linear light.
class ColorMap {
  public:
    /// viridis, from dark blue over green to yellow.
    ColorMap() : ColorMap("viridis") {}
    /// One of `colorMapNames`; with "_r" behind it, it runs from its end to its beginning. Throws
    /// `std::invalid_argument` that lists the names.
    explicit ColorMap(std::string const& name);

    /// The colour of a number; what lies outside of 0 to 1 has that of the nearer end.
    Kelpa::Vector at(double part) const;

  private:
    static constexpr std::size_t entries = 256;

    std::array<Kelpa::Vector, entries> colors{};
};

/// viridis|magma|...
std::string colorMapNames();

/// Colours for numbers: of a range's lower end the map's first. Without a range, from the 1st to
/// the 99th percentile of the finite values. Those that are no numbers are grey.
std::vector<Kelpa::Vector> mapColors(std::vector<float> const& values,
                                     std::optional<std::array<float, 2>> range,
                                     ColorMap const& map);

/// The range from the 1st to the 99th percentile of the finite values, interpolated between them.
std::array<float, 2> usualRange(std::vector<float> const& values);

/// Whether a column of this name numbers kinds, in no order that means anything.
bool areKinds(std::string_view column);

/// The colour of a kind of particles that is only numbered: one of ten that are told apart easily,
/// the first for 1, and over again after the tenth.
Kelpa::Vector colorOfKind(std::int64_t kind);

/// The same for all of these.
std::vector<Kelpa::Vector> mapTypes(std::vector<std::int64_t> const& types);

} // namespace pipeline
