#pragma once

#include "pipeline/files/printable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>

namespace kelpatool {

/// A text as JSON has it, whatever its bytes are.
inline std::string jsonText(std::string_view text) {
    std::string json(1, '"');
    while (!text.empty()) {
        std::size_t const length = characterLength(text);
        char const first = text[0];
        std::uint32_t const code = length > 0 ? codePoint(text.substr(0, length)) : 0;
        if (length == 0)
            json += "\\ufffd"; // JSON is UTF-8; a name in another encoding shows that it is
        else if (isObeyed(code))
            json += fmt::format("\\u{:04x}", code);
        else
            json.append(first == '"' || first == '\\' ? "\\" : "").append(text.substr(0, length));
        text.remove_prefix(std::max<std::size_t>(1, length));
    }
    json += '"';
    return json;
}

/// A number as JSON has it, which knows no infinities.
inline std::string jsonNumber(double value) {
    return std::isfinite(value) ? fmt::format("{}", value) : "null";
}

} // namespace kelpatool
