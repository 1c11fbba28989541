#pragma once
// Internal: numbers points so that those with near numbers are near in space.

#include "kelpa/foundation/optionalarray.h"
#include "kelpa/foundation/vector.h"

#include <array>
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
        Box bounds = Box::empty();
        for (std::uint32_t i = 0; i < count; ++i)
            bounds.grow({pointAt(i), pointAt(i)});
        Grid const grid(bounds);
        for (std::uint32_t i = 0; i < count; ++i)
            points[i] = {grid.cellOf(pointAt(i)), i};
        sort(points, spare, count);
        numbers = std::move(points);
    }

    bool isEmpty() const { return numbers == nullptr; }
    /// The number of the point at a place in the order.
    std::uint32_t operator[](std::uint32_t place) const { return numbers[place].number; }

  private:
    struct KeyedPoint {
        std::uint32_t cell; ///< its number along the curve, 24 bits
        std::uint32_t number;
    };

    /// The cells that the points' bounds are cut into.
    class Grid {
      public:
        explicit Grid(Box const& bounds);
        std::uint32_t cellOf(Vector const& point) const;

      private:
        std::array<double, 3> origin;
        std::array<double, 3> cellsPerLength;
    };

    /// Sorts `points` by cell; `spare` is as large.
    static void sort(OptionalArray<KeyedPoint>& points, OptionalArray<KeyedPoint>& spare,
                     std::uint32_t count);

    OptionalArray<KeyedPoint> numbers;
};

} // namespace Kelpa
