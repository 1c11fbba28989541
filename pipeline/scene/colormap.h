// Colours for numbers and for kinds.
#pragma once

#include "kelpa/foundation/vector.h"

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace pipeline {

/// Colours for numbers, in linear light: from dark blue for the range's lower end over green to
/// yellow for its upper one. Without a range, from the 1st to the 99th percentile of the finite
/// values. Numbers outside take the end's colour; those that are no numbers are grey.
std::vector<Kelpa::Vector> mapColors(std::vector<float> const& values,
                                     std::optional<std::array<float, 2>> range);

/// The range from the 1st to the 99th percentile of the finite values, interpolated between them.
std::array<float, 2> usualRange(std::vector<float> const& values);

/// Colours for kinds of particles that are only numbered, ten that are told apart easily: the first
/// for 1, and over again after the tenth.
std::vector<Kelpa::Vector> mapTypes(std::vector<std::int64_t> const& types);

} // namespace pipeline
