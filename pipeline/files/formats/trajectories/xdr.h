// Numbers as XDR writes them (RFC 4506): big-endian, in words of four bytes.
#pragma once

#include "pipeline/files/inputfile.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <string_view>

namespace pipeline {

/// A number of 4 or 8 bytes at the front of some.
template <class Number> Number xdrNumber(char const* bytes) {
    std::array<char, sizeof(Number)> raw;
    std::copy_n(bytes, sizeof(Number), raw.begin());
    if constexpr (std::endian::native == std::endian::little)
        std::reverse(raw.begin(), raw.end());
    return std::bit_cast<Number>(raw);
}

/// So many bytes from the front of a file, valid until more is taken; `what` names their owner
/// where the file ends before.
inline std::string_view takeXdr(InputFile& file, std::uint64_t count, std::string_view what) {
    std::string_view const bytes = file.peek(static_cast<std::size_t>(count));
    if (bytes.size() < count)
        file.fail("the file ends within {}; it is incomplete", what);
    file.take(static_cast<std::size_t>(count));
    return bytes.substr(0, static_cast<std::size_t>(count));
}

template <class Number> Number takeXdrNumber(InputFile& file, std::string_view what) {
    return xdrNumber<Number>(takeXdr(file, sizeof(Number), what).data());
}

} // namespace pipeline
