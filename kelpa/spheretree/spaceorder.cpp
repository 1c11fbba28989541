#include "kelpa/spheretree/spaceorder.h"

#include <algorithm>

namespace Kelpa {

namespace {

constexpr int cellsPerAxis = 256;

/// Puts two zeros before each of eight bits.
constexpr std::uint32_t spread(std::uint32_t bits) {
    bits = (bits | bits << 8U) & 0x00F00FU;
    bits = (bits | bits << 4U) & 0x0C30C3U;
    return (bits | bits << 2U) & 0x249249U;
}

} // namespace

SpaceOrder::Grid::Grid(Box const& bounds) {
    for (int axis = 0; axis < 3; ++axis) {
        auto const i = static_cast<std::size_t>(axis);
        double const extent =
            static_cast<double>(bounds.max[axis]) - static_cast<double>(bounds.min[axis]);
        origin[i] = static_cast<double>(bounds.min[axis]);
        cellsPerLength[i] = extent > 0.0 ? cellsPerAxis / extent : 0.0;
    }
}

std::uint32_t SpaceOrder::Grid::cellOf(Vector const& point) const {
    std::uint32_t cell = 0;
    for (int axis = 0; axis < 3; ++axis) {
        auto const i = static_cast<std::size_t>(axis);
        double const along = (static_cast<double>(point[axis]) - origin[i]) * cellsPerLength[i];
        int const step = std::min(static_cast<int>(along), cellsPerAxis - 1);
        cell |= spread(static_cast<std::uint32_t>(step)) << static_cast<unsigned>(axis);
    }
    return cell;
}

// A byte at a time, the last one first; each pass keeps the order of the one before.
void SpaceOrder::sort(OptionalArray<KeyedPoint>& points, OptionalArray<KeyedPoint>& spare,
                      std::uint32_t count) {
    for (unsigned shift = 0; shift < 24; shift += 8) {
        std::array<std::uint32_t, 256> ends{};
        for (std::uint32_t i = 0; i < count; ++i)
            ++ends[points[i].cell >> shift & 0xFFU];
        std::uint32_t next = 0;
        for (std::uint32_t& end : ends)
            next += std::exchange(end, next);
        for (std::uint32_t i = 0; i < count; ++i)
            spare[ends[points[i].cell >> shift & 0xFFU]++] = points[i];
        std::swap(points, spare);
    }
}

} // namespace Kelpa
