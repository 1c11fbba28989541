#pragma once

#include <cmath>
#include <cstdint>
#include <numeric>

namespace kelpatool {

/// A well mixed 32-bit number for a number (M. Jarzynski and M. Olano, "Hash Functions for GPU
/// Rendering", JCGT 9(3), 2020: pcg).
inline std::uint32_t mixed(std::uint32_t n) {
    std::uint32_t const state = n * 747796405U + 2891336453U;
    std::uint32_t const word = ((state >> ((state >> 28U) + 4U)) ^ state) * 277803737U;
    return (word >> 22U) ^ word;
}

/// A point of the unit square.
struct Sample2 {
    double x;
    double y;
};

/// The sample patterns of one pixel.
///
/// Each use of a pattern starts at a random shift, then follows the sequence R2 of M. Roberts ("The
/// Unreasonable Effectiveness of Quasirandom Sequences", 2018), which spreads any number of points
/// evenly.
class PixelSamples {
  public:
    PixelSamples(int x, int y, std::uint64_t seed)
        : hash(mixed(static_cast<std::uint32_t>(x) ^
                     mixed(static_cast<std::uint32_t>(y) ^
                           mixed(static_cast<std::uint32_t>(seed) ^
                                 mixed(static_cast<std::uint32_t>(seed >> 32U)))))) {}

    /// Point `index` of pattern `use`.
    Sample2 point(std::uint32_t use, std::uint32_t index) const {
        return {fraction(shift(2 * use) + 0.7548776662466927 * index),
                fraction(shift(2 * use + 1) + 0.5698402909980532 * index)};
    }

    /// A place in (0, 1) for sample `index` of `count`: one in each of `count` equal parts, in an
    /// order of the pixel's own.
    double stratum(std::uint32_t use, std::uint32_t index, std::uint32_t count) const {
        std::uint32_t stride = static_cast<std::uint32_t>(0.618 * count) | 1U;
        while (std::gcd(stride, count) != 1)
            ++stride;
        std::uint32_t const first = mixed(hash ^ use);
        auto const part = static_cast<std::uint32_t>(
            (std::uint64_t{first} + std::uint64_t{index} * stride) % count);
        double const within = unit(mixed(first + index));
        return (part + within) / count;
    }

  private:
    // Never 0 or 1.
    static double unit(std::uint32_t bits) { return (bits + 0.5) * 0x1p-32; }
    static double fraction(double value) { return value - std::floor(value); }
    double shift(std::uint32_t dimension) const {
        return unit(mixed(hash + dimension * 0x9E3779B9U));
    }

    std::uint32_t hash;
};

} // namespace kelpatool
