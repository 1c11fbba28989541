// Which version this is.
#pragma once

namespace pipeline::tool {

constexpr char const* version = "0.1.0";

} // namespace pipeline::tool
