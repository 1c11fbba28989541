#pragma once

#include <fmt/format.h>

#include <cmath>
#include <string>
#include <string_view>

namespace kelpatool {

/// A text as JSON has it.
inline std::string jsonText(std::string_view text) {
    std::string json(1, '"');
    for (char const c : text) {
        if (c == '"' || c == '\\')
            json += '\\';
        if (static_cast<unsigned char>(c) < 0x20)
            json += fmt::format("\\u{:04x}", static_cast<int>(c));
        else
            json += c;
    }
    json += '"';
    return json;
}

/// A number as JSON has it, which knows no infinities.
inline std::string jsonNumber(double value) {
    return std::isfinite(value) ? fmt::format("{}", value) : "null";
}

} // namespace kelpatool
