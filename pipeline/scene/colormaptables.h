// The colour maps of the field, 256 colours each.
#pragma once

#include <array>

namespace pipeline {

/// A colour map as 256 codes rrggbb of sRGB, one behind the other in hexadecimal digits.
struct ColorMapTable {
    char const* name;
    char const* codes;
};

extern std::array<ColorMapTable, 7> const colorMapTables;

} // namespace pipeline
