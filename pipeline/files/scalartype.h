// The types of numbers that files of particles hold.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pipeline {

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

/// What a type is called, such as "float32".
constexpr char const* scalarName(ScalarType type) {
    constexpr char const* names[] = {"int8",   "uint8", "int16",  "uint16",  "int32",
                                     "uint32", "int64", "uint64", "float32", "float64"};
    return names[static_cast<int>(type)];
}

constexpr bool isFloating(ScalarType type) {
    return type == ScalarType::float32 || type == ScalarType::float64;
}

/// Calls `operation` with a zero of the type.
template <class Operation> void withType(ScalarType type, Operation operation) {
    switch (type) {
    case ScalarType::int8:
        return operation(std::int8_t{});
    case ScalarType::uint8:
        return operation(std::uint8_t{});
    case ScalarType::int16:
        return operation(std::int16_t{});
    case ScalarType::uint16:
        return operation(std::uint16_t{});
    case ScalarType::int32:
        return operation(std::int32_t{});
    case ScalarType::uint32:
        return operation(std::uint32_t{});
    case ScalarType::int64:
        return operation(std::int64_t{});
    case ScalarType::uint64:
        return operation(std::uint64_t{});
    case ScalarType::float32:
        return operation(float{});
    case ScalarType::float64:
        return operation(double{});
    }
}

} // namespace pipeline
