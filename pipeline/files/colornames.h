// Colours by name and by code.
#pragma once

#include "kelpa/foundation/vector.h"

#include <string>

namespace pipeline {

/// A colour as people write it, in linear light: #rrggbb, #rgb, or one of the names that style
/// sheets know, in small or capital letters. Throws `std::invalid_argument` that says so.
Kelpa::Vector parseColor(std::string const& text);

} // namespace pipeline
