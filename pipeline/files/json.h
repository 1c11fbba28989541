// Figures for other programs.
#pragma once

#include "pipeline/files/printable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace pipeline {

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

/// What is JSON already.
struct Json {
    std::string text;
};

/// The members of a JSON object, in the order in which they are added.
class JsonObject {
  public:
    JsonObject& add(std::string_view key, Json value) {
        members.push_back(jsonText(key) + ": " + std::move(value.text));
        return *this;
    }
    JsonObject& add(std::string_view key, std::string_view text) {
        return add(key, Json{jsonText(text)});
    }
    template <class Number>
    requires std::is_arithmetic_v<Number> JsonObject& add(std::string_view key, Number number) {
        if constexpr (std::is_floating_point_v<Number>)
            return add(key, Json{jsonNumber(static_cast<double>(number))});
        else
            return add(key, Json{fmt::format("{}", number)});
    }

    /// {"a": 1, "b": 2}
    Json onOneLine() const { return {fmt::format("{{{}}}", fmt::join(members, ", "))}; }
    /// A line for each member, two blanks further in than the braces, which have `outer`.
    Json onLines(int outer) const {
        std::string const line = "\n" + std::string(static_cast<std::size_t>(outer), ' ');
        return {fmt::format("{{{0}  {1}{0}}}", line, fmt::join(members, "," + line + "  "))};
    }

  private:
    std::vector<std::string> members;
};

/// A list with an element on each line, two blanks further in than the bracket's line.
inline Json jsonList(std::vector<Json> const& elements, int outer) {
    std::string const line = "\n" + std::string(static_cast<std::size_t>(outer), ' ');
    std::string text;
    for (Json const& element : elements)
        text += (text.empty() ? "" : ",") + line + "  " + element.text;
    return {"[" + text + line + "]"};
}

} // namespace pipeline
