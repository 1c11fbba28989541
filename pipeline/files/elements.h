#pragma once

#include <cstdint>
#include <string_view>

namespace kelpatool {

/// The atomic number of a symbol as files write it: "Si", "SI", "si", and with an index or a charge
/// behind it, "H12" or "Fe3+". D and T are hydrogen. 0 when it is none.
std::uint8_t atomicNumberOf(std::string_view symbol);

} // namespace kelpatool
