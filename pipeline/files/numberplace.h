// Numbers in file names: "####", "%04d".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace pipeline {

/// The part of a path that a number takes, and how many digits that has at least.
struct NumberPlace {
    std::size_t begin = 0;
    std::size_t length = 0; ///< 0: there is none
    int digits = 0;
};

/// Finds a run of `#`, or `%d` or `%04d` as for printf, in a path's file name.
/// Throws `std::invalid_argument` when there are several.
NumberPlace findNumberPlace(std::string const& path);

/// Whether a file's name has a place for a number: a run of `#`, or `%d` or `%04d` as for printf.
/// Only the name counts, not its folder. Throws `std::invalid_argument` when there are several such
/// places.
bool hasNumberPlace(std::string const& path);

/// The path with the number in its place, with zeros in front as far as the place is wide: 7 makes
/// `img.0007.png` of `img.####.png` and of `img.%04d.png`. Throws `std::invalid_argument` that
/// shows how when there is no such place, or when there are several.
std::string numberedName(std::string const& path, std::int64_t number);

/// The name of a picture that is the only one: numbered where the path has a place, but a single
/// `#` stands for itself.
std::string nameOfOne(std::string const& path, std::int64_t number);

} // namespace pipeline
