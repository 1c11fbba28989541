// Internal: numbers points so that those with near numbers are near in space.
#pragma once

#include "kelpa/foundation/optionalarray.h"
#include "kelpa/foundation/vector.h"
#include "kelpa/spheretree/quad.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace Kelpa {

/// Points in the order in which a Morton curve passes them (G. M. Morton, "A Computer Oriented
/// Geodetic Data Base and a New Technique in File Sequencing", IBM, 1966); those in the same one of
/// 256 x 256 x 256 cells keep theirs.
class SpaceOrder {
  public:
    SpaceOrder() = default;

    /// Orders `count` points, of which `pointAt(i)` returns the one with number i, finite.
    /// The order stays empty when memory is short.
    template <class PointAt> SpaceOrder(std::uint32_t count, PointAt pointAt) {
        auto points = tryAllocate<KeyedPoint>(count);
        auto spare = tryAllocate<KeyedPoint>(count);
        if (points == nullptr || spare == nullptr)
            return;
        auto const quadAt = [&pointAt](std::uint32_t i) {
            Vector const& point = pointAt(i);
            return Quad{point.x, point.y, point.z, 0.0F};
        };
        Quad lowest = splat(Box::empty().min.x);
        Quad highest = splat(Box::empty().max.x);
        for (std::uint32_t i = 0; i < count; ++i) {
            lowest = smaller(quadAt(i), lowest);
            highest = larger(quadAt(i), highest);
        }
        Grid const grid(lowest, highest);
        for (std::uint32_t i = 0; i < count; ++i)
            points[i] = {grid.cellOf(quadAt(i)), i};
        sort(points, spare, count);
        keepNumbers(std::move(points), count);
    }

    bool isEmpty() const { return numbers == nullptr; }
    /// The number of the point at a place in the order.
    std::uint32_t operator[](std::uint32_t place) const { return numbers[place]; }

  private:
    static constexpr int cellsPerAxis = 256;

    struct KeyedPoint {
        std::uint32_t cell; ///< its number along the curve, 24 bits
        std::uint32_t number;
    };

  public:
    static constexpr std::size_t bytesEach =
        sizeof(std::uint32_t); ///< that an order keeps per point

  private:
    /// The cells that the points' bounds are cut into.
    class Grid {
      public:
        Grid(Quad lowest, Quad highest)
            : origin(lowest), cellsPerLength(splat(cellsPerAxis) / (highest - lowest)) {}

        std::uint32_t cellOf(Quad point) const {
            using Steps = std::uint32_t __attribute__((vector_size(16)));
            Quad const along = (point - origin) * cellsPerLength;
            // The last cell where this is not a number: bounds without extent, or beyond floats.
            Quad const bounded = larger(smaller(along, splat(cellsPerAxis - 1)), splat(0.0F));
            // Two zeros before each of eight bits.
            auto bits = reinterpret_cast<Steps>(__builtin_convertvector(bounded, QuadMask));
            bits = (bits | bits << 8U) & 0x00F00FU;
            bits = (bits | bits << 4U) & 0x0C30C3U;
            bits = (bits | bits << 2U) & 0x249249U;
            return bits[0] | bits[1] << 1U | bits[2] << 2U;
        }

      private:
        Quad origin;
        Quad cellsPerLength;
    };

    /// Sorts `points` by cell; `spare` is as large.
    static void sort(OptionalArray<KeyedPoint>& points, OptionalArray<KeyedPoint>& spare,
                     std::uint32_t count);

    /// Moves the points' numbers together, and keeps no memory for more.
    void keepNumbers(OptionalArray<KeyedPoint> points, std::uint32_t count);

    OptionalArray<std::uint32_t> numbers;
};

} // namespace Kelpa
