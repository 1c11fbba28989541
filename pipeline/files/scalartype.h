// The types of numbers that files of particles hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kelpatool {

enum class ScalarType : std::uint8_t {
    int8,
    uint8,
    int16,
    uint16,
    int32,
    uint32,
    int64,
    uint64,
    float32,
    float64,
};

constexpr std::size_t scalarBytes(ScalarType type) {
    constexpr std::size_t bytes[] = {1, 1, 2, 2, 4, 4, 8, 8, 4, 8};
    return bytes[static_cast<int>(type)];
}

constexpr bool isFloating(ScalarType type) {
    return type == ScalarType::float32 || type == ScalarType::float64;
}

} // namespace kelpatool
