// Which version this is.
#pragma once

namespace kelpatool {

constexpr char const* version = "0.1.0";

} // namespace kelpatool
