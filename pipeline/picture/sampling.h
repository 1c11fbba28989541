// Where the samples of a pixel lie, in its area and in time.
#pragma once

#include <cmath>
#include <cstdint>
#include <numeric>

namespace pipeline {

/// A well mixed 32-bit number for a number (M. Jarzynski and M. Olano, "Hash Functions for GPU
/// Rendering", JCGT 9(3), 2020: pcg).
inline std::uint32_t mixed(std::uint32_t n) {
    std::uint32_t const state = n * 747796405U + 2891336453U;
    std::uint32_t const word = ((state >> ((state >> 28U) + 4U)) ^ state) * 277803737U;
    return (word >> 22U) ^ word;
}

/// A point of the plane, of which patterns use the fractions alone.
struct Sample2 {
    double x;
    double y;
};

/// The part of a number from 0 to 2^51 that lies behind its point.
inline double fraction(double value) {
    constexpr double ones = 0x1p52; // from here on doubles are whole numbers
    double const nearest = value + ones - ones;
    return value - (nearest > value ? nearest - 1.0 : nearest);
}

/// What the patterns of a pixel's samples are used for.
enum Pattern : std::uint32_t { lensPattern, timePattern, firstOcclusionPattern, aperturePattern };

/// The sample patterns of one pixel.
///
/// Each use of a pattern starts at a random shift, then follows the sequence R2 of M. Roberts ("The
/// Unreasonable Effectiveness of Quasirandom Sequences", 2018), which spreads any number of points
/// evenly: point `index` is the fractions of `start(use)` + `step(index)`.
class PixelSamples {
  public:
    PixelSamples() = default;
    PixelSamples(int x, int y, std::uint64_t seed)
        : hash(mixed(static_cast<std::uint32_t>(x) ^
                     mixed(static_cast<std::uint32_t>(y) ^
                           mixed(static_cast<std::uint32_t>(seed) ^
                                 mixed(static_cast<std::uint32_t>(seed >> 32U)))))) {}

    Sample2 start(std::uint32_t use) const { return {shift(2 * use), shift(2 * use + 1)}; }
    static Sample2 step(std::uint32_t index) {
        return {0.7548776662466927 * index, 0.5698402909980532 * index};
    }

  private:
    friend class Strata;

    // Never 0 or 1.
    static double unit(std::uint32_t bits) { return (bits + 0.5) * 0x1p-32; }
    double shift(std::uint32_t dimension) const {
        return unit(mixed(hash + dimension * 0x9E3779B9U));
    }

    std::uint32_t hash = 0;
};

/// Times in (0, 1) of `count` samples of a pixel: one in each of `count` equal parts, in an order
/// of the pixel's own.
class Strata {
  public:
    explicit Strata(std::uint32_t samples)
        : count(samples), stride(static_cast<std::uint32_t>(0.618 * count) | 1U) {
        while (std::gcd(stride, count) != 1)
            ++stride;
    }

    double at(PixelSamples const& pixel, std::uint32_t index) const {
        std::uint32_t const first = mixed(pixel.hash ^ timePattern);
        return (turnOf(first, index) + PixelSamples::unit(mixed(first + index))) / count;
    }

    /// A point of the lens's pattern for a sample: over all samples those that any pattern has, in
    /// an order of the pixel's own, so that where a ray leaves the lens tells nothing of where in
    /// the pixel it goes.
    Sample2 onLens(PixelSamples const& pixel, std::uint32_t index) const {
        Sample2 const start = pixel.start(aperturePattern);
        Sample2 const step = PixelSamples::step(turnOf(mixed(pixel.hash ^ aperturePattern), index));
        return {start.x + step.x, start.y + step.y};
    }

  private:
    std::uint32_t turnOf(std::uint32_t first, std::uint32_t index) const {
        return static_cast<std::uint32_t>((std::uint64_t{first} + std::uint64_t{index} * stride) %
                                          count);
    }

    std::uint32_t count;
    std::uint32_t stride;
};

} // namespace pipeline
