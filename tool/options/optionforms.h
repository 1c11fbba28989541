// Forms in which options take their values.
#pragma once

// How options take their values; internal to the command line, since CLI11 is slow to compile.

#include "pipeline/files/colornames.h"

#include "tool/options/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::tool {

/// A number at the start of a text, with blanks around it, and for real ones as a fraction too:
/// 1/25. Gives what follows it, or null.
template <class Number> char const* readNumber(char const* at, char const* end, Number& number) {
    auto const skipBlanks = [end](char const* from) {
        return std::find_if(from, end, [](char c) { return c != ' '; });
    };
    auto const [rest, error] = std::from_chars(skipBlanks(at), end, number);
    if (error != std::errc())
        return nullptr;
    char const* next = skipBlanks(rest);
    if constexpr (std::is_floating_point_v<Number>) {
        if (next == end || *next != '/')
            return next;
        Number divisor{};
        next = readNumber(next + 1, end, divisor);
        number /= divisor;
    }
    return next;
}

/// Numbers between separators, exactly as many as fit.
template <class Number, std::size_t Count>
std::array<Number, Count> parseNumbers(std::string const& text, char separator, char const* form) {
    std::array<Number, Count> numbers{};
    char const* at = text.data();
    char const* const end = at + text.size();
    for (std::size_t i = 0; i < Count; ++i) {
        char const* const rest = readNumber(at, end, numbers[i]);
        bool const isLast = i + 1 == Count;
        if (rest == nullptr || (isLast ? rest != end : rest == end || *rest != separator))
            throw UsageError(fmt::format("'{}' is not of the form {}", text, form));
        if constexpr (std::is_floating_point_v<Number>)
            if (!std::isfinite(numbers[i]))
                throw UsageError(fmt::format("'{}' is not finite", text));
        at = rest + 1;
    }
    return numbers;
}

/// Words are known whether or not they are written with capitals.
inline std::string inSmallLetters(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

inline Kelpa::Vector parseVector(std::string const& text) {
    auto const v = parseNumbers<float, 3>(text, ',', "X,Y,Z");
    return {v[0], v[1], v[2]};
}

/// #rrggbb, #rgb or a name to linear light.
inline Kelpa::Vector parseColorOption(std::string const& text) {
    try {
        return parseColor(text);
    } catch (std::invalid_argument const& error) {
        throw UsageError(error.what());
    }
}

/// What `take` makes of a text; what it complains about is told with the option's name.
template <class Take>
auto toldWithName(std::string const& name, Take const& take, std::string const& text) {
    try {
        return take(text);
    } catch (UsageError const& error) {
        throw UsageError(fmt::format("{}: {}", name, error.what()));
    }
}

/// An option whose text goes to `take`; what that complains about is told with the option's name.
template <class Take>
CLI::Option* addTaken(CLI::App& app, std::string const& name, char const* form, Take take,
                      std::string const& help) {
    return app
        .add_option_function<std::string>(
            name, [name, take](std::string const& text) { toldWithName(name, take, text); }, help)
        ->type_name(form);
}

/// An option whose text is parsed into `target`.
template <class Parse, class Target>
CLI::Option* addParsed(CLI::App& app, std::string const& name, char const* form, Target& target,
                       Parse parse, std::string const& help) {
    return addTaken(
        app, name, form, [&target, parse](std::string const& text) { target = parse(text); }, help);
}

/// An option that takes one of a few words.
template <class Choice>
CLI::Option* addChoice(CLI::App& app, std::string const& name, Choice& target,
                       std::vector<std::pair<std::string, Choice>> const& choices,
                       std::string const& help) {
    std::vector<std::string> words;
    for (auto const& choice : choices)
        words.push_back(choice.first);
    std::string const all = fmt::format("{}", fmt::join(words, "|"));
    return addTaken(
        app, name, all.c_str(),
        [&target, choices, words](std::string const& text) {
            auto const at = std::find(words.begin(), words.end(), inSmallLetters(text));
            if (at == words.end())
                throw UsageError(fmt::format("'{}' is none of {}", text, fmt::join(words, ", ")));
            target = choices[static_cast<std::size_t>(at - words.begin())].second;
        },
        help);
}

/// Accepts the numbers from `low` to `high`, and so no NaN; without words of its own in the help.
/// To be given to `transform`: fractions become what they are worth.
template <class Number> CLI::Validator between(Number low, Number high) {
    return CLI::Validator(
        [low, high](std::string& text) -> std::string {
            Number value{};
            char const* const end = text.data() + text.size();
            if (readNumber(text.data(), end, value) == end && value >= low && value <= high) {
                text = fmt::format("{}", value);
                return {};
            }
            char const* const kind = std::is_integral_v<Number> ? "whole" : "finite";
            return fmt::format("'{}' is not a {} number from {} to {}", text, kind, low, high);
        },
        "");
}

/// "O=red,2=#c33" as kinds with what `parse` makes of the words behind them.
template <class Value, class Parse>
std::vector<OfKind<Value>> parseKinds(std::string const& text, char const* form, Parse parse) {
    std::vector<OfKind<Value>> kinds;
    std::istringstream rest(text + ",");
    for (std::string item; std::getline(rest, item, ',');) {
        std::size_t const sign = item.find('=');
        if (sign == std::string::npos || sign == 0)
            throw UsageError(fmt::format("'{}' is not of the form {}: the number of a type, an "
                                         "element's symbol, or a name before each =",
                                         item, form));
        kinds.push_back({item.substr(0, sign), parse(item.substr(sign + 1))});
    }
    return kinds;
}

inline CLI::Validator anySeed() {
    return between(std::uint64_t{0}, std::numeric_limits<std::uint64_t>::max());
}

} // namespace pipeline::tool
