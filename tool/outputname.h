#pragma once

#include <cstdint>
#include <string>

namespace kelpatool {

/// Whether a file's name has a place for a number: a run of `#`, or `%d` or `%04d` as for printf.
/// Only the name counts, not its folder. Throws `UsageError` when there are several such places.
bool hasNumberPlace(std::string const& path);

/// The path with the number in its place, with zeros in front as far as the place is wide: 7 makes
/// `img.0007.png` of `img.####.png` and of `img.%04d.png`. Throws `UsageError` that shows how when
/// there is no such place, or when there are several.
std::string numberedName(std::string const& path, std::int64_t number);

} // namespace kelpatool
