// Numbers points by the cells of a grid along a curve.
#include "kelpa/spheretree/spaceorder.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace Kelpa {

// A byte at a time, the last one first; each pass keeps the order of the one before.
void SpaceOrder::sort(OptionalArray<KeyedPoint>& points, OptionalArray<KeyedPoint>& spare,
                      std::uint32_t count) {
    std::array<std::array<std::uint32_t, 256>, 3> ends{};
    for (std::uint32_t i = 0; i < count; ++i)
        for (unsigned byte = 0; byte < 3; ++byte)
            ++ends[byte][points[i].cell >> 8 * byte & 0xFFU];
    for (unsigned byte = 0; byte < 3; ++byte) {
        std::uint32_t next = 0;
        for (std::uint32_t& end : ends[byte])
            next += std::exchange(end, next);
        for (std::uint32_t i = 0; i < count; ++i)
            spare[ends[byte][points[i].cell >> 8 * byte & 0xFFU]++] = points[i];
        std::swap(points, spare);
    }
}

void SpaceOrder::keepNumbers(OptionalArray<KeyedPoint> points, std::uint32_t count) {
    void* const memory = points.release();
    auto* const bytes = static_cast<char*>(memory);
    for (std::size_t i = 0; i < count; ++i)
        std::memcpy(bytes + i * sizeof(std::uint32_t),
                    bytes + i * sizeof(KeyedPoint) + offsetof(KeyedPoint, number),
                    sizeof(std::uint32_t));
    void* const shrunk = std::realloc(memory, count * sizeof(std::uint32_t));
    numbers.reset(static_cast<std::uint32_t*>(shrunk != nullptr ? shrunk : memory));
}

} // namespace Kelpa
