// Codes of light: sRGB and linear.
#pragma once

#include "kelpa/foundation/vector.h"

#include <array>
#include <cstddef>

namespace pipeline {

/// Decodes an sRGB value of 0 to 1 into linear light (IEC 61966-2-1).
///
/// The power 2.4 is v * v * v^(2/5), its fifth root found by Newton's method: plain arithmetic
/// gives the same bits everywhere, which library powers do not.
inline float linearFromSrgb(double encoded) {
    if (!(encoded > 0.04045))
        return static_cast<float>(encoded / 12.92);
    double const v = (encoded + 0.055) / 1.055;
    double const square = v * v;
    double root = 1.0;
    for (int step = 0; step < 24; ++step) {
        double const fourth = (root * root) * (root * root);
        root -= ((fourth * root) - square) / (5.0 * fourth);
    }
    return static_cast<float>(square * root);
}

/// Linear light of the 256 codes of an 8-bit sRGB channel, strictly rising.
inline std::array<float, 256> const& linearOfCode() {
    static std::array<float, 256> const table = [] {
        std::array<float, 256> values{};
        for (std::size_t code = 0; code < values.size(); ++code)
            values[code] = linearFromSrgb(static_cast<double>(code) / 255.0);
        return values;
    }();
    return table;
}

/// Linear light of a colour written as 0xrrggbb.
inline Kelpa::Vector linearOfHex(int code) {
    auto const part = [code](int shift) {
        return linearOfCode()[static_cast<std::size_t>(code >> shift & 0xff)];
    };
    return {part(16), part(8), part(0)};
}

} // namespace pipeline
